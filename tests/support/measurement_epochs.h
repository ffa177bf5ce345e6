#ifndef NVB_TESTS_MEASUREMENT_EPOCHS_H
#define NVB_TESTS_MEASUREMENT_EPOCHS_H

// Builders of measurement epochs as a reader leaves them, for the record tests.

#include "records/measurement_records.h"
#include "support/reader.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <random>
#include <vector>

namespace nvbtest {

inline std::unique_ptr<Rec27> newEpoch(double timeMs, float clockMs = 0.0f) {
    auto epoch = std::make_unique<Rec27>();
    epoch->epochHeaderLen = 17;
    epoch->weekNum = 2345;
    epoch->receiveTime = timeMs;
    epoch->clkOffset = clockMs;
    return epoch;
}

inline Rec27Sv& addSatellite(Rec27& epoch, std::uint8_t svId, std::uint8_t system, std::uint8_t svFlags = 0) {
    Rec27Sv& sv = epoch.sv[epoch.nSv++];
    sv = Rec27Sv{};
    sv.svBlockLen = 10;
    sv.svId = svId;
    sv.rt_sattype = system;
    sv.svFlags = svFlags;
    return sv;
}

inline Rec27Meas& addSignal(Rec27Sv& sv, std::uint8_t band, std::uint8_t track, double range, double phase,
                            std::uint8_t flags1 = 0x03) {
    Rec27Meas& meas = sv.meas[sv.nMeas++];
    meas = Rec27Meas{};
    meas.measBlockLen = 27;
    meas.blockType = band;
    meas.trackType = track;
    meas.range = range;
    meas.phase = phase;
    meas.measFlags1 = flags1;
    return meas;
}

// Gives a signal its second flag byte, as a reader counts it.
inline void addFlags2(Rec27Meas& meas, std::uint8_t flags2) {
    meas.measFlags1 |= 0x80;
    meas.measFlags2 = flags2;
    meas.measBlockLen = 28;
}

// Writes epochs in the stream form and reads them back into one expand state, whose
// previous-epoch areas carry the Doppler history from one read to the next.
class EpochReader {
public:
    EpochReader() : frame_(std::make_unique<nvb_frame_t>()) {}

    std::uint16_t read(const Rec27& epoch, const nvb::Rec27ReadOptions& options, std::uint32_t formatLevel = 1,
                       bool keepDoppler = true) {
        written_ = nvb::writeRec27(epoch, *frame_, formatLevel, keepDoppler);
        EXPECT_NE(written_, 0) << "the epoch does not fit a frame";
        return readFrame(options);
    }

    std::uint16_t readFrame(const nvb::Rec27ReadOptions& options) {
        return nvb::readRec27(nvb::frameBytes(*frame_).subspan(4), *handle_.get(), handle_->previousEpochs, options);
    }

    const Rec27& epoch() const { return *handle_->records.rec27; }
    nvb_expand_t* state() const { return handle_.get(); }
    nvb_frame_t& frame() { return *frame_; }
    std::uint16_t written() const { return written_; }

private:
    Handle handle_;
    std::unique_ptr<nvb_frame_t> frame_;
    std::uint16_t written_ = 0;
};

// Wire Doppler only, no system maps, every satellite kept: what was written comes back.
inline constexpr nvb::Rec27ReadOptions kPlainOptions{1, false, false, true};

// How often the generator reached each optional part, so that a change to it cannot
// quietly stop covering one.
struct Coverage {
    int clockTerms[8] = {};
    int drift = 0, raim = 0, svFlags2 = 0, slipBytes = 0, flags3 = 0, doppler = 0;
    int rollover = 0, atRollover = 0, wide = 0, exactly100 = 0, fullEpochs = 0, sixSignals = 0;
};

inline int firstRangeBits(std::uint8_t system) {
    if (system == 1 || system == 4) return 6;
    return system == 8 ? 10 : 7;
}

struct EpochOptions {
    std::vector<std::uint8_t> systems{0, 1, 2, 3, 4, 6, 7, 8, 9, 10};
    bool antennas = true;   // antenna numbers 0 to 3, else all 0
    bool slipBytes = true;  // satellites with svFlags2 bit 0 and the slip counts
};

// Random but realistic epochs in the shape a reader leaves them: lengths, flag bytes and
// rollover bits agree with the values.
class EpochGenerator {
public:
    EpochGenerator(std::uint32_t seed, EpochOptions options) : rng_(seed), options_(std::move(options)) {}
    explicit EpochGenerator(std::uint32_t seed) : EpochGenerator(seed, EpochOptions{}) {}

