#ifndef NVB_EXTERNAL_SU_COMPACT_COMPRESSORS_H
#define NVB_EXTERNAL_SU_COMPACT_COMPRESSORS_H

// The encode side of compact positions (record 11), solutions (record 29) and measurement
// records 17: each takes the plain frame that the record's writer built and writes its
// compact form into `out`. A reference form comes first in a stream, whenever the time
// tag goes back, and whenever 600000 ms or more have passed since the last reference, so
// that a reader that lost a record finds its footing again; solutions also take one on
// `forcePositionReference`, which is then cleared. Between references the delta form.

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Each returns the length of the compact frame, also set in `out.length`; 0 when the plain
// frame could not be coded. The record 17 path logs "Unknown compressed format: %d\n"
// with the type it found when that is none of 68, 69, 76, 77. These paths share the
// process-wide cursors of their codecs and are not re-entrant.
std::uint16_t compressRec11Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out);
std::uint16_t compressRec29Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out);
std::uint16_t compressRec17Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out);

}  // namespace nvb

#endif
