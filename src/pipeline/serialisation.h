#ifndef NVB_PIPELINE_SERIALISATION_H
#define NVB_PIPELINE_SERIALISATION_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// The DAT length that a DAT header describes under the retrieve rule.
[[nodiscard]] std::uint16_t retrieveLengthOf(const std::uint8_t* datHeader);

// Writes the DAT form of the record just decoded: the header, then the structure in the
// order its DAT form asks. Returns true when written in a form the type defines.
bool retrieveDATRecord(nvb_expand_t& state, std::int16_t recordType, std::uint8_t* out);

}  // namespace nvb

#endif
