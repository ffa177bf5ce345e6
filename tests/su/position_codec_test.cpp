#include "external/su/compact_compressors.h"
#include "external/su/position_codec.h"
#include "support/compact_codec.h"
#include "support/compact_records_sequence.h"

#include <nvbdll/nvbdll.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <tuple>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::exactCopy;

std::uint8_t positionStep(nvb_expand_t* state, std::uint8_t type, bool framed, std::uint8_t* status) {
    return type == kTypePositionDelta ? nvbdll_processType54(state, status, framed)
                                      : nvbdll_processType55(state, status, framed);
}

struct Codec : nvbtest::CompactCodec {
    Codec() : CompactCodec(compressRec11Frame, positionStep) {}
};


std::vector<Bytes> realisticPositions(std::size_t count, long backAt = -1) {
    nvbtest::SequenceShape shape;
    shape.count = count;
    shape.backAt = backAt;
    shape.backStepMs = 400000;
    return nvbtest::buildAll(nvbtest::positionSequence(shape));
}

std::uint32_t timeOf(const Bytes& record11) {
    return (std::uint32_t{record11[37]} << 24) | (record11[38] << 16) | (record11[39] << 8) | record11[40];
}

TEST(PositionCodec, LongSequenceRoundTripsByteForByteWithReferencesExactlyWhereDue) {
    const std::vector<Bytes> plains = realisticPositions(1600, 900);
    Codec codec;
    Codec unverified;
    std::uint32_t lastReference = 0xFFFFFFFF;
    std::size_t references = 0;
    std::size_t compactBytes = 0;
    std::size_t plainBytes = 0;
    for (const Bytes& plain : plains) {
        const Bytes compact = codec.encode(plain);
        (void)unverified.encode(plain);
        const std::uint32_t time = timeOf(plain);
        const bool due = time < lastReference || time - lastReference >= 600000;
        if (due) lastReference = time;
        ASSERT_EQ(compact[2], due ? kTypePositionReference : kTypePositionDelta) << "time " << time;
        references += due;
        compactBytes += compact.size();
        plainBytes += plain.size();

        Bytes expanded;
        ASSERT_EQ(codec.expand(compact, true, expanded), 0);
        ASSERT_EQ(expanded, plain);
        // Without the verify flag the delta form's checksum is recomputed low byte first.
        ASSERT_EQ(unverified.expand(compact, false, expanded), 0);
        Bytes expected = plain;
        if (compact[2] == kTypePositionDelta) std::swap(expected[plain.size() - 3], expected[plain.size() - 2]);
        ASSERT_EQ(expanded, expected);
    }
    // The first record, the step back in time, and one every ten minutes of record time.
    EXPECT_EQ(references, 4u);
    EXPECT_LT(compactBytes * 2, plainBytes);
}

TEST(PositionCodec, ReferenceComesAt600000MsNotAt599999) {
    Codec codec;
    nvbtest::Rec11Wire record = nvbtest::positionSequence({})[0];
    const std::uint32_t start = record.time;
    const std::pair<std::uint32_t, std::uint8_t> steps[] = {
        {start, kTypePositionReference},          {start + 599999, kTypePositionDelta},
        {start + 600000, kTypePositionReference}, {start + 600001, kTypePositionDelta},
        {start + 599000, kTypePositionReference},
    };
    for (const auto& [time, type] : steps) {
        record.time = time;
        EXPECT_EQ(codec.encode(nvbtest::buildRec11(record))[2], type) << time;
    }
}

TEST(PositionCodec, NibbleCodesTrimWithoutSignAndGoRawOnlyFromFourBytes) {
    nvbtest::Rec11Wire base = nvbtest::positionSequence({})[0];
    nvbtest::Rec11Wire next = base;
    next.latitude = base.latitude + 0x01000000;  // four magnitude bytes: raw, code 8
    next.longitude = base.longitude - 0x00FFFFFF; // three bytes, below: code 3 + 4
    next.pdop = static_cast<std::uint16_t>(base.pdop + 0xFF00); // a 2-byte field never goes raw
    const Bytes first = nvbtest::buildRec11(base);
    const Bytes second = nvbtest::buildRec11(next);
    position_history_t history{};
    std::array<std::uint8_t, 512> out{};
    ASSERT_TRUE(compressPositionReference(history, first.data(), first.size(), out.data(), out.size()));
    EXPECT_EQ(out[1], first.size() - 1);
    ASSERT_TRUE(compressPositionDelta(history, second.data(), second.size(), out.data(), out.size()));
    EXPECT_EQ(out[3], 0x87);
    EXPECT_EQ(0, std::memcmp(&out[4], &second[3], 4));
    EXPECT_EQ(out[8], 0xFF);
    EXPECT_EQ(out[9], 0xFF);
    EXPECT_EQ(out[10], 0xFF);
    EXPECT_EQ(out[12] & 0x0F, 2); // third code byte, low nibble: pdop
}

