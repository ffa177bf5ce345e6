#include "records/position_records.h"
#include "support/wire.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

namespace {

using nvbtest::Bytes;

const auto pow2 = [](int e) { return std::ldexp(1.0, e); };

// Writes a record with the library's writer and reads the frame back, or reads a frame
// built by hand.
struct PositionReader {
    nvbtest::Handle handle;
    std::unique_ptr<nvb_frame_t> frame = std::make_unique<nvb_frame_t>();

    std::uint16_t read29(const Rec29& rec, bool map5To7 = false, bool map7To10 = false) {
        EXPECT_NE(nvb::writeRec29(rec, *frame), 0);
        return nvb::readRec29(*frame, *handle.get(), map5To7, map7To10);
    }
    std::uint16_t read11(const Rec11& rec) {
        EXPECT_NE(nvb::writeRec11(rec, *frame), 0);
        return nvb::readRec11(*frame, *handle.get());
    }
    std::uint16_t read11(const Bytes& bytes) {
        std::memset(frame.get(), 0, sizeof(nvb_frame_t));
        std::memcpy(frame->data, bytes.data(), bytes.size());
        frame->length = static_cast<std::uint16_t>(bytes.size());
        return nvb::readRec11(*frame, *handle.get());
    }
    const Rec29& rec29() const { return *handle->records.rec29; }
    const Rec11& rec11() const { return *handle->records.rec11; }
};

std::unique_ptr<Rec29> basicPosition() {
    auto rec = std::make_unique<Rec29>();
    rec->block1Len = 15;
    rec->block2Len = 93;
    rec->week = 2345;
    rec->time = 302400123;
    rec->latPos = 51.5;
    rec->lonPos = -0.125;
    rec->hdop = 1.5f;
    rec->vdop = 2.0f;
    rec->svListLen = 1;
    return rec;
}

void addListEntry(Rec29& rec, std::uint8_t svId, std::uint8_t system, std::uint8_t flags) {
    rec.sv[rec.numSVs++] = Rec29SvEntry{svId, system, flags};
    rec.svListLen = static_cast<std::uint8_t>(1 + 3 * rec.numSVs);
}

TEST(Rec29Limits, MoreThan116SatellitesDecodeOnlyTheFirstBlock) {
    auto rec = basicPosition();
    for (int k = 0; k < NVB_MAX_SV; ++k) addListEntry(*rec, static_cast<std::uint8_t>(k), 0, 2);
    PositionReader reader;
    EXPECT_EQ(reader.read29(*rec), 15 + 93 + 1 + 3 * NVB_MAX_SV + 4);
    rec->numSVs = 117;
    EXPECT_EQ(reader.read29(*rec), 15 + 4);
    EXPECT_EQ(reader.rec29().numSVs, 117);
    EXPECT_EQ(+reader.rec29().latPos, 0.0);
    rec->numSVs = 3;
    rec->numSVsUsed = 117;
    EXPECT_EQ(reader.read29(*rec), 15 + 4);
}

TEST(Rec29Blocks, TheOlderFourthBlockHasNoStatusByteAndTheListStillFollows) {
    auto rec = basicPosition();
    rec->posFlags = 0x02;
    rec->block4Len = 10;
    rec->auxValueA = 1.5f;
    rec->auxStatus = 0x7E;
    addListEntry(*rec, 21, 0, 2);
    PositionReader reader;
    ASSERT_GT(reader.read29(*rec), 0);
    nvb_frame_t& frame = *reader.frame;
    // Drop the status byte at 72 + 9 and mark the block as the older nine bytes.
    std::memmove(frame.data + 81, frame.data + 82, frame.length - 82u);
    frame.data[72] = 9;
    EXPECT_EQ(nvb::readRec29(frame, *reader.handle.get(), false, false), 15 + 93 + 10 + 4 + 4);
    EXPECT_EQ(reader.rec29().auxStatus, 0);
    EXPECT_EQ(+reader.rec29().auxValueA, 1.5f);
    EXPECT_EQ(reader.rec29().sv[0].svId, 21);
}

TEST(Rec29Blocks, CorrectionFlagsOnTheWireMisplaceWhatFollowsAsReceiversAlwaysHave) {
    auto rec = basicPosition();
    rec->fixType = 4;
    rec->block3Len = 7;
    rec->corrFlags = 0x01;
    rec->corrExtra = 0x55;
    addListEntry(*rec, 21, 0, 2);
    PositionReader reader;
    ASSERT_GT(reader.read29(*rec), 0);
    EXPECT_EQ(reader.rec29().corrFlags, 0x01);
    EXPECT_EQ(reader.rec29().corrExtra, 0) << "not read";
    // The list is looked for at corrExtra: its length byte reads as the first satellite.
    EXPECT_EQ(reader.rec29().sv[0].svId, 4);
    EXPECT_EQ(reader.rec29().sv[0].rt_sattype, 21);
}

TEST(Rec29Writer, SigmasAndRmsArePinnedIntoTheirFields) {
    struct Case {
        float value;
        std::uint16_t sigmaField;
    };
    const Case cases[] = {{std::nanf(""), 65535}, {-1.0f, 0},   {40.0f, 65535},          {INFINITY, 65535},
                          {-INFINITY, 65535},     {1.5f, 3072}, {31.99951171875f, 65535}};
    for (const Case& c : cases) {
        auto rec = basicPosition();
        rec->sigmaN = c.value;
        rec->rms = c.value;
        rec->unitVariance = c.value;
        auto frame = std::make_unique<nvb_frame_t>();
        ASSERT_GT(nvb::writeRec29(*rec, *frame), 0);
        const auto field = [&](int offset) { return (frame->data[offset] << 8) | frame->data[offset + 1]; };
        EXPECT_EQ(field(62), c.sigmaField) << c.value;
        if (c.sigmaField == 65535 || c.sigmaField == 0) {
            EXPECT_EQ(field(68), c.sigmaField) << "rms " << c.value;
        }
    }
    auto negativeVariance = basicPosition();
    negativeVariance->unitVariance = -4.0f;
    auto frame = std::make_unique<nvb_frame_t>();
    ASSERT_GT(nvb::writeRec29(*negativeVariance, *frame), 0);
    EXPECT_EQ((frame->data[70] << 8) | frame->data[71], 65535) << "the root of a negative variance is not a number";
}

TEST(Rec29Systems, ListEntriesPassThroughBothMaps) {
    auto rec = basicPosition();
    addListEntry(*rec, 3, 5, 2);
    addListEntry(*rec, 9, 7, 2);
    addListEntry(*rec, 9, 2, 2);
    PositionReader reader;
    ASSERT_GT(reader.read29(*rec, true, true), 0);
    EXPECT_EQ(reader.rec29().sv[0].svId, 1);
    EXPECT_EQ(reader.rec29().sv[0].rt_sattype, 10);
    EXPECT_EQ(reader.rec29().sv[1].rt_sattype, 10);
    EXPECT_EQ(reader.rec29().sv[2].rt_sattype, 2);
    ASSERT_GT(reader.read29(*rec, true, false), 0);
    EXPECT_EQ(reader.rec29().sv[0].rt_sattype, 7);
    EXPECT_EQ(reader.rec29().sv[1].rt_sattype, 7);
}

TEST(Rec11RoundTrip, TheResidualCarriesEightMoreBitsUpTo127Of256) {
    const double unit = pow2(-31);
    auto rec = std::make_unique<Rec11>();
    rec->nSv = 2;
    rec->latitude = (12345 + 100.0 / 256) * unit;
    rec->longitude = -(777 + 64.0 / 256) * 2 * unit;
    PositionReader reader;
    ASSERT_GT(reader.read11(*rec), 0);
    EXPECT_EQ(+reader.rec11().latitude, +rec->latitude);
    EXPECT_EQ(+reader.rec11().longitude, +rec->longitude);
    rec->latitude = (12345 + 200.0 / 256) * unit;
    ASSERT_GT(reader.read11(*rec), 0);
    EXPECT_EQ(+reader.rec11().latitude, (12345 + 127.0 / 256) * unit);
    EXPECT_EQ(reader.frame->data[43 + 4], 127);
}

TEST(Rec11Forms, OnlyTheLengthTellsTheOlderFormWithoutResiduals) {
    nvbtest::Rec11Wire p;
    p.latitude = 1000;
    p.channels = {1, 2, 3};
    p.svIds = {7, 8, 9};
    PositionReader reader;
    const Bytes older = nvbtest::build(p);
    ASSERT_EQ(older.size(), 2 * 3 + 46u);
    EXPECT_EQ(reader.read11(older), 2 * 3 + 82);
    EXPECT_EQ(+reader.rec11().latitude, 1000 * pow2(-31));
    p.residuals = {64};
    const Bytes newer = nvbtest::build(p);
    ASSERT_EQ(newer.size(), 2 * 3 + 47u);
    reader.read11(newer);
    EXPECT_EQ(+reader.rec11().latitude, (1000 + 64.0 / 256) * pow2(-31));
    const Bytes lists(reader.rec11().lists, reader.rec11().lists + 6);
    EXPECT_EQ(lists, (Bytes{1, 2, 3, 7, 8, 9}));
}

TEST(Rec11BadInput, ACountBeyondTheListsFillsOnlyTheirArea) {
    Bytes bytes(400, 0x2A);
    bytes[0] = 0x02;
    bytes[42] = 200;
    PositionReader reader;
    EXPECT_EQ(reader.read11(bytes), 2 * 200 + 82);
    EXPECT_EQ(reader.rec11().nSv, 200);
    EXPECT_EQ(reader.rec11().lists[63], 0x2A);
}

}  // namespace
