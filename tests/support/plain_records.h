#ifndef NVB_TESTS_PLAIN_RECORDS_H
#define NVB_TESTS_PLAIN_RECORDS_H

// The tests' own encoder of plain records, written from the format's field tables and
// independent of the library's writers, so that a fault the library's reader and writer
// share still shows. Header-only: the benchmarks use it as well.

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

namespace nvbtest::plain {

using Bytes = std::vector<std::uint8_t>;

// Appends big-endian fields.
struct Body {
    Bytes bytes;

    Body& u8(std::uint64_t value) { return be(value, 1); }
    Body& u16(std::uint64_t value) { return be(value, 2); }
    Body& u32(std::uint64_t value) { return be(value, 4); }
    Body& f32(float value) { return be(std::bit_cast<std::uint32_t>(value), 4); }
    Body& f64(double value) { return be(std::bit_cast<std::uint64_t>(value), 8); }
    Body& raw(const Bytes& more) {
        bytes.insert(bytes.end(), more.begin(), more.end());
        return *this;
    }
    // `value` in units of 2^-fractionBits, rounded half away from zero.
    Body& scaled(double value, unsigned width, int fractionBits) {
        const double units = std::round(std::ldexp(value, fractionBits));
        return be(static_cast<std::uint64_t>(static_cast<std::int64_t>(units)), width);
    }
    Body& be(std::uint64_t value, unsigned width) {
        for (unsigned i = width; i > 0; --i) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
        return *this;
    }
    std::size_t size() const { return bytes.size(); }
};

// Start byte, length, type, [high length byte,] body, checksum, end byte.
inline Bytes frame(std::uint8_t type, const Bytes& body, bool highLengthByte) {
    const std::size_t length = body.size() + (highLengthByte ? 7 : 6);
    Bytes out;
    out.reserve(length);
    out.push_back(0x02);
    out.push_back(static_cast<std::uint8_t>(length));
    out.push_back(type);
    if (highLengthByte) out.push_back(static_cast<std::uint8_t>(length >> 8));
    for (const std::uint8_t byte : body) out.push_back(byte);
    std::uint16_t sum = 0;
    for (const std::uint8_t byte : out) sum = static_cast<std::uint16_t>(sum + byte);
    out.push_back(static_cast<std::uint8_t>(sum >> 8));
    out.push_back(static_cast<std::uint8_t>(sum));
    out.push_back(0x03);
    return out;
}

struct Signal {
    std::uint8_t band = 0;
    std::uint8_t track = 0;
    std::uint16_t snr = 0;
    double range = 0.0;  // absolute, metres
    double phase = 0.0;  // cycles
    std::uint8_t slipCount = 0;
    std::uint8_t flags1 = 0x03;     // bit 2 is set when doppler is given
    std::optional<double> doppler;  // Hz
};

struct Satellite {
    std::uint8_t svId = 0;
    std::uint8_t system = 0;
    std::uint8_t antenna = 0;
    std::uint8_t channel = 0;
    std::int8_t elevation = 0;
    std::uint16_t azimuth = 0;  // even
    std::uint8_t svFlags = 0;   // bit 7 is not used by this encoder
    std::vector<Signal> signals;
};

struct Epoch {
    std::uint16_t week = 0;
    std::uint32_t timeMs = 0;
    double clockMs = 0.0;
    std::optional<double> clockDrift;
    std::vector<Satellite> satellites;
};

// A record 27 in its byte-stream form: no measFlags2, ranges of later signals as 16-bit
// differences from the first (which must stay within 128 m).
inline Bytes rec27(const Epoch& epoch) {
    Body body;
    body.u8(epoch.clockDrift ? 15 : 12).u16(epoch.week).u32(epoch.timeMs).scaled(epoch.clockMs, 3, 19);
    body.u8(epoch.satellites.size()).u8(epoch.clockDrift ? 0x02 : 0x00);
    if (epoch.clockDrift) body.scaled(*epoch.clockDrift, 3, 22);
    for (const Satellite& sv : epoch.satellites) {
        body.u8(8).u8(sv.svId).u8(sv.antenna * 64u + sv.system).u8(sv.channel).u8(sv.signals.size());
        body.u8(static_cast<std::uint8_t>(sv.elevation)).u8(sv.azimuth / 2).u8(sv.svFlags);
        const int firstBits = sv.system == 1 || sv.system == 4 ? 6 : (sv.system == 8 ? 10 : 7);
        for (std::size_t j = 0; j < sv.signals.size(); ++j) {
            const Signal& s = sv.signals[j];
            const std::uint8_t flags1 = static_cast<std::uint8_t>((s.flags1 & 0x7B) | (s.doppler ? 0x04 : 0x00));
            const std::size_t length = (j == 0 ? 17 : 15) + (s.doppler ? 3 : 0);
            body.u8(length).u8(s.band).u8(s.track).u16(s.snr);
            if (j == 0) {
                body.scaled(s.range, 4, firstBits);
            } else {
                body.scaled(s.range - sv.signals[0].range, 2, 8);
            }
            body.scaled(s.phase, 6, 15).u8(s.slipCount).u8(flags1);
            if (s.doppler) body.scaled(*s.doppler, 3, 8);
        }
    }
    return frame(27, body.bytes, true);
}

struct Position29 {
    std::uint16_t week = 0;
    std::uint32_t timeMs = 0;
    std::uint8_t positionValid = 0, numSVsUsed = 0, fixMode = 0, fixType = 0;
    double latDeg = 0.0, lonDeg = 0.0, height = 0.0;
    double velocity[3] = {0.0, 0.0, 0.0};
    double clockMs = 0.0, clockDrift = 0.0;
    double hdop = 0.0, vdop = 0.0, tdop = 0.0;
    double sigma[3] = {0.0, 0.0, 0.0};
    double rms = 0.0, unitStdDev = 0.0;
    struct Entry {
        std::uint8_t svId, system, flags;
    };
    std::vector<Entry> list;
};

// A record 29 with its first two blocks and the satellite list (fixType outside 3 to 6,
// no block 4, no clock block).
inline Bytes rec29(const Position29& p) {
    Body body;
    body.u8(15).u16(p.week).u32(p.timeMs);
    body.u8(p.positionValid).u8(p.list.size()).u8(p.numSVsUsed).u8(0).u8(0).u8(p.fixMode).u8(p.fixType).u8(0);
    body.u8(53).scaled(p.latDeg, 6, 40).scaled(p.lonDeg, 6, 39).scaled(p.height, 4, 12);
    for (const double v : p.velocity) body.scaled(v, 4, 21);
    body.scaled(p.clockMs, 4, 26).scaled(p.clockDrift, 4, 17);
    body.scaled(p.hdop, 2, 4).scaled(p.vdop, 2, 4).scaled(p.tdop, 2, 4);
    for (const double s : p.sigma) body.scaled(s, 2, 11);
    body.scaled(p.rms, 2, 14).scaled(p.unitStdDev, 2, 11);
    body.u8(1 + 3 * p.list.size());
    for (const auto& e : p.list) body.u8(e.svId).u8(e.system).u8(e.flags);
    return frame(29, body.bytes, true);
}

struct Sat17 {
    std::uint8_t svId = 0, svFlags = 0, svFlags2 = 0, elevation = 0;
    std::uint16_t azimuth = 0;
    double snr = 0.0, range = 0.0, phase = 0.0, doppler = 0.0;  // range as the wire holds it
    double snr2 = 0.0, phase2 = 0.0, rangeDiff2 = 0.0;          // with svFlags bit 0
};

inline Bytes rec17(std::uint32_t timeMs, double clockMs, const std::vector<Sat17>& sats) {
    Body body;
    body.u32(timeMs).scaled(clockMs, 3, 19);
    for (const Sat17& s : sats) {
        body.u8(s.svId).u8(s.svFlags).u8(s.svFlags2).u8(s.elevation).u8(s.azimuth / 2).scaled(s.snr, 1, 2);
        body.scaled(s.range, 4, 7).scaled(s.phase, 6, 15).scaled(s.doppler, 3, 6).u8(0);
        if ((s.svFlags & 0x01) != 0) body.scaled(s.snr2, 1, 2).scaled(s.phase2, 6, 15).scaled(s.rangeDiff2, 2, 8);
    }
    return frame(17, body.bytes, false);
}

struct Position11 {
    double latitude = 0.0, longitude = 0.0;  // semicircles, on the 2^-31 and 2^-30 grids
    double height = 0.0, clockOffset = 0.0, clockDrift = 0.0, pdop = 0.0;
    double velocity[3] = {0.0, 0.0, 0.0};
    std::uint32_t time = 0;
    std::uint8_t fixStatus = 0;
    std::vector<std::uint8_t> channels, satellites;
    std::optional<std::int8_t> latitudeResidual, longitudeResidual;  // the newer form's tail
};

inline Bytes rec11(const Position11& p) {
    Body body;
    body.scaled(p.latitude, 4, 31).scaled(p.longitude, 4, 30).scaled(p.height, 4, 12);
    body.scaled(p.clockOffset, 4, 9).scaled(p.clockDrift, 4, 17).scaled(p.pdop, 2, 3);
    body.scaled(p.velocity[0], 4, 44).scaled(p.velocity[1], 4, 32).scaled(p.velocity[2], 4, 21);
    body.u32(p.time).u8(p.fixStatus).u8(p.channels.size());
    for (const std::uint8_t c : p.channels) body.u8(c);
    for (const std::uint8_t s : p.satellites) body.u8(s);
    if (p.latitudeResidual) body.u8(static_cast<std::uint8_t>(*p.latitudeResidual));
    if (p.longitudeResidual) body.u8(static_cast<std::uint8_t>(*p.longitudeResidual));
    return frame(11, body.bytes, false);
}

// Records whose fields stand back to back, from the field tables: the same real-looking
// values once in a structure's native order and once as the wire's big-endian fields.
using Runs = std::vector<std::pair<unsigned, unsigned>>;  // width in bytes, count

// Broadcast orbit and clock values as a receiver decodes them: sqrt(A), e, i0, Omega0,
// omega, M0, rates, harmonic terms, clock terms, times of week.
inline constexpr double kOrbit[] = {5153.6372, 0.01234,  0.9634,    -2.0941,  0.6712,   1.2034,   4.61e-9,
                                    -8.21e-9,  1.12e-10, 2.31e-6,   -1.41e-6, 254.3125, 180.1875, 3.21e-8,
                                    -1.13e-8,  1.207e-4, -3.41e-12, 0.0,      302400.0};

struct Fields {
    Bytes native;
    Body wire;
};

// Bytes count up, 16-bit words look like weeks, 32-bit words like times of week, and
// doubles come from kOrbit.
inline Fields fields(const Runs& runs, unsigned seed = 1) {
    Fields out;
    unsigned k = seed;
    for (const auto& [width, count] : runs) {
        for (unsigned i = 0; i < count; ++i, ++k) {
            std::uint64_t pattern = width == 1 ? (k * 37u) & 0xFFu : width == 2 ? 2300u + k : 302400u + 7u * k;
            if (width == 8) {
                const double value = kOrbit[k % std::size(kOrbit)];
                std::memcpy(&pattern, &value, sizeof value);
            }
            out.wire.be(pattern, width);
            for (unsigned b = 0; b < width; ++b) out.native.push_back(static_cast<std::uint8_t>(pattern >> (8 * b)));
        }
    }
    return out;
}

}  // namespace nvbtest::plain

#endif
