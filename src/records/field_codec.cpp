#include "records/field_codec.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>

namespace nvb {

std::uint8_t hostSwapStream = 1;
std::uint8_t hostSwapDAT = 0;

void putBigEndianCut(WriteBuffer& out, std::uint64_t value, unsigned width) {
    for (unsigned i = width; i > 0; --i) putByte(out, static_cast<std::uint8_t>(value >> (8 * (i - 1))));
}

float getFloat(ByteView bytes, std::size_t offset) {
    std::uint8_t raw[4];
    getBytes(raw, bytes, offset, sizeof raw);
    if (hostSwapStream != 0) std::reverse(std::begin(raw), std::end(raw));
    float value = 0;
    std::memcpy(&value, raw, sizeof value);
    return value;
}

double getDouble(ByteView bytes, std::size_t offset) {
    std::uint8_t raw[8];
    getBytes(raw, bytes, offset, sizeof raw);
    if (hostSwapStream != 0) std::reverse(std::begin(raw), std::end(raw));
    double value = 0;
    std::memcpy(&value, raw, sizeof value);
    return value;
}

void getBytes(std::uint8_t* destination, ByteView bytes, std::size_t offset, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) destination[i] = getByte(bytes, offset + i);
}

void putBytes(WriteBuffer& out, const std::uint8_t* bytes, std::size_t count) {
    const std::size_t room = sizeof out.frame.data - std::min<std::size_t>(out.frame.length, sizeof out.frame.data);
    const std::size_t fits = std::min(count, room);
    if (fits > 0) std::memcpy(out.frame.data + out.frame.length, bytes, fits);
    out.frame.length = static_cast<std::uint16_t>(out.frame.length + fits);
    if (fits < count) out.overflow = true;
}

std::uint8_t putScaled4Split(WriteBuffer& out, double x, int power) {
    const double total = x * powerOfTwo(power);
    const double head = std::trunc(total);
    // The head goes out in four bytes whichever its sign: as unsigned it may pass 2^31.
    putBigEndian<4>(out, static_cast<std::uint64_t>(roundScaled(head, 0)));
    double residual = (total - head) * 256.0;
    if (residual > 127.0) residual = 127.0;
    return static_cast<std::uint8_t>(roundScaled(residual, 0));
}

unsigned putScaledVar(WriteBuffer& out, double x, int power, unsigned minBytes, unsigned maxBytes) {
    constexpr unsigned kAllBytes = 8;
    if (!(maxBytes <= kAllBytes)) fatalAssert("(maxBytes <= nBytes)", "field_codec", __LINE__);
    if (!(minBytes > 0)) fatalAssert("(minBytes > 0)", "field_codec", __LINE__);
    const double v = x * powerOfTwo(power);
    if (!((v + 0.5) <= 9.223372036854776e+018)) {
        fatalAssert("((x+0.5) <= (9.223372036854776e+018))", "field_codec", __LINE__);
    }
    if (!((v - 0.5) >= -9.223372036854776e+018)) {
        fatalAssert("((x-0.5) >= -(9.223372036854776e+018))", "field_codec", __LINE__);
    }
    const auto value = static_cast<std::uint64_t>(roundScaled(x, power));
    std::uint8_t bytes[kAllBytes];
    for (unsigned i = 0; i < kAllBytes; ++i) bytes[i] = static_cast<std::uint8_t>(value >> (8 * (kAllBytes - 1 - i)));
    unsigned first = 0;
    unsigned count = kAllBytes;
    // A leading byte goes when it only repeats the sign of the byte after it.
    while (count > minBytes) {
        const std::uint8_t lead = bytes[first];
        const bool nextNegative = (bytes[first + 1] & 0x80) != 0;
        if ((lead == 0x00 && !nextNegative) || (lead == 0xFF && nextNegative)) {
            ++first;
            --count;
        } else {
            break;
        }
    }
    if (!(count <= maxBytes)) fatalAssert("(nBytes <= maxBytes)", "field_codec", __LINE__);
    putBytes(out, bytes + first, count);
    return count;
}

void patchByte(WriteBuffer& out, std::size_t at, std::uint8_t value) {
    if (at < out.frame.length) out.frame.data[at] = value;
}

WriteBuffer openFrame(nvb_frame_t& frame, std::uint8_t type, bool highLengthByte) {
    std::memset(&frame, 0, sizeof frame);
    WriteBuffer out{frame};
    putByte(out, 0x02);
    putByte(out, 0);
    putByte(out, type);
    if (highLengthByte) putByte(out, 0);
    return out;
}

std::uint16_t closeFrame(WriteBuffer& out, bool highLengthByte) {
    const auto total = static_cast<std::uint16_t>(out.frame.length + 3u);
    patchByte(out, 1, static_cast<std::uint8_t>(total));
    if (highLengthByte) patchByte(out, 3, static_cast<std::uint8_t>(total >> 8));
    putU16(out, byteSum(out.frame.data, out.frame.length));
    putByte(out, 0x03);
    if (out.overflow) return 0;
    return out.frame.length;
}

void datCopy(DatReader& in, void* destination, std::size_t count, std::size_t size) {
    auto* bytes = static_cast<std::uint8_t*>(destination);
    const std::size_t total = count * size;
    // Bytes past the record's end read as zero.
    const std::size_t present = in.position < in.length ? std::min(total, in.length - in.position) : 0;
    if (present > 0) std::memcpy(bytes, in.data + in.position, present);
    if (present < total) std::memset(bytes + present, 0, total - present);
    in.position += total;
    if (hostSwapDAT != 0 && size % 2 == 0) {
        for (std::size_t item = 0; item < count; ++item) std::reverse(bytes + item * size, bytes + (item + 1) * size);
    }
}

}  // namespace nvb
