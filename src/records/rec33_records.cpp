#include "records/rec33_records.h"

#include "records/opaque_records.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kType33 = 33;
constexpr std::uint8_t kLastSubtype = 30;
constexpr std::uint8_t kFramePrefix = 4;    // start, length, type, subtype
constexpr std::uint16_t kLongestFrame = 255;

// Subtype 19's tail is read from this L (frame length minus 2) up; below, the older form
// has none.
constexpr std::size_t kSub19TailFromL = 95;
// Subtypes 5 to 12 take nothing below this L.
constexpr std::size_t kDoublesFromL = 12;
// Subtype 16 drops its doubles above this second byte; the writer sends only the
// subtype byte above kSub16WholeBodyUpTo.
constexpr std::uint8_t kSub16DoublesUpTo = 18;
constexpr std::uint8_t kSub16WholeBodyUpTo = 8;

constexpr std::array kSub1Head = {NVB_FIELD(Rec33Sub1, bytes1), NVB_FIELD(Rec33Sub1, flags),
                                  NVB_FIELD(Rec33Sub1, bytes2), NVB_FIELD(Rec33Sub1, word1),
                                  NVB_FIELD(Rec33Sub1, double1)};
constexpr std::array kSub1Single1 = {NVB_FIELD(Rec33Sub1, single1)};
constexpr std::array kSub1Single2 = {NVB_FIELD(Rec33Sub1, single2)};
constexpr std::array kSub1Tail = {NVB_FIELD(Rec33Sub1, word2)};
constexpr std::array kSub2 = {NVB_FIELD(Rec33Sub2, doubles), NVB_FIELD(Rec33Sub2, byte1), NVB_FIELD(Rec33Sub2, words)};
// The zero byte behind the five bytes stands in the structure only.
constexpr std::array kSub4 = {NVB_FIELD(Rec33Sub4, dword1),  NVB_FIELD(Rec33Sub4, bytes),
                              NVB_FIELD(Rec33Sub4, single1), NVB_FIELD(Rec33Sub4, word1),
                              NVB_FIELD(Rec33Sub4, singles), NVB_FIELD(Rec33Sub4, dwords),
                              NVB_FIELD(Rec33Sub4, byte1),   NVB_FIELD(Rec33Sub4, double1)};
constexpr FieldSpec kSub5To12Values = NVB_FIELD(Rec33Doubles, values);
constexpr std::array kSub13Head = {NVB_FIELD(Rec33Sub13, count), NVB_FIELD(Rec33Sub13, word1)};
constexpr std::array kSub13Entry = {NVB_FIELD(Rec33Sub13Entry, dword1), NVB_FIELD(Rec33Sub13Entry, words)};
constexpr std::array kSub14 = {
    NVB_FIELD(Rec33Sub14, time),          NVB_FIELD(Rec33Sub14, latitude),      NVB_FIELD(Rec33Sub14, longitude),
    NVB_FIELD(Rec33Sub14, height),        NVB_FIELD(Rec33Sub14, positionSigma), NVB_FIELD(Rec33Sub14, velocity),
    NVB_FIELD(Rec33Sub14, velocitySigma), NVB_FIELD(Rec33Sub14, dop),           NVB_FIELD(Rec33Sub14, valid),
    NVB_FIELD(Rec33Sub14, fixClass),      NVB_FIELD(Rec33Sub14, correctionAge), NVB_FIELD(Rec33Sub14, spare),
    NVB_FIELD(Rec33Sub14, flag1),         NVB_FIELD(Rec33Sub14, flag2)};
constexpr std::array kSub15 = {NVB_FIELD(Rec33Sub15, doubles1), NVB_FIELD(Rec33Sub15, single1),
                               NVB_FIELD(Rec33Sub15, double1),  NVB_FIELD(Rec33Sub15, single2),
                               NVB_FIELD(Rec33Sub15, doubles2), NVB_FIELD(Rec33Sub15, doubles3),
                               NVB_FIELD(Rec33Sub15, singles),  NVB_FIELD(Rec33Sub15, byte1)};
constexpr std::array kSub16Head = {NVB_FIELD(Rec33Sub16, byte1), NVB_FIELD(Rec33Sub16, byte2),
                                   NVB_FIELD(Rec33Sub16, count)};