    std::unique_ptr<Rec27> epoch(int svCount, Coverage& coverage) {
        auto epoch = newEpoch(static_cast<double>(below(604800000)), uniformFloat(-15.0, 15.0));
        Rec27& e = *epoch;
        e.weekNum = static_cast<std::uint16_t>(below(4096));
        e.epochFlags = static_cast<std::uint8_t>(chance(2) ? 0x02 : 0) | (chance(2) ? 0x10 : 0) |
                       (chance(2) ? 0x20 : 0) | (chance(4) ? 0x40 : 0);
        if ((e.epochFlags & 0x02) != 0) {
            e.clkDrift = uniformFloat(-1.9, 1.9);
            e.epochHeaderLen += 4;
            ++coverage.drift;
        }
        if ((e.epochFlags & 0x10) != 0) {
            e.raimFault = static_cast<std::uint8_t>(below(256));
            e.epochHeaderLen += 1;
            ++coverage.raim;
        }
        if ((e.epochFlags & 0x20) != 0) clockBlock(e.clock, coverage);

        // Keep the frame within 5120 bytes: a satellite takes at most 12 bytes, a signal 23.
        int budget = 5120 - 3 - 16 - 58;
        for (int i = 0; i < svCount; ++i) {
            const int later = svCount - i - 1;
            const int room = (budget - 12 - later * 35) / 23;
            const int signals = std::min<int>({static_cast<int>(1 + below(6)), room, NVB_MAX_MEAS});
            budget -= 12 + 23 * signals;
            satellite(e, signals, coverage);
        }
        if (svCount == NVB_MAX_SV) ++coverage.fullEpochs;
        return epoch;
    }

private:
    std::uint32_t below(std::uint32_t n) { return static_cast<std::uint32_t>(rng_() % n); }
    bool chance(std::uint32_t oneIn) { return below(oneIn) == 0; }
    double uniform(double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng_); }
    float uniformFloat(double lo, double hi) { return static_cast<float>(uniform(lo, hi)); }
    double sign() { return chance(2) ? -1.0 : 1.0; }

    void clockBlock(ClockSystemBlock& clock, Coverage& coverage) {
        clock.count = static_cast<std::uint8_t>(below(8));
        clock.blockLength = static_cast<std::uint8_t>(3 + 9 * clock.count);
        clock.referenceSystem = static_cast<std::uint8_t>(below(16));
        for (int i = 0; i < clock.count; ++i) {
            clock.rt_clktype[i] = static_cast<std::uint8_t>(below(16));
            const double magnitudes[] = {0.0, uniform(0, 1e-6), uniform(0, 1e3), uniform(1e8, 1.3e8)};
            clock.systemClockOffset[i] = sign() * magnitudes[below(4)];
        }
        ++coverage.clockTerms[clock.count];
    }

