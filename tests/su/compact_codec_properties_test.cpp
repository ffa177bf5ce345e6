// What every compact codec promises, written once over a traits struct per codec: a long
// realistic sequence comes back byte for byte with references exactly where due; after a
// lost record no delta is delivered until the next reference; a corrupt record gives its
// status and leaves the history byte-identical. A codec joins with its traits (see
// tests/README.md) and its rows of refused records in tests/data/su/compact_corruptions.txt;
// what only one codec does stays in that codec's own test.
#include "external/su/compact_compressors.h"
#include "external/su/delta_epoch.h"
#include "external/su/epoch_compressor.h"
#include "external/su/obs_codec.h"
#include "external/su/position_codec.h"
#include "external/su/reference_epoch.h"
#include "external/su/solution_codec.h"

#include "common/byte_sum.h"
#include "su/pinned_rows.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <set>
#include <string>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::CompactLink;
using nvbtest::SequenceShape;

// A record whose time is set to `time`, with its checksum put right.
Bytes retimed(Bytes plain, std::size_t offset, std::uint32_t time) {
    writeBigEndian32(&plain[offset], time);
    writeU16BigEndian(&plain[plain.size() - 3], byteSum(plain.data(), plain.size() - 3));
    return plain;
}

// Positions, types 54 (delta) and 55 (reference).
struct Positions {
    using History = position_history_t;
    static constexpr const char* kName = "Positions";
    static constexpr std::size_t kTimeOffset = 37;
    static constexpr bool kVerifies = true;
    static constexpr bool kCapacityOfDelta = true;
    static constexpr bool kLengthHigh = false;
    static constexpr std::uint8_t nvb_encode_t::*kForce = nullptr;
    static CompactLink link() { return CompactLink(compressRec11Frame, nvbtest::positionStep); }
    static std::vector<Bytes> sequence(const SequenceShape& shape) {
        return nvbtest::buildAll(nvbtest::positionSequence(shape));
    }
    static bool isReference(std::uint8_t type) { return type == kTypePositionReference; }
    static constexpr auto history = [](auto& state) -> History& { return state.positionHistory; };
    // Without the verify flag the delta form's checksum is recomputed low byte first.
    static Bytes unverified(Bytes plain, const Bytes& compact) {
        if (compact[2] == kTypePositionDelta) std::swap(plain[plain.size() - 3], plain[plain.size() - 2]);
        return plain;
    }
    static void cover(const Bytes&, const Bytes& plain, const Bytes& compact, std::set<std::string>& seen) {
        if (compact[2] == kTypePositionDelta)
            seen.insert(plain.size() == plain[42] * 2u + 46 ? "older form" : "residuals");
    }
    static std::set<std::string> coverage() { return {"residuals", "older form"}; }
    static std::uint8_t expand(History& history, const std::uint8_t* record, std::size_t size, std::uint8_t* out,
                               std::size_t capacity, bool verify) {
        std::uint8_t status = 0;
        if (size > 2 && record[2] == kTypePositionReference) {
            return expandPositionReference(history, record, size, out, capacity, status, verify);
        }
        return expandPositionDelta(history, record, size, out, capacity, status, verify);
    }
    static std::array<Bytes, 2> pair() {
        const auto records = sequence({});
        return {records[0], records[1]};
    }
};

