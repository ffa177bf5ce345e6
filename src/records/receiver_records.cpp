#include "records/receiver_records.h"

#include "records/opaque_records.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <type_traits>

namespace nvb {

namespace {

constexpr std::size_t kBodyOffset = 4;
constexpr std::size_t kTrailer = 3;  // checksum and end byte

template <class Walk>
void walkOpaque(Walk& walk, const char* name, std::size_t offset, std::size_t count, std::uint8_t* base) {
    const std::array field = {opaqueField(name, offset, count)};
    walk.fields(field, base);
}

// Record 5: the structure repeats the body behind the subtype in native order.
constexpr std::array kRec5Sub0 = {NVB_FIELD(Rec5Sub0, word1),  NVB_FIELD(Rec5Sub0, bytes1),
                                  NVB_FIELD(Rec5Sub0, byte1),  NVB_FIELD(Rec5Sub0, doubles),
                                  NVB_FIELD(Rec5Sub0, bytes2), NVB_FIELD(Rec5Sub0, textLength)};
constexpr std::array kRec5Sub1 = {
    NVB_FIELD(Rec5Sub1, word1),   NVB_FIELD(Rec5Sub1, bytes1), NVB_FIELD(Rec5Sub1, byte1),
    NVB_FIELD(Rec5Sub1, words),   NVB_FIELD(Rec5Sub1, bytes2), NVB_FIELD(Rec5Sub1, bytes3),
    NVB_FIELD(Rec5Sub1, double1), NVB_FIELD(Rec5Sub1, dwords), NVB_FIELD(Rec5Sub1, byte2)};
// Subtype 2 up to and including its presence mark, where the writer may stop, and the rest.
constexpr std::array kRec5Sub2Marked = {NVB_FIELD(Rec5Sub2, words), NVB_FIELD(Rec5Sub2, bytes1),
                                        NVB_FIELD(Rec5Sub2, bytes2), NVB_FIELD(Rec5Sub2, bytes3),
                                        NVB_FIELD(Rec5Sub2, presenceMark)};
constexpr std::array kRec5Sub2Rest = {NVB_FIELD(Rec5Sub2, bytes4), NVB_FIELD(Rec5Sub2, double1),
                                      NVB_FIELD(Rec5Sub2, dword1), NVB_FIELD(Rec5Sub2, word7),
                                      NVB_FIELD(Rec5Sub2, bytes5)};
constexpr std::array kRec5Sub3 = {NVB_FIELD(Rec5Sub3, word1), NVB_FIELD(Rec5Sub3, doubles),
                                  NVB_FIELD(Rec5Sub3, dwords)};
constexpr std::array kRec5Sub4 = {NVB_FIELD(Rec5Sub4, word1), NVB_FIELD(Rec5Sub4, bytes), NVB_FIELD(Rec5Sub4, dwords)};
constexpr std::array kRec5Sub5 = {NVB_FIELD(Rec5Sub5, word1), NVB_FIELD(Rec5Sub5, bytes), NVB_FIELD(Rec5Sub5, dwords)};
constexpr std::array kRec5Sub6 = {NVB_FIELD(Rec5Sub6, words), NVB_FIELD(Rec5Sub6, dwords)};
constexpr std::array kRec5Sub7 = {NVB_FIELD(Rec5Sub7, word1), NVB_FIELD(Rec5Sub7, double1), NVB_FIELD(Rec5Sub7, count)};
static_assert(layoutBytes(kRec5Sub0) == offsetof(Rec5Sub0, text) && layoutBytes(kRec5Sub1) == sizeof(Rec5Sub1) &&
              layoutBytes(kRec5Sub2Marked) + layoutBytes(kRec5Sub2Rest) == sizeof(Rec5Sub2) &&
              layoutBytes(kRec5Sub3) == sizeof(Rec5Sub3) && layoutBytes(kRec5Sub4) == sizeof(Rec5Sub4) &&
              layoutBytes(kRec5Sub5) == sizeof(Rec5Sub5) && layoutBytes(kRec5Sub6) == sizeof(Rec5Sub6) &&
              layoutBytes(kRec5Sub7) == offsetof(Rec5Sub7, pairs));
constexpr std::uint8_t kRec5Subtypes = 8;
constexpr std::size_t kRec5PairsAt = offsetof(Rec5Sub7, pairs);

// The pairs of subtype 7 are read as receivers have always read them: from the frame's
// own first bytes, in steps of three. Only what the DAT path carries comes back whole.
void readRec5Pairs(ByteView bytes, Rec5& rec) {
    std::uint8_t* area = bytesOf(rec);
    for (std::size_t i = 0; i < rec.sub7.count && kRec5PairsAt + 2 * i < sizeof(Rec5); i += 3) {
        area[kRec5PairsAt + 2 * i] = getByte(bytes, i);
        if (kRec5PairsAt + 1 + 2 * (i + 1) < sizeof(Rec5)) area[kRec5PairsAt + 1 + 2 * (i + 1)] = getByte(bytes, i + 1);
    }
}

// A subtype without a layout is kept as its bytes.
template <class Walk>
void walkRec5(Walk& walk, Rec5& rec, std::uint8_t subtype) {
    std::uint8_t* base = bytesOf(rec);
    switch (subtype) {
        case 0:
            walk.fields(kRec5Sub0, base);
            walkOpaque(walk, "text", offsetof(Rec5Sub0, text),
                       std::min<std::size_t>(rec.sub0.textLength, NVB_REC5_TEXT_BYTES), base);
            return;
        case 1:
            walk.fields(kRec5Sub1, base);
            return;
        case 2:
            walk.fields(kRec5Sub2Marked, base);
            // The writer ends the record at a zero mark; the reader reads on regardless.
            if (std::is_same_v<Walk, FrameWriteWalk> && rec.sub2.presenceMark == 0) return;
            walk.fields(kRec5Sub2Rest, base);
            return;
        case 3:
            walk.fields(kRec5Sub3, base);
            return;
        case 4:
            walk.fields(kRec5Sub4, base);
            return;
        case 5:
            walk.fields(kRec5Sub5, base);
            return;
        case 6:
            walk.fields(kRec5Sub6, base);
            return;
        case 7:
            walk.fields(kRec5Sub7, base);
            if constexpr (std::is_same_v<Walk, FrameReadWalk>) {
                readRec5Pairs(walk.bytes, rec);
            } else {
                walkOpaque(walk, "pairs", kRec5PairsAt, 2 * std::min<std::size_t>(rec.sub7.count, NVB_REC5_MAX_PAIRS),
                           base);
            }
            return;
        default:
            walkOpaque(walk, "body", 0, std::min(walk.remaining(), sizeof(Rec5)), base);
            return;
    }
}

// Record 12 around its scaled fields.
constexpr std::array kRec12Head = {NVB_FIELD(Rec12, count), NVB_FIELD(Rec12, byte1),  NVB_FIELD(Rec12, word1),
                                   NVB_FIELD(Rec12, word2), NVB_FIELD(Rec12, byte2),  NVB_FIELD(Rec12, byte3),
                                   NVB_FIELD(Rec12, word3), NVB_FIELD(Rec12, bytes1), NVB_FIELD(Rec12, word4)};
constexpr std::array kRec12Middle = {NVB_FIELD(Rec12, bytes2), NVB_FIELD(Rec12, dword1), NVB_FIELD(Rec12, dword2),
                                     NVB_FIELD(Rec12, word5), NVB_FIELD(Rec12, bytes3)};
constexpr ScaledSpec kRec12Unsigned{NVB_FIELD(Rec12, unsignedValue), 4, 0, false};
constexpr ScaledSpec kRec12Signed{NVB_FIELD(Rec12, signedValue), 4, -22, true};
constexpr ScaledSpec kRec12First{NVB_FIELD(Rec12Pair, first), 2, -11, true};
constexpr ScaledSpec kRec12Second{NVB_FIELD(Rec12Pair, second), 2, -21, true};
constexpr std::uint16_t kRec12HeaderDat = 4 + offsetof(Rec12, pairs);

std::size_t rec12Pairs(const Rec12& rec) {
    return rec.count > 0 ? rec.count - 1u : 0u;
}

// The pairs stop at what the structure holds, while the DAT length follows the count.
template <class Walk>
void walkRec12(Walk& walk, Rec12& rec) {
    std::uint8_t* base = bytesOf(rec);
    walk.fields(kRec12Head, base);
    walkScaled(walk, kRec12Unsigned, base);
    walk.fields(kRec12Middle, base);
    walkScaled(walk, kRec12Signed, base);
    for (std::size_t j = 0; j < std::min<std::size_t>(rec12Pairs(rec), NVB_REC12_MAX_PAIRS); ++j) {
        walk.open("pairs", true);
        walkScaled(walk, kRec12First, bytesOf(rec.pairs[j]));
        walkScaled(walk, kRec12Second, bytesOf(rec.pairs[j]));
        walk.close();
    }
}

constexpr std::array kRec15Doubles = {NVB_FIELD(Rec15, doubles)};
constexpr ScaledSpec kRec15Signed1{NVB_FIELD(Rec15, signedValue1), 2, 0, true};
constexpr ScaledSpec kRec15Signed2{NVB_FIELD(Rec15, signedValue2), 2, 0, true};
constexpr ScaledSpec kRec15Unsigned{NVB_FIELD(Rec15, unsignedValue), 4, 0, false};
constexpr std::array kRec15Tail = {NVB_FIELD(Rec15, bytes), NVB_FIELD(Rec15, byte1)};

template <class Walk>
void walkRec15(Walk& walk, Rec15& rec) {
    std::uint8_t* base = bytesOf(rec);
    walk.fields(kRec15Doubles, base);
    walkScaled(walk, kRec15Signed1, base);
    walkScaled(walk, kRec15Signed2, base);
    walkScaled(walk, kRec15Unsigned, base);
    walk.fields(kRec15Tail, base);
}

// Record 19 by subtype; 9 to 12 are delivered in the layout of 7.
constexpr ScaledSpec kRec19Sub1Value{NVB_FIELD(Rec19Sub1, value), 4, 0, false};
constexpr std::array kRec19Sub1Word = {NVB_FIELD(Rec19Sub1, word)};
constexpr std::array kRec19Sub2Word = {NVB_FIELD(Rec19Sub2, word)};
constexpr ScaledSpec kRec19Sub2Value{NVB_FIELD(Rec19Sub2, value), 4, 0, false};
constexpr std::array kRec19Sub3Word = {NVB_FIELD(Rec19Sub3, word)};
constexpr std::array kRec19Sub6 = {NVB_FIELD(Rec19Sub6, word), NVB_FIELD(Rec19Sub6, value)};
constexpr std::array kRec19Sub7 = {NVB_FIELD(Rec19Sub7, slot), NVB_FIELD(Rec19Sub7, word), NVB_FIELD(Rec19Sub7, value)};
constexpr std::array kRec19Sub8 = {NVB_FIELD(Rec19Sub8, slot), NVB_FIELD(Rec19Sub8, word)};

// The frame reader takes subtypes 8 to 12 its own way; every walk takes the others, and
// the writer only 5, 6 and 7, sending any other subtype as its subtype byte alone.
template <class Walk>
void walkRec19(Walk& walk, Rec19& rec, std::uint8_t subtype) {
    std::uint8_t* base = bytesOf(rec);
    if (std::is_same_v<Walk, FrameWriteWalk> && (subtype < 5 || subtype > 7)) return;
    switch (subtype) {
        case 1:
            walkScaled(walk, kRec19Sub1Value, base);
            walk.fields(kRec19Sub1Word, base);
            return;
        case 2:
        case 4:
        case 5:
            walk.fields(kRec19Sub2Word, base);
            walkScaled(walk, kRec19Sub2Value, base);
            return;
        case 3:
            walk.fields(kRec19Sub3Word, base);
            walkOpaque(walk, "text", offsetof(Rec19Sub3, text), std::min(walk.remaining(), sizeof rec.sub3.text), base);
            return;
        case 6:
            walk.fields(kRec19Sub6, base);
            return;
        case 8:
            walk.fields(kRec19Sub8, base);
            walkOpaque(walk, "text", offsetof(Rec19Sub8, text), std::min(walk.remaining(), sizeof rec.sub8.text), base);
            return;
        case 7:
        case 9:
        case 10:
        case 11:
        case 12:
            walk.fields(kRec19Sub7, base);
            return;
        default:
            return;
    }
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

std::size_t textBytes(std::uint16_t frameLength, std::size_t ahead, std::size_t capacity) {
    return frameLength > ahead ? std::min<std::size_t>(frameLength - ahead, capacity) : 0;
}

// Record 22: each table has count + 1 entries on the wire, of which the structure keeps
// the first eight.
constexpr std::array kRec22Head = {NVB_FIELD(Rec22, count), NVB_FIELD(Rec22, doubles), NVB_FIELD(Rec22, bytes1)};
constexpr FieldSpec kRec22Table1 = NVB_FIELD(Rec22, byteTable1);
constexpr std::array kRec22Middle = {NVB_FIELD(Rec22, bytes2)};
constexpr FieldSpec kRec22Table2 = NVB_FIELD(Rec22, byteTable2);
constexpr std::array kRec22Words = {NVB_FIELD(Rec22, words)};
constexpr FieldSpec kRec22Dwords = NVB_FIELD(Rec22, dwordTables);
constexpr std::array kRec22Tail = {NVB_FIELD(Rec22, word5), NVB_FIELD(Rec22, dword1), NVB_FIELD(Rec22, dword2),
                                   NVB_FIELD(Rec22, word6), NVB_FIELD(Rec22, word7)};

template <class Walk>
void walkRec22(Walk& walk, Rec22& rec) {
    std::uint8_t* base = bytesOf(rec);
    walk.fields(kRec22Head, base);
    const std::size_t entries = rec.count + 1u;
    const std::size_t kept = std::min<std::size_t>(entries, NVB_REC22_MAX_ENTRIES);
    const auto table = [&](const FieldSpec& column, std::size_t index) {
        const std::array items = {fieldItems(column, index * NVB_REC22_MAX_ENTRIES, kept)};
        walk.fields(items, base);
        walk.position += column.width * (entries - kept);
    };
    table(kRec22Table1, 0);
    walk.fields(kRec22Middle, base);
    table(kRec22Table2, 0);
    walk.fields(kRec22Words, base);
    for (std::size_t t = 0; t < sizeof rec.dwordTables / sizeof rec.dwordTables[0]; ++t) table(kRec22Dwords, t);
    walk.fields(kRec22Tail, base);
}

constexpr std::array kRec24 = {NVB_FIELD(Rec24, values), NVB_FIELD(Rec24, counters)};
static_assert(layoutBytes(kRec24) == sizeof(Rec24));

// The wire body of records 22 and 24, from offset 3, as far as the generic area holds it.
void keepWireBody(ByteView bytes, std::size_t count, RecGeneric& generic) {
    std::memset(generic.data, 0, sizeof generic.data);
    getBytes(generic.data, bytes, 3, std::min(count, sizeof generic.data));
}

// Record 30 sections: a field at offset k of a section's area is present when the
// section's length byte is above k. The areas sit behind each length byte.
constexpr std::array kRec30Sub0 = {NVB_FIELD(Rec30Sub0, dword1), NVB_FIELD(Rec30Sub0, words)};
constexpr std::array kRec30Count = {NVB_FIELD(Rec30Sections, sectionCount)};
constexpr std::array kSectionLength = {NVB_FIELD(Rec30Section, length)};
constexpr std::array kSectionA = {NVB_FIELD(Rec30Sub1A, dword1), NVB_FIELD(Rec30Sub1A, word1)};
constexpr std::array kSectionText = {opaqueField("text", offsetof(Rec30Text, text), NVB_REC30_SECTION_BYTES)};
constexpr std::array kSectionD = {NVB_FIELD(Rec30Sub1D, words)};
constexpr std::array kSectionEI = {NVB_FIELD(Rec30Sub1E, byte1)};
// Section F's two bytes stand as they came and are there or not together.
constexpr std::array kSectionF = {NVB_FIELD(Rec30Sub1F, dword1),
                                  FieldSpec{"bytes", offsetof(Rec30Sub1F, bytes), 2, FieldKind::Opaque, 1}};
constexpr std::array kSectionG = {NVB_FIELD(Rec30Sub1G, bytes)};
constexpr std::array kSectionH = {NVB_FIELD(Rec30Sub1H, bytes)};
constexpr std::array kThreeBytes = {fieldItems(NVB_FIELD(Rec30Section, bytes), 0, 3)};
constexpr std::array kEightBytes = {fieldItems(NVB_FIELD(Rec30Section, bytes), 0, 8)};
constexpr std::array kTwoWords = {NVB_FIELD(Rec30Sub3Pair, dwords)};

constexpr std::array<const char*, NVB_REC30_SECTION_COUNT> kSectionNames = {"a", "b", "c", "d", "e",
                                                                            "f", "g", "h", "i"};

struct Rec30Shape {
    std::array<Layout, NVB_REC30_SECTION_COUNT> sections;
    std::size_t count;
    std::uint8_t freeFrom;  // a section count from which the DAT form carries the free area
    bool sectionsInDat;     // subtype 2 keeps its sections out of the DAT form
    bool moreBytesInDat;    // subtype 1 carries what a section holds beyond its known fields
};

constexpr std::array<Rec30Shape, 4> kRec30Shapes = {{
    {},
    {{kSectionA, kSectionText, kSectionText, kSectionD, kSectionEI, kSectionF, kSectionG, kSectionH, kSectionEI},
     9,
     10,
     true,
     true},
    {{kThreeBytes, kThreeBytes, kThreeBytes, kEightBytes, kThreeBytes}, 5, 6, false, false},
    {{kTwoWords, kThreeBytes, kTwoWords}, 3, 4, true, false},
}};
// Sections H and I of subtype 1 take their further DAT bytes from section G.
constexpr std::size_t kSectionG6 = 6;

const Rec30Shape* rec30Shape(std::uint8_t subtype) {
    return subtype >= 1 && subtype < kRec30Shapes.size() ? &kRec30Shapes[subtype] : nullptr;
}

// The items of each field that a length byte leaves in; offsets count from the length byte.
template <class Walk>
void walkPresent(Walk& walk, Layout fields, std::uint8_t length, std::uint8_t* section) {
    for (const FieldSpec& field : fields) {
        const std::size_t from = field.offset - 1u;
        if (length <= from) return;
        const std::size_t items = std::min<std::size_t>(field.count, (length - from + field.width - 1) / field.width);
        const std::array present = {fieldItems(field, 0, items)};
        walk.fields(present, section);
    }
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

// A subtype above 3 has no sections the reader knows: its count alone, or as a DAT form
// the whole structure. The wire carries only the thresholded fields; the DAT form adds a
// subtype 1 section's further bytes and the free area, and leaves subtype 2's sections out.
template <class Walk>
void walkRec30(Walk& walk, Rec30& rec, std::uint8_t subtype) {
    std::uint8_t* base = bytesOf(rec);
    constexpr bool kDat = std::is_same_v<Walk, DatParseWalk> || std::is_same_v<Walk, DatPackWalk>;
    if (subtype == 0) {
        walk.fields(kRec30Sub0, base);
        return;
    }
    const Rec30Shape* shape = rec30Shape(subtype);
    if (kDat && shape == nullptr) {
        walkOpaque(walk, "body", 0, std::min(walk.remaining(), sizeof(Rec30)), base);
        return;
    }
    walk.fields(kRec30Count, base);
    if (shape == nullptr || (kDat && !shape->sectionsInDat)) return;
    const std::size_t count = std::min<std::size_t>(rec.sections.sectionCount, shape->count);
    for (std::size_t s = 0; s < count; ++s) {
        Rec30Section& section = rec.sections.section[s];
        std::uint8_t* area = bytesOf(section);
        walk.open(kSectionNames[s], false);
        walk.fields(kSectionLength, area);
        walkPresent(walk, shape->sections[s], section.length, area);
        walk.close();
        const std::size_t known = layoutBytes(shape->sections[s]);
        if (!kDat || !shape->moreBytesInDat || section.length <= known) continue;
        if constexpr (std::is_same_v<Walk, DatPackWalk>) {
            const bool fromG = s > kSectionG6;
            const Rec30Section& source = fromG ? rec.sections.section[kSectionG6] : section;
            const std::size_t from = fromG ? layoutBytes(shape->sections[kSectionG6]) : known;
            putArea(walk.out, source.bytes, sizeof source.bytes, from, section.length - known);
        } else if constexpr (std::is_same_v<Walk, DatParseWalk>) {
            takeArea(walk.in, section.bytes, sizeof section.bytes, known, section.length - known);
        }
    }
    if constexpr (kDat) {
        if (rec.sections.sectionCount < shape->freeFrom) return;
        if constexpr (std::is_same_v<Walk, DatPackWalk>) {
            datWrite(walk.out, rec.freeLength);
            putArea(walk.out, rec.freeArea, sizeof rec.freeArea, 0, rec.freeLength);
        } else {
            rec.freeLength = datRead<std::uint8_t>(walk.in);
            takeArea(walk.in, rec.freeArea, sizeof rec.freeArea, 0, rec.freeLength);
        }
    }
}

}  // namespace

std::uint16_t readRec5(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec5* rec = clearedTarget(state.records.rec5, state);
    if (rec == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    const std::size_t body = frame.length > kBodyOffset + kTrailer ? frame.length - kBodyOffset - kTrailer : 0;
    FrameReadWalk walk{{body}, bytes, kBodyOffset};
    walkRec5(walk, *rec, subtype);
    const auto length = atLeastDatHeader(static_cast<std::uint16_t>(frame.length >= 3 ? frame.length - 3 : 0));
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), subtype, 5);
    return length;
}

std::uint16_t writeRec5(const Rec5& rec, const std::uint8_t* datHeader, nvb_frame_t& frame) {
    const std::uint8_t subtype = datHeader[2];
    const std::size_t body = datHeader[1] >= 4 ? datHeader[1] - 4u : 0u;
    if ((subtype == 0 && rec.sub0.textLength > NVB_REC5_TEXT_BYTES) ||
        (subtype == 7 && rec.sub7.count > NVB_REC5_MAX_PAIRS) || (subtype >= kRec5Subtypes && body > sizeof(Rec5))) {
        return 0;
    }
    WriteBuffer out = openFrame(frame, 5, false);
    putByte(out, subtype);
    FrameWriteWalk walk{{body}, out};
    walkRec5(walk, const_cast<Rec5&>(rec), subtype);
    return closeFrame(out, false);
}

int parseRec5Dat(DatReader& in, Rec5* rec, std::uint8_t subtype) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec5& target) { walkRec5(walk, target, subtype); });
}

