#include "pipeline/serialisation.h"
#include "support/plain_round_trip.h"

#include <nvbdll/records.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <zlib.h>

#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

using nvbtest::Body;
using nvbtest::Bytes;
using nvbtest::plainFrame;

Bytes text(std::size_t size) {
    static const char kLine[] = "$GNGGA,120000.00,4722.61,N,00832.55,E,4,24,0.6,512.3,M,47.4,M,1.0,0000*5B\r\n";
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(kLine[i % (sizeof kLine - 1)]);
    return bytes;
}

Bytes deflated(const Bytes& payload) {
    Bytes out(compressBound(payload.size()));
    uLongf length = out.size();
    compress2(out.data(), &length, payload.data(), payload.size(), 6);
    out.resize(length);
    return out;
}

struct Case {
    std::string name;
    Bytes frame;
    std::uint32_t datLength;
};

const std::vector<Case>& realisticRecords() {
    static const std::vector<Case> cases = [] {
        std::vector<Case> out;
        const nlohmann::json data = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/records/auxiliary.json");
        for (const nlohmann::json& row : data["frames"]) {
            Bytes body = nvbtest::fieldBytes(row["body"].get<std::string>());
            const Bytes tail =
                row.contains("deflatedText") ? deflated(text(row["deflatedText"])) : text(row.value("text", 0));
            body.insert(body.end(), tail.begin(), tail.end());
            out.push_back({row["name"].get<std::string>(),
                           plainFrame(row["type"], body, row.value("highLengthByte", false)), row["datLength"]});
        }
        return out;
    }();
    return cases;
}

const Case& row(std::string_view name) {
    for (const Case& c : realisticRecords()) {
        if (c.name == name) return c;
    }
    throw std::invalid_argument("no such row");
}

TEST(AuxiliaryRoundTrip, EveryTypeComesBackByteForByteThroughItsDatFormInEveryMethod) {
    std::vector<nvbtest::NamedFrame> frames;
    for (const Case& c : realisticRecords()) frames.push_back({c.name, c.frame});
    const auto reads = nvbtest::expectPlainRoundTrips(frames);
    for (std::size_t i = 0; i < reads.size(); ++i) {
        EXPECT_EQ(reads[i].type, frames[i].frame[2]) << frames[i].name;
        EXPECT_EQ(reads[i].datLength, realisticRecords()[i].datLength) << frames[i].name;
    }
}

TEST(Rec40Values, IdsSixToEightStandAsTheyAreEveryOtherIdInHundredths) {
    nvbtest::Handle handle;
    struct Entry {
        std::uint8_t id;
        std::uint16_t wire;
        double value;
    };
    const Entry entries[] = {
        {6, 0xFFFF, -1}, {7, 0xFFFF, 65535}, {8, 0x8000, 32768}, {1, 0xFFFF, -0.01}, {20, 0x0102, 2.58}};
    for (const Entry& c : entries) {
        nvbtest::processFrame(handle.get(),
                              plainFrame(40, Body().u8(0).u16(1).u32(2).u8(c.id).u16(c.wire).bytes, false));
        EXPECT_EQ(nvbtest::copyOf(handle->records.rec40->entries[0].value), c.value) << int(c.id);
    }
    // The wire holds hundredths: a finer value comes back rounded to them.
    Bytes dat = nvbtest::processFrame(handle.get(), row("40").frame).dat;
    const double finer = 1.234;
    std::memcpy(dat.data() + 4 + 7 + 1, &finer, sizeof finer);
    nvbtest::processFrame(handle.get(), nvbtest::writtenFrame(dat));
    EXPECT_EQ(nvbtest::copyOf(handle->records.rec40->entries[0].value), 1.23);
}

TEST(Rec99Payload, ADamagedDeflatedPayloadGivesTheLengthOfAFailedInflate) {
    nvbtest::Handle handle;
    const Bytes payload = text(3000);
    Bytes packed = deflated(payload);
    const auto read = [&](const Bytes& wire) {
        return nvbtest::processFrame(handle.get(), plainFrame(99, Body().u8(1).u16(3).u32(4).raw(wire).bytes, true))
            .datLength;
    };
    Bytes damaged = packed;
    damaged[damaged.size() / 2] ^= 0x5A;
    damaged[damaged.size() - 1] ^= 0xFF;
    EXPECT_EQ(read(damaged), 4096 + 11u);
    EXPECT_EQ(read(Bytes(packed.begin(), packed.begin() + 40)), 4096 + 11u) << "cut short";
    EXPECT_EQ(read(text(40)), 4096 + 11u) << "no deflate data at all";
    EXPECT_EQ(read(deflated(text(5000))), 4096 + 11u) << "more than the area holds";
    EXPECT_EQ(Bytes(handle->records.rec99->payload, handle->records.rec99->payload + 4096), text(4096));
    EXPECT_EQ(read(packed), 3000 + 11u);
}

