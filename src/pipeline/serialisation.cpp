#include "pipeline/serialisation.h"

#include "records/auxiliary_records.h"
#include "rec35/rec35_reader.h"
#include "records/field_codec.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"

#include <nvbdll/records.h>

#include <algorithm>
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

// The header of a DAT form whose fields have just been written; 0 when they did not fit.
std::uint16_t closeDatForm(std::uint8_t* out, const DatWriter& fields, std::uint8_t type) {
    const std::size_t length = fields.position + 4;
    if (fields.position > fields.capacity || length > 0xFFFF) return 0;
    out[0] = 0x74;
    out[1] = static_cast<std::uint8_t>(length);
    out[2] = static_cast<std::uint8_t>(length >> 8);
    out[3] = type;
    return static_cast<std::uint16_t>(length);
}

// The generic area is the body behind the header for every type carried unread; a
// length that claims more than the area holds is cut to it.
void copyGeneric(const nvb_expand_t& state, std::uint8_t* out, std::size_t count) {
    if (state.records.generic == nullptr) return;
    if (count > sizeof state.records.generic->data) count = sizeof state.records.generic->data;
    std::memcpy(out + 4, state.records.generic->data, count);
}

struct PlainStructure {
    const void* data;
    std::size_t size;
};

// Types whose DAT form is their structure as it stands, with the size allocated for it;
// a length that claims more than the structure holds is cut to it.
PlainStructure plainStructureOf(const nvb_expand_t& state, std::int16_t type) {
    const nvb_record_table_t& records = state.records;
    switch (type) {
        case 5: return {records.rec5, sizeof(Rec5)};
        case 11: return {records.rec11, sizeof(Rec11)};
        case 12: return {records.rec12, 832};
        case 15: return {records.rec15, 120};
        case 16: return {records.rec16, 250};
        case 19: return {records.rec19, 259};
        case 21: return {records.rec21, 186};
        case 25: return {records.rec25, 204};
        case 26: return {records.rec26, 139};
        case 28: return {records.rec28, 214};
        case 31: return {records.rec31, 260};
        case 32: return {records.rec32, 99};
        case 40: return {records.rec40, 187};
        case 99: return {records.rec99, 4103};
        default: return {nullptr, 0};
    }
}

void writeRec27Dat(Rec27& rec, DatWriter& out) {
    const int svCount = std::min<int>(rec.nSv, NVB_MAX_SV);
    std::uint8_t firstAntenna = 0;
    for (int i = 0; i < svCount; ++i) firstAntenna += rec.sv[i].antennaNumber == 0 ? 1 : 0;
    datWrite(out, rec.epochHeaderLen);
    datWrite(out, rec.weekNum);
    datWrite(out, rec.receiveTime);
    datWrite(out, rec.clkOffset);
    // The count stands where nSv would, and only counts the first antenna's satellites,
    // while every satellite follows.
    datWrite(out, firstAntenna);
    datWrite(out, rec.epochFlags);
    if ((rec.epochFlags & 0x02) != 0) datWrite(out, rec.clkDrift);
    if ((rec.epochFlags & 0x10) != 0) datWrite(out, rec.raimFault);
    if ((rec.epochFlags & 0x20) != 0) {
        const ClockSystemBlock& clock = rec.clock;
        const std::size_t count = std::min<std::size_t>(clock.count, NVB_MAX_CLOCK_TERMS);
        datWrite(out, clock.blockLength);
        datWrite(out, clock.referenceSystem);
        datWrite(out, clock.count);
        datPut(out, clock.rt_clktype, count);
        datPut(out, clock.systemClockOffset, 8 * count);
    }
    for (int i = 0; i < svCount; ++i) {
        Rec27Sv& sv = rec.sv[i];
        // The packed system byte repeats the low two bits of the system on top, and is
        // stored back: a second retrieval of the same record packs it again.
        sv.rt_sattype = static_cast<std::uint8_t>(sv.rt_sattype * 65);
        datWrite(out, sv.svBlockLen);
        datWrite(out, sv.svId);
        datWrite(out, sv.rt_sattype);
        datWrite(out, sv.channel);
        datWrite(out, sv.nMeas);
        datWrite(out, sv.elevation);
        datWrite(out, sv.azimuth);
        datWrite(out, sv.svFlags);
        if ((sv.svFlags & 0x80) != 0) {
            datWrite(out, sv.svFlags2);
            if ((sv.svFlags2 & 0x80) != 0) datPut(out, &sv.geomSlipCount, 3);
        }
        const int measCount = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
        for (int j = 0; j < measCount; ++j) {
            const Rec27Meas& meas = sv.meas[j];
            datWrite(out, meas.measBlockLen);
            datWrite(out, meas.blockType);
            datWrite(out, meas.trackType);
            datWrite(out, meas.snr);
            datWrite(out, meas.range);
            datWrite(out, meas.phase);
            datWrite(out, meas.doppler);
            datWrite(out, meas.slipCount);
            datWrite(out, meas.measFlags1);
            if ((meas.measFlags1 & 0x80) != 0) {
                datWrite(out, meas.measFlags2);
                if ((meas.measFlags2 & 0x80) != 0) datWrite(out, meas.measFlags3);
            }
        }
    }
}

