#include "support/sequences.h"

#include "common/byte_sum.h"
#include "external/su/epoch_image.h"
#include "pipeline/serialisation.h"
#include "records/measurement_records.h"
#include "support/host.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <iterator>
#include <memory>
#include <random>
#include <stdexcept>

namespace nvbtest {

namespace {

constexpr double kSpeedOfLight = 299792458.0;
constexpr double kRollover = 33554431.0;
constexpr std::uint32_t kWeekMs = 604800000;

std::uint32_t timeAt(const SequenceShape& shape, std::size_t index) {
    std::uint32_t time = 345600000 + static_cast<std::uint32_t>(index) * 1000;
    if (shape.backAt >= 0 && static_cast<long>(index) >= shape.backAt) time -= shape.backStepMs;
    return time;
}

struct SignalModel {
    std::uint8_t band = 0;
    std::uint8_t track = 0;
    double offset = 0.0;    // m, from the first signal's range
    double ambiguity = 0.0; // cycles
    double snr = 450.0;     // 0.1 dB-Hz
    std::uint8_t slipCount = 0;
    std::uint8_t flags1 = 0x03; // bits that stay; doppler, slip mark and bit 7 are added per epoch
    std::uint8_t flags2 = 0;    // tracking code and bits 5, 6
    std::uint8_t flags3 = 0;
    std::size_t dopplerGapUntil = 0;
    // Until then the half cycle is unresolved: bits 0 and 1 without bit 5, which keeps an
    // epoch from the predicted form.
    std::size_t halfCycleUntil = 0;
};

struct SatelliteModel {
    std::uint8_t svId = 1;
    std::uint8_t system = 0;
    std::uint8_t antenna = 0;
    std::uint8_t channel = 0;
    double range = 2.2e7; // m at the start
    double rate = 0.0;    // m/s
    double accel = 0.0;   // m/s^2
    double elevation = 30.0;
    double elevationRate = 0.0;
    double azimuth = 100.0;
    std::uint8_t svFlags = 0;
    std::uint8_t svFlags2 = 0;
    std::uint8_t slips[3] = {};
    std::vector<SignalModel> signals;
};

struct ClockModel {
    std::uint8_t id = 0;
    std::int64_t value = 0;
};

// Bands that the wavelength table knows, per system from 0 to 9; 5, 6 and 8 as 0.
constexpr std::uint8_t kBands[10][6] = {
    {0, 1, 2, 0, 1, 2}, {0, 2, 0, 2, 0, 2}, {0, 1, 9, 0, 1, 9}, {0, 2, 4, 3, 5, 10}, {0, 1, 2, 5, 11, 0},
    {0, 1, 2, 0, 1, 2}, {0, 1, 2, 0, 1, 2}, {6, 7, 8, 2, 4, 6}, {0, 1, 2, 0, 1, 2},  {2, 11, 2, 11, 2, 11}};

void putSigned(std::uint8_t* field, std::size_t width, std::int64_t value) {
    for (std::size_t i = width; i-- > 0; value >>= 8) field[i] = static_cast<std::uint8_t>(value);
}

class EpochGenerator {
public:
    explicit EpochGenerator(const EpochSequenceOptions& options) : options_(options), random_(options.seed) {
        if (options_.maxSignals < 1 || options_.maxSignals > 6) throw std::invalid_argument("1 to 6 signals");
        pool_.reserve(options_.satellites * 2 + 8);
        const std::size_t poolSize = std::min<std::size_t>(options_.satellites * 2 + 8, 200);
        for (std::size_t i = 0; i < poolSize; ++i) pool_.push_back(makeSatellite(i));
        for (std::size_t i = 0; i < std::min(options_.satellites, pool_.size()); ++i) visible_.push_back(i);
        std::shuffle(visible_.begin(), visible_.end(), random_);
        for (int term = 0; term < 4; ++term) clock_.push_back(makeClockTerm());
    }

    std::vector<Bytes> run() {
        std::vector<Bytes> frames;
        frames.reserve(options_.epochs);
        auto image = std::make_unique<epoch_image_t>();
        for (std::size_t epoch = 0; epoch < options_.epochs; ++epoch) {
            step(epoch);
            build(epoch, *image);
            frames.push_back(writePlainEpoch(*image));
        }
        return frames;
    }

private:
    double uniform(double low, double high) { return std::uniform_real_distribution<double>(low, high)(random_); }
    int integer(int low, int high) { return std::uniform_int_distribution<int>(low, high)(random_); }
    bool chance(double probability) { return uniform(0.0, 1.0) < probability; }
    // Per-epoch event probability scaled so that a sequence sees a similar number of events
    // whatever its length.
    bool event(double perThousand) { return options_.events && chance(perThousand / 1000.0); }

