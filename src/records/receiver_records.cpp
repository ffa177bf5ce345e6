#include "records/receiver_records.h"

#include "records/opaque_records.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kBodyOffset = 4;

template <std::size_t N>
constexpr FieldLayout layout(const FieldRun (&runs)[N]) {
    return FieldLayout(runs, N);
}

// Record 5: the structure repeats the body behind the subtype in native order.
constexpr FieldRun kRec5Sub0[] = {{2, 1}, {1, 5}, {1, 1}, {8, 4}, {1, 3}};  // then the text
constexpr FieldRun kRec5Sub1[] = {{2, 1}, {1, 5}, {1, 1}, {2, 9}, {1, 10}, {1, 4}, {8, 1}, {4, 3}, {1, 1}};
constexpr FieldRun kRec5Sub2[] = {{2, 6}, {1, 12}, {1, 12}, {1, 5}, {1, 3}, {8, 1}, {4, 1}, {2, 1}, {1, 2}};
constexpr FieldRun kRec5Sub3[] = {{2, 1}, {8, 12}, {4, 2}};
constexpr FieldRun kRec5Sub4[] = {{2, 1}, {1, 4}, {4, 4}};
constexpr FieldRun kRec5Sub5[] = {{2, 1}, {1, 2}, {4, 6}};
constexpr FieldRun kRec5Sub6[] = {{2, 2}, {4, 4}};
constexpr FieldRun kRec5Sub7[] = {{2, 1}, {8, 1}, {2, 1}};  // then the pairs
constexpr std::array<FieldLayout, 8> kRec5Layouts = {layout(kRec5Sub0), layout(kRec5Sub1), layout(kRec5Sub2),
                                                     layout(kRec5Sub3), layout(kRec5Sub4), layout(kRec5Sub5),
                                                     layout(kRec5Sub6), layout(kRec5Sub7)};
static_assert(layoutBytes(kRec5Sub0) == offsetof(Rec5Sub0, text) && layoutBytes(kRec5Sub1) == sizeof(Rec5Sub1) &&
              layoutBytes(kRec5Sub2) == sizeof(Rec5Sub2) && layoutBytes(kRec5Sub3) == sizeof(Rec5Sub3) &&
              layoutBytes(kRec5Sub4) == sizeof(Rec5Sub4) && layoutBytes(kRec5Sub5) == sizeof(Rec5Sub5) &&
              layoutBytes(kRec5Sub6) == sizeof(Rec5Sub6) && layoutBytes(kRec5Sub7) == offsetof(Rec5Sub7, pairs));
// Subtype 2 up to and including its presence mark, where the writer may stop.
constexpr std::size_t kRec5Sub2MarkedRuns = 4;
constexpr std::size_t kRec5PairsAt = offsetof(Rec5Sub7, pairs);

// Record 12 around its two scaled header fields.
constexpr FieldRun kRec12Head[] = {{1, 2}, {2, 2}, {1, 2}, {2, 1}, {1, 4}, {2, 1}};
constexpr FieldRun kRec12Middle[] = {{1, 8}, {4, 2}, {2, 1}, {1, 14}};
static_assert(layoutBytes(kRec12Head) == offsetof(Rec12, unsignedValue) &&
              offsetof(Rec12, bytes2) + layoutBytes(kRec12Middle) == offsetof(Rec12, signedValue));
constexpr std::uint16_t kRec12HeaderDat = 4 + offsetof(Rec12, pairs);

constexpr FieldRun kRec15Doubles[] = {{8, 11}};
constexpr FieldRun kRec15Dat[] = {{8, 14}, {1, 8}};
static_assert(layoutBytes(kRec15Dat) == sizeof(Rec15));

constexpr FieldRun kRec24[] = {{8, 12}, {4, 2}};
static_assert(layoutBytes(kRec24) == sizeof(Rec24));

constexpr FieldRun kRec22Head[] = {{8, 4}, {1, 8}};
constexpr FieldRun kRec22Words[] = {{2, 4}};
constexpr FieldRun kRec22Tail[] = {{2, 1}, {4, 2}, {2, 2}};
constexpr std::size_t kRec22Tables = 4;