constexpr FieldSpec kSub16Values = NVB_FIELD(Rec33Sub16, values);
constexpr std::array kSub17Head = {NVB_FIELD(Rec33Sub17, word1), NVB_FIELD(Rec33Sub17, dword1),
                                   NVB_FIELD(Rec33Sub17, byte1), NVB_FIELD(Rec33Sub17, byte2),
                                   NVB_FIELD(Rec33Sub17, count)};
constexpr std::array kSub17Entry = {NVB_FIELD(Rec33Sub17Entry, word1), NVB_FIELD(Rec33Sub17Entry, singles)};
constexpr std::array kSub17Tail = {NVB_FIELD(Rec33Sub17, tailBytes)};
constexpr std::array kSub18Head = {NVB_FIELD(Rec33Sub18, word1), NVB_FIELD(Rec33Sub18, dword1),
                                   NVB_FIELD(Rec33Sub18, count)};
constexpr std::array kSub18Entry = {NVB_FIELD(Rec33Sub18Entry, word1), NVB_FIELD(Rec33Sub18Entry, singles)};
constexpr std::array kSub19Head = {NVB_FIELD(Rec33Sub19, word1), NVB_FIELD(Rec33Sub19, dword1),
                                   NVB_FIELD(Rec33Sub19, bytes), NVB_FIELD(Rec33Sub19, doubles),
                                   NVB_FIELD(Rec33Sub19, singles)};
constexpr std::array kSub19Tail = {NVB_FIELD(Rec33Sub19, tailBytes), NVB_FIELD(Rec33Sub19, tailDoubles)};
constexpr std::array kSub20 = {NVB_FIELD(Rec33Sub20, word1), NVB_FIELD(Rec33Sub20, dword1),
                               NVB_FIELD(Rec33Sub20, bytes), NVB_FIELD(Rec33Sub20, singles)};
constexpr std::array kSub21Head = {NVB_FIELD(Rec33Sub21, kind),    NVB_FIELD(Rec33Sub21, word1),
                                   NVB_FIELD(Rec33Sub21, dword1),  NVB_FIELD(Rec33Sub21, doubles),
                                   NVB_FIELD(Rec33Sub21, single1), NVB_FIELD(Rec33Sub21, words),
                                   NVB_FIELD(Rec33Sub21, byte1),   NVB_FIELD(Rec33Sub21, groupFlags)};

// A group of subtype 21: its head bytes, the last of which holds the kind 1 lead flag;
// one leading single (kind 1) or four (other kinds); and its singles.
struct Sub21Group {
    Layout head;
    Layout leadOne;
    Layout leadAll;
    Layout tail;
    std::size_t flagByte;
    bool tailWithOtherKinds;  // group B of other kinds ends after its leading singles
};

constexpr std::array kGroupHead = {NVB_FIELD(Rec33Sub21Group, bytes)};
constexpr std::array kGroupLeadOne = {fieldItems(NVB_FIELD(Rec33Sub21Group, lead), 0, 1)};
constexpr std::array kGroupLeadAll = {NVB_FIELD(Rec33Sub21Group, lead)};
constexpr std::array kGroupTail = {NVB_FIELD(Rec33Sub21Group, singles3), NVB_FIELD(Rec33Sub21Group, singles9)};
constexpr std::array kGroupCHead = {NVB_FIELD(Rec33Sub21GroupC, bytes)};
constexpr std::array kGroupCLeadOne = {fieldItems(NVB_FIELD(Rec33Sub21GroupC, lead), 0, 1)};
constexpr std::array kGroupCLeadAll = {NVB_FIELD(Rec33Sub21GroupC, lead)};
constexpr std::array kGroupCTail = {NVB_FIELD(Rec33Sub21GroupC, singles3), NVB_FIELD(Rec33Sub21GroupC, singles9),
                                    NVB_FIELD(Rec33Sub21GroupC, singles5)};

constexpr Sub21Group kGroupA{kGroupHead, kGroupLeadOne, kGroupLeadAll, kGroupTail, 1, true};
constexpr Sub21Group kGroupB{kGroupHead, kGroupLeadOne, kGroupLeadAll, kGroupTail, 1, false};
constexpr Sub21Group kGroupC{kGroupCHead, kGroupCLeadOne, kGroupCLeadAll, kGroupCTail, 2, true};