    SatelliteModel makeSatellite(std::size_t index) {
        static const std::vector<std::uint8_t> sky = {0, 0, 0, 2, 2, 3, 3, 7, 7, 1, 4, 9};
        const std::vector<std::uint8_t>& systems = options_.systems.empty() ? sky : options_.systems;
        SatelliteModel sat;
        sat.system = systems[index % systems.size()];
        sat.svId = static_cast<std::uint8_t>(sat.system == 1 ? 120 + index % 39 : 1 + index % 37);
        sat.antenna = options_.riseAndSet && index % 17 == 5 ? 1 : 0;
        sat.channel = sat.system == 2 ? static_cast<std::uint8_t>(static_cast<std::int8_t>(integer(-7, 6)))
                                      : static_cast<std::uint8_t>(1 + index % 120);
        const bool geostationary = sat.system == 1 || (sat.system == 7 && (index / 12) % 2 == 0);
        sat.range = geostationary ? uniform(3.58e7, 3.9e7) : uniform(2.0e7, 2.6e7);
        // Without long flags no range may pass the rollover; system 1 and 4 never need it.
        if (!options_.longFlags && sat.system != 1 && sat.system != 4) sat.range = std::min(sat.range, 3.3e7);
        sat.rate = geostationary ? uniform(-2.0, 2.0) : index % 7 == 3 ? uniform(-15.0, 15.0) : uniform(-800.0, 800.0);
        sat.accel = geostationary ? 0.0 : uniform(-0.15, 0.15);
        sat.elevation = uniform(5.0, 85.0);
        sat.elevationRate = uniform(-0.01, 0.01);
        sat.azimuth = uniform(0.0, 359.0);
        sat.svFlags = static_cast<std::uint8_t>(integer(0, 0x3F) & 0x3E);
        if (options_.longFlags && index % 3 != 0) {
            sat.svFlags |= 0x80;
            sat.svFlags2 = static_cast<std::uint8_t>((integer(0, 0x7F) & 0x7E) | (index % 2));
            sat.slips[0] = static_cast<std::uint8_t>(integer(0, 255));
            sat.slips[1] = static_cast<std::uint8_t>(integer(0, 255));
        }
        const std::uint8_t* bands = kBands[sat.system];
        const std::size_t count = options_.riseAndSet ? 1 + index % options_.maxSignals : options_.maxSignals;
        for (std::size_t s = 0; s < count; ++s) {
            SignalModel signal;
            signal.band = bands[s];
            signal.track = static_cast<std::uint8_t>(integer(0, 30));
            // Inter-signal offsets within 100 m take two bytes; the long form also has
            // satellites whose later signals need three.
            signal.offset = s == 0 ? 0.0 : (options_.longFlags && index % 5 == 1) ? uniform(150.0, 20000.0) * (s % 2 ? 1 : -1)
                                                                                  : uniform(-40.0, 40.0);
            signal.ambiguity = std::floor(uniform(-1e6, 1e6));
            signal.snr = uniform(320.0, 500.0);
            signal.slipCount = static_cast<std::uint8_t>(integer(0, 255));
            signal.flags1 = static_cast<std::uint8_t>(0x23 | (integer(0, 1) ? 0x40 : 0));
            if (options_.longFlags && index % 4 != 0) {
                signal.flags2 = static_cast<std::uint8_t>(integer(0, 5) << 2 | (integer(0, 3) << 5));
                if (index % 4 == 1) signal.flags3 = static_cast<std::uint8_t>(integer(1, 0x7F));
            }
            sat.signals.push_back(signal);
        }
        return sat;
    }

    ClockModel makeClockTerm() {
        static const std::uint8_t systems[] = {0, 2, 3, 7, 9, 10, 4, 1};
        ClockModel term;
        term.id = static_cast<std::uint8_t>(systems[integer(0, 7)] | (chance(0.2) ? 0x80 : 0));
        // Values from one to seven bytes wide, some next to a width boundary.
        const int magnitude = integer(0, 7);
        static const std::int64_t starts[] = {5, -120, 32700, -8388000, 2147483000LL, -549755813000LL,
                                              140737488355000LL, 36028797018963000LL};
        term.value = starts[magnitude];
        return term;
    }

