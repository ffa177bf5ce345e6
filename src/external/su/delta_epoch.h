#ifndef NVB_EXTERNAL_SU_DELTA_EPOCH_H
#define NVB_EXTERNAL_SU_DELTA_EPOCH_H

// Delta epochs, types 36 (long) and 37 (short): one measurement epoch as the difference,
// field by field, from the `predicted` image of the history. The long form also carries
// the second flag bytes of satellites and signals and the doppler; the short form can
// carry neither, and its expander refuses an epoch that needs them. The plain record's
// checksum travels at the end and proves the expansion.

#include "external/su/epoch_image.h"

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

// Writes the delta form of the plain record 27 `plain` against `history.predicted` into
// `out` and advances the history. False, with the history untouched, only when the plain
// record does not parse as an epoch or the delta does not fit `outCapacity`; the caller
// then writes a reference.
[[nodiscard]] bool compressDeltaEpoch(const std::uint8_t* plain, std::size_t plainCapacity, std::uint8_t* out,
                                      std::size_t outCapacity, epoch_history_t& history, bool longForm);

// Rebuilds the plain record 27 of a type 36 (`longForm`) or 37 `record` into `out` and
// advances the history. Returns 0, or: 4 checksum differs (only with control.verify 1);
// 6 nSv above 116; 7 nMeas above 6, a range code above 4, a phase code above 6, or
// svFlags / measFlags1 bit 7 in a short record; 8 a length code above its field's width,
// or a record that runs past its own length or does not fit `out`; 9 no work buffer.
// On any status the history is unchanged and result.length is 0.
[[nodiscard]] std::uint8_t expandDeltaEpoch(const std::uint8_t* record, std::size_t recordCapacity,
                                            std::uint8_t* out, std::size_t outCapacity, epoch_history_t& history,
                                            bool longForm, ExpandedEpoch& result, rinex_control_t& control);

// The clock block of a delta epoch: one flag byte per pair of terms. Expanding fills
// `block` from `reference` and the stream, gives each term the minimal byte length of its
// value, and adds blockLength to `lengthSum`; it returns 0 or 8.
[[nodiscard]] std::uint8_t expandClockBlock(epoch_clock_block_t& block, const epoch_clock_block_t& reference,
                                            ByteReader& in, std::uint32_t& lengthSum);
void compressClockBlock(const epoch_clock_block_t& block, const epoch_clock_block_t& reference, ByteWriter& out);

// Front end of the dispatcher for types 36 (`isType36`) and 37: expands the frame buffer
// into the plain frame buffer (length from bytes 1 and 3, 0 on a status), output mode 0,
// testing the checksum when `framed`. Writes the status and returns it.
std::uint8_t processType37(nvb_expand_t& state, std::uint8_t& status, bool framed, bool isType36);

}  // namespace nvb

#endif
