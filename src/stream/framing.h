#ifndef NVB_STREAM_FRAMING_H
#define NVB_STREAM_FRAMING_H

#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kStartByte = 0x02;
inline constexpr std::uint8_t kEndByte = 0x03;
inline constexpr std::uint32_t kMaxFrameLength = 5120;

// Compact types carry no end byte, and their trailer is the checksum of the plain frame
// they expand to, so framing tests nothing on them.
[[nodiscard]] bool isCompactType(std::uint8_t type);

// Whether a type keeps the high bits of its length in the extension byte (offset 3 of a
// frame, offset 2 of a bare record).
enum class LengthCoding : std::uint8_t { OneByte, Plus256, HighByte, HighNibble };
[[nodiscard]] LengthCoding lengthCodingOf(std::uint8_t type);

// The length that a length byte, type and extension byte describe.
[[nodiscard]] std::uint32_t addLengthExtension(std::uint8_t type, std::uint8_t lengthByte,
                                               std::uint8_t extensionByte);

// Whether storeLengthExtension can code `length` for `type`.
[[nodiscard]] bool lengthFitsType(std::uint8_t type, std::uint32_t length);

// Writes `length` into the length byte and, where the type has one, the extension byte.
// A length the type can't carry is a programming error and ends the process; callers
// that hold untrusted lengths test lengthFitsType first.
void storeLengthExtension(std::uint8_t type, std::uint32_t length, std::uint8_t& lengthByte,
                          std::uint8_t& extensionByte);

}  // namespace nvb

#endif
