#include "common/byte_sum.h"
#include "common/diagnostics.h"
#include "external/su/compact_compressors.h"
#include "external/su/obs_codec.h"
#include "support/compact_codec.h"
#include "support/compact_records_sequence.h"

#include <nvbdll/nvbdll.h>

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <set>
#include <tuple>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::exactCopy;

std::uint8_t obsStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status) {
    switch (type) {
        case 66: case 74: return nvbdll_processType66_74(state, status, framed);
        case 67: case 75: return nvbdll_processType67_75(state, status, framed);
        case 68: case 76: return nvbdll_processType68_76(state, status, framed);
        default: return nvbdll_processType69_77(state, status, framed);
    }
}

struct Codec : nvbtest::CompactCodec {
    Codec() : CompactCodec(compressRec17Frame, obsStep) {}
};


std::uint32_t timeOf(const Bytes& record) {
    return (std::uint32_t{record[3]} << 24) | (record[4] << 16) | (record[5] << 8) | record[6];
}

void closeCompact(Bytes& record, const Bytes& plain, bool endByte) {
    record.push_back(plain[plain.size() - 3]);
    record.push_back(plain[plain.size() - 2]);
    if (endByte) record.push_back(3);
    record[1] = static_cast<std::uint8_t>(record.size());
}

TEST(ObsCodec, LongSequenceRoundTripsThroughEveryFormOfTheSecondGeneration) {
    nvbtest::SequenceShape shape;
    shape.count = 1600;
    shape.backAt = 900;
    shape.backStepMs = 400000;
    const std::vector<Bytes> plains = nvbtest::buildAll(nvbtest::measurementSequence(shape));
    Codec codec;
    Codec unverified;
    std::uint32_t lastReference = 0xFFFFFFFF;
    std::set<std::string> seen;
    std::size_t compactBytes = 0;
    std::size_t plainBytes = 0;
    for (std::size_t i = 0; i < plains.size(); ++i) {
        const Bytes& plain = plains[i];
        const Bytes compact = codec.encode(plain);
        ASSERT_EQ(unverified.encode(plain), compact);
        const std::uint32_t time = timeOf(plain);
        const bool due = time < lastReference || time - lastReference >= 600000;
        if (due) lastReference = time;
        const bool isLong = compact.size() >= 256;
        ASSERT_EQ(compact[2], due ? (isLong ? 77 : 69) : (isLong ? 76 : 68)) << i;
        if (!due) {
            seen.insert("flags mode " + std::to_string(compact[3] & 3));
            if ((compact[3] & 0x80) != 0) seen.insert("list");
            if (isLong) seen.insert("long delta");
            if (plain[2] == kTypeObsLong) seen.insert("117 as delta");
        }
        compactBytes += compact.size();
        plainBytes += plain.size();
        Bytes expanded;
        ASSERT_EQ(codec.expand(compact, true, expanded), 0) << i;
        ASSERT_EQ(expanded, plain) << i;
        ASSERT_EQ(unverified.expand(compact, false, expanded), 0) << i;
        ASSERT_EQ(expanded, plain) << i;
    }
    EXPECT_EQ(seen, (std::set<std::string>{"flags mode 0", "flags mode 1", "flags mode 3", "list", "117 as delta"}));
    EXPECT_LT(compactBytes * 2, plainBytes);
}

