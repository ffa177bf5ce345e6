#ifndef NVB_TESTS_LOG_SEQUENCE_H
#define NVB_TESTS_LOG_SEQUENCE_H

#include <nvbdll/nvbdll.h>

#include "support/frame_builder.h"

#include <cstdint>
#include <vector>

namespace nvbtest {

struct LogShape {
    int epochs = 300;
    std::uint32_t intervalMs = 1000;
    std::uint32_t firstTimeMs = 345600000;
    int satellites = 12;        // per system
    int signals = 2;            // per satellite
    bool positions = true;      // a record 29 behind every epoch
    bool olderRecords = true;   // records 11 and 17 every tenth epoch
    bool opaqueRecords = true;  // records 14 and 23 now and then
    std::vector<std::uint8_t> systems{0, 2, 3};
    std::uint32_t seed = 1;
};

// The DAT records of a receiver log: measurement epochs whose ranges and phases move with
// the satellites, positions, older records and opaque ones, in log order.
std::vector<Bytes> mixedDatLog(const LogShape& shape);

// The offset of the satellite count in the DAT form of record 27 (behind the header, the
// header length, week, time and clock offset).
inline constexpr std::size_t kRec27DatCountOffset = 4 + 1 + 2 + 8 + 4;

// Retrieved record 27 DAT forms count only first-antenna satellites where the parser
// takes the satellite count; a host that feeds them back sets the count to the entries
// that follow. Returns the DAT with that count.
Bytes withTrueSatelliteCount(const Bytes& dat);

}  // namespace nvbtest

#endif
