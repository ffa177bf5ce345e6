#include "nvb/simulator.h"

#include "nvb/sim_orbits.h"
#include "nvb/sim_random.h"

#include "external/su/epoch_image.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>
#include <string_view>
#include <vector>

namespace nvbtool {

namespace {

using sim::Constellation;

// The run starts on a Thursday at midnight, so that every usual thinning interval falls
// on whole epochs.
constexpr std::uint16_t kStartWeek = 2345;
constexpr std::int64_t kStartTowMs = 345600000;
constexpr std::int64_t kWeekMs = 604800000;
constexpr std::int64_t kShortestIntervalMs = 50;
constexpr double kLongestDuration = 1.0e9;

// A record 27 must fit one frame; its DAT form is the larger of its two forms.
constexpr std::size_t kFrameCapacity = 5120;
constexpr std::size_t kDatEpochBytes = 4 + 17;
constexpr std::size_t kDatSatelliteBytes = 10;
constexpr std::size_t kDatSignalBytes = 27;

constexpr std::uint8_t kFlagsMeasured = 0x03;
constexpr std::uint8_t kFlagsDoppler = 0x04;
constexpr std::uint8_t kFlagsSlip = 0x08;

struct SignalPlan {
    std::uint8_t band;
    std::uint8_t track;
    double snrOffsetDb;  // against the first signal's strength
};

struct SystemPlan {
    char letter;
    Constellation constellation;
    std::uint8_t satType;
    int signalCount;
    std::array<SignalPlan, 3> signals;
};

// Signals per system, in the order a receiver lists them, with the receiver's tracking
// codes: GPS L1 C/A, L2C (M+L), L5 Q; GLONASS L1 and L2 C/A; Galileo E1 B+C, E5a and E5b
// (I+Q); BeiDou B1I and B3I.
constexpr std::array<SystemPlan, 4> kSystemPlans = {{
    {'G', Constellation::Gps, 0, 3, {{{0, 0, 0.0}, {1, 5, -4.0}, {2, 7, 2.0}}}},
    {'R', Constellation::Glonass, 2, 2, {{{0, 0, -1.0}, {1, 0, -4.5}, {0, 0, 0.0}}}},
    {'E', Constellation::Galileo, 3, 3, {{{0, 20, -0.5}, {2, 8, 2.5}, {3, 11, 2.0}}}},
    {'C', Constellation::BeiDou, kSimulatedBeiDouSatType, 2, {{{6, 26, -0.5}, {7, 29, 1.5}, {0, 0, 0.0}}}},
}};

// The grid of a field on the wire: a value on it is written and read back unchanged. The
// wire has no negative zero, so a value that rounds to zero is a plain one.
double onGrid(double value, int fractionBits) {
    return std::round(std::ldexp(value, fractionBits)) * std::ldexp(1.0, -fractionBits) + 0.0;
}

// A single on the grid: rounding to a single only ever lands on a coarser grid point.
float onGridSingle(double value, int fractionBits) {
    return static_cast<float>(onGrid(value, fractionBits));
}

struct Satellite {
    sim::Orbit orbit;
    const SystemPlan* plan = nullptr;
    std::array<double, 3> wavelength{};
    std::array<double, 3> codeBias{};
    std::array<std::int64_t, 3> ambiguity{};
    std::array<std::uint8_t, 3> slipCount{};
    bool tracked = false;
    bool everTracked = false;
    std::uint8_t receiverChannel = 0;
    sim::Look look;
};

// Dilutions of precision of the fix, from the used satellites' lines of sight.
struct Dilution {
    bool valid = false;
    double east = 0.0;  // variance factors
    double north = 0.0;
    double up = 0.0;
    double time = 0.0;
};

Dilution dilution(const std::vector<sim::Vec3>& localLinesOfSight) {
    Dilution result;
    if (localLinesOfSight.size() < 4) return result;
    double normal[4][8] = {};
    for (const sim::Vec3& los : localLinesOfSight) {
        const double row[4] = {los.x, los.y, los.z, 1.0};
        for (int r = 0; r < 4; ++r) {
            for (int c = 0; c < 4; ++c) normal[r][c] += row[r] * row[c];
        }
    }
    for (int r = 0; r < 4; ++r) normal[r][4 + r] = 1.0;
    for (int col = 0; col < 4; ++col) {
        int pivot = col;
        for (int r = col + 1; r < 4; ++r) {
            if (std::fabs(normal[r][col]) > std::fabs(normal[pivot][col])) pivot = r;
        }
        if (std::fabs(normal[pivot][col]) < 1e-12) return result;
        if (pivot != col) std::swap(normal[pivot], normal[col]);
        const double scale = 1.0 / normal[col][col];
        for (double& value : normal[col]) value *= scale;
        for (int r = 0; r < 4; ++r) {
            if (r == col) continue;
            const double factor = normal[r][col];
            for (int c = 0; c < 8; ++c) normal[r][c] -= factor * normal[col][c];
        }
    }
    result.valid = true;
    result.east = normal[0][4];
    result.north = normal[1][5];
    result.up = normal[2][6];
    result.time = normal[3][7];
    return result;
}

}  // namespace

struct ReceiverSimulator::Model {
    SimulationOptions options;
    sim::Site site;
    sim::Random random;
    std::vector<Satellite> satellites;
    std::vector<Satellite*> inView;
    std::int64_t intervalMs = 1000;
    std::uint64_t epochs = 0;
    std::uint64_t index = 0;

