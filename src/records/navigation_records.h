#ifndef NVB_RECORDS_NAVIGATION_RECORDS_H
#define NVB_RECORDS_NAVIGATION_RECORDS_H

#include "records/field_walk.h"

#include <nvbdll/records_navigation.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace nvb {

// Readers: decode a plain frame into the state's structure and DAT header and return the
// DAT length, 0 without the structures or for a subtype without a layout. Record 28
// keeps what its subtype does not overwrite from the record before.
std::uint16_t readRec21(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec25(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec26(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7);
std::uint16_t readRec28(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7);

// What the encoder does with a record before its writer: write it, drop it as the
// host's dropMask or legacyMode asks, or refuse it (status 15) for want of a layout.
enum class NavFilter : std::uint8_t { Write, Drop, Refuse };
[[nodiscard]] NavFilter filterRec26(std::uint8_t subtype, std::uint8_t dropMask, bool legacyMode);
[[nodiscard]] NavFilter filterRec28(std::uint8_t subtype, std::uint8_t dropMask);

// Writers: the plain frame in `frame`, its length returned; 0 for a subtype they have no
// layout for (record 26 also says so on the log stream). The subtype of 25 and 26 comes
// from the DAT header, that of 28 from its structure.
std::uint16_t writeRec21(const Rec21& rec, nvb_frame_t& frame);
std::uint16_t writeRec25(const Rec25& rec, std::uint8_t subtype, nvb_frame_t& frame);
std::uint16_t writeRec26(const Rec26& rec, std::uint8_t subtype, nvb_frame_t& frame);
std::uint16_t writeRec28(const Rec28& rec, nvb_frame_t& frame);

// DAT parsers: -1 without a structure, 0 otherwise. `subtype` is byte 2 of the DAT header.
int parseRec21Dat(DatReader& in, Rec21* rec);
int parseRec25Dat(DatReader& in, Rec25* rec, std::uint8_t subtype);
int parseRec26Dat(DatReader& in, Rec26* rec, std::uint8_t subtype);
int parseRec28Dat(DatReader& in, Rec28* rec);

// Hands each field of the decoded record of `type` (21, 25, 26 or 28) to `sink`, as its
// DAT form holds it; `datLength` is what the decoding step reported. False for another
// type or a missing structure.
bool describeNavigationRecord(const nvb_expand_t& state, std::uint16_t type, std::uint32_t datLength,
                              const FieldSink& sink);

// The 24-bit shift register of the SBAS check (polynomial 0x864CFB, from 0, most
// significant bit first), run over the first `bitCount` bits and then 24 zero bits.
[[nodiscard]] std::uint32_t crc24q(std::span<const std::uint8_t> bytes, std::size_t bitCount);

// Preamble and check of an SBAS message whose receiver left them out: the preamble by
// time modulo 3, the check over the preamble and the 218 bits of the message body.
void completeSbasMessage(std::uint32_t time, Rec25Sub2& message);

}  // namespace nvb

#endif