constexpr FieldRun kRec30Sub0[] = {{4, 1}, {2, 2}};
static_assert(layoutBytes(kRec30Sub0) == sizeof(Rec30Sub0));

// Record 30 sections: a field at offset k of a section is present when the section's
// length byte is above k, so a section is the list of its fields from its start.
constexpr FieldRun kWordAndHalf[] = {{4, 1}, {2, 1}};        // A: a 32-bit and a 16-bit number
constexpr FieldRun kWordAndPair[] = {{4, 1}, {2, 1, true}};  // F: a 32-bit number and two bytes
constexpr FieldRun kText[] = {{1, NVB_REC30_SECTION_BYTES}};
constexpr FieldRun kThreeHalves[] = {{2, 3}};
constexpr FieldRun kOneByte[] = {{1, 1}};
constexpr FieldRun kTwoBytes[] = {{1, 2}};
constexpr FieldRun kThreeBytes[] = {{1, 3}};
constexpr FieldRun kFourBytes[] = {{1, 4}};
constexpr FieldRun kEightBytes[] = {{1, 8}};
constexpr FieldRun kTwoWords[] = {{4, 2}};

struct Rec30Shape {
    std::array<FieldLayout, NVB_REC30_SECTION_COUNT> sections;
    std::size_t count;
    std::uint8_t freeFrom;  // a section count from which the DAT form carries the free area
    bool sectionsInDat;     // subtype 2 keeps its sections out of the DAT form
    bool moreBytesInDat;    // subtype 1 carries what a section holds beyond its known fields
};

constexpr std::array<Rec30Shape, 4> kRec30Shapes = {{
    {},
    {{layout(kWordAndHalf), layout(kText), layout(kText), layout(kThreeHalves), layout(kOneByte), layout(kWordAndPair),
      layout(kFourBytes), layout(kTwoBytes), layout(kOneByte)},
     9,
     10,
     true,
     true},
    {{layout(kThreeBytes), layout(kThreeBytes), layout(kThreeBytes), layout(kEightBytes), layout(kThreeBytes)},
     5,
     6,
     false,
     false},
    {{layout(kTwoWords), layout(kThreeBytes), layout(kTwoWords)}, 3, 4, true, false},
}};
// Sections H and I of subtype 1 take their further DAT bytes from section G.
constexpr std::size_t kSectionG = 6;

// Calls visit(offset, width) for each field of a section that its length byte leaves in.
template <class Visit>
void forPresentFields(FieldLayout fields, std::uint8_t length, Visit visit) {
    std::size_t offset = 0;
    for (const FieldRun& run : fields) {
        for (unsigned i = 0; i < run.count; ++i, offset += run.width) {
            if (length <= offset) return;
            visit(offset, FieldRun{run.width, 1, run.raw});
        }
    }
}

const Rec30Shape* rec30Shape(std::uint8_t subtype) {
    return subtype >= 1 && subtype < kRec30Shapes.size() ? &kRec30Shapes[subtype] : nullptr;
}

std::size_t sectionsOf(const Rec30Shape& shape, std::uint8_t count) {
    return std::min<std::size_t>(count, shape.count);
}

// Bytes of a fixed area from `from` on; what lies beyond the area is written as zeros.
void putArea(DatWriter& out, const std::uint8_t* area, std::size_t areaSize, std::size_t from, std::size_t count) {
    for (std::size_t i = from; i < from + count; ++i) {
        const std::uint8_t byte = i < areaSize ? area[i] : std::uint8_t{0};
        datPut(out, &byte, 1);
    }
}

// Takes `count` DAT bytes into an area from `from` on, dropping what does not fit it.
void takeArea(DatReader& in, std::uint8_t* area, std::size_t areaSize, std::size_t from, std::size_t count) {
    const std::size_t kept = from < areaSize ? std::min(count, areaSize - from) : 0;
    datCopy(in, area + from, kept, 1);
    in.position += count - kept;
}

// Record 19's prediction, run after each record of a tracking slot. The prediction
// takes the current record; its value then goes on by the last step, as the value the
// prediction holds at that point is already the current one.
void trackSlot(TrackingSlot& slot, const TrackingRecord& current) {
    slot.predicted = current;
    slot.predicted.word = static_cast<std::uint16_t>(current.word + 1);
    slot.predicted.value = current.value - slot.last.value + slot.predicted.value;
    slot.last = current;
}