    void step(std::size_t epoch) {
        if (epoch == 0) return;
        const double dt = options_.intervalMs / 1000.0;
        time_ += dt;
        clockMs_ += clockRate_ * dt;
        // The receiver steers its clock back by a whole millisecond.
        if (std::fabs(clockMs_) > 0.9 || event(1.5)) clockMs_ -= clockMs_ > 0 ? 1.0 : -1.0;
        driftUnits_ += integer(-3, 3);
        if (event(2.0)) raim_ = !raim_;

        // Receivers update the system offsets far less often than they log at a high rate.
        const bool newOffsets = event(30.0);
        for (ClockModel& term : clock_) {
            if (!newOffsets) continue;
            term.value += integer(-60, 60);
            term.value = std::clamp<std::int64_t>(term.value, -(std::int64_t{1} << 55), (std::int64_t{1} << 55) - 1);
        }
        // The clock block takes each count from 0 to 7 in turn, in a shuffled order.
        if (options_.clockBlock && event(5.0)) {
            if (clockCounts_.empty()) {
                clockCounts_ = {0, 1, 2, 3, 4, 5, 6, 7};
                std::shuffle(clockCounts_.begin(), clockCounts_.end(), random_);
            }
            const std::size_t count = clockCounts_.back();
            clockCounts_.pop_back();
            while (clock_.size() < count) clock_.push_back(makeClockTerm());
            clock_.resize(count);
        }

        if (options_.riseAndSet) riseAndSet(epoch);
        stepSignals(epoch);
    }

    // Satellites set and rise around a number in view that drifts by a few; a rising one
    // joins anywhere in the list, and neighbours swap places now and then.
    void riseAndSet(std::size_t epoch) {
        const double phase = 6.2831853 * static_cast<double>(epoch) / static_cast<double>(options_.epochs);
        const auto target = static_cast<std::size_t>(std::max(
            1.0, std::min(static_cast<double>(options_.satellites), options_.satellites * (0.85 + 0.15 * std::sin(phase)))));
        if (options_.events && visible_.size() > 1 && (visible_.size() > target ? event(60.0) : event(10.0))) {
            visible_.erase(visible_.begin() + integer(0, static_cast<int>(visible_.size()) - 1));
        }
        if (visible_.size() < options_.satellites && (visible_.size() < target ? event(60.0) : event(5.0))) {
            std::vector<std::size_t> hidden;
            for (std::size_t i = 0; i < pool_.size(); ++i) {
                if (std::find(visible_.begin(), visible_.end(), i) == visible_.end()) hidden.push_back(i);
            }
            if (!hidden.empty()) {
                const std::size_t chosen = hidden[static_cast<std::size_t>(integer(0, static_cast<int>(hidden.size()) - 1))];
                for (SignalModel& signal : pool_[chosen].signals) signal.halfCycleUntil = epoch + static_cast<std::size_t>(integer(1, 8));
                visible_.insert(visible_.begin() + integer(0, static_cast<int>(visible_.size())), chosen);
            }
        }
        if (event(10.0) && visible_.size() > 1) {
            const auto at = static_cast<std::size_t>(integer(0, static_cast<int>(visible_.size()) - 2));
            std::swap(visible_[at], visible_[at + 1]);
        }
    }

    void stepSignals(std::size_t epoch) {
        for (std::size_t index : visible_) {
            SatelliteModel& sat = pool_[index];
            for (SignalModel& signal : sat.signals) {
                signal.snr = std::clamp(signal.snr + uniform(-1.5, 1.5) + (event(5.0) ? uniform(-60.0, 60.0) : 0.0), 150.0, 550.0);
                if (event(0.5)) {
                    ++signal.slipCount;
                    signal.ambiguity += integer(-500, 500);
                    slipMarks_.push_back(&signal);
                    signal.halfCycleUntil = epoch + static_cast<std::size_t>(integer(1, 8));
                    if ((sat.svFlags2 & 1) != 0) ++sat.slips[0];
                }
                if (options_.doppler && event(1.0)) signal.dopplerGapUntil = epoch + static_cast<std::size_t>(integer(1, 6));
            }
        }
    }

