#include "support/epoch_sequence.h"

#include "common/byte_sum.h"
#include "external/su/epoch_compressor.h"
#include "external/su/epoch_image.h"
#include "external/su/predicted_epoch.h"

#include <nvbdll/nvbdll.h>

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

struct ClockTerm {
    std::uint8_t id = 0;
    std::int64_t value = 0;
};

// Bands that the wavelength table knows, per system.
const std::vector<std::uint8_t>& bandsOf(std::uint8_t system) {
    static const std::vector<std::uint8_t> gps = {0, 1, 2, 0, 1, 2};
    static const std::vector<std::uint8_t> sbas = {0, 2, 0, 2, 0, 2};
    static const std::vector<std::uint8_t> glonass = {0, 1, 9, 0, 1, 9};
    static const std::vector<std::uint8_t> galileo = {0, 2, 4, 3, 5, 10};
    static const std::vector<std::uint8_t> qzss = {0, 1, 2, 5, 11, 0};
    static const std::vector<std::uint8_t> beidou = {6, 7, 8, 2, 4, 6};
    static const std::vector<std::uint8_t> irnss = {2, 11, 2, 11, 2, 11};
    switch (system) {
    case 1: return sbas;
    case 2: return glonass;
    case 3: return galileo;
    case 4: return qzss;
    case 7: return beidou;
    case 9: return irnss;
    default: return gps;
    }
}

std::size_t minimalWidth(std::int64_t value) {
    for (std::size_t width = 1; width < 7; ++width) {
        const std::int64_t limit = std::int64_t{1} << (8 * width - 1);
        if (value >= -limit && value < limit) return width;
    }
    return 7;
}

void putSigned(std::uint8_t* field, std::size_t width, std::int64_t value) {
    for (std::size_t i = width; i-- > 0; value >>= 8) field[i] = static_cast<std::uint8_t>(value);
}

std::int64_t scaled(double value, int power) { return static_cast<std::int64_t>(std::llround(std::ldexp(value, power))); }