// The text of record 19 subtypes 3 and 8 runs to the checksum; the structure's array caps it.
std::size_t textBytes(std::uint16_t frameLength, std::size_t ahead, std::size_t capacity) {
    return frameLength > ahead ? std::min<std::size_t>(frameLength - ahead, capacity) : 0;
}

// The wire body of records 22 and 24, from offset 3, as far as the generic area holds it.
void keepWireBody(ByteView bytes, std::size_t count, RecGeneric& generic) {
    std::memset(generic.data, 0, sizeof generic.data);
    getBytes(generic.data, bytes, 3, std::min(count, sizeof generic.data));
}

}  // namespace

std::uint16_t readRec5(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec5* rec = clearedTarget(state.records.rec5, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    if (subtype < kRec5Layouts.size()) {
        const std::size_t end = getRuns(bytes, kBodyOffset, kRec5Layouts[subtype], structBytes(*rec));
        if (subtype == 0) {
            getBytes(reinterpret_cast<std::uint8_t*>(rec->sub0.text), bytes, end,
                     std::min<std::size_t>(rec->sub0.textLength, NVB_REC5_TEXT_BYTES));
        } else if (subtype == 7) {
            // The pairs are read as receivers have always read them: from the frame's own
            // first bytes, in steps of three. Only what the DAT path carries comes back whole.
            std::uint8_t* area = structBytes(*rec);
            for (std::size_t i = 0; i < rec->sub7.count && kRec5PairsAt + 2 * i < sizeof(Rec5); i += 3) {
                area[kRec5PairsAt + 2 * i] = getByte(bytes, i);
                if (kRec5PairsAt + 1 + 2 * (i + 1) < sizeof(Rec5))
                    area[kRec5PairsAt + 1 + 2 * (i + 1)] = getByte(bytes, i + 1);
            }
        }
    } else if (frame.length > kBodyOffset + 3) {
        // A subtype without a layout is kept as it stands.
        getBytes(structBytes(*rec), bytes, kBodyOffset,
                 std::min<std::size_t>(frame.length - kBodyOffset - 3, sizeof(Rec5)));
    }
    const auto length = static_cast<std::uint16_t>(frame.length >= 3 ? frame.length - 3 : 0);
    setDatHeader(header, static_cast<std::uint8_t>(length), subtype, 5);
    return length;
}

std::uint16_t writeRec5(const Rec5& rec, const std::uint8_t* datHeader, nvb_frame_t& frame) {
    const std::uint8_t subtype = datHeader[2];
    const std::size_t body = datHeader[1] >= 4 ? datHeader[1] - 4u : 0u;
    if ((subtype == 0 && rec.sub0.textLength > NVB_REC5_TEXT_BYTES) ||
        (subtype == 7 && rec.sub7.count > NVB_REC5_MAX_PAIRS) ||
        (subtype >= kRec5Layouts.size() && body > sizeof(Rec5))) {
        return 0;
    }
    WriteBuffer out = openFrame(frame, 5, false);
    putByte(out, subtype);
    if (subtype >= kRec5Layouts.size()) {
        putBytes(out, structBytes(rec), body);
        return closeFrame(out, false);
    }
    FieldLayout fields = kRec5Layouts[subtype];
    if (subtype == 2 && rec.sub2.presenceMark == 0) fields = fields.first(kRec5Sub2MarkedRuns);
    putRuns(out, fields, structBytes(rec));
    if (subtype == 0) putBytes(out, reinterpret_cast<const std::uint8_t*>(rec.sub0.text), rec.sub0.textLength);
    if (subtype == 7) putBytes(out, &rec.sub7.pairs[0][0], 2u * rec.sub7.count);
    return closeFrame(out, false);
}

int parseRec5Dat(DatReader& in, Rec5* rec, std::uint8_t subtype) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    if (subtype >= kRec5Layouts.size()) {
        datCopy(in, rec, std::min(datLeft(in), sizeof(Rec5)), 1);
        return 0;
    }
    datRuns(in, kRec5Layouts[subtype], structBytes(*rec));
    if (subtype == 0) {
        datCopy(in, rec->sub0.text, std::min<std::size_t>(rec->sub0.textLength, NVB_REC5_TEXT_BYTES), 1);
    } else if (subtype == 7) {
        datCopy(in, rec->sub7.pairs, 2 * std::min<std::size_t>(rec->sub7.count, NVB_REC5_MAX_PAIRS), 1);
    }
    return 0;
}

