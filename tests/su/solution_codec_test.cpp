#include "common/byte_sum.h"
#include "external/su/compact_compressors.h"
#include "external/su/solution_codec.h"
#include "support/compact_codec.h"
#include "support/compact_records_sequence.h"

#include <nvbdll/nvbdll.h>

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <set>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::exactCopy;

std::uint8_t solutionStep(nvb_expand_t* state, std::uint8_t type, bool, std::uint8_t* status) {
    return type == kTypeSolutionDelta ? nvbdll_processType56(state, status) : nvbdll_processType57(state, status);
}

struct Codec : nvbtest::CompactCodec {
    Codec() : CompactCodec(compressRec29Frame, solutionStep) {}
};


nvbtest::Rec29Wire baseSolution() {
    nvbtest::Rec29Wire record = nvbtest::solutionSequence({})[0];
    record.svs.resize(10);
    return record;
}

// The compact record of `next` against a history that holds `first` as its reference.
Bytes deltaAfter(const Bytes& first, const Bytes& next, solution_history_t& history) {
    std::array<std::uint8_t, 1024> out{};
    EXPECT_TRUE(compressSolutionReference(history, first.data(), first.size(), out.data(), out.size()));
    EXPECT_TRUE(compressSolutionDelta(history, next.data(), next.size(), out.data(), out.size()));
    return Bytes(out.begin(), out.begin() + out[1] + 256 * out[3]);
}

Bytes expandDirect(solution_history_t& history, const Bytes& delta, std::uint8_t& status) {
    solution_image_t image;
    auto input = exactCopy(delta);
    expandSolutionDelta(history, input.get(), delta.size(), image, status);
    std::array<std::uint8_t, 1024> out{};
    const std::size_t written = writeSolutionImage(image, out.data(), out.size());
    return Bytes(out.begin(), out.begin() + written);
}

bool checksumHolds(const Bytes& plain) {
    return plain.size() > 3 && byteSum(plain.data(), plain.size() - 3) == readU16BigEndian(&plain[plain.size() - 3]);
}

TEST(SolutionCodec, LongSequenceRoundTripsEveryOptionalBlockWithReferencesWhereDue) {
    nvbtest::SequenceShape shape;
    shape.count = 1600;
    shape.backAt = 900;
    shape.backStepMs = 400000;
    const std::vector<nvbtest::Rec29Wire> records = nvbtest::solutionSequence(shape);
    Codec codec;
    std::uint32_t lastReference = 0xFFFFFFFF;
    std::set<std::string> deltaKinds;
    std::size_t compactBytes = 0;
    std::size_t plainBytes = 0;
    for (std::size_t i = 0; i < records.size(); ++i) {
        const nvbtest::Rec29Wire& record = records[i];
        const Bytes plain = nvbtest::buildRec29(record);
        const bool forced = i == 333;
        if (forced) codec.encoder->forcePositionReference = 1;
        const Bytes compact = codec.encode(plain);
        const bool due = record.time < lastReference || record.time - lastReference >= 600000 || forced;
        if (due) lastReference = record.time;
        ASSERT_EQ(compact[2], due ? kTypeSolutionReference : kTypeSolutionDelta) << i;
        EXPECT_EQ(codec.encoder->forcePositionReference, 0);
        compactBytes += compact.size();
        plainBytes += plain.size();
        if (!due) {
            if (record.fixType >= 3 && record.fixType <= 6) deltaKinds.insert("block 3");
            if ((record.posFlags & 0x02) != 0) deltaKinds.insert("block 4 of " + std::to_string(record.block4Length));
            if ((record.posFlags & 0x10) != 0) deltaKinds.insert("clock block");
            if ((record.posFlags & 0x04) != 0) deltaKinds.insert("sigmaU predicted");
        }
        Bytes expanded;
        ASSERT_EQ(codec.expand(compact, expanded), 0) << i;
        ASSERT_EQ(expanded, plain) << i;
    }
    EXPECT_EQ(deltaKinds, (std::set<std::string>{"block 3", "block 4 of 10", "block 4 of 9", "clock block",
                                                 "sigmaU predicted"}));
    EXPECT_LT(compactBytes * 2, plainBytes);
}

TEST(SolutionCodec, SatelliteCountMovesByThreeInTheCodeAndByFourInARawByte) {
    const nvbtest::Rec29Wire base = baseSolution();
    struct Case {
        std::size_t count;
        std::uint8_t field;
        bool raw;
    };
    for (const Case& c : {Case{13, 3, false}, Case{14, 4, true}, Case{7, 5, false}, Case{6, 4, true}}) {
        nvbtest::Rec29Wire next = base;
        next.svs.resize(c.count, {40, 0, 2});
        solution_history_t history{};
        const Bytes plain = nvbtest::buildRec29(next);
        const Bytes delta = deltaAfter(nvbtest::buildRec29(base), plain, history);
        EXPECT_EQ((delta[5] >> 4) & 7, c.field) << c.count;
        EXPECT_EQ(delta[4], c.raw ? 3 : 2) << c.count;
        if (c.raw) {
            EXPECT_EQ(delta[6], c.count);
        }
        solution_history_t reader{};
        std::array<std::uint8_t, 1024> out{};
        std::uint8_t status = 0;
        const Bytes first = nvbtest::buildRec29(base);
        Bytes reference(first.begin(), first.end() - 1);
        reference[1] = static_cast<std::uint8_t>(reference.size());
        expandSolutionReference(reader, reference.data(), reference.size(), out.data(), out.size(), status);
        EXPECT_EQ(expandDirect(reader, delta, status), plain);
        EXPECT_EQ(status, 0);
    }
}

