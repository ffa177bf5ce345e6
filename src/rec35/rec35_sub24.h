#ifndef NVB_REC35_REC35_SUB24_H
#define NVB_REC35_REC35_SUB24_H

#include "rec35/rec35_slot.h"

namespace nvb {

// Subtype 24, "FFT Data": one spectrum of an antenna.
extern const Rec35Codec kRec35Sub24;

}  // namespace nvb

#endif