std::uint16_t readRec12(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec12* rec = clearedTarget(state.records.rec12, state);
    if (rec == nullptr) return 0;
    FrameReadWalk walk{{}, frameBytes(frame), 3};
    walkRec12(walk, *rec);
    if (rec->word5 == 0) rec->word5 = rec->byte2;
    const auto length = static_cast<std::uint16_t>(kRec12HeaderDat + sizeof(Rec12Pair) * rec12Pairs(*rec));
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8),
                 12);
    return length;
}

std::uint16_t writeRec12(const Rec12& rec, nvb_frame_t& frame) {
    if (rec12Pairs(rec) > NVB_REC12_MAX_PAIRS) return 0;
    WriteBuffer out = openFrame(frame, 12, false);
    FrameWriteWalk walk{{}, out};
    walkRec12(walk, const_cast<Rec12&>(rec));
    return closeFrame(out, false);
}

int parseRec12Dat(DatReader& in, Rec12* rec) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec12& target) { walkRec12(walk, target); });
}

std::uint16_t readRec15(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec15* rec = clearedTarget(state.records.rec15, state);
    if (rec == nullptr) return 0;
    FrameReadWalk walk{{}, frameBytes(frame), 3};
    walkRec15(walk, *rec);
    constexpr std::uint16_t length = 4 + sizeof(Rec15);
    setDatHeader(state.records.datHeader, length, 0, 15);
    return length;
}