std::uint16_t readRec12(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec12* rec = clearedTarget(state.records.rec12, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    getRuns(bytes, 3, kRec12Head, structBytes(*rec));
    rec->unsignedValue = getScaled(bytes, 19, 4, 0, false);
    getRuns(bytes, 23, kRec12Middle, structBytes(*rec, offsetof(Rec12, bytes2)));
    if (rec->word5 == 0) rec->word5 = rec->byte2;
    rec->signedValue = getScaled(bytes, 55, 4, -22, true);
    std::uint16_t length = kRec12HeaderDat;
    if (rec->count > 0) {
        // The DAT length follows the count, while the pairs stop at what the structure holds.
        const std::size_t pairs = rec->count - 1u;
        for (std::size_t j = 0; j < std::min<std::size_t>(pairs, NVB_REC12_MAX_PAIRS); ++j) {
            rec->pairs[j].first = getScaled(bytes, 59 + 4 * j, 2, -11, true);
            rec->pairs[j].second = getScaled(bytes, 61 + 4 * j, 2, -21, true);
        }
        length = static_cast<std::uint16_t>(kRec12HeaderDat + sizeof(Rec12Pair) * pairs);
    }
    setDatHeader(header, static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8), 12);
    return length;
}

std::uint16_t writeRec12(const Rec12& rec, nvb_frame_t& frame) {
    const std::size_t pairs = rec.count > 0 ? rec.count - 1u : 0u;
    if (pairs > NVB_REC12_MAX_PAIRS) return 0;
    WriteBuffer out = openFrame(frame, 12, false);
    putRuns(out, kRec12Head, structBytes(rec));
    putScaled4(out, rec.unsignedValue, 0);
    putRuns(out, kRec12Middle, structBytes(rec, offsetof(Rec12, bytes2)));
    putScaled4(out, rec.signedValue, 22);
    for (std::size_t j = 0; j < pairs; ++j) {
        putScaled2(out, rec.pairs[j].first, 11);
        putScaled2(out, rec.pairs[j].second, 21);
    }
    return closeFrame(out, false);
}

int parseRec12Dat(DatReader& in, Rec12* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    datRuns(in, kRec12Head, structBytes(*rec));
    rec->unsignedValue = datRead<double>(in);
    datRuns(in, kRec12Middle, structBytes(*rec, offsetof(Rec12, bytes2)));
    rec->signedValue = datRead<double>(in);
    const std::size_t pairs = rec->count > 0 ? rec->count - 1u : 0u;
    datCopy(in, rec->pairs, 2 * std::min<std::size_t>(pairs, NVB_REC12_MAX_PAIRS), sizeof(double));
    return 0;
}

std::uint16_t readRec15(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec15* rec = clearedTarget(state.records.rec15, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    getRuns(bytes, 3, kRec15Doubles, structBytes(*rec));
    rec->signedValue1 = getScaled(bytes, 91, 2, 0, true);
    rec->signedValue2 = getScaled(bytes, 93, 2, 0, true);
    rec->unsignedValue = getScaled(bytes, 95, 4, 0, false);
    getBytes(rec->bytes, bytes, 99, sizeof rec->bytes);
    rec->byte1 = getByte(bytes, 106);
    constexpr std::uint16_t length = 4 + sizeof(Rec15);
    setDatHeader(header, length, 0, 15);
    return length;
}

std::uint16_t writeRec15(const Rec15& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, 15, false);
    putRuns(out, kRec15Doubles, structBytes(rec));
    putScaled2(out, rec.signedValue1, 0);
    putScaled2(out, rec.signedValue2, 0);
    putScaled4(out, rec.unsignedValue, 0);
    putBytes(out, rec.bytes, sizeof rec.bytes);
    putByte(out, rec.byte1);
    return closeFrame(out, false);
}

