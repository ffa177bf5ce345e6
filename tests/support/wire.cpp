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

Body& Body::scaled(double value, unsigned width, int fractionBits) {
    return be(static_cast<std::uint64_t>(wireUnits(value, fractionBits)), width);
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
    putBigEndian(frame, nvb::byteSum(frame.data(), frame.size()), 2);
    frame.push_back(0x03);
    return frame;
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
    Body body;
    body.u8(epoch.clockDrift ? 15 : 12).u16(epoch.week).u32(epoch.timeMs).scaled(epoch.clockMs, 3, 19);
    body.u8(epoch.satellites.size()).u8(epoch.clockDrift ? 0x02 : 0x00);
    if (epoch.clockDrift) body.scaled(*epoch.clockDrift, 3, 22);
    for (const Satellite27& sv : epoch.satellites) {
        body.u8(8).u8(sv.svId).u8(sv.antenna * 64 + sv.system).u8(sv.channel).u8(sv.signals.size());
        body.u8(sv.elevation).u8(sv.azimuth / 2).u8(sv.svFlags);
        const int firstBits = sv.system == 1 || sv.system == 4 ? 6 : (sv.system == 8 ? 10 : 7);
        for (std::size_t j = 0; j < sv.signals.size(); ++j) {
            const Signal27& s = sv.signals[j];
            body.u8((j == 0 ? 17 : 15) + (s.doppler ? 3 : 0)).u8(s.band).u8(s.track).u16(s.snr);
            if (j == 0) {
                body.scaled(s.range, 4, firstBits);
            } else {
                body.scaled(s.range - sv.signals[0].range, 2, 8);
            }
            body.scaled(s.phase, 6, 15).u8(s.slipCount).u8((s.flags1 & 0x7B) | (s.doppler ? 0x04 : 0x00));
            if (s.doppler) body.scaled(*s.doppler, 3, 8);
        }
    }
    return plainFrameLong(27, body.bytes);
}

Bytes build(const Rec11Wire& record) {
    Body body;
    body.u32(record.latitude).u32(record.longitude).u32(record.height).u32(record.clockOffset).u32(record.clockDrift);
    body.u16(record.pdop).u32(record.velocity[0]).u32(record.velocity[1]).u32(record.velocity[2]).u32(record.time);
    body.u8(record.fixStatus).u8(record.svIds.size()).raw(record.channels).raw(record.svIds).raw(record.residuals);
    return plainFrame(11, body.bytes);
}

Bytes build(const Rec29Wire& record) {
    Body body;
    body.u8(15).u16(record.week).u32(record.time).u8(record.positionValid).u8(record.svs.size());
    body.u8(record.numSVsUsed).u8(record.raimInfo).u8(record.posFlags).u8(record.fixMode).u8(record.fixType);
    body.u8(record.fixInfo).u8(53).be(record.latitude, 6).be(record.longitude, 6).u32(record.height);
    body.u32(record.velocity[0]).u32(record.velocity[1]).u32(record.velocity[2]);
    body.u32(record.clockOffset).u32(record.clockDrift);
    for (const std::uint16_t value : record.dops) body.u16(value);
    for (const std::uint16_t value : record.sigmas) body.u16(value);
    body.u16(record.rms).u16(record.unitSd);
    if (record.fixType >= 3 && record.fixType <= 6) {
        const std::size_t start = body.bytes.size();
        body.u8(0).u8(record.corrInfo).u16(record.corrAge).u8(record.corrFlags);
        if ((record.corrFlags & 1) != 0) body.u8(0x5A);
        if ((record.corrFlags & 2) != 0) body.raw(Bytes(12, 0x3F));
        body.bytes[start] = static_cast<std::uint8_t>(body.bytes.size() - start);
    }
    if ((record.posFlags & 0x02) != 0) {
        body.u8(record.block4Length).u32(record.aux[0]).u32(record.aux[1]);
        if (record.block4Length > 9) body.u8(record.auxStatus);
    }
    if ((record.posFlags & 0x10) != 0) {
        const std::size_t start = body.bytes.size();
        body.u8(0).u8((record.referenceSystem & 0x0F) | (record.clock.size() << 4));
        for (const ClockTerm& term : record.clock) {
            const unsigned width = signedWidth(term.offset);
            body.u8((term.type & 0x0F) | (width << 4)).be(term.offset, width);
        }
        body.bytes[start] = static_cast<std::uint8_t>(body.bytes.size() - start);
    }
    body.u8(1 + 3 * record.svs.size());
    for (const Rec29Wire::Sv& sv : record.svs) body.u8(sv.id).u8(sv.system).u8(sv.flags);
    return plainFrameLong(29, body.bytes);
}

Bytes build(const Rec17Wire& record) {
    Body body;
    body.u32(record.time).be(record.clockOffset, 3);
    for (const Rec17Sat& sat : record.sats) {
        body.u8(sat.svId).u8(sat.svFlags).u8(sat.svFlags2).u8(sat.elevation).u8(sat.azimuth).u8(sat.snr);
        body.u32(sat.range).be(sat.phase, 6).be(sat.doppler, 3).u8(sat.reserved);
        if ((sat.svFlags & 1) == 0) continue;
        body.u8(sat.snr2).be(sat.phase2, 6).u16(sat.rangeDiff2);
    }
    // From 256 bytes on the length byte holds the length minus 256 and the type is 117.
    return plainFrame(body.bytes.size() + 6 > 255 ? 117 : 17, body.bytes);
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
