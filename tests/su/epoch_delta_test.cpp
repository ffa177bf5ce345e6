#include "external/su/delta_epoch.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"

#include "common/byte_sum.h"
#include "support/epoch_sequence.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <set>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::EpochLink;
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
        EpochLink link;
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
    EpochLink link;
    Bytes plain;
    (void)link.compress(first);
    (void)link.compress(advanced(first, 1));
    const Bytes frame = advanced(first, 2, 0x10000);
    const Bytes compact = link.compress(frame);
    EXPECT_EQ((compact[4] >> 5) & 3, 3);
    EXPECT_EQ(Bytes(compact.begin() + 5, compact.begin() + 9), Bytes(frame.begin() + 7, frame.begin() + 11));

    EpochLink reader;
    for (const Bytes& each : {first, advanced(first, 1), frame}) {
        reader.expand(reader.compress(each), plain);
        EXPECT_EQ(plain, each);
    }
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
        EpochLink link;
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
            EpochLink link;
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
    EpochLink link;
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

// A short record against a known history of two satellites of two signals: code byte,
// then per satellite a flag byte and per signal two code bytes, all zero when nothing
// changed from the prediction.
struct HandBuilt : ::testing::Test {
    EpochLink link;
    Bytes base;

    void SetUp() override {
        base = edited(quietSequence(1, false, 2).front(), [](epoch_image_t& image) {
            for (std::size_t sat = 0; sat < 2; ++sat) {
                image.sats[sat].nMeas = 2;
                image.sats[sat].signals[1].blockType = 1;
            }
        });
        Bytes plain;
        ASSERT_EQ(link.expand(link.compress(base), plain), 0);
    }

    static Bytes record(Bytes body, std::uint16_t checksum, std::uint8_t type = 37) {
        Bytes out(4 + body.size());
        out[0] = 2;
        out[2] = type;
        std::copy(body.begin(), body.end(), out.begin() + 4);
        out.push_back(static_cast<std::uint8_t>(checksum >> 8));
        out.push_back(static_cast<std::uint8_t>(checksum));
        out[1] = static_cast<std::uint8_t>(out.size());
        return out;
    }

    static Bytes unchanged() { return {0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}; }

    std::uint16_t rightChecksum() {
        const epoch_history_t saved = link.expander().epochHistory;
        Bytes plain;
        EXPECT_EQ(link.expand(record(unchanged(), 0), plain, false), 0);
        link.expander().epochHistory = saved;
        return readU16BigEndian(plain.data() + plain.size() - 3);
    }
};

TEST_F(HandBuilt, VerifyFlagTestsTheCarriedChecksumOnlyWhenSet) {
    const std::uint16_t checksum = rightChecksum();
    const epoch_history_t saved = link.expander().epochHistory;
    Bytes plain;
    EXPECT_EQ(link.expand(record(unchanged(), checksum ^ 1), plain, true), kStatusEpochChecksum);
    EXPECT_TRUE(plain.empty());
    EXPECT_EQ(std::memcmp(&saved, &link.expander().epochHistory, sizeof saved), 0);

    EXPECT_EQ(link.expand(record(unchanged(), checksum ^ 1), plain, false), 0);
    EXPECT_EQ(readU16BigEndian(plain.data() + plain.size() - 3), checksum ^ 1);
    EXPECT_NE(std::memcmp(&saved, &link.expander().epochHistory, sizeof saved), 0);
}

TEST_F(HandBuilt, CodesOutOfRangeGiveTheirStatusAndLeaveTheHistory) {
    struct Case {
        const char* what;
        std::function<Bytes()> body;
        std::uint8_t status;
    };
    // The unchanged body with `count` bytes from `at` replaced.
    const auto with = [](std::size_t at, std::size_t count, Bytes bytes, Bytes body = unchanged()) {
        return [at, count, bytes, body]() mutable {
            body.erase(body.begin() + static_cast<std::ptrdiff_t>(at), body.begin() + static_cast<std::ptrdiff_t>(at + count));
            body.insert(body.begin() + static_cast<std::ptrdiff_t>(at), bytes.begin(), bytes.end());
            return body;
        };
    };
    const Case cases[] = {
        {"range code 5", with(3, 1, {0x50}), kStatusBadEpochCode},
        {"phase code 7", with(3, 1, {0x07}), kStatusBadEpochCode},
        {"range code 3 on a two-byte field", with(5, 1, {0x30, 1, 2, 3}), kStatusBadDeltaLength},
        {"117 satellites", with(0, 1, {0x04, 117}), kStatusTooManySatellites},
        {"7 signals", with(1, 1, {0x01, 5, 0, 1, 7}), kStatusBadEpochCode},
        {"svFlags2 in a short record", with(1, 1, {0x80, 9, 0x80}), kStatusBadEpochCode},
        {"measFlags2 in a short record", with(2, 2, {0x80, 0x00, 17, 0, 0, 0x80}), kStatusBadEpochCode},
        {"record ends in a signal", [] { return Bytes{0x00, 0x00, 0x00}; }, kStatusBadDeltaLength},
        {"record ends in the header block", [] { return Bytes{0x80, 15}; }, kStatusBadDeltaLength},
    };
    const epoch_history_t saved = link.expander().epochHistory;
    for (const Case& c : cases) {
        Bytes plain = {1};
        EXPECT_EQ(link.expand(record(c.body(), 0), plain), c.status) << c.what;
        EXPECT_TRUE(plain.empty()) << c.what;
        EXPECT_EQ(std::memcmp(&saved, &link.expander().epochHistory, sizeof saved), 0) << c.what;
    }
    // The long form, three code bytes a signal, reads what the short one refuses.
    const Bytes longUnchanged(1 + 2 * (1 + 2 * 3), 0x00);
    Bytes plain;
    EXPECT_EQ(link.expand(record(with(1, 1, {0x80, 9, 0x80, 0x02}, longUnchanged)(), 0, 36), plain, false), 0);
    EXPECT_EQ(plain.size(), base.size() + 1);
}

