#include "support/compact_records_sequence.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace nvbtest {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kSpeedOfLight = 299792458.0;
constexpr double kWavelengthL1 = 0.19029367279836487;
constexpr double kWavelengthL2 = 0.24421021342456825;

void putBigEndian(Bytes& bytes, std::uint64_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// Start byte to end byte: length (with the high byte at offset 3 when `highByte`),
// checksum over all but the last three bytes, end byte.
void closeRecord(Bytes& bytes, bool highByte) {
    const std::size_t length = bytes.size() + 3;
    bytes[1] = static_cast<std::uint8_t>(length);
    if (highByte) bytes[3] = static_cast<std::uint8_t>(length >> 8);
    std::uint16_t sum = 0;
    for (std::uint8_t byte : bytes) sum = static_cast<std::uint16_t>(sum + byte);
    putBigEndian(bytes, sum, 2);
    bytes.push_back(3);
}

// The fewest signed bytes (1 to 7) that hold `value`, as the clock block writer uses.
unsigned signedWidth(std::int64_t value) {
    for (unsigned width = 1; width < 7; ++width) {
        const std::int64_t limit = std::int64_t{1} << (8 * width - 1);
        if (value >= -limit && value < limit) return width;
    }
    return 7;
}

std::uint32_t timeAt(const SequenceShape& shape, std::size_t index) {
    std::uint32_t time = shape.startMs + static_cast<std::uint32_t>(index) * shape.stepMs;
    if (shape.backAt >= 0 && static_cast<long>(index) >= shape.backAt) time -= shape.backStepMs;
    return time;
}

// A satellite's pass over the sky: range, phase and angles as smooth functions of time.
struct Pass {
    std::uint8_t svId;
    double riseS;
    double setS;
    double range0;
    double rate;
    double accel;
    double bias1;
    double bias2;
    double iono;
    double azimuth0;
    bool dual;

    [[nodiscard]] bool visible(double t) const { return t >= riseS && t < setS; }
    [[nodiscard]] double fraction(double t) const { return (t - riseS) / (setS - riseS); }
    [[nodiscard]] double elevation(double t) const { return 5.0 + 80.0 * std::sin(kPi * fraction(t)); }
    [[nodiscard]] double range(double t) const {
        const double tau = t - riseS;
        return range0 + rate * tau + 0.5 * accel * tau * tau;
    }
};

std::vector<Pass> makeSky(std::mt19937& rng, double spanS, std::size_t passes, double dualShare) {
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Pass> sky;
    for (std::size_t k = 0; k < passes; ++k) {
        Pass pass{};
        pass.svId = static_cast<std::uint8_t>(1 + k % 32);
        // Some satellites are up from the start, the rest rise and set during the span.
        pass.riseS = k < passes / 2 ? -unit(rng) * spanS : unit(rng) * spanS * 0.8;
        pass.setS = pass.riseS + spanS * (0.3 + unit(rng));
        pass.range0 = 21.0e6 + 4.0e6 * unit(rng);
        pass.rate = -800.0 + 1600.0 * unit(rng);
        pass.accel = -0.15 + 0.3 * unit(rng);
        pass.bias1 = std::floor(unit(rng) * 1.0e6);
        pass.bias2 = std::floor(unit(rng) * 1.0e6);
        pass.iono = 2.0 + 8.0 * unit(rng);
        pass.azimuth0 = 360.0 * unit(rng);
        pass.dual = unit(rng) < dualShare;
        sky.push_back(pass);
    }
    return sky;
}

}  // namespace

Bytes buildRec11(const Rec11Wire& record) {
    Bytes bytes = {2, 0, 11};
    for (std::int32_t value : {record.latitude, record.longitude, record.height, record.clockOffset, record.clockDrift}) {
        putBigEndian(bytes, static_cast<std::uint32_t>(value), 4);
    }
    putBigEndian(bytes, record.pdop, 2);
    for (std::int32_t value : record.velocity) putBigEndian(bytes, static_cast<std::uint32_t>(value), 4);
    putBigEndian(bytes, record.time, 4);
    bytes.push_back(record.fixStatus);
    bytes.push_back(static_cast<std::uint8_t>(record.svIds.size()));
    bytes.insert(bytes.end(), record.channels.begin(), record.channels.end());
    bytes.insert(bytes.end(), record.svIds.begin(), record.svIds.end());
    if (record.residual) bytes.insert(bytes.end(), record.residuals, record.residuals + 2);
    closeRecord(bytes, false);
    return bytes;
}

