#include "pipeline/serialisation.h"

#include "pipeline/record_routes.h"
#include "records/dat_parser.h"
#include "rec35/rec35_reader.h"
#include "records/field_codec.h"

#include <nvbdll/records.h>

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace nvb {

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

void writeClockFields(const ClockSystemBlock& clock, DatWriter& out) {
    const std::size_t terms = std::min<std::size_t>(clock.count, NVB_MAX_CLOCK_TERMS);
    datWrite(out, clock.blockLength);
    datWrite(out, clock.referenceSystem);
    datWrite(out, clock.count);
    datPut(out, clock.rt_clktype, terms);
    datPut(out, clock.systemClockOffset, terms * sizeof(double));
}

// Retrieval writes a record 29 without its clock block, although its DAT length counts
// it, and with auxExtra, which the parser does not read. The whole form a host keeps
// every record in is what the parser reads instead: the clock block, and no auxExtra,
// which no wire form carries.
enum class Rec29Form : std::uint8_t { Retrieval, Whole };

void writeRec29Fields(const Rec29& rec, DatWriter& out, Rec29Form form) {
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
        if (form == Rec29Form::Retrieval && (rec.auxStatus & 0x01) != 0) datWrite(out, rec.auxExtra);
    }
    if (form == Rec29Form::Whole && (rec.posFlags & 0x10) != 0) writeClockFields(rec.clock, out);
    datWrite(out, rec.svListLen);
    datPut(out, rec.sv, 3u * std::min<std::size_t>(rec.numSVs, NVB_MAX_SV));
}

}  // namespace

void writeDatFields(Rec27& rec, DatWriter& out) {
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
    if ((rec.epochFlags & 0x20) != 0) writeClockFields(rec.clock, out);
    for (int i = 0; i < svCount; ++i) {
        Rec27Sv& sv = rec.sv[i];
        // The packed system byte repeats the low two bits of the system on top, and is
        // stored back: a second retrieval of the same record packs it again.
        sv.rt_sattype = static_cast<std::uint8_t>(sv.rt_sattype * 65);
        // In DAT order but for the antenna number, which the packed system byte carries.
        datPut(out, &sv.svBlockLen, offsetof(Rec27Sv, antennaNumber));
        datPut(out, &sv.channel, offsetof(Rec27Sv, svFlags2) - offsetof(Rec27Sv, channel));
        if ((sv.svFlags & 0x80) != 0) datPut(out, &sv.svFlags2, (sv.svFlags2 & 0x80) != 0 ? 4 : 1);
        const int measCount = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
        for (int j = 0; j < measCount; ++j) {
            // The block's fields stand in the structure in their DAT order, the flag bytes
            // behind: one copy, cut where the field-by-field copy would be.
            const Rec27Meas& meas = sv.meas[j];
            std::size_t bytes = offsetof(Rec27Meas, measFlags2);
            if ((meas.measFlags1 & 0x80) != 0) bytes += (meas.measFlags2 & 0x80) != 0 ? 2 : 1;
            datPut(out, &meas, bytes);
        }
    }
}

void writeDatFields(const Rec17& rec, DatWriter& out) {
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

void writeDatFields(const Rec29& rec, DatWriter& out) { writeRec29Fields(rec, out, Rec29Form::Retrieval); }


std::uint16_t writeDatForm(Rec27& rec, std::uint8_t* out, std::size_t capacity) {
    if (capacity < 4) return 0;
    DatWriter fields{out + 4, capacity - 4};
    writeDatFields(rec, fields);
    return closeDatForm(out, fields, 27);
}

std::uint16_t writeDatForm(const Rec29& rec, std::uint8_t* out, std::size_t capacity) {
    if (capacity < 4) return 0;
    DatWriter fields{out + 4, capacity - 4};
    writeDatFields(rec, fields);
    return closeDatForm(out, fields, 29);
}

std::uint16_t writeDatForm(const Rec17& rec, std::uint8_t* out, std::size_t capacity) {
    if (capacity < 4) return 0;
    DatWriter fields{out + 4, capacity - 4};
    writeDatFields(rec, fields);
    return closeDatForm(out, fields, 17);
}

bool retrieveDATRecord(nvb_expand_t& state, std::int16_t recordType, std::uint8_t* out) {
    const std::uint8_t* header = state.records.datHeader;
    if (out == nullptr || header == nullptr || recordType != header[3]) return false;
    if (recordType == 35) return writeRec35Dat(state, out);
    const std::uint16_t length = retrieveLengthOf(header);
    std::memcpy(out, header, 4);
    const std::size_t body = length >= 4 ? length - 4u : 0u;
    // The forms of a type's own never write beyond the length its header announces,
    // which is what the caller made room for.
    const ReadRoute& route = readRouteOf(header[3]);
    if (recordType >= 5 && recordType <= 99 && route.retrieve != nullptr) {
        DatWriter fields{out + 4, body};
        return route.retrieve(state, fields);
    }
    copyGeneric(state, out, body);
    return false;
}

std::uint16_t wholeDatForm(nvb_expand_t& state, std::int16_t recordType, std::uint16_t length, std::uint8_t* out,
                           std::size_t capacity) {
    const nvb_record_table_t& records = state.records;
    const bool wide = (recordType == 98 || recordType == 99) && length > 0xFF;
    if (out == nullptr || records.datHeader == nullptr || recordType != records.datHeader[3]) return 0;
    if (recordType == 29 && records.rec29 != nullptr && capacity >= 4) {
        DatWriter fields{out + 4, capacity - 4};
        writeRec29Fields(*records.rec29, fields, Rec29Form::Whole);
        return closeDatForm(out, fields, 29);
    }
    if (recordType != 34 && !wide) {
        const std::uint16_t retrieved = retrieveLengthOf(records.datHeader);
        if (capacity < retrieved) return 0;
        retrieveDATRecord(state, recordType, out);
        return retrieved;
    }
    if (capacity < length || length < 4) return 0;
    std::memcpy(out, records.datHeader, 4);
    DatWriter fields{out + 4, length - 4u};
    if (recordType == 34) {
        if (records.rec34 != nullptr) datPut(fields, records.rec34, std::min<std::size_t>(fields.capacity, sizeof(Rec34)));
    } else {
        readRouteOf(static_cast<std::uint16_t>(recordType)).retrieve(state, fields);
    }
    return length;
}

}  // namespace nvb