// Solutions, types 56 (delta) and 57 (reference). The delta carries no check of its own:
// a loss shows in the checksum of the frame it expands to.
struct Solutions {
    using History = solution_history_t;
    static constexpr const char* kName = "Solutions";
    static constexpr std::size_t kTimeOffset = 7;
    static constexpr bool kVerifies = false;
    static constexpr bool kCapacityOfDelta = false;
    static constexpr bool kLengthHigh = true;
    static constexpr std::uint8_t nvb_encode_t::*kForce = &nvb_encode_t::forcePositionReference;
    static CompactLink link() { return CompactLink(compressRec29Frame, nvbtest::solutionStep); }
    static std::vector<Bytes> sequence(const SequenceShape& shape) {
        return nvbtest::buildAll(nvbtest::solutionSequence(shape));
    }
    static bool isReference(std::uint8_t type) { return type == kTypeSolutionReference; }
    static constexpr auto history = [](auto& state) -> History& { return state.solutionHistory; };
    static Bytes unverified(Bytes plain, const Bytes&) { return plain; }
    static void cover(const Bytes&, const Bytes& plain, const Bytes& compact, std::set<std::string>& seen) {
        if (compact[2] != kTypeSolutionDelta) return;
        const bool block3 = plain[17] >= 3 && plain[17] <= 6;
        if (block3) seen.insert("block 3");
        if ((plain[15] & 0x02) != 0) seen.insert("block 4 of " + std::to_string(plain[72 + (block3 ? plain[72] : 0)]));
        if ((plain[15] & 0x10) != 0) seen.insert("clock block");
        if ((plain[15] & 0x04) != 0) seen.insert("sigmaU predicted");
    }
    static std::set<std::string> coverage() {
        return {"block 3", "block 4 of 10", "block 4 of 9", "clock block", "sigmaU predicted"};
    }
    static std::uint8_t expand(History& history, const std::uint8_t* record, std::size_t size, std::uint8_t* out,
                               std::size_t capacity, bool) {
        std::uint8_t status = 0;
        if (size > 2 && record[2] == kTypeSolutionReference) {
            return expandSolutionReference(history, record, size, out, capacity, status);
        }
        solution_image_t image;
        return expandSolutionDelta(history, record, size, image, status);
    }
    // A solution with block 3, block 4 and two clock terms; the second changes a list flag.
    static std::array<Bytes, 2> pair() {
        nvbtest::Rec29Wire base = nvbtest::solutionSequence({})[0];
        base.svs.resize(10);
        base.fixType = 4;
        base.posFlags = 0x12;
        base.clock = {{2, 100000}, {3, -7}};
        nvbtest::Rec29Wire next = base;
        next.svs[3].flags ^= 2;
        next.clock[0].offset += 9;
        return {nvbtest::build(base), nvbtest::build(next)};
    }
};

// Records 17 of the second generation, types 68/76 (delta) and 69/77 (reference).
struct Records17 {
    using History = obs_history_t;
    static constexpr const char* kName = "Records17";
    static constexpr std::size_t kTimeOffset = 3;
    static constexpr bool kVerifies = true;
    static constexpr bool kCapacityOfDelta = true;
    static constexpr bool kLengthHigh = false;
    static constexpr std::uint8_t nvb_encode_t::*kForce = nullptr;
    static CompactLink link() { return CompactLink(compressRec17Frame, nvbtest::obsStep); }
    static std::vector<Bytes> sequence(const SequenceShape& shape) {
        return nvbtest::buildAll(nvbtest::measurementSequence(shape));
    }
    static bool isReference(std::uint8_t type) { return type == 69 || type == 77; }
    static constexpr auto history = [](auto& state) -> History& { return state.secondGenHistory; };
    static Bytes unverified(Bytes plain, const Bytes&) { return plain; }
    static void cover(const Bytes&, const Bytes& plain, const Bytes& compact, std::set<std::string>& seen) {
        if (isReference(compact[2])) return;
        seen.insert("flags mode " + std::to_string(compact[3] & 3));
        if ((compact[3] & 0x80) != 0) seen.insert("list");
        if (compact.size() >= 256) seen.insert("long delta");
        if (plain[2] == kTypeObsLong) seen.insert("117 as delta");
    }
    static std::set<std::string> coverage() {
        return {"flags mode 0", "flags mode 1", "flags mode 3", "list", "117 as delta"};
    }
    static std::uint8_t expand(History& history, const std::uint8_t* record, std::size_t size, std::uint8_t* out,
                               std::size_t capacity, bool verify) {
        std::uint8_t status = 0;
        if (size > 2 && isReference(record[2])) {
            expandObsReference(history, record, size, out, capacity, status, verify);
        } else {
            expandObsDelta(history, record, size, out, capacity, status, verify);
        }
        return status;
    }
    // The second moves its first satellite's range: time by two bytes, flags from the
    // prediction, and the first row's measurement code at offset 7.
    static std::array<Bytes, 2> pair() {
        const nvbtest::Rec17Wire a = nvbtest::measurementSequence({}, 0.5, 6)[0];
        nvbtest::Rec17Wire b = a;
        b.time += 1000;
        b.sats[0].range += 100;
        return {nvbtest::build(a), nvbtest::build(b)};
    }
};