TEST(ObsCodec, ReferenceTypeAndLengthByteFollowTheCompactLength) {
    // A plain record of 256 bytes has a reference of 255, a 69; one of 257 a reference of
    // 256, a 77 whose length byte is 0. Both come back as 117.
    nvbtest::Rec17Wire record = nvbtest::measurementSequence({}, 1.0, 14)[0];
    record.sats.resize(9, record.sats[0]);
    for (std::size_t i = 0; i < 9; ++i) record.sats[i].svFlags = i < 7 ? 0xF9 : 0xD8;
    const Bytes plain256 = nvbtest::buildRec17(record);
    ASSERT_EQ(plain256.size(), 256u);
    Bytes plain257 = plain256;
    plain257.insert(plain257.end() - 3, 0x55);
    plain257[1] = 1;
    writeU16BigEndian(&plain257[254], byteSum(plain257.data(), 254));
    for (const auto& [plain, type, lengthByte] : {std::tuple{plain256, 69, 255}, std::tuple{plain257, 77, 0}}) {
        Codec codec;
        const Bytes compact = codec.encode(plain);
        EXPECT_EQ(compact.size(), plain.size() - 1);
        EXPECT_EQ(compact[2], type);
        EXPECT_EQ(compact[1], lengthByte);
        Bytes expanded;
        ASSERT_EQ(codec.expand(compact, true, expanded), 0);
        EXPECT_EQ(expanded, plain);
        EXPECT_EQ(expanded[2], kTypeObsLong);
    }
}

// A first-generation reference, then two deltas worked out by hand: the second from the
// stream's deltas against the reference, the third from the linear prediction alone.
TEST(ObsCodec, HandBuiltFirstGenerationRecordsExpandToThePlainRecordsTheyImply) {
    nvbtest::Rec17Wire a;
    a.time = 0x00010000;
    a.clockOffset = 0x000100;
    nvbtest::Rec17Sat sat;
    sat.svId = 5;
    sat.svFlags = 0xD8;
    sat.elevation = 30;
    sat.azimuth = 60;
    sat.snr = 160;
    sat.range = 0x10000000;
    sat.phase = 0x000000100000;
    sat.doppler = 0x10;
    a.sats = {sat};
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
    const Bytes plainA = nvbtest::buildRec17(a);
    const Bytes plainB = nvbtest::buildRec17(b);
    const Bytes plainC = nvbtest::buildRec17(c);

    Bytes reference = plainA;
    reference[2] = 67;
    // Header: time by two bytes, flags mode 3; fields D +1, F -3; range 0 (code 1 and a
    // zero byte, since this generation has no unchanged range), carrier +0x123, doppler -5.
    Bytes second = {2, 0, 66, 0x43, 0x03, 0xE8, 0x4B, 0x29, 0x00, 0x01, 0x23, 0x85, 0x80};
    closeCompact(second, plainB, true);
    // Nothing but the prediction: the range again by one zero byte, flags from the prediction.
    Bytes third = {2, 0, 66, 0x01, 0x00, 0x20, 0x00};
    closeCompact(third, plainC, true);

    Codec codec;
    Bytes expanded;
    ASSERT_EQ(codec.expand(reference, true, expanded), 0);
    EXPECT_EQ(expanded, plainA);
    ASSERT_EQ(codec.expand(second, true, expanded), 0);
    EXPECT_EQ(expanded, plainB);
    ASSERT_EQ(codec.expand(third, true, expanded), 0);
    EXPECT_EQ(expanded, plainC);

    // The end byte counts under the verify flag only.
    Bytes badEnd = third;
    badEnd.back() = 4;
    std::uint8_t status = 0;
    obs_history_t history = codec.reader->firstGenHistory;
    std::array<std::uint8_t, 600> out{};
    EXPECT_FALSE(expandFirstGenerationDelta(history, badEnd.data(), badEnd.size(), out.data(), out.size(), status, true));
    EXPECT_EQ(status, 5);
    EXPECT_TRUE(expandFirstGenerationDelta(history, badEnd.data(), badEnd.size(), out.data(), out.size(), status, false));

    // A long reference of the first generation comes back as a 117.
    nvbtest::Rec17Wire wide = a;
    wide.sats.assign(10, sat);
    for (nvbtest::Rec17Sat& each : wide.sats) each.svFlags |= 0x21;
    const Bytes longPlain = nvbtest::buildRec17(wide);
    ASSERT_EQ(longPlain.size(), 13u + 29 * 10);
    Bytes longReference = longPlain;
    longReference[2] = 75;
    ASSERT_EQ(codec.expand(longReference, true, expanded), 0);
    EXPECT_EQ(expanded, longPlain);
}

