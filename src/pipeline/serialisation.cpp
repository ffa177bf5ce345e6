#include "pipeline/serialisation.h"

#include <nvbdll/records.h>

#include <cstring>

namespace nvb {

std::uint16_t retrieveLengthOf(const std::uint8_t* datHeader) {
    const std::uint8_t type = datHeader[3];
    switch (type) {
        case 0: case 1: case 2:
            return datHeader[2];
        case 12: case 17: case 27: case 29: case 101: case 102:
            return static_cast<std::uint16_t>(datHeader[1] | (datHeader[2] << 8));
        default:
            return datHeader[1];
    }
}

namespace {

// The generic area is the body behind the header for every type carried unread; a
// length that claims more than the area holds is cut to it.
void copyGeneric(const nvb_expand_t& state, std::uint8_t* out, std::size_t count) {
    if (state.records.generic == nullptr) return;
    if (count > sizeof state.records.generic->data) count = sizeof state.records.generic->data;
    std::memcpy(out + 4, state.records.generic->data, count);
}

}  // namespace

bool retrieveDATRecord(nvb_expand_t& state, std::int16_t recordType, std::uint8_t* out) {
    const std::uint8_t* header = state.records.datHeader;
    if (out == nullptr || header == nullptr || recordType != header[3]) return false;
    const std::uint16_t length = retrieveLengthOf(header);
    std::memcpy(out, header, 4);
    const std::size_t body = length >= 4 ? length - 4u : 0u;
    if (recordType < 5 || recordType > 99) {
        copyGeneric(state, out, body);
        return false;
    }
    switch (recordType) {
        case 16:
            if (state.records.rec16 == nullptr) return false;
            std::memcpy(out + 4, state.records.rec16->data,
                        body < sizeof state.records.rec16->data ? body : sizeof state.records.rec16->data);
            return true;
        default:
            copyGeneric(state, out, body);
            return false;
    }
}

}  // namespace nvb