    void build(std::size_t epoch, epoch_image_t& image) {
        std::memset(&image, 0, sizeof image);
        image.stx = 0x02;
        image.recordType = 27;
        std::uint64_t ms = options_.startTimeMs + static_cast<std::uint64_t>(epoch) * options_.intervalMs;
        const std::uint16_t week = static_cast<std::uint16_t>(2210 + ms / kWeekMs);
        ms %= kWeekMs;
        image.weekNum[0] = static_cast<std::uint8_t>(week >> 8);
        image.weekNum[1] = static_cast<std::uint8_t>(week);
        nvb::writeBigEndian32(image.receiveTime, static_cast<std::uint32_t>(ms));
        putSigned(image.clkOffset, 3, wireUnits(clockMs_, 19));
        image.epochFlags = static_cast<std::uint8_t>(kDriftBit | (raim_ ? 0x10 : 0) |
                                                     (options_.clockBlock ? 0x20 : 0) | 0x40);
        putSigned(image.clkDrift, 3, driftUnits_);
        image.raimFault = static_cast<std::uint8_t>(epoch / 97);
        if (options_.clockBlock) {
            image.clockBlock.blockFlags = static_cast<std::uint8_t>(clock_.size() << 4 | 0x07);
            for (std::size_t term = 0; term < clock_.size(); ++term) {
                image.clockBlock.clockTypes[term] = clock_[term].id;
                putSigned(image.clockBlock.clockValues[term], 7, clock_[term].value);
            }
        }

        image.nSv = static_cast<std::uint8_t>(visible_.size());
        const double t = time_;
        const double clockMetres = kSpeedOfLight * clockMs_ * 1e-3;
        for (std::size_t row = 0; row < visible_.size(); ++row) {
            const SatelliteModel& sat = pool_[visible_[row]];
            epoch_sat_row_t& out = image.sats[row];
            out.svId = sat.svId;
            out.rt_sattype = sat.system;
            out.antennaNumber = sat.antenna;
            out.channel = sat.channel;
            out.nMeas = static_cast<std::uint8_t>(sat.signals.size());
            out.elevation = static_cast<std::uint8_t>(static_cast<int>(std::clamp(sat.elevation + sat.elevationRate * t, -5.0, 90.0)));
            out.azimuth = static_cast<std::uint8_t>(static_cast<int>(std::fmod(sat.azimuth + 0.003 * t, 360.0)) / 2);
            out.svFlags = sat.svFlags;
            out.svFlags2 = sat.svFlags2;
            std::memcpy(out.svSlipCounts, sat.slips, 3);

            const double geometric = sat.range + sat.rate * t + 0.5 * sat.accel * t * t;
            const double rate = sat.rate + sat.accel * t;
            const double firstRange = geometric + clockMetres + uniform(-0.6, 0.6);
            double firstStored = 0.0;
            for (std::size_t index = 0; index < sat.signals.size(); ++index) {
                const SignalModel& model = sat.signals[index];
                epoch_sig_row_t& signal = out.signals[index];
                signal.blockType = model.band;
                signal.trackType = model.track;
                const auto snr = static_cast<std::uint16_t>(model.snr);
                signal.snr[0] = static_cast<std::uint8_t>(snr >> 8);
                signal.snr[1] = static_cast<std::uint8_t>(snr);
                signal.slipCount = model.slipCount;
                signal.measFlags1 = epoch < model.halfCycleUntil ? static_cast<std::uint8_t>(model.flags1 & ~0x20) : model.flags1;
                signal.measFlags2 = model.flags2;
                signal.measFlags3 = model.flags3;
                const double wavelength = nvb::bandWavelength(sat.system, model.band, static_cast<std::int8_t>(sat.channel));
                const double range = firstRange + model.offset + (index == 0 ? 0.0 : uniform(-0.3, 0.3));
                if (index == 0) {
                    double stored = range;
                    if (sat.system != 1 && sat.system != 4 && stored > kRollover) {
                        stored -= kRollover;
                        signal.measFlags2 |= 0x02;
                    }
                    const int power = sat.system == 1 || sat.system == 4 ? 6 : 7;
                    nvb::writeBigEndian32(signal.range, static_cast<std::uint32_t>(wireUnits(stored, power)));
                    firstStored = range;
                } else {
                    const double difference = range - firstStored;
                    if (std::fabs(difference) > 100.0) {
                        signal.measFlags2 |= 0x01;
                        putSigned(signal.range, 3, wireUnits(difference, 8));
                    } else {
                        putSigned(signal.range, 2, wireUnits(difference, 8));
                    }
                }
                const double phase = -(geometric + clockMetres + model.offset) / wavelength + model.ambiguity;
                putSigned(signal.phase, 6, wireUnits(phase, 15));
                if (options_.doppler && epoch >= model.dopplerGapUntil) {
                    signal.measFlags1 |= 0x04;
                    putSigned(signal.doppler, 3, wireUnits(-rate / wavelength, 8));
                }
                if (std::find(slipMarks_.begin(), slipMarks_.end(), &model) != slipMarks_.end()) signal.measFlags1 |= 0x08;
                if (signal.measFlags3 != 0) signal.measFlags2 |= 0x80;
                if (signal.measFlags2 != 0) signal.measFlags1 |= 0x80;
            }
        }
        slipMarks_.clear();
        settleEpochLengths(image);
    }

