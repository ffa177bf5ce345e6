#include "external/su/su_compr_common.h"

#include "support/wire.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::exactCopy;

Bytes bigEndian(std::uint64_t value, std::size_t width) {
    Bytes bytes;
    nvbtest::putBigEndian(bytes, value, static_cast<unsigned>(width));
    return bytes;
}

// What a coder wrote. The round-trip helpers below expand it again from exactly those
// bytes and check that the new value comes back and the stream is taken to its end.
struct RoundTrip {
    std::uint8_t code;
    Bytes stream;
};

TEST(BigArithmetic, AddAndSubtractCarryAcrossBytesAndReportTheLastCarry) {
    struct Case { Bytes a, b, sum, difference; std::uint8_t carry, borrow; };
    const Case cases[] = {
        {{0x12, 0x34}, {0x00, 0xCC}, {0x13, 0x00}, {0x11, 0x68}, 0, 0},
        {{0xFF, 0xFF}, {0x00, 0x01}, {0x00, 0x00}, {0xFF, 0xFE}, 1, 0},
        {{0x00, 0x00}, {0x00, 0x01}, {0x00, 0x01}, {0xFF, 0xFF}, 0, 1},
        {{0x01, 0x00, 0x00}, {0x00, 0x00, 0x01}, {0x01, 0x00, 0x01}, {0x00, 0xFF, 0xFF}, 0, 0},
    };
    for (const Case& c : cases) {
        Bytes sum = c.a, difference = c.a;
        EXPECT_EQ(bigAdd(sum.data(), c.b.data(), sum.size()), c.carry);
        EXPECT_EQ(bigSubtract(difference.data(), c.b.data(), difference.size()), c.borrow);
        EXPECT_EQ(sum, c.sum);
        EXPECT_EQ(difference, c.difference);
    }
}

TEST(BigArithmetic, CompareGivesTheFirstUnequalBytesNotTheNumbers) {
    struct Case { Bytes a, b; std::int16_t result; };
    const Case cases[] = {
        {{0x01, 0x00}, {0x00, 0xFF}, 1},
        {{0x00, 0xFF}, {0x01, 0x00}, -1},
        {{0x12, 0x00}, {0x12, 0xFF}, -255},
        {{0xFF, 0x00}, {0x00, 0x00}, 255},
        {{0x12, 0x34}, {0x12, 0x34}, 0},
        {{}, {}, 0},
    };
    for (const Case& c : cases) EXPECT_EQ(bigCompare(c.a.data(), c.b.data(), c.a.size()), c.result);
}