int parseRec15Dat(DatReader& in, Rec15* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    datRuns(in, kRec15Dat, structBytes(*rec));
    return 0;
}

std::uint16_t readRec19(const nvb_frame_t& frame, nvb_expand_t& state, TrackingSlots* slots) {
    Rec19* rec = state.records.rec19;
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr || slots == nullptr) return 0;
    std::memset(rec, 0, sizeof *rec);
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    std::uint8_t reported = subtype;
    std::uint16_t length = frame.length;
    switch (subtype) {
        case 1:
            rec->sub1.value = getScaled(bytes, 4, 4, 0, false);
            rec->sub1.word = static_cast<std::uint16_t>(getUint(bytes, 8, 2));
            length = 14;
            break;
        case 2:
        case 4:
        case 5:
            rec->sub2.word = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
            rec->sub2.value = getScaled(bytes, 6, 4, 0, false);
            length = 14;
            break;
        case 3: {
            rec->sub3.word = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
            const std::size_t text = textBytes(frame.length, 9, sizeof rec->sub3.text);
            getBytes(reinterpret_cast<std::uint8_t*>(rec->sub3.text), bytes, 6, text);
            length = static_cast<std::uint16_t>(std::max(frame.length - 5, 4));
            break;
        }
        case 6:
            rec->sub6.word = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
            rec->sub6.value = getDouble(bytes, 6);
            length = 14;
            break;
        case 7:
            rec->sub7.slot = getByte(bytes, 4);
            rec->sub7.word = static_cast<std::uint16_t>(getUint(bytes, 5, 2));
            rec->sub7.value = getDouble(bytes, 7);
            length = 15;
            break;
        case 8: {
            // The byte is also the high part of the word that starts with it.
            rec->sub8.slot = getByte(bytes, 4);
            rec->sub8.word = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
            const std::size_t text = textBytes(frame.length, 10, sizeof rec->sub8.text);
            getBytes(reinterpret_cast<std::uint8_t*>(rec->sub8.text), bytes, 7, text);
            length = static_cast<std::uint16_t>(std::max(frame.length - 6, 4));
            break;
        }
        case 9:
        case 10:
        case 11:
        case 12: {
            const std::uint8_t slotNumber = subtype == 9 || subtype == 11 ? 2 : 1;
            TrackingSlot& slot = slots->slot[slotNumber - 1];
            TrackingRecord current{slotNumber, 0, 0.0};
            if (subtype <= 10) {
                current.word = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
                current.value = getFloat(bytes, 6);
            } else {
                current.word = slot.predicted.word;
                current.value = static_cast<std::int8_t>(getByte(bytes, 4)) + slot.predicted.value;
            }
            trackSlot(slot, current);
            rec->sub7 = Rec19Sub7{current.slot, current.word, current.value};
            reported = 7;
            length = 15;
            break;
        }
        default:
            break;
    }
    setDatHeader(header, static_cast<std::uint8_t>(length), reported, 19);
    return length;
}

std::uint16_t writeRec19(const Rec19& rec, std::uint8_t subtype, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, 19, false);
    putByte(out, subtype);
    // Only these three carry a body; every other subtype goes out as its subtype byte.
    if (subtype == 5) {
        putU16(out, rec.sub2.word);
        putScaled4(out, rec.sub2.value, 0);
    } else if (subtype == 6) {
        putU16(out, rec.sub6.word);
        putF64(out, rec.sub6.value);
    } else if (subtype == 7) {
        putByte(out, rec.sub7.slot);
        putU16(out, rec.sub7.word);
        putF64(out, rec.sub7.value);
    }
    return closeFrame(out, false);
}

