#ifndef NVB_RECORDS_RECEIVER_RECORDS_H
#define NVB_RECORDS_RECEIVER_RECORDS_H

#include "records/field_walk.h"

#include <nvbdll/records_auxiliary.h>
#include <nvbdll/records_receiver.h>
#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

#pragma pack(push, 1)
// What record 19 remembers of each tracking slot: the last record and the one predicted
// from it. The 44 bytes of the expand state hold slot 1, then slot 2.
struct TrackingRecord {
    std::uint8_t slot;
    std::uint16_t word;
    double value;
};
struct TrackingSlot {
    TrackingRecord last;
    TrackingRecord predicted;
};
struct TrackingSlots {
    TrackingSlot slot[2];
};
#pragma pack(pop)
static_assert(sizeof(TrackingSlots) == sizeof(nvb_expand_t::trackingSlots));

// Readers: decode a plain frame into the state's structure and DAT header and return the
// DAT length, 0 without the structures. Records 22 and 24 also keep their wire body in
// the generic area, which is what retrieval hands over for them.
std::uint16_t readRec5(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec12(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec15(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec19(const nvb_frame_t& frame, nvb_expand_t& state, TrackingSlots* slots);
std::uint16_t readRec22(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec24(const nvb_frame_t& frame, nvb_expand_t& state);
std::uint16_t readRec30(const nvb_frame_t& frame, nvb_expand_t& state);

// Writers: the plain frame in `frame`, its length returned; 0 for what the frame can't
// carry (a count beyond the structure, a record 5 or 30 of an unknown subtype longer
// than the structure or the count byte). `datHeader` gives the subtype and DAT length.
std::uint16_t writeRec5(const Rec5& rec, const std::uint8_t* datHeader, nvb_frame_t& frame);
std::uint16_t writeRec12(const Rec12& rec, nvb_frame_t& frame);
std::uint16_t writeRec15(const Rec15& rec, nvb_frame_t& frame);
std::uint16_t writeRec19(const Rec19& rec, std::uint8_t subtype, nvb_frame_t& frame);
std::uint16_t writeRec30(const Rec30& rec, const std::uint8_t* datHeader, nvb_frame_t& frame);

// DAT parsers: -1 without a structure, 0 otherwise; counts beyond the structure are
// kept and left for the writer to refuse.
int parseRec5Dat(DatReader& in, Rec5* rec, std::uint8_t subtype);
int parseRec12Dat(DatReader& in, Rec12* rec);
int parseRec15Dat(DatReader& in, Rec15* rec);
int parseRec19Dat(DatReader& in, Rec19* rec, std::uint8_t subtype);
int parseRec30Dat(DatReader& in, Rec30* rec, std::uint8_t subtype);

// The DAT form of record 30 behind its header, field by field as its sections allow.
void putRec30Dat(const Rec30& rec, std::uint8_t subtype, DatWriter& out);

// Hands each field of the decoded record of `type` (5, 12, 15, 19, 22, 24 or 30) to
// `sink`; `datLength` is what the decoding step reported. False for another type or a
// missing structure.
bool describeReceiverRecord(const nvb_expand_t& state, std::uint16_t type, std::uint32_t datLength,
                            const FieldSink& sink);

}  // namespace nvb

#endif
