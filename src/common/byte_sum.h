#ifndef NVB_COMMON_BYTE_SUM_H
#define NVB_COMMON_BYTE_SUM_H

#include <cstddef>
#include <cstdint>

namespace nvb {

// The frame checksum: a 16-bit wrapping sum of bytes.
inline std::uint16_t byteSum(const std::uint8_t* bytes, std::size_t count) {
    std::uint32_t sum = 0;
    for (std::size_t i = 0; i < count; ++i) sum += bytes[i];
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