int parseRec19Dat(DatReader& in, Rec19* rec, std::uint8_t subtype) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    switch (subtype) {
        case 1:
            rec->sub1.value = datRead<double>(in);
            rec->sub1.word = datRead<std::uint16_t>(in);
            break;
        case 2:
        case 4:
        case 5:
            rec->sub2.word = datRead<std::uint16_t>(in);
            rec->sub2.value = datRead<double>(in);
            break;
        case 3:
            rec->sub3.word = datRead<std::uint16_t>(in);
            datCopy(in, rec->sub3.text, std::min(datLeft(in), sizeof rec->sub3.text), 1);
            break;
        case 6:
            rec->sub6.word = datRead<std::uint16_t>(in);
            rec->sub6.value = datRead<double>(in);
            break;
        case 8:
            rec->sub8.slot = datRead<std::uint8_t>(in);
            rec->sub8.word = datRead<std::uint16_t>(in);
            datCopy(in, rec->sub8.text, std::min(datLeft(in), sizeof rec->sub8.text), 1);
            break;
        case 7:
        case 9:
        case 10:
        case 11:
        case 12:
            rec->sub7.slot = datRead<std::uint8_t>(in);
            rec->sub7.word = datRead<std::uint16_t>(in);
            rec->sub7.value = datRead<double>(in);
            break;
        default:
            break;
    }
    return 0;
}

std::uint16_t readRec22(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec22* rec = state.records.rec22;
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr || state.records.generic == nullptr) return 0;
    std::memset(rec, 0, sizeof *rec);
    const ByteView bytes = frameBytes(frame);
    rec->count = getByte(bytes, 3);
    // Every table has count + 1 entries on the wire; the structure keeps the first eight.
    const std::size_t entries = rec->count + 1u;
    const std::size_t kept = std::min<std::size_t>(entries, NVB_REC22_MAX_ENTRIES);
    std::size_t at = getRuns(bytes, 4, kRec22Head, structBytes(*rec, offsetof(Rec22, doubles)));
    getBytes(rec->byteTable1, bytes, at, kept);
    at += entries;
    getBytes(rec->bytes2, bytes, at, sizeof rec->bytes2);
    at += sizeof rec->bytes2;
    getBytes(rec->byteTable2, bytes, at, kept);
    at += entries;
    at = getRuns(bytes, at, kRec22Words, structBytes(*rec, offsetof(Rec22, words)));
    for (std::size_t table = 0; table < kRec22Tables; ++table, at += 4 * entries) {
        for (std::size_t e = 0; e < kept; ++e) rec->dwordTables[table][e] = getUint(bytes, at + 4 * e, 4);
    }
    at = getRuns(bytes, at, kRec22Tail, structBytes(*rec, offsetof(Rec22, word5)));
    const std::size_t body = at - 3;
    keepWireBody(bytes, body, *state.records.generic);
    const auto length = static_cast<std::uint16_t>(std::min<std::size_t>(body + 4, 255));
    setDatHeader(header, static_cast<std::uint8_t>(length), 0, 22);
    return length;
}

std::uint16_t readRec24(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec24* rec = state.records.rec24;
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr || state.records.generic == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    getRuns(bytes, 3, kRec24, structBytes(*rec));
    keepWireBody(bytes, sizeof(Rec24), *state.records.generic);
    constexpr std::uint16_t length = 4 + sizeof(Rec24);
    setDatHeader(header, length, 0, 24);
    return length;
}

