#ifndef NVB_TESTS_COMPACT_RECORDS_SEQUENCE_H
#define NVB_TESTS_COMPACT_RECORDS_SEQUENCE_H

// Plain records 11, 29 and 17 in their stream form, as a receiver would log them: a
// moving position, satellites that rise and set, clocks that drift and step. Built here
// from integers in the wire's units, so that tests and benchmarks need no record writer.

#include <cstdint>
#include <vector>

namespace nvbtest {

using Bytes = std::vector<std::uint8_t>;

// Record 11, fields in wire units.
struct Rec11Wire {
    std::int32_t latitude = 0;    // semicircles x 2^31
    std::int32_t longitude = 0;   // semicircles x 2^30
    std::int32_t height = 0;      // m x 2^12
    std::int32_t clockOffset = 0; // m x 2^9
    std::int32_t clockDrift = 0;
    std::uint16_t pdop = 0;       // x 8
    std::int32_t velocity[3] = {};
    std::uint32_t time = 0;       // ms
    std::uint8_t fixStatus = 0;
    std::vector<std::uint8_t> channels;
    std::vector<std::uint8_t> svIds;
    bool residual = true; // the older form has no residual bytes
    std::uint8_t residuals[2] = {};
};
Bytes buildRec11(const Rec11Wire& record);

// Record 29, fields in wire units (big-endian bytes where wider than the scalar types).
struct ClockTerm {
    std::uint8_t type = 0;
    std::int64_t offset = 0; // x 2^28, written in its fewest signed bytes
};
struct Rec29Wire {
    std::uint16_t week = 0;
    std::uint32_t time = 0;
    std::uint8_t positionValid = 1;
    std::uint8_t numSVsUsed = 0;
    std::uint8_t raimInfo = 0;
    std::uint8_t posFlags = 0; // bit 1 block 4, bit 2 predict sigmaU, bit 4 clock block
    std::uint8_t fixMode = 0;
    std::uint8_t fixType = 0;  // 3 to 6 bring block 3
    std::uint8_t fixInfo = 0;
    std::int64_t latitude = 0;   // 6 bytes
    std::int64_t longitude = 0;  // 6 bytes
    std::int32_t height = 0;
    std::int32_t velocity[3] = {};
    std::int32_t clockOffset = 0;
    std::int32_t clockDrift = 0;
    std::uint16_t dops[3] = {};   // hdop, vdop, tdop
    std::uint16_t sigmas[3] = {}; // N, E, U
    std::uint16_t rms = 0;
    std::uint16_t unitSd = 0;
    std::uint8_t corrInfo = 0;
    std::uint16_t corrAge = 0;
    std::uint8_t corrFlags = 0;       // bits 0-2 bring correction bytes the delta can't carry
    std::uint8_t block4Length = 10;   // 9 is the older form without the status byte
    std::int32_t aux[2] = {};
    std::uint8_t auxStatus = 0;
    std::uint8_t referenceSystem = 0;
    std::vector<ClockTerm> clock;
    struct Sv {
        std::uint8_t id, system, flags;
    };
    std::vector<Sv> svs;
};
Bytes buildRec29(const Rec29Wire& record);

// Record 17, fields in wire units; 117 in place of 17 from 256 bytes on.
struct Rec17Sat {
    std::uint8_t svId = 0;
    std::uint8_t svFlags = 0; // bit 0 brings the second block
    std::uint8_t svFlags2 = 0;
    std::uint8_t elevation = 0;
    std::uint8_t azimuth = 0; // halved
    std::uint8_t snr = 0;     // x 4
    std::uint32_t range = 0;  // m x 2^7
    std::int64_t phase = 0;   // cycles x 2^15, 6 bytes
    std::int32_t doppler = 0; // 3 bytes; the writer leaves it 0
    std::uint8_t reserved = 0;
    std::uint8_t snr2 = 0;
    std::int64_t phase2 = 0;
    std::int16_t rangeDiff2 = 0;
};
struct Rec17Wire {
    std::uint32_t time = 0;
    std::int32_t clockOffset = 0; // ms x 2^19, 3 bytes
    std::vector<Rec17Sat> sats;
};
Bytes buildRec17(const Rec17Wire& record);

// Long realistic sequences. `stepMs` apart, with the time set back by `backStepMs` at
// record `backAt` (none when negative).
struct SequenceShape {
    std::size_t count = 200;
    std::uint32_t startMs = 345600000;
    std::uint32_t stepMs = 1000;
    long backAt = -1;
    std::uint32_t backStepMs = 0;
    std::uint32_t seed = 1;
};

std::vector<Rec11Wire> positionSequence(const SequenceShape& shape);
// Solutions cycle through the optional blocks: block 3 by fix type, block 4 in both
// lengths, the clock block, and the flag that predicts sigmaU.
std::vector<Rec29Wire> solutionSequence(const SequenceShape& shape);
// Satellites rise and set; `dualShare` of them (0 to 1) carry the second block, and
// `maxSats` caps the sky so that long records stay within 511 bytes.
std::vector<Rec17Wire> measurementSequence(const SequenceShape& shape, double dualShare = 0.7,
                                           std::size_t maxSats = 14);

std::vector<Bytes> buildAll(const std::vector<Rec11Wire>& records);
std::vector<Bytes> buildAll(const std::vector<Rec29Wire>& records);
std::vector<Bytes> buildAll(const std::vector<Rec17Wire>& records);

}  // namespace nvbtest

#endif
