#include "external/su/delta_epoch.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"

#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::EpochSequenceOptions;

std::vector<Bytes> quietSequence(std::size_t epochs, bool doppler = false, std::size_t satellites = 4) {
    EpochSequenceOptions options;
    options.epochs = epochs;
    options.satellites = satellites;
    options.events = false;
    options.longFlags = false;
    options.doppler = doppler;
    options.clockBlock = false;
    return nvbtest::makeEpochSequence(options);
}

void addToField(std::uint8_t* field, std::size_t width, std::int64_t amount) {
    std::uint8_t step[8] = {};
    for (std::size_t i = width; i-- > 0; amount >>= 8) step[i] = static_cast<std::uint8_t>(amount);
    bigAdd(field, step, width);
}

// The epoch `steps` constant increments after `frame`: time, clock, ranges, phases, doppler.
Bytes advanced(const Bytes& frame, std::int64_t steps, std::int64_t extraMs = 0) {
    auto image = std::make_unique<epoch_image_t>();
    nvbtest::readPlainEpoch(frame, *image);
    addToField(image->receiveTime, 4, steps * 1000 + extraMs);
    addToField(image->clkOffset, 3, steps * 100);
    for (std::size_t sat = 0; sat < image->nSv; ++sat) {
        for (std::size_t index = 0; index < image->sats[sat].nMeas; ++index) {
            epoch_sig_row_t& signal = image->sats[sat].signals[index];
            if (index == 0) {
                addToField(signal.range, 4, steps * 5000);
            } else {
                addToField(signal.range, 2, steps * 3);
            }
            addToField(signal.phase, 6, steps * -123456);
            if ((signal.measFlags1 & kMeasHasDoppler) != 0) addToField(signal.doppler, 3, steps * 7);
        }
    }
    return nvbtest::writePlainEpoch(*image);
}

Bytes edited(const Bytes& frame, const std::function<void(epoch_image_t&)>& edit) {
    auto image = std::make_unique<epoch_image_t>();
    nvbtest::readPlainEpoch(frame, *image);
    edit(*image);
    nvbtest::settleEpochLengths(*image);
    return nvbtest::writePlainEpoch(*image);
}

std::size_t signalTotal(const Bytes& frame) {
    auto image = std::make_unique<epoch_image_t>();
    nvbtest::readPlainEpoch(frame, *image);
    std::size_t total = 0;
    for (std::size_t sat = 0; sat < image->nSv; ++sat) total += image->sats[sat].nMeas;
    return total;
}

TEST(EpochDelta, EpochEqualToThePredictionTakesOneByteASatelliteAndTwoOrThreeASignal) {
    const Bytes first = quietSequence(1).front();
    const std::size_t satellites = first[14];
    const std::size_t signals = signalTotal(first);
    for (const bool longForm : {false, true}) {
        nvbtest::CompactLink link = nvbtest::epochLink();
        link.encoder().epochForceLong = longForm ? 1 : 0;
        for (std::int64_t step = 0; step < 3; ++step) {
            const Bytes frame = advanced(first, step);
            const Bytes compact = link.compress(frame);
            if (step == 2) {
                EXPECT_EQ(compact.size(), 4 + 1 + 2 + satellites + signals * (longForm ? 3 : 2));
                EXPECT_EQ(compact[2], longForm ? 36 : 37);
            }
            Bytes plain;
            EXPECT_EQ(link.expand(compact, plain), 0);
            EXPECT_EQ(plain, frame);
        }
    }
}

TEST(EpochDelta, TimeStepOfThreeMagnitudeBytesGoesRawInFour) {
    const Bytes first = quietSequence(1).front();
    nvbtest::CompactLink link = nvbtest::epochLink();
    Bytes plain, compact;
    const Bytes frames[] = {first, advanced(first, 1), advanced(first, 2, 0x10000)};
    for (const Bytes& frame : frames) {
        compact = link.compress(frame);
        ASSERT_EQ(link.expand(compact, plain), 0);
        EXPECT_EQ(plain, frame);
    }
    EXPECT_EQ((compact[4] >> 5) & 3, 3);
    EXPECT_EQ(Bytes(compact.begin() + 5, compact.begin() + 9), Bytes(frames[2].begin() + 7, frames[2].begin() + 11));
}

TEST(EpochDelta, SatelliteCountStepOfThreeFitsFourTakesTheEscapeAndNoneIsAnEpoch) {
    const Bytes full = quietSequence(1, false, 10).front();
    const auto withSatellites = [&](std::uint8_t count) {
        return edited(full, [count](epoch_image_t& image) { image.nSv = count; });
    };
    struct Case {
        std::uint8_t count;
        std::uint8_t code;
    };
    // From 5 satellites: +3, +4 (escape), -3, -5 (escape).
    for (const Case c : {Case{8, 3}, Case{9, 4}, Case{2, 5}, Case{0, 4}}) {
        nvbtest::CompactLink link = nvbtest::epochLink();
        Bytes plain;
        ASSERT_EQ(link.expand(link.compress(withSatellites(5)), plain), 0);
        const Bytes frame = withSatellites(c.count);
        const Bytes compact = link.compress(frame);
        EXPECT_EQ(compact[4] & 7, c.code) << int(c.count);
        EXPECT_EQ(link.expand(compact, plain), 0);
        EXPECT_EQ(plain, frame);
    }
}