TEST(ObsCodec, SmoothedRangeSlopeRoundsTowardMinusInfinityBothWays) {
    nvbtest::Rec17Wire first = nvbtest::measurementSequence({}, 0.0, 4)[0];
    for (const auto& [step, slope] : {std::pair{-5, -6}, std::pair{5, 3}, std::pair{-4, -3}}) {
        nvbtest::Rec17Wire next = first;
        next.sats[0].range = static_cast<std::uint32_t>(first.sats[0].range + step);
        const Bytes a = nvbtest::buildRec17(first);
        const Bytes b = nvbtest::buildRec17(next);
        obs_history_t history{};
        std::array<std::uint8_t, 600> out{};
        ASSERT_TRUE(compressObsReference(history, a.data(), a.size(), out.data(), out.size()));
        ASSERT_TRUE(compressObsDelta(history, b.data(), b.size(), out.data(), out.size()));
        const obs_row_t& row = history.previous.rows[0];
        const auto storedSlope = static_cast<std::int32_t>((std::uint32_t{row.slope[0]} << 24) | (row.slope[1] << 16) |
                                                           (row.slope[2] << 8) | row.slope[3]);
        EXPECT_EQ(storedSlope, slope) << step;
        const obs_row_t& predicted = history.predicted.rows[0];
        const std::uint32_t range = (std::uint32_t{predicted.range[0]} << 24) | (predicted.range[1] << 16) |
                                    (predicted.range[2] << 8) | predicted.range[3];
        EXPECT_EQ(range, next.sats[0].range + static_cast<std::uint32_t>(slope)) << step;
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
        const Bytes plains[] = {nvbtest::buildRec17(base), nvbtest::buildRec17(c.next), nvbtest::buildRec17(after)};
        Codec codec;
        std::vector<Bytes> compacts;
        for (const Bytes& plain : plains) compacts.push_back(codec.encode(plain));
        ASSERT_EQ(compacts[1][2], kTypeObsDelta);
        EXPECT_EQ((compacts[1][3] & 0x80) != 0, c.listed);
        EXPECT_EQ((compacts[2][3] & 0x80) != 0, c.listedAfter);
        for (std::size_t i = 0; i < 3; ++i) {
            Bytes expanded;
            ASSERT_EQ(codec.expand(compacts[i], true, expanded), 0);
            EXPECT_EQ(expanded, plains[i]);
        }
    }
}

TEST(ObsCodec, LostRecordIsRefusedUntilTheNextReferenceWithTheVerifyFlag) {
    nvbtest::SequenceShape shape;
    shape.count = 800;
    const std::vector<Bytes> plains = nvbtest::buildAll(nvbtest::measurementSequence(shape));
    Codec writer;
    std::vector<Bytes> compacts;
    for (const Bytes& plain : plains) compacts.push_back(writer.encode(plain));
    const std::size_t lost = 123;
    ASSERT_EQ(compacts[lost][2] & 0xF7, kTypeObsDelta);
    Codec verified;
    Codec unverified;
    std::size_t refused = 0;
    std::size_t wrong = 0;
    for (std::size_t i = 0; i < compacts.size(); ++i) {
        if (i == lost) continue;
        const bool broken = i > lost && i < 600;
        ASSERT_EQ(compacts[i][2] == 69 || compacts[i][2] == 77, i == 0 || i == 600) << i;
        const obs_history_t before = verified.reader->secondGenHistory;
        Bytes expanded;
        const std::uint8_t status = verified.expand(compacts[i], true, expanded);
        if (broken) {
            // The checksum (4) shows the loss or, once the satellites have changed, the
            // implicit list no longer fits the record's bytes and a later field fails.
            EXPECT_NE(status, 0) << i;
            refused += status == 4;
            EXPECT_EQ(0, std::memcmp(&before, &verified.reader->secondGenHistory, sizeof before));
        } else {
            ASSERT_EQ(status, 0) << i;
            EXPECT_EQ(expanded, plains[i]) << i;
        }
        if (unverified.expand(compacts[i], false, expanded) == 0 && broken && expanded != plains[i]) ++wrong;
    }
    EXPECT_GT(refused, 20u);
    EXPECT_GT(wrong, 400u);
}

