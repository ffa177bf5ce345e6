#include "external/su/epoch_compressor.h"
#include "external/su/reference_epoch.h"

#include "common/byte_sum.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

namespace nvb {
namespace {

using nvbtest::Bytes;

std::vector<Bytes> quietSequence(std::size_t epochs, std::uint32_t intervalMs) {
    return nvbtest::makeEpochSequence({.epochs = epochs, .intervalMs = intervalMs, .satellites = 4, .events = false});
}

TEST(EpochForm, AnyOptionSelectsTheLongForm) {
    const auto frames = quietSequence(2, 1000);
    for (const auto& [keepDoppler, usePredicted, forceLong] :
         {std::array<std::uint8_t, 3>{0, 0, 0}, {1, 0, 0}, {0, 0, 7}, {0, 1, 0}}) {
        nvbtest::CompactLink link = nvbtest::epochLink();
        link.encoder().epochKeepDoppler = keepDoppler;
        link.encoder().epochUsePredicted = usePredicted;
        link.encoder().epochForceLong = forceLong;
        link.compress(frames[0]);
        EXPECT_EQ(link.compress(frames[1])[2], keepDoppler + usePredicted + forceLong != 0 ? 36 : 37);
    }
}

TEST(EpochForm, PredictedFormIsTakenOnlyOffTheWholeHundredMilliseconds) {
    const auto frames = quietSequence(6, 50);
    nvbtest::CompactLink link = nvbtest::epochLink();
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