Bytes buildRec29(const Rec29Wire& record) {
    Bytes bytes = {2, 0, 29, 0, 15};
    putBigEndian(bytes, record.week, 2);
    putBigEndian(bytes, record.time, 4);
    for (std::uint8_t value : {record.positionValid, static_cast<std::uint8_t>(record.svs.size()), record.numSVsUsed,
                               record.raimInfo, record.posFlags, record.fixMode, record.fixType, record.fixInfo}) {
        bytes.push_back(value);
    }
    bytes.push_back(53);
    putBigEndian(bytes, static_cast<std::uint64_t>(record.latitude), 6);
    putBigEndian(bytes, static_cast<std::uint64_t>(record.longitude), 6);
    putBigEndian(bytes, static_cast<std::uint32_t>(record.height), 4);
    for (std::int32_t value : record.velocity) putBigEndian(bytes, static_cast<std::uint32_t>(value), 4);
    putBigEndian(bytes, static_cast<std::uint32_t>(record.clockOffset), 4);
    putBigEndian(bytes, static_cast<std::uint32_t>(record.clockDrift), 4);
    for (std::uint16_t value : record.dops) putBigEndian(bytes, value, 2);
    for (std::uint16_t value : record.sigmas) putBigEndian(bytes, value, 2);
    putBigEndian(bytes, record.rms, 2);
    putBigEndian(bytes, record.unitSd, 2);
    if (record.fixType >= 3 && record.fixType <= 6) {
        const std::size_t start = bytes.size();
        bytes.push_back(0);
        bytes.push_back(record.corrInfo);
        putBigEndian(bytes, record.corrAge, 2);
        bytes.push_back(record.corrFlags);
        if ((record.corrFlags & 1) != 0) bytes.push_back(0x5A);
        if ((record.corrFlags & 2) != 0) bytes.insert(bytes.end(), 12, 0x3F);
        if ((record.corrFlags & 4) != 0) putBigEndian(bytes, 1234, 4);
        bytes[start] = static_cast<std::uint8_t>(bytes.size() - start);
    }
    if ((record.posFlags & 0x02) != 0) {
        bytes.push_back(record.block4Length);
        putBigEndian(bytes, static_cast<std::uint32_t>(record.aux[0]), 4);
        putBigEndian(bytes, static_cast<std::uint32_t>(record.aux[1]), 4);
        if (record.block4Length > 9) bytes.push_back(record.auxStatus);
    }
    if ((record.posFlags & 0x10) != 0) {
        const std::size_t start = bytes.size();
        bytes.push_back(0);
        bytes.push_back(static_cast<std::uint8_t>((record.referenceSystem & 0x0F) | (record.clock.size() << 4)));
        for (const ClockTerm& term : record.clock) {
            const unsigned width = signedWidth(term.offset);
            bytes.push_back(static_cast<std::uint8_t>((term.type & 0x0F) | (width << 4)));
            putBigEndian(bytes, static_cast<std::uint64_t>(term.offset), width);
        }
        bytes[start] = static_cast<std::uint8_t>(bytes.size() - start);
    }
    bytes.push_back(static_cast<std::uint8_t>(1 + 3 * record.svs.size()));
    for (const Rec29Wire::Sv& sv : record.svs) {
        bytes.push_back(sv.id);
        bytes.push_back(sv.system);
        bytes.push_back(sv.flags);
    }
    closeRecord(bytes, true);
    return bytes;
}

Bytes buildRec17(const Rec17Wire& record) {
    Bytes bytes = {2, 0, 17};
    putBigEndian(bytes, record.time, 4);
    putBigEndian(bytes, static_cast<std::uint32_t>(record.clockOffset), 3);
    for (const Rec17Sat& sat : record.sats) {
        for (std::uint8_t value : {sat.svId, sat.svFlags, sat.svFlags2, sat.elevation, sat.azimuth, sat.snr}) {
            bytes.push_back(value);
        }
        putBigEndian(bytes, sat.range, 4);
        putBigEndian(bytes, static_cast<std::uint64_t>(sat.phase), 6);
        putBigEndian(bytes, static_cast<std::uint32_t>(sat.doppler), 3);
        bytes.push_back(sat.reserved);
        if ((sat.svFlags & 1) == 0) continue;
        bytes.push_back(sat.snr2);
        putBigEndian(bytes, static_cast<std::uint64_t>(sat.phase2), 6);
        putBigEndian(bytes, static_cast<std::uint16_t>(sat.rangeDiff2), 2);
    }
    // From 256 bytes on the length byte holds the length minus 256 and the type is 117.
    const std::size_t length = bytes.size() + 3;
    if (length > 255) bytes[2] = 117;
    closeRecord(bytes, false);
    return bytes;
}