TEST(PositionCodec, ListCodeCarriesCountChangesAndResidualFlag) {
    nvbtest::Rec11Wire base = nvbtest::positionSequence({})[0];
    base.svIds = {1, 2, 3, 4};
    base.channels = {0, 1, 2, 3};
    nvbtest::Rec11Wire grown = base;
    grown.svIds.push_back(9);
    grown.channels.push_back(4);
    grown.svIds[1] = 7;
    grown.fixStatus = static_cast<std::uint8_t>(base.fixStatus + 1);
    const Bytes first = nvbtest::buildRec11(base);
    const Bytes second = nvbtest::buildRec11(grown);
    position_history_t history{};
    std::array<std::uint8_t, 512> out{};
    ASSERT_TRUE(compressPositionReference(history, first.data(), first.size(), out.data(), out.size()));
    ASSERT_TRUE(compressPositionDelta(history, second.data(), second.size(), out.data(), out.size()));
    // Five code bytes precede the list code; nothing else moved in the head.
    const std::size_t list = 3 + 5 + 0;
    ASSERT_EQ(out[1], list + 1 + 2 + 4 + 2 + 2);
    EXPECT_EQ(out[list], 0x80 | 0x40 | (2 << 1) | 1);
    EXPECT_EQ(out[list + 1], grown.fixStatus);
    EXPECT_EQ(out[list + 2], 5);
    const std::uint8_t changes[] = {1, 7, 4, 9};
    EXPECT_EQ(0, std::memcmp(&out[list + 3], changes, 4));
}

TEST(PositionCodec, ThirtyTwoChangesWrapTheCountSoTheWriterSendsAReference) {
    nvbtest::Rec11Wire base = nvbtest::positionSequence({})[0];
    base.svIds.clear();
    base.channels.clear();
    for (std::uint8_t i = 0; i < 32; ++i) {
        base.svIds.push_back(static_cast<std::uint8_t>(i + 1));
        base.channels.push_back(i);
    }
    nvbtest::Rec11Wire next = base;
    for (std::uint8_t& id : next.svIds) id = static_cast<std::uint8_t>(id + 40);
    position_history_t history{};
    std::array<std::uint8_t, 512> out{};
    const Bytes first = nvbtest::buildRec11(base);
    const Bytes second = nvbtest::buildRec11(next);
    ASSERT_TRUE(compressPositionReference(history, first.data(), first.size(), out.data(), out.size()));
    ASSERT_TRUE(compressPositionDelta(history, second.data(), second.size(), out.data(), out.size()));
    EXPECT_EQ(out[8] & 0x3E, 0);
    EXPECT_EQ(out[1], 9 + 64 + 2 + 2);

    Codec codec;
    const Bytes compactFirst = codec.encode(first);
    const Bytes compactSecond = codec.encode(second);
    EXPECT_EQ(compactFirst[2], kTypePositionReference);
    EXPECT_EQ(compactSecond[2], kTypePositionReference);
    Bytes expanded;
    ASSERT_EQ(codec.expand(compactFirst, true, expanded), 0);
    ASSERT_EQ(codec.expand(compactSecond, true, expanded), 0);
    EXPECT_EQ(expanded, second);
}

TEST(PositionCodec, ImageWithMoreThan116SatellitesIsNotParsed) {
    Bytes record(300, 0);
    record[0] = 2;
    record[1] = 255;
    record[42] = 117;
    position_image_t image{};
    image.svCount = 3;
    EXPECT_FALSE(parsePositionImage(record.size(), image, record.data()));
    EXPECT_EQ(image.svCount, 3);
    record[0] = 1;
    record[42] = 2;
    EXPECT_FALSE(parsePositionImage(record.size(), image, record.data()));
}

TEST(PositionCodec, LostRecordIsRefusedUntilTheNextReferenceWithTheVerifyFlag) {
    const std::vector<Bytes> plains = realisticPositions(900);
    Codec writer;
    std::vector<Bytes> compacts;
    for (const Bytes& plain : plains) compacts.push_back(writer.encode(plain));
    const std::size_t lost = 100;
    ASSERT_EQ(compacts[lost][2], kTypePositionDelta);

    Codec verified;
    Codec unverified;
    bool sawWrongDelta = false;
    std::size_t refused = 0;
    for (std::size_t i = 0; i < compacts.size(); ++i) {
        if (i == lost) continue;
        const bool afterLossBeforeReference =
            i > lost && std::find_if(compacts.begin() + lost, compacts.begin() + static_cast<long>(i) + 1,
                                     [](const Bytes& c) { return c[2] == kTypePositionReference; }) ==
                            compacts.begin() + static_cast<long>(i) + 1;
        const position_history_t before = verified.reader->positionHistory;
        Bytes expanded;
        const std::uint8_t status = verified.expand(compacts[i], true, expanded);
        if (afterLossBeforeReference) {
            EXPECT_EQ(status, 4) << i;
            EXPECT_EQ(0, std::memcmp(&before, &verified.reader->positionHistory, sizeof before));
            ++refused;
        } else {
            ASSERT_EQ(status, 0) << i;
            EXPECT_EQ(expanded, plains[i]);
        }
        ASSERT_EQ(unverified.expand(compacts[i], false, expanded), 0);
        if (afterLossBeforeReference) sawWrongDelta = sawWrongDelta || expanded != plains[i];
    }
    EXPECT_GT(refused, 100u);
    EXPECT_TRUE(sawWrongDelta);
}