    double clockBias = 0.0;        // seconds
    double clockDrift = 0.0;       // ppm
    double positionError[3] = {};  // east, north, up in metres, slowly wandering
    std::array<bool, 256> channelInUse{};

    EpochTruth truth;

    explicit Model(const SimulationOptions& chosen)
        : options(chosen),
          site(sim::makeSite(kSimulatedSiteLatitudeDeg, kSimulatedSiteLongitudeDeg, kSimulatedSiteHeight)),
          random(0x6E76625F73696D00ull ^ chosen.seed) {}

    void buildSky();
    void advanceClock(double dt);
    void selectInView(double t);
    void updateTracking();
    void acquire(Satellite& satellite, double carrierRange);
    void fillMeasurements(Rec27& rec, std::int64_t towMs, std::uint16_t week, double dt);
    void fillPosition(Rec29& rec, const Rec27& measurements, std::int64_t towMs, std::uint16_t week, double dt);
    double slipProbability(double elevationDeg, double dt) const;
};

void ReceiverSimulator::Model::buildSky() {
    for (const SystemPlan& plan : kSystemPlans) {
        if (options.systems.find(plan.letter) == std::string::npos) continue;
        for (const sim::Orbit& orbit : sim::constellationOrbits(plan.constellation)) {
            Satellite satellite;
            satellite.orbit = orbit;
            satellite.plan = &plan;
            for (int j = 0; j < plan.signalCount; ++j) {
                const auto s = static_cast<std::size_t>(j);
                satellite.wavelength[s] = nvb::bandWavelength(plan.satType, plan.signals[s].band, orbit.fdmaChannel);
                // Hardware delays differ per signal; GLONASS also by frequency channel.
                satellite.codeBias[s] = 0.3 * random.normal() + 0.08 * orbit.fdmaChannel * j;
            }
            satellites.push_back(satellite);
        }
    }
    inView.reserve(satellites.size());
    clockBias = random.uniform(-0.4e-3, 0.4e-3);
    clockDrift = random.uniform(0.9, 2.4) * (random.chance(0.5) ? 1.0 : -1.0);
}

void ReceiverSimulator::Model::advanceClock(double dt) {
    const double previousDrift = clockDrift;
    clockDrift += 2e-4 * std::sqrt(dt) * random.normal();
    const double meanDrift = 0.5 * (previousDrift + clockDrift) * 1e-6;
    // The receiver keeps its clock within half a millisecond of true time by stepping it
    // whole milliseconds (one at a time but for long intervals), which moves every range
    // and phase by that much light travel.
    const double unsteered = clockBias + meanDrift * dt;
    truth.steeringMs = std::fabs(unsteered) > 0.5e-3 ? -static_cast<int>(std::lround(unsteered * 1e3)) : 0;
    const double step = truth.steeringMs * 1e-3;
    // Epochs are a whole interval apart on the receiver's clock; the clock drifts over the
    // true time between them, which the step lengthens or shortens.
    const double trueInterval = (dt - step) / (1.0 + meanDrift);
    clockBias += step + meanDrift * trueInterval;
}

void ReceiverSimulator::Model::selectInView(double t) {
    inView.clear();
    for (Satellite& satellite : satellites) {
        satellite.look = sim::lookAt(satellite.orbit, site, t);
        if (satellite.look.elevationDeg >= options.elevationMaskDegrees) inView.push_back(&satellite);
    }
    // The lowest satellites give way when an epoch would outgrow its frame or the record.
    auto datBytes = [this] {
        std::size_t bytes = kDatEpochBytes;
        for (const Satellite* satellite : inView) {
            bytes += kDatSatelliteBytes + kDatSignalBytes * static_cast<std::size_t>(satellite->plan->signalCount);
        }
        return bytes;
    };
    while (!inView.empty() && (inView.size() > NVB_MAX_SV || datBytes() > kFrameCapacity)) {
        auto lowest = std::min_element(inView.begin(), inView.end(), [](const Satellite* a, const Satellite* b) {
            return a->look.elevationDeg < b->look.elevationDeg;
        });
        inView.erase(lowest);
    }
}

void ReceiverSimulator::Model::updateTracking() {
    for (Satellite& satellite : satellites) {
        if (!satellite.tracked) continue;
        if (std::find(inView.begin(), inView.end(), &satellite) != inView.end()) continue;
        satellite.tracked = false;
        channelInUse[satellite.receiverChannel] = false;
    }
}

void ReceiverSimulator::Model::acquire(Satellite& satellite, double carrierRange) {
    satellite.tracked = true;
    std::size_t channel = 1;
    while (channel + 1 < channelInUse.size() && channelInUse[channel]) ++channel;
    channelInUse[channel] = true;
    satellite.receiverChannel = static_cast<std::uint8_t>(channel);
    for (int j = 0; j < satellite.plan->signalCount; ++j) {
        const auto s = static_cast<std::size_t>(j);
        // The accumulated phase starts near zero at lock, and each new lock counts as a slip.
        satellite.ambiguity[s] = std::llround(carrierRange / satellite.wavelength[s]);
        if (satellite.everTracked) ++satellite.slipCount[s];
    }
    satellite.everTracked = true;
}

double ReceiverSimulator::Model::slipProbability(double elevationDeg, double dt) const {
    const double perSecond = 1.0 / 20000.0 + std::exp(-(elevationDeg - options.elevationMaskDegrees) / 5.0) / 1500.0;
    return std::min(1.0, perSecond * dt);
}

void ReceiverSimulator::Model::fillMeasurements(Rec27& rec, std::int64_t towMs, std::uint16_t week, double dt) {
    std::memset(&rec, 0, sizeof rec);
    rec.epochHeaderLen = 17;
    rec.weekNum = week;
    rec.receiveTime = static_cast<double>(towMs);
    rec.clkOffset = onGridSingle(clockBias * 1e3, 19);
    rec.nSv = static_cast<std::uint8_t>(inView.size());

    const double clockRange = sim::kSpeedOfLight * clockBias;
    const double clockRate = sim::kSpeedOfLight * clockDrift * 1e-6;
    truth.satelliteCount = static_cast<int>(inView.size());
    for (std::size_t i = 0; i < inView.size(); ++i) {
        Satellite& satellite = *inView[i];
        const SystemPlan& plan = *satellite.plan;
        const sim::Look& look = satellite.look;
        const double carrierRange = look.range + sim::troposphereDelay(site, look.sinElevation) + clockRange;
        const double rangeRate =
            look.rangeRate + sim::troposphereRate(site, look.sinElevation, look.sinElevationRate) + clockRate;
        const bool newLock = !satellite.tracked;
        if (newLock) acquire(satellite, carrierRange);

        Rec27Sv& sv = rec.sv[i];
        sv.svBlockLen = 10;
        sv.svId = satellite.orbit.svId;
        sv.rt_sattype = plan.satType;
        sv.channel = plan.constellation == Constellation::Glonass
                         ? static_cast<std::uint8_t>(satellite.orbit.fdmaChannel)
                         : satellite.receiverChannel;
        sv.nMeas = static_cast<std::uint8_t>(plan.signalCount);
        sv.elevation = static_cast<std::int16_t>(std::lround(look.elevationDeg));
        sv.azimuth = static_cast<std::uint16_t>(2 * (std::lround(look.azimuthDeg / 2.0) % 180));

        SatelliteTruth& seen = truth.satellites[i];
        seen = SatelliteTruth{};
        seen.elevationDeg = look.elevationDeg;
        seen.azimuthDeg = look.azimuthDeg;
        seen.geometricRange = look.range;
        seen.receiverChannel = satellite.receiverChannel;

        const double strength = 30.0 + 20.0 * std::sqrt(std::max(look.sinElevation, 0.0));
        const double slipChance = slipProbability(look.elevationDeg, dt);
        double firstRange = 0.0;
        for (int j = 0; j < plan.signalCount; ++j) {
            const auto s = static_cast<std::size_t>(j);
            const double wavelength = satellite.wavelength[s];
            Rec27Meas& meas = sv.meas[s];
            meas.measBlockLen = 27;
            meas.blockType = plan.signals[s].band;
            meas.trackType = plan.signals[s].track;
            const double cn0 = std::clamp(strength + plan.signals[s].snrOffsetDb + 0.5 * random.normal(), 20.0, 58.0);
            meas.snr = static_cast<std::uint16_t>(std::lround(cn0 * 10.0));
            // Tracking noise grows as the signal weakens.
            const double weakness = std::pow(10.0, (45.0 - cn0) / 20.0);

            bool slipped = false;
            if (!newLock && random.chance(slipChance)) {
                const auto cycles = static_cast<std::int64_t>(1 + random.uniform() * 20.0);
                satellite.ambiguity[s] += random.chance(0.5) ? cycles : -cycles;
                ++satellite.slipCount[s];
                slipped = true;
            }
            meas.slipCount = satellite.slipCount[s];
            meas.measFlags1 = kFlagsMeasured | kFlagsDoppler;
            if (newLock || slipped) meas.measFlags1 |= kFlagsSlip;

            const double pseudorange = carrierRange + satellite.codeBias[s] + 0.3 * weakness * random.normal();
            if (j == 0) {
                firstRange = onGrid(pseudorange, 7);
                meas.range = firstRange;
            } else {
                meas.range = firstRange + onGrid(pseudorange - firstRange, 8);
            }
            const double phase = static_cast<double>(satellite.ambiguity[s]) - carrierRange / wavelength +
                                 0.004 * weakness * random.normal();
            meas.phase = onGrid(phase, 15);
            meas.doppler = onGridSingle(-rangeRate / wavelength + 0.02 * weakness * random.normal(), 8);

            SignalTruth& signal = seen.signals[s];
            signal.wavelength = wavelength;
            signal.carrierRange = carrierRange;
            signal.rangeRate = rangeRate;
            signal.ambiguity = satellite.ambiguity[s];
            signal.newLock = newLock;
            signal.slipped = slipped;
        }
    }
}

void ReceiverSimulator::Model::fillPosition(Rec29& rec, const Rec27& measurements, std::int64_t towMs,
                                            std::uint16_t week, double dt) {
    std::memset(&rec, 0, sizeof rec);
    rec.block1Len = 15;
    rec.week = week;
    rec.time = static_cast<std::uint32_t>(towMs);
    rec.numSVs = measurements.nSv;
    rec.svListLen = static_cast<std::uint8_t>(1 + 3 * rec.numSVs);

    // Satellites just above the mask are tracked but left out of the fix.
    std::vector<sim::Vec3> used;
    used.reserve(inView.size());
    for (std::size_t i = 0; i < inView.size(); ++i) {
        const Satellite& satellite = *inView[i];
        Rec29SvEntry& entry = rec.sv[i];
        entry.svId = satellite.orbit.svId;
        entry.rt_sattype = satellite.plan->satType;
        if (satellite.look.elevationDeg >= options.elevationMaskDegrees + 5.0) {
            entry.flags = 0x02;
            const sim::Vec3& los = satellite.look.lineOfSight;
            used.push_back({sim::dot(los, site.east), sim::dot(los, site.north), sim::dot(los, site.up)});
        }
    }
    rec.numSVsUsed = static_cast<std::uint8_t>(used.size());
    const Dilution dop = dilution(used);
    rec.positionValid = dop.valid ? 1 : 0;
    rec.fixMode = dop.valid ? 3 : 1;
    rec.fixType = 0;

    // The solution wanders around the site, correlated over about a minute.
    const double keep = std::exp(-dt / 60.0);
    const double fresh = std::sqrt(1.0 - keep * keep);
    const double spread[3] = {0.6, 0.8, 1.5};
    for (int k = 0; k < 3; ++k) positionError[k] = keep * positionError[k] + fresh * spread[k] * random.normal();

    rec.block2Len = 93;
    rec.latPos = onGrid(site.latitudeDeg + positionError[1] / sim::metresPerDegreeLatitude(site), 40);
    rec.lonPos = onGrid(site.longitudeDeg + positionError[0] / sim::metresPerDegreeLongitude(site), 39);
    rec.hgtPos = onGrid(site.height + positionError[2], 12);
    rec.latVel = onGrid(0.015 * random.normal(), 21);
    rec.lonVel = onGrid(0.015 * random.normal(), 21);
    rec.hgtVel = onGrid(0.03 * random.normal(), 21);
    rec.clkOffset = onGridSingle(clockBias * 1e3, 26);
    rec.clkDrift = onGridSingle(clockDrift, 17);

    constexpr double kSigmaTop = 31.99951171875;
    constexpr double kRmsTop = 3.99993896484375;
    constexpr double kDopTop = 4095.9375;
    constexpr double kRangeSigma = 1.1;  // metres, of one pseudorange
    if (dop.valid) {
        rec.hdop = onGridSingle(std::min(std::sqrt(dop.east + dop.north), kDopTop), 4);
        rec.vdop = onGridSingle(std::min(std::sqrt(dop.up), kDopTop), 4);
        rec.tdop = onGridSingle(std::min(std::sqrt(dop.time), kDopTop), 4);
        rec.sigmaN = onGridSingle(std::min(kRangeSigma * std::sqrt(dop.north), kSigmaTop), 11);
        rec.sigmaE = onGridSingle(std::min(kRangeSigma * std::sqrt(dop.east), kSigmaTop), 11);
        rec.sigmaU = onGridSingle(std::min(kRangeSigma * std::sqrt(dop.up), kSigmaTop), 11);
    } else {
        rec.hdop = rec.vdop = rec.tdop = 99.9375f;
        rec.sigmaN = rec.sigmaE = rec.sigmaU = static_cast<float>(kSigmaTop);
    }
    rec.pdop = std::sqrt(rec.hdop * rec.hdop + rec.vdop * rec.vdop);
    rec.rms = onGridSingle(std::clamp(0.6 + 0.08 * random.normal(), 0.05, kRmsTop), 14);
    // The wire holds the unit deviation on a 2^-11 grid and the reader squares it; with
    // twelve bits the square is exact as a single, so it survives the square root.
    const long deviation = std::clamp(2048L + std::lround(120.0 * random.normal()), 1024L, 4095L);
    const float unitDeviation = static_cast<float>(std::ldexp(static_cast<double>(deviation), -11));
    rec.unitVariance = unitDeviation * unitDeviation;
}

ReceiverSimulator::ReceiverSimulator(const SimulationOptions& options) {
    const double intervalMs = options.intervalSeconds * 1000.0;
    if (!std::isfinite(intervalMs) || std::llround(intervalMs) < kShortestIntervalMs) {
        throw std::invalid_argument("interval must be at least 0.05 s");
    }
    if (!std::isfinite(options.durationSeconds) || options.durationSeconds < 0.0 ||
        options.durationSeconds > kLongestDuration) {
        throw std::invalid_argument("duration must be between 0 and 1e9 s");
    }
    if (!std::isfinite(options.elevationMaskDegrees) || options.elevationMaskDegrees < 0.0 ||
        options.elevationMaskDegrees > 60.0) {
        throw std::invalid_argument("elevation mask must be between 0 and 60 degrees");
    }
    if (options.systems.empty()) throw std::invalid_argument("no satellite system chosen (use G, R, E, C)");
    for (const char letter : options.systems) {
        if (std::string_view("GREC").find(letter) == std::string_view::npos) {
            throw std::invalid_argument(std::string("unknown satellite system '") + letter + "' (use G, R, E, C)");
        }
    }
    model_ = std::make_unique<Model>(options);
    model_->intervalMs = std::llround(intervalMs);
    const std::int64_t durationMs = std::llround(options.durationSeconds * 1000.0);
    model_->epochs = static_cast<std::uint64_t>((durationMs + model_->intervalMs - 1) / model_->intervalMs);
    model_->buildSky();
}

ReceiverSimulator::~ReceiverSimulator() = default;

std::uint64_t ReceiverSimulator::epochCount() const {
    return model_->epochs;
}

const EpochTruth& ReceiverSimulator::truth() const {
    return model_->truth;
}

bool ReceiverSimulator::next(Rec27& measurements, Rec29& position) {
    Model& m = *model_;
    if (m.index >= m.epochs) return false;
    const double dt = static_cast<double>(m.intervalMs) * 1e-3;
    if (m.index > 0) {
        m.advanceClock(dt);
    } else {
        m.truth.steeringMs = 0;
    }
    const std::int64_t elapsedMs = static_cast<std::int64_t>(m.index) * m.intervalMs;
    // Epochs fall on whole milliseconds of the receiver's clock; the sky is seen at the
    // true time, which differs from it by the clock's bias.
    const double t = static_cast<double>(elapsedMs) * 1e-3 - m.clockBias;
    const std::int64_t towMs = kStartTowMs + elapsedMs;
    const auto week = static_cast<std::uint16_t>(kStartWeek + towMs / kWeekMs);

    m.selectInView(t);
    m.updateTracking();
    m.truth.timeSeconds = t;
    m.truth.clockBias = m.clockBias;
    m.truth.clockDriftPpm = m.clockDrift;
    m.fillMeasurements(measurements, towMs % kWeekMs, week, dt);
    m.fillPosition(position, measurements, towMs % kWeekMs, week, dt);
    ++m.index;
    return true;
}

}  // namespace nvbtool
