#ifndef NVB_EXTERNAL_SU_PREDICTED_EPOCH_H
#define NVB_EXTERNAL_SU_PREDICTED_EPOCH_H

// Predicted epochs, type 39: the smallest form of a measurement epoch, for high-rate logs.
// It carries a time step, the clock deltas and per signal only the carrier phase and the
// doppler; everything else is the `predicted` image, and both sides derive the pseudorange
// from the last one and the change of phase. It is lossy, so the compressor takes it only
// for an epoch that changes nothing it cannot carry.

#include "external/su/epoch_image.h"

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

// Why the compressor declines the predicted form; the delta form follows.
enum PredictedRefusal : std::uint8_t {
    kPredictedWritten = 0,
    kPredictedSatelliteCount = 1, // satellite count changed
    kPredictedClockHeader = 2,    // clock block header changed
    kPredictedClockTerm = 3,      // a clock term changed
    kPredictedSatelliteRow = 4,   // satellite row changed
    kPredictedSignalFlags = 5,    // flags or slip counter of a signal changed
    kPredictedNoHalfCycle = 6,    // measFlags1 bits 0 and 1 set and bit 5 clear
    kPredictedRollover = 7,       // the derived range contradicts the rollover bit
    kPredictedUnusable = 8,       // not one of the format's: the record doesn't parse or fit
};

// Derives the pseudorange of signal `signalIndex` of satellite `satIndex` in `image`, whose
// phase (and, for a later signal, first range) is already the new one, from `previous` and
// the change of phase, and writes it into the image's range field. False when the range
// contradicts the first signal's rollover bit; the field is then left as it was.
[[nodiscard]] bool predictRange(const epoch_image_t& previous, std::uint16_t satIndex, epoch_image_t& image,
                                std::uint16_t signalIndex);

// Writes the predicted form of the plain record 27 `plain` into `out` and advances the
// history with the epoch as the expander will rebuild it; its trailer is the checksum of
// that rebuilt epoch. Any other result is a refusal: the history is untouched and `out`
// is to be overwritten.
[[nodiscard]] std::uint8_t compressPredictedEpoch(const std::uint8_t* plain, std::size_t plainCapacity,
                                                  std::uint8_t* out, std::size_t outCapacity,
                                                  epoch_history_t& history);

// Rebuilds the plain record 27 of a type 39 `record` into `out` and advances the history.
// Returns the status of the last delta read, 8 when a phase code exceeds its width; that
// does not stop the expansion, and the history advances all the same. A record that runs
// past its own length or does not fit `out` is 8 with the history untouched and
// result.length 0; 9 no work buffer. No checksum is tested.
[[nodiscard]] std::uint8_t expandPredictedEpoch(const std::uint8_t* record, std::size_t recordCapacity,
                                                std::uint8_t* out, std::size_t outCapacity, epoch_history_t& history,
                                                ExpandedEpoch& result, rinex_control_t& control);

// Front end of the dispatcher for type 39 (no export reaches it): expands the frame buffer
// into the plain frame buffer (length from bytes 1 and 3, 0 when nothing was written),
// output mode 0. Writes the status and returns it.
std::uint8_t processType39(nvb_expand_t& state, std::uint8_t& status);

}  // namespace nvb

#endif