// Subtypes 22 and 23 carry the upper triangle of their matrix; the reader mirrors it.
constexpr FieldSpec kSub22Matrix = NVB_FIELD(Rec33Sub22, matrix);
constexpr std::array kSub22 = {NVB_FIELD(Rec33Sub22, word1),   NVB_FIELD(Rec33Sub22, dword1),
                               NVB_FIELD(Rec33Sub22, bytes),   NVB_FIELD(Rec33Sub22, single1),
                               NVB_FIELD(Rec33Sub22, vector),  fieldItems(kSub22Matrix, 0, 3),
                               fieldItems(kSub22Matrix, 4, 2), fieldItems(kSub22Matrix, 8, 1)};
constexpr FieldSpec kSub23Matrix = NVB_FIELD(Rec33Sub23, matrix);
constexpr std::array kSub23 = {
    NVB_FIELD(Rec33Sub23, word1),   NVB_FIELD(Rec33Sub23, dword1),  NVB_FIELD(Rec33Sub23, word2),
    NVB_FIELD(Rec33Sub23, singles), NVB_FIELD(Rec33Sub23, vector),  fieldItems(kSub23Matrix, 0, 3),
    fieldItems(kSub23Matrix, 4, 2), fieldItems(kSub23Matrix, 8, 1), NVB_FIELD(Rec33Sub23, bytes)};
constexpr std::array kSub25 = {NVB_FIELD(Rec33Sub25, word1),  NVB_FIELD(Rec33Sub25, dword1),
                               NVB_FIELD(Rec33Sub25, bytes1), NVB_FIELD(Rec33Sub25, singles),
                               NVB_FIELD(Rec33Sub25, words),  NVB_FIELD(Rec33Sub25, bytes2),
                               NVB_FIELD(Rec33Sub25, word4)};
constexpr std::array kSub26 = {NVB_FIELD(Rec33Sub26, word1), NVB_FIELD(Rec33Sub26, dword1),
                               NVB_FIELD(Rec33Sub26, words), NVB_FIELD(Rec33Sub26, bytes)};
constexpr std::array kSub27 = {
    NVB_FIELD(Rec33Sub27, word1),    NVB_FIELD(Rec33Sub27, dword1),   NVB_FIELD(Rec33Sub27, bytes1),
    NVB_FIELD(Rec33Sub27, word2),    NVB_FIELD(Rec33Sub27, doubles1), NVB_FIELD(Rec33Sub27, bytes2),
    NVB_FIELD(Rec33Sub27, dword2),   NVB_FIELD(Rec33Sub27, word3),    NVB_FIELD(Rec33Sub27, dword3),
    NVB_FIELD(Rec33Sub27, doubles2), NVB_FIELD(Rec33Sub27, word4),    NVB_FIELD(Rec33Sub27, dword4),
    NVB_FIELD(Rec33Sub27, doubles3)};
constexpr std::array kSub28 = {NVB_FIELD(Rec33Sub28, word1),    NVB_FIELD(Rec33Sub28, dword1),
                               NVB_FIELD(Rec33Sub28, byte1),    NVB_FIELD(Rec33Sub28, word2),
                               NVB_FIELD(Rec33Sub28, singles1), NVB_FIELD(Rec33Sub28, doubles),
                               NVB_FIELD(Rec33Sub28, singles2)};
constexpr std::array kSub29Head = {NVB_FIELD(Rec33Sub29, count)};
constexpr FieldSpec kSub29Pairs = NVB_FIELD(Rec33Sub29, pairs);
constexpr std::array kSub30 = {NVB_FIELD(Rec33Sub30, bytes), NVB_FIELD(Rec33Sub30, dwords),
                               NVB_FIELD(Rec33Sub30, dword3)};

// Subtypes whose structure differs from their body: fields that stand at fixed places
// whether sent or not, a byte not on the wire, copies, parallel arrays, a count in front.
constexpr bool isPackedInDat(std::uint8_t subtype) {
    return subtype == 1 || (subtype >= 3 && subtype <= 12) || subtype == 17 || (subtype >= 21 && subtype <= 23);
}

