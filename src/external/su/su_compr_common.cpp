#include "external/su/su_compr_common.h"

#include "common/diagnostics.h"

#include <array>
#include <cstring>

namespace nvb {

namespace {

// A field of up to 8 bytes as one number: every primitive below is then the machine's own
// arithmetic modulo 256^width.
std::uint64_t loadField(const std::uint8_t* bytes, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = value << 8 | bytes[i];
    return value;
}

void storeField(std::uint8_t* bytes, std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) {
        bytes[i] = static_cast<std::uint8_t>(value);
        value >>= 8;
    }
}

}  // namespace

std::uint8_t bigAdd(std::uint8_t* a, const std::uint8_t* b, std::size_t width) {
    if (width <= kMaxDeltaWidth) {
        const std::uint64_t left = loadField(a, width);
        const std::uint64_t sum = left + loadField(b, width);
        storeField(a, sum, width);
        if (width == kMaxDeltaWidth) return sum < left ? 1 : 0;
        return static_cast<std::uint8_t>((sum >> (8 * width)) & 1u);
    }
    unsigned carry = 0;
    for (std::size_t i = width; i-- > 0;) {
        const unsigned sum = a[i] + b[i] + carry;
        a[i] = static_cast<std::uint8_t>(sum);
        carry = sum >> 8;
    }
    return static_cast<std::uint8_t>(carry);
}

std::uint8_t bigSubtract(std::uint8_t* a, const std::uint8_t* b, std::size_t width) {
    if (width <= kMaxDeltaWidth) {
        const std::uint64_t left = loadField(a, width);
        const std::uint64_t right = loadField(b, width);
        storeField(a, left - right, width);
        return left < right ? 1 : 0;
    }
    int borrow = 0;
    for (std::size_t i = width; i-- > 0;) {
        const int difference = a[i] - b[i] - borrow;
        a[i] = static_cast<std::uint8_t>(difference);
        borrow = difference < 0 ? 1 : 0;
    }
    return static_cast<std::uint8_t>(borrow);
}

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

void bigExtrapolate(const std::uint8_t* older, const std::uint8_t* newer, std::uint8_t* out,
                    std::size_t width) {
    if (width <= kMaxDeltaWidth) {
        // Both inputs are read before out is written, so the history may extrapolate in place.
        storeField(out, 2 * loadField(newer, width) - loadField(older, width), width);
        return;
    }
    int carry = 0;
    for (std::size_t i = width; i-- > 0;) {
        const int value = 2 * newer[i] - older[i] + carry;
        out[i] = static_cast<std::uint8_t>(value);
        carry = value >> 8;
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
    const std::uint64_t value = loadField(reference, width);
    // The escape is the field's sign bit, so 2 * escape - code is the magnitude of the
    // negative value the bit field holds.
    if ((code & escape) == 0) {
        storeField(destination, value + code, width);
    } else {
        storeField(destination, value - static_cast<std::uint8_t>(2 * escape - code), width);
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
    const std::int16_t comparison = bigCompare(newField, reference, width);
    if (comparison == 0) return 0;
    const bool newIsSmaller = comparison < 1;
    // One zero byte ahead of the field, so that a trimmed length of width + 1 (the sign
    // needs a byte of its own) still names bytes of this buffer.
    std::array<std::uint8_t, 1 + kMaxDeltaWidth> scratch{};
    std::uint8_t* magnitude = scratch.data() + 1;
    std::memcpy(magnitude, newIsSmaller ? reference : newField, width);
    bigSubtract(magnitude, newIsSmaller ? newField : reference, width);
    const std::size_t length = bigTrimmedLength(magnitude, width, true);
    if (length >= rawCode) {
        writeBytes(stream, newField, width);
        return rawCode;
    }
    std::uint8_t* first = magnitude + width - length;
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
    const std::uint64_t value = loadField(reference, width);
    if (code == 0) {
        storeField(destination, value, width);
        return 0;
    }
    const bool below = (stream.pos[0] & 0x80) != 0;
    const std::uint64_t magnitude = loadField(stream.pos, code) & ~(std::uint64_t{0x80} << (8 * (code - 1)));
    storeField(destination, below ? value - magnitude : value + magnitude, width);
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
