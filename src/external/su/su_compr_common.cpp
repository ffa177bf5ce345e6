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

namespace {

std::uint32_t readUnsigned(const std::uint8_t* bytes, std::size_t width) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = (value << 8) | bytes[i];
    return value;
}

}  // namespace

std::uint8_t codeSmallDelta(std::int8_t low, std::int8_t high, std::uint8_t escape,
                            const std::uint8_t* newField, const std::uint8_t* reference,
                            std::size_t width, ByteWriter& stream) {
    if (width > 4) {
        compactAssert(false);
        writeBytes(stream, newField, width);
        return escape;
    }
    // Unsigned subtraction: on a 4-byte field a wrap across zero is a small step, as the
    // expander's modular addition reads it back.
    const auto difference =
        static_cast<std::int32_t>(readUnsigned(newField, width) - readUnsigned(reference, width));
    if (low <= difference && difference <= high) return static_cast<std::uint8_t>(difference);
    writeBytes(stream, newField, width);
    return escape;
}

bool expandSmallDelta(std::uint8_t* destination, std::uint8_t escape, std::uint8_t code,
                      ByteReader& stream, const std::uint8_t* reference, std::size_t width) {
    if (code == escape) return readBytes(stream, destination, width);
    if (width > kMaxDeltaWidth) {
        compactAssert(false);
        return false;
    }
    const std::uint64_t value = loadBigField(reference, width);
    // The escape is the field's sign bit, so 2 * escape - code is the magnitude of the
    // negative value the bit field holds.
    if ((code & escape) == 0) {
        storeBigField(destination, value + code, width);
    } else {
        storeBigField(destination, value - static_cast<std::uint8_t>(2 * escape - code), width);
    }
    return true;
}

std::uint8_t codeWideDelta(const std::uint8_t* newField, const std::uint8_t* reference,
                           std::size_t width, std::uint8_t rawCode, ByteWriter& stream) {
    if (width > kMaxDeltaWidth) {
        compactAssert(false);
        writeBytes(stream, newField, width);
        return rawCode;
    }
    const std::uint64_t value = loadBigField(newField, width);
    const std::uint64_t base = loadBigField(reference, width);
    if (value == base) return 0;
    const bool newIsSmaller = value < base;
    const std::uint64_t difference = newIsSmaller ? base - value : value - base;
    // The magnitude's significant bytes, and one more when the sign needs a bit of its own.
    const auto significant = static_cast<std::size_t>(8 - std::countl_zero(difference) / 8);
    const bool topBitSet = ((difference >> (8 * significant - 1)) & 1u) != 0;
    const std::size_t length = significant + (topBitSet ? 1 : 0);
    if (length >= rawCode) {
        writeBytes(stream, newField, width);
        return rawCode;
    }
    // One zero byte ahead of the magnitude, for a length of nine.
    std::array<std::uint8_t, 1 + kMaxDeltaWidth> scratch{};
    storeBigField(scratch.data() + 1, difference, kMaxDeltaWidth);
    std::uint8_t* first = scratch.data() + scratch.size() - length;
    if (newIsSmaller) *first |= 0x80;
    writeBytes(stream, first, length);
    return static_cast<std::uint8_t>(length);
}

std::uint8_t expandWideDelta(std::uint8_t* destination, std::size_t width, std::uint8_t code,
                             std::uint8_t rawCode, ByteReader& stream,
                             const std::uint8_t* reference) {
    if (code == rawCode) return readBytes(stream, destination, width) ? 0 : kStatusBadDeltaLength;
    if (code > width || width > kMaxDeltaWidth) return kStatusBadDeltaLength;
    if (code > bytesLeft(stream)) {
        stream.failed = true;
        return kStatusBadDeltaLength;
    }
    // Code 0 reads nothing: the byte under the cursor belongs to the next field and could
    // only ever add or subtract a zero magnitude.
    const std::uint64_t value = loadBigField(reference, width);
    if (code == 0) {
        storeBigField(destination, value, width);
        return 0;
    }
    const bool below = (stream.pos[0] & 0x80) != 0;
    const std::uint64_t magnitude = loadBigField(stream.pos, code) & ~(std::uint64_t{0x80} << (8 * (code - 1)));
    storeBigField(destination, below ? value - magnitude : value + magnitude, width);
    stream.pos += code;
    return 0;
}

std::uint8_t codeNibbleDelta(const std::uint8_t* newField, const std::uint8_t* reference,
                             std::size_t width, ByteWriter& stream) {
    constexpr std::uint8_t kRawCode = 8;
    if (width > kMaxDeltaWidth) {
        compactAssert(false);
        writeBytes(stream, newField, width);
        return kRawCode;
    }
    const std::int16_t comparison = bigCompare(newField, reference, width);
    if (comparison == 0) return 0;
    const bool newIsSmaller = comparison < 1;
    std::array<std::uint8_t, kMaxDeltaWidth> magnitude{};
    std::memcpy(magnitude.data(), newIsSmaller ? reference : newField, width);
    bigSubtract(magnitude.data(), newIsSmaller ? newField : reference, width);
    // The sign lives in the code, so all bits of the magnitude bytes are magnitude.
    const std::size_t length = bigTrimmedLength(magnitude.data(), width, false);
    if (length >= 4) {
        writeBytes(stream, newField, width);
        return kRawCode;
    }
    writeBytes(stream, magnitude.data() + width - length, length);
    return static_cast<std::uint8_t>(length + (newIsSmaller ? 4 : 0));
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
        // Three spare bytes ahead of the field: a code of more magnitude bytes than a
        // narrow field has loses the excess, as arithmetic modulo the width does anyway.
        std::array<std::uint8_t, 3 + kMaxDeltaWidth> step{};
        std::memcpy(step.data() + step.size() - length, stream.pos, length);
        const std::uint8_t* field = step.data() + step.size() - width;
        if ((code & 4u) != 0) {
            bigSubtract(reference, field, width);
        } else {
            bigAdd(reference, field, width);
        }
        stream.pos += length;
    }
    writeBytes(destination, reference, width);
    return 0;
}

}  // namespace nvb