    static constexpr std::uint8_t kDriftBit = 0x02;

    EpochSequenceOptions options_;
    std::mt19937 random_;
    std::vector<SatelliteModel> pool_;
    std::vector<std::size_t> visible_;
    std::vector<ClockModel> clock_;
    std::vector<std::size_t> clockCounts_;
    std::vector<const SignalModel*> slipMarks_;
    double time_ = 0.0;
    double clockMs_ = 0.31;
    double clockRate_ = 0.0005;
    std::int64_t driftUnits_ = 1800;
    bool raim_ = false;
};

}  // namespace

std::vector<Rec29Wire> solutionSequence(const SequenceShape& shape) {
    std::mt19937 rng(shape.seed);
    std::normal_distribution<double> noise(0.0, 1.0);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Rec29Wire> records;
    double latitude = 45.2 * 1099511627776.0;
    double longitude = 7.7 * 549755813888.0;
    double height = 312.5 * 4096.0;
    double clockOffset = 0.12 * 67108864.0;
    std::vector<Rec29Wire::Sv> svs;
    for (std::uint8_t id : {2, 5, 7, 9, 12, 15, 18, 21, 24, 27, 30}) svs.push_back({id, 0, 2});
    for (std::uint8_t id : {3, 8, 14, 19}) svs.push_back({id, 2, 2});
    double clockTerm[3] = {1.2e5, -4.0e7, 6.5e3};
    for (std::size_t i = 0; i < shape.count; ++i) {
        const double north = 12.0 + 2.0 * std::sin(i / 29.0);
        const double east = -4.0 + 1.5 * std::cos(i / 17.0);
        latitude += north * 172.8e3 + noise(rng) * 900.0;
        longitude += east * 121.4e3 + noise(rng) * 900.0;
        height += 0.1 * std::sin(i / 13.0) * 4096.0 + noise(rng) * 90.0;
        clockOffset += 2.0e-5 * 67108864.0 + noise(rng) * 30.0;
        for (double& term : clockTerm) term += noise(rng) * 40.0 + 3.0;
        if (unit(rng) < 0.05 && svs.size() < 24) {
            svs.push_back({static_cast<std::uint8_t>(1 + rng() % 36), static_cast<std::uint8_t>(rng() % 4 == 0 ? 2 : 0),
                           2});
        } else if (unit(rng) < 0.05 && svs.size() > 6) {
            svs.erase(svs.begin() + static_cast<long>(rng() % svs.size()));
        }
        if (unit(rng) < 0.1) svs[rng() % svs.size()].flags ^= 2;

        // Segments of 60 records step through the optional blocks.
        const std::size_t segment = (i / 60) % 6;
        Rec29Wire record;
        record.week = 2290;
        record.time = timeAt(shape, i);
        record.numSVsUsed = static_cast<std::uint8_t>(svs.size() - svs.size() / 5);
        record.raimInfo = static_cast<std::uint8_t>(segment == 2 ? 1 : 0);
        static constexpr std::uint8_t kFixTypes[] = {0, 4, 3, 2, 5, 7};
        record.fixType = kFixTypes[segment];
        record.fixMode = 1;
        record.fixInfo = static_cast<std::uint8_t>(segment);
        record.posFlags = static_cast<std::uint8_t>((segment % 2 == 1 ? 0x02 : 0) | (segment >= 2 ? 0x10 : 0) |
                                                    (segment == 3 || segment == 4 ? 0x04 : 0));
        record.block4Length = segment == 5 ? 9 : 10;
        record.latitude = std::llround(latitude);
        record.longitude = std::llround(longitude);
        record.height = static_cast<std::int32_t>(std::llround(height));
        record.velocity[0] = static_cast<std::int32_t>(std::llround(north * 2097152.0 + noise(rng) * 2000.0));
        record.velocity[1] = static_cast<std::int32_t>(std::llround(east * 2097152.0 + noise(rng) * 2000.0));
        record.velocity[2] = static_cast<std::int32_t>(std::llround(noise(rng) * 8000.0));
        record.clockOffset = static_cast<std::int32_t>(std::llround(clockOffset));
        record.clockDrift = static_cast<std::int32_t>(std::llround(2.6 * 131072.0 + noise(rng) * 300.0));
        record.dops[0] = static_cast<std::uint16_t>(14 + (i / 40) % 3);
        record.dops[1] = static_cast<std::uint16_t>(22 + (i / 50) % 2);
        record.dops[2] = 12;
        for (std::uint16_t& sigma : record.sigmas) sigma = static_cast<std::uint16_t>(1200 + rng() % 400);
        record.rms = static_cast<std::uint16_t>(3000 + rng() % 3000);
        record.unitSd = static_cast<std::uint16_t>(2048 + rng() % 512);
        record.corrInfo = 7;
        record.corrAge = static_cast<std::uint16_t>(64 * (i % 10));
        record.aux[0] = static_cast<std::int32_t>(65536 * std::sin(i / 19.0));
        record.aux[1] = static_cast<std::int32_t>(65536 * 3.5 + i * 17);
        record.auxStatus = static_cast<std::uint8_t>((i / 90) % 2);
        record.referenceSystem = 0;
        record.clock.clear();
        const std::size_t terms = 1 + (i / 70) % 3;
        for (std::size_t k = 0; k < terms; ++k) {
            record.clock.push_back({static_cast<std::uint8_t>(k + 2), std::llround(clockTerm[k])});
        }
        record.svs = svs;
        records.push_back(record);
    }
    return records;
}

// The solutions' fixes as the older record carries them: degrees at 2^40 and 2^39 become
// semicircles at 2^31 and 2^30, a clock in ms at 2^26 metres at 2^9.
std::vector<Rec11Wire> positionSequence(const SequenceShape& shape) {
    std::vector<Rec11Wire> records;
    for (const Rec29Wire& fix : solutionSequence(shape)) {
        Rec11Wire record;
        record.latitude = static_cast<std::int32_t>(std::llround(std::ldexp(fix.latitude / 180.0, -9)));
        record.longitude = static_cast<std::int32_t>(std::llround(std::ldexp(fix.longitude / 180.0, -9)));
        record.height = fix.height;
        record.clockOffset = static_cast<std::int32_t>(std::llround(std::ldexp(fix.clockOffset * 299792.458, -17)));
        record.clockDrift = fix.clockDrift;
        record.pdop = static_cast<std::uint16_t>(14 + fix.svs.size() % 5);
        for (std::size_t k = 0; k < 3; ++k) record.velocity[k] = fix.velocity[k] * (k == 2 ? 1 : 16);
        record.time = fix.time;
        record.fixStatus = static_cast<std::uint8_t>(1 + fix.fixType % 4);
        for (const Rec29Wire::Sv& sv : fix.svs) {
            record.channels.push_back(static_cast<std::uint8_t>(record.svIds.size()));
            record.svIds.push_back(sv.id);
        }
        // A stretch of the older form without the residual bytes.
        if ((records.size() % 300) < 250) {
            record.residuals = {static_cast<std::uint8_t>(fix.latitude & 0x7F),
                                static_cast<std::uint8_t>(fix.longitude & 0x7F)};
        }
        records.push_back(record);
    }
    return records;
}

std::vector<Rec17Wire> measurementSequence(const SequenceShape& shape, double dualShare, std::size_t maxSats) {
    // The sky of the epoch sequences, as the older record carries it: the first signal of
    // each satellite, and the second on a `dualShare` of those that have one; a slip marks
    // the satellite, an unresolved half cycle sets its flag.
    EpochSequenceOptions options{.seed = shape.seed, .epochs = shape.count, .maxSignals = 2};
    options.doppler = options.longFlags = options.clockBlock = false;
    const auto frames = makeEpochSequence(options);
    auto image = std::make_unique<epoch_image_t>();
    std::vector<Rec17Wire> records;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        readPlainEpoch(frames[i], *image);
        Rec17Wire record;
        record.time = timeAt(shape, i);
        record.clockOffset = static_cast<std::int32_t>(signedField(image->clkOffset, 3));
        for (std::size_t row = 0; row < image->nSv; ++row) {
            const epoch_sat_row_t& sv = image->sats[row];
            const epoch_sig_row_t* signal = sv.signals;
            const bool dual = sv.nMeas > 1 && (sv.svId % 10) < dualShare * 10;
            Rec17Sat sat;
            sat.svId = sv.svId;
            sat.svFlags =
                static_cast<std::uint8_t>(0xD8 | (dual ? 0x21 : 0) | ((signal[0].measFlags1 & 0x20) ? 0 : 0x02));
            sat.svFlags2 = static_cast<std::uint8_t>((dual ? 4 : 0) | ((signal[0].measFlags1 & 0x08) ? 1 : 0));
            sat.elevation = sv.elevation;
            sat.azimuth = sv.azimuth;
            sat.snr = static_cast<std::uint8_t>((signal[0].snr[0] << 8 | signal[0].snr[1]) * 4 / 10);
            sat.range = nvb::readBigEndian32(signal[0].range);
            sat.phase = signedField(signal[0].phase, 6);
            if (dual) {
                sat.snr2 = static_cast<std::uint8_t>((signal[1].snr[0] << 8 | signal[1].snr[1]) * 4 / 10);
                sat.phase2 = signedField(signal[1].phase, 6);
                sat.rangeDiff2 = static_cast<std::int16_t>(signedField(signal[1].range, 2));
            }
            record.sats.push_back(sat);
        }
        std::sort(record.sats.begin(), record.sats.end(),
                  [](const Rec17Sat& a, const Rec17Sat& b) { return a.svId < b.svId; });
        record.sats.erase(std::unique(record.sats.begin(), record.sats.end(),
                                      [](const Rec17Sat& a, const Rec17Sat& b) { return a.svId == b.svId; }),
                          record.sats.end());
        if (record.sats.size() > maxSats) record.sats.resize(maxSats);
        records.push_back(record);
    }
    return records;
}