// Measurement epochs: references 38 and the short (37) or long (36) delta form.
template <bool Long>
struct Epochs {
    using History = epoch_history_t;
    static constexpr const char* kName = Long ? "LongEpochs" : "ShortEpochs";
    static constexpr std::size_t kTimeOffset = 7;
    static constexpr bool kVerifies = true;
    static constexpr bool kCapacityOfDelta = true;
    static constexpr bool kLengthHigh = true;
    static constexpr std::uint8_t nvb_encode_t::*kForce = &nvb_encode_t::epochForceReference;
    // The long form is the one a writer that keeps the doppler takes.
    static CompactLink link() {
        return CompactLink(
            [](nvb_encode_t& state, const nvb_frame_t& in, nvb_frame_t& out) {
                state.epochKeepDoppler = Long ? 1 : 0;
                return compressEpochFrame(state, in, out);
            },
            nvbtest::epochStep);
    }
    // Without the long form, epochs as a level 0 writer makes them, a sky of 116 satellites
    // at two signals; with it, six signals on fewer. A step back is a new week.
    static std::vector<Bytes> sequence(const SequenceShape& shape) {
        const std::uint32_t start =
            shape.backAt >= 0 ? 604800000 - static_cast<std::uint32_t>(shape.backAt) * 1000 : 302400000;
        nvbtest::EpochSequenceOptions options{.seed = shape.seed, .epochs = shape.count, .startTimeMs = start};
        options.satellites = Long ? 40 : 116;
        options.maxSignals = Long ? 6 : 2;
        options.doppler = options.longFlags = Long;
        return nvbtest::makeEpochSequence(options);
    }
    static bool isReference(std::uint8_t type) { return type == kReferenceEpochType; }
    static constexpr auto history = [](auto& state) -> History& { return state.epochHistory; };
    static Bytes unverified(Bytes plain, const Bytes&) { return plain; }
    static void cover(const Bytes& before, const Bytes& plain, const Bytes&, std::set<std::string>& seen) {
        auto image = std::make_unique<epoch_image_t>();
        auto last = std::make_unique<epoch_image_t>();
        nvbtest::readPlainEpoch(plain, *image);
        nvbtest::readPlainEpoch(before.empty() ? plain : before, *last);
        seen.insert("clock terms " + std::to_string(clockTermCount(image->clockBlock)));
        if (image->nSv == 116) seen.insert("116 satellites");
        for (std::size_t sat = 0; sat < image->nSv; ++sat) {
            const epoch_sat_row_t& row = image->sats[sat];
            if (row.nMeas == 6) seen.insert("6 signals");
            if ((row.svFlags2 & kSvHasSlipCounts) != 0) seen.insert("slip counts");
            if (sat < last->nSv && last->sats[sat].svId != row.svId) seen.insert("rows reordered");
            for (std::size_t index = 0; index < row.nMeas; ++index) {
                const epoch_sig_row_t& signal = row.signals[index];
                if ((signal.measFlags1 & 0x08) != 0) seen.insert("slip mark");
                if (Long && (signal.measFlags1 & kMeasHasDoppler) == 0) seen.insert("doppler gap");
                if ((signal.measFlags2 & kRangeThreeBytes) != 0) seen.insert("three-byte difference");
                if ((signal.measFlags2 & kRangeRolledOver) != 0) seen.insert("rolled over");
            }
        }
    }
    static std::set<std::string> coverage() {
        std::set<std::string> expected = {"rows reordered", "slip mark", Long ? "6 signals" : "116 satellites"};
        for (int terms = 0; terms < 8; ++terms) expected.insert("clock terms " + std::to_string(terms));
        if (Long) expected.insert({"slip counts", "doppler gap", "three-byte difference", "rolled over"});
        return expected;
    }
    static std::uint8_t expand(History& history, const std::uint8_t* record, std::size_t size, std::uint8_t* out,
                               std::size_t capacity, bool verify) {
        ExpandedEpoch result;
        rinex_control_t control{};
        control.verify = verify ? 1 : 0;
        if (size > 2 && record[2] == kReferenceEpochType) {
            return expandReferenceEpoch(record, size, out, capacity, history, result, control);
        }
        return expandDeltaEpoch(record, size, out, capacity, history, Long, result, control);
    }
    // Two quiet epochs of two satellites with two signals each.
    static std::array<Bytes, 2> pair() {
        nvbtest::EpochSequenceOptions quiet{.epochs = 2, .satellites = 2, .maxSignals = 2};
        quiet.doppler = quiet.longFlags = quiet.clockBlock = quiet.events = quiet.riseAndSet = false;
        const auto frames = nvbtest::makeEpochSequence(quiet);
        return {frames[0], frames[1]};
    }
};

