#ifndef NVB_RECORDS_AUXILIARY_RECORDS_H
#define NVB_RECORDS_AUXILIARY_RECORDS_H

#include "records/field_walk.h"

#include <nvbdll/records_auxiliary.h>
#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Readers of the auxiliary records 31, 32, 34, 40, 98 and 99: each fills the state's
// structure and DAT header from a plain frame and returns the DAT length, 0 without the
// structures (and for a record 32 of a subtype other than 2 to 6). Counts and payloads
// are cut to the structure: 20 entries of a 40, 1024 payload bytes of a 98, 4096 of a 99
// once inflated, 104 or 50 entries of a 34, or 1253 bytes of a 34 of another kind.
std::uint16_t readRec31(const nvb_frame_t& frame, nvb_expand_t& state);
// Leaves what a shorter subtype does not reach as the previous record left it.
std::uint16_t readRec32(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec34(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec40(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec98(const nvb_frame_t& frame, nvb_expand_t& state);
// A payload flagged 1 is inflated; when that fails the length is 4096 + 11 and the
// payload holds what came out before the failure.
std::uint16_t readRec99(const nvb_frame_t& frame, nvb_expand_t& state);

// The stream form of the record of `type` (20, 31, 32, 34, 98 or 99) that the encode
// state's structure and DAT header hold, into the state's frame. False when it can't be
// written: a missing structure, a subtype without a stream form, or a frame longer than
// its length bytes can tell.
[[nodiscard]] bool writeAuxiliaryFrame(nvb_encode_t& state, std::uint8_t type);
// Record 40 in its plain form into `frame`; the encoder hands it on as its compact carrier.
[[nodiscard]] bool writeRec40(const Rec40& rec, std::uint8_t subtype, nvb_frame_t& frame);

// DAT parsers of 20 (into the generic area, as it has no structure of its own), 31, 32,
// 34, 40, 98, 99, 101 and 102: -1 without a structure, -2 for counts or payloads beyond
// the structure, 0 otherwise.
int parseAuxiliaryDat(nvb_encode_t& state, std::uint8_t type, DatReader& in);

// The DAT form of a record 98 behind its header: the extra byte goes only where the
// flags announce it, so the announced length holds the whole payload.
void writeRec98Dat(const Rec98& rec, DatWriter& out);

// Hands each field of the decoded record of `type` (31, 32, 34, 40, 98 or 99) to `sink`;
// `datLength` is what the decoding step reported. False for another type.
bool describeAuxiliaryRecord(const nvb_expand_t& state, std::uint16_t type, std::uint32_t datLength,
                             const FieldSink& sink);

}  // namespace nvb

#endif