template <class Walk>
void walkSub1(Walk& walk, std::uint8_t* base) {
    walk.fields(kSub1Head, base);
    const std::uint8_t flags = base[offsetof(Rec33Sub1, flags)];
    if ((flags & 0x04) != 0) walk.fields(kSub1Single1, base);
    if ((flags & 0x08) != 0) walk.fields(kSub1Single2, base);
    walk.fields(kSub1Tail, base);
}

// The triples' count is not sent: the body's length tells it.
template <class Walk>
void walkSub3(Walk& walk, Rec33Sub3& sub, std::uint8_t* base) {
    if constexpr (Walk::kFills)
        sub.count = static_cast<std::uint8_t>(std::min<std::size_t>(walk.remaining() / 3, NVB_REC33_MAX_TRIPLES));
    const std::size_t count = std::min<std::size_t>(sub.count, NVB_REC33_MAX_TRIPLES);
    for (std::size_t i = 0; i < count; ++i) {
        const std::array triple = {fieldItems(NVB_FIELD(Rec33Sub3, system), i, 1),
                                   fieldItems(NVB_FIELD(Rec33Sub3, second), i, 1),
                                   fieldItems(NVB_FIELD(Rec33Sub3, third), i, 1)};
        walk.open("triples", true);
        walk.fields(triple, base);
        walk.close();
    }
}

// As many doubles as the body holds: one more while its end, as an offset in the frame,
// does not pass L (the DAT length). The last may take the checksum's first byte.
template <class Walk>
void walkDoubles(Walk& walk, Rec33Doubles& sub, std::uint8_t* base) {
    if constexpr (Walk::kFills) {
        const std::size_t l = walk.length + 5;
        const std::size_t count = l < kDoublesFromL ? 0 : (l - 4) / 8;
        sub.count = static_cast<std::uint8_t>(std::min<std::size_t>(count, NVB_REC33_MAX_DOUBLES));
    }
    const std::size_t count = std::min<std::size_t>(sub.count, NVB_REC33_MAX_DOUBLES);
    const std::array values = {fieldItems(kSub5To12Values, 0, count)};
    walk.fields(values, base);
}

template <class Walk>
void walkSub16(Walk& walk, Rec33Sub16& sub, std::uint8_t* base) {
    walk.fields(kSub16Head, base);
    const std::size_t count = walkCount(walk, sub.count, NVB_REC33_SUB16_MAX_DOUBLES, true);
    if constexpr (Walk::kFills) {
        if (sub.byte2 > kSub16DoublesUpTo) {
            std::memset(base + offsetof(Rec33Sub16, values), 0, sizeof sub.values);
            return;
        }
    }
    const std::array values = {fieldItems(kSub16Values, 0, count)};
    walk.fields(values, base);
}

template <class Walk>
void walkSub19(Walk& walk, std::uint8_t* base) {
    walk.fields(kSub19Head, base);
    bool tail = walk.remaining() >= 2;
    if constexpr (std::is_same_v<Walk, FrameReadWalk>) tail = walk.length + 5 >= kSub19TailFromL;
    if (tail) walk.fields(kSub19Tail, base);
}

template <class Walk>
void walkGroup(Walk& walk, const char* name, const Sub21Group& group, std::uint8_t* base, bool kindOne) {
    walk.open(name, false);
    walk.fields(group.head, base);
    if (!kindOne) {
        walk.fields(group.leadAll, base);
    } else if ((base[group.flagByte] & 0x80) != 0) {
        walk.fields(group.leadOne, base);
    }
    if (kindOne || group.tailWithOtherKinds) walk.fields(group.tail, base);
    walk.close();
}

template <class Walk>
void walkSub21(Walk& walk, const Rec33Sub21& sub, std::uint8_t* base) {
    walk.fields(kSub21Head, base);
    const bool kindOne = sub.kind == 1;
    const std::uint8_t groups = sub.groupFlags;
    if ((groups & 0x01) != 0) walkGroup(walk, "groupA", kGroupA, base + offsetof(Rec33Sub21, groupA), kindOne);
    if ((groups & 0x02) != 0) walkGroup(walk, "groupB", kGroupB, base + offsetof(Rec33Sub21, groupB), kindOne);
    if ((groups & 0x04) != 0) walkGroup(walk, "groupC", kGroupC, base + offsetof(Rec33Sub21, groupC), kindOne);
}