TEST(PositionCodec, CorruptRecordsGiveTheirStatusAndLeaveTheHistory) {
    const std::vector<Bytes> plains = realisticPositions(3);
    position_history_t history{};
    std::array<std::uint8_t, 512> scratch{};
    ASSERT_TRUE(compressPositionReference(history, plains[0].data(), plains[0].size(), scratch.data(), scratch.size()));
    const position_history_t good = history;
    Bytes delta(256);
    ASSERT_TRUE(compressPositionDelta(history, plains[1].data(), plains[1].size(), delta.data(), delta.size()));
    delta.resize(delta[1]);
    history = good;

    {
        Bytes bad = delta;
        bad[3] = 0x90; // nibble code 9
        auto input = exactCopy(bad);
        std::uint8_t status = 0;
        expandPositionDelta(history, input.get(), bad.size(), scratch.data(), scratch.size(), status, true);
        EXPECT_EQ(status, 6);
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }

    // Unchanged head fields and a list part: a satellite count of 117, a change index of 116.
    for (const auto& [bits, tail, expected] :
         {std::tuple{std::uint8_t{0x40}, Bytes{117}, std::uint8_t{7}}, std::tuple{std::uint8_t{0x02}, Bytes{116, 1}, std::uint8_t{7}}}) {
        Bytes bad = {2, 0, kTypePositionDelta, 0, 0, 0, 0, 0, bits};
        bad.insert(bad.end(), tail.begin(), tail.end());
        bad.insert(bad.end(), {0, 0});
        bad[1] = static_cast<std::uint8_t>(bad.size());
        auto input = exactCopy(bad);
        history = good;
        std::uint8_t status = 0;
        expandPositionDelta(history, input.get(), bad.size(), scratch.data(), scratch.size(), status, false);
        EXPECT_EQ(status, expected);
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }

    // Every truncation, and every output buffer too short, each of exactly its size.
    for (std::size_t length = 0; length < delta.size(); ++length) {
        auto input = exactCopy(Bytes(delta.begin(), delta.begin() + static_cast<long>(length)));
        history = good;
        std::uint8_t status = 0;
        expandPositionDelta(history, input.get(), length, scratch.data(), scratch.size(), status, true);
        EXPECT_NE(status, 0) << length;
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }
    for (std::size_t capacity = 0; capacity < plains[1].size(); ++capacity) {
        auto output = std::make_unique<std::uint8_t[]>(capacity);
        history = good;
        std::uint8_t status = 0;
        expandPositionDelta(history, delta.data(), delta.size(), output.get(), capacity, status, true);
        EXPECT_EQ(status, 8) << capacity;
    }

    // A reference whose length byte promises more than there is, or one that can't grow.
    for (std::uint8_t length : {std::uint8_t{255}, static_cast<std::uint8_t>(plains[0].size())}) {
        Bytes reference(plains[0].begin(), plains[0].end() - 1);
        reference[1] = length;
        reference[2] = kTypePositionReference;
        auto input = exactCopy(reference);
        history = good;
        std::uint8_t status = 0;
        expandPositionReference(history, input.get(), reference.size(), scratch.data(), scratch.size(), status, false);
        EXPECT_EQ(status, 8);
        EXPECT_EQ(0, std::memcmp(&history, &good, sizeof good));
    }
}

TEST(PositionCodec, RandomlyDamagedRecordsNeverMoveTheHistoryOnAStatus) {
    const std::vector<Bytes> plains = realisticPositions(200);
    Codec writer;
    std::vector<Bytes> compacts;
    for (const Bytes& plain : plains) compacts.push_back(writer.encode(plain));
    std::mt19937 rng(7);
    position_history_t history{};
    std::array<std::uint8_t, 512> out{};
    std::size_t refused = 0;
    for (const Bytes& compact : compacts) {
        for (int round = 0; round < 20; ++round) {
            Bytes bad = compact;
            for (int flips = 1 + round % 3; flips > 0; --flips) bad[rng() % bad.size()] = static_cast<std::uint8_t>(rng());
            bad.resize(bad.size() - rng() % 3);
            auto input = exactCopy(bad);
            position_history_t trial = history;
            std::uint8_t status = 0;
            if (bad.size() > 2 && bad[2] == kTypePositionReference) {
                expandPositionReference(trial, input.get(), bad.size(), out.data(), out.size(), status, true);
            } else {
                expandPositionDelta(trial, input.get(), bad.size(), out.data(), out.size(), status, true);
            }
            if (status != 0) {
                ++refused;
                EXPECT_EQ(0, std::memcmp(&trial, &history, sizeof history));
            }
        }
        std::uint8_t status = 0;
        if (compact[2] == kTypePositionReference) {
            expandPositionReference(history, compact.data(), compact.size(), out.data(), out.size(), status, true);
        } else {
            expandPositionDelta(history, compact.data(), compact.size(), out.data(), out.size(), status, true);
        }
        ASSERT_EQ(status, 0);
    }
    EXPECT_GT(refused, 3000u);
}

}  // namespace
}  // namespace nvb
