#include "records/dat_parser.h"

#include "records/auxiliary_records.h"
#include "records/field_codec.h"
#include "records/measurement_records.h"
#include "records/navigation_records.h"
#include "records/position_records.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"

#include <nvbdll/records.h>

#include <algorithm>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kHighestType = 102;

// Bodies of 14, 22, 23 and 24 go byte by byte into the generic area, as far as it holds.
int parseGenericDat(DatReader& in, RecGeneric* generic, std::uint16_t length) {
    if (generic == nullptr) return -1;
    if (length <= 4) return 0;
    const std::size_t count = std::min<std::size_t>(length - 4u, sizeof generic->data);
    for (std::size_t i = 0; i < count; ++i) generic->data[i] = datRead<std::uint8_t>(in);
    return 0;
}

}  // namespace

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

std::uint16_t parseDATRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t systemMask) {
    std::uint8_t* header = state.records.datHeader;
    if (header == nullptr || dat == nullptr) return 0;
    std::memcpy(header, dat, 4);
    const std::uint16_t length = parseDatLengthOf(dat);
    const std::uint8_t type = dat[3];
    if (type > kHighestType) return 0;
    DatReader in{dat, length, 4};
    int result = 0;
    switch (type) {
        case 11:
            result = parseRec11Dat(in, state.records.rec11);
            break;
        case 17:
            result = parseRec17Dat(in, state.records.rec17);
            break;
        case 27:
            result = parseRec27Dat(in, state.records.rec27, systemMask, header);
            break;
        case 29:
            result = parseRec29Dat(in, state.records.rec29);
            break;
        case 5:
            result = parseRec5Dat(in, state.records.rec5, header[2]);
            break;
        case 12:
            result = parseRec12Dat(in, state.records.rec12);
            break;
        case 15:
            result = parseRec15Dat(in, state.records.rec15);
            break;
        case 19:
            result = parseRec19Dat(in, state.records.rec19, header[2]);
            break;
        case 21:
            result = parseRec21Dat(in, state.records.rec21);
            break;
        case 25:
            result = parseRec25Dat(in, state.records.rec25, header[2]);
            break;
        case 26:
            result = parseRec26Dat(in, state.records.rec26, header[2]);
            break;
        case 28:
            result = parseRec28Dat(in, state.records.rec28);
            break;
        case 30:
            result = parseRec30Dat(in, state.records.rec30, header[2]);
            break;
        case 33:
            result = parseRec33Dat(in, state.records.rec33);
            break;
        case 20:
        case 31:
        case 32:
        case 34:
        case 40:
        case 98:
        case 99:
        case 101:
        case 102:
            result = parseAuxiliaryDat(state, type, in);
            break;
        case 14:
        case 22:
        case 23:
        case 24:
            result = parseGenericDat(in, state.records.generic, length);
            break;
        default:
            return 0;
    }
    return result < 0 ? 0 : length;
}

}  // namespace nvb