std::uint16_t writeRec15(const Rec15& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, 15, false);
    FrameWriteWalk walk{{}, out};
    walkRec15(walk, const_cast<Rec15&>(rec));
    return closeFrame(out, false);
}

int parseRec15Dat(DatReader& in, Rec15* rec) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec15& target) { walkRec15(walk, target); });
}

std::uint16_t readRec19(const nvb_frame_t& frame, nvb_expand_t& state, TrackingSlots* slots) {
    if (slots == nullptr) return 0;
    Rec19* rec = clearedTarget(state.records.rec19, state);
    if (rec == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    std::uint8_t reported = subtype;
    // A subtype outside 1 to 12 keeps the frame's length.
    std::uint16_t length = frame.length;
    if (subtype == 8) {
        // The byte is also the high part of the word that starts with it; one byte is unused.
        rec->sub8.slot = getByte(bytes, 4);
        rec->sub8.word = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
        getBytes(reinterpret_cast<std::uint8_t*>(rec->sub8.text), bytes, 7,
                 textBytes(frame.length, 10, sizeof rec->sub8.text));
        length = static_cast<std::uint16_t>(std::max(frame.length - 6, 4));
    } else if (subtype >= 9 && subtype <= 12) {
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
    } else if (subtype >= 1 && subtype <= 7) {
        FrameReadWalk walk{{textBytes(frame.length, 9, sizeof rec->sub3.text) + 2}, bytes, kBodyOffset};
        walkRec19(walk, *rec, subtype);
        length = subtype == 3 ? static_cast<std::uint16_t>(std::max(frame.length - 5, 4)) : subtype == 7 ? 15 : 14;
    }
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), reported, 19);
    return length;
}

