#include "records/navigation_records.h"
#include "support/host.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <array>
#include <string>
#include <vector>

namespace {

using namespace nvbtest;

const Runs kGalileoHead = {{1, 1}, {2, 1}, {4, 1}, {2, 1}, {4, 1}, {8, 15}, {1, 1}, {2, 1}, {1, 1}};

TEST(NavigationRecords, Record28Subtype10PutsWireDoubleTwoIntoStructureDoubleFour) {
    // The wire order of the structure's doubles, as the format lists it; it is not its
    // own inverse, so reading it backwards would put wire double 4 into double 2.
    constexpr std::array<int, 11> kWireOrder = {0, 1, 4, 3, 6, 8, 5, 7, 2, 9, 10};
    Body body;
    body.u8(10).u8(14).u8(1).u8(0).u8(3).u8(0).u16(745);
    for (int i = 0; i < 11; ++i) body.f64(100.0 + i);
    const Bytes wire = plainFrame(28, body.bytes);
    Handle handle;
    const ReadEvent got = processFrame(handle.get(), wire);
    ASSERT_EQ(got.datLength, 100u);
    const Rec28& rec = *handle->records.rec28;
    EXPECT_EQ(copyOf(rec.sub10.doubles[4]), 102.0);
    EXPECT_EQ(copyOf(rec.sub10.doubles[2]), 108.0);
    for (int i = 0; i < 11; ++i) EXPECT_EQ(copyOf(rec.sub10.doubles[kWireOrder[i]]), 100.0 + i) << i;
    EXPECT_EQ(writtenFrame(got.dat), wire);
}

TEST(NavigationRecords, GalileoShortFormReadsItsTailWordsAsAllOnesAndAnyOtherLengthKeepsTheLastTail) {
    Handle handle;
    const auto head = nvbtest::fields(kGalileoHead, 5);
    Body tail;  // 216 bytes: u32, 4 doubles, u32, 4 doubles behind the head
    tail.u32(604000).f64(1.5).f64(-2.5).f64(3.5).f64(-4.5).u32(604001).f64(5.5).f64(-6.5).f64(7.5).f64(-8.5);
    const Bytes shortForm = plainFrame(28, concat({{3}, head.wire.bytes, tail.bytes}));
    ASSERT_EQ(shortForm.size(), 216u);
    const ReadEvent fromShort = processFrame(handle.get(), shortForm);
    ASSERT_EQ(fromShort.datLength, 218u);
    const Rec28& rec = *handle->records.rec28;
    EXPECT_EQ(copyOf(rec.sub3.tailWord1), 0xFFFF);
    EXPECT_EQ(copyOf(rec.sub3.tailWord2), 0xFFFF);
    EXPECT_EQ(copyOf(rec.sub3.tailDoubles2[3]), -8.5);
    // Written back it takes the 220-byte form: the DAT form survives, the stream form not.
    const Bytes longForm = writtenFrame(fromShort.dat);
    ASSERT_EQ(longForm.size(), 220u);
    EXPECT_EQ(processFrame(handle.get(), longForm).dat, fromShort.dat);
    const Rec28 before = rec;
    ASSERT_EQ(processFrame(handle.get(), plainFrame(28, Bytes(longForm.begin() + 3, longForm.end() - 5))).datLength,
              218u);
    constexpr std::size_t kTail = offsetof(Rec28, sub3.tailWord1);
    EXPECT_EQ(Bytes(nvb::bytesOf(rec) + kTail, nvb::bytesOf(rec) + sizeof(Rec28)),
              Bytes(nvb::bytesOf(before) + kTail, nvb::bytesOf(before) + sizeof(Rec28)));
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
    return plainFrame(25, concat({{subtype}, Body().u32(time).u16(2345).u8(131).bytes, afterHead}));
}

TEST(SbasCheck, AMessageWithoutItsCheckGetsThePreambleOfItsTimeAndACheckThatLeavesNoRemainder) {
    const std::pair<std::uint32_t, std::uint8_t> rows[] = {{1, 0x9A}, {2, 0xC6}, {3, 0x53}, {345603, 0x53}};
    Handle handle;
    for (const auto& [time, preamble] : rows) {
        ASSERT_EQ(processFrame(handle.get(), sbasFrame(2, time, concat({{0x00}, kSbasBody}))).datLength, 40u);
        const Rec25Sub2& message = handle->records.rec25->sub2;
        EXPECT_EQ(message.preamble, preamble) << time;
        // The whole 250-bit message, check included, divides by the polynomial.
        const std::uint32_t crc = message.crc;
        Bytes whole = concat({{message.preamble}, Bytes(kSbasBody.begin(), kSbasBody.end() - 1)});
        whole.insert(whole.end(), {static_cast<std::uint8_t>((kSbasBody.back() & 0xC0) | crc >> 18),
                                   static_cast<std::uint8_t>(crc >> 10), static_cast<std::uint8_t>(crc >> 2),
                                   static_cast<std::uint8_t>(crc << 6)});
        EXPECT_EQ(nvb::crc24q(whole, 250), 0u) << time;
    }
}

TEST(SbasMessages, SubtypesGiveTheirDatLengthsAndTheWriterSendsOnlyTheMessageBits) {
    Bytes noisy = kSbasBody;
    noisy.back() |= 0x2D;  // bits below the message's last two
    struct Row {
        std::uint8_t subtype;
        Bytes ahead, behind;
        std::uint32_t datLength;
    };
    const Row rows[] = {
        {0, {}, {}, 39}, {2, {0x01}, {}, 40}, {2, {0x41}, {0x9A, 0x12, 0x34, 0x56}, 44}, {1, {}, {}, 0}};
    Handle handle;
    for (const Row& row : rows) {
        const ReadEvent got =
            processFrame(handle.get(), sbasFrame(row.subtype, 345600, concat({row.ahead, noisy, row.behind})));
        EXPECT_EQ(got.datLength, row.datLength) << int(row.subtype);
        if (got.datLength == 0) continue;
        EXPECT_EQ(got.dat[2], row.subtype);
        if (!row.behind.empty()) {
            EXPECT_EQ(copyOf(handle->records.rec25->sub2.crc), 0x123456u);
        }
        // The writer sends record 25 in a compact form; a reader rebuilds the plain frame from it.
        Handle rebuilt;
        processFrame(rebuilt.get(), writtenFrame(got.dat));
        EXPECT_EQ(Bytes(rebuilt->plainFrame.data, rebuilt->plainFrame.data + rebuilt->plainFrame.length),
                  sbasFrame(row.subtype, 345600, concat({row.ahead, kSbasBody, row.behind})));
    }
}

Bytes rawFrame(std::uint8_t subtype, const Bytes& between, const Bytes& data) {
    return plainFrame(26, concat({{subtype}, Body().u32(345618).u16(2345).u8(12).bytes, between, data}));
}

TEST(RawNavigationData, EachSubtypeIsReportedWithItsDataBehindAFixedHead) {
    Handle handle;
    handle->mapSystem5To7 = 0;
    for (const nlohmann::json& row : pinned("records/navigation.json")["rawForms"]) {
        const std::uint8_t subtype = row["subtype"], reportedAs = row["reportedAs"];
        Bytes between = fieldBytes(row["between"].get<std::string>());
        SCOPED_TRACE(::testing::Message() << "subtype " << int(subtype) << ", " << between.size() << " ahead");
        Bytes data(row["dataBytes"].get<std::size_t>());
        for (std::size_t i = 0; i < data.size(); ++i) data[i] = static_cast<std::uint8_t>(subtype * 31 + i * 7);
        const ReadEvent got = processFrame(handle.get(), rawFrame(subtype, between, data));
        ASSERT_EQ(got.datLength, row["datLength"]);
        EXPECT_EQ(got.dat[2], reportedAs);
        const bool threeBytes = reportedAs == 7 || reportedAs == 12;
        const std::size_t dataAt = 4 + (threeBytes ? offsetof(Rec26, extended.data) : offsetof(Rec26, plain.data));
        EXPECT_EQ(Bytes(got.dat.begin() + dataAt, got.dat.begin() + dataAt + data.size()), data);
        if (subtype >= 2 && subtype <= 5) {
            EXPECT_EQ(handle->records.rec26->page.payloadIndex, subtype - 2);
            EXPECT_EQ(handle->records.rec26->page.flagsLow, between[1] & 0x0F);
        }
        // The older forms are written in the layout they are reported as; the encoder
        // knows no system of subtype 14.
        if (subtype < 2) between.resize(between.size() + 2, 0);
        EXPECT_EQ(writtenFrame(got.dat), subtype == 14 ? Bytes{} : rawFrame(reportedAs, between, data));
    }
}

TEST(RawNavigationData, UnderTheSystemMapSubtype8ComesBackAsSubtype11WithItsSatelliteRenumbered) {
    Handle handle;  // mapSystem5To7 is on by default; ids outside 1 to 11 become 0
    const Bytes written = writtenFrame(processFrame(handle.get(), rawFrame(8, {1, 0x40}, Bytes(38, 0x5C))).dat);
    ASSERT_EQ(written.size(), 54u);
    EXPECT_EQ(written[3], 11);
    EXPECT_EQ(written[10], 0);
}

// What the encoder does with a record ahead of its writer: 1 written, 0 dropped without a
// status, 15 refused.
TEST(NavigationFilters, DropMaskLegacyModeAndMissingLayoutsDecideWhatIsWritten) {
    for (const nlohmann::json& row : pinned("records/navigation.json")["filters"]) {
        const std::uint8_t type = row["type"], subtype = row["subtype"];
        nvbtest::Encoder encoder(0);
        encoder->dropMask = static_cast<std::uint8_t>(std::stoul(row["dropMask"].get<std::string>(), nullptr, 16));
        encoder->legacyMode = row["legacy"];
        Bytes dat = nvbtest::shortDat(type, type == 28 ? 0 : subtype, Bytes(type == 21 ? 186 : 60, 0x11));
        if (type == 28) dat[4] = subtype;
        std::uint8_t status = 0;
        encoder.put(dat, &status);
        EXPECT_EQ(status != 0 ? status : static_cast<int>(copyOf(encoder->recordCount)), row["outcome"]) << row;
    }
}

}  // namespace
