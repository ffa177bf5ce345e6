#ifndef NVB_REC35_REC35_THINNING_H
#define NVB_REC35_REC35_THINNING_H

#include <nvbdll/rclean_state.h>

#include <cstdint>

namespace nvb {

// The thinning of a decoded or host-filled native record of `subtype`: subtype 19 epochs
// by `epochMs`, with the slips of a dropped epoch carried to the next kept one, and
// subtype 2 positions by `positionMs`. An interval of 0 or less leaves the record alone,
// as does a null record or any other subtype. Returns false when the record is dropped.
bool keepRec35(rcleanState& rclean, std::uint64_t subtype, void* native, std::int32_t epochMs,
               std::int32_t positionMs);

}  // namespace nvb

#endif
