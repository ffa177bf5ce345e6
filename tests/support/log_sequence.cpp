#include "support/log_sequence.h"

#include "pipeline/serialisation.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <random>

namespace nvbtest {

namespace {

constexpr double kSpeedOfLight = 299792458.0;
constexpr double kPi = 3.14159265358979323846;

double onGrid(double value, int fractionBits) { return std::round(std::ldexp(value, fractionBits)) / std::ldexp(1.0, fractionBits); }

struct Satellite {
    std::uint8_t system;
    std::uint8_t svId;
    double baseRange;  // m
    double rate;       // m/s
    double phaseOffset;
};

double wavelength(int band) { return kSpeedOfLight / (band == 0 ? 1575.42e6 : 1227.6e6); }

Bytes datOf(Rec27& rec) {
    Bytes dat(1 << 16);
    dat.resize(nvb::writeDatForm(rec, dat.data(), dat.size()));
    return dat;
}

Bytes datOf(const Rec29& rec) {
    Bytes dat(4096);
    dat.resize(nvb::writeDatForm(rec, dat.data(), dat.size()));
    return dat;
}

Bytes datOf(const Rec17& rec) {
    Bytes dat(4096);
    dat.resize(nvb::writeDatForm(rec, dat.data(), dat.size()));
    return dat;
}

Bytes structureDat(std::uint8_t type, const void* structure, std::size_t size) {
    Bytes dat(size + 4);
    dat[0] = 0x74;
    dat[1] = static_cast<std::uint8_t>(dat.size());
    dat[2] = 0;
    dat[3] = type;
    std::memcpy(dat.data() + 4, structure, size);
    return dat;
}

}  // namespace

std::vector<Bytes> mixedDatLog(const LogShape& shape) {
    std::mt19937 random(shape.seed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<Satellite> satellites;
    for (const std::uint8_t system : shape.systems) {
        for (int i = 0; i < shape.satellites; ++i) {
            satellites.push_back(Satellite{system, static_cast<std::uint8_t>(1 + i * 2 + system),
                                           20.0e6 + 5.0e6 * unit(random), -800.0 + 1600.0 * unit(random),
                                           1.0e6 * unit(random)});
        }
    }
    std::vector<Bytes> log;
    auto rec27 = std::make_unique<Rec27>();
    for (int k = 0; k < shape.epochs; ++k) {
        const std::uint32_t time = shape.firstTimeMs + static_cast<std::uint32_t>(k) * shape.intervalMs;
        const double seconds = k * shape.intervalMs / 1000.0;
        *rec27 = Rec27{};
        rec27->epochHeaderLen = 21;
        rec27->weekNum = 2345;
        rec27->receiveTime = time;
        rec27->clkOffset = static_cast<float>(onGrid(0.02 * std::sin(seconds / 50.0), 19));
        rec27->epochFlags = 0x02;
        rec27->clkDrift = static_cast<float>(onGrid(0.001 * std::cos(seconds / 70.0), 22));
        for (const Satellite& sat : satellites) {
            if (rec27->nSv == NVB_MAX_SV) break;
            Rec27Sv& sv = rec27->sv[rec27->nSv++];
            sv.svBlockLen = 10;
            sv.svId = sat.svId;
            sv.rt_sattype = sat.system;
            sv.channel = static_cast<std::uint8_t>(sat.system == 2 ? (sat.svId % 14) : rec27->nSv);
            sv.elevation = static_cast<std::int16_t>(10 + (sat.svId * 7 + k / 60) % 80);
            sv.azimuth = static_cast<std::uint16_t>(2 * ((sat.svId * 23 + k / 30) % 180));
            sv.nMeas = static_cast<std::uint8_t>(shape.signals);
            const double range = sat.baseRange + sat.rate * seconds;
            for (int s = 0; s < shape.signals; ++s) {
                Rec27Meas& meas = sv.meas[s];
                meas.measBlockLen = 27;
                meas.blockType = static_cast<std::uint8_t>(s);
                meas.trackType = static_cast<std::uint8_t>(s == 0 ? 0 : 2);
                meas.snr = static_cast<std::uint16_t>(350 + (sat.svId * 13 + k) % 150);
                // A later signal's range is stored as a difference from the first.
                const double signalRange = s == 0 ? onGrid(range, 7) : sv.meas[0].range + onGrid(1.5 + 0.1 * s, 8);
                meas.range = signalRange;
                meas.phase = onGrid(-range / wavelength(s) + sat.phaseOffset, 15);
                meas.slipCount = static_cast<std::uint8_t>(k / 200);
                meas.measFlags1 = 0x03;
            }
        }
        log.push_back(datOf(*rec27));

        if (shape.positions) {
            Rec29 pos{};
            pos.block1Len = 15;
            pos.week = 2345;
            pos.time = time;
            pos.positionValid = 1;
            pos.numSVs = static_cast<std::uint8_t>(std::min<std::size_t>(satellites.size(), 40));
            pos.numSVsUsed = pos.numSVs;
            pos.fixMode = 3;
            pos.fixType = 1;
            pos.block2Len = 93;
            pos.latPos = 52.3 + 1e-6 * std::sin(seconds);
            pos.lonPos = 4.9 + 1e-6 * std::cos(seconds);
            pos.hgtPos = 12.0 + 0.01 * std::sin(seconds / 3);
            pos.hdop = 0.8125f;
            pos.vdop = 1.25f;
            pos.tdop = 0.75f;
            pos.sigmaN = 0.5f;
            pos.sigmaE = 0.5f;
            pos.sigmaU = 1.0f;
            pos.rms = 0.25f;
            pos.unitVariance = 1.0f;
            pos.svListLen = static_cast<std::uint8_t>(1 + 3 * pos.numSVs);
            for (int i = 0; i < pos.numSVs; ++i) {
                pos.sv[i] = Rec29SvEntry{satellites[static_cast<std::size_t>(i)].svId,
                                         satellites[static_cast<std::size_t>(i)].system, 0x02};
            }
            log.push_back(datOf(pos));
        }

        if (shape.olderRecords && k % 10 == 0) {
            Rec11 old{};
            old.latitude = 52.3 / 180.0;
            old.longitude = 4.9 / 180.0;
            old.height = 12.0;
            old.pdop = 1.5;
            old.time = time;
            old.fixStatus = 2;
            old.nSv = 6;
            for (int i = 0; i < old.nSv; ++i) {
                old.lists[i] = static_cast<std::uint8_t>(i);
                old.lists[old.nSv + i] = static_cast<std::uint8_t>(3 + i);
            }
            Bytes dat = structureDat(11, &old, sizeof old);
            dat.resize(4 + 2u * old.nSv + 78);
            dat[1] = static_cast<std::uint8_t>(dat.size());
            log.push_back(dat);

            auto rec17 = std::make_unique<Rec17>();
            rec17->receiveTime = time;
            rec17->clkOffset = onGrid(0.02, 19);
            rec17->nSv = 6;
            for (int i = 0; i < rec17->nSv; ++i) {
                Rec17Sv& sv = rec17->sv[i];
                sv.svId = static_cast<std::uint8_t>(1 + i * 4);
                sv.svFlags = 0x10;
                sv.svFlags3 = 3;
                sv.elevation = static_cast<std::uint16_t>(20 + i);
                sv.azimuth = static_cast<std::uint16_t>(40 + 2 * i);
                sv.snr = 45.0;
                sv.range = onGrid(21.0e6 + 100.0 * i + 30.0 * seconds, 7);
                sv.phase = onGrid(-sv.range / wavelength(0), 15);
            }
            log.push_back(datOf(*rec17));
        }

        if (shape.opaqueRecords && k % 7 == 3) {
            Bytes body(20 + k % 60);
            for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * k);
            Bytes dat(body.size() + 4);
            dat[0] = 0x74;
            dat[1] = static_cast<std::uint8_t>(dat.size());
            dat[3] = k % 2 == 0 ? 14 : 23;
            std::copy(body.begin(), body.end(), dat.begin() + 4);
            log.push_back(dat);
        }
    }
    return log;
}

Bytes withTrueSatelliteCount(const Bytes& dat) {
    if (dat.size() <= kRec27DatCountOffset || dat[3] != 27) return dat;
    Bytes out = dat;
    std::size_t position = kRec27DatCountOffset + 1;
    const std::uint8_t flags = dat[position++];
    if ((flags & 0x02) != 0) position += 4;
    if ((flags & 0x10) != 0) position += 1;
    if ((flags & 0x20) != 0 && position + 3 <= dat.size()) position += 3 + 9u * dat[position + 2];
    std::uint8_t count = 0;
    while (position + 10 <= dat.size()) {
        const std::size_t block = dat[position];
        const std::size_t measurements = dat[position + 4];
        position += block;
        for (std::size_t j = 0; j < measurements && position < dat.size(); ++j) position += dat[position];
        ++count;
    }
    out[kRec27DatCountOffset] = count;
    return out;
}

}  // namespace nvbtest