TEST(ObsCodec, CorruptRecordsGiveTheirStatusAndLeaveHistoryAndInput) {
    nvbtest::Rec17Wire a = nvbtest::measurementSequence({}, 0.5, 6)[0];
    nvbtest::Rec17Wire b = a;
    b.time += 1000;
    b.sats[0].range += 100;
    const Bytes plains[] = {nvbtest::buildRec17(a), nvbtest::buildRec17(b)};
    obs_history_t history{};
    std::array<std::uint8_t, 600> out{};
    ASSERT_TRUE(compressObsReference(history, plains[0].data(), plains[0].size(), out.data(), out.size()));
    const obs_history_t good = history;
    ASSERT_TRUE(compressObsDelta(history, plains[1].data(), plains[1].size(), out.data(), out.size()));
    const Bytes delta(out.begin(), out.begin() + out[1]);
    // Time by two bytes, flags from the prediction; the first row's fields, then its
    // measurement code at offset 7.
    ASSERT_EQ(delta[3], 0x41);
    ASSERT_EQ(delta[6], 0x00);
    const std::size_t measurement = 7;

    auto run = [&](const Bytes& bad, bool verify) {
        history = good;
        auto input = exactCopy(bad);
        std::uint8_t status = 0;
        EXPECT_FALSE(expandObsDelta(history, input.get(), bad.size(), out.data(), out.size(), status, verify));
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
        return status;
    };
    Bytes bad = delta;
    bad[0] = 1;
    EXPECT_EQ(run(bad, true), 1);
    bad = delta;
    bad[2] = 69;
    EXPECT_EQ(run(bad, true), 2);
    bad = delta;
    bad.insert(bad.end() - 2, 0);
    bad[1] = static_cast<std::uint8_t>(bad.size());
    EXPECT_EQ(run(bad, false), 3);
    bad = delta;
    bad[bad.size() - 1] ^= 1;
    EXPECT_EQ(run(bad, true), 4);
    // The list: a count of 117.
    bad = {2, 0, kTypeObsDelta, 0x80, 117, 0, 0};
    bad[1] = static_cast<std::uint8_t>(bad.size());
    EXPECT_EQ(run(bad, false), 7);
    // The first row's measurement code: range code 5, then carrier code 9.
    for (std::uint8_t code : {std::uint8_t{0x50}, std::uint8_t{0x09}}) {
        bad = delta;
        bad[measurement] = code;
        EXPECT_EQ(run(bad, false), 9) << int{code};
    }
    for (std::size_t length = 0; length < delta.size(); ++length) {
        bad.assign(delta.begin(), delta.begin() + static_cast<long>(length));
        if (length > 1) bad[1] = static_cast<std::uint8_t>(length);
        EXPECT_NE(run(bad, false), 0) << length;
    }
    for (std::size_t capacity = 0; capacity < plains[1].size(); ++capacity) {
        auto output = std::make_unique<std::uint8_t[]>(capacity);
        history = good;
        std::uint8_t status = 0;
        EXPECT_FALSE(expandObsDelta(history, delta.data(), delta.size(), output.get(), capacity, status, true));
        EXPECT_EQ(status, 8) << capacity;
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }
    // Written over its own input, a refused record leaves the input as it was.
    Bytes buffer(600, 0);
    bad = delta;
    bad[bad.size() - 1] ^= 1;
    std::copy(bad.begin(), bad.end(), buffer.begin());
    history = good;
    std::uint8_t status = 0;
    EXPECT_FALSE(expandObsDelta(history, buffer.data(), bad.size(), buffer.data(), buffer.size(), status, true));
    EXPECT_EQ(status, 4);
    EXPECT_TRUE(std::equal(bad.begin(), bad.end(), buffer.begin()));
    // A reference with a wrong checksum, under the verify flag.
    Bytes reference(plains[0].begin(), plains[0].end() - 1);
    reference[1] = static_cast<std::uint8_t>(reference.size());
    reference[2] = kTypeObsReference;
    reference[5] ^= 1;
    history = good;
    EXPECT_FALSE(expandObsReference(history, reference.data(), reference.size(), out.data(), out.size(), status, true));
    EXPECT_EQ(status, 4);
    EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
}

