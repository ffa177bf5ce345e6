#include "support/plain_log.h"

#include "support/plain_records.h"

namespace nvbtest {

namespace {

using namespace plain;

constexpr std::uint32_t kTime = 302400000;

// Three satellites, five signals; the second epoch advances each phase by a known
// number of cycles per second.
Epoch measurementEpoch(bool later) {
    const double step = later ? 1.0 : 0.0;
    Epoch epoch;
    epoch.week = 2345;
    epoch.timeMs = kTime + (later ? 1000u : 0u);
    epoch.clockMs = 0.25;
    epoch.clockDrift = 0.125;

    Satellite gps{7, 0, 0, 4, 45, 120, 0x10, {}};
    gps.signals.push_back({0, 0, 452, 21456789.125, 112755432.5 + step * 1000.5, 3, 0x03, -1234.5});
    gps.signals.push_back({1, 2, 391, 21456791.75, 87861234.25 + step * 777.25, 1, 0x03, std::nullopt});
    Satellite glonass{12, 2, 0, 0xFD, -5, 300, 0x00, {}};
    glonass.signals.push_back({0, 0, 380, 19876543.5, -104321987.75 + step * 2500.25, 0, 0x03, 2500.25});
    Satellite galileo{11, 3, 0, 9, 60, 2, 0x00, {}};
    galileo.signals.push_back({0, 0, 470, 23456789.0, 123270000.0 + step * 100.0, 0, 0x03, std::nullopt});
    galileo.signals.push_back({2, 3, 455, 23456784.5, 91861234.5 - step * 321.5, 0, 0x03, std::nullopt});
    epoch.satellites = {gps, glonass, galileo};
    return epoch;
}

Position29 position() {
    Position29 p;
    p.week = 2345;
    p.timeMs = kTime;
    p.positionValid = 1;
    p.numSVsUsed = 2;
    p.fixMode = 3;
    p.fixType = 1;
    p.latDeg = 37.7749;
    p.lonDeg = -122.4194;
    p.height = 15.25;
    p.velocity[0] = 0.5;
    p.velocity[1] = -0.25;
    p.velocity[2] = 0.125;
    p.clockMs = 0.0625;
    p.clockDrift = 1.5;
    p.hdop = 1.25;
    p.vdop = 2.0;
    p.tdop = 1.0;
    p.sigma[0] = 1.5;
    p.sigma[1] = 1.25;
    p.sigma[2] = 3.0;
    p.rms = 0.5;
    p.unitStdDev = 1.0;
    p.list = {{7, 0, 2}, {12, 2, 2}, {11, 3, 0}};
    return p;
}

std::vector<Sat17> satellites17(bool later) {
    const double step = later ? 1.0 : 0.0;
    Sat17 gps{7,
              0x11,
              0x03,
              45,
              120,
              45.25,
              21456789.125,
              112755432.5 + step * 1000.5,
              -1234.5,
              39.0,
              87861234.25 + step * 777.25,
              2.625};
    // The wire holds half the range of an SBAS satellite.
    Sat17 sbas{131, 0x10, 0x00, 30, 200, 40.0, 19000000.0, 99000000.0 + step * 5.25, 0.0, 0.0, 0.0, 0.0};
    return {gps, sbas};
}

Position11 position11() {
    Position11 p;
    p.latitude = 0.2098;
    p.longitude = -0.6801;
    p.height = 15.25;
    p.clockOffset = 1234.5;
    p.clockDrift = 0.75;
    p.pdop = 2.5;
    p.velocity[0] = std::ldexp(1.0, -20);
    p.velocity[1] = -0.75 * std::ldexp(1.0, -10);
    p.velocity[2] = 0.5;
    p.time = kTime;
    p.fixStatus = 0x40;
    p.channels = {1, 2, 3};
    p.satellites = {7, 63, 11};
    p.latitudeResidual = 5;
    p.longitudeResidual = -3;
    return p;
}

Bytes join(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

}  // namespace

std::vector<std::uint8_t> plainMeasurementLog() {
    return join({rec27(measurementEpoch(false)), rec29(position()), rec17(kTime, 0.25, satellites17(false)),
                 rec11(position11()), rec27(measurementEpoch(true)), rec17(kTime + 1000, 0.25, satellites17(true))});
}

}  // namespace nvbtest
