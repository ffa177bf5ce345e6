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

// The benchmarks build these helpers without the data files; they never read this log.
#ifdef NVBDLL_TEST_DATA_DIR
Bytes plainMeasurementLog() {
    Bytes log;
    const nlohmann::json data = readJson(NVBDLL_TEST_DATA_DIR "/records/measurement_log.json");
    for (const nlohmann::json& frame : data["frames"]) {
        const Bytes bytes = fieldBytes(frame["frame"].get<std::string>());
        log.insert(log.end(), bytes.begin(), bytes.end());
    }
    return log;
}
#endif

}  // namespace nvbtest
