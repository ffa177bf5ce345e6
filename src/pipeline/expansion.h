#ifndef NVB_PIPELINE_EXPANSION_H
#define NVB_PIPELINE_EXPANSION_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Expands the frame that the getter left (by `currentType`), checks its end byte and,
// in framed levels, its checksum, runs the reader of its type and the thinning.
// Returns the DAT length, 0 when nothing is delivered; `recordType` is 65535 for none.
std::uint32_t processRecord(nvb_expand_t& state, std::uint16_t& recordType, std::uint8_t& status);

// As processRecord, but a measurement epoch (types 27 and 36 to 39) runs its expander
// under `output`, a control the host has set up (mode, interval, slip tables): in modes
// 1 and 3, and for an epoch that decimation drops, nothing is delivered and the length
// is 0 with status 0; a kept epoch in modes 0 and 2 is delivered as usual.
std::uint32_t processRecordWithOutput(nvb_expand_t& state, rinex_control_t& output, std::uint16_t& recordType,
                                      std::uint8_t& status);

}  // namespace nvb

#endif
