#ifndef NVB_RECORDS_DAT_PARSER_H
#define NVB_RECORDS_DAT_PARSER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// The DAT length that a DAT header describes under the parsing rule: a high byte for
// types 12, 17, 27, 29, 34, 98 and 99, the low byte alone for every other type. Record
// 34 takes its high byte as its reader writes it, so that a long series is parsed whole.
[[nodiscard]] std::uint16_t parseDatLengthOf(const std::uint8_t* datHeader);

// Parses a DAT record (header and structure) into the encode state's structure of its
// type, after copying the header into the state's DAT header area. `systemMask` is the
// dropMask that record 27 applies. Reads never pass the length the header announces.
// Returns that length, 0 for a type without a parser (above 102, or not built), a
// missing structure, or counts beyond the structure's arrays.
[[nodiscard]] std::uint16_t parseDATRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t systemMask);

}  // namespace nvb

#endif