template <typename Codec>
class CompactCodec : public ::testing::Test {};

using Codecs = ::testing::Types<Positions, Solutions, Records17, Epochs<false>, Epochs<true>>;

TYPED_TEST_SUITE(CompactCodec, Codecs, nvbtest::RowGroupNames);

TYPED_TEST(CompactCodec, LongSequenceComesBackByteForByteWithReferencesExactlyWhereDue) {
    using Codec = TypeParam;
    const std::vector<Bytes> plains = Codec::sequence({.count = 1600, .backAt = 900, .backStepMs = 400000});
    CompactLink link = Codec::link();
    CompactLink unverified = Codec::link();
    std::uint32_t lastReference = 0xFFFFFFFF;
    std::set<std::string> seen;
    std::size_t compactBytes = 0, plainBytes = 0;
    for (std::size_t i = 0; i < plains.size(); ++i) {
        const Bytes& plain = plains[i];
        const Bytes compact = link.compress(plain);
        ASSERT_EQ(unverified.compress(plain), compact);
        const std::uint32_t time = readBigEndian32(&plain[Codec::kTimeOffset]);
        const bool due = referenceDue(time, lastReference);
        if (due) lastReference = time;
        ASSERT_EQ(Codec::isReference(compact[2]), due) << i;
        Codec::cover(i > 0 ? plains[i - 1] : Bytes{}, plain, compact, seen);
        compactBytes += compact.size();
        plainBytes += plain.size();
        Bytes expanded;
        ASSERT_EQ(link.expand(compact, expanded, true), 0) << i;
        ASSERT_EQ(expanded, plain) << i;
        const auto& written = Codec::history(link.encoder());
        ASSERT_EQ(0, std::memcmp(&written, &Codec::history(link.expander()), sizeof written)) << i;
        ASSERT_EQ(unverified.expand(compact, expanded, false), 0) << i;
        ASSERT_EQ(expanded, Codec::unverified(plain, compact)) << i;
    }
    EXPECT_EQ(seen, Codec::coverage());
    EXPECT_LT(compactBytes * 2, plainBytes);
}

TYPED_TEST(CompactCodec, ReferenceComesFirstAtEachStepBackAnd600000MsAfterTheLast) {
    using Codec = TypeParam;
    const Bytes plain = Codec::sequence({})[0];
    const std::uint32_t start = readBigEndian32(&plain[Codec::kTimeOffset]);
    CompactLink link = Codec::link();
    const std::pair<std::uint32_t, bool> steps[] = {{start, true},          {start + 599999, false},
                                                    {start + 600000, true}, {start + 600001, false},
                                                    {start + 599000, true}, {start + 599001, false}};
    for (const auto& [time, reference] : steps) {
        EXPECT_EQ(Codec::isReference(link.compress(retimed(plain, Codec::kTimeOffset, time))[2]), reference) << time;
    }
    // A forced reference is taken once; the encode step clears the request.
    if constexpr (Codec::kForce != nullptr) {
        link.encoder().*Codec::kForce = 1;
        EXPECT_TRUE(Codec::isReference(link.compress(retimed(plain, Codec::kTimeOffset, start + 599002))[2]));
        EXPECT_EQ(link.encoder().*Codec::kForce, 0);
        EXPECT_FALSE(Codec::isReference(link.compress(retimed(plain, Codec::kTimeOffset, start + 599003))[2]));
    }
}

