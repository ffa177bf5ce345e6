#ifndef NVB_RECORDS_OPAQUE_RECORDS_H
#define NVB_RECORDS_OPAQUE_RECORDS_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Writes the four-byte DAT header: 0x74, length low, length high or subtype, type.
void setDatHeader(std::uint8_t* header, std::uint8_t lengthLow, std::uint8_t byte2, std::uint8_t type);

// A DAT length taken from a frame too short to hold even the DAT header is raised to the
// header's four bytes: retrieval writes the header, and the host makes room for the length.
[[nodiscard]] constexpr std::uint16_t atLeastDatHeader(std::uint16_t length) {
    return length > 0 && length < 4 ? 4 : length;
}

// Records 14 and 23: the body from offset 3 goes unread into the generic area.
// Returns the DAT length (frame length minus 2), 0 without the structures.
std::uint16_t readGenericRecord(const nvb_frame_t& frame, nvb_expand_t& state);

// Record 16: the subtype at offset 3 goes to the DAT header, the body from offset 4
// unread into Rec16. Returns the DAT length (frame length minus 3), 0 without the structures.
std::uint16_t readRec16(const nvb_frame_t& frame, nvb_expand_t& state);

}  // namespace nvb

#endif