// The short form has no place for svFlags2 or measFlags2: its compressor writes such an
// epoch all the same and its reader refuses it; the long form carries both.
TEST(EpochDelta, ShortFormReaderRefusesSecondFlagBytesThatTheLongFormCarries) {
    const auto frames = quietSequence(2);
    const std::function<void(epoch_image_t&)> edits[] = {
        [](epoch_image_t& image) {
            image.sats[0].svFlags |= kFlagByteFollows;
            image.sats[0].svFlags2 = 0x03;
            image.sats[0].svSlipCounts[1] = 4;
        },
        [](epoch_image_t& image) {
            image.sats[0].signals[0].measFlags1 |= kFlagByteFollows;
            image.sats[0].signals[0].measFlags2 = 0x08;
        },
    };
    for (const auto& edit : edits) {
        const Bytes frame = edited(frames[1], edit);
        for (const bool longForm : {false, true}) {
            nvbtest::CompactLink link = nvbtest::epochLink();
            link.encoder().epochForceLong = longForm ? 1 : 0;
            Bytes plain;
            ASSERT_EQ(link.expand(link.compress(frames[0]), plain), 0);
            const std::uint8_t status = link.expand(link.compress(frame), plain);
            EXPECT_EQ(status, longForm ? 0 : kStatusBadEpochCode);
            EXPECT_EQ(plain, longForm ? frame : Bytes{});
        }
    }
}

TEST(EpochDelta, LostDopplerLeavesTheStaleOneInTheImageAndTheHistoriesInStep) {
    const Bytes first = quietSequence(1, true).front();
    const auto dopplerOf = [](std::int32_t units) {
        return [units](epoch_image_t& image) {
            epoch_sig_row_t& signal = image.sats[0].signals[0];
            if (units == 0) {
                signal.measFlags1 &= static_cast<std::uint8_t>(~kMeasHasDoppler);
                std::memset(signal.doppler, 0, 3);
            } else {
                signal.doppler[0] = static_cast<std::uint8_t>(units >> 16);
                signal.doppler[1] = static_cast<std::uint8_t>(units >> 8);
                signal.doppler[2] = static_cast<std::uint8_t>(units);
            }
        };
    };
    // A slow satellite: ten hertz, gone for one epoch, then back at nine.
    const Bytes frames[] = {edited(advanced(first, 0), dopplerOf(2560)), edited(advanced(first, 1), dopplerOf(2560)),
                            edited(advanced(first, 2), dopplerOf(0)), edited(advanced(first, 3), dopplerOf(2304)),
                            edited(advanced(first, 4), dopplerOf(2304))};
    nvbtest::CompactLink link = nvbtest::epochLink();
    link.encoder().epochKeepDoppler = 1;
    for (std::size_t i = 0; i < std::size(frames); ++i) {
        Bytes plain;
        EXPECT_EQ(link.expand(link.compress(frames[i]), plain), 0) << i;
        EXPECT_EQ(plain, frames[i]) << i;
        if (i == 2) {
            const epoch_sig_row_t& kept = link.expander().epochHistory.previous.sats[0].signals[0];
            EXPECT_EQ(kept.measFlags1 & kMeasHasDoppler, 0);
            EXPECT_EQ(kept.doppler[1], 2560 >> 8);
        }
        EXPECT_EQ(std::memcmp(&link.encoder().epochHistory, &link.expander().epochHistory, sizeof(epoch_history_t)), 0) << i;
    }
}

TEST(EpochDelta, FramesAtTheLimitsComeBackInBothForms) {
    // 116 satellites fill a frame with two signals at the most (six would need 11620 bytes);
    // six signals are tested on fewer satellites, with everything the long form carries.
    EpochSequenceOptions most;
    most.epochs = 700;
    most.satellites = 116;
    most.maxSignals = 2;
    most.longFlags = false;
    most.doppler = false;
    EpochSequenceOptions widest;
    widest.epochs = 700;
    widest.satellites = 40;
    widest.maxSignals = 6;
    widest.seed = 3;
    const auto mostFrames = nvbtest::makeEpochSequence(most);
    const auto widestFrames = nvbtest::makeEpochSequence(widest);
    std::size_t longest = 0;
    for (const Bytes& frame : mostFrames) longest = std::max(longest, frame.size());
    EXPECT_GT(longest, 3500u);
    EXPECT_EQ(mostFrames.front()[14], 116);
    for (const auto& [frames, forceLong] : {std::pair{&mostFrames, 0}, std::pair{&mostFrames, 1}, std::pair{&widestFrames, 1}}) {
        nvbtest::CompactLink link = nvbtest::epochLink();
        link.encoder().epochForceLong = static_cast<std::uint8_t>(forceLong);
        for (std::size_t epoch = 0; epoch < frames->size(); ++epoch) {
            Bytes plain;
            ASSERT_EQ(link.expand(link.compress((*frames)[epoch]), plain), 0) << epoch;
            ASSERT_EQ(plain, (*frames)[epoch]) << epoch;
            ASSERT_EQ(std::memcmp(&link.encoder().epochHistory, &link.expander().epochHistory, sizeof(epoch_history_t)), 0);
        }
    }
}

}  // namespace
}  // namespace nvb
