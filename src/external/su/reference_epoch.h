#ifndef NVB_EXTERNAL_SU_REFERENCE_EPOCH_H
#define NVB_EXTERNAL_SU_REFERENCE_EPOCH_H

// The reference form of a measurement epoch, type 38: the plain record 27 without its end
// byte, with type 38 and a checksum over the new bytes. Reading one starts both images of
// the history over from that epoch, which is how a reader recovers after a lost record.

#include "external/su/epoch_image.h"

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

// Writes the reference form of the plain record 27 `plain` (its length from bytes 1 and 3,
// at most `plainCapacity`) into `out` and sets both history images to that epoch. Returns
// the record's length, one less than the plain record's; 0 (with an assertion) when the
// plain record is too short or does not fit. A plain record that does not parse as an
// epoch is still written, and the history is left as the expander will leave it: as it was.
[[nodiscard]] std::uint16_t compressReferenceEpoch(std::uint8_t* out, std::size_t outCapacity,
                                                   epoch_history_t& history, const std::uint8_t* plain,
                                                   std::size_t plainCapacity);

// Rebuilds the plain record 27 from a type 38 `record` into `out`, with a fresh checksum
// and end byte, and sets both history images to it. Returns 0; 6 nSv above 116; 7 nMeas
// above 6; 8 the record runs past its length or does not fit a buffer; 9 no work buffer.
// On any status the history is unchanged and result.length is 0.
[[nodiscard]] std::uint8_t expandReferenceEpoch(const std::uint8_t* record, std::size_t recordCapacity,
                                                std::uint8_t* out, std::size_t outCapacity,
                                                epoch_history_t& history, ExpandedEpoch& result,
                                                rinex_control_t& control);

// Front end of the dispatcher: expands the type 38 in the state's frame buffer into its
// plain frame buffer (length from bytes 1 and 3, 0 on a status), output mode 0. Writes the
// status and returns it.
std::uint8_t processType38(nvb_expand_t& state, std::uint8_t& status);

}  // namespace nvb

#endif
