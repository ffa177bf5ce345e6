#ifndef NVB_RECORDS_POSITION_RECORDS_H
#define NVB_RECORDS_POSITION_RECORDS_H

#include "records/field_codec.h"

#include <nvbdll/records_position.h>
#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Reads a record 29 from a frame into the state's Rec29 and DAT header and returns the
// DAT length, 0 without the structures. With more than 116 satellites only the first
// block is decoded.
std::uint16_t readRec29(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7, bool mapSystem7To10);

// Reads a record 11 from a frame into the state's Rec11 and DAT header and returns the
// DAT length (2 nSv + 82), 0 without the structures.
std::uint16_t readRec11(const nvb_frame_t& frame, nvb_expand_t& state);

// DAT length of a record 29: its block lengths, list length and clock block length.
[[nodiscard]] std::uint16_t rec29DatLength(const Rec29& rec);

// The satellite lists of Rec11 are one area of 64 bytes: nSv channel bytes, then nSv
// satellite bytes right behind them, as in the DAT form.
inline constexpr std::size_t kRec11ListBytes = 2 * NVB_REC11_MAX_SV;
[[nodiscard]] std::uint8_t* rec11Lists(Rec11& rec);
[[nodiscard]] const std::uint8_t* rec11Lists(const Rec11& rec);

// Stream-form writers: the plain frame in `frame`, its length returned, 0 when it does
// not fit. The encode pipeline hands it on to the compact position coders.
std::uint16_t writeRec29(const Rec29& rec, nvb_frame_t& frame);
std::uint16_t writeRec11(const Rec11& rec, nvb_frame_t& frame);

// DAT parsers, as those of the measurement records: -1 without a structure, -2 for
// counts beyond its arrays, 0 otherwise.
int parseRec29Dat(DatReader& in, Rec29* rec);
int parseRec11Dat(DatReader& in, Rec11* rec);

}  // namespace nvb

#endif
