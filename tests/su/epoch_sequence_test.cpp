#include "support/epoch_sequence.h"

#include "common/byte_sum.h"
#include "external/su/epoch_image.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <map>
#include <set>

namespace {

using nvbtest::Bytes;
using nvbtest::EpochLink;
using nvbtest::EpochSequenceOptions;
using nvbtest::makeEpochSequence;

struct Outcome {
    std::map<std::uint8_t, std::size_t> forms; // count by compact type
    std::size_t compactBytes = 0;
    std::size_t exact = 0;
    std::vector<std::size_t> wrong; // epochs that did not come back byte for byte
    std::size_t historiesApart = 0; // epochs after which writer and reader held different images

    std::size_t of(std::uint8_t type) const {
        const auto found = forms.find(type);
        return found == forms.end() ? 0 : found->second;
    }
};

// Compresses every frame and expands what came out, as writer and reader of one log.
Outcome roundTrip(const std::vector<Bytes>& frames, const std::function<void(nvb_encode_t&)>& configure) {
    EpochLink link;
    configure(link.encoder());
    Outcome outcome;
    for (std::size_t epoch = 0; epoch < frames.size(); ++epoch) {
        const Bytes compact = link.compress(frames[epoch]);
        ++outcome.forms[compact.at(2)];
        outcome.compactBytes += compact.size();
        Bytes plain;
        const std::uint8_t status = link.expand(compact, plain);
        if (status == 0 && plain == frames[epoch]) {
            ++outcome.exact;
        } else {
            outcome.wrong.push_back(epoch);
        }
        outcome.historiesApart +=
            std::memcmp(&link.encoder().epochHistory, &link.expander().epochHistory, sizeof(epoch_history_t)) != 0;
    }
    return outcome;
}

std::string firstWrong(const Outcome& outcome) {
    return outcome.wrong.empty() ? "none" : std::to_string(outcome.wrong.front());
}

const auto kDefaults = [](nvb_encode_t&) {};

// What the round trips below are meant to exercise must be in the log.
TEST(EpochSequence, GeneratedLogHoldsTheEventsOfAReceiversDay) {
    EpochSequenceOptions options;
    options.epochs = 3000;
    std::set<std::size_t> clockTerms, satelliteCounts;
    std::size_t slipMarks = 0, threeByte = 0, rolledOver = 0, withoutDoppler = 0, steering = 0, reordered = 0;
    std::size_t slipCounts = 0, maxLength = 0;
    auto image = std::make_unique<epoch_image_t>();
    auto last = std::make_unique<epoch_image_t>();
    for (const Bytes& frame : makeEpochSequence(options)) {
        nvbtest::readPlainEpoch(frame, *image);
        maxLength = std::max(maxLength, frame.size());
        clockTerms.insert(nvb::clockTermCount(image->clockBlock));
        satelliteCounts.insert(image->nSv);
        const auto offset = [](const epoch_image_t& e) {
            return static_cast<std::int32_t>((e.clkOffset[0] << 24 | e.clkOffset[1] << 16 | e.clkOffset[2] << 8)) >> 8;
        };
        if (std::abs(offset(*image) - offset(*last)) > (1 << 18)) ++steering;
        for (std::size_t sat = 0; sat < image->nSv; ++sat) {
            const epoch_sat_row_t& row = image->sats[sat];
            if ((row.svFlags2 & 1) != 0) ++slipCounts;
            if (sat < last->nSv && last->sats[sat].svId != row.svId) ++reordered;
            for (std::size_t index = 0; index < row.nMeas; ++index) {
                const epoch_sig_row_t& signal = row.signals[index];
                slipMarks += (signal.measFlags1 & 0x08) != 0;
                withoutDoppler += (signal.measFlags1 & 0x04) == 0;
                threeByte += (signal.measFlags2 & 0x01) != 0;
                rolledOver += (signal.measFlags2 & 0x02) != 0;
            }
        }
        std::swap(image, last);
    }
    EXPECT_EQ(clockTerms.size(), 8u);
    EXPECT_GE(satelliteCounts.size(), 5u);
    EXPECT_GT(slipMarks, 10u);
    EXPECT_GT(threeByte, 1000u);
    EXPECT_GT(rolledOver, 1000u);
    EXPECT_GT(withoutDoppler, 50u);
    EXPECT_GT(steering, 1u);
    EXPECT_GT(reordered, 100u);
    EXPECT_GT(slipCounts, 1000u);
    EXPECT_GT(maxLength, 1500u);
}

TEST(EpochSequence, ReferenceFormGivesBackEveryEpochByteForByte) {
    EpochSequenceOptions options;
    options.epochs = 1500;
    const auto frames = makeEpochSequence(options);
    EpochLink link;
    std::size_t exact = 0;
    for (const Bytes& frame : frames) {
        link.encoder().epochForceReference = 1;
        const Bytes compact = link.compress(frame);
        ASSERT_EQ(compact.at(2), 38);
        ASSERT_EQ(compact.size(), frame.size() - 1);
        Bytes plain;
        if (link.expand(compact, plain) == 0 && plain == frame) ++exact;
    }
    EXPECT_EQ(exact, frames.size());
}

TEST(EpochSequence, LongFormGivesBackEveryEpochWhicheverOptionSelectsIt) {
    EpochSequenceOptions options;
    options.epochs = 3000;
    options.startTimeMs = 604800000 - 900000; // the week rolls over after 900 epochs
    const auto frames = makeEpochSequence(options);
    const std::array<std::function<void(nvb_encode_t&)>, 2> selectors = {
        [](nvb_encode_t& state) { state.epochKeepDoppler = 1; },
        [](nvb_encode_t& state) { state.epochForceLong = 1; },
    };
    for (const auto& select : selectors) {
        const Outcome outcome = roundTrip(frames, select);
        EXPECT_EQ(outcome.exact, frames.size()) << "first wrong epoch " << firstWrong(outcome);
        EXPECT_EQ(outcome.historiesApart, 0u);
        EXPECT_EQ(outcome.of(37), 0u);
        EXPECT_GT(outcome.of(36), 2900u);
        // The first, at the backward step of the new week (epoch 900), and 600 epochs after
        // each reference.
        EXPECT_EQ(outcome.of(38), 6u);
    }
}

TEST(EpochSequence, DefaultShortFormGivesBackEveryEpochOfALevelZeroWriter) {
    EpochSequenceOptions options;
    options.epochs = 3000;
    options.longFlags = false;
    options.doppler = false;
    options.seed = 7;
    const auto frames = makeEpochSequence(options);
    const Outcome outcome = roundTrip(frames, kDefaults);
    EXPECT_EQ(outcome.exact, frames.size()) << "first wrong epoch " << firstWrong(outcome);
    EXPECT_EQ(outcome.historiesApart, 0u);
    EXPECT_EQ(outcome.of(37), frames.size() - 5);
    EXPECT_EQ(outcome.of(38), 5u);
}

TEST(EpochSequence, FramesAtTheLimitsComeBackInEveryForm) {
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
    const auto mostFrames = makeEpochSequence(most);
    const auto widestFrames = makeEpochSequence(widest);
    std::size_t longest = 0;
    for (const Bytes& frame : mostFrames) longest = std::max(longest, frame.size());
    EXPECT_GT(longest, 3500u);
    EXPECT_EQ(mostFrames.front()[14], 116);

    const auto forceLong = [](nvb_encode_t& state) { state.epochForceLong = 1; };
    for (const auto& configure : {std::function<void(nvb_encode_t&)>(kDefaults), std::function<void(nvb_encode_t&)>(forceLong)}) {
        const Outcome outcome = roundTrip(mostFrames, configure);
        EXPECT_EQ(outcome.exact, mostFrames.size()) << "first wrong epoch " << firstWrong(outcome);
        EXPECT_EQ(outcome.historiesApart, 0u);
    }
    const Outcome outcome = roundTrip(widestFrames, forceLong);
    EXPECT_EQ(outcome.exact, widestFrames.size()) << "first wrong epoch " << firstWrong(outcome);
}

double absoluteRange(const epoch_image_t& image, std::size_t sat, std::size_t index) {
    const epoch_sat_row_t& row = image.sats[sat];
    const auto read = [&](std::size_t which) {
        const epoch_sig_row_t& signal = row.signals[which];
        std::uint16_t position = 0;
        return nvb::readRange(signal.range, position, row.rt_sattype, static_cast<std::uint16_t>(which),
                              (signal.measFlags2 & 1) != 0, (signal.measFlags2 & 2) != 0);
    };
    return index == 0 ? read(0) : read(0) + read(index);
}

// A predicted epoch keeps time, clock, the satellites and flags, phase and doppler exactly;
// it loses snr, elevation, azimuth and the rest of the rows to the prediction, and derives
// the pseudorange from the phase. Epochs on the whole 100 ms stay exact, so both sides hold
// the same history throughout.
TEST(EpochSequence, PredictedFormKeepsPhaseDopplerAndClockAndDerivesTheRange) {
    EpochSequenceOptions options;
    options.epochs = 3000;
    options.intervalMs = 50;
    options.satellites = 20;
    const auto frames = makeEpochSequence(options);
    EpochLink link;
    link.encoder().epochUsePredicted = 1;
    auto incoming = std::make_unique<epoch_image_t>();
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
        ASSERT_EQ(nvb::readU16BigEndian(plain.data() + plain.size() - 3), nvb::byteSum(plain.data(), plain.size() - 3));
        nvbtest::readPlainEpoch(plain, *expanded);
        if (compact[2] != 39) {
            exactOthers += plain == frame;
        } else {
            nvbtest::readPlainEpoch(frame, *incoming);
            const epoch_image_t& n = *incoming;
            const epoch_image_t& x = *expanded;
            const epoch_image_t& b = *before;
            ASSERT_EQ(std::memcmp(x.weekNum, n.weekNum, 2 + 4 + 3 + 1), 0); // week to nSv
            ASSERT_EQ(std::memcmp(x.clkDrift, n.clkDrift, 3), 0);
            ASSERT_EQ(std::memcmp(&x.clockBlock, &n.clockBlock, sizeof x.clockBlock), 0);
            EXPECT_EQ(x.epochFlags, b.epochFlags);
            EXPECT_EQ(x.raimFault, b.raimFault);
            for (std::size_t sat = 0; sat < n.nSv; ++sat) {
                const epoch_sat_row_t& got = x.sats[sat];
                const epoch_sat_row_t& sent = n.sats[sat];
                ASSERT_EQ(std::memcmp(&got.svId, &sent.svId, 5), 0); // svId to nMeas
                ASSERT_EQ(got.svFlags, sent.svFlags);
                ASSERT_EQ(got.elevation, b.sats[sat].elevation);
                ASSERT_EQ(got.azimuth, b.sats[sat].azimuth);
                for (std::size_t index = 0; index < sent.nMeas; ++index) {
                    const epoch_sig_row_t& g = got.signals[index];
                    const epoch_sig_row_t& s = sent.signals[index];
                    ASSERT_EQ(std::memcmp(g.phase, s.phase, 6), 0);
                    ASSERT_EQ(std::memcmp(&g.slipCount, &s.slipCount, 4), 0); // slip and flags
                    if ((s.measFlags1 & 4) != 0) {
                        ASSERT_EQ(std::memcmp(g.doppler, s.doppler, 3), 0);
                    }
                    ASSERT_EQ(std::memcmp(g.snr, b.sats[sat].signals[index].snr, 2), 0);
                    snrLost += std::memcmp(g.snr, s.snr, 2) != 0;
                    worstRange = std::max(worstRange, std::fabs(absoluteRange(x, sat, index) - absoluteRange(n, sat, index)));
                }
            }
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
