#include "records/opaque_records.h"

#include <nvbdll/records.h>

#include <algorithm>
#include <cstring>

namespace nvb {

namespace {

// Copies the body that starts at `offset` and leaves `trailer` bytes of checksum and end
// byte behind it, bounded by the destination area.
void copyBody(const nvb_frame_t& frame, std::size_t offset, std::size_t trailer, std::uint8_t* area,
              std::size_t areaSize) {
    std::memset(area, 0, areaSize);
    if (frame.length < offset + trailer) return;
    const std::size_t count = std::min<std::size_t>(frame.length - offset - trailer, areaSize);
    std::memcpy(area, frame.data + offset, count);
}

}  // namespace

void setDatHeader(std::uint8_t* header, std::uint8_t lengthLow, std::uint8_t byte2, std::uint8_t type) {
    header[0] = 0x74;
    header[1] = lengthLow;
    header[2] = byte2;
    header[3] = type;
}

std::uint16_t readGenericRecord(const nvb_frame_t& frame, nvb_expand_t& state) {
    if (state.records.generic == nullptr || state.records.datHeader == nullptr) return 0;
    copyBody(frame, 3, 3, state.records.generic->data, sizeof state.records.generic->data);
    const auto datLength = atLeastDatHeader(static_cast<std::uint16_t>(frame.length >= 2 ? frame.length - 2 : 0));
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(datLength), 0, frame.data[2]);
    return datLength;
}

std::uint16_t readRec16(const nvb_frame_t& frame, nvb_expand_t& state) {
    if (state.records.rec16 == nullptr || state.records.datHeader == nullptr) return 0;
    copyBody(frame, 4, 3, state.records.rec16->data, sizeof state.records.rec16->data);
    const auto datLength = atLeastDatHeader(static_cast<std::uint16_t>(frame.length >= 3 ? frame.length - 3 : 0));
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(datLength), frame.data[3], 16);
    return datLength;
}

}  // namespace nvb
