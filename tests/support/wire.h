#ifndef NVB_TESTS_WIRE_H
#define NVB_TESTS_WIRE_H

// The tests' own writer of the wire: frames, Huffman-coded streams and plain records
// 27, 29, 17 and 11 built from the format's field tables, independent of the library's
// writers, so that a fault the library's reader and writer share still shows. The
// benchmarks and the sequence generators build on it.

#include <nlohmann/json_fwd.hpp>

#include <array>
#include <bit>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace nvbtest {

using Bytes = std::vector<std::uint8_t>;

// The states are packed: a test reads a wide field by value before comparing it, since
// the comparison macros bind references.
template <typename T>
T copyOf(T value) {
    return value;
}

// A plain frame of `type` around `body`: start byte, length, type, body, checksum, end byte;
// types with a high length byte (27, 29, 98, ...) carry it at offset 3.
Bytes plainFrame(std::uint8_t type, const Bytes& body, bool highLengthByte = false);
inline Bytes plainFrameLong(std::uint8_t type, const Bytes& body) {
    return plainFrame(type, body, true);
}
// Bytes written field by field, big-endian: "u8:3 u16:2301 u32:0x1F f32:0.5 f64:-2.5" and
// bare groups of hex digits.
Bytes fieldBytes(std::string_view fields);
// A JSON file of pinned values under tests/data, and a status there by its name in
// NVB_STATUS_* ("NOT_WRITABLE").
nlohmann::json readJson(const std::string& path);
std::uint8_t statusNamed(const std::string& name);
// Bytes of `count` values that the stream never mistakes for a start byte.
Bytes junk(std::size_t count, std::uint8_t seed = 1);
Bytes concat(std::initializer_list<Bytes> parts);
// A heap copy of exactly the bytes' size, so that a read one byte past them is seen.
std::unique_ptr<std::uint8_t[]> exactCopy(const Bytes& bytes);

// The Huffman coding of a byte stream, as its writer produces it; the chunked form closes
// each chunk with an end symbol and zero padding, as a writer does every 600 records.
Bytes huffmanEncode(const Bytes& plain, bool endSymbolFirst = false);
Bytes huffmanEncodeChunks(std::initializer_list<Bytes> chunks);

void putBigEndian(Bytes& bytes, std::uint64_t value, unsigned width);
// A body written field by field, big-endian, as the field tables list them.
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
    Body& be(std::uint64_t value, unsigned width) {
        putBigEndian(bytes, value, width);
        return *this;
    }
    // `value` in units of 2^-fractionBits, rounded half away from zero.
    Body& scaled(double value, unsigned width, int fractionBits);
};
// The fewest signed bytes (1 to 7) that hold `value`, as the clock block writers take them.
unsigned signedWidth(std::int64_t value);
// `value` in units of 2^-fractionBits, rounded half away from zero.
std::int64_t wireUnits(double value, int fractionBits);

// Records whose fields stand back to back, from the field tables: the same real-looking
// values once in a structure's native order and once as the wire's big-endian fields.
// Bytes count up, 16-bit words look like weeks, 32-bit words like times of week, and
// doubles come from kOrbit.
using Runs = std::vector<std::pair<unsigned, unsigned>>;  // width in bytes, count
struct Fields {
    Bytes native;
    Body wire;
};
Fields fields(const Runs& runs, unsigned seed = 1);
// Broadcast orbit and clock values as a receiver decodes them: sqrt(A), e, i0, Omega0,
// omega, M0, rates, harmonic terms, clock terms, times of week.
inline constexpr double kOrbit[] = {5153.6372, 0.01234,  0.9634,    -2.0941,  0.6712,   1.2034,   4.61e-9,
                                    -8.21e-9,  1.12e-10, 2.31e-6,   -1.41e-6, 254.3125, 180.1875, 3.21e-8,
                                    -1.13e-8,  1.207e-4, -3.41e-12, 0.0,      302400.0};

// Record 27 in its byte-stream form: no measFlags2, ranges of later signals as 16-bit
// differences from the first (which must stay within 128 m).
struct Signal27 {
    std::uint8_t band = 0;
    std::uint8_t track = 0;
    std::uint16_t snr = 0;
    double range = 0.0;  // absolute, metres
    double phase = 0.0;  // cycles
    std::uint8_t slipCount = 0;
    std::uint8_t flags1 = 0x03;     // bit 2 is set when doppler is given
    std::optional<double> doppler;  // Hz
};
struct Satellite27 {
    std::uint8_t svId = 0;
    std::uint8_t system = 0;
    std::uint8_t antenna = 0;
    std::uint8_t channel = 0;
    std::int8_t elevation = 0;
    std::uint16_t azimuth = 0;  // even
    std::uint8_t svFlags = 0;   // bit 7 is not used by this writer
    std::vector<Signal27> signals;
};
struct Epoch27 {
    std::uint16_t week = 0;
    std::uint32_t timeMs = 0;
    double clockMs = 0.0;
    std::optional<double> clockDrift;
    std::vector<Satellite27> satellites;
};
Bytes build(const Epoch27& epoch);