    void satellite(Rec27& e, int signals, Coverage& coverage) {
        const auto systemCount = static_cast<std::uint32_t>(options_.systems.size());
        Rec27Sv& sv = addSatellite(e, static_cast<std::uint8_t>(1 + below(200)), options_.systems[below(systemCount)],
                                   static_cast<std::uint8_t>(below(256)));
        sv.antennaNumber = options_.antennas ? static_cast<std::uint8_t>(below(4)) : 0;
        sv.channel = static_cast<std::uint8_t>(below(256));
        sv.elevation = static_cast<std::int16_t>(static_cast<int>(below(181)) - 90);
        sv.azimuth = static_cast<std::uint16_t>(2 * below(180));
        if ((sv.svFlags & 0x80) != 0) {
            sv.svFlags2 = static_cast<std::uint8_t>(below(128) & (options_.slipBytes ? 0x7F : 0x7E));
            sv.svBlockLen = 11;
            ++coverage.svFlags2;
            if ((sv.svFlags2 & 0x01) != 0) {
                sv.geomSlipCount = static_cast<std::uint8_t>(below(256));
                sv.ionoSlipCount = static_cast<std::uint8_t>(below(256));
                sv.spare = static_cast<std::uint8_t>(below(256));
                sv.svBlockLen = 14;
                ++coverage.slipBytes;
            }
        }
        if (signals == NVB_MAX_MEAS) ++coverage.sixSignals;
        for (int j = 0; j < signals; ++j) signal(sv, j, coverage);
    }

    double firstRange(std::uint8_t system, Coverage& coverage) {
        const int bits = firstRangeBits(system);
        if (bits == 6) return uniform(1e6, 6.7e7);
        if (bits == 10) return uniform(1e5, 4.19e6);
        switch (below(4)) {
            case 0: {
                const double nearRollover[] = {33554431.0, 33554431.0 - 1.0 / 128, 33554431.0 + 1.0 / 128,
                                               33554431.0 + 0.001};
                ++coverage.atRollover;
                return nearRollover[below(4)];
            }
            case 1:
                return uniform(3.36e7, 6.7e7);
            default:
                return uniform(1.9e7, 3.3e7);
        }
    }

    double difference(Coverage& coverage) {
        switch (below(6)) {
            case 0:
                ++coverage.exactly100;
                return sign() * 100.0;
            case 1:
                return sign() * 100.1;
            case 2:
                return sign() * uniform(100.1, 30000.0);
            default:
                return uniform(-99.9, 99.9);
        }
    }

    void signal(Rec27Sv& sv, int index, Coverage& coverage) {
        // First ranges stand on a 2^-10 grid, finer than any field's, so that a difference
        // of exactly 100 m stays exact in the sum.
        const double range = index == 0 ? std::round(firstRange(sv.rt_sattype, coverage) * 1024) / 1024
                                        : sv.meas[0].range + difference(coverage);
        Rec27Meas& meas = addSignal(sv, static_cast<std::uint8_t>(below(11)), static_cast<std::uint8_t>(below(40)),
                                    range, uniform(-1e9, 1e9), static_cast<std::uint8_t>(below(256) & 0x7B));
        meas.snr = static_cast<std::uint16_t>(below(65536));
        meas.slipCount = static_cast<std::uint8_t>(below(256));
        if (chance(2)) {
            meas.measFlags1 |= 0x04;
            meas.doppler = uniformFloat(-30000.0, 30000.0);
            ++coverage.doppler;
        }
        std::uint8_t flags2 = 0;
        bool needsFlags2 = chance(3);
        if (index == 0 && firstRangeBits(sv.rt_sattype) == 7 && range > 33554431.0) {
            flags2 |= 0x02;
            needsFlags2 = true;
            ++coverage.rollover;
        }
        if (index > 0 && std::fabs(range - sv.meas[0].range) > 100.0) {
            flags2 |= 0x01;
            needsFlags2 = true;
            ++coverage.wide;
        }
        if (!needsFlags2) return;
        flags2 |= static_cast<std::uint8_t>(below(256) & 0x7C);
        addFlags2(meas, flags2);
        if (chance(2)) {
            meas.measFlags2 |= 0x80;
            meas.measFlags3 = static_cast<std::uint8_t>(below(128));
            meas.measBlockLen = 29;
            ++coverage.flags3;
        }
    }

    std::mt19937 rng_;
    EpochOptions options_;
};

}  // namespace nvbtest

#endif
