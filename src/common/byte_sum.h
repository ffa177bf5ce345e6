#ifndef NVB_COMMON_BYTE_SUM_H
#define NVB_COMMON_BYTE_SUM_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace nvb {

// The frame checksum: a 16-bit wrapping sum of bytes.
inline std::uint16_t byteSum(const std::uint8_t* bytes, std::size_t count) {
    std::uint32_t sum = 0;
    std::size_t i = 0;
#if defined(__SSE2__)
    // Sixteen bytes at a time: the sum of absolute differences from zero adds each half of
    // a vector into a 64-bit lane.
    __m128i lanes = _mm_setzero_si128();
    for (; count - i >= 16; i += 16) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bytes + i));
        lanes = _mm_add_epi64(lanes, _mm_sad_epu8(chunk, _mm_setzero_si128()));
    }
    sum = static_cast<std::uint32_t>(_mm_cvtsi128_si32(lanes)) +
          static_cast<std::uint32_t>(_mm_cvtsi128_si32(_mm_unpackhi_epi64(lanes, lanes)));
#else
    // Eight bytes at a time into four 16-bit lanes, emptied before a lane could carry
    // into its neighbour (each round adds at most 2 x 255 to a lane).
    constexpr std::uint64_t kLowBytes = 0x00FF00FF00FF00FFull;
    constexpr std::size_t kRoundsPerFlush = 128;
    while (count - i >= 8) {
        std::uint64_t lanes = 0;
        for (std::size_t round = 0; round < kRoundsPerFlush && count - i >= 8; ++round, i += 8) {
            std::uint64_t word = 0;
            std::memcpy(&word, bytes + i, sizeof word);
            lanes += (word & kLowBytes) + ((word >> 8) & kLowBytes);
        }
        sum += static_cast<std::uint32_t>((lanes & 0xFFFF) + ((lanes >> 16) & 0xFFFF) + ((lanes >> 32) & 0xFFFF) +
                                          (lanes >> 48));
    }
#endif
    for (; i < count; ++i) sum += bytes[i];
    return static_cast<std::uint16_t>(sum);
}

// A 16-bit big-endian value as the frame trailers and compact records store it.
inline std::uint16_t readU16BigEndian(const std::uint8_t* bytes) {
    return static_cast<std::uint16_t>((bytes[0] << 8) | bytes[1]);
}

inline void writeU16BigEndian(std::uint8_t* bytes, std::uint16_t value) {
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

}  // namespace nvb

#endif
