#ifndef NVB_REC35_REC35_MEASUREMENT_H
#define NVB_REC35_REC35_MEASUREMENT_H

#include "rec35/rec35_slot.h"

#include <cstdint>

namespace nvb {

// The rows of subtypes 19 and 260: the generated ones, with the counts of their parallel
// arrays set and checked on both paths. Subtype 19 also folds each range with its carrier
// phase before encoding (undone after decoding), and off the 100 ms grid holds the
// clock offsets, SNRs, ranges and Dopplers that lie close to their prediction.
const Rec35Codec& rec35Sub19Codec();
const Rec35Codec& rec35Sub260Codec();

// Carrier wavelength in metres of a record 35 signal; 0 for a band without one, whose
// range then goes unfolded.
[[nodiscard]] double carrierWavelength(std::uint32_t system, std::uint32_t band, std::int32_t channel);

}  // namespace nvb

#endif
