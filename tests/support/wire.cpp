#include "support/wire.h"

#include "common/byte_sum.h"
#include "stream/huffman.h"

#include <nvbdll/status.h>

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>

namespace nvbtest {

namespace {

Bytes closeFrame(Bytes frame) {
    putBigEndian(frame, nvb::byteSum(frame.data(), frame.size()), 2);
    frame.push_back(0x03);
    return frame;
}

void putScaled(Bytes& bytes, double value, unsigned width, int fractionBits) {
    putBigEndian(bytes, static_cast<std::uint64_t>(wireUnits(value, fractionBits)), width);
}

}  // namespace

Body& Body::scaled(double value, unsigned width, int fractionBits) {
    putScaled(bytes, value, width, fractionBits);
    return *this;
}

Fields fields(const Runs& runs, unsigned seed) {
    Fields out;
    unsigned k = seed;
    for (const auto& [width, count] : runs) {
        for (unsigned i = 0; i < count; ++i, ++k) {
            std::uint64_t pattern = width == 1 ? (k * 37u) & 0xFFu : width == 2 ? 2300u + k : 302400u + 7u * k;
            if (width == 8) pattern = std::bit_cast<std::uint64_t>(kOrbit[k % std::size(kOrbit)]);
            out.wire.be(pattern, width);
            for (unsigned b = 0; b < width; ++b) out.native.push_back(static_cast<std::uint8_t>(pattern >> (8 * b)));
        }
    }
    return out;
}

Bytes plainFrame(std::uint8_t type, const Bytes& body, bool highLengthByte) {
    const std::size_t length = body.size() + (highLengthByte ? 7 : 6);
    Bytes frame = {0x02, static_cast<std::uint8_t>(length), type};
    if (highLengthByte) frame.push_back(static_cast<std::uint8_t>(length >> 8));
    frame.insert(frame.end(), body.begin(), body.end());
    return closeFrame(frame);
}

Bytes fieldBytes(std::string_view fields) {
    Body body;
    std::istringstream in{std::string(fields)};
    for (std::string token; in >> token;) {
        const std::size_t colon = token.find(':');
        const std::string kind = token.substr(0, colon == std::string::npos ? 0 : colon);
        const std::string value = token.substr(colon == std::string::npos ? 0 : colon + 1);
        if (kind == "f32") {
            body.f32(std::stof(value));
        } else if (kind == "f64") {
            body.f64(std::stod(value));
        } else if (!kind.empty()) {
            body.be(static_cast<std::uint64_t>(std::stoll(value, nullptr, 0)), kind == "u8"    ? 1
                                                                               : kind == "u16" ? 2
                                                                                               : 4);
        } else {
            for (std::size_t i = 0; i + 1 < value.size(); i += 2) body.u8(std::stoul(value.substr(i, 2), nullptr, 16));
        }
    }
    return body.bytes;
}

nlohmann::json readJson(const std::string& path) {
    std::ifstream in(path);
    return nlohmann::json::parse(in);
}

std::uint8_t statusNamed(const std::string& name) {
    static const std::map<std::string, std::uint8_t> kStatuses = {{"OK", NVB_STATUS_OK},
                                                                  {"CHECKSUM", NVB_STATUS_CHECKSUM},
                                                                  {"EXPANSION", NVB_STATUS_EXPANSION},
                                                                  {"FRAME_LENGTH", NVB_STATUS_FRAME_LENGTH},
                                                                  {"NOT_WRITABLE", NVB_STATUS_NOT_WRITABLE},
                                                                  {"NO_POSITION", NVB_STATUS_NO_POSITION},
                                                                  {"REC35_CONTENT", NVB_STATUS_REC35_CONTENT},
                                                                  {"RESYNCHRONISED", NVB_STATUS_RESYNCHRONISED},
                                                                  {"AVRO", NVB_STATUS_AVRO},
                                                                  {"CAPACITY", NVB_STATUS_CAPACITY},
                                                                  {"SCHEMA", NVB_STATUS_SCHEMA},
                                                                  {"NEED_REFERENCE", NVB_STATUS_NEED_REFERENCE}};
    return kStatuses.at(name);
}

Bytes junk(std::size_t count, std::uint8_t seed) {
    Bytes bytes(count);
    std::uint32_t x = seed;
    for (auto& byte : bytes) {
        x = x * 1103515245u + 12345u;
        byte = static_cast<std::uint8_t>(x >> 16);
        if (byte == 0x02) byte = 0x42;
    }
    return bytes;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

std::unique_ptr<std::uint8_t[]> exactCopy(const Bytes& bytes) {
    auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
    std::copy(bytes.begin(), bytes.end(), copy.get());
    return copy;
}

namespace {

// Codes `plain` onto `out`, then an end symbol if asked, then the zero padding to a byte.
void appendHuffman(Bytes& out, const Bytes& plain, bool endSymbol) {
    if (nvb::huffmanRoot() == nullptr) nvb::huffmanBuild();
    nvb_huffman_encoder_t encoder{};
    std::uint8_t scratch[4];
    const auto emit = [&](std::uint16_t symbol, bool flush) {
        out.insert(out.end(), scratch, scratch + nvb::huffmanEncodeSymbol(encoder, symbol, scratch, flush));
    };
    for (const std::uint8_t byte : plain) emit(byte, false);
    if (endSymbol) emit(nvb::kHuffmanEndSymbol, false);
    emit(0, true);
}

}  // namespace

Bytes huffmanEncode(const Bytes& plain, bool endSymbolFirst) {
    Bytes out;
    if (endSymbolFirst) appendHuffman(out, {}, true);
    appendHuffman(out, plain, false);
    return out;
}

Bytes huffmanEncodeChunks(std::initializer_list<Bytes> chunks) {
    Bytes out;
    for (const Bytes& chunk : chunks) appendHuffman(out, chunk, true);
    return out;
}

void putBigEndian(Bytes& bytes, std::uint64_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;) bytes.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

unsigned signedWidth(std::int64_t value) {
    for (unsigned width = 1; width < 7; ++width) {
        const std::int64_t limit = std::int64_t{1} << (8 * width - 1);
        if (value >= -limit && value < limit) return width;
    }
    return 7;
}

std::int64_t wireUnits(double value, int fractionBits) {
    return static_cast<std::int64_t>(std::round(std::ldexp(value, fractionBits)));
}

Bytes build(const Epoch27& epoch) {
    Bytes body = {static_cast<std::uint8_t>(epoch.clockDrift ? 15 : 12)};
    putBigEndian(body, epoch.week, 2);
    putBigEndian(body, epoch.timeMs, 4);
    putScaled(body, epoch.clockMs, 3, 19);
    body.push_back(static_cast<std::uint8_t>(epoch.satellites.size()));
    body.push_back(epoch.clockDrift ? 0x02 : 0x00);
    if (epoch.clockDrift) putScaled(body, *epoch.clockDrift, 3, 22);
    for (const Satellite27& sv : epoch.satellites) {
        for (const int byte : {8, int{sv.svId}, sv.antenna * 64 + sv.system, int{sv.channel}, int(sv.signals.size()),
                               int{sv.elevation}, sv.azimuth / 2, int{sv.svFlags}}) {
            body.push_back(static_cast<std::uint8_t>(byte));
        }
        const int firstBits = sv.system == 1 || sv.system == 4 ? 6 : (sv.system == 8 ? 10 : 7);
        for (std::size_t j = 0; j < sv.signals.size(); ++j) {
            const Signal27& s = sv.signals[j];
            const std::size_t length = (j == 0 ? 17 : 15) + (s.doppler ? 3 : 0);
            for (const std::size_t byte : {length, std::size_t{s.band}, std::size_t{s.track}}) {
                body.push_back(static_cast<std::uint8_t>(byte));
            }
            putBigEndian(body, s.snr, 2);
            if (j == 0) {
                putScaled(body, s.range, 4, firstBits);
            } else {
                putScaled(body, s.range - sv.signals[0].range, 2, 8);
            }
            putScaled(body, s.phase, 6, 15);
            body.push_back(s.slipCount);
            body.push_back(static_cast<std::uint8_t>((s.flags1 & 0x7B) | (s.doppler ? 0x04 : 0x00)));
            if (s.doppler) putScaled(body, *s.doppler, 3, 8);
        }
    }
    return plainFrameLong(27, body);
}

Bytes build(const Rec11Wire& record) {
    Bytes body;
    for (const std::int32_t value :
         {record.latitude, record.longitude, record.height, record.clockOffset, record.clockDrift}) {
        putBigEndian(body, static_cast<std::uint32_t>(value), 4);
    }
    putBigEndian(body, record.pdop, 2);
    for (const std::int32_t value : record.velocity) putBigEndian(body, static_cast<std::uint32_t>(value), 4);
    putBigEndian(body, record.time, 4);
    body.push_back(record.fixStatus);
    body.push_back(static_cast<std::uint8_t>(record.svIds.size()));
    for (const auto* list : {&record.channels, &record.svIds, &record.residuals}) {
        body.insert(body.end(), list->begin(), list->end());
    }
    return plainFrame(11, body);
}

Bytes build(const Rec29Wire& record) {
    Bytes body = {15};
    putBigEndian(body, record.week, 2);
    putBigEndian(body, record.time, 4);
    for (std::uint8_t value : {record.positionValid, static_cast<std::uint8_t>(record.svs.size()), record.numSVsUsed,
                               record.raimInfo, record.posFlags, record.fixMode, record.fixType, record.fixInfo}) {
        body.push_back(value);
    }
    body.push_back(53);
    putBigEndian(body, static_cast<std::uint64_t>(record.latitude), 6);
    putBigEndian(body, static_cast<std::uint64_t>(record.longitude), 6);
    for (const std::int32_t value : {record.height, record.velocity[0], record.velocity[1], record.velocity[2],
                                     record.clockOffset, record.clockDrift}) {
        putBigEndian(body, static_cast<std::uint32_t>(value), 4);
    }
    for (std::uint16_t value : record.dops) putBigEndian(body, value, 2);
    for (std::uint16_t value : record.sigmas) putBigEndian(body, value, 2);
    putBigEndian(body, record.rms, 2);
    putBigEndian(body, record.unitSd, 2);
    if (record.fixType >= 3 && record.fixType <= 6) {
        const std::size_t start = body.size();
        body.push_back(0);
        body.push_back(record.corrInfo);
        putBigEndian(body, record.corrAge, 2);
        body.push_back(record.corrFlags);
        if ((record.corrFlags & 1) != 0) body.push_back(0x5A);
        if ((record.corrFlags & 2) != 0) body.insert(body.end(), 12, 0x3F);
        if ((record.corrFlags & 4) != 0) putBigEndian(body, 1234, 4);
        body[start] = static_cast<std::uint8_t>(body.size() - start);
    }
    if ((record.posFlags & 0x02) != 0) {
        body.push_back(record.block4Length);
        putBigEndian(body, static_cast<std::uint32_t>(record.aux[0]), 4);
        putBigEndian(body, static_cast<std::uint32_t>(record.aux[1]), 4);
        if (record.block4Length > 9) body.push_back(record.auxStatus);
    }
    if ((record.posFlags & 0x10) != 0) {
        const std::size_t start = body.size();
        body.push_back(0);
        body.push_back(static_cast<std::uint8_t>((record.referenceSystem & 0x0F) | (record.clock.size() << 4)));
        for (const ClockTerm& term : record.clock) {
            const unsigned width = signedWidth(term.offset);
            body.push_back(static_cast<std::uint8_t>((term.type & 0x0F) | (width << 4)));
            putBigEndian(body, static_cast<std::uint64_t>(term.offset), width);
        }
        body[start] = static_cast<std::uint8_t>(body.size() - start);
    }
    body.push_back(static_cast<std::uint8_t>(1 + 3 * record.svs.size()));
    for (const Rec29Wire::Sv& sv : record.svs) body.insert(body.end(), {sv.id, sv.system, sv.flags});
    return plainFrameLong(29, body);
}

Bytes build(const Rec17Wire& record) {
    Bytes body;
    putBigEndian(body, record.time, 4);
    putBigEndian(body, static_cast<std::uint32_t>(record.clockOffset), 3);
    for (const Rec17Sat& sat : record.sats) {
        body.insert(body.end(), {sat.svId, sat.svFlags, sat.svFlags2, sat.elevation, sat.azimuth, sat.snr});
        putBigEndian(body, sat.range, 4);
        putBigEndian(body, static_cast<std::uint64_t>(sat.phase), 6);
        putBigEndian(body, static_cast<std::uint32_t>(sat.doppler), 3);
        body.push_back(sat.reserved);
        if ((sat.svFlags & 1) == 0) continue;
        body.push_back(sat.snr2);
        putBigEndian(body, static_cast<std::uint64_t>(sat.phase2), 6);
        putBigEndian(body, static_cast<std::uint16_t>(sat.rangeDiff2), 2);
    }
    // From 256 bytes on the length byte holds the length minus 256 and the type is 117.
    return plainFrame(body.size() + 6 > 255 ? 117 : 17, body);
}

namespace {

constexpr std::uint32_t kLogTime = 302400000;

// Three satellites, five signals; the second epoch advances each phase by a known
// number of cycles per second.
Epoch27 logEpoch(bool later) {
    const double step = later ? 1.0 : 0.0;
    Satellite27 gps{7, 0, 0, 4, 45, 120, 0x10, {}};
    gps.signals.push_back({0, 0, 452, 21456789.125, 112755432.5 + step * 1000.5, 3, 0x03, -1234.5});
    gps.signals.push_back({1, 2, 391, 21456791.75, 87861234.25 + step * 777.25, 1, 0x03, std::nullopt});
    Satellite27 glonass{12, 2, 0, 0xFD, -5, 300, 0x00, {}};
    glonass.signals.push_back({0, 0, 380, 19876543.5, -104321987.75 + step * 2500.25, 0, 0x03, 2500.25});
    Satellite27 galileo{11, 3, 0, 9, 60, 2, 0x00, {}};
    galileo.signals.push_back({0, 0, 470, 23456789.0, 123270000.0 + step * 100.0, 0, 0x03, std::nullopt});
    galileo.signals.push_back({2, 3, 455, 23456784.5, 91861234.5 - step * 321.5, 0, 0x03, std::nullopt});
    return Epoch27{2345, kLogTime + (later ? 1000u : 0u), 0.25, 0.125, {gps, glonass, galileo}};
}

std::int32_t units32(double value, int fractionBits) {
    return static_cast<std::int32_t>(wireUnits(value, fractionBits));
}

// Dops 1.25, 2.0, 1.0; sigmas 1.5, 1.25, 3.0; rms 0.5; unit deviation 1.0.
// clang-format off
Rec29Wire logPosition() {
    return Rec29Wire{.week = 2345, .time = kLogTime, .numSVsUsed = 2, .fixMode = 3, .fixType = 1,
                     .latitude = wireUnits(37.7749, 40), .longitude = wireUnits(-122.4194, 39),
                     .height = units32(15.25, 12), .velocity = {units32(0.5, 21), units32(-0.25, 21), units32(0.125, 21)},
                     .clockOffset = units32(0.0625, 26), .clockDrift = units32(1.5, 17), .dops = {20, 32, 16},
                     .sigmas = {3072, 2560, 6144}, .rms = 8192, .unitSd = 2048,
                     .clock = {}, .svs = {{7, 0, 2}, {12, 2, 2}, {11, 3, 0}}};
}
// clang-format on

Rec17Wire logRecord17(bool later) {
    const std::int64_t step = later ? 1 : 0;
    Rec17Wire record{kLogTime + (later ? 1000u : 0u), static_cast<std::int32_t>(wireUnits(0.25, 19)), {}};
    const auto cycles = [&](double first, double perSecond) {
        return wireUnits(first, 15) + step * wireUnits(perSecond, 15);
    };
    // clang-format off
    Rec17Sat gps{7, 0x11, 0x03, 45, 60, 181, static_cast<std::uint32_t>(wireUnits(21456789.125, 7)),
                 cycles(112755432.5, 1000.5), static_cast<std::int32_t>(wireUnits(-1234.5, 6)), 0, 156,
                 cycles(87861234.25, 777.25), static_cast<std::int16_t>(wireUnits(2.625, 8))};
    // The wire holds half the range of an SBAS satellite.
    Rec17Sat sbas{131, 0x10, 0x00, 30, 100, 160, static_cast<std::uint32_t>(wireUnits(19000000.0, 7)),
                  cycles(99000000.0, 5.25), 0, 0, 0, 0, 0};
    // clang-format on
    record.sats = {gps, sbas};
    return record;
}

// Pdop 2.5, velocities 2^-20, -0.75 x 2^-10, 0.5.
// clang-format off
Rec11Wire logRecord11() {
    return Rec11Wire{.latitude = units32(0.2098, 31), .longitude = units32(-0.6801, 30), .height = units32(15.25, 12),
                     .clockOffset = units32(1234.5, 9), .clockDrift = units32(0.75, 17), .pdop = 20,
                     .velocity = {1 << 24, units32(-0.75 * std::ldexp(1.0, -10), 32), units32(0.5, 21)},
                     .time = kLogTime, .fixStatus = 0x40, .channels = {1, 2, 3}, .svIds = {7, 63, 11},
                     .residuals = {5, static_cast<std::uint8_t>(-3)}};
}
// clang-format on

}  // namespace

Bytes plainMeasurementLog() {
    return concat({build(logEpoch(false)), build(logPosition()), build(logRecord17(false)), build(logRecord11()),
                   build(logEpoch(true)), build(logRecord17(true))});
}

}  // namespace nvbtest
