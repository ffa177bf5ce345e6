#ifndef NVB_RECORDS_FIELD_CODEC_H
#define NVB_RECORDS_FIELD_CODEC_H

#include "common/big_endian.h"

#include <nvbdll/state.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <limits>
#include <span>

namespace nvb {

// Byte order of the two encodings, process-wide. The stream form is big-endian: with
// hostSwapStream at 1 (always) the float readers reverse its bytes into the little-endian
// host. The DAT form is native: hostSwapDAT stays 0, and only when it is set does DAT
// parsing reverse each item of even width after copying it.
extern std::uint8_t hostSwapStream;
extern std::uint8_t hostSwapDAT;

// The bytes a stream-form reader may look at. A read past the end gives zeros, so a
// record whose counts lie about its length never leaves its work buffer.
using ByteView = std::span<const std::uint8_t>;

inline ByteView frameBytes(const nvb_frame_t& frame) {
    return ByteView(frame.data, sizeof frame.data);
}

// The structure a reader fills, cleared, or null when it or the DAT header is missing.
template <class T>
[[nodiscard]] T* clearedTarget(T* rec, const nvb_expand_t& state) {
    if (rec == nullptr || state.records.datHeader == nullptr) return nullptr;
    std::memset(static_cast<void*>(rec), 0, sizeof *rec);
    return rec;
}

[[nodiscard]] inline std::uint8_t getByte(ByteView bytes, std::size_t offset) {
    return offset < bytes.size() ? bytes[offset] : std::uint8_t{0};
}

// 2^exponent built from its bits: exact, and cheaper than ldexp on the reader's path.
[[nodiscard]] inline double powerOfTwo(int exponent) {
    if (exponent > -1022 && exponent < 1023) {
        return std::bit_cast<double>(static_cast<std::uint64_t>(exponent + 1023) << 52);
    }
    return std::ldexp(1.0, exponent);
}

// Big-endian unsigned value of up to 8 bytes.
[[nodiscard, gnu::always_inline]] inline std::uint64_t getBigEndian(ByteView bytes, std::size_t offset,
                                                                    unsigned width) {
    std::uint64_t value = 0;
    if (offset + width <= bytes.size() && width <= 8) {
        value = loadBigField(bytes.data() + offset, width);
    } else {
        for (unsigned i = 0; i < width; ++i) value = (value << 8) | getByte(bytes, offset + i);
    }
    return value;
}

// Big-endian unsigned value of `width` bytes, 0 to 4; width 0 gives 0.
[[nodiscard]] inline std::uint32_t getUint(ByteView bytes, std::size_t offset, unsigned width) {
    return static_cast<std::uint32_t>(getBigEndian(bytes, offset, std::min(width, 4u)));
}

[[nodiscard]] float getFloat(ByteView bytes, std::size_t offset);
[[nodiscard]] double getDouble(ByteView bytes, std::size_t offset);

// A scaled field of 1 to 8 bytes: the first four carry the sign (when signed) and the
// value times 2^(exponent + 8 x further bytes); the further bytes are added unsigned
// times 2^exponent. Inline, so that the readers' constant widths fold.
[[nodiscard, gnu::always_inline]] inline double getScaled(ByteView bytes, std::size_t offset, unsigned width,
                                                          int exponent, bool isSigned) {
    width = std::min(width, 8u);
    const unsigned head = std::min(width, 4u);
    const unsigned tail = width - head;
    const auto pattern = static_cast<std::uint32_t>(getBigEndian(bytes, offset, head));
    double value = 0.0;
    if (isSigned && head == 4) {
        value = static_cast<std::int32_t>(pattern);
    } else if (isSigned && head > 0 && (pattern >> (8 * head - 1)) != 0) {
        value = static_cast<double>(static_cast<std::int64_t>(pattern) - (std::int64_t{1} << (8 * head)));
    } else {
        value = pattern;
    }
    double result = value * powerOfTwo(exponent + static_cast<int>(8 * tail));
    if (tail > 0) result += static_cast<double>(getBigEndian(bytes, offset + head, tail)) * powerOfTwo(exponent);
    return result;
}

void getBytes(std::uint8_t* destination, ByteView bytes, std::size_t offset, std::size_t count);

// The writer's view of a frame buffer: the frame's length is the write position. A write
// that would pass the 5120 bytes is dropped and flags `overflow`, and the frame is then
// not to be used.
struct WriteBuffer {
    nvb_frame_t& frame;
    bool overflow = false;
};

inline void putByte(WriteBuffer& out, std::uint8_t value) {
    if (out.frame.length >= sizeof out.frame.data) {
        out.overflow = true;
        return;
    }
    out.frame.data[out.frame.length++] = value;
}
void putBytes(WriteBuffer& out, const std::uint8_t* bytes, std::size_t count);

// The field that crosses the end of the buffer: its bytes that still fit, then overflow.
void putBigEndianCut(WriteBuffer& out, std::uint64_t value, unsigned width);

// The low `Width` bytes of value, big-endian. One bound check and one store per field:
// byte stores through the frame would make the compiler reload its length after each.
template <unsigned Width>
[[gnu::always_inline]] inline void putBigEndian(WriteBuffer& out, std::uint64_t value) {
    static_assert(Width >= 1 && Width <= 8);
    const std::size_t at = out.frame.length;
    if (at + Width > sizeof out.frame.data) {
        putBigEndianCut(out, value, Width);
        return;
    }
    storeBigField(out.frame.data + at, value, Width);
    out.frame.length = static_cast<std::uint16_t>(at + Width);
}

// Bytes in written order as one big-endian value, for putBigEndian.
template <class... Bytes>
[[nodiscard]] constexpr std::uint64_t packBigEndian(Bytes... bytes) {
    static_assert(sizeof...(Bytes) <= 8);
    std::uint64_t value = 0;
    ((value = (value << 8) | static_cast<std::uint8_t>(bytes)), ...);
    return value;
}

inline void putU16(WriteBuffer& out, std::uint16_t value) {
    putBigEndian<2>(out, value);
}
inline void putU32(WriteBuffer& out, std::uint32_t value) {
    putBigEndian<4>(out, value);
}
inline void putF32(WriteBuffer& out, float value) {
    putBigEndian<4>(out, std::bit_cast<std::uint32_t>(value));
}
inline void putF64(WriteBuffer& out, double value) {
    putBigEndian<8>(out, std::bit_cast<std::uint64_t>(value));
}

// The rounding of every scaled writer: half away from zero, then toward zero. A value
// beyond 64 bits (or not a number) gives the pattern 0x8000000000000000.
[[nodiscard]] inline std::int64_t roundScaled(double x, int power) {
    const double v = x * powerOfTwo(power);
    // Without branches: the signs of ranges, differences and Doppler follow no pattern a
    // predictor could learn. copysign gives -0.0 the half of a negative, which still
    // truncates to 0.
    const double rounded = v + std::copysign(0.5, v);
    constexpr double kLimit = 9223372036854775808.0;
    if (!(std::fabs(rounded) < kLimit)) return std::numeric_limits<std::int64_t>::min();
    return static_cast<std::int64_t>(rounded);
}

// Scaled writers: x times 2^power, rounded half away from zero, low bytes kept.
// A writer straight into a frame that has room for what follows: a cursor of its own, so
// no bound check and no reload of the frame's length between fields (a store through the
// frame's bytes may alias the length; a local cursor can't be). The caller sets the
// frame's length from it afterwards.
struct FrameCursor {
    std::uint8_t* at;
};

template <unsigned Width>
[[gnu::always_inline]] inline void putBigEndian(FrameCursor& out, std::uint64_t value) {
    storeBigField(out.at, value, Width);
    out.at += Width;
}

template <unsigned Width, class Out>
inline void putScaled(Out& out, double x, int power) {
    putBigEndian<Width>(out, static_cast<std::uint64_t>(roundScaled(x, power)));
}
inline void putScaled1(WriteBuffer& out, double x, int power) {
    putScaled<1>(out, x, power);
}
inline void putScaled2(WriteBuffer& out, double x, int power) {
    putScaled<2>(out, x, power);
}
inline void putScaled3(WriteBuffer& out, double x, int power) {
    putScaled<3>(out, x, power);
}
inline void putScaled4(WriteBuffer& out, double x, int power) {
    putScaled<4>(out, x, power);
}
inline void putScaled6(WriteBuffer& out, double x, int power) {
    putScaled<6>(out, x, power);
}
// Writes the truncated head of x times 2^power in four bytes and returns the rounded
// residual in 1/256 of the head's unit, at most 127; the caller places it.
[[nodiscard]] std::uint8_t putScaled4Split(WriteBuffer& out, double x, int power);
// Writes x times 2^power in the fewest signed big-endian bytes, at least minBytes, and
// returns that count. A value that needs more than maxBytes ends the process.
unsigned putScaledVar(WriteBuffer& out, double x, int power, unsigned minBytes, unsigned maxBytes);
// Overwrites a byte already written (a length placeholder).
void patchByte(WriteBuffer& out, std::size_t at, std::uint8_t value);

// Closes a frame written from offset 0: total length (position + 3) into offset 1 and,
// for types with a high length byte, offset 3; then checksum and end byte. Returns the
// frame length, or 0 when the frame did not fit its buffer.
// Starts a plain frame of `type` in `frame`: start byte, a length byte to be patched, the
// type, and the high length byte where the type has one.
WriteBuffer openFrame(nvb_frame_t& frame, std::uint8_t type, bool highLengthByte);
std::uint16_t closeFrame(WriteBuffer& out, bool highLengthByte);

// A DAT record as the parsers walk it: fields are copied item by item in native order;
// bytes past `length` read as zero.
struct DatReader {
    const std::uint8_t* data;
    std::size_t length;
    std::size_t position = 0;
};

// Copies `count` items of `size` bytes; with hostSwapDAT set each item of even size is
// reversed in place.
void datCopy(DatReader& in, void* destination, std::size_t count, std::size_t size);

// Whether the next `size` bytes lie whole in the record and need no swap: then they are a
// plain copy.
[[nodiscard]] inline bool datLiesWhole(const DatReader& in, std::size_t size) {
    return hostSwapDAT == 0 && in.position < in.length && in.length - in.position >= size;
}

template <class T>
[[nodiscard]] T datRead(DatReader& in) {
    T value{};
    if (datLiesWhole(in, sizeof value)) {
        std::memcpy(&value, in.data + in.position, sizeof value);
        in.position += sizeof value;
        return value;
    }
    datCopy(in, &value, 1, sizeof value);
    return value;
}

// Two ways of taking the fixed fields of a block in native order: checked field by field
// through the reader, or, once one check has shown the block lies whole in the record and
// needs no swap, straight from its bytes.
struct DatChecked {
    DatReader& in;
    template <class T>
    [[nodiscard]] T read() {
        return datRead<T>(in);
    }
};

struct DatUnchecked {
    const std::uint8_t* at;
    template <class T>
    [[nodiscard]] T read() {
        T value;
        std::memcpy(&value, at, sizeof value);
        at += sizeof value;
        return value;
    }
};

// Runs `take` on the next `size` bytes of the record, read as one of the two above.
template <class Take>
[[gnu::always_inline]] inline void datFixed(DatReader& in, std::size_t size, Take take) {
    if (datLiesWhole(in, size)) {
        take(DatUnchecked{in.data + in.position});
        in.position += size;
    } else {
        take(DatChecked{in});
    }
}

// The same walk on the output side, for the field-by-field DAT forms: a write past
// `capacity` is dropped, so a form never outgrows the length its header announces.
struct DatWriter {
    std::uint8_t* data;
    std::size_t capacity;
    std::size_t position = 0;
};

inline void datPut(DatWriter& out, const void* source, std::size_t size) {
    if (size == 0) return;
    // A field that fits whole is copied at its own fixed size; only the one that crosses
    // the end is cut.
    if (out.position <= out.capacity && size <= out.capacity - out.position) {
        std::memcpy(out.data + out.position, source, size);
    } else if (out.position < out.capacity) {
        std::memcpy(out.data + out.position, source, out.capacity - out.position);
    }
    out.position += size;
}

// Takes the value by copy: fields of the packed structures can't be bound by reference.
template <class T>
void datWrite(DatWriter& out, T value) {
    datPut(out, &value, sizeof value);
}

// What is left of a DAT record behind the read position.
[[nodiscard]] inline std::size_t datLeft(const DatReader& in) {
    return in.length > in.position ? in.length - in.position : 0;
}

}  // namespace nvb

#endif