TEST(SolutionCodec, ListPatchesAreFourBytesEachAndALengthOfOneMeansNone) {
    const nvbtest::Rec29Wire base = baseSolution();
    nvbtest::Rec29Wire patched = base;
    patched.svs[4].flags ^= 2;
    for (const auto& [next, length] : {std::pair{base, 1}, std::pair{patched, 5}}) {
        solution_history_t history{};
        const Bytes delta = deltaAfter(nvbtest::buildRec29(base), nvbtest::buildRec29(next), history);
        const std::size_t block6 = delta.size() - 2 - static_cast<std::size_t>(length);
        EXPECT_EQ(delta[block6], length);
        if (length == 5) {
            EXPECT_EQ(delta[block6 + 1], 4);
        }
    }
}

TEST(SolutionCodec, FormsTheDeltaCannotCarryGoOutAsReferences) {
    // A record of 256 bytes or more: the expanded length wraps and keeps the delta's high
    // byte. Correction bytes behind block 3: the delta form has no room for them.
    nvbtest::Rec29Wire big = baseSolution();
    while (big.svs.size() < 70) big.svs.push_back({static_cast<std::uint8_t>(big.svs.size()), 3, 2});
    nvbtest::Rec29Wire corrected = baseSolution();
    corrected.fixType = 4;
    corrected.corrFlags = 3;
    for (const nvbtest::Rec29Wire& record : {big, corrected}) {
        nvbtest::Rec29Wire next = record;
        next.time += 1000;
        const Bytes first = nvbtest::buildRec29(record);
        const Bytes second = nvbtest::buildRec29(next);
        solution_history_t history{};
        const Bytes delta = deltaAfter(first, second, history);
        solution_history_t reader{};
        std::array<std::uint8_t, 1024> out{};
        std::uint8_t status = 0;
        Bytes reference(first.begin(), first.end() - 1);
        const std::size_t shorter = reference.size();
        reference[1] = static_cast<std::uint8_t>(shorter);
        reference[3] = static_cast<std::uint8_t>(shorter >> 8);
        expandSolutionReference(reader, reference.data(), reference.size(), out.data(), out.size(), status);
        solution_image_t image;
        expandSolutionDelta(reader, delta.data(), delta.size(), image, status);
        EXPECT_EQ(status, 0);
        if (second.size() > 255) {
            EXPECT_EQ(image.head[1], second.size() & 0xFF);
            EXPECT_EQ(image.head[3], delta[3]);
        } else {
            EXPECT_EQ(image.head[1], second.size() - 13); // the 13 correction bytes are gone
        }

        Codec codec;
        Bytes expanded;
        for (const Bytes& plain : {first, second}) {
            const Bytes compact = codec.encode(plain);
            EXPECT_EQ(compact[2], kTypeSolutionReference);
            ASSERT_EQ(codec.expand(compact, expanded), 0);
            EXPECT_EQ(expanded, plain);
        }
    }
}

TEST(SolutionCodec, LostRecordShowsInTheFrameChecksumUntilTheNextReference) {
    nvbtest::SequenceShape shape;
    shape.count = 700;
    const std::vector<Bytes> plains = nvbtest::buildAll(nvbtest::solutionSequence(shape));
    Codec codec;
    std::vector<Bytes> compacts;
    for (const Bytes& plain : plains) compacts.push_back(codec.encode(plain));
    const std::size_t lost = 200;
    ASSERT_EQ(compacts[lost][2], kTypeSolutionDelta);
    ASSERT_EQ(compacts[600][2], kTypeSolutionReference);
    for (std::size_t i = 0; i < compacts.size(); ++i) {
        if (i == lost) continue;
        Bytes expanded;
        ASSERT_EQ(codec.expand(compacts[i], expanded), 0);
        const bool wrong = i > lost && i < 600;
        EXPECT_EQ(checksumHolds(expanded), !wrong) << i;
        if (!wrong) {
            EXPECT_EQ(expanded, plains[i]) << i;
        }
    }
}

TEST(SolutionCodec, ReferenceOfA256ByteRecordLowersTheLengthAsOneNumber) {
    nvbtest::Rec29Wire record = baseSolution();
    Bytes plain = nvbtest::buildRec29(record);
    while (plain.size() < 256) {
        record.svs.push_back({1, 0, 0});
        plain = nvbtest::buildRec29(record);
    }
    ASSERT_EQ(plain.size(), 256u);
    Codec codec;
    const Bytes compact = codec.encode(plain);
    EXPECT_EQ(compact.size(), 255u);
    EXPECT_EQ(compact[1], 255);
    EXPECT_EQ(compact[3], 0);
    Bytes expanded;
    ASSERT_EQ(codec.expand(compact, expanded), 0);
    EXPECT_EQ(expanded, plain);
}

