#include "records/navigation_records.h"
#include "support/encoder.h"
#include "support/plain_records.h"
#include "support/reader.h"

#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

namespace {

using nvbtest::Bytes;
using nvbtest::concat;
using nvbtest::copyOf;
using nvbtest::deliver;
using nvbtest::Delivered;
using nvbtest::Encoder;
using nvbtest::FrameBuffer;
using nvbtest::Handle;
using nvbtest::structDat;
using nvbtest::plain::Body;
using nvbtest::plain::Runs;

Bytes frame(std::uint8_t type, const Bytes& body) {
    return nvbtest::plain::frame(type, body, false);
}

// Record 21 and the record 28 subtypes, from offset 3 (record 21) or behind the subtype
// at offset 3, field by field as their tables list them.
struct LayoutRow {
    std::uint8_t type;
    std::uint8_t subtype;
    Runs runs;
    std::uint16_t datLength;
};

const Runs kCommonBody = {{1, 1}, {1, 1}, {2, 2}, {1, 2}, {4, 3}, {8, 19}, {4, 1}};
const Runs kGalileoHead = {{1, 1}, {2, 1}, {4, 1}, {2, 1}, {4, 1}, {8, 15}, {1, 1}, {2, 1}, {1, 1}};

Runs galileoLong() {
    Runs runs = kGalileoHead;
    runs.insert(runs.end(), {{2, 1}, {4, 1}, {8, 4}, {2, 1}, {4, 1}, {8, 4}});
    return runs;
}

const LayoutRow kLayouts[] = {
    {21, 0, {{1, 1}, {2, 2}, {1, 2}, {4, 3}, {8, 19}, {4, 1}, {1, 9}, {1, 1}}, 190},
    {28, 1, {{1, 1}, {2, 1}, {4, 1}, {1, 2}, {8, 11}}, 102},
    {28, 2, {{1, 1}, {2, 1}, {4, 1}, {2, 1}, {1, 3}, {4, 1}, {1, 6}, {8, 14}}, 139},
    {28, 3, galileoLong(), 218},
    {28,
     4,
     {{1, 1}, {1, 1}, {2, 1}, {4, 1}, {2, 1}, {4, 1}, {8, 15}, {1, 1}, {2, 1}, {4, 1}, {8, 4}, {1, 1}, {8, 1}, {1, 1}},
     188},
    {28, 5, kCommonBody, 181},
    {28, 6, kCommonBody, 181},
    {28, 7, kCommonBody, 181},
    {28, 8, {{1, 1}, {2, 1}, {4, 2}, {1, 2}, {8, 3}, {1, 1}, {4, 1}, {1, 1}, {2, 4}, {4, 2}, {4, 1}}, 68},
    {28, 9, kCommonBody, 181},
    {28, 11, kCommonBody, 181},
    {28, 13, kCommonBody, 181},
};

// The wire frame of a layout row and the DAT form it reads as.
struct Built {
    Bytes wire;
    Bytes dat;
};

Built build(const LayoutRow& row) {
    const auto f = nvbtest::plain::fields(row.runs, row.type + row.subtype);
    if (row.type == 21) {
        Bytes native = f.native;
        native.insert(native.begin() + 1, 0);  // the second byte, which the wire leaves out
        return {frame(21, f.wire.bytes), structDat(21, 0, native.data(), row.datLength)};
    }
    const Bytes native = concat({{row.subtype}, f.native});
    return {frame(28, concat({{row.subtype}, f.wire.bytes})), structDat(28, 0, native.data(), row.datLength)};
}

std::uint16_t writeBack(nvb_expand_t* state, std::uint8_t type, nvb_frame_t& out) {
    if (type == 21) return nvb::writeRec21(*state->records.rec21, out);
    if (type == 25) return nvb::writeRec25(*state->records.rec25, state->records.datHeader[2], out);
    if (type == 26) return nvb::writeRec26(*state->records.rec26, state->records.datHeader[2], out);
    return nvb::writeRec28(*state->records.rec28, out);
}

TEST(NavigationRecords, EveryTableFieldLandsInTheStructureAndWritesBackToTheSameFrame) {
    Handle handle;
    handle->mapSystem5To7 = 0;
    FrameBuffer out;
    for (const LayoutRow& row : kLayouts) {
        SCOPED_TRACE(::testing::Message() << "record " << int(row.type) << " subtype " << int(row.subtype));
        const Built built = build(row);
        const Delivered got = deliver(handle.get(), built.wire);
        ASSERT_EQ(got.length, row.datLength);
        EXPECT_EQ(got.type, row.type);
        EXPECT_EQ(got.dat, built.dat);
        EXPECT_EQ(writeBack(handle.get(), row.type, out.frame()), built.wire.size());
        EXPECT_EQ(out.bytes(), built.wire);
    }
}

TEST(NavigationRecords, Record28Subtype10PutsWireDoubleTwoIntoStructureDoubleFour) {
    // The wire order of the structure's doubles, as the format lists it; it is not its
    // own inverse, so reading it backwards puts wire double 4 into structure double 2.
    constexpr std::array<int, 11> kWireOrder = {0, 1, 4, 3, 6, 8, 5, 7, 2, 9, 10};
    Body body;
    body.u8(10).u8(14).u8(1).u8(0).u8(3).u8(0).u16(745);
    for (int i = 0; i < 11; ++i) body.f64(100.0 + i);
    const Bytes wire = frame(28, body.bytes);
    Handle handle;
    FrameBuffer in;
    FrameBuffer out;
    ASSERT_EQ(nvbdll_readRec28Buffer(in.load(wire), handle.get(), 0), 100);
    const Rec28& rec = *handle->records.rec28;
    EXPECT_EQ(copyOf(rec.sub10.doubles[4]), 102.0);
    EXPECT_EQ(copyOf(rec.sub10.doubles[2]), 108.0);
    for (int i = 0; i < 11; ++i) EXPECT_EQ(copyOf(rec.sub10.doubles[kWireOrder[i]]), 100.0 + i) << i;
    EXPECT_EQ(copyOf(rec.sub10.word1), 745);
    ASSERT_NE(nvb::writeRec28(rec, out.frame()), 0);
    EXPECT_EQ(out.bytes(), wire);
}

TEST(NavigationRecords, GalileoShortFormReadsItsTailWordsAsAllOnesAndAnyOtherLengthKeepsTheLastTail) {
    Handle handle;
    FrameBuffer out;
    const auto head = nvbtest::plain::fields(kGalileoHead, 5);
    const Bytes longForm = build(kLayouts[3]).wire;
    // 216 bytes: u32, 4 doubles, u32, 4 doubles behind the head.
    Body shortTail;
    shortTail.u32(604000).f64(1.5).f64(-2.5).f64(3.5).f64(-4.5).u32(604001).f64(5.5).f64(-6.5).f64(7.5).f64(-8.5);
    const Bytes shortForm = frame(28, concat({{3}, head.wire.bytes, shortTail.bytes}));
    ASSERT_EQ(shortForm.size(), 216u);
    const Delivered fromShort = deliver(handle.get(), shortForm);
    ASSERT_EQ(fromShort.length, 218u);
    const Rec28& rec = *handle->records.rec28;
    EXPECT_EQ(copyOf(rec.sub3.tailWord1), 0xFFFF);
    EXPECT_EQ(copyOf(rec.sub3.tailWord2), 0xFFFF);
    EXPECT_EQ(copyOf(rec.sub3.tailDword2), 604001u);
    EXPECT_EQ(copyOf(rec.sub3.tailDoubles2[3]), -8.5);
    // The writer always writes the 220-byte form: the DAT form survives, the stream form
    // does not.
    ASSERT_EQ(nvb::writeRec28(rec, out.frame()), 220);
    EXPECT_EQ(deliver(handle.get(), out.bytes()).dat, fromShort.dat);

    deliver(handle.get(), longForm);
    const Rec28 before = rec;
    const Bytes cut(longForm.begin(), longForm.end() - 5);
    const Delivered odd = deliver(handle.get(), frame(28, Bytes(cut.begin() + 3, cut.end())));
    ASSERT_EQ(odd.length, 218u);
    constexpr std::size_t tail = offsetof(Rec28, sub3.tailWord1);
    EXPECT_EQ(Bytes(nvb::structBytes(rec, tail), nvb::structBytes(rec, sizeof(Rec28))),
              Bytes(nvb::structBytes(before, tail), nvb::structBytes(before, sizeof(Rec28))));
}

TEST(NavigationRecords, SystemFiveBecomesSevenOnlyWhenTheStateAsks) {
    struct Row {
        std::uint8_t type, subtype, svId, map, reportedSubtype, reportedSv;
    };
    // Record 28 reports its subtype in the structure, record 26 in byte 2 of the DAT header.
    const Row rows[] = {{28, 6, 1, 1, 9, 30}, {28, 6, 1, 0, 6, 1}, {28, 5, 1, 1, 5, 1},
                        {26, 8, 3, 1, 11, 1}, {26, 8, 3, 0, 8, 3}, {26, 9, 3, 1, 9, 3}};
    for (const Row& row : rows) {
        Handle handle;
        handle->mapSystem5To7 = row.map;
        Bytes body;
        if (row.type == 28) {
            body = build(kLayouts[5]).wire;
            body = Bytes(body.begin() + 3, body.end() - 3);
            body[0] = row.subtype;
            body[1] = row.svId;
        } else {
            body =
                concat({{row.subtype}, Body().u32(345600).u16(2345).u8(row.svId).u8(1).u8(2).bytes, Bytes(38, 0x5C)});
        }
        const Delivered got = deliver(handle.get(), frame(row.type, body));
        ASSERT_GT(got.length, 0u);
        const std::uint8_t subtype = row.type == 28 ? got.dat[4] : got.dat[2];
        const std::uint8_t sv = row.type == 28 ? got.dat[5] : got.dat[10];
        EXPECT_EQ(subtype, row.reportedSubtype) << int(row.type) << "/" << int(row.subtype) << " map " << int(row.map);
        EXPECT_EQ(sv, row.reportedSv) << int(row.type) << "/" << int(row.subtype) << " map " << int(row.map);
    }
}

TEST(SbasCheck, GivesThePublishedCheckValueOfItsPolynomial) {
    const std::string text = "123456789";
    EXPECT_EQ(nvb::crc24q({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}, 72), 0xCDE703u);
}

// A GEO navigation message body as a receiver logs it: 212 data bits behind the 6-bit
// message type, the last byte holding only its top two bits.
const Bytes kSbasBody = {0x24, 0x6C, 0x03, 0xD2, 0x1B, 0x00, 0x8F, 0x11, 0x3A, 0xE0, 0x07, 0x55, 0x90, 0x2C,
                         0x41, 0xFE, 0x00, 0x19, 0xB3, 0x66, 0x0D, 0x72, 0x18, 0xC4, 0x00, 0x5E, 0x2A, 0x80};

Bytes sbasFrame(std::uint8_t subtype, std::uint32_t time, const Bytes& afterHead) {
    return frame(25, concat({{subtype}, Body().u32(time).u16(2345).u8(131).bytes, afterHead}));
}

TEST(SbasCheck, AMessageWithoutItsCheckGetsThePreambleOfItsTimeAndACheckThatLeavesNoRemainder) {
    const std::pair<std::uint32_t, std::uint8_t> rows[] = {{1, 0x9A}, {2, 0xC6}, {3, 0x53}, {345603, 0x53}};
    Handle handle;
    for (const auto& [time, preamble] : rows) {
        const Delivered got = deliver(handle.get(), sbasFrame(2, time, concat({{0x00}, kSbasBody})));
        ASSERT_EQ(got.length, 40u);
        const Rec25Sub2& message = handle->records.rec25->sub2;
        EXPECT_EQ(message.preamble, preamble) << time;
        // The whole 250-bit message, check included, divides by the polynomial.
        std::vector<bool> bits;
        auto add = [&bits](std::uint32_t value, int count) {
            for (int i = count - 1; i >= 0; --i) bits.push_back(((value >> i) & 1u) != 0);
        };
        add(message.preamble, 8);
        for (int i = 0; i < 27; ++i) add(kSbasBody[i], 8);
        add(kSbasBody[27] >> 6, 2);
        add(copyOf(message.crc), 24);
        Bytes packed((bits.size() + 7) / 8, 0);
        for (std::size_t i = 0; i < bits.size(); ++i)
            packed[i / 8] |= static_cast<std::uint8_t>(bits[i] << (7 - i % 8));
        EXPECT_EQ(nvb::crc24q(packed, bits.size()), 0u) << time;
    }
}

TEST(SbasMessages, SubtypesGiveTheirDatLengthsAndTheWriterSendsOnlyTheMessageBits) {
    Bytes noisy = kSbasBody;
    noisy.back() |= 0x2D;
    struct Row {
        std::uint8_t subtype;
        Bytes afterHead;
        std::uint32_t datLength;
    };
    const Row rows[] = {
        {0, noisy, 39},
        {2, concat({{0x01}, noisy}), 40},
        {2, concat({{0x41}, noisy, {0x9A, 0x12, 0x34, 0x56}}), 44},
        {1, noisy, 0},
        {3, noisy, 0},
    };
    Handle handle;
    FrameBuffer out;
    for (const Row& row : rows) {
        const Bytes wire = sbasFrame(row.subtype, 345600, row.afterHead);
        const Delivered got = deliver(handle.get(), wire);
        EXPECT_EQ(got.length, row.datLength) << int(row.subtype);
        if (got.length == 0) continue;
        EXPECT_EQ(got.dat[2], row.subtype);
        if (row.datLength == 44) {
            EXPECT_EQ(copyOf(handle->records.rec25->sub2.crc), 0x123456u);
        }
        ASSERT_EQ(writeBack(handle.get(), 25, out.frame()), wire.size());
        Bytes expected = wire;
        const std::size_t last = 4 + 7 + (row.subtype == 2 ? 1 : 0) + 27;
        expected[last] &= 0xC0;
        expected[wire.size() - 3] = out.bytes()[wire.size() - 3];  // the checksum follows the byte
        expected[wire.size() - 2] = out.bytes()[wire.size() - 2];
        EXPECT_EQ(out.bytes(), expected) << int(row.subtype);
    }
}

// Record 26: each subtype's bytes between svId and the data, the data count, what it is
// reported as and the DAT length: 4, the structure ahead of the data and the data.
struct RawRow {
    std::uint8_t subtype;
    Bytes between;
    std::uint8_t dataBytes;
    std::uint8_t reportedAs;
    std::uint32_t datLength;
};

const RawRow kRawForms[] = {
    {0, {}, 38, 6, 55},
    {1, {6}, 11, 7, 29},
    {2, {4, 0x05}, 31, 2, 48},
    {2, {4, 0x85, 0x77}, 31, 2, 49},
    {3, {4, 0x03}, 30, 3, 47},
    {4, {4, 0x0A}, 31, 4, 48},
    {5, {4, 0x01}, 15, 5, 32},
    {14, {4, 0x02}, 62, 14, 79},
    {6, {1, 0x8B}, 38, 6, 55},
    {7, {6, 2, 9}, 11, 7, 29},
    {8, {1, 0x40}, 38, 8, 55},
    {9, {1, 0x22}, 38, 9, 55},
    {10, {1, 0x23}, 38, 10, 55},
    {11, {1, 0x41}, 38, 11, 55},
    {12, {1, 2, 3}, 125, 12, 143},
    {13, {1, 0x30}, 38, 13, 55},
};

Bytes rawData(std::size_t count, std::uint8_t seed) {
    Bytes data(count);
    for (std::size_t i = 0; i < count; ++i) data[i] = static_cast<std::uint8_t>(seed * 31 + i * 7);
    return data;
}

Bytes rawFrame(std::uint8_t subtype, const Bytes& between, const Bytes& data) {
    return frame(26, concat({{subtype}, Body().u32(345618).u16(2345).u8(12).bytes, between, data}));
}

TEST(RawNavigationData, EachSubtypeIsReportedWithItsDataBehindAFixedHead) {
    Handle handle;
    handle->mapSystem5To7 = 0;
    FrameBuffer out;
    for (const RawRow& row : kRawForms) {
        SCOPED_TRACE(::testing::Message()
                     << "subtype " << int(row.subtype) << ", " << row.between.size() << " bytes ahead");
        const Bytes data = rawData(row.dataBytes, row.subtype);
        const Bytes wire = rawFrame(row.subtype, row.between, data);
        const Delivered got = deliver(handle.get(), wire);
        ASSERT_EQ(got.length, row.datLength);
        EXPECT_EQ(got.dat[2], row.reportedAs);
        const bool threeBytes = row.reportedAs == 7 || row.reportedAs == 12;
        const std::size_t dataAt = 4 + (threeBytes ? offsetof(Rec26, extended.data) : offsetof(Rec26, plain.data));
        EXPECT_EQ(Bytes(got.dat.begin() + dataAt, got.dat.begin() + dataAt + row.dataBytes), data);
        if (row.subtype >= 2 && row.subtype <= 5) {
            EXPECT_EQ(handle->records.rec26->page.payloadIndex, row.subtype - 2);
            EXPECT_EQ(handle->records.rec26->page.flagsLow, row.between[1] & 0x0F);
        }
        // The older forms come back in the layout they are reported as.
        ASSERT_NE(writeBack(handle.get(), 26, out.frame()), 0);
        Bytes between = row.between;
        if (row.subtype == 0) between = {0, 0};
        if (row.subtype == 1) between.insert(between.end(), {0, 0});
        EXPECT_EQ(out.bytes(), rawFrame(row.reportedAs, between, data));
    }
}

// What the encoder does with a record before its writer: 1 written, 0 dropped without a
// status, 15 refused.
TEST(NavigationFilters, DropMaskLegacyModeAndMissingLayoutsDecideWhatIsWritten) {
    struct Row {
        std::uint8_t type, subtype, dropMask, legacy;
        int outcome;
    };
    const Row rows[] = {
        {26, 0, 0x01, 0, 0},  {26, 6, 0x01, 0, 0},  {26, 6, 0xFE, 0, 1},  {26, 1, 0x04, 0, 0},  {26, 7, 0x04, 0, 0},
        {26, 3, 0x08, 0, 0},  {26, 9, 0x10, 0, 0},  {26, 12, 0x10, 0, 0}, {26, 10, 0xEF, 0, 1}, {26, 8, 0x20, 0, 0},
        {26, 11, 0x20, 0, 0}, {26, 13, 0x40, 0, 0}, {26, 13, 0xBF, 0, 1}, {26, 14, 0, 0, 15},   {26, 15, 0, 0, 15},
        {26, 6, 0, 1, 0},     {26, 0, 0, 1, 1},     {26, 0, 0x01, 1, 0},  {28, 1, 0x02, 0, 0},  {28, 2, 0x04, 0, 0},
        {28, 3, 0x08, 0, 0},  {28, 4, 0x08, 0, 0},  {28, 5, 0x10, 0, 0},  {28, 6, 0x20, 0, 0},  {28, 9, 0x20, 0, 0},
        {28, 10, 0x20, 0, 0}, {28, 11, 0x20, 0, 0}, {28, 13, 0x40, 0, 0}, {28, 13, 0xBF, 0, 1}, {28, 7, 0xFF, 0, 1},
        {28, 8, 0xFF, 0, 1},  {28, 12, 0, 0, 15},   {25, 0, 0xFF, 1, 1},  {25, 2, 0, 1, 0},     {25, 2, 0, 0, 1},
        {25, 1, 0, 0, 15},    {21, 0, 0xFF, 1, 1},
    };
    for (const Row& row : rows) {
        Encoder encoder(0);
        encoder->dropMask = row.dropMask;
        encoder->legacyMode = row.legacy;
        const Bytes body(row.type == 21 ? 186 : 60, 0x11);
        Bytes dat = nvbtest::shortDat(row.type, row.type == 28 ? 0 : row.subtype, body);
        if (row.type == 28) dat[4] = row.subtype;
        std::uint8_t status = 0;
        encoder.put(dat, &status);
        const int outcome = status != 0 ? status : static_cast<int>(copyOf(encoder->recordCount));
        EXPECT_EQ(outcome, row.outcome) << int(row.type) << "/" << int(row.subtype) << " mask " << int(row.dropMask)
                                        << " legacy " << int(row.legacy);
    }
}

TEST(NavigationRecords, ABodyThatEndsEarlyReadsTheTrailerAndZerosBehindIt) {
    Handle handle;
    // A record 21 of svId alone: its first word is the checksum, the second the end byte.
    const Bytes wire = frame(21, {17});
    const Delivered got = deliver(handle.get(), wire);
    ASSERT_EQ(got.length, 190u);
    EXPECT_EQ(copyOf(handle->records.rec21->words[0]), wire[4] << 8 | wire[5]);
    EXPECT_EQ(copyOf(handle->records.rec21->words[1]), 0x0300);
    EXPECT_EQ(copyOf(handle->records.rec21->lastByte), 0);
    // A record 26 of subtype 12 announces 125 data bytes that are not there.
    EXPECT_EQ(deliver(handle.get(), frame(26, {12, 0, 1})).length, 143u);
    EXPECT_EQ(handle->records.rec26->extended.data[124], 0);
}

// Real-looking records of the family as DAT forms, read from the test's own wire frames.
std::vector<Bytes> navigationDats() {
    Handle handle;
    handle->mapSystem5To7 = 0;
    std::vector<Bytes> dats;
    for (const LayoutRow& row : kLayouts) dats.push_back(build(row).dat);
    Body sub10;
    sub10.u8(10).u8(23).u8(1).u8(0).u8(3).u8(0).u16(745);
    for (int i = 0; i < 11; ++i) sub10.f64(nvbtest::plain::kOrbit[i + 3]);
    std::vector<Bytes> wires = {frame(28, sub10.bytes), sbasFrame(0, 345600, kSbasBody),
                                sbasFrame(2, 345601, concat({{0x00}, kSbasBody})),
                                sbasFrame(2, 345602, concat({{0x40}, kSbasBody, {0xC6, 0x0A, 0xB1, 0x3F}}))};
    for (const RawRow& row : kRawForms) {
        if (row.subtype >= 2 && row.subtype != 14)
            wires.push_back(rawFrame(row.subtype, row.between, rawData(row.dataBytes, 3)));
    }
    for (const Bytes& wire : wires) dats.push_back(deliver(handle.get(), wire).dat);
    return dats;
}

class NavigationLog : public ::testing::TestWithParam<int> {};

TEST_P(NavigationLog, RealisticRecordsComeBackByteForByte) {
    static const std::vector<Bytes> dats = navigationDats();
    Encoder encoder(static_cast<std::uint8_t>(GetParam()));
    for (const Bytes& dat : dats) {
        std::uint8_t status = 0;
        encoder.put(dat, &status);
        ASSERT_EQ(status, 0) << "type " << int(dat[3]) << " byte 2 " << int(dat[2]);
    }
    Handle handle;
    handle->mapSystem5To7 = 0;
    EXPECT_EQ(nvbtest::deliveredDat(nvbtest::readStream(handle.get(), encoder.finish(), nvbtest::Getter::NvbFile)),
              dats);
}

INSTANTIATE_TEST_SUITE_P(Methods, NavigationLog, ::testing::Range(0, 8));

}  // namespace
