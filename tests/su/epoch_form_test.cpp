#include "external/su/epoch_compressor.h"
#include "external/su/reference_epoch.h"

#include "common/byte_sum.h"
#include "support/epoch_sequence.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::EpochSequenceOptions;

// The compressor's side of a log: its history, last reference time and out record.
struct Writer {
    std::unique_ptr<epoch_history_t> history = std::make_unique<epoch_history_t>();
    std::uint32_t lastReference = 0xFFFFFFFF;
    std::array<std::uint8_t, kEpochOutCapacity> out{};

    std::uint8_t put(const Bytes& frame, std::uint32_t timeMs, std::uint8_t keepDoppler = 0,
                     std::uint8_t usePredicted = 0, std::uint8_t forceLong = 0, std::uint8_t forceReference = 0) {
        const std::uint16_t length = compressEpoch(frame.data(), frame.size(), out.data(), *history, lastReference,
                                                   timeMs, keepDoppler, usePredicted, forceLong, forceReference);
        EXPECT_EQ(length, epochFrameLength(out.data()));
        return out[2];
    }
};

std::vector<Bytes> quietSequence(std::size_t epochs, std::uint32_t intervalMs) {
    EpochSequenceOptions options;
    options.epochs = epochs;
    options.intervalMs = intervalMs;
    options.satellites = 4;
    options.events = false;
    return nvbtest::makeEpochSequence(options);
}

TEST(EpochForm, ReferenceComesFirstEveryTenMinutesAtABackwardStepAndOnRequest) {
    const auto frames = quietSequence(12, 1000);
    Writer writer;
    const std::uint32_t start = 1000000;
    struct Step {
        std::uint32_t time;
        std::uint8_t forceReference;
        std::uint8_t type;
    };
    const Step steps[] = {
        {start, 0, 38},                  // nothing is at or above 0xFFFFFFFF
        {start + 1000, 0, 37},
        {start + 599999, 0, 37},
        {start + 600000, 0, 38},
        {start + 600001, 0, 37},
        {start + 1000, 0, 38},           // earlier than the last reference, as at a new week
        {start + 2000, 0, 37},
        {start + 3000, 1, 38},
        {start + 4000, 0, 37},
    };
    for (std::size_t i = 0; i < std::size(steps); ++i) {
        EXPECT_EQ(writer.put(frames[i], steps[i].time, 0, 0, 0, steps[i].forceReference), steps[i].type) << i;
    }
    EXPECT_EQ(writer.lastReference, start + 3000);
}

TEST(EpochForm, AnyOptionSelectsTheLongFormAndTheEncodeStepClearsTheForcedReference) {
    const auto frames = quietSequence(3, 1000);
    const std::array<std::array<std::uint8_t, 3>, 4> options = {{{0, 0, 0}, {1, 0, 0}, {0, 0, 7}, {0, 1, 0}}};
    for (const auto& option : options) {
        Writer writer;
        writer.put(frames[0], 10000);
        const bool longForm = option[0] != 0 || option[1] != 0 || option[2] != 0;
        EXPECT_EQ(writer.put(frames[1], 11000, option[0], option[1], option[2]), longForm ? 36 : 37);
    }

    nvbtest::EpochLink link;
    EXPECT_EQ(link.compress(frames[0]).at(2), 38);
    link.encoder().epochForceReference = 1;
    EXPECT_EQ(link.compress(frames[1]).at(2), 38);
    EXPECT_EQ(link.encoder().epochForceReference, 0);
    EXPECT_EQ(link.compress(frames[2]).at(2), 37);
}

TEST(EpochForm, PredictedFormIsTakenOnlyOffTheWholeHundredMilliseconds) {
    const auto frames = quietSequence(6, 50);
    nvbtest::EpochLink link;
    link.encoder().epochUsePredicted = 1;
    const std::uint8_t expected[] = {38, 39, 36, 39, 36, 39};
    for (std::size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(link.compress(frames[i]).at(2), expected[i]) << i;
}

TEST(EpochReference, IsOneByteShorterEndsInItsOwnChecksumAndExpandsToThePlainRecord) {
    const auto frames = quietSequence(1, 1000);
    Bytes plain = frames[0];
    auto history = std::make_unique<epoch_history_t>();
    std::array<std::uint8_t, 5120> compact{};
    const std::uint16_t length = compressReferenceEpoch(compact.data(), compact.size(), *history, plain.data(), plain.size());
    ASSERT_EQ(length, plain.size() - 1);
    EXPECT_EQ(compact[2], 38);
    EXPECT_EQ(epochFrameLength(compact.data()), length);
    EXPECT_EQ(readU16BigEndian(compact.data() + length - 2), byteSum(compact.data(), length - 2u));
    EXPECT_EQ(std::memcmp(compact.data() + 4, plain.data() + 4, length - 6u), 0);

    auto image = std::make_unique<epoch_image_t>();
    nvbtest::readPlainEpoch(plain, *image);
    EXPECT_EQ(std::memcmp(&history->previous, image.get(), sizeof *image), 0);
    EXPECT_EQ(std::memcmp(&history->predicted, image.get(), sizeof *image), 0);

    // A plain record whose checksum was wrong comes back with it put right.
    Bytes damaged = plain;
    damaged[damaged.size() - 2] ^= 0x40;
    const std::uint16_t again = compressReferenceEpoch(compact.data(), compact.size(), *history, damaged.data(), damaged.size());
    auto expanded = std::make_unique<epoch_history_t>();
    std::array<std::uint8_t, 5120> out{};
    ExpandedEpoch result;
    rinex_control_t control{};
    ASSERT_EQ(expandReferenceEpoch(compact.data(), again, out.data(), out.size(), *expanded, result, control), 0);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + result.length), plain);
    EXPECT_EQ(result.receiveTime, readBigEndian32(image->receiveTime));
    EXPECT_EQ(std::memcmp(&expanded->predicted, image.get(), sizeof *image), 0);
}

}  // namespace
}  // namespace nvb
