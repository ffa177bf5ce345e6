#include "pipeline/record_routes.h"

#include <nvbdll/records.h>

#include "external/su/compact_compressors.h"
#include "external/su/delta_epoch.h"
#include "external/su/epoch_compressor.h"
#include "external/su/list_codec.h"
#include "external/su/obs_codec.h"
#include "external/su/position_codec.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"
#include "external/su/solution_codec.h"
#include "external/su/subframe_cache.h"
#include "pipeline/serialisation.h"
#include "records/auxiliary_records.h"
#include "records/dat_parser.h"
#include "records/measurement_records.h"
#include "records/opaque_records.h"
#include "records/navigation_records.h"
#include "records/position_records.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>
#include <utility>

namespace nvb {

namespace {

// Readers, by the form their arguments take.
std::uint16_t readGeneric(nvb_expand_t& state) { return readGenericRecord(state.plainFrame, state); }
std::uint16_t read16(nvb_expand_t& state) { return readRec16(state.plainFrame, state); }
std::uint16_t read11(nvb_expand_t& state) { return readRec11(state.plainFrame, state); }
std::uint16_t read17(nvb_expand_t& state) { return readRec17(state.plainFrame, state, state.rec17Work); }
std::uint16_t read29(nvb_expand_t& state) {
    return readRec29(state.plainFrame, state, state.mapSystem5To7 != 0, state.mapSystem7To10 != 0);
}
std::uint16_t read33(nvb_expand_t& state) {
    return readRec33(state.plainFrame, state, state.mapSystem5To7 != 0, state.mapSystem7To10 != 0);
}
template <std::uint16_t (*Read)(const nvb_frame_t&, nvb_expand_t&)>
std::uint16_t readPlain(nvb_expand_t& state) {
    return Read(state.plainFrame, state);
}
std::uint16_t read27(nvb_expand_t& state) {
    const Rec27ReadOptions options{state.dopplerControl, state.mapSystem5To7 != 0, state.mapSystem7To10 != 0,
                                   state.keepAllSvBlocks != 0};
    const ByteView body = frameBytes(state.plainFrame).subspan(4);
    return readRec27(body, state, state.previousEpochs, options);
}

template <std::uint16_t (*Read)(const nvb_frame_t&, nvb_expand_t&, bool)>
std::uint16_t readMapped(nvb_expand_t& state) {
    return Read(state.plainFrame, state, state.mapSystem5To7 != 0);
}
std::uint16_t read19(nvb_expand_t& state) {
    return readRec19(state.plainFrame, state, reinterpret_cast<TrackingSlots*>(state.trackingSlots));
}

// A new reference description (record 30 of subtype 0) starts the first-generation
// record 17 history over, except for the first one.
std::uint16_t read30(nvb_expand_t& state) {
    const std::uint16_t length = readRec30(state.plainFrame, state);
    if (length != 0) applyRec30ToFirstGeneration(state, state.records.datHeader[2]);
    return length;
}

// The compact expanders, by the pair of arguments the dispatch gives them; each reports
// its own status, which the dispatch folds into 7.
template <std::uint8_t (*Step)(nvb_expand_t&, std::uint8_t&, bool)>
std::uint8_t expandFramed(nvb_expand_t& state, bool framed) {
    std::uint8_t status = 0;
    return Step(state, status, framed);
}

template <std::uint8_t (*Step)(nvb_expand_t&, std::uint8_t&)>
std::uint8_t expandAlone(nvb_expand_t& state, bool) {
    std::uint8_t status = 0;
    return Step(state, status);
}

template <bool IsType36>
std::uint8_t expandDelta(nvb_expand_t& state, bool framed) {
    std::uint8_t status = 0;
    return processType37(state, status, framed, IsType36);
}

// The DAT form of a type whose structure goes as it stands, cut to the length reported.
// A length beyond the structure (a record 12 of more pairs than it holds) is filled with
// zeros rather than left as the host's buffer held it.
template <auto Slot>
bool retrieveStructure(nvb_expand_t& state, DatWriter& out) {
    const auto* structure = state.records.*Slot;
    if (structure == nullptr) return false;
    const std::size_t copied = std::min(out.capacity, sizeof *structure);
    std::memcpy(out.data, structure, copied);
    std::memset(out.data + copied, 0, out.capacity - copied);
    return true;
}

// The DAT forms written field by field, one overload per structure.
using nvb::writeDatFields;
void writeDatFields(const Rec33& rec, DatWriter& out) { writeRec33Dat(rec, out); }
void writeDatFields(const Rec98& rec, DatWriter& out) { writeRec98Dat(rec, out); }

// A section count that promises more than the sections hold leaves the rest of the
// announced length as zeros, not as whatever the host's buffer held.
bool retrieve30(nvb_expand_t& state, DatWriter& out) {
    if (state.records.rec30 == nullptr) return false;
    std::memset(out.data, 0, out.capacity);
    putRec30Dat(*state.records.rec30, state.records.datHeader[2], out);
    return true;
}

template <auto Slot>
bool retrieveFields(nvb_expand_t& state, DatWriter& out) {
    if (state.records.*Slot == nullptr) return false;
    writeDatFields(*(state.records.*Slot), out);
    return true;
}

constexpr std::array<ReadRoute, 256> makeReadRoutes() {
    using T = nvb_record_table_t;
    std::array<ReadRoute, 256> routes{};
    routes[5] = {5, nullptr, readPlain<readRec5>, Thinning::None, retrieveStructure<&T::rec5>};
    routes[11] = {11, nullptr, read11, Thinning::Position11, retrieveStructure<&T::rec11>};
    routes[12] = {12, nullptr, readPlain<readRec12>, Thinning::None, retrieveStructure<&T::rec12>};
    routes[14] = {14, nullptr, readGeneric, Thinning::None, nullptr};
    routes[15] = {15, nullptr, readPlain<readRec15>, Thinning::None, retrieveStructure<&T::rec15>};
    routes[16] = {16, nullptr, read16, Thinning::None, retrieveStructure<&T::rec16>};
    routes[17] = {17, nullptr, read17, Thinning::Epoch17, retrieveFields<&T::rec17>};
    routes[19] = {19, nullptr, read19, Thinning::None, retrieveStructure<&T::rec19>};
    routes[21] = {21, nullptr, readPlain<readRec21>, Thinning::None, retrieveStructure<&T::rec21>};
    routes[22] = {22, nullptr, readPlain<readRec22>, Thinning::None, nullptr};
    routes[23] = {23, nullptr, readGeneric, Thinning::None, nullptr};
    routes[24] = {24, nullptr, readPlain<readRec24>, Thinning::None, nullptr};
    routes[25] = {25, nullptr, readPlain<readRec25>, Thinning::None, retrieveStructure<&T::rec25>};
    routes[26] = {26, nullptr, readMapped<readRec26>, Thinning::None, retrieveStructure<&T::rec26>};
    routes[27] = {27, nullptr, read27, Thinning::Epoch27, retrieveFields<&T::rec27>};
    routes[28] = {28, nullptr, readMapped<readRec28>, Thinning::None, retrieveStructure<&T::rec28>};
    routes[29] = {29, nullptr, read29, Thinning::Position29, retrieveFields<&T::rec29>};
    routes[30] = {30, nullptr, read30, Thinning::None, retrieve30};
    routes[31] = {31, nullptr, readPlain<readRec31>, Thinning::None, retrieveStructure<&T::rec31>};
    routes[32] = {32, nullptr, readPlain<readRec32>, Thinning::None, retrieveStructure<&T::rec32>};
    routes[33] = {33, nullptr, read33, Thinning::None, retrieveFields<&T::rec33>};
    routes[34] = {34, nullptr, readPlain<readRec34>, Thinning::None, nullptr};
    routes[36] = {27, expandDelta<true>, read27, Thinning::Epoch27, nullptr};
    routes[37] = {27, expandDelta<false>, read27, Thinning::Epoch27, nullptr};
    routes[38] = {27, expandAlone<processType38>, read27, Thinning::Epoch27, nullptr};
    routes[39] = {27, expandAlone<processType39>, read27, Thinning::Epoch27, nullptr};
    routes[40] = {40, nullptr, readPlain<readRec40>, Thinning::None, retrieveStructure<&T::rec40>};
    routes[41] = {40, expandAlone<processType41>, readPlain<readRec40>, Thinning::None, retrieveStructure<&T::rec40>};
    routes[54] = {11, expandFramed<processType54>, read11, Thinning::Position11, nullptr};
    routes[55] = {11, expandFramed<processType55>, read11, Thinning::Position11, nullptr};
    routes[56] = {29, expandAlone<processType56>, read29, Thinning::Position29, nullptr};
    routes[57] = {29, expandAlone<processType57>, read29, Thinning::Position29, nullptr};
    routes[66] = {17, expandFramed<processType66_74>, read17, Thinning::Epoch17, nullptr};
    routes[67] = {17, expandFramed<processType67_75>, read17, Thinning::Epoch17, nullptr};
    routes[68] = {17, expandFramed<processType68_76>, read17, Thinning::Epoch17, nullptr};
    routes[69] = {17, expandFramed<processType69_77>, read17, Thinning::Epoch17, nullptr};
    routes[74] = routes[66];
    routes[75] = routes[67];
    routes[76] = routes[68];
    routes[77] = routes[69];
    routes[84] = {25, expandAlone<processType84>, readPlain<readRec25>, Thinning::None, retrieveStructure<&T::rec25>};
    routes[85] = routes[84];
    routes[86] = routes[84];
    routes[90] = {90, nullptr, nullptr, Thinning::None, nullptr};
    routes[98] = {98, nullptr, readPlain<readRec98>, Thinning::None, retrieveFields<&T::rec98>};
    routes[99] = {99, nullptr, readPlain<readRec99>, Thinning::None, retrieveStructure<&T::rec99>};
    return routes;
}

// Parsers, by the form their arguments take.
int parse11(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return parseRec11Dat(in, state.records.rec11);
}
int parse17(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return parseRec17Dat(in, state.records.rec17);
}
int parse27(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t systemMask) {
    return parseRec27Dat(in, state.records.rec27, systemMask, state.records.datHeader);
}
int parse29(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return parseRec29Dat(in, state.records.rec29);
}
int parseGeneric(nvb_encode_t& state, DatReader& in, std::uint16_t length, std::uint8_t) {
    return parseGenericDat(in, state.records.generic, length);
}
int parse33(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return parseRec33Dat(in, state.records.rec33);
}
// The navigation and receiver records: with the subtype of the DAT header, or without.
template <auto Slot>
using SlotRecord = std::remove_pointer_t<std::remove_reference_t<decltype(std::declval<nvb_record_table_t&>().*Slot)>>;
template <auto Slot, int (*Parse)(DatReader&, SlotRecord<Slot>*)>
int parseStructure(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return Parse(in, state.records.*Slot);
}
template <auto Slot, int (*Parse)(DatReader&, SlotRecord<Slot>*, std::uint8_t)>
int parseSubtyped(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return Parse(in, state.records.*Slot, state.records.datHeader[2]);
}
template <std::uint8_t Type>
int parseAuxiliary(nvb_encode_t& state, DatReader& in, std::uint16_t, std::uint8_t) {
    return parseAuxiliaryDat(state, Type, in);
}

// Records 14, 22, 23, 24: the generic area as the body, behind the type byte.
std::uint16_t writeGeneric(nvb_encode_t& state, nvb_frame_t& frame) {
    const std::uint32_t body = state.records.datHeader[1] >= 4 ? state.records.datHeader[1] - 4u : 0u;
    if (body + 6 > 255 || state.records.generic == nullptr) return 0;
    WriteBuffer out = openFrame(frame, state.records.datHeader[3], false);
    putBytes(out, state.records.generic->data, body);
    return closeFrame(out, false);
}

// Record 16: the subtype from the DAT header at offset 3, then the body.
std::uint16_t write16(nvb_encode_t& state, nvb_frame_t& frame) {
    const std::uint32_t body = state.records.datHeader[1] >= 4 ? state.records.datHeader[1] - 4u : 0u;
    if (body + 7 > 255 || state.records.rec16 == nullptr) return 0;
    WriteBuffer out = openFrame(frame, 16, false);
    putByte(out, state.records.datHeader[2]);
    putBytes(out, state.records.rec16->data, body);
    return closeFrame(out, false);
}

std::uint16_t write11(nvb_encode_t& state, nvb_frame_t& frame) { return writeRec11(*state.records.rec11, frame); }

// A record 17 has one length byte, with 256 added for the long compact types: one of more
// than 511 bytes (many satellites on two frequencies) can't be told.
std::uint16_t write17(nvb_encode_t& state, nvb_frame_t& frame) {
    constexpr std::uint16_t kLongestRecord17 = 511;
    const std::uint16_t length = writeRec17(*state.records.rec17, frame);
    return length > kLongestRecord17 ? 0 : length;
}

// Older readers take at most three measurements a satellite and no clock block: the GPS
// term of the clock block moves to the single drift field.
void applyLegacyToRec27(Rec27& rec) {
    for (std::size_t i = 0; i < rec.nSv && i < NVB_MAX_SV; ++i) {
        if (rec.sv[i].nMeas > 3) rec.sv[i].nMeas = 3;
    }
    if ((rec.epochFlags & 0x20) == 0) return;
    rec.epochFlags = static_cast<std::uint8_t>(rec.epochFlags & ~0x20);
    for (std::size_t i = 0; i < rec.clock.count && i < NVB_MAX_CLOCK_TERMS; ++i) {
        if (rec.clock.rt_clktype[i] == 2) {
            rec.clkDrift = static_cast<float>(rec.clock.systemClockOffset[i]);
            rec.epochFlags = static_cast<std::uint8_t>(rec.epochFlags | 0x02);
            break;
        }
    }
}

std::uint16_t write27(nvb_encode_t& state, nvb_frame_t& frame) {
    Rec27& rec = *state.records.rec27;
    if (state.legacyMode == 1) applyLegacyToRec27(rec);
    return writeRec27(rec, frame, state.fileFormat, state.epochKeepDoppler != 0);
}

std::uint16_t write29(nvb_encode_t& state, nvb_frame_t& frame) {
    Rec29& rec = *state.records.rec29;
    if (state.legacyMode == 1) rec.posFlags = static_cast<std::uint8_t>(rec.posFlags & ~0x10);
    if (state.rec29BitSeen == 0) rec.posFlags = static_cast<std::uint8_t>(rec.posFlags | 0x04);
    return writeRec29(rec, frame);
}

// Records 20, 31, 32, 34, 98 and 99 into the state's frame.
template <std::uint8_t Type>
std::uint16_t writeAuxiliary(nvb_encode_t& state, nvb_frame_t& frame) {
    return writeAuxiliaryFrame(state, Type) ? frame.length : 0;
}

// A record 33 listing the systems in use (subtype 3) starts the compact families over:
// the block closes, and the next epoch and position go out as references.
std::uint16_t write33(nvb_encode_t& state, nvb_frame_t& frame) {
    const Rec33& rec = *state.records.rec33;
    if (!writeRec33(rec, state.records.datHeader[1], frame)) return 0;
    if (rec.subtype == kRec33MixedSystems) {
        state.flushBlock = 1;
        state.epochForceReference = 1;
        state.forcePositionReference = 1;
    }
    return frame.length;
}

std::uint16_t write40(nvb_encode_t& state, nvb_frame_t& frame) {
    return writeRec40(*state.records.rec40, state.records.datHeader[2], frame) ? frame.length : 0;
}

// The navigation and receiver records, subtype from the DAT header where the writer takes one.
template <auto Slot, std::uint16_t (*Write)(const SlotRecord<Slot>&, nvb_frame_t&)>
std::uint16_t writeStructure(nvb_encode_t& state, nvb_frame_t& frame) {
    return Write(*(state.records.*Slot), frame);
}
template <auto Slot, std::uint16_t (*Write)(const SlotRecord<Slot>&, std::uint8_t, nvb_frame_t&)>
std::uint16_t writeSubtyped(nvb_encode_t& state, nvb_frame_t& frame) {
    return Write(*(state.records.*Slot), state.records.datHeader[2], frame);
}
template <auto Slot, std::uint16_t (*Write)(const SlotRecord<Slot>&, const std::uint8_t*, nvb_frame_t&)>
std::uint16_t writeWithHeader(nvb_encode_t& state, nvb_frame_t& frame) {
    return Write(*(state.records.*Slot), state.records.datHeader, frame);
}

// Older readers know only the first subtype of record 25.
NavFilter filter25(const nvb_encode_t& state) {
    return state.legacyMode != 0 && state.records.datHeader[2] != 0 ? NavFilter::Drop : NavFilter::Write;
}
NavFilter filter26(const nvb_encode_t& state) {
    return filterRec26(state.records.datHeader[2], state.dropMask, state.legacyMode != 0);
}
NavFilter filter28(const nvb_encode_t& state) { return filterRec28(state.records.rec28->subtype, state.dropMask); }

constexpr std::array<WriteRoute, 256> makeWriteRoutes() {
    using T = nvb_record_table_t;
    constexpr Thinning None = Thinning::None;
    std::array<WriteRoute, 256> routes{};
    routes[5] = {parseSubtyped<&T::rec5, parseRec5Dat>, None, true, nullptr, writeWithHeader<&T::rec5, writeRec5>};
    routes[11] = {parse11, Thinning::Position11, true, nullptr, write11, compressRec11Frame};
    routes[12] = {parseStructure<&T::rec12, parseRec12Dat>, None, true, nullptr, writeStructure<&T::rec12, writeRec12>};
    routes[14] = {parseGeneric, None, true, nullptr, writeGeneric, nullptr};
    routes[15] = {parseStructure<&T::rec15, parseRec15Dat>, None, true, nullptr, writeStructure<&T::rec15, writeRec15>};
    routes[16] = {nullptr, None, true, nullptr, write16, nullptr};
    routes[17] = {parse17, Thinning::Epoch17, true, nullptr, write17, compressRec17Frame};
    routes[19] = {parseSubtyped<&T::rec19, parseRec19Dat>, None, true, nullptr, writeSubtyped<&T::rec19, writeRec19>};
    routes[20] = {parseAuxiliary<20>, None, true, nullptr, writeAuxiliary<20>, nullptr};
    routes[21] = {parseStructure<&T::rec21, parseRec21Dat>, None, true, nullptr, writeStructure<&T::rec21, writeRec21>};
    routes[22] = routes[14];
    routes[23] = routes[14];
    routes[24] = routes[14];
    routes[25] = {parseSubtyped<&T::rec25, parseRec25Dat>, None, true, filter25, writeSubtyped<&T::rec25, writeRec25>,
                  compressRec25Frame};
    routes[26] = {parseSubtyped<&T::rec26, parseRec26Dat>, None, true, filter26, writeSubtyped<&T::rec26, writeRec26>};
    routes[27] = {parse27, Thinning::Epoch27, true, nullptr, write27, compressEpochFrame};
    routes[28] = {parseStructure<&T::rec28, parseRec28Dat>, None, true, filter28, writeStructure<&T::rec28, writeRec28>};
    routes[29] = {parse29, Thinning::Position29, true, nullptr, write29, compressRec29Frame};
    routes[30] = {parseSubtyped<&T::rec30, parseRec30Dat>, None, true, nullptr, writeWithHeader<&T::rec30, writeRec30>};
    routes[31] = {parseAuxiliary<31>, None, true, nullptr, writeAuxiliary<31>, nullptr};
    routes[32] = {parseAuxiliary<32>, None, true, nullptr, writeAuxiliary<32>, nullptr};
    routes[33] = {parse33, None, true, nullptr, write33, nullptr};
    routes[34] = {parseAuxiliary<34>, None, true, nullptr, writeAuxiliary<34>, nullptr};
    // Record 35 is parsed and written by its own writer, ahead of this table.
    routes[35] = {nullptr, None, true, nullptr, nullptr, nullptr};
    routes[40] = {parseAuxiliary<40>, None, true, nullptr, write40, compressRec40Frame};
    routes[98] = {parseAuxiliary<98>, None, true, nullptr, writeAuxiliary<98>, nullptr};
    routes[99] = {parseAuxiliary<99>, None, true, nullptr, writeAuxiliary<99>, nullptr};
    // Records 101 and 102 exist in DAT form only: parsed into their slots, never written.
    routes[101] = {parseAuxiliary<101>, None, false, nullptr, nullptr, nullptr};
    routes[102] = {parseAuxiliary<102>, None, false, nullptr, nullptr, nullptr};
    return routes;
}

constexpr std::array<ReadRoute, 256> kReadRoutes = makeReadRoutes();
constexpr std::array<WriteRoute, 256> kWriteRoutes = makeWriteRoutes();

}  // namespace

const ReadRoute& readRouteOf(std::uint16_t type) { return kReadRoutes[type & 0xFFu]; }

const WriteRoute& writeRouteOf(std::uint8_t type) { return kWriteRoutes[type]; }

}  // namespace nvb