std::uint16_t writeRec19(const Rec19& rec, std::uint8_t subtype, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, 19, false);
    putByte(out, subtype);
    FrameWriteWalk walk{{}, out};
    walkRec19(walk, const_cast<Rec19&>(rec), subtype);
    return closeFrame(out, false);
}

int parseRec19Dat(DatReader& in, Rec19* rec, std::uint8_t subtype) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec19& target) { walkRec19(walk, target, subtype); });
}

std::uint16_t readRec22(const nvb_frame_t& frame, nvb_expand_t& state) {
    if (state.records.generic == nullptr) return 0;
    Rec22* rec = clearedTarget(state.records.rec22, state);
    if (rec == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    FrameReadWalk walk{{}, bytes, 3};
    walkRec22(walk, *rec);
    keepWireBody(bytes, walk.position, *state.records.generic);
    const auto length = static_cast<std::uint16_t>(std::min<std::size_t>(walk.position + 4, 255));
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), 0, 22);
    return length;
}

std::uint16_t readRec24(const nvb_frame_t& frame, nvb_expand_t& state) {
    if (state.records.generic == nullptr) return 0;
    Rec24* rec = clearedTarget(state.records.rec24, state);
    if (rec == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    FrameReadWalk walk{{}, bytes, 3};
    walk.fields(kRec24, bytesOf(*rec));
    keepWireBody(bytes, sizeof(Rec24), *state.records.generic);
    constexpr std::uint16_t length = 4 + sizeof(Rec24);
    setDatHeader(state.records.datHeader, length, 0, 24);
    return length;
}

std::uint16_t readRec30(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec30* rec = clearedTarget(state.records.rec30, state);
    if (rec == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    FrameReadWalk walk{{}, bytes, kBodyOffset};
    walkRec30(walk, *rec, subtype);
    // The DAT form keeps the stream's offsets, so the length is where reading ended.
    const auto length = static_cast<std::uint16_t>(kBodyOffset + walk.position);
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), subtype, 30);
    return length;
}

