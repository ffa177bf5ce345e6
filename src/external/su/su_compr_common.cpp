#include "external/su/su_compr_common.h"

#include "common/diagnostics.h"

#include <array>
#include <bit>
#include <cstring>

namespace nvb {

std::int16_t bigCompare(const std::uint8_t* a, const std::uint8_t* b, std::size_t width) {
    for (std::size_t i = 0; i < width; ++i) {
        if (a[i] != b[i]) return static_cast<std::int16_t>(a[i] - b[i]);
    }
    return 0;
}

std::size_t bigTrimmedLength(const std::uint8_t* bytes, std::size_t width, bool keepSignBit) {
    std::size_t first = 0;
    while (first < width && bytes[first] == 0) ++first;
    if (first == width) return 0;
    const std::size_t length = width - first;
    return keepSignBit && bytes[first] >= 0x80 ? length + 1 : length;
}

void bigShiftRight(std::uint8_t* bytes, unsigned bitCount, std::size_t width) {
    if (bitCount > 8) {
        compactAssert(false);
        return;
    }
    if (width == 0) return;
    const unsigned fill = (bytes[0] & 0x80) != 0 ? 0xFFu : 0u;
    // From the last byte back, so that each byte still sees its unshifted neighbour.
    for (std::size_t i = width; i-- > 0;) {
        const unsigned above = i > 0 ? bytes[i - 1] : fill;
        bytes[i] = static_cast<std::uint8_t>(((above << 8) | bytes[i]) >> bitCount);
    }
}

std::uint8_t codeNibbleDelta(const std::uint8_t* newField, const std::uint8_t* reference,
                             std::size_t width, ByteWriter& stream) {
    constexpr std::uint8_t kRawCode = 8;
    if (width > kMaxDeltaWidth) {
        compactAssert(false);
        writeBytes(stream, newField, width);
        return kRawCode;
    }
    const std::uint64_t value = loadBigField(newField, width);
    const std::uint64_t base = loadBigField(reference, width);
    if (value == base) return 0;
    const bool newIsSmaller = value < base;
    const std::uint64_t magnitude = newIsSmaller ? base - value : value - base;
    // The sign lives in the code, so all bits of the magnitude bytes are magnitude.
    const auto length = static_cast<std::size_t>((std::bit_width(magnitude) + 7) / 8);
    if (length >= 4) {
        writeBytes(stream, newField, width);
        return kRawCode;
    }
    const auto code = static_cast<std::uint8_t>(length + (newIsSmaller ? 4 : 0));
    if (length > spaceLeft(stream)) {
        stream.failed = true;
        return code;
    }
    storeBigField(stream.pos, magnitude, length);
    stream.pos += length;
    return code;
}

std::uint8_t expandNibbleDelta(std::uint8_t code, std::size_t width, std::uint8_t* reference,
                               ByteReader& stream, ByteWriter& destination) {
    if (code > 8) return kStatusBadNibbleCode;
    if (width > spaceLeft(destination)) {
        destination.failed = true;
        return kStatusBadDeltaLength;
    }
    if (code == 8) {
        if (!readBytes(stream, destination.pos, width)) return kStatusBadNibbleCode;
        destination.pos += width;
        return 0;
    }
    if (code != 0) {
        if (width > kMaxDeltaWidth) return kStatusBadDeltaLength;
        const std::size_t length = code & 3u;
        if (length > bytesLeft(stream)) {
            stream.failed = true;
            return kStatusBadNibbleCode;
        }
        // A code of more magnitude bytes than a narrow field has loses the excess, as
        // arithmetic modulo the width does anyway.
        const std::uint64_t magnitude = loadBigField(stream.pos, length);
        const std::uint64_t value = loadBigField(reference, width);
        storeBigField(reference, (code & 4u) != 0 ? value - magnitude : value + magnitude, width);
        stream.pos += length;
    }
    writeBytes(destination, reference, width);
    return 0;
}

}  // namespace nvb