// Retrieval takes the length of 98 and 99 from its low byte; the whole form, which the
// tool writes, from both.
TEST(LongPayloads, RetrievalCutsThemToTheLowLengthByteWhileTheWholeFormKeepsThem) {
    nvbtest::Handle handle;
    for (const char* name : {"98 longer than 255 bytes", "99 longer than 255 bytes"}) {
        const Case& c = row(name);
        ASSERT_GT(c.datLength, 255u);
        const nvbtest::ReadEvent read = nvbtest::processFrame(handle.get(), c.frame);
        Bytes retrieved(c.datLength, 0xEE);
        EXPECT_TRUE(nvbdll_retrieveDATRecord(handle.get(), static_cast<std::int16_t>(read.type), retrieved.data()));
        const std::size_t cut = c.datLength & 0xFF;
        EXPECT_EQ(Bytes(retrieved.begin(), retrieved.begin() + cut), Bytes(read.dat.begin(), read.dat.begin() + cut));
        EXPECT_EQ(retrieved[cut], 0xEE) << c.name;
        EXPECT_EQ(nvbtest::writtenAndRead({read.dat}, 7), std::vector<Bytes>{read.dat}) << c.name;
    }
}

TEST(Rec98DatForm, TheExtraBytesPlaceIsLeftOutWhenTheFlagsDoNotAnnounceIt) {
    nvbtest::Handle handle;
    const nvbtest::ReadEvent plain = nvbtest::processFrame(handle.get(), row("98").frame);
    EXPECT_EQ(Bytes(plain.dat.begin() + 11, plain.dat.end()), text(20)) << "the whole payload, behind the u32";
    EXPECT_EQ(Bytes(handle->records.rec98->payload, handle->records.rec98->payload + 20), text(20));
    const nvbtest::ReadEvent extra = nvbtest::processFrame(handle.get(), row("98 with its extra byte").frame);
    EXPECT_EQ(extra.dat[11], 9);
    EXPECT_EQ(Bytes(handle->records.rec98->payload, handle->records.rec98->payload + 20), text(20)) << "the same place";
}

TEST(Rec32Reader, LeavesWhatAShorterSubtypeDoesNotReachAndRefusesUnknownSubtypes) {
    nvbtest::Handle handle;
    nvbtest::processFrame(handle.get(), row("32, subtype 3").frame);
    EXPECT_EQ(nvbtest::processFrame(handle.get(), plainFrame(32, {2}, false)).dat, (Bytes{0x74, 5, 0, 32, 2}));
    EXPECT_EQ(nvbtest::copyOf(handle->records.rec32->sub3.doubles1[0]), 6378137.0);
    const nvbtest::ReadEvent unknown = nvbtest::processFrame(handle.get(), plainFrame(32, {7, 1, 2}, false));
    EXPECT_EQ(unknown.type, 32);
    EXPECT_EQ(unknown.datLength, 0u);
    EXPECT_EQ(nvbtest::refusal(nvbtest::shortDat(32, 0, {7})), NVB_STATUS_NOT_WRITABLE);
}

// Record 20 has no structure of its own and no reader: its DAT fields go out from the
// generic area, and the read path reports it as unknown.
TEST(Rec20, WritesItsDatFieldsFromTheGenericAreaAndReadsAsUnknown) {
    Bytes zero = nvbtest::shortDat(20, 0, Body().raw(Bytes(8)).raw({3, 0, 4, 0, 5, 0, 6, 0, 7, 0, 0, 0}).bytes);
    const double value = 123456.75;
    std::memcpy(zero.data() + 4, &value, sizeof value);
    Bytes one = nvbtest::shortDat(20, 1, Body().raw(Bytes(8)).raw(text(30)).bytes);
    std::memcpy(one.data() + 4, &value, sizeof value);
    const Bytes frame0 = nvbtest::writtenFrame(zero);
    EXPECT_EQ(frame0, plainFrame(20, Body().u8(0).u32(123457).u16(3).u16(4).u16(5).u16(6).u32(7).bytes, false));
    EXPECT_EQ(nvbtest::writtenFrame(one), plainFrame(20, Body().u8(1).u32(123457).raw(text(30)).bytes, false));
    EXPECT_EQ(nvbtest::refusal(nvbtest::shortDat(20, 2, Bytes(20))), NVB_STATUS_NOT_WRITABLE);
    nvbtest::Handle handle;
    const nvbtest::ReadEvent read = nvbtest::processFrame(handle.get(), frame0);
    EXPECT_EQ(read.type, 65535);
    EXPECT_EQ(read.datLength, 0u);
}

