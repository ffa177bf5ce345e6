#include "common/byte_sum.h"
#include "external/su/compact_compressors.h"
#include "external/su/obs_codec.h"
#include "support/host.h"
#include "support/rec35_records.h"
#include "support/sequences.h"

#include <nvbdll/nvbdll.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <tuple>

namespace nvb {
namespace {

using nvbtest::Bytes;

nvbtest::CompactLink link() { return nvbtest::CompactLink(compressRec17Frame, nvbtest::obsStep); }

void closeCompact(Bytes& record, const Bytes& plain, bool endByte) {
    record.push_back(plain[plain.size() - 3]);
    record.push_back(plain[plain.size() - 2]);
    if (endByte) record.push_back(3);
    record[1] = static_cast<std::uint8_t>(record.size());
}

TEST(ObsCodec, ReferenceTypeAndLengthByteFollowTheCompactLength) {
    // A plain record of 256 bytes has a reference of 255, a 69; one of 257 a reference of
    // 256, a 77 whose length byte is 0. Both come back as 117.
    nvbtest::Rec17Wire record = nvbtest::measurementSequence({}, 1.0, 14)[0];
    record.sats.resize(9, record.sats[0]);
    for (std::size_t i = 0; i < 9; ++i) record.sats[i].svFlags = i < 7 ? 0xF9 : 0xD8;
    const Bytes plain256 = nvbtest::build(record);
    ASSERT_EQ(plain256.size(), 256u);
    Bytes plain257 = plain256;
    plain257.insert(plain257.end() - 3, 0x55);
    plain257[1] = 1;
    writeU16BigEndian(&plain257[254], byteSum(plain257.data(), 254));
    for (const auto& [plain, type, lengthByte] : {std::tuple{plain256, 69, 255}, std::tuple{plain257, 77, 0}}) {
        nvbtest::CompactLink codec = link();
        const Bytes compact = codec.compress(plain);
        EXPECT_EQ(compact.size(), plain.size() - 1);
        EXPECT_EQ(compact[2], type);
        EXPECT_EQ(compact[1], lengthByte);
        Bytes expanded;
        ASSERT_EQ(codec.expand(compact, expanded), 0);
        EXPECT_EQ(expanded, plain);
        EXPECT_EQ(expanded[2], kTypeObsLong);
    }
}

// A first-generation reference, then two deltas worked out by hand: the second from the
// stream's deltas against the reference, the third from the linear prediction alone.
TEST(ObsCodec, HandBuiltFirstGenerationRecordsExpandToThePlainRecordsTheyImply) {
    nvbtest::Rec17Sat sat{.svId = 5, .svFlags = 0xD8, .elevation = 30, .azimuth = 60, .snr = 160};
    sat.range = 0x10000000;
    sat.phase = 0x000000100000;
    sat.doppler = 0x10;
    const nvbtest::Rec17Wire a{.time = 0x00010000, .clockOffset = 0x000100, .sats = {sat}};
    nvbtest::Rec17Wire b = a;
    b.time += 1000;
    b.sats[0].elevation = 31;
    b.sats[0].snr = 157;
    b.sats[0].phase += 0x123;
    b.sats[0].doppler = 0x0B;
    nvbtest::Rec17Wire c = b;
    c.time += 1000;
    c.sats[0].phase += 0x123;
    c.sats[0].doppler = 0x06;
    const Bytes plainA = nvbtest::build(a);
    const Bytes plainB = nvbtest::build(b);
    const Bytes plainC = nvbtest::build(c);

    Bytes reference = plainA;
    reference[2] = 67;
    // Header: time by two bytes, flags mode 3; fields D +1, F -3; range 0 (code 1 and a
    // zero byte, since this generation has no unchanged range), carrier +0x123, doppler -5.
    Bytes second = {2, 0, 66, 0x43, 0x03, 0xE8, 0x4B, 0x29, 0x00, 0x01, 0x23, 0x85, 0x80};
    closeCompact(second, plainB, true);
    // Nothing but the prediction: the range again by one zero byte, flags from the prediction.
    Bytes third = {2, 0, 66, 0x01, 0x00, 0x20, 0x00};
    closeCompact(third, plainC, true);

    nvbtest::CompactLink codec = link();
    Bytes expanded;
    for (const auto& [compact, plain] :
         {std::pair{reference, plainA}, std::pair{second, plainB}, std::pair{third, plainC}}) {
        ASSERT_EQ(codec.expand(compact, expanded), 0);
        EXPECT_EQ(expanded, plain);
    }

    // The end byte counts under the verify flag only.
    Bytes badEnd = third;
    badEnd.back() = 4;
    std::uint8_t status = 0;
    obs_history_t history = codec.expander().firstGenHistory;
    std::array<std::uint8_t, 600> out{};
    EXPECT_FALSE(expandFirstGenerationDelta(history, badEnd.data(), badEnd.size(), out.data(), out.size(), status, true));
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(expandFirstGenerationDelta(history, badEnd.data(), badEnd.size(), out.data(), out.size(), status, false));

    // A long reference of the first generation comes back as a 117.
    nvbtest::Rec17Wire wide = a;
    wide.sats.assign(10, sat);
    for (nvbtest::Rec17Sat& each : wide.sats) each.svFlags |= 0x21;
    const Bytes longPlain = nvbtest::build(wide);
    ASSERT_EQ(longPlain.size(), 13u + 29 * 10);
    Bytes longReference = longPlain;
    longReference[2] = 75;
    ASSERT_EQ(codec.expand(longReference, expanded), 0);
    EXPECT_EQ(expanded, longPlain);
}

TEST(ObsCodec, SmoothedRangeSlopeRoundsTowardMinusInfinityBothWays) {
    nvbtest::Rec17Wire first = nvbtest::measurementSequence({}, 0.0, 4)[0];
    for (const auto& [step, slope] : {std::pair{-5, -6}, std::pair{5, 3}, std::pair{-4, -3}}) {
        nvbtest::Rec17Wire next = first;
        next.sats[0].range = static_cast<std::uint32_t>(first.sats[0].range + step);
        const Bytes a = nvbtest::build(first);
        const Bytes b = nvbtest::build(next);
        obs_history_t history{};
        std::array<std::uint8_t, 600> out{};
        ASSERT_TRUE(compressObsReference(history, a.data(), a.size(), out.data(), out.size()));
        ASSERT_TRUE(compressObsDelta(history, b.data(), b.size(), out.data(), out.size()));
        const obs_row_t& row = history.previous.rows[0];
        EXPECT_EQ(nvbtest::signedField(row.slope, 4), slope) << step;
        const obs_row_t& predicted = history.predicted.rows[0];
        EXPECT_EQ(static_cast<std::uint32_t>(nvbtest::signedField(predicted.range, 4)),
                  next.sats[0].range + static_cast<std::uint32_t>(slope))
            << step;
    }
}

TEST(ObsCodec, ListIsSentOnlyWhenTheSatellitesAreNotThoseOfThePreviousInOrder) {
    const nvbtest::Rec17Wire base = nvbtest::measurementSequence({}, 0.5, 6)[0];
    nvbtest::Rec17Wire risen = base;
    nvbtest::Rec17Sat newcomer = base.sats[2];
    newcomer.svId = 31;
    risen.sats.insert(risen.sats.begin() + 1, newcomer);
    // A satellite without signal drops out of the implicit list, so the record after it
    // needs the list again.
    nvbtest::Rec17Wire silent = base;
    silent.sats[1].snr = 0;
    struct Case {
        nvbtest::Rec17Wire next;
        bool listed;
        bool listedAfter;
    };
    for (const Case& c : {Case{base, false, false}, Case{risen, true, false}, Case{silent, false, true}}) {
        nvbtest::Rec17Wire after = c.next;
        after.time += 1000;
        const Bytes plains[] = {nvbtest::build(base), nvbtest::build(c.next), nvbtest::build(after)};
        nvbtest::CompactLink codec = link();
        std::vector<Bytes> compacts;
        for (const Bytes& plain : plains) compacts.push_back(codec.compress(plain));
        ASSERT_EQ(compacts[1][2], kTypeObsDelta);
        EXPECT_EQ((compacts[1][3] & 0x80) != 0, c.listed);
        EXPECT_EQ((compacts[2][3] & 0x80) != 0, c.listedAfter);
        for (std::size_t i = 0; i < 3; ++i) {
            Bytes expanded;
            ASSERT_EQ(codec.expand(compacts[i], expanded), 0);
            EXPECT_EQ(expanded, plains[i]);
        }
    }
}

TEST(ObsCodec, ARefusedRecordWrittenOverItsOwnInputLeavesTheInputAsItWas) {
    const nvbtest::Rec17Wire a = nvbtest::measurementSequence({}, 0.5, 6)[0];
    nvbtest::Rec17Wire b = a;
    b.time += 1000;
    nvbtest::CompactLink codec = link();
    Bytes bad;
    ASSERT_EQ(codec.expand(codec.compress(nvbtest::build(a)), bad), 0);
    bad = codec.compress(nvbtest::build(b));
    bad.back() ^= 1;
    std::array<std::uint8_t, 600> buffer{};
    std::copy(bad.begin(), bad.end(), buffer.begin());
    std::uint8_t status = 0;
    EXPECT_FALSE(expandObsDelta(codec.expander().secondGenHistory, buffer.data(), bad.size(), buffer.data(),
                                buffer.size(), status, true));
    EXPECT_EQ(status, 4);
    EXPECT_TRUE(std::equal(bad.begin(), bad.end(), buffer.begin()));
}

TEST(ObsCodec, SecondRecord30OfSubtypeZeroResetsTheFirstGeneration) {
    auto state = std::make_unique<nvb_expand_t>();
    state->firstRec30 = 1;
    state->firstGenHistory.previous.rowCount = 4;
    applyRec30ToFirstGeneration(*state, 0);
    EXPECT_EQ(state->firstRec30, 0);
    EXPECT_EQ(state->firstGenHistory.previous.rowCount, 4);
    applyRec30ToFirstGeneration(*state, 1);
    EXPECT_EQ(state->firstGenHistory.previous.rowCount, 4);
    applyRec30ToFirstGeneration(*state, 0);
    EXPECT_EQ(state->firstGenHistory.previous.rowCount, 0);
}

TEST(ObsCodec, WriterReportsAFrameItCannotCode) {
    nvbtest::CompactLink codec = link();
    const Bytes plain = nvbtest::build(nvbtest::measurementSequence({}, 0.5, 6)[0]);
    nvbtest::MessageLog log;
    // The record claims more than the frame holds.
    EXPECT_TRUE(codec.compress(Bytes(plain.begin(), plain.end() - 10)).empty());
    EXPECT_EQ(log.text(), "Unknown compressed format: 0\n");
}

// The first generation's reader reports a stream that ends inside its header through the
// codecs' assertion, which goes to the log stream alone: with none set, nothing is written.
TEST(ObsCodec, FirstGenerationTellsAShortHeaderOnTheLogStreamOnly) {
    const Bytes shortDelta = {0x02, 6, kTypeObsFirstDelta, 0x60, 0x00, 0x03};
    std::array<std::uint8_t, 600> out{};
    const auto expand = [&] {
        obs_history_t history{};
        std::uint8_t status = 0;
        EXPECT_FALSE(expandFirstGenerationDelta(history, shortDelta.data(), shortDelta.size(), out.data(), out.size(),
                                                status, false));
    };
    {
        nvbtest::MessageLog log;
        expand();
        EXPECT_EQ(log.text(), "Assertion failed: cond, file su_compr_common, line 1319\n");
    }
    testing::internal::CaptureStderr();
    expand();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
}  // namespace nvb
