#ifndef NVB_RECORDS_DAT_PARSER_H
#define NVB_RECORDS_DAT_PARSER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// The rules by which a DAT header tells its record's length. Parsing takes a high byte for
// types 12, 17, 27, 29, 34, 98 and 99 (record 34 as its reader writes it, so that a long
// series is parsed whole); retrieval for 12, 17, 27, 29, 101 and 102, and byte 2 alone for
// types 0 to 2; the whole form that a host keeping every record writes, as retrieval and
// with the high byte of 34, 98 and 99 besides. Every other type has its length in byte 1.
[[nodiscard]] std::uint16_t parseDatLengthOf(const std::uint8_t* datHeader);
[[nodiscard]] std::uint16_t retrieveLengthOf(const std::uint8_t* datHeader);
[[nodiscard]] std::uint16_t wholeLengthOf(const std::uint8_t* datHeader);

// Parses a DAT record (header and structure) into the encode state's structure of its
// type, after copying the header into the state's DAT header area. `systemMask` is the
// dropMask that record 27 applies. Reads never pass the length the header announces.
// Returns that length, 0 for a type without a parser (above 102, or not built), a
// missing structure, or counts beyond the structure's arrays.
[[nodiscard]] std::uint16_t parseDATRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t systemMask);

}  // namespace nvb

#endif