std::int64_t signedField(const std::uint8_t* field, std::size_t width) {
    std::int64_t value = (field[0] & 0x80) != 0 ? -1 : 0;
    for (std::size_t i = 0; i < width; ++i)
        value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) << 8 | field[i]);
    return value;
}

void addToField(std::uint8_t* field, std::size_t width, std::int64_t amount) {
    putSigned(field, width, signedField(field, width) + amount);
}

void settleEpochLengths(epoch_image_t& image) {
    image.epochHeaderLen = static_cast<std::uint8_t>(12 + ((image.epochFlags & 0x02) ? 3 : 0) + ((image.epochFlags & 0x10) ? 1 : 0));
    epoch_clock_block_t& block = image.clockBlock;
    std::size_t blockLength = 2;
    for (std::size_t term = 0; term < ((block.blockFlags >> 4) & 7u); ++term) {
        const std::size_t width = signedWidth(signedField(block.clockValues[term], 7));
        block.clockTypes[term] = static_cast<std::uint8_t>((block.clockTypes[term] & 0x8F) | width << 4);
        blockLength += 1 + width;
    }
    block.blockLength = static_cast<std::uint8_t>(blockLength);
    for (std::size_t sat = 0; sat < std::min<std::size_t>(image.nSv, 116); ++sat) {
        epoch_sat_row_t& row = image.sats[sat];
        const bool second = (row.svFlags & 0x80) != 0;
        row.svBlockLen = static_cast<std::uint8_t>(8 + (second ? 1 : 0) + (second && (row.svFlags2 & 1) ? 3 : 0));
        for (std::size_t index = 0; index < std::min<std::size_t>(row.nMeas, 6); ++index) {
            epoch_sig_row_t& signal = row.signals[index];
            const bool flags2 = (signal.measFlags1 & 0x80) != 0;
            signal.measBlockLen = static_cast<std::uint8_t>(
                (index == 0 ? 17 : 15) + (flags2 ? 1 : 0) + (flags2 && (signal.measFlags2 & 0x80) ? 1 : 0) +
                ((signal.measFlags1 & 0x04) ? 3 : 0) + (flags2 && (signal.measFlags2 & 0x01) ? 1 : 0));
        }
    }
}