// The matrix cells below the diagonal are copies of those above it.
template <class Sub>
void mirrorMatrix(Sub& sub) {
    sub.matrix[1][0] = sub.matrix[0][1];
    sub.matrix[2][0] = sub.matrix[0][2];
    sub.matrix[2][1] = sub.matrix[1][2];
}

// Every subtype's body in wire order; the subtype byte stands in front of it, in
// `rec.subtype`.
// Subtypes whose body is one fixed run of fields.
constexpr std::array<Layout, kLastSubtype + 1> makeFixedLayouts() {
    std::array<Layout, kLastSubtype + 1> layouts{};
    layouts[2] = kSub2;
    layouts[4] = kSub4;
    layouts[14] = kSub14;
    layouts[15] = kSub15;
    layouts[20] = kSub20;
    layouts[25] = kSub25;
    layouts[26] = kSub26;
    layouts[27] = kSub27;
    layouts[28] = kSub28;
    layouts[30] = kSub30;
    return layouts;
}

constexpr std::array<Layout, kLastSubtype + 1> kFixedLayouts = makeFixedLayouts();

// Every subtype's body in wire order; the subtype byte stands in front of it, in
// `rec.subtype`.
template <class Walk>
void walkBody(Walk& walk, Rec33& rec) {
    std::uint8_t* base = bytesOf(rec) + 1;
    const std::uint8_t subtype = rec.subtype;
    if (subtype <= kLastSubtype && !kFixedLayouts[subtype].empty()) {
        walk.fields(kFixedLayouts[subtype], base);
        return;
    }
    switch (subtype) {
        case 1:
            walkSub1(walk, base);
            break;
        case 3:
            walkSub3(walk, rec.sub3, base);
            break;
        case 5:
        case 6:
        case 7:
        case 8:
        case 9:
        case 10:
        case 11:
        case 12:
            walkDoubles(walk, rec.sub5to12, base);
            break;
        case 13:
            walkCounted<Rec33Sub13Entry>(walk, kSub13Head, rec.sub13.count, NVB_REC33_SUB13_MAX_ENTRIES, kSub13Entry,
                                         offsetof(Rec33Sub13, entries), base);
            break;
        case 16:
            walkSub16(walk, rec.sub16, base);
            break;
        case 17:
            walkCounted<Rec33Sub17Entry>(walk, kSub17Head, rec.sub17.count, NVB_REC33_SUB17_MAX_ENTRIES, kSub17Entry,
                                         offsetof(Rec33Sub17, entries), base);
            if ((rec.sub17.byte1 & 0x80) != 0) walk.fields(kSub17Tail, base);
            break;
        case 18:
            walkCounted<Rec33Sub18Entry>(walk, kSub18Head, rec.sub18.count, NVB_REC33_SUB18_MAX_ENTRIES, kSub18Entry,
                                         offsetof(Rec33Sub18, entries), base);
            break;
        case 19:
            walkSub19(walk, base);
            break;
        case 21:
            walkSub21(walk, rec.sub21, base);
            break;
        case 22:
            walk.fields(kSub22, base);
            if constexpr (Walk::kFills) mirrorMatrix(rec.sub22);
            break;
        case 23:
            walk.fields(kSub23, base);
            if constexpr (Walk::kFills) mirrorMatrix(rec.sub23);
            break;
        case 29: {
            walk.fields(kSub29Head, base);
            const std::size_t count = walkCount(walk, rec.sub29.count, NVB_REC33_SUB29_MAX_PAIRS, true);
            const std::array pairs = {fieldItems(kSub29Pairs, 0, 2 * count)};
            walk.fields(pairs, base);
            break;
        }
        default: {
            // A body kept raw: as many bytes as there are, up to its area.
            const std::array raw = {opaqueField("data", offsetof(Rec33Raw, data),
                                                std::min<std::size_t>(walk.remaining(), NVB_REC33_RAW_BYTES))};
            walk.fields(raw, base);
            break;
        }
    }
}