TEST(ObsCodec, RandomlyDamagedRecordsNeverMoveTheHistoryOnAStatus) {
    nvbtest::SequenceShape shape;
    shape.count = 150;
    const std::vector<Bytes> plains = nvbtest::buildAll(nvbtest::measurementSequence(shape));
    Codec writer;
    std::mt19937 rng(5);
    obs_history_t history{};
    std::array<std::uint8_t, 600> out{};
    std::size_t refused = 0;
    // The first generation's reader reports each short stream through the codecs'
    // assertion, which goes to the log stream alone: with none set, nothing is written.
    std::FILE* log = std::tmpfile();
    ASSERT_NE(log, nullptr);
    testing::internal::CaptureStderr();
    for (const Bytes& plain : plains) {
        const Bytes compact = writer.encode(plain);
        const bool reference = compact[2] == 69 || compact[2] == 77;
        for (int round = 0; round < 20; ++round) {
            Bytes bad = compact;
            for (int flips = 1 + round % 3; flips > 0; --flips) bad[rng() % bad.size()] ^= 1 << (rng() % 8);
            bad.resize(bad.size() - rng() % 2);
            auto input = exactCopy(bad);
            obs_history_t trial = history;
            std::uint8_t status = 0;
            const bool good = reference
                                  ? expandObsReference(trial, input.get(), bad.size(), out.data(), out.size(), status, true)
                                  : expandObsDelta(trial, input.get(), bad.size(), out.data(), out.size(), status, true);
            EXPECT_EQ(good, status == 0);
            if (!good) {
                ++refused;
                EXPECT_EQ(0, std::memcmp(&trial, &history, sizeof history));
            }
            // The first generation reads the same bytes by its own rules, just as safely.
            if (bad.size() > 2 && round % 4 == 0) {
                logStream = round % 8 == 4 ? log : nullptr;
                obs_history_t firstGeneration = history;
                input[2] = bad[1] > 200 ? kTypeObsFirstDeltaLong : kTypeObsFirstDelta;
                if (!expandFirstGenerationDelta(firstGeneration, input.get(), bad.size(), out.data(), out.size(), status,
                                                round % 8 == 0)) {
                    EXPECT_EQ(0, std::memcmp(&firstGeneration, &history, sizeof history));
                }
            }
        }
        std::uint8_t status = 0;
        ASSERT_TRUE(reference ? expandObsReference(history, compact.data(), compact.size(), out.data(), out.size(), status, true)
                              : expandObsDelta(history, compact.data(), compact.size(), out.data(), out.size(), status, true));
    }
    logStream = nullptr;
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_GT(refused, 2500u);
    std::rewind(log);
    std::array<char, 64> text{};
    ASSERT_NE(std::fgets(text.data(), text.size(), log), nullptr);
    EXPECT_STREQ(text.data(), "Assertion failed: cond, file su_compr_common, line 1319\n");
    std::fclose(log);
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
    std::FILE* log = std::tmpfile();
    ASSERT_NE(log, nullptr);
    std::FILE* saved = logStream;
    logStream = log;
    Codec codec;
    Bytes plain = nvbtest::buildRec17(nvbtest::measurementSequence({}, 0.5, 6)[0]);
    auto in = std::make_unique<nvb_frame_t>();
    auto out = std::make_unique<nvb_frame_t>();
    std::memcpy(in->data, plain.data(), plain.size());
    in->length = static_cast<std::uint16_t>(plain.size() - 10); // the record claims more than the frame holds
    EXPECT_EQ(compressRec17Frame(*codec.encoder, *in, *out), 0);
    logStream = saved;
    std::rewind(log);
    std::array<char, 64> text{};
    ASSERT_NE(std::fgets(text.data(), text.size(), log), nullptr);
    EXPECT_STREQ(text.data(), "Unknown compressed format: 0\n");
    std::fclose(log);
}

}  // namespace
}  // namespace nvb
