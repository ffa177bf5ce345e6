#ifndef NVB_REC35_REC35_READER_H
#define NVB_REC35_REC35_READER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// The DAT length of a record 35 with this many payload bytes.
[[nodiscard]] std::uint64_t rec35DatLength(std::uint32_t payloadLength);

// The dispatch on the subtype of the assembled record: the raw and test areas, the Avro
// subtypes' decode entries; any other number is carried undecoded. Reports type 35 and
// the payload length, type 0 and length 0 for a schema record while they are swallowed,
// or type 65535 and length 0 with the decoder's status.
void readRec35BufferContent(rec35_assembly_t& assembly, rec35_content_t& content, std::uint16_t& recordType,
                            std::uint32_t& length, std::uint8_t& status);

// Decodes the complete record and fills the DAT header. Returns the DAT length, 0 when
// nothing is delivered (no content, a swallowed schema record, a dropped subtype 260, a
// failure); `recordType` as the dispatch leaves it.
std::uint32_t readRec35Buffer(rec35_assembly_t& assembly, nvb_expand_t& state, std::uint16_t& recordType,
                              std::uint8_t& status);

// What the getter reports for a complete record: 57 for subtype 2 and 38 for subtypes 9
// and 19 where the conversion options say they become another record, else 35.
[[nodiscard]] std::int32_t rec35ReportedType(const nvb_expand_t& state);

// Writes the DAT form of the record just decoded: the header, subtype, subsubtype,
// payload length and payload. False when there is no content.
bool writeRec35Dat(const nvb_expand_t& state, std::uint8_t* out);

}  // namespace nvb

#endif