void writeRec17Dat(const Rec17& rec, DatWriter& out) {
    datWrite(out, rec.receiveTime);
    datWrite(out, rec.clkOffset);
    datWrite(out, rec.nSv);
    const int count = std::min<int>(rec.nSv, NVB_REC17_MAX_SV);
    for (int i = 0; i < count; ++i) {
        const Rec17Sv& sv = rec.sv[i];
        datPut(out, &sv.svId, 4);
        datWrite(out, sv.elevation);
        datWrite(out, sv.azimuth);
        datPut(out, &sv.snr, 5 * sizeof(double));
        if ((sv.svFlags & 0x01) != 0) {
            datPut(out, &sv.snr2, 3 * sizeof(double));
            if ((sv.svFlags2 & 0x20) != 0) datWrite(out, sv.last);
        }
    }
}

// The clock block of a record 29 is not part of this form, although its DAT length
// counts it.
void writeRec29Dat(const Rec29& rec, DatWriter& out) {
    constexpr std::size_t kFirstTwoBlocks = 108;
    datPut(out, &rec, kFirstTwoBlocks);
    if (rec.fixType >= 3 && rec.fixType <= 6) {
        datWrite(out, rec.block3Len);
        datWrite(out, rec.corrInfo);
        datWrite(out, rec.corrAge);
        datWrite(out, rec.corrFlags);
        if ((rec.corrFlags & 0x01) != 0) datWrite(out, rec.corrExtra);
        if ((rec.corrFlags & 0x02) != 0) datPut(out, rec.corrVector, 3 * sizeof(float));
        if ((rec.corrFlags & 0x04) != 0) datWrite(out, rec.corrCount);
    }
    if ((rec.posFlags & 0x02) != 0) {
        datWrite(out, rec.block4Len);
        datWrite(out, rec.auxValueA);
        datWrite(out, rec.auxValueB);
        datWrite(out, rec.auxStatus);
        if ((rec.auxStatus & 0x01) != 0) datWrite(out, rec.auxExtra);
    }
    datWrite(out, rec.svListLen);
    datPut(out, rec.sv, 3u * std::min<std::size_t>(rec.numSVs, NVB_MAX_SV));
}

}  // namespace

std::uint16_t writeDatForm(Rec27& rec, std::uint8_t* out, std::size_t capacity) {
    if (capacity < 4) return 0;
    DatWriter fields{out + 4, capacity - 4};
    writeRec27Dat(rec, fields);
    return closeDatForm(out, fields, 27);
}

std::uint16_t writeDatForm(const Rec29& rec, std::uint8_t* out, std::size_t capacity) {
    if (capacity < 4) return 0;
    DatWriter fields{out + 4, capacity - 4};
    writeRec29Dat(rec, fields);
    return closeDatForm(out, fields, 29);
}