// Mixed-system lists take the later system numbers as the read options ask.
void mapSystems(Rec33Sub3& sub, bool mapSystem5To7, bool mapSystem7To10) {
    const std::size_t count = std::min<std::size_t>(sub.count, NVB_REC33_MAX_TRIPLES);
    for (std::size_t i = 0; i < count; ++i) {
        if (mapSystem5To7 && sub.system[i] == 5) sub.system[i] = 7;
        if (mapSystem7To10 && sub.system[i] == 7) sub.system[i] = 10;
    }
}

}  // namespace

bool isRawRec33Subtype(std::uint8_t subtype) {
    return subtype == 0 || subtype == 24 || subtype > kLastSubtype;
}

std::uint16_t readRec33(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7, bool mapSystem7To10) {
    Rec33* target = state.records.rec33;
    std::uint8_t* header = state.records.datHeader;
    if (target == nullptr || header == nullptr) return 0;
    Rec33& rec = *target;
    std::memset(&rec, 0, sizeof rec);
    const ByteView bytes = frameBytes(frame);
    const auto l = static_cast<std::uint8_t>(getByte(bytes, 1) - 2);
    const std::uint8_t subtype = getByte(bytes, 3);
    FrameReadWalk walk{{l > 5 ? l - 5u : 0u}, bytes, kFramePrefix};
    if (isRawRec33Subtype(subtype)) {
        rec.subtype = 0;
        rec.raw.originalSubtype = subtype;
    } else {
        rec.subtype = subtype;
    }
    walkBody(walk, rec);
    if (rec.subtype == kRec33MixedSystems) mapSystems(rec.sub3, mapSystem5To7, mapSystem7To10);
    const std::uint16_t datLength = atLeastDatHeader(l);
    setDatHeader(header, static_cast<std::uint8_t>(datLength), 0, kType33);
    return datLength;
}

void writeRec33Dat(const Rec33& rec, DatWriter& out) {
    if (!isPackedInDat(rec.subtype)) {
        datPut(out, &rec, std::min(out.capacity, sizeof rec));
        return;
    }
    datWrite(out, rec.subtype);
    DatPackWalk walk{{out.capacity > 0 ? out.capacity - 1 : 0}, out};
    walkBody(walk, const_cast<Rec33&>(rec));
    while (out.position < out.capacity) datWrite(out, std::uint8_t{0});
}

bool writeRec33(const Rec33& rec, std::uint16_t datLength, nvb_frame_t& frame) {
    const std::uint8_t subtype = rec.subtype;
    if (isRawRec33Subtype(subtype) || (subtype == 16 && rec.sub16.byte2 > kSub16DoublesUpTo)) return false;
    WriteBuffer out = openFrame(frame, kType33, false);
    putByte(out, subtype);
    if (subtype != 16 || rec.sub16.byte2 <= kSub16WholeBodyUpTo) {
        FrameWriteWalk walk{{datLength > 5 ? datLength - 5u : 0u}, out};
        walkBody(walk, const_cast<Rec33&>(rec));
    }
    return out.frame.length + 3u <= kLongestFrame && closeFrame(out, false) != 0;
}

int parseRec33Dat(DatReader& in, Rec33* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    const std::size_t body = in.length > in.position + 1 ? in.length - in.position - 1 : 0;
    rec->subtype = datRead<std::uint8_t>(in);
    DatParseWalk walk{{body}, in};
    walkBody(walk, *rec);
    return walk.overfull ? -2 : 0;
}

void describeRec33(const Rec33& rec, std::uint16_t datLength, const FieldSink& sink) {
    const std::array subtype = {NVB_FIELD(Rec33, subtype)};
    DescribeWalk walk{{datLength > 5 ? datLength - 5u : 0u}, sink};
    walk.fields(subtype, bytesOf(rec));
    walkBody(walk, const_cast<Rec33&>(rec));
    if (rec.subtype == 0) {
        const std::array original = {NVB_FIELD(Rec33Raw, originalSubtype)};
        walk.fields(original, bytesOf(rec) + 1);
    }
}

}  // namespace nvb