TEST(BigArithmetic, TrimmedLengthKeepsAByteForTheSignOnlyWhenAsked) {
    struct Case { Bytes bytes; bool keepSign; std::size_t length; };
    const Case cases[] = {
        {{0x00, 0x00, 0x80, 0x00}, true, 3}, {{0x00, 0x00, 0x80, 0x00}, false, 2},
        {{0xFF, 0xFF, 0xFF}, true, 4},       {{0xFF, 0xFF, 0xFF}, false, 3},
        {{0x00, 0x7F, 0xFF}, true, 2},       {{0x00, 0x00, 0x00}, true, 0},
        {{0x00, 0x00, 0x01}, true, 1},       {{}, true, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(bigTrimmedLength(c.bytes.data(), c.bytes.size(), c.keepSign), c.length);
    }
}

TEST(BigArithmetic, ShiftRightIsArithmeticOverTheWholeString) {
    struct Case { Bytes bytes; unsigned bits; Bytes result; };
    const Case cases[] = {
        {{0x80, 0x00}, 2, {0xE0, 0x00}}, {{0x7F, 0xFF}, 2, {0x1F, 0xFF}},
        {{0x01, 0x00}, 1, {0x00, 0x80}}, {{0x12, 0x34}, 0, {0x12, 0x34}},
        {{0x80, 0x12}, 8, {0xFF, 0x80}}, {{0x12, 0x34}, 8, {0x00, 0x12}},
        // A negative step rounds towards minus infinity: -1 stays -1, -5 becomes -2.
        {{0xFF, 0xFF}, 2, {0xFF, 0xFF}}, {{0xFF, 0xFB}, 2, {0xFF, 0xFE}},
    };
    for (const Case& c : cases) {
        Bytes bytes = c.bytes;
        bigShiftRight(bytes.data(), c.bits, bytes.size());
        EXPECT_EQ(bytes, c.result) << "shift by " << c.bits;
    }
}

TEST(BigArithmetic, ExtrapolateWrapsAndMayWriteOverEitherInput) {
    struct Case { Bytes older, newer, out; };
    const Case cases[] = {
        {{0x00, 0x00, 0x00, 0x01}, {0x00, 0x00, 0x00, 0x00}, {0xFF, 0xFF, 0xFF, 0xFF}},
        {{0x00, 0x00, 0xFF, 0xF0}, {0x00, 0x01, 0x00, 0x10}, {0x00, 0x01, 0x00, 0x30}},
        {{0x80, 0x00, 0x00, 0x00}, {0x00, 0x00, 0x00, 0x00}, {0x80, 0x00, 0x00, 0x00}},
    };
    for (const Case& c : cases) {
        Bytes out(4), overOlder = c.older, overNewer = c.newer;
        bigExtrapolate(c.older.data(), c.newer.data(), out.data(), 4);
        bigExtrapolate(overOlder.data(), c.newer.data(), overOlder.data(), 4);
        bigExtrapolate(c.older.data(), overNewer.data(), overNewer.data(), 4);
        EXPECT_EQ(out, c.out);
        EXPECT_EQ(overOlder, c.out);
        EXPECT_EQ(overNewer, c.out);
    }
}

struct SmallSetting { int bits; std::int8_t low, high; std::uint8_t escape; };
constexpr SmallSetting kSmallSettings[] = {{2, -1, 1, 2}, {3, -3, 3, 4}, {5, -15, 15, 16}};

RoundTrip smallRoundTrip(const SmallSetting& s, const Bytes& newField, const Bytes& reference) {
    const std::size_t width = newField.size();
    Bytes buffer(width);
    ByteWriter writer = makeByteWriter(buffer.data(), buffer.size());
    const auto mask = static_cast<std::uint8_t>((1u << s.bits) - 1);
    const auto code = static_cast<std::uint8_t>(
        codeSmallDelta(s.low, s.high, s.escape, newField.data(), reference.data(), width, writer) &
        mask);
    buffer.resize(static_cast<std::size_t>(writer.pos - buffer.data()));
    const auto stream = exactCopy(buffer);
    ByteReader reader = makeByteReader(stream.get(), buffer.size());
    Bytes expanded(width);
    EXPECT_TRUE(expandSmallDelta(expanded.data(), s.escape, code, reader, reference.data(), width));
    EXPECT_EQ(expanded, newField);
    EXPECT_EQ(bytesLeft(reader), 0u);
    return {code, buffer};
}

TEST(SmallDelta, EachSettingCodesItsRangeAndEscapesJustOutsideIt) {
    for (const SmallSetting& s : kSmallSettings) {
        const int mask = (1 << s.bits) - 1;
        for (int d : {s.low - 1, int{s.low}, -1, 0, 1, int{s.high}, s.high + 1}) {
            const Bytes reference = bigEndian(1000, 2), newField = bigEndian(1000 + d, 2);
            const RoundTrip trip = smallRoundTrip(s, newField, reference);
            const bool fits = d >= s.low && d <= s.high;
            EXPECT_EQ(trip.code, fits ? (d & mask) : s.escape) << s.bits << " bits, delta " << d;
            EXPECT_EQ(trip.stream, fits ? Bytes{} : newField) << s.bits << " bits, delta " << d;
        }
    }
    // On a 4-byte field the 32-bit difference wraps, so a step across zero stays small; on
    // a narrower one it does not.
    EXPECT_EQ(smallRoundTrip(kSmallSettings[1], {0, 0, 0, 1}, {0xFF, 0xFF, 0xFF, 0xFF}).code, 2);
    EXPECT_EQ(smallRoundTrip(kSmallSettings[1], {0x00}, {0xFF}).code, 4);
    EXPECT_EQ(smallRoundTrip(kSmallSettings[2], {0x00, 0x00, 0x05}, {0xFF, 0xFF, 0xFE}).code, 16);
}

TEST(SmallDelta, EscapeOnAShortStreamFailsWithoutReading) {
    const auto stream = exactCopy({0x12});
    ByteReader reader = makeByteReader(stream.get(), 1);
    const Bytes reference = {0x55, 0x55};
    Bytes destination = {0xAA, 0xAA};
    EXPECT_FALSE(expandSmallDelta(destination.data(), 16, 16, reader, reference.data(), 2));
    EXPECT_TRUE(reader.failed);
    EXPECT_EQ(reader.pos, stream.get());
    EXPECT_EQ(destination, (Bytes{0xAA, 0xAA}));
}

RoundTrip wideRoundTrip(const Bytes& newField, const Bytes& reference, std::uint8_t rawCode) {
    const std::size_t width = newField.size();
    Bytes buffer(width + 1);
    ByteWriter writer = makeByteWriter(buffer.data(), buffer.size());
    const std::uint8_t code =
        codeWideDelta(newField.data(), reference.data(), width, rawCode, writer);
    buffer.resize(static_cast<std::size_t>(writer.pos - buffer.data()));
    const auto stream = exactCopy(buffer);
    ByteReader reader = makeByteReader(stream.get(), buffer.size());
    Bytes expanded(width);
    EXPECT_EQ(expandWideDelta(expanded.data(), width, code, rawCode, reader, reference.data()), 0);
    EXPECT_EQ(expanded, newField);
    EXPECT_EQ(bytesLeft(reader), 0u);
    return {code, buffer};
}

TEST(WideDelta, CodesTrimTheMagnitudeAndKeepTheSignBitFree) {
    struct Case { std::uint64_t newValue, reference; std::size_t width; std::uint8_t rawCode;
                  std::uint8_t code; Bytes stream; };
    const Case cases[] = {
        {0x1234, 0x1234, 2, 2, 0, {}},
        {0x1235, 0x1234, 2, 2, 1, {0x01}},
        {0x1233, 0x1234, 2, 2, 1, {0x81}},
        {0x1200 + 0x80, 0x1200, 4, 4, 2, {0x00, 0x80}},
        {0x1200, 0x1200 + 0x80, 4, 4, 2, {0x80, 0x80}},
        // Three magnitude bytes on a time tag with rawCode 3 go raw in four.
        {0x00100000, 0x00000000, 4, 3, 3, {0x00, 0x10, 0x00, 0x00}},
        // FF FF FF needs a fourth byte for its sign: raw even with rawCode 4.
        {0xFFFFFF, 0x000000, 3, 4, 4, {0xFF, 0xFF, 0xFF}},
        // A six-byte phase whose sixth magnitude byte has the top bit set.
        {0x900000000000, 0x000000000000, 6, 6, 6, {0x90, 0, 0, 0, 0, 0}},
        {0x007FFFFFFFFF, 0x000000000000, 6, 7, 5, {0x7F, 0xFF, 0xFF, 0xFF, 0xFF}},
        // Across the top of the field the magnitude is that of the numbers, not modular.
        {0x01, 0xFF, 1, 1, 1, {0x01}},
        {0x0001, 0xFFFF, 2, 2, 2, {0x00, 0x01}},
        {0x00000001, 0xFFFFFFFF, 4, 3, 3, {0x00, 0x00, 0x00, 0x01}},
        {0x000000000001, 0xFFFFFFFFFFFF, 6, 7, 7, {0, 0, 0, 0, 0, 1}},
        {0x00000000000001, 0xFFFFFFFFFFFFFF, 7, 7, 7, {0, 0, 0, 0, 0, 0, 1}},
        // Small steps both ways on the widest field.
        {0x12345678ABCD12, 0x12345678ABCD00, 7, 7, 1, {0x12}},
        {0x12345678ABCD00, 0x12345678ABCD12, 7, 7, 1, {0x92}},
    };
    for (const Case& c : cases) {
        const RoundTrip trip =
            wideRoundTrip(bigEndian(c.newValue, c.width), bigEndian(c.reference, c.width), c.rawCode);
        EXPECT_EQ(trip.code, c.code) << std::hex << c.newValue << " against " << c.reference;
        EXPECT_EQ(trip.stream, c.stream) << std::hex << c.newValue << " against " << c.reference;
    }
}

TEST(WideDelta, LengthCodeAboveTheWidthIsStatus8AndTouchesNothing) {
    const Bytes bytes = {1, 2, 3, 4, 5, 6};
    const Bytes reference = {9, 9, 9};
    ByteReader reader = makeByteReader(bytes.data(), bytes.size());
    Bytes destination = {7, 7, 7};
    EXPECT_EQ(expandWideDelta(destination.data(), 3, 5, 3, reader, reference.data()), 8);
    EXPECT_EQ(destination, (Bytes{7, 7, 7}));
    EXPECT_EQ(reader.pos, bytes.data());
    EXPECT_EQ(expandWideDelta(destination.data(), 9, 1, 10, reader, reference.data()), 8);
}

TEST(WideDelta, RawCodeZeroMeansRawAndCodeZeroAtTheEndReadsNothing) {
    const auto raw = exactCopy({0xAB, 0xCD});
    ByteReader reader = makeByteReader(raw.get(), 2);
    const Bytes reference = {0x11, 0x22};
    Bytes destination(2);
    EXPECT_EQ(expandWideDelta(destination.data(), 2, 0, 0, reader, reference.data()), 0);
    EXPECT_EQ(destination, (Bytes{0xAB, 0xCD}));
    // The stream is now exhausted: an unchanged field must not look at the next byte.
    EXPECT_EQ(expandWideDelta(destination.data(), 2, 0, 2, reader, reference.data()), 0);
    EXPECT_EQ(destination, reference);
    EXPECT_FALSE(reader.failed);
}

TEST(WideDelta, TruncatedStreamIsStatus8WithoutReadingPastTheEnd) {
    const Bytes reference(7, 0x40);
    for (std::uint8_t code = 1; code <= 7; ++code) {
        const Bytes available(code - 1u, 0x01);
        const auto stream = exactCopy(available);
        ByteReader reader = makeByteReader(stream.get(), available.size());
        Bytes destination(7, 0xEE);
        EXPECT_EQ(expandWideDelta(destination.data(), 7, code, 7, reader, reference.data()), 8);
        EXPECT_TRUE(reader.failed);
        EXPECT_EQ(reader.pos, stream.get());
        EXPECT_EQ(destination, Bytes(7, 0xEE));
    }
}

TEST(WideDelta, FullWriterKeepsTheCodeAndFlagsTheOverflow) {
    std::uint8_t one = 0;
    ByteWriter writer = makeByteWriter(&one, 1);
    const Bytes newField = {0x12, 0x34, 0x56}, reference = {0, 0, 0};
    EXPECT_EQ(codeWideDelta(newField.data(), reference.data(), 3, 3, writer), 3);
    EXPECT_TRUE(writer.failed);
    EXPECT_EQ(writer.pos, &one);
}

RoundTrip nibbleRoundTrip(const Bytes& newField, const Bytes& reference) {
    const std::size_t width = newField.size();
    Bytes buffer(width);
    ByteWriter writer = makeByteWriter(buffer.data(), buffer.size());
    const std::uint8_t code = codeNibbleDelta(newField.data(), reference.data(), width, writer);
    buffer.resize(static_cast<std::size_t>(writer.pos - buffer.data()));
    const auto stream = exactCopy(buffer);
    ByteReader reader = makeByteReader(stream.get(), buffer.size());
    Bytes updated = reference, expanded(width);
    ByteWriter out = makeByteWriter(expanded.data(), expanded.size());
    EXPECT_EQ(expandNibbleDelta(code, width, updated.data(), reader, out), 0);
    EXPECT_EQ(expanded, newField);
    EXPECT_EQ(updated, code == 8 ? reference : newField);
    EXPECT_EQ(bytesLeft(reader), 0u);
    EXPECT_EQ(spaceLeft(out), 0u);
    return {code, buffer};
}

TEST(NibbleDelta, CodesCarryTheSignAndGoRawFromFourMagnitudeBytes) {
    struct Case { std::uint64_t newValue, reference; std::size_t width; std::uint8_t code;
                  Bytes stream; };
    const Case cases[] = {
        {0x12345678, 0x12345678, 4, 0, {}},
        {0x00FFFFFF, 0x00000000, 4, 3, {0xFF, 0xFF, 0xFF}},
        {0x00000000, 0x00FFFFFF, 4, 7, {0xFF, 0xFF, 0xFF}},
        {0x01000000, 0x00000000, 4, 8, {0x01, 0x00, 0x00, 0x00}},
        {0x0080, 0x0000, 2, 1, {0x80}},
        {0x0000, 0x0080, 2, 5, {0x80}},
        {0xFFFF, 0x0000, 2, 2, {0xFF, 0xFF}},
        {0x000001000000, 0x000000000000, 6, 8, {0, 0, 1, 0, 0, 0}},
        // Across the top of the field: 4 + width below four magnitude bytes, raw from four.
        {0x00, 0xFF, 1, 5, {0xFF}},
        {0x000000, 0xFFFFFF, 3, 7, {0xFF, 0xFF, 0xFF}},
        {0x00000000000000, 0xFFFFFFFFFFFFFF, 7, 8, {0, 0, 0, 0, 0, 0, 0}},
        {0x12345678ABCD00, 0x12345678ABCDEF, 7, 5, {0xEF}},
    };
    for (const Case& c : cases) {
        const RoundTrip trip =
            nibbleRoundTrip(bigEndian(c.newValue, c.width), bigEndian(c.reference, c.width));
        EXPECT_EQ(trip.code, c.code) << std::hex << c.newValue << " against " << c.reference;
        EXPECT_EQ(trip.stream, c.stream) << std::hex << c.newValue << " against " << c.reference;
    }
}

TEST(NibbleDelta, BadCodeShortStreamAndFullDestinationChangeNothing) {
    const Bytes original = {0x10, 0x20};
    const auto stream = exactCopy({0x05});
    struct Case { std::uint8_t code; std::size_t room; std::uint8_t status; };
    const Case cases[] = {{9, 2, 6}, {15, 2, 6}, {2, 2, 6}, {6, 2, 6}, {8, 2, 6}, {0, 1, 8}, {1, 1, 8}};
    for (const Case& c : cases) {
        Bytes reference = original;
        ByteReader reader = makeByteReader(stream.get(), 1);
        Bytes destination(c.room, 0xEE);
        ByteWriter out = makeByteWriter(destination.data(), destination.size());
        EXPECT_EQ(expandNibbleDelta(c.code, 2, reference.data(), reader, out), c.status)
            << "code " << int{c.code};
        EXPECT_EQ(reference, original);
        EXPECT_EQ(reader.pos, stream.get());
        EXPECT_EQ(out.pos, destination.data());
        EXPECT_EQ(destination, Bytes(c.room, 0xEE));
    }
}

TEST(NibbleDelta, MoreMagnitudeBytesThanTheFieldCountModuloItsWidth) {
    const auto stream = exactCopy({0x01, 0x00, 0x05});
    ByteReader reader = makeByteReader(stream.get(), 3);
    Bytes reference = {0x00, 0x10}, destination(2);
    ByteWriter out = makeByteWriter(destination.data(), destination.size());
    EXPECT_EQ(expandNibbleDelta(3, 2, reference.data(), reader, out), 0);
    EXPECT_EQ(destination, (Bytes{0x00, 0x15}));
    EXPECT_EQ(bytesLeft(reader), 0u);
}

}  // namespace
}  // namespace nvb