std::uint16_t writeRec30(const Rec30& rec, const std::uint8_t* datHeader, nvb_frame_t& frame) {
    const std::uint8_t subtype = datHeader[2];
    // Of a subtype without sections the reader takes the count alone, so only that goes.
    if (subtype != 0 && rec30Shape(subtype) == nullptr && datHeader[1] > kBodyOffset + 1) return 0;
    WriteBuffer out = openFrame(frame, 30, false);
    putByte(out, subtype);
    FrameWriteWalk walk{{}, out};
    walkRec30(walk, const_cast<Rec30&>(rec), subtype);
    return closeFrame(out, false);
}

void putRec30Dat(const Rec30& rec, std::uint8_t subtype, DatWriter& out) {
    DatPackWalk walk{{out.capacity}, out};
    walkRec30(walk, const_cast<Rec30&>(rec), subtype);
}

int parseRec30Dat(DatReader& in, Rec30* rec, std::uint8_t subtype) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec30& target) { walkRec30(walk, target, subtype); });
}

bool describeReceiverRecord(const nvb_expand_t& state, std::uint16_t type, std::uint32_t datLength,
                            const FieldSink& sink) {
    const nvb_record_table_t& records = state.records;
    std::uint8_t* header = records.datHeader;
    if (header == nullptr) return false;
    DescribeWalk walk = describeWalkOf(datLength, sink);
    const auto described = [&](auto* rec, auto walkRecord) {
        if (rec == nullptr) return false;
        walkRecord(*rec);
        return true;
    };
    switch (type) {
        case 5:
            walk.fields(kHeaderSubtype, header);
            return described(records.rec5, [&](Rec5& rec) { walkRec5(walk, rec, header[2]); });
        case 12:
            return described(records.rec12, [&](Rec12& rec) { walkRec12(walk, rec); });
        case 15:
            return described(records.rec15, [&](Rec15& rec) { walkRec15(walk, rec); });
        case 19:
            walk.fields(kHeaderSubtype, header);
            return described(records.rec19, [&](Rec19& rec) { walkRec19(walk, rec, header[2]); });
        case 22:
            return described(records.rec22, [&](Rec22& rec) { walkRec22(walk, rec); });
        case 24:
            return described(records.rec24, [&](Rec24& rec) { walk.fields(kRec24, bytesOf(rec)); });
        case 30:
            walk.fields(kHeaderSubtype, header);
            return described(records.rec30, [&](Rec30& rec) { walkRec30(walk, rec, header[2]); });
        default:
            return false;
    }
}

}  // namespace nvb