std::vector<Rec11Wire> positionSequence(const SequenceShape& shape) {
    std::mt19937 rng(shape.seed);
    std::normal_distribution<double> noise(0.0, 1.0);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Rec11Wire> records;
    double latitude = 0.2512 * 2147483648.0;
    double longitude = 0.0431 * 1073741824.0;
    double height = 312.5 * 4096.0;
    double clock = 1500.0 * 512.0;
    std::vector<std::uint8_t> sats = {2, 5, 7, 9, 12, 15, 18, 21, 24, 27};
    std::uint8_t fixStatus = 3;
    for (std::size_t i = 0; i < shape.count; ++i) {
        const double dt = shape.stepMs / 1000.0;
        const double northRate = 1075.0 + 40.0 * std::sin(i / 37.0);
        const double eastRate = 520.0 + 25.0 * std::cos(i / 23.0);
        latitude += northRate * dt + noise(rng) * 3.0;
        longitude += eastRate * dt + noise(rng) * 3.0;
        height += (0.2 * std::sin(i / 11.0)) * 4096.0 * dt + noise(rng) * 200.0;
        clock += 0.6 * 512.0 * dt + noise(rng) * 50.0;
        if (unit(rng) < 0.04 && sats.size() < 14) {
            sats.push_back(static_cast<std::uint8_t>(1 + rng() % 32));
        } else if (unit(rng) < 0.04 && sats.size() > 5) {
            sats.erase(sats.begin() + static_cast<long>(rng() % sats.size()));
        }
        if (unit(rng) < 0.02) fixStatus = static_cast<std::uint8_t>(1 + rng() % 4);

        Rec11Wire record;
        record.latitude = static_cast<std::int32_t>(std::llround(latitude));
        record.longitude = static_cast<std::int32_t>(std::llround(longitude));
        record.height = static_cast<std::int32_t>(std::llround(height));
        record.clockOffset = static_cast<std::int32_t>(std::llround(clock));
        record.clockDrift = static_cast<std::int32_t>(std::llround(0.6 * 131072.0 + noise(rng) * 900.0));
        record.pdop = static_cast<std::uint16_t>(14 + sats.size() % 5);
        record.velocity[0] = static_cast<std::int32_t>(std::llround(northRate * 1.0e5 + noise(rng) * 2.0e4));
        record.velocity[1] = static_cast<std::int32_t>(std::llround(eastRate * 4.0e4 + noise(rng) * 1.0e4));
        record.velocity[2] = static_cast<std::int32_t>(std::llround(0.2 * 2097152.0 * std::sin(i / 11.0)));
        record.time = timeAt(shape, i);
        record.fixStatus = fixStatus;
        record.svIds = sats;
        for (std::size_t k = 0; k < sats.size(); ++k) record.channels.push_back(static_cast<std::uint8_t>(k));
        // A stretch of the older form without the residual bytes.
        record.residual = i % 300 < 250;
        record.residuals[0] = static_cast<std::uint8_t>(rng() % 128);
        record.residuals[1] = static_cast<std::uint8_t>(rng() % 128);
        records.push_back(record);
    }
    return records;
}

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
        const double dt = shape.stepMs / 1000.0;
        const double north = 12.0 + 2.0 * std::sin(i / 29.0);
        const double east = -4.0 + 1.5 * std::cos(i / 17.0);
        latitude += north * dt * 172.8e3 + noise(rng) * 900.0;
        longitude += east * dt * 121.4e3 + noise(rng) * 900.0;
        height += 0.1 * std::sin(i / 13.0) * 4096.0 * dt + noise(rng) * 90.0;
        clockOffset += 2.0e-5 * 67108864.0 * dt + noise(rng) * 30.0;
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

