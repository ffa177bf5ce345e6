#ifndef NVB_PIPELINE_CONVERSIONS_H
#define NVB_PIPELINE_CONVERSIONS_H

#include <nvbdll/records_measurement.h>
#include <nvbdll/records_position.h>

#include <cstdint>

namespace nvb {

// Conversions between the generations of records, structure to structure. Each clears
// `out`, fills it, writes a DAT header of the type made when `datHeader` is not null,
// and returns the DAT length (0 when `in` or `out` is null).

std::uint16_t convertRec29toRec11(std::uint8_t* datHeader, const Rec29* in, Rec11* out);

// `mode` picks the second-frequency signal of each satellite: 0 the track 2 signal,
// 1 any other, 2 track 2 before the other, 3 the other before track 2, else none.
std::uint16_t convertRec27toRec17(std::uint8_t* datHeader, const Rec27* in, Rec17* out, std::uint8_t mode);

// Raises the process-wide slip counters for every slip it carries over: a second
// conversion of the same record gives other counts.
std::uint16_t convertRec17toRec27(std::uint16_t week, std::uint8_t* datHeader, const Rec17* in, Rec27* out);

}  // namespace nvb

#endif
