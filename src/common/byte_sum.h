#ifndef NVB_COMMON_BYTE_SUM_H
#define NVB_COMMON_BYTE_SUM_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace nvb {

// The frame checksum: a 16-bit wrapping sum of bytes.
inline std::uint16_t byteSum(const std::uint8_t* bytes, std::size_t count) {
    // Eight bytes at a time into four 16-bit lanes, emptied before a lane could carry
    // into its neighbour (each round adds at most 2 x 255 to a lane).
    constexpr std::uint64_t kLowBytes = 0x00FF00FF00FF00FFull;
    constexpr std::size_t kRoundsPerFlush = 128;
    std::uint32_t sum = 0;
    std::size_t i = 0;
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
