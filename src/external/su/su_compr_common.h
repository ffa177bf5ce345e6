#ifndef NVB_EXTERNAL_SU_SU_COMPR_COMMON_H
#define NVB_EXTERNAL_SU_SU_COMPR_COMMON_H

// The arithmetic under every compact codec. A field is the big-endian bytes that stand in
// the plain record, read as an unsigned number modulo 256^width; differences, predictions
// and reconstructions work on those bytes, so a reconstruction is bit-exact whatever the
// field means. Nothing here allocates or keeps state; scratch is 8 bytes on the stack.
//
// Stream cursors. Every coder takes its stream as a ByteReader (expand side) or a
// ByteWriter (compress side), passed by reference and advanced in place. Both carry the end
// of their buffer and a sticky `failed` flag. A read or write that would pass the end does
// nothing, leaves the cursor where it was and sets `failed`, so a codec may run a whole
// record and test the flag once. Input that fits behaves exactly as with a bare pointer.

#include "common/big_endian.h"
#include "common/diagnostics.h"

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace nvb {

// The widest field a delta coder takes; every delta scratch area is this size.
inline constexpr std::size_t kMaxDeltaWidth = 8;

// The failures of the expanders, as the compact formats number them. Each family reports
// its own; where families fail for the same cause they give the same number, and the
// dispatch folds any of them into NVB_STATUS_EXPANSION.
inline constexpr std::uint8_t kStatusBadStart = 1;       // the rebuilt record has no start byte
inline constexpr std::uint8_t kStatusBadType = 2;        // a record of another type
inline constexpr std::uint8_t kStatusChecksum = 4;       // the rebuilt record's checksum is not the carried one
inline constexpr std::uint8_t kStatusBadEndByte = 5;
inline constexpr std::uint8_t kStatusBadNibbleCode = 6;  // above 8, or a nibble stream that ends early
inline constexpr std::uint8_t kStatusBadCount = 7;       // a count or an index beyond its list
// A length code above the field's width, a stream that ends early, or no room to write.
inline constexpr std::uint8_t kStatusBadDeltaLength = 8;

// Every compact family sends its reference form at most this long after the last one, in
// ms of record time, and whenever the time steps back. The last time starts at
// 0xFFFFFFFF, so the first record of a stream is always a reference.
inline constexpr std::uint32_t kReferenceInterval = 600000;
[[nodiscard]] inline bool referenceDue(std::uint32_t time, std::uint32_t lastReference) {
    return time < lastReference || time - lastReference >= kReferenceInterval;
}

struct ByteReader {
    const std::uint8_t* pos;
    const std::uint8_t* end;
    bool failed = false;
};

struct ByteWriter {
    std::uint8_t* pos;
    std::uint8_t* end;
    bool failed = false;
};

[[nodiscard]] inline ByteReader makeByteReader(const std::uint8_t* data, std::size_t size) {
    return ByteReader{data, data + size};
}

[[nodiscard]] inline ByteWriter makeByteWriter(std::uint8_t* data, std::size_t capacity) {
    return ByteWriter{data, data + capacity};
}

[[nodiscard]] inline std::size_t bytesLeft(const ByteReader& reader) {
    return static_cast<std::size_t>(reader.end - reader.pos);
}

[[nodiscard]] inline std::size_t spaceLeft(const ByteWriter& writer) {
    return static_cast<std::size_t>(writer.end - writer.pos);
}

// Takes `count` bytes into `destination` (may be null to skip them). False, with nothing
// taken and `failed` set, when fewer are left.
[[nodiscard]] inline bool readBytes(ByteReader& reader, std::uint8_t* destination, std::size_t count) {
    if (count > bytesLeft(reader)) {
        reader.failed = true;
        return false;
    }
    if (destination != nullptr && count > 0) std::memcpy(destination, reader.pos, count);
    reader.pos += count;
    return true;
}

[[nodiscard]] inline bool readByte(ByteReader& reader, std::uint8_t& value) {
    if (reader.pos == reader.end) {
        reader.failed = true;
        return false;
    }
    value = *reader.pos++;
    return true;
}

// Appends bytes; when they don't all fit, appends none and sets `failed`.
inline void writeBytes(ByteWriter& writer, const std::uint8_t* bytes, std::size_t count) {
    if (count > spaceLeft(writer)) {
        writer.failed = true;
        return;
    }
    if (count > 0) std::memcpy(writer.pos, bytes, count);
    writer.pos += count;
}

inline void writeByte(ByteWriter& writer, std::uint8_t value) {
    if (writer.pos == writer.end) {
        writer.failed = true;
        return;
    }
    *writer.pos++ = value;
}

// a := a + b modulo 256^width. Returns the carry out of the first byte. a and b may alias.
inline std::uint8_t bigAdd(std::uint8_t* a, const std::uint8_t* b, std::size_t width) {
    if (width <= kMaxDeltaWidth) {
        const std::uint64_t left = loadBigField(a, width);
        const std::uint64_t sum = left + loadBigField(b, width);
        storeBigField(a, sum, width);
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

// a := a - b modulo 256^width. Returns 1 when a borrow leaves the first byte. a and b may
// alias.
inline std::uint8_t bigSubtract(std::uint8_t* a, const std::uint8_t* b, std::size_t width) {
    if (width <= kMaxDeltaWidth) {
        const std::uint64_t left = loadBigField(a, width);
        const std::uint64_t right = loadBigField(b, width);
        storeBigField(a, left - right, width);
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

// a[i] - b[i] at the first byte where the strings differ, 0 when they are equal or width is
// 0. Its sign is that of a - b; its size is not.
[[nodiscard]] std::int16_t bigCompare(const std::uint8_t* a, const std::uint8_t* b,
                                      std::size_t width);

// Bytes left after dropping leading zero bytes; 0 for an all-zero string. With
// `keepSignBit` a first significant byte of 128 or more counts one byte more, so the result
// can be width + 1.
[[nodiscard]] std::size_t bigTrimmedLength(const std::uint8_t* bytes, std::size_t width,
                                           bool keepSignBit);

// Arithmetic shift right of the whole string by 0 to 8 bits; the top bit of the first byte
// fills from the left. A larger count is asserted and leaves the string as it was.
void bigShiftRight(std::uint8_t* bytes, unsigned bitCount, std::size_t width);

// out := 2 * newer - older modulo 256^width: the next value at a constant rate of change.
// out may alias either input.
inline void bigExtrapolate(const std::uint8_t* older, const std::uint8_t* newer, std::uint8_t* out,
                           std::size_t width) {
    if (width <= kMaxDeltaWidth) {
        // Both inputs are read before out is written, so a history may extrapolate in place.
        storeBigField(out, 2 * loadBigField(newer, width) - loadBigField(older, width), width);
        return;
    }
    int carry = 0;
    for (std::size_t i = width; i-- > 0;) {
        const int value = 2 * newer[i] - older[i] + carry;
        out[i] = static_cast<std::uint8_t>(value);
        carry = value >> 8;
    }
}

// Small delta, compress side: d = new - reference as unsigned big-endian numbers of `width`
// (0 to 4) bytes, as a signed 32-bit difference. Within low..high the code is d in its low
// 8 bits (the caller masks it to its bit field) and nothing is written; otherwise the code
// is `escape` and the `width` bytes of new go to the stream.
inline std::uint8_t codeSmallDelta(std::int8_t low, std::int8_t high, std::uint8_t escape,
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
        static_cast<std::int32_t>(static_cast<std::uint32_t>(loadBigField(newField, width)) -
                                  static_cast<std::uint32_t>(loadBigField(reference, width)));
    if (low <= difference && difference <= high) return static_cast<std::uint8_t>(difference);
    writeBytes(stream, newField, width);
    return escape;
}

// Small delta, expand side: the escape takes `width` raw bytes from the stream; any other
// code is added to the reference, or, when it shares a bit with the escape, read as the
// negative number of its bit field. False, with the destination untouched, when the stream
// is short.
[[nodiscard]] inline bool expandSmallDelta(std::uint8_t* destination, std::uint8_t escape, std::uint8_t code,
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

// Wide delta, compress side. Unchanged is code 0; otherwise the magnitude of new minus
// reference, trimmed but keeping a free top bit for the sign (set: new is below), in n
// bytes with code n, or, when n reaches rawCode, the `width` raw bytes of new with code
// rawCode. A field whose code 0 means raw (rawCode 0) needs its own writer. Always inline:
// the width is a constant at nearly every call, and with it most of the branches go.
[[gnu::always_inline]] inline std::uint8_t codeWideDelta(const std::uint8_t* newField, const std::uint8_t* reference,
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
    // The magnitude's bits and a free top bit for the sign, in whole bytes.
    const auto length = static_cast<std::size_t>(std::bit_width(difference) / 8 + 1);
    if (length >= rawCode) {
        writeBytes(stream, newField, width);
        return rawCode;
    }
    if (length > spaceLeft(stream)) {
        stream.failed = true;
        return static_cast<std::uint8_t>(length);
    }
    // Sign and magnitude go into the stream as one store: bytes staged on the stack, or
    // patched after the store, would be read back at another width than they were written.
    std::uint8_t* at = stream.pos;
    stream.pos += length;
    if (length > kMaxDeltaWidth) {
        // Nine bytes: the sign has a zero byte of its own ahead of the magnitude.
        *at++ = newIsSmaller ? 0x80 : 0;
        storeBigField(at, difference, kMaxDeltaWidth);
        return static_cast<std::uint8_t>(length);
    }
    const std::uint64_t field = newIsSmaller ? difference | std::uint64_t{0x80} << (8 * length - 8) : difference;
    if (spaceLeft(stream) + length >= 8) {
        // One word, the field in its leading bytes and zeros behind, where the stream has
        // written nothing yet: no branch on a length that follows no pattern.
        storeBigWord<std::uint64_t>(at, field << (64 - 8 * length));
    } else {
        storeBigField(at, field, length);
    }
    return static_cast<std::uint8_t>(length);
}

// Wide delta, expand side. Code rawCode takes `width` raw bytes; code 0 gives the reference
// and reads nothing; other codes take `code` sign-magnitude bytes. Returns 0, or
// kStatusBadDeltaLength when the code is above the width, the width above 8 or the stream
// short; then neither the destination nor the cursor has moved.
[[nodiscard, gnu::always_inline]] inline std::uint8_t expandWideDelta(std::uint8_t* destination, std::size_t width, std::uint8_t code,
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

// Nibble delta, compress side: 0 unchanged; n (1 to 3) magnitude bytes, plus 4 when new is
// below the reference, the sign living in the code; 8 and the raw field when the magnitude
// needs 4 or more bytes.
std::uint8_t codeNibbleDelta(const std::uint8_t* newField, const std::uint8_t* reference,
                             std::size_t width, ByteWriter& stream);

// Nibble delta, expand side. The new value replaces the reference in place (except after a
// raw code 8, which leaves it) and is appended to the destination. Returns 0;
// kStatusBadNibbleCode when the code is above 8 or the stream is short;
// kStatusBadDeltaLength when the destination has no room. A failure changes nothing.
[[nodiscard]] std::uint8_t expandNibbleDelta(std::uint8_t code, std::size_t width,
                                             std::uint8_t* reference, ByteReader& stream,
                                             ByteWriter& destination);

// The system byte of a satellite row: system in the low 6 bits, two more bits on top.
[[nodiscard]] inline std::uint8_t packSystemByte(std::uint8_t system, std::uint8_t topBits) {
    return static_cast<std::uint8_t>((topBits << 6) | system);
}

inline void unpackSystemByte(std::uint8_t byte, std::uint8_t& system, std::uint8_t& topBits) {
    system = byte & 63;
    topBits = byte >> 6;
}

}  // namespace nvb

#endif
