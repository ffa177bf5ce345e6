#ifndef NVB_RECORDS_DAT_PARSER_H
#define NVB_RECORDS_DAT_PARSER_H

#include <nvbdll/state.h>

#include "records/field_codec.h"

#include <cstdint>

namespace nvb {

// The rules by which a DAT header tells its record's length. Parsing takes a high byte for
// types 12, 17, 27, 29, 34, 98 and 99 (record 34 as its reader writes it, so that a long
// series is parsed whole); retrieval for 12, 17, 27, 29, 101 and 102, and byte 2 alone for
// types 0 to 2; the whole form that a host keeping every record writes, as retrieval and
// with the high byte of 34, 35, 98 and 99 besides (a record 35 of 65535 bytes or more
// tells its length behind its subtypes). Every other type has its length in byte 1.
[[nodiscard]] std::uint16_t parseDatLengthOf(const std::uint8_t* datHeader);
[[nodiscard]] std::uint16_t retrieveLengthOf(const std::uint8_t* datHeader);
[[nodiscard]] std::uint16_t wholeLengthOf(const std::uint8_t* datHeader);

// Records 14, 22, 23 and 24: the body goes byte by byte into the generic area, as far as
// it holds. -1 without the area.
int parseGenericDat(DatReader& in, RecGeneric* generic, std::uint16_t length);

}  // namespace nvb

#endif
