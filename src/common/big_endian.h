#ifndef NVB_COMMON_BIG_ENDIAN_H
#define NVB_COMMON_BIG_ENDIAN_H

// Big-endian fields of up to eight bytes as numbers, by whole words: the field writers and
// the delta coders move every field of every signal through these.

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace nvb {

// Big-endian words of 2, 4 or 8 bytes, one load or store each.
template <class Word>
[[nodiscard]] inline Word loadBigWord(const std::uint8_t* bytes) {
    Word word;
    std::memcpy(&word, bytes, sizeof word);
    if constexpr (std::endian::native == std::endian::little) {
        if constexpr (sizeof word == 2) word = __builtin_bswap16(word);
        if constexpr (sizeof word == 4) word = __builtin_bswap32(word);
        if constexpr (sizeof word == 8) word = __builtin_bswap64(word);
    }
    return word;
}

template <class Word>
inline void storeBigWord(std::uint8_t* bytes, Word word) {
    if constexpr (std::endian::native == std::endian::little) {
        if constexpr (sizeof word == 2) word = __builtin_bswap16(word);
        if constexpr (sizeof word == 4) word = __builtin_bswap32(word);
        if constexpr (sizeof word == 8) word = __builtin_bswap64(word);
    }
    std::memcpy(bytes, &word, sizeof word);
}

// A field of up to 8 bytes as one number, so that the arithmetic below is the machine's
// own modulo 256^width. It goes by words, not bytes: every field of every signal passes
// through here.
[[nodiscard]] inline std::uint64_t loadBigField(const std::uint8_t* bytes, std::size_t width) {
    if (width == 8) return loadBigWord<std::uint64_t>(bytes);
    std::uint64_t value = 0;
    if ((width & 4) != 0) {
        value = loadBigWord<std::uint32_t>(bytes);
        bytes += 4;
    }
    if ((width & 2) != 0) {
        value = value << 16 | loadBigWord<std::uint16_t>(bytes);
        bytes += 2;
    }
    if ((width & 1) != 0) value = value << 8 | *bytes;
    return value;
}

// The low `width` (up to 8) bytes of `value`, big-endian.
inline void storeBigField(std::uint8_t* bytes, std::uint64_t value, std::size_t width) {
    if (width == 8) {
        storeBigWord<std::uint64_t>(bytes, value);
        return;
    }
    bytes += width;
    if ((width & 1) != 0) {
        *--bytes = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
    if ((width & 2) != 0) {
        bytes -= 2;
        storeBigWord<std::uint16_t>(bytes, static_cast<std::uint16_t>(value));
        value >>= 16;
    }
    if ((width & 4) != 0) storeBigWord<std::uint32_t>(bytes - 4, static_cast<std::uint32_t>(value));
}

}  // namespace nvb

#endif
