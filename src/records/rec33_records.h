#ifndef NVB_RECORDS_REC33_RECORDS_H
#define NVB_RECORDS_REC33_RECORDS_H

#include "records/field_walk.h"

#include <nvbdll/records_rec33.h>
#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// The subtype that lists the systems in use.
inline constexpr std::uint8_t kRec33MixedSystems = 3;

// Subtypes 0, 24 and above 30 have no layout: the reader keeps their body raw and the
// writer refuses them.
[[nodiscard]] bool isRawRec33Subtype(std::uint8_t subtype);

// Reads a record 33 from a frame into the state's Rec33 and DAT header, mapping the
// systems of a subtype 3 as the flags ask. Returns the DAT length, the low byte of the
// frame length minus 2; 0 without the structures.
std::uint16_t readRec33(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7, bool mapSystem7To10);

// The DAT form behind the header: the subtype byte, then the body's fields in wire order
// and width, native byte order, within `out`'s capacity (the DAT length minus 4). A
// subtype whose structure keeps fixed places for absent fields, copies or parallel arrays
// is packed; every other one is its structure as it stands.
void writeRec33Dat(const Rec33& rec, DatWriter& out);

// The stream form into `frame` from a record whose DAT length was `datLength`. Returns
// false, with nothing to send, for a subtype the writer refuses (0, 24, above 30, or 16
// whose second byte is above 18) or a frame longer than its length byte can tell.
[[nodiscard]] bool writeRec33(const Rec33& rec, std::uint16_t datLength, nvb_frame_t& frame);

// DAT parser: -1 without a structure, -2 for a count beyond the structure's arrays.
int parseRec33Dat(DatReader& in, Rec33* rec);

// Hands each field of the decoded record to `sink`, in wire order; `datLength` is the
// length the decoding step reported.
void describeRec33(const Rec33& rec, std::uint16_t datLength, const FieldSink& sink);

}  // namespace nvb

#endif
