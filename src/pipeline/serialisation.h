#ifndef NVB_PIPELINE_SERIALISATION_H
#define NVB_PIPELINE_SERIALISATION_H

#include <nvbdll/records.h>
#include <nvbdll/state.h>

#include "records/field_codec.h"

#include <cstddef>
#include <cstdint>

namespace nvb {

// Writes the DAT form of the record just decoded: the header, then the structure in the
// order its DAT form asks. Returns true when written in a form the type defines.
bool retrieveDATRecord(nvb_expand_t& state, std::int16_t recordType, std::uint8_t* out);

// The fields of the structures whose DAT form is not the structure as it stands. Record
// 27's packed system bytes go back into the structure on the way.
void writeDatFields(Rec27& rec, DatWriter& out);
void writeDatFields(const Rec29& rec, DatWriter& out);
void writeDatFields(const Rec17& rec, DatWriter& out);

// The DAT form of a structure, header included, laid out as retrieval lays it out, for a
// host that builds records itself (the tools, the simulator). Record 27's packed system
// bytes go back into the structure on the way, as retrieval does. Returns the length,
// 0 when it does not fit `capacity`.
std::uint16_t writeDatForm(Rec27& rec, std::uint8_t* out, std::size_t capacity);
std::uint16_t writeDatForm(const Rec29& rec, std::uint8_t* out, std::size_t capacity);
std::uint16_t writeDatForm(const Rec17& rec, std::uint8_t* out, std::size_t capacity);

// The DAT form of the record just decoded, whole, for a host that keeps every record:
// as retrieval writes it, except that a record 34 (which retrieval takes from the generic
// area) and a 98 or 99 longer than 255 bytes (which retrieval cuts to the low byte of its
// length) come from their structures at `length`, what the decoding step reported, and a
// record 29 is written as the parser reads it: with its clock block, without auxExtra.
// Returns the length written, 0 when it does not fit `capacity` or the type is not the
// one decoded.
std::uint16_t wholeDatForm(nvb_expand_t& state, std::int16_t recordType, std::uint16_t length, std::uint8_t* out,
                           std::size_t capacity);

}  // namespace nvb

#endif