TEST(Records101And102, AreParsedIntoTheirSlotsAndNeverWritten) {
    nvbtest::Encoder encoder(1);
    Bytes rec101 = nvbtest::shortDat(101, 0, Bytes(42, 0));
    const double first = 0.5;
    std::memcpy(rec101.data() + 4, &first, sizeof first);
    Bytes rec102 = nvbtest::shortDat(102, 0, Bytes(17 + 2 * 34, 0));
    rec102[4 + 16] = 2;
    rec102[4 + 17 + 34] = 9;
    std::uint8_t status = 0xEE;
    EXPECT_EQ(encoder.put(rec101, &status), 0u);
    EXPECT_EQ(encoder.put(rec102, &status), 0u);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
    EXPECT_EQ(nvbtest::copyOf(encoder->records.rec101->values[0]), 0.5);
    EXPECT_EQ(encoder->records.rec102->count, 2);
    EXPECT_EQ(encoder->records.rec102->entries[1].bytes[0], 9);
}

TEST(AuxiliaryBadInput, CountsAndPayloadsADamagedRecordPushesPastTheStructureAreCut) {
    nvbtest::Handle handle;
    auto read = [&](std::uint8_t type, const Body& body, bool high) {
        return nvbtest::processFrame(handle.get(), plainFrame(type, body.bytes, high));
    };
    Body many = Body().u8(0).u16(1).u32(2);
    for (int i = 0; i < 25; ++i) many.u8(1).u16(100);
    EXPECT_EQ(read(40, many, false).datLength, 9 * 20 + 11u);
    EXPECT_EQ(read(34, Body().u8(1).u16(0).u8(200).raw(Bytes(40)), true).datLength, 8 + 12 * 104u)
        << "read past the body";
    EXPECT_EQ(read(34, Body().u8(2).u16(0).u8(51), true).datLength, 8 + 25 * 50u);
    EXPECT_EQ(read(34, Body().u8(9).raw(Bytes(3000, 1)), true).datLength, 5 + 1253u);
    EXPECT_EQ(read(98, Body().u8(0).u16(0).u32(0).raw(Bytes(2000, 1)), true).datLength, 11 + 1024u);
    EXPECT_EQ(read(99, Body().u8(0).u16(0).u32(0).raw(Bytes(5000, 1)), true).datLength, 11 + 4096u);

    // DAT forms that claim more than the structures hold are refused whole.
    const auto dat = [](std::uint8_t type, std::size_t length, std::size_t at, const Bytes& bytes) {
        Bytes body(length - 4, 0);
        std::copy(bytes.begin(), bytes.end(), body.begin() + static_cast<std::ptrdiff_t>(at - 4));
        const bool high = type == 34 || type == 98 || type == 99;
        return nvbtest::shortDat(type, high ? static_cast<std::uint8_t>(length >> 8) : 0, body);
    };
    nvbtest::Encoder encoder(1);
    for (const Bytes& overfull : {dat(40, 11 + 9 * 21, 10, {21}), dat(34, 8 + 12 * 105, 4, {1, 0, 0, 105}),
                                  dat(34, 8 + 25 * 51, 4, {2, 0, 0, 51}), dat(34, 5 + 1254, 4, {9}),
                                  dat(98, 11 + 1025, 4, {0}), dat(99, 11 + 4097, 4, {0}), dat(102, 4 + 17, 20, {25})}) {
        std::uint8_t status = 0xEE;
        EXPECT_EQ(encoder.put(overfull, &status), 0u) << int(overfull[3]);
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
    EXPECT_EQ(encoder->records.rec102->count, 24) << "cut, and not written in any case";
    Bytes longest = nvbtest::shortDat(31, 0, Bytes(4 + 247, 0x20));
    longest[4 + 3] = 247;
    EXPECT_EQ(nvbtest::refusal(longest), NVB_STATUS_NOT_WRITABLE) << "a frame of 257 bytes";
}

}  // namespace
