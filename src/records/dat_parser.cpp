#include "records/dat_parser.h"

#include "records/field_codec.h"

#include <nvbdll/records.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>

namespace nvb {

int parseGenericDat(DatReader& in, RecGeneric* generic, std::uint16_t length) {
    if (generic == nullptr) return -1;
    if (length <= 4) return 0;
    const std::size_t count = std::min<std::size_t>(length - 4u, sizeof generic->data);
    for (std::size_t i = 0; i < count; ++i) generic->data[i] = datRead<std::uint8_t>(in);
    return 0;
}

namespace {

// The length in bytes 1 and 2 for the types of `wide`, in byte 1 for every other type.
std::uint16_t lengthOf(const std::uint8_t* datHeader, std::initializer_list<std::uint8_t> wide) {
    for (const std::uint8_t type : wide) {
        if (datHeader[3] == type) return static_cast<std::uint16_t>(datHeader[1] | (datHeader[2] << 8));
    }
    return datHeader[1];
}

}  // namespace

std::uint16_t parseDatLengthOf(const std::uint8_t* datHeader) {
    return lengthOf(datHeader, {12, 17, 27, 29, 34, 98, 99});
}

std::uint16_t retrieveLengthOf(const std::uint8_t* datHeader) {
    if (datHeader[3] <= 2) return datHeader[2];
    return lengthOf(datHeader, {12, 17, 27, 29, 101, 102});
}

std::uint16_t wholeLengthOf(const std::uint8_t* datHeader) {
    const std::uint8_t type = datHeader[3];
    return type == 34 || type == 35 || type == 98 || type == 99 ? lengthOf(datHeader, {type})
                                                                 : retrieveLengthOf(datHeader);
}

}  // namespace nvb
