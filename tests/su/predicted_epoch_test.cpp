#include "external/su/delta_epoch.h"
#include "external/su/epoch_compressor.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"

#include "common/byte_sum.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <memory>

namespace nvb {
namespace {

using nvbtest::Bytes;
using Edit = std::function<void(epoch_image_t&)>;
using nvbtest::editedEpoch;

// Three epochs 50 ms apart with nothing happening, and the history that a writer holds
// after coding the first as a reference and the second as a delta.
struct Predicting : ::testing::Test {
    std::vector<Bytes> frames;
    std::unique_ptr<epoch_history_t> history = std::make_unique<epoch_history_t>();
    std::array<std::uint8_t, 5120> out{};

    void start(const Edit& everyEpoch = [](epoch_image_t&) {}) {
        for (const Bytes& frame : nvbtest::makeEpochSequence(
                 {.epochs = 3, .intervalMs = 50, .satellites = 4, .longFlags = false, .events = false})) {
            frames.push_back(editedEpoch(frame, everyEpoch));
        }
        ASSERT_NE(compressReferenceEpoch(out.data(), out.size(), *history, frames[0].data(), frames[0].size()), 0);
        ASSERT_TRUE(compressDeltaEpoch(frames[1].data(), frames[1].size(), out.data(), out.size(), *history, true));
    }

    std::uint8_t predict(const Bytes& frame) {
        return compressPredictedEpoch(frame.data(), frame.size(), out.data(), out.size(), *history);
    }

