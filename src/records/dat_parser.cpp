#include "records/dat_parser.h"

#include "records/field_codec.h"

#include <nvbdll/records.h>

#include <algorithm>
#include <cstring>

namespace nvb {

int parseGenericDat(DatReader& in, RecGeneric* generic, std::uint16_t length) {
    if (generic == nullptr) return -1;
    if (length <= 4) return 0;
    const std::size_t count = std::min<std::size_t>(length - 4u, sizeof generic->data);
    for (std::size_t i = 0; i < count; ++i) generic->data[i] = datRead<std::uint8_t>(in);
    return 0;
}

std::uint16_t parseDatLengthOf(const std::uint8_t* datHeader) {
    switch (datHeader[3]) {
        case 12:
        case 17:
        case 27:
        case 29:
        case 34:
        case 98:
        case 99:
            return static_cast<std::uint16_t>(datHeader[1] | (datHeader[2] << 8));
        default:
            return datHeader[1];
    }
}

std::uint16_t retrieveLengthOf(const std::uint8_t* datHeader) {
    switch (datHeader[3]) {
        case 0:
        case 1:
        case 2:
            return datHeader[2];
        case 12:
        case 17:
        case 27:
        case 29:
        case 101:
        case 102:
            return static_cast<std::uint16_t>(datHeader[1] | (datHeader[2] << 8));
        default:
            return datHeader[1];
    }
}

std::uint16_t wholeLengthOf(const std::uint8_t* datHeader) {
    switch (datHeader[3]) {
        case 34:
        case 98:
        case 99:
            return static_cast<std::uint16_t>(datHeader[1] | (datHeader[2] << 8));
        default:
            return retrieveLengthOf(datHeader);
    }
}

}  // namespace nvb