TEST(EpochDelta, ReaderRefusesEveryDeltaAfterALostRecordUntilTheNextReference) {
    EpochSequenceOptions options;
    options.epochs = 1300;
    const auto frames = nvbtest::makeEpochSequence(options);
    EpochLink link;
    link.encoder().epochKeepDoppler = 1;
    std::size_t refused = 0, exact = 0;
    for (std::size_t epoch = 0; epoch < frames.size(); ++epoch) {
        const Bytes compact = link.compress(frames[epoch]);
        if (epoch == 300) continue; // lost on the way
        Bytes plain;
        const std::uint8_t status = link.expand(compact, plain);
        if (epoch > 300 && epoch < 600) {
            EXPECT_EQ(compact[2], 36);
            EXPECT_NE(status, 0) << epoch;
            EXPECT_TRUE(plain.empty());
            refused += status != 0;
        } else {
            EXPECT_EQ(status, 0) << epoch;
            exact += plain == frames[epoch];
        }
    }
    EXPECT_EQ(refused, 299u);
    EXPECT_EQ(exact, frames.size() - 300);
}

// Every expander on damaged copies of real records, each in a buffer of exactly its size:
// a sanitizer build catches any read past the record or write past the out record, and a
// refusal must leave the history as it was.
TEST(EpochCorrupt, DamagedRecordsStayInsideTheirBuffersAndRefusalsKeepTheHistory) {
    EpochSequenceOptions options;
    options.epochs = 130;
    options.intervalMs = 50;
    options.satellites = 12;
    const auto longFrames = nvbtest::makeEpochSequence(options);
    EpochSequenceOptions levelZero = options;
    levelZero.longFlags = false;
    levelZero.doppler = false;
    const auto shortFrames = nvbtest::makeEpochSequence(levelZero);
    std::mt19937 random(5);
    for (const int mode : {0, 1, 2}) {
        EpochLink link;
        link.encoder().epochForceLong = mode == 0 ? 1 : 0;
        link.encoder().epochUsePredicted = mode == 1 ? 1 : 0;
        const auto& frames = mode == 2 ? shortFrames : longFrames;
        std::set<std::uint8_t> seen;
        for (std::size_t epoch = 0; epoch < frames.size(); ++epoch) {
            const Bytes compact = link.compress(frames[epoch]);
            const std::uint8_t type = compact[2];
            if (epoch % 7 == 3 || !seen.count(type)) {
                seen.insert(type);
                auto history = std::make_unique<epoch_history_t>();
                auto out = std::make_unique<std::uint8_t[]>(5120);
                const auto run = [&](const Bytes& damaged) {
                    std::memcpy(history.get(), &link.expander().epochHistory, sizeof *history);
                    auto exact = std::make_unique<std::uint8_t[]>(damaged.size());
                    std::copy(damaged.begin(), damaged.end(), exact.get());
                    ExpandedEpoch result;
                    rinex_control_t control{};
                    control.verify = 1;
                    std::uint8_t status = 0;
                    if (type == 38) {
                        status = expandReferenceEpoch(exact.get(), damaged.size(), out.get(), 5120, *history, result, control);
                    } else if (type == 39) {
                        status = expandPredictedEpoch(exact.get(), damaged.size(), out.get(), 5120, *history, result, control);
                    } else {
                        status = expandDeltaEpoch(exact.get(), damaged.size(), out.get(), 5120, *history, type == 36, result,
                                                  control);
                    }
                    return std::make_pair(status, result.length);
                };
                const auto unchanged = [&] {
                    return std::memcmp(history.get(), &link.expander().epochHistory, sizeof *history) == 0;
                };
                for (std::size_t cut = 0; cut < compact.size(); ++cut) {
                    Bytes damaged(compact.begin(), compact.begin() + static_cast<std::ptrdiff_t>(cut));
                    if (cut >= 4) storeEpochFrameLength(damaged.data(), static_cast<std::uint16_t>(cut));
                    const auto [status, length] = run(damaged);
                    if (status != 0 && (type != 39 || length == 0)) {
                        EXPECT_TRUE(unchanged()) << int(type) << " cut " << cut;
                        EXPECT_EQ(length, 0);
                    }
                }
                for (int trial = 0; trial < 300; ++trial) {
                    Bytes damaged = compact;
                    if (trial % 2 == 0) {
                        for (std::size_t i = 5; i + 2 < damaged.size(); ++i) damaged[i] = static_cast<std::uint8_t>(random());
                    } else {
                        damaged[5 + random() % (damaged.size() - 5)] ^= static_cast<std::uint8_t>(1u << (random() % 8));
                    }
                    const auto [status, length] = run(damaged);
                    if (status != 0 && type != 39) {
                        EXPECT_TRUE(unchanged()) << int(type) << " trial " << trial;
                        EXPECT_EQ(length, 0);
                    }
                }
            }
            Bytes plain;
            ASSERT_EQ(link.expand(compact, plain), 0);
        }
        EXPECT_EQ(seen.size(), mode == 1 ? 3u : 2u);
    }
}

}  // namespace
}  // namespace nvb