class Generator {
public:
    explicit Generator(const EpochSequenceOptions& options) : options_(options), random_(options.seed) {
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
        static const std::uint8_t systems[] = {0, 0, 0, 2, 2, 3, 3, 7, 7, 1, 4, 9};
        SatelliteModel sat;
        sat.system = systems[index % std::size(systems)];
        sat.svId = static_cast<std::uint8_t>(sat.system == 1 ? 120 + index % 39 : 1 + index % 37);
        sat.antenna = index % 17 == 5 ? 1 : 0;
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
        const auto& bands = bandsOf(sat.system);
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

    ClockTerm makeClockTerm() {
        static const std::uint8_t systems[] = {0, 2, 3, 7, 9, 10, 4, 1};
        ClockTerm term;
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
        for (ClockTerm& term : clock_) {
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
        const std::uint16_t week = static_cast<std::uint16_t>(options_.week + ms / kWeekMs);
        ms %= kWeekMs;
        image.weekNum[0] = static_cast<std::uint8_t>(week >> 8);
        image.weekNum[1] = static_cast<std::uint8_t>(week);
        nvb::writeBigEndian32(image.receiveTime, static_cast<std::uint32_t>(ms));
        putSigned(image.clkOffset, 3, scaled(clockMs_, 19));
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
                    nvb::writeBigEndian32(signal.range, static_cast<std::uint32_t>(scaled(stored, power)));
                    firstStored = range;
                } else {
                    const double difference = range - firstStored;
                    if (std::fabs(difference) > 100.0) {
                        signal.measFlags2 |= 0x01;
                        putSigned(signal.range, 3, scaled(difference, 8));
                    } else {
                        putSigned(signal.range, 2, scaled(difference, 8));
                    }
                }
                const double phase = -(geometric + clockMetres + model.offset) / wavelength + model.ambiguity;
                putSigned(signal.phase, 6, scaled(phase, 15));
                if (options_.doppler && epoch >= model.dopplerGapUntil) {
                    signal.measFlags1 |= 0x04;
                    putSigned(signal.doppler, 3, scaled(-rate / wavelength, 8));
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
    std::vector<ClockTerm> clock_;
    std::vector<std::size_t> clockCounts_;
    std::vector<const SignalModel*> slipMarks_;
    double time_ = 0.0;
    double clockMs_ = 0.31;
    double clockRate_ = 0.0005;
    std::int64_t driftUnits_ = 1800;
    bool raim_ = false;
};

}  // namespace

void settleEpochLengths(epoch_image_t& image) {
    image.epochHeaderLen = static_cast<std::uint8_t>(12 + ((image.epochFlags & 0x02) ? 3 : 0) + ((image.epochFlags & 0x10) ? 1 : 0));
    epoch_clock_block_t& block = image.clockBlock;
    std::size_t blockLength = 2;
    for (std::size_t term = 0; term < ((block.blockFlags >> 4) & 7u); ++term) {
        std::int64_t value = (block.clockValues[term][0] & 0x80) ? -1 : 0;
        for (std::size_t i = 0; i < 7; ++i) value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) << 8 | block.clockValues[term][i]);
        const std::size_t width = minimalWidth(value);
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
    std::size_t length = image.epochHeaderLen + 4u + 3u;
    if (image.epochFlags & 0x20) length += image.clockBlock.blockLength;
    for (std::size_t sat = 0; sat < std::min<std::size_t>(image.nSv, 116); ++sat) {
        length += image.sats[sat].svBlockLen;
        for (std::size_t index = 0; index < std::min<std::size_t>(image.sats[sat].nMeas, 6); ++index) {
            length += image.sats[sat].signals[index].measBlockLen;
        }
    }
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
    const nvb::EpochParse parse = nvb::parseEpochImage(image, frame.data(), frame.size());
    if (parse.status != 0 || parse.length != frame.size()) throw std::runtime_error("not an epoch record");
}

std::vector<Bytes> makeEpochSequence(const EpochSequenceOptions& options) { return Generator(options).run(); }

EpochLink::EpochLink() : encoder_(std::make_unique<nvb_encode_t>()) {
    // As the encode state's initialisation leaves them: the first epoch is a reference.
    encoder_->lastEpochReferenceTime = 0xFFFFFFFF;
    nvbdll_initNVBLib();
    expander_ = nvbdll_GetNVBStateHandle();
    if (expander_ == nullptr) throw std::runtime_error("no expand state");
}

EpochLink::~EpochLink() { nvbdll_FreeNVBStateHandle(expander_); }

Bytes EpochLink::compress(const Bytes& plain) {
    auto in = std::make_unique<nvb_frame_t>();
    auto out = std::make_unique<nvb_frame_t>();
    std::memcpy(in->data, plain.data(), std::min(plain.size(), sizeof in->data));
    in->length = static_cast<std::uint16_t>(plain.size());
    const std::uint16_t length = nvb::compressEpochFrame(*encoder_, *in, *out);
    return Bytes(out->data, out->data + length);
}

std::uint8_t EpochLink::expand(const Bytes& compact, Bytes& plain, bool framed) {
    std::memset(&expander_->frame, 0, sizeof expander_->frame);
    std::memcpy(expander_->frame.data, compact.data(), std::min(compact.size(), sizeof expander_->frame.data));
    expander_->frame.length = static_cast<std::uint16_t>(compact.size());
    std::uint8_t status = 0xEE;
    const std::uint8_t type = compact.size() > 2 ? compact[2] : 0;
    if (type == 36 || type == 37) {
        nvbdll_processType37(expander_, &status, framed ? 1 : 0, type == 36 ? 1 : 0);
    } else if (type == 38) {
        nvbdll_processType38(expander_, &status);
    } else if (type == 39) {
        nvb::processType39(*expander_, status);
    } else {
        throw std::runtime_error("not a compact epoch");
    }
    plain.assign(expander_->plainFrame.data, expander_->plainFrame.data + expander_->plainFrame.length);
    return status;
}

}  // namespace nvbtest
