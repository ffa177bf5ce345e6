#ifndef NVB_EXTERNAL_SU_EPOCH_COMPRESSOR_H
#define NVB_EXTERNAL_SU_EPOCH_COMPRESSOR_H

// The choice of form for a measurement epoch on the encode path. A reference (type 38)
// comes first, whenever time steps back, at least every 600000 ms of record time so that a
// reader that lost a record recovers, and on request; otherwise the delta form, long (36)
// or short (37), or, where allowed, the predicted form (39) for epochs off the whole 100 ms.

#include "external/su/epoch_image.h"

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

// Capacity of the out record of compressEpoch.
inline constexpr std::size_t kEpochOutCapacity = 5120;

// Writes the plain record 27 `plain` (length from bytes 1 and 3, at most `plainCapacity`)
// as one record of type 36, 37, 38 or 39 into `out` (kEpochOutCapacity bytes), keeping
// `history` in step with an expander's. `timeMs` is the epoch's time of week rounded to
// the ms. The three options select the long form when any is non-zero; `usePredicted` also
// allows the predicted form; `forceReference` 1 asks for a reference. `lastReferenceTime`
// is updated when a reference is written. Returns the out record's length; 0 only for a
// plain record that is too short or longer than its buffer.
[[nodiscard]] std::uint16_t compressEpoch(const std::uint8_t* plain, std::size_t plainCapacity, std::uint8_t* out,
                                          epoch_history_t& history, std::uint32_t& lastReferenceTime,
                                          std::uint32_t timeMs, std::uint8_t keepDoppler, std::uint8_t usePredicted,
                                          std::uint8_t forceLong, std::uint8_t forceReference);

// The encode pipeline's step: replaces the plain record 27 frame `plain` by its compact
// frame in `out` (cleared first; length set), with the encode state's history, options,
// lastEpochReferenceTime and epochForceReference, which it clears afterwards. The time is
// the record's own receiveTime. Returns the compact length, 0 when the plain frame is not
// a record.
std::uint16_t compressEpochFrame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out);

}  // namespace nvb

#endif