std::uint16_t writeDatForm(const Rec17& rec, std::uint8_t* out, std::size_t capacity) {
    if (capacity < 4) return 0;
    DatWriter fields{out + 4, capacity - 4};
    writeRec17Dat(rec, fields);
    return closeDatForm(out, fields, 17);
}

bool retrieveDATRecord(nvb_expand_t& state, std::int16_t recordType, std::uint8_t* out) {
    const std::uint8_t* header = state.records.datHeader;
    if (out == nullptr || header == nullptr || recordType != header[3]) return false;
    if (recordType == 35) return writeRec35Dat(state, out);
    const std::uint16_t length = retrieveLengthOf(header);
    std::memcpy(out, header, 4);
    const std::size_t body = length >= 4 ? length - 4u : 0u;
    if (recordType < 5 || recordType > 99) {
        copyGeneric(state, out, body);
        return false;
    }
    // The field-by-field forms never write beyond the length their header announces,
    // which is what the caller made room for.
    DatWriter fields{out + 4, body};
    switch (recordType) {
        case 17:
            if (state.records.rec17 == nullptr) return false;
            writeRec17Dat(*state.records.rec17, fields);
            return true;
        case 27:
            if (state.records.rec27 == nullptr) return false;
            writeRec27Dat(*state.records.rec27, fields);
            return true;
        case 29:
            if (state.records.rec29 == nullptr) return false;
            writeRec29Dat(*state.records.rec29, fields);
            return true;
        case 30:
            // A section count that promises more than the sections hold leaves the rest
            // of the announced length as zeros, not as whatever the host's buffer held.
            if (state.records.rec30 == nullptr) return false;
            std::memset(out + 4, 0, body);
            putRec30Dat(*state.records.rec30, header[2], fields);
            return true;
        case 33:
            if (state.records.rec33 == nullptr) return false;
            writeRec33Dat(*state.records.rec33, fields);
            return true;
        case 98:
            if (state.records.rec98 == nullptr) return false;
            writeRec98Dat(*state.records.rec98, fields);
            return true;
        default:
            break;
    }
    if (const PlainStructure plain = plainStructureOf(state, recordType); plain.size > 0) {
        if (plain.data == nullptr) return false;
        const std::size_t copied = std::min(body, plain.size);
        std::memcpy(out + 4, plain.data, copied);
        // A length beyond the structure (a record 12 of more pairs than it holds) is
        // filled with zeros rather than left as the host's buffer held it.
        std::memset(out + 4 + copied, 0, body - copied);
        return true;
    }
    copyGeneric(state, out, body);
    return false;
}

std::uint16_t wholeDatForm(nvb_expand_t& state, std::int16_t recordType, std::uint16_t length, std::uint8_t* out,
                           std::size_t capacity) {
    const nvb_record_table_t& records = state.records;
    const bool wide = (recordType == 98 || recordType == 99) && length > 0xFF;
    if (out == nullptr || records.datHeader == nullptr || recordType != records.datHeader[3]) return 0;
    if (recordType != 34 && !wide) {
        const std::uint16_t retrieved = retrieveLengthOf(records.datHeader);
        if (capacity < retrieved) return 0;
        retrieveDATRecord(state, recordType, out);
        return retrieved;
    }
    if (capacity < length || length < 4) return 0;
    std::memcpy(out, records.datHeader, 4);
    DatWriter fields{out + 4, length - 4u};
    if (recordType == 34 && records.rec34 != nullptr) {
        datPut(fields, records.rec34, std::min<std::size_t>(fields.capacity, sizeof(Rec34)));
    } else if (recordType == 98 && records.rec98 != nullptr) {
        writeRec98Dat(*records.rec98, fields);
    } else if (recordType == 99 && records.rec99 != nullptr) {
        datPut(fields, records.rec99, std::min<std::size_t>(fields.capacity, sizeof(Rec99)));
    }
    return length;
}

}  // namespace nvb
