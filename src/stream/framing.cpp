#include "stream/framing.h"

#include "common/diagnostics.h"

namespace nvb {

bool isCompactType(std::uint8_t type) {
    switch (type) {
        case 36: case 37: case 38: case 39: case 41:
        case 54: case 55: case 56: case 57:
        case 66: case 67: case 68: case 69:
        case 74: case 75: case 76: case 77:
        case 84: case 85: case 86:
            return true;
        default:
            return false;
    }
}

LengthCoding lengthCodingOf(std::uint8_t type) {
    switch (type) {
        case 74: case 75: case 76: case 77:
            return LengthCoding::Plus256;
        case 27: case 29: case 34: case 36: case 37: case 38: case 39:
        case 56: case 57: case 98: case 99:
            return LengthCoding::HighByte;
        case 35:
            return LengthCoding::HighNibble;
        default:
            return LengthCoding::OneByte;
    }
}

std::uint32_t addLengthExtension(std::uint8_t type, std::uint8_t lengthByte, std::uint8_t extensionByte) {
    switch (lengthCodingOf(type)) {
        case LengthCoding::Plus256: return lengthByte + 256u;
        case LengthCoding::HighByte: return lengthByte + 256u * extensionByte;
        // The high nibble of a record 35 extension byte is its fragment code, not length.
        case LengthCoding::HighNibble: return lengthByte + 256u * (extensionByte & 0x0Fu);
        case LengthCoding::OneByte: break;
    }
    return lengthByte;
}

bool lengthFitsType(std::uint8_t type, std::uint32_t length) {
    switch (lengthCodingOf(type)) {
        case LengthCoding::Plus256: return length >= 256 && length <= 511;
        case LengthCoding::HighByte: return length <= 0xFFFF;
        case LengthCoding::HighNibble: return length <= 0xFFF;
        case LengthCoding::OneByte: break;
    }
    return length < 256;
}

void storeLengthExtension(std::uint8_t type, std::uint32_t length, std::uint8_t& lengthByte,
                          std::uint8_t& extensionByte) {
    if (!lengthFitsType(type, length)) fatalAssert("cond", "su_compr_common", 1319);
    lengthByte = static_cast<std::uint8_t>(length);
    switch (lengthCodingOf(type)) {
        case LengthCoding::HighByte:
            extensionByte = static_cast<std::uint8_t>(length >> 8);
            break;
        case LengthCoding::HighNibble:
            extensionByte = static_cast<std::uint8_t>((extensionByte & 0xF0u) | ((length >> 8) & 0x0Fu));
            break;
        case LengthCoding::Plus256:
        case LengthCoding::OneByte:
            break;
    }
}

}  // namespace nvb