std::uint16_t readRec30(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec30* rec = clearedTarget(state.records.rec30, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    std::size_t at = kBodyOffset;
    if (subtype == 0) {
        at = getRuns(bytes, at, kRec30Sub0, structBytes(*rec));
    } else {
        rec->sections.sectionCount = getByte(bytes, at++);
        // Only the known fields are taken: a section longer than they are leaves the
        // next section to be read from inside it.
        if (const Rec30Shape* shape = rec30Shape(subtype)) {
            for (std::size_t s = 0; s < sectionsOf(*shape, rec->sections.sectionCount); ++s) {
                Rec30Section& section = rec->sections.section[s];
                section.length = getByte(bytes, at++);
                forPresentFields(shape->sections[s], section.length, [&](std::size_t offset, const FieldRun& one) {
                    at = getRuns(bytes, at, FieldLayout(&one, 1), section.bytes + offset);
                });
            }
        }
    }
    setDatHeader(header, static_cast<std::uint8_t>(at), subtype, 30);
    return static_cast<std::uint16_t>(at);
}

std::uint16_t writeRec30(const Rec30& rec, const std::uint8_t* datHeader, nvb_frame_t& frame) {
    const std::uint8_t subtype = datHeader[2];
    const Rec30Shape* shape = rec30Shape(subtype);
    // Of a subtype without sections the reader takes the count alone, so only that goes.
    if (subtype != 0 && shape == nullptr && datHeader[1] > kBodyOffset + 1) return 0;
    WriteBuffer out = openFrame(frame, 30, false);
    putByte(out, subtype);
    if (subtype == 0) {
        putRuns(out, kRec30Sub0, structBytes(rec));
        return closeFrame(out, false);
    }
    putByte(out, rec.sections.sectionCount);
    if (shape != nullptr) {
        for (std::size_t s = 0; s < sectionsOf(*shape, rec.sections.sectionCount); ++s) {
            const Rec30Section& section = rec.sections.section[s];
            putByte(out, section.length);
            forPresentFields(shape->sections[s], section.length, [&](std::size_t offset, const FieldRun& one) {
                putRuns(out, FieldLayout(&one, 1), section.bytes + offset);
            });
        }
    }
    return closeFrame(out, false);
}

void putRec30Dat(const Rec30& rec, std::uint8_t subtype, DatWriter& out) {
    if (subtype == 0) {
        datPut(out, &rec.sub0, sizeof rec.sub0);
        return;
    }
    const Rec30Shape* shape = rec30Shape(subtype);
    if (shape == nullptr) {
        datPut(out, &rec, sizeof rec);
        return;
    }
    const std::uint8_t count = rec.sections.sectionCount;
    datWrite(out, count);
    if (shape->sectionsInDat) {
        for (std::size_t s = 0; s < sectionsOf(*shape, count); ++s) {
            const Rec30Section& section = rec.sections.section[s];
            datWrite(out, section.length);
            forPresentFields(shape->sections[s], section.length, [&](std::size_t offset, const FieldRun& one) {
                datPut(out, section.bytes + offset, one.width);
            });
            const std::size_t known = layoutBytes(shape->sections[s]);
            if (shape->moreBytesInDat && section.length > known) {
                // Sections H and I have always taken theirs from the further bytes of G.
                const bool fromG = s > kSectionG;
                const std::size_t from = fromG ? layoutBytes(shape->sections[kSectionG]) : known;
                const Rec30Section& source = fromG ? rec.sections.section[kSectionG] : section;
                putArea(out, source.bytes, sizeof source.bytes, from, section.length - known);
            }
        }
    }
    if (count >= shape->freeFrom) {
        datWrite(out, rec.freeLength);
        putArea(out, rec.freeArea, sizeof rec.freeArea, 0, rec.freeLength);
    }
}

int parseRec30Dat(DatReader& in, Rec30* rec, std::uint8_t subtype) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    if (subtype == 0) {
        datRuns(in, kRec30Sub0, structBytes(*rec));
        return 0;
    }
    const Rec30Shape* shape = rec30Shape(subtype);
    if (shape == nullptr) {
        datCopy(in, rec, std::min(datLeft(in), sizeof *rec), 1);
        return 0;
    }
    const std::uint8_t count = datRead<std::uint8_t>(in);
    rec->sections.sectionCount = count;
    if (shape->sectionsInDat) {
        for (std::size_t s = 0; s < sectionsOf(*shape, count); ++s) {
            Rec30Section& section = rec->sections.section[s];
            section.length = datRead<std::uint8_t>(in);
            forPresentFields(shape->sections[s], section.length, [&](std::size_t offset, const FieldRun& one) {
                datRuns(in, FieldLayout(&one, 1), section.bytes + offset);
            });
            const std::size_t known = layoutBytes(shape->sections[s]);
            if (shape->moreBytesInDat && section.length > known) {
                takeArea(in, section.bytes, sizeof section.bytes, known, section.length - known);
            }
        }
    }
    if (count >= shape->freeFrom) {
        rec->freeLength = datRead<std::uint8_t>(in);
        takeArea(in, rec->freeArea, sizeof rec->freeArea, 0, rec->freeLength);
    }
    return 0;
}

}  // namespace nvb
