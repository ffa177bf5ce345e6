#include "external/su/delta_epoch.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"

#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace nvb {
namespace {

using nvbtest::addToField;
using nvbtest::Bytes;
using nvbtest::editedEpoch;

std::vector<Bytes> quietSequence(std::size_t epochs, bool doppler = false, std::size_t satellites = 4) {
    nvbtest::EpochSequenceOptions options{.epochs = epochs, .satellites = satellites, .doppler = doppler};
    options.longFlags = options.clockBlock = options.events = false;
    return nvbtest::makeEpochSequence(options);
}

// The epoch `steps` constant increments after `frame`: time, clock, ranges, phases, doppler.
Bytes advanced(const Bytes& frame, std::int64_t steps, std::int64_t extraMs = 0) {
    return editedEpoch(frame, [&](epoch_image_t& image) {
        addToField(image.receiveTime, 4, steps * 1000 + extraMs);
        addToField(image.clkOffset, 3, steps * 100);
        for (std::size_t sat = 0; sat < image.nSv; ++sat) {
            for (std::size_t index = 0; index < image.sats[sat].nMeas; ++index) {
                epoch_sig_row_t& signal = image.sats[sat].signals[index];
                addToField(signal.range, index == 0 ? 4 : 2, steps * (index == 0 ? 5000 : 3));
                addToField(signal.phase, 6, steps * -123456);
                if ((signal.measFlags1 & kMeasHasDoppler) != 0) addToField(signal.doppler, 3, steps * 7);
            }
        }
    });
}

TEST(EpochDelta, EpochEqualToThePredictionTakesOneByteASatelliteAndTwoOrThreeASignal) {
    const Bytes first = quietSequence(1).front();
    auto image = std::make_unique<epoch_image_t>();
    nvbtest::readPlainEpoch(first, *image);
    std::size_t signals = 0;
    for (std::size_t sat = 0; sat < image->nSv; ++sat) signals += image->sats[sat].nMeas;
    for (const bool longForm : {false, true}) {
        nvbtest::CompactLink link = nvbtest::epochLink();
        link.encoder().epochForceLong = longForm ? 1 : 0;
        for (std::int64_t step = 0; step < 3; ++step) {
            const Bytes frame = advanced(first, step);
            const Bytes compact = link.compress(frame);
            Bytes plain;
            EXPECT_EQ(link.expand(compact, plain), 0);
            EXPECT_EQ(plain, frame);
            if (step < 2) continue;
            EXPECT_EQ(compact.size(), 4 + 1 + 2 + image->nSv + signals * (longForm ? 3 : 2));
            EXPECT_EQ(compact[2], longForm ? 36 : 37);
        }
    }
}

// The epoch code byte: the time step's length in bits 5 and 6, three magnitude bytes going
// raw in four; the satellite count's step in bits 0 to 2, with 4 the escape to a raw count.
TEST(EpochDelta, TimeAndSatelliteCountStepsTakeTheirCodeOrTheEscape) {
    const Bytes four = quietSequence(1).front();
    const Bytes ten = quietSequence(1, false, 10).front();
    const auto withSatellites = [&](std::uint8_t count) {
        return editedEpoch(ten, [count](epoch_image_t& image) { image.nSv = count; });
    };
    struct Case {
        Bytes before, frame;
        std::uint8_t mask, code;
    };
    const Case cases[] = {{advanced(four, 1), advanced(four, 2, 0x10000), 0x60, 0x60},
                          {withSatellites(5), withSatellites(8), 7, 3},
                          {withSatellites(5), withSatellites(9), 7, 4},
                          {withSatellites(5), withSatellites(2), 7, 5},
                          {withSatellites(5), withSatellites(0), 7, 4}};
    for (const Case& c : cases) {
        nvbtest::CompactLink link = nvbtest::epochLink();
        Bytes plain;
        ASSERT_EQ(link.expand(link.compress(c.before), plain), 0);
        const Bytes compact = link.compress(c.frame);
        EXPECT_EQ(compact[4] & c.mask, c.code) << int(c.frame[14]);
        EXPECT_EQ(link.expand(compact, plain), 0);
        EXPECT_EQ(plain, c.frame);
        if (c.mask == 0x60) {
            EXPECT_EQ(Bytes(compact.begin() + 5, compact.begin() + 9),
                      Bytes(c.frame.begin() + 7, c.frame.begin() + 11));
        }
    }
}

// The short form has no place for svFlags2 or measFlags2: its compressor writes such an
// epoch all the same and its reader refuses it; the long form carries both.
TEST(EpochDelta, ShortFormReaderRefusesSecondFlagBytesThatTheLongFormCarries) {
    const auto frames = quietSequence(2);
    const Bytes edited[] = {editedEpoch(frames[1],
                                        [](epoch_image_t& image) {
                                            image.sats[0].svFlags |= kFlagByteFollows;
                                            image.sats[0].svFlags2 = 0x03;
                                            image.sats[0].svSlipCounts[1] = 4;
                                        }),
                            editedEpoch(frames[1], [](epoch_image_t& image) {
                                image.sats[0].signals[0].measFlags1 |= kFlagByteFollows;
                                image.sats[0].signals[0].measFlags2 = 0x08;
                            })};
    for (const Bytes& frame : edited) {
        for (const bool longForm : {false, true}) {
            nvbtest::CompactLink link = nvbtest::epochLink();
            link.encoder().epochForceLong = longForm ? 1 : 0;
            Bytes plain;
            ASSERT_EQ(link.expand(link.compress(frames[0]), plain), 0);
            EXPECT_EQ(link.expand(link.compress(frame), plain), longForm ? 0 : kStatusBadEpochCode);
            EXPECT_EQ(plain, longForm ? frame : Bytes{});
        }
    }
}

TEST(EpochDelta, LostDopplerLeavesTheStaleOneInTheImageAndTheHistoriesInStep) {
    const Bytes first = quietSequence(1, true).front();
    // A slow satellite: ten hertz, gone for one epoch, then back at nine.
    const std::int32_t doppler[] = {2560, 2560, 0, 2304, 2304};
    nvbtest::CompactLink link = nvbtest::epochLink();
    link.encoder().epochKeepDoppler = 1;
    for (std::size_t i = 0; i < std::size(doppler); ++i) {
        const Bytes frame = editedEpoch(advanced(first, static_cast<std::int64_t>(i)), [&](epoch_image_t& image) {
            epoch_sig_row_t& signal = image.sats[0].signals[0];
            if (doppler[i] == 0) signal.measFlags1 &= static_cast<std::uint8_t>(~kMeasHasDoppler);
            for (std::size_t k = 0; k < 3; ++k)
                signal.doppler[k] = static_cast<std::uint8_t>(doppler[i] >> (16 - 8 * k));
        });
        Bytes plain;
        EXPECT_EQ(link.expand(link.compress(frame), plain), 0) << i;
        EXPECT_EQ(plain, frame) << i;
        if (i == 2) {
            const epoch_sig_row_t& kept = link.expander().epochHistory.previous.sats[0].signals[0];
            EXPECT_EQ(kept.measFlags1 & kMeasHasDoppler, 0);
            EXPECT_EQ(kept.doppler[1], 2560 >> 8);
        }
        EXPECT_EQ(std::memcmp(&link.encoder().epochHistory, &link.expander().epochHistory, sizeof(epoch_history_t)), 0) << i;
    }
}

}  // namespace
}  // namespace nvb