Bytes writePlainEpoch(epoch_image_t& image, std::size_t limit) {
    // The library's sum of the block lengths, which the written record must match.
    const std::size_t length = nvb::epochRecordLength(image);
    if (length > limit) throw std::length_error("epoch longer than its limit");
    image.lengthLow = static_cast<std::uint8_t>(length);
    image.lengthHigh = static_cast<std::uint8_t>(length >> 8);
    image.etx = 0x03;
    Bytes frame(65535);
    const std::uint16_t written = nvb::writeEpochImage(frame.data(), frame.size(), image);
    if (written != length) throw std::logic_error("block lengths do not add up to the record");
    frame.resize(written);
    nvb::writeU16BigEndian(image.checksum, nvb::byteSum(frame.data(), written - 3u));
    std::memcpy(frame.data() + written - 3, image.checksum, 2);
    return frame;
}

void readPlainEpoch(const Bytes& frame, epoch_image_t& image) {
    // Whole, so that images compare with memcmp: the parser leaves rows past the count.
    std::memset(&image, 0, sizeof image);
    const nvb::EpochParse parse = nvb::parseEpochImage(image, frame.data(), frame.size());
    if (parse.status != 0 || parse.length != frame.size()) throw std::runtime_error("not an epoch record");
}

Bytes editedEpoch(const Bytes& frame, const std::function<void(epoch_image_t&)>& edit) {
    auto image = std::make_unique<epoch_image_t>();
    readPlainEpoch(frame, *image);
    edit(*image);
    settleEpochLengths(*image);
    return writePlainEpoch(*image);
}