// The dispatch refuses a delta that the codec's own check refuses (7, the history as it
// was) or, where the codec carries no check, whose frame checksum fails (2).
TYPED_TEST(CompactCodec, AfterALostRecordDeltasAreRefusedUntilTheNextReference) {
    using Codec = TypeParam;
    const std::vector<Bytes> plains = Codec::sequence({.count = 700});
    CompactLink writer = Codec::link();
    std::vector<Bytes> compacts;
    for (const Bytes& plain : plains) compacts.push_back(writer.compress(plain));
    const std::size_t lost = 300;
    ASSERT_FALSE(Codec::isReference(compacts[lost][2]));
    CompactLink verified = Codec::link();
    CompactLink unverified = Codec::link();
    bool reached = false, sawWrong = false;
    std::size_t broken = 0, refused = 0;
    for (std::size_t i = 0; i < compacts.size(); ++i) {
        if (i == lost) continue;
        reached = reached || (i > lost && Codec::isReference(compacts[i][2]));
        const auto before = Codec::history(verified.expander());
        Bytes plain;
        const std::uint8_t status = verified.dispatch(compacts[i], plain);
        if (i < lost || reached) {
            ASSERT_EQ(status, 0) << i;
            ASSERT_EQ(plain, plains[i]) << i;
        } else {
            ++broken;
            refused += status != 0;
            if (status == NVB_STATUS_EXPANSION) {
                EXPECT_EQ(0, std::memcmp(&before, &Codec::history(verified.expander()), sizeof before)) << i;
            } else if (status != 0) {
                EXPECT_FALSE(Codec::kVerifies) << i;
                EXPECT_EQ(status, NVB_STATUS_CHECKSUM) << i;
            }
        }
        if (unverified.expand(compacts[i], plain, false) == 0 && i > lost && !reached && plain != plains[i])
            sawWrong = true;
    }
    EXPECT_TRUE(reached);
    // A wrong record whose byte sum happens to come out right gets through.
    EXPECT_GT(refused * 20, broken * 19);
    EXPECT_TRUE(sawWrong) << "without the verify flag a loss goes unseen";
}

TYPED_TEST(CompactCodec, CorruptRecordsGiveTheirStatusAndLeaveTheHistoryByteIdentical) {
    using Codec = TypeParam;
    using History = typename Codec::History;
    const auto plains = Codec::pair();
    CompactLink writer = Codec::link();
    const Bytes reference = writer.compress(plains[0]);
    const Bytes delta = writer.compress(plains[1]);
    ASSERT_TRUE(Codec::isReference(reference[2]));
    ASSERT_FALSE(Codec::isReference(delta[2]));
    auto empty = std::make_unique<History>();
    auto good = std::make_unique<History>();
    auto trial = std::make_unique<History>();
    std::array<std::uint8_t, 5120> out{};
    ASSERT_EQ(Codec::expand(*good, reference.data(), reference.size(), out.data(), out.size(), true), 0);
    // Each record in a buffer of exactly its size, so that a read past it is a sanitizer fault.
    const auto refused = [&](const Bytes& record, std::size_t capacity, bool verify, const History& from) {
        *trial = from;
        auto input = nvbtest::exactCopy(record);
        auto output = std::make_unique<std::uint8_t[]>(capacity);
        const std::uint8_t status = Codec::expand(*trial, input.get(), record.size(), output.get(), capacity, verify);
        EXPECT_EQ(0, std::memcmp(trial.get(), &from, sizeof from));
        return status;
    };
    for (const nvbtest::PinnedRow& row : nvbtest::pinnedRows("compact_corruptions.txt", Codec::kName)) {
        const Bytes record = nvbtest::edited(row, {{"reference", reference}, {"delta", delta}});
        const bool isRef = record.size() > 2 && Codec::isReference(record[2]);
        EXPECT_EQ(refused(record, out.size(), row.number(2) != 0, isRef ? *empty : *good), row.number(3)) << row;
    }
    // Every cut of both forms, with the length bytes as they were and as the cut.
    for (const Bytes* record : {&reference, &delta}) {
        const History& from = record == &reference ? *empty : *good;
        for (std::size_t length = 0; length < record->size(); ++length) {
            Bytes cut(record->begin(), record->begin() + static_cast<long>(length));
            EXPECT_NE(refused(cut, out.size(), true, from), 0) << "cut at " << length;
            // A reference without a check of its own takes what its length says.
            if (!Codec::kVerifies && record == &reference) continue;
            if (length > 1) cut[1] = static_cast<std::uint8_t>(length);
            if (Codec::kLengthHigh && length > 3) cut[3] = static_cast<std::uint8_t>(length >> 8);
            EXPECT_NE(refused(cut, out.size(), true, from), 0) << "cut at " << length << ", length as cut";
        }
    }
    const bool ofDelta = Codec::kCapacityOfDelta;
    for (std::size_t capacity = 0; capacity < plains[ofDelta ? 1 : 0].size(); ++capacity) {
        EXPECT_EQ(refused(ofDelta ? delta : reference, capacity, true, ofDelta ? *good : *empty), kStatusBadDeltaLength)
            << "room for " << capacity;
    }
}

}  // namespace
}  // namespace nvb