TEST(SolutionCodec, CorruptDeltasGiveTheirStatusAndLeaveTheHistory) {
    nvbtest::Rec29Wire base = baseSolution();
    base.fixType = 4;
    base.posFlags = 0x12;
    base.clock = {{2, 100000}, {3, -7}};
    nvbtest::Rec29Wire next = base;
    next.svs[3].flags ^= 2;
    next.clock[0].offset += 9;
    const Bytes first = nvbtest::buildRec29(base);
    solution_history_t history{};
    const Bytes delta = deltaAfter(first, nvbtest::buildRec29(next), history);
    history = solution_history_t{};
    std::array<std::uint8_t, 1024> out{};
    std::uint8_t status = 0;
    ASSERT_TRUE(compressSolutionReference(history, first.data(), first.size(), out.data(), out.size()));
    const solution_history_t good = history;

    // Blocks in order: 1, 2, 3, 4, 5 (clock), 6 (list), then the checksum.
    std::vector<std::size_t> block;
    for (std::size_t at = 4; block.size() < 6; at += delta[at]) block.push_back(at);
    ASSERT_EQ(block[5] + delta[block[5]] + 2, delta.size());
    struct Case {
        const char* what;
        std::size_t at;
        std::uint8_t value;
        std::uint8_t status;
    };
    const Case cases[] = {
        {"block 1 shorter than its fields", block[0], 1, 8},
        {"block 2 shorter than its fields", block[1], 8, 8},
        {"block 3 shorter than its fields", block[2], 1, 8},
        {"block 4 shorter than its fields", block[3], 1, 8},
        {"clock block of another length", block[4], static_cast<std::uint8_t>(delta[block[4]] + 1), 8},
        {"list longer than the satellites allow", block[5], 255, 7},
        {"change index beyond the image", block[5] + 1, 116, 7},
    };
    for (const Case& c : cases) {
        Bytes bad = delta;
        bad[c.at] = c.value;
        history = good;
        expandDirect(history, bad, status);
        EXPECT_EQ(status, c.status) << c.what;
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good)) << c.what;
    }
    for (std::size_t length = 0; length < delta.size(); ++length) {
        history = good;
        expandDirect(history, Bytes(delta.begin(), delta.begin() + static_cast<long>(length)), status);
        EXPECT_EQ(status, 8) << length;
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }
    // A reference that promises more than it holds, and the front end on a frame of 0 bytes.
    Bytes reference(first.begin(), first.end() - 1);
    reference[1] = static_cast<std::uint8_t>(reference.size() + 1);
    auto input = exactCopy(reference);
    expandSolutionReference(history, input.get(), reference.size(), out.data(), out.size(), status);
    EXPECT_EQ(status, 8);
    reference[1] = static_cast<std::uint8_t>(reference.size());
    auto fitting = exactCopy(reference);
    for (std::size_t capacity = 0; capacity <= reference.size(); ++capacity) {
        auto output = std::make_unique<std::uint8_t[]>(capacity);
        history = good;
        expandSolutionReference(history, fitting.get(), reference.size(), output.get(), capacity, status);
        EXPECT_EQ(status, 8) << capacity;
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }
    Codec codec;
    codec.reader->frame.length = 0;
    EXPECT_EQ(nvbdll_processType56(codec.reader.get(), &status), 8);
    EXPECT_EQ(codec.reader->plainFrame.length, 0);
}

TEST(SolutionCodec, RandomlyDamagedDeltasNeverMoveTheHistoryOnAStatus) {
    nvbtest::SequenceShape shape;
    shape.count = 300;
    const std::vector<Bytes> plains = nvbtest::buildAll(nvbtest::solutionSequence(shape));
    Codec codec;
    std::mt19937 rng(11);
    std::size_t refused = 0;
    for (const Bytes& plain : plains) {
        const Bytes compact = codec.encode(plain);
        if (compact[2] != kTypeSolutionDelta) {
            Bytes ignored;
            codec.expand(compact, ignored);
            continue;
        }
        for (int round = 0; round < 20; ++round) {
            Bytes bad = compact;
            for (int flips = 1 + round % 3; flips > 0; --flips) bad[4 + rng() % (bad.size() - 4)] ^= 1 << (rng() % 8);
            bad.resize(bad.size() - rng() % 2);
            solution_history_t trial = codec.reader->solutionHistory;
            std::uint8_t status = 0;
            expandDirect(trial, bad, status);
            if (status != 0) {
                ++refused;
                EXPECT_EQ(0, std::memcmp(&trial, &codec.reader->solutionHistory, sizeof trial));
            }
        }
        Bytes expanded;
        ASSERT_EQ(codec.expand(compact, expanded), 0);
    }
    EXPECT_GT(refused, 1000u);
}

}  // namespace
}  // namespace nvb