std::vector<Rec17Wire> measurementSequence(const SequenceShape& shape, double dualShare, std::size_t maxSats) {
    std::mt19937 rng(shape.seed);
    std::normal_distribution<double> noise(0.0, 1.0);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const double spanS = shape.count * shape.stepMs / 1000.0;
    const std::vector<Pass> sky = makeSky(rng, spanS, 26, dualShare);
    std::vector<Rec17Wire> records;
    double clockMs = 0.35;
    for (std::size_t i = 0; i < shape.count; ++i) {
        const double t = i * shape.stepMs / 1000.0;
        // The receiver clock drifts and is stepped back by 1 ms now and then.
        clockMs += 2.0e-5 * shape.stepMs / 1000.0;
        if (clockMs > 0.9) clockMs -= 1.0;
        Rec17Wire record;
        record.time = timeAt(shape, i);
        record.clockOffset = static_cast<std::int32_t>(std::llround(clockMs * 524288.0));
        std::vector<const Pass*> up;
        for (const Pass& pass : sky) {
            if (pass.visible(t)) up.push_back(&pass);
        }
        std::sort(up.begin(), up.end(), [](const Pass* a, const Pass* b) { return a->svId < b->svId; });
        up.erase(std::unique(up.begin(), up.end(), [](const Pass* a, const Pass* b) { return a->svId == b->svId; }),
                 up.end());
        if (up.size() > maxSats) up.resize(maxSats);
        for (const Pass* pass : up) {
            Rec17Sat sat;
            const double elevation = pass->elevation(t);
            const double clockRange = clockMs * 1.0e-3 * kSpeedOfLight;
            const double range = pass->range(t) + clockRange + noise(rng) * 0.3;
            sat.svId = pass->svId;
            sat.svFlags = static_cast<std::uint8_t>(0xD8 | (pass->dual ? 0x21 : 0x00));
            sat.svFlags2 = pass->dual ? 4 : 0;
            // Rarely a half-cycle mark, and rarely flags that only the two-byte form carries.
            if (unit(rng) < 0.01) sat.svFlags |= 0x02;
            if (unit(rng) < 0.003) sat.svFlags2 |= 0x01;
            sat.elevation = static_cast<std::uint8_t>(std::lround(elevation));
            sat.azimuth = static_cast<std::uint8_t>(std::lround(std::fmod(pass->azimuth0 + 40.0 * pass->fraction(t), 360.0) / 2.0));
            const double snr = 32.0 + 18.0 * std::sin(elevation * kPi / 180.0) + noise(rng) * 0.4;
            sat.snr = static_cast<std::uint8_t>(std::lround(snr * 4.0));
            if (unit(rng) < 0.002) sat.snr = 0;
            sat.range = static_cast<std::uint32_t>(std::llround(range * 128.0));
            const double carrier = -(pass->range(t) + clockRange - pass->iono) / kWavelengthL1 + pass->bias1;
            sat.phase = std::llround((carrier + noise(rng) * 0.01) * 32768.0);
            if ((sat.svFlags & 1) != 0) {
                const double iono2 = pass->iono * 1.6469;
                sat.snr2 = static_cast<std::uint8_t>(std::lround((snr - 8.0) * 4.0));
                const double carrier2 = -(pass->range(t) + clockRange - iono2) / kWavelengthL2 + pass->bias2;
                sat.phase2 = std::llround((carrier2 + noise(rng) * 0.01) * 32768.0);
                sat.rangeDiff2 = static_cast<std::int16_t>(std::lround((iono2 - pass->iono + noise(rng) * 0.3) * 256.0));
            }
            record.sats.push_back(sat);
        }
        records.push_back(record);
    }
    return records;
}

std::vector<Bytes> buildAll(const std::vector<Rec11Wire>& records) {
    std::vector<Bytes> frames;
    for (const Rec11Wire& record : records) frames.push_back(buildRec11(record));
    return frames;
}

std::vector<Bytes> buildAll(const std::vector<Rec29Wire>& records) {
    std::vector<Bytes> frames;
    for (const Rec29Wire& record : records) frames.push_back(buildRec29(record));
    return frames;
}

std::vector<Bytes> buildAll(const std::vector<Rec17Wire>& records) {
    std::vector<Bytes> frames;
    for (const Rec17Wire& record : records) frames.push_back(buildRec17(record));
    return frames;
}

}  // namespace nvbtest
