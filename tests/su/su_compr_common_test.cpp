#include "external/su/su_compr_common.h"

#include "su/pinned_rows.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <vector>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::exactCopy;
using nvbtest::PinnedRow;
using nvbtest::pinnedRows;

const std::string kFile = "field_coders.txt";

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
    for (const PinnedRow& row : pinnedRows(kFile, "add")) {
        Bytes sum = row.bytes(0), difference = row.bytes(0);
        EXPECT_EQ(bigAdd(sum.data(), row.bytes(1).data(), sum.size()), row.number(4)) << row;
        EXPECT_EQ(bigSubtract(difference.data(), row.bytes(1).data(), difference.size()), row.number(5)) << row;
        EXPECT_EQ(sum, row.bytes(2)) << row;
        EXPECT_EQ(difference, row.bytes(3)) << row;
    }
}

TEST(BigArithmetic, CompareGivesTheFirstUnequalBytesNotTheNumbers) {
    for (const PinnedRow& row : pinnedRows(kFile, "compare")) {
        EXPECT_EQ(bigCompare(row.bytes(0).data(), row.bytes(1).data(), row.bytes(0).size()), row.number(2)) << row;
    }
}

TEST(BigArithmetic, TrimmedLengthKeepsAByteForTheSignOnlyWhenAsked) {
    for (const PinnedRow& row : pinnedRows(kFile, "trim")) {
        const Bytes bytes = row.bytes(0);
        EXPECT_EQ(bigTrimmedLength(bytes.data(), bytes.size(), row.number(1) != 0), row.number<std::size_t>(2)) << row;
    }
}

TEST(BigArithmetic, ShiftRightIsArithmeticOverTheWholeString) {
    for (const PinnedRow& row : pinnedRows(kFile, "shift")) {
        Bytes bytes = row.bytes(0);
        bigShiftRight(bytes.data(), row.number<unsigned>(1), bytes.size());
        EXPECT_EQ(bytes, row.bytes(2)) << row;
    }
}

TEST(BigArithmetic, ExtrapolateWrapsAndMayWriteOverEitherInput) {
    for (const PinnedRow& row : pinnedRows(kFile, "extrapolate")) {
        const Bytes older = row.bytes(0), newer = row.bytes(1);
        Bytes out(4), overOlder = older, overNewer = newer;
        bigExtrapolate(older.data(), newer.data(), out.data(), 4);
        bigExtrapolate(overOlder.data(), newer.data(), overOlder.data(), 4);
        bigExtrapolate(older.data(), overNewer.data(), overNewer.data(), 4);
        for (const Bytes& result : {out, overOlder, overNewer}) EXPECT_EQ(result, row.bytes(2)) << row;
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
    for (const PinnedRow& row : pinnedRows(kFile, "wide")) {
        const RoundTrip trip = wideRoundTrip(row.bytes(0), row.bytes(1), row.number<std::uint8_t>(2));
        EXPECT_EQ(trip.code, row.number(3)) << row;
        EXPECT_EQ(trip.stream, row.bytes(4)) << row;
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
    for (const PinnedRow& row : pinnedRows(kFile, "nibble")) {
        const RoundTrip trip = nibbleRoundTrip(row.bytes(0), row.bytes(1));
        EXPECT_EQ(trip.code, row.number(2)) << row;
        EXPECT_EQ(trip.stream, row.bytes(3)) << row;
    }
}

TEST(NibbleDelta, BadCodeShortStreamAndFullDestinationChangeNothing) {
    const Bytes original = {0x10, 0x20};
    const auto stream = exactCopy({0x05});
    for (const PinnedRow& row : pinnedRows(kFile, "nibble-refused")) {
        Bytes reference = original;
        ByteReader reader = makeByteReader(stream.get(), 1);
        Bytes destination(row.number<std::size_t>(1), 0xEE);
        ByteWriter out = makeByteWriter(destination.data(), destination.size());
        EXPECT_EQ(expandNibbleDelta(row.number<std::uint8_t>(0), 2, reference.data(), reader, out), row.number(2))
            << row;
        EXPECT_EQ(reference, original);
        EXPECT_EQ(reader.pos, stream.get());
        EXPECT_EQ(out.pos, destination.data());
        EXPECT_EQ(destination, Bytes(destination.size(), 0xEE));
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