// Record 11, fields in wire units; the older form has no residual bytes.
struct Rec11Wire {
    std::int32_t latitude = 0;      // semicircles x 2^31
    std::int32_t longitude = 0;     // semicircles x 2^30
    std::int32_t height = 0;        // m x 2^12
    std::int32_t clockOffset = 0;   // m x 2^9
    std::int32_t clockDrift = 0;    // x 2^17
    std::uint16_t pdop = 0;         // x 8
    std::int32_t velocity[3] = {};  // x 2^44, 2^32, 2^21
    std::uint32_t time = 0;         // ms
    std::uint8_t fixStatus = 0;
    std::vector<std::uint8_t> channels;
    std::vector<std::uint8_t> svIds;
    std::vector<std::uint8_t> residuals;  // none, latitude, or latitude and longitude
};
Bytes build(const Rec11Wire& record);

// Record 29, fields in wire units (big-endian bytes where wider than the scalar types).
struct ClockTerm {
    std::uint8_t type = 0;
    std::int64_t offset = 0;  // x 2^28, written in its fewest signed bytes
};
struct Rec29Wire {
    std::uint16_t week = 0;
    std::uint32_t time = 0;
    std::uint8_t positionValid = 1;
    std::uint8_t numSVsUsed = 0;
    std::uint8_t raimInfo = 0;
    std::uint8_t posFlags = 0;  // bit 1 block 4, bit 2 predict sigmaU, bit 4 clock block
    std::uint8_t fixMode = 0;
    std::uint8_t fixType = 0;  // 3 to 6 bring block 3
    std::uint8_t fixInfo = 0;
    std::int64_t latitude = 0;      // degrees x 2^40, 6 bytes
    std::int64_t longitude = 0;     // degrees x 2^39, 6 bytes
    std::int32_t height = 0;        // x 2^12
    std::int32_t velocity[3] = {};  // x 2^21
    std::int32_t clockOffset = 0;   // ms x 2^26
    std::int32_t clockDrift = 0;    // x 2^17
    std::uint16_t dops[3] = {};     // hdop, vdop, tdop x 2^4
    std::uint16_t sigmas[3] = {};   // N, E, U x 2^11
    std::uint16_t rms = 0;          // x 2^14
    std::uint16_t unitSd = 0;       // x 2^11
    std::uint8_t corrInfo = 0;
    std::uint16_t corrAge = 0;
    std::uint8_t corrFlags = 0;      // bits 0 and 1 bring correction bytes the delta can't carry
    std::uint8_t block4Length = 10;  // 9 is the older form without the status byte
    std::int32_t aux[2] = {};
    std::uint8_t auxStatus = 0;
    std::uint8_t referenceSystem = 0;
    std::vector<ClockTerm> clock;
    struct Sv {
        std::uint8_t id, system, flags;
    };
    std::vector<Sv> svs;
};
Bytes build(const Rec29Wire& record);

// Record 17, fields in wire units; 117 in place of 17 from 256 bytes on.
struct Rec17Sat {
    std::uint8_t svId = 0;
    std::uint8_t svFlags = 0;  // bit 0 brings the second block
    std::uint8_t svFlags2 = 0;
    std::uint8_t elevation = 0;
    std::uint8_t azimuth = 0;  // halved
    std::uint8_t snr = 0;      // x 4
    std::uint32_t range = 0;   // m x 2^7 (half the range of an SBAS satellite)
    std::int64_t phase = 0;    // cycles x 2^15, 6 bytes
    std::int32_t doppler = 0;  // Hz x 2^6, 3 bytes; the library's writer leaves it 0
    std::uint8_t reserved = 0;
    std::uint8_t snr2 = 0;
    std::int64_t phase2 = 0;
    std::int16_t rangeDiff2 = 0;  // x 2^8
};
struct Rec17Wire {
    std::uint32_t time = 0;
    std::int32_t clockOffset = 0;  // ms x 2^19, 3 bytes
    std::vector<Rec17Sat> sats;
};
Bytes build(const Rec17Wire& record);

// A plain byte-stream log (wrap it in huffmanEncode for the NVB getters) of six frames,
// from tests/data/records/measurement_log.json: record 27, 29, 17, 11, then a second 27
// and 17 one second later, whose Doppler the readers rebuild from phase. What a host
// reading it with the default options is delivered, frame by frame: the record type and
// the DAT length.
Bytes plainMeasurementLog();
inline constexpr std::array<std::uint16_t, 6> kPlainLogTypes = {27, 29, 17, 11, 27, 17};
inline constexpr std::array<std::uint32_t, 6> kPlainLogDatLengths = {190, 122, 141, 88, 190, 141};

}  // namespace nvbtest

#endif