std::vector<Bytes> makeEpochSequence(const EpochSequenceOptions& options) { return EpochGenerator(options).run(); }

std::vector<Bytes> mixedDatLog(const LogShape& shape) {
    const auto count = static_cast<std::size_t>(shape.epochs);
    EpochSequenceOptions sky{.seed = shape.seed, .epochs = count, .intervalMs = shape.intervalMs,
                             .startTimeMs = shape.firstTimeMs};
    sky.satellites = static_cast<std::size_t>(shape.satellites) * shape.systems.size();
    sky.maxSignals = static_cast<std::size_t>(shape.signals);
    sky.doppler = sky.longFlags = sky.clockBlock = sky.events = sky.riseAndSet = false;
    sky.systems = shape.systems;
    const std::vector<Bytes> epochs = makeEpochSequence(sky);
    // Fixes through every optional block: corrections, auxiliary values and status, clock.
    const std::vector<Rec29Wire> fixes = solutionSequence({.count = count, .seed = shape.seed});
    const std::vector<Rec11Wire> olderFixes = positionSequence({.count = count / 10 + 1, .seed = shape.seed});
    // Eight satellites keep a record 17 short of the long type.
    const std::vector<Rec17Wire> olderEpochs =
        measurementSequence({.count = count / 10 + 1, .seed = shape.seed}, 0.7, 8);
    // Each record as the library's reader delivers it; epochs with wire doppler only, no
    // system maps, every satellite kept.
    constexpr nvb::Rec27ReadOptions kWholeEpoch{1, false, false, true};
    Handle reader;
    const auto read = [&reader](auto wire, std::uint32_t time) {
        wire.time = time;
        const ReadEvent event = processFrame(reader.get(), build(wire));
        if (!event.delivered()) throw std::logic_error("a record the reader does not deliver");
        return event.dat;
    };
    std::vector<Bytes> log;
    for (std::size_t k = 0; k < count; ++k) {
        const nvb::ByteView record = nvb::ByteView(epochs[k]).subspan(4);
        if (nvb::readRec27(record, *reader.get(), reader->previousEpochs, kWholeEpoch) == 0)
            throw std::logic_error("an epoch the reader does not read");
        Rec27& epoch = *reader->records.rec27;
        log.push_back(datOf(epoch));
        const std::uint32_t time = shape.firstTimeMs + static_cast<std::uint32_t>(k) * shape.intervalMs;
        if (shape.positions) log.push_back(read(fixes[k], time));
        if (shape.olderRecords && k % 10 == 0) {
            log.push_back(read(olderFixes[k / 10], time));
            log.push_back(read(olderEpochs[k / 10], time));
        }
        if (shape.opaqueRecords && k % 7 == 3) {
            Bytes body(20 + k % 60);
            for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * k);
            log.push_back(shortDat(k % 2 == 0 ? 14 : 23, 0, body));
        }
    }
    return log;
}

}  // namespace nvbtest