    // What a reader that holds the same history makes of the record in `out`.
    std::uint8_t expand(epoch_history_t& readerHistory, Bytes& plain) {
        std::array<std::uint8_t, 5120> rebuilt{};
        ExpandedEpoch result;
        rinex_control_t control{};
        const std::uint8_t status = expandPredictedEpoch(out.data(), epochFrameLength(out.data()), rebuilt.data(),
                                                         rebuilt.size(), readerHistory, result, control);
        plain.assign(rebuilt.begin(), rebuilt.begin() + result.length);
        return status;
    }
};

TEST_F(Predicting, EachChangeItCannotCarryDeclinesWithItsReasonAndLeavesTheHistory) {
    struct Case {
        const char* what;
        Edit everyEpoch;
        Edit last;
        std::uint8_t reason;
        std::uint8_t baseline = kPredictedWritten; // without the last edit
    };
    const auto none = [](epoch_image_t&) {};
    const auto rolledOverNear = [](epoch_image_t& image) {
        epoch_sig_row_t& signal = image.sats[0].signals[0];
        signal.measFlags1 |= kFlagByteFollows;
        signal.measFlags2 |= kRangeRolledOver;
        writeBigEndian32(signal.range, 1000 * 128); // 1000 m past the rollover
    };
    const Case cases[] = {
        {"satellite count", none, [](epoch_image_t& image) { --image.nSv; }, kPredictedSatelliteCount},
        {"clock header", none, [](epoch_image_t& image) { image.clockBlock.blockFlags ^= 0x01; }, kPredictedClockHeader},
        {"clock term", none, [](epoch_image_t& image) { image.clockBlock.clockTypes[1] ^= 0x01; }, kPredictedClockTerm},
        {"satellite row", none, [](epoch_image_t& image) { image.sats[2].svFlags ^= 0x02; }, kPredictedSatelliteRow},
        {"slip counter", none, [](epoch_image_t& image) { ++image.sats[1].signals[0].slipCount; }, kPredictedSignalFlags},
        {"half cycle unresolved", [](epoch_image_t& image) { image.sats[3].signals[0].measFlags1 = 0x03; }, none,
         kPredictedNoHalfCycle, kPredictedNoHalfCycle},
        {"range against its rollover bit", rolledOverNear,
         [](epoch_image_t& image) {
             const double wavelength = bandWavelength(image.sats[0].rt_sattype, image.sats[0].signals[0].blockType,
                                                      static_cast<std::int8_t>(image.sats[0].channel));
             nvbtest::addToField(image.sats[0].signals[0].phase, 6,
                                 static_cast<std::int64_t>(2000.0 / wavelength * 32768.0));
         },
         kPredictedRollover},
    };
    for (const Case& c : cases) {
        frames.clear();
        history = std::make_unique<epoch_history_t>();
        start(c.everyEpoch);
        EXPECT_EQ(predict(frames[2]), c.baseline) << c.what;
        start(c.everyEpoch);
        const epoch_history_t saved = *history;
        EXPECT_EQ(predict(editedEpoch(frames[2], c.last)), c.reason) << c.what;
        EXPECT_EQ(std::memcmp(&saved, history.get(), sizeof saved), 0) << c.what;
    }
}

TEST_F(Predicting, TimeStepTakesOneByteUpTo255TensOfMillisecondsAndTheRawFormOtherwise) {
    start();
    const std::uint32_t predictedTime = readBigEndian32(history->predicted.receiveTime);
    struct Case {
        std::int64_t offset;
        std::uint16_t weekStep;
        bool raw;
    };
    for (const Case c : {Case{2550, 0, false}, Case{2560, 0, true}, Case{-10, 0, true}, Case{10, 1, true}}) {
        const Bytes frame = editedEpoch(frames[2], [&](epoch_image_t& image) {
            writeBigEndian32(image.receiveTime, static_cast<std::uint32_t>(predictedTime + c.offset));
            image.weekNum[1] = static_cast<std::uint8_t>(image.weekNum[1] + c.weekStep);
        });
        epoch_history_t writer = *history;
        epoch_history_t reader = *history;
        ASSERT_EQ(compressPredictedEpoch(frame.data(), frame.size(), out.data(), out.size(), writer), kPredictedWritten);
        EXPECT_EQ((out[4] & 0x80) != 0, c.raw) << c.offset;
        Bytes plain;
        ASSERT_EQ(expand(reader, plain), 0);
        EXPECT_EQ(Bytes(plain.begin() + 5, plain.begin() + 11), Bytes(frame.begin() + 5, frame.begin() + 11)) << c.offset;
        EXPECT_EQ(std::memcmp(&writer, &reader, sizeof writer), 0);
    }
}

TEST_F(Predicting, EpochWithoutSatellitesHoldsCodeTimeClockAndChecksum) {
    start([](epoch_image_t& image) { image.nSv = 0; });
    ASSERT_EQ(predict(frames[2]), kPredictedWritten);
    const std::size_t clockBytes = ((out[4] >> 5) & 3u) + ((out[4] >> 3) & 3u);
    EXPECT_EQ(epochFrameLength(out.data()), 4 + 1 + 1 + clockBytes + 2);
}

TEST_F(Predicting, PhaseCodeTooWideIsReportedOnlyFromTheLastFieldAndTheHistoryAdvancesAnyway) {
    // Without doppler and with every phase where the prediction has it, each signal is one
    // code byte of 0 and the phase is the last field of the record.
    start([](epoch_image_t& image) {
        for (std::size_t sat = 0; sat < image.nSv; ++sat) {
            for (epoch_sig_row_t& signal : image.sats[sat].signals) signal.measFlags1 &= static_cast<std::uint8_t>(~kMeasHasDoppler);
        }
    });
    epoch_history_t reader = *history;
    const Bytes frame = editedEpoch(frames[2], [&](epoch_image_t& image) {
        for (std::size_t sat = 0; sat < image.nSv; ++sat) {
            for (std::size_t index = 0; index < 6; ++index) {
                std::memcpy(image.sats[sat].signals[index].phase, history->predicted.sats[sat].signals[index].phase, 6);
            }
        }
    });
    ASSERT_EQ(predict(frame), kPredictedWritten);
    const std::size_t length = epochFrameLength(out.data());
    const std::size_t first = 6 + ((out[4] >> 5) & 3u) + ((out[4] >> 3) & 3u);
    const std::size_t last = length - 3;
    ASSERT_EQ(std::count(out.begin() + static_cast<std::ptrdiff_t>(first), out.begin() + static_cast<std::ptrdiff_t>(last + 1), 0),
              static_cast<std::ptrdiff_t>(last + 1 - first));
    const std::array<std::uint8_t, 5120> good = out;
    Bytes plain;
    epoch_history_t lateReader = reader;
    out[last] |= 0xE0;
    EXPECT_EQ(expand(lateReader, plain), kStatusBadDeltaLength);
    EXPECT_FALSE(plain.empty());
    EXPECT_NE(std::memcmp(&lateReader, &reader, sizeof reader), 0);

    out = good;
    out[first] |= 0xE0;
    EXPECT_EQ(expand(reader, plain), 0);
}

// System 8 first ranges are read at 2^-10 and written at 2^-7: a predicted epoch of such a
// satellite holds a range eight times what a reader takes from it, and both sides agree.
TEST(PredictedEpoch, SystemEightRangeComesBackScaledAndBothSidesAgree) {
    nvbtest::CompactLink link = nvbtest::epochLink();
    link.encoder().epochUsePredicted = 1;
    double firstCycles = 0.0;
    double metres = 0.0;
    std::size_t epoch = 0, predicted = 0;
    for (const Bytes& frame : nvbtest::makeEpochSequence(
             {.epochs = 4, .intervalMs = 50, .satellites = 1, .maxSignals = 1, .longFlags = false, .events = false})) {
        // A range of about 3000 km that moves with the carrier phase, at the writer's 2^-10.
        const Bytes system8 = editedEpoch(frame, [&](epoch_image_t& image) {
            epoch_sat_row_t& row = image.sats[0];
            row.rt_sattype = 8;
            const double cycles = std::ldexp(static_cast<double>(nvbtest::signedField(row.signals[0].phase, 6)), -15);
            if (epoch == 0) firstCycles = cycles;
            metres = 3.0e6 - bandWavelength(8, row.signals[0].blockType, 0) * (cycles - firstCycles);
            writeBigEndian32(row.signals[0].range, static_cast<std::uint32_t>(std::llround(metres * 1024)));
        });
        const Bytes compact = link.compress(system8);
        Bytes plain;
        ASSERT_EQ(link.expand(compact, plain), 0);
        EXPECT_EQ(std::memcmp(&link.encoder().epochHistory, &link.expander().epochHistory, sizeof(epoch_history_t)), 0);
        if (compact[2] == 39) {
            auto image = std::make_unique<epoch_image_t>();
            nvbtest::readPlainEpoch(plain, *image);
            std::uint16_t position = 0;
            const double read = readRange(image->sats[0].signals[0].range, position, 8, 0, false, false);
            EXPECT_NEAR(read * 8, metres, 0.01);
            ++predicted;
        }
        ++epoch;
    }
    EXPECT_EQ(predicted, 2u);
}

double absoluteRange(const epoch_image_t& image, std::size_t sat, std::size_t index) {
    const epoch_sat_row_t& row = image.sats[sat];
    const auto read = [&](std::size_t which) {
        const epoch_sig_row_t& signal = row.signals[which];
        std::uint16_t position = 0;
        return readRange(signal.range, position, row.rt_sattype, static_cast<std::uint16_t>(which),
                              (signal.measFlags2 & 1) != 0, (signal.measFlags2 & 2) != 0);
    };
    return index == 0 ? read(0) : read(0) + read(index);
}

// A predicted epoch keeps time, clock, the satellites and flags, phase and doppler exactly;
// it loses the epoch flags, snr, elevation and azimuth to the prediction, and derives the
// pseudorange from the phase. Epochs on the whole 100 ms stay exact, so both sides hold
// the same history throughout.
TEST(PredictedEpoch, KeepsPhaseDopplerAndClockAndDerivesTheRangeOverALog) {
    const auto frames = nvbtest::makeEpochSequence({.epochs = 3000, .intervalMs = 50, .satellites = 20});
    nvbtest::CompactLink link = nvbtest::epochLink();
    link.encoder().epochUsePredicted = 1;
    auto expected = std::make_unique<epoch_image_t>();
    auto expanded = std::make_unique<epoch_image_t>();
    auto before = std::make_unique<epoch_image_t>();
    std::map<std::uint8_t, std::size_t> forms;
    std::size_t snrLost = 0, exactOthers = 0;
    double worstRange = 0.0;
    for (const Bytes& frame : frames) {
        const Bytes compact = link.compress(frame);
        ++forms[compact.at(2)];
        Bytes plain;
        ASSERT_EQ(link.expand(compact, plain), 0);
        ASSERT_EQ(readU16BigEndian(plain.data() + plain.size() - 3), byteSum(plain.data(), plain.size() - 3));
        nvbtest::readPlainEpoch(plain, *expanded);
        if (compact[2] != 39) {
            exactOthers += plain == frame;
        } else {
            // The epoch sent, with what it lost taken from the one before, its ranges and
            // checksum as the reader made them.
            nvbtest::readPlainEpoch(frame, *expected);
            epoch_image_t& e = *expected;
            const epoch_image_t& x = *expanded;
            const epoch_image_t& b = *before;
            e.epochHeaderLen = b.epochHeaderLen;
            e.epochFlags = b.epochFlags;
            e.raimFault = b.raimFault;
            for (std::size_t sat = 0; sat < e.nSv; ++sat) {
                e.sats[sat].elevation = b.sats[sat].elevation;
                e.sats[sat].azimuth = b.sats[sat].azimuth;
                for (std::size_t index = 0; index < e.sats[sat].nMeas; ++index) {
                    worstRange =
                        std::max(worstRange, std::fabs(absoluteRange(x, sat, index) - absoluteRange(e, sat, index)));
                    epoch_sig_row_t& signal = e.sats[sat].signals[index];
                    snrLost += std::memcmp(signal.snr, b.sats[sat].signals[index].snr, 2) != 0;
                    std::memcpy(signal.snr, b.sats[sat].signals[index].snr, 2);
                    std::memcpy(signal.range, x.sats[sat].signals[index].range, 4);
                }
            }
            e.lengthLow = x.lengthLow;
            e.lengthHigh = x.lengthHigh;
            std::memcpy(e.checksum, x.checksum, 2);
            ASSERT_EQ(std::memcmp(&e, &x, sizeof e), 0);
        }
        std::swap(expanded, before);
        ASSERT_EQ(std::memcmp(&link.encoder().epochHistory, &link.expander().epochHistory, sizeof(epoch_history_t)), 0);
    }
    EXPECT_GT(forms[39], 1000u);
    EXPECT_GT(forms[36], 1000u);
    EXPECT_EQ(exactOthers, frames.size() - forms[39]);
    EXPECT_GT(snrLost, 100u);
    EXPECT_LT(worstRange, 2.0);
    EXPECT_GT(worstRange, 0.0);
}

}  // namespace
}  // namespace nvb
