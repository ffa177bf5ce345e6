#include "records/navigation_records.h"

#include "common/diagnostics.h"
#include "records/opaque_records.h"
#include "records/system_tables.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kType21 = 21;
constexpr std::uint8_t kType25 = 25;
constexpr std::uint8_t kType26 = 26;
constexpr std::uint8_t kType28 = 28;

constexpr std::size_t kBodyOffset = 4;

// Record 21, and the common body of record 28, from svId on. The second byte is on the
// wire in record 28 only; record 21 keeps it in the structure and the DAT form.
constexpr std::array kSvId = {NVB_FIELD(Rec21, svId)};
constexpr std::array kSecondByte = {NVB_FIELD(Rec21, secondByte)};
constexpr std::array kEphemeris = {NVB_FIELD(Rec21, words), NVB_FIELD(Rec21, bytes), NVB_FIELD(Rec21, dwords),
                                   NVB_FIELD(Rec21, doubles), NVB_FIELD(Rec21, dword4)};
constexpr std::array kRec21Tail = {NVB_FIELD(Rec21, moreBytes), NVB_FIELD(Rec21, lastByte)};
static_assert(layoutBytes(kSvId) + layoutBytes(kSecondByte) + layoutBytes(kEphemeris) + layoutBytes(kRec21Tail) ==
              sizeof(Rec21));

template <class Walk>
void walkRec21(Walk& walk, Rec21& rec) {
    walk.fields(kSvId, bytesOf(rec));
    if constexpr (!kOnWire<Walk>) walk.fields(kSecondByte, bytesOf(rec));
    walk.fields(kEphemeris, bytesOf(rec));
    walk.fields(kRec21Tail, bytesOf(rec));
}

// Record 28 bodies behind the subtype byte, in the structure's order.
constexpr std::array kRec28Subtype = {NVB_FIELD(Rec28, subtype)};
constexpr std::array kRec28Sub1 = {NVB_FIELD(Rec28Sub1, svId), NVB_FIELD(Rec28Sub1, word1),
                                   NVB_FIELD(Rec28Sub1, dword1), NVB_FIELD(Rec28Sub1, bytes),
                                   NVB_FIELD(Rec28Sub1, doubles)};
constexpr std::array kRec28Sub2 = {NVB_FIELD(Rec28Sub2, svId),   NVB_FIELD(Rec28Sub2, word1),
                                   NVB_FIELD(Rec28Sub2, dword1), NVB_FIELD(Rec28Sub2, word2),
                                   NVB_FIELD(Rec28Sub2, bytes1), NVB_FIELD(Rec28Sub2, dword2),
                                   NVB_FIELD(Rec28Sub2, bytes2), NVB_FIELD(Rec28Sub2, doubles)};
constexpr std::array kGalileoHead = {
    NVB_FIELD(Rec28Sub3, svId),  NVB_FIELD(Rec28Sub3, word1),  NVB_FIELD(Rec28Sub3, dword1),
    NVB_FIELD(Rec28Sub3, word2), NVB_FIELD(Rec28Sub3, dword2), NVB_FIELD(Rec28Sub3, doubles1),
    NVB_FIELD(Rec28Sub3, byte1), NVB_FIELD(Rec28Sub3, word3),  NVB_FIELD(Rec28Sub3, byte2)};
constexpr std::array kGalileoTail = {NVB_FIELD(Rec28Sub3, tailWord1),    NVB_FIELD(Rec28Sub3, tailDword1),
                                     NVB_FIELD(Rec28Sub3, tailDoubles1), NVB_FIELD(Rec28Sub3, tailWord2),
                                     NVB_FIELD(Rec28Sub3, tailDword2),   NVB_FIELD(Rec28Sub3, tailDoubles2)};
// The 216-byte form, which lacks the two 16-bit tail fields.
constexpr std::array kGalileoShortTail = {NVB_FIELD(Rec28Sub3, tailDword1), NVB_FIELD(Rec28Sub3, tailDoubles1),
                                          NVB_FIELD(Rec28Sub3, tailDword2), NVB_FIELD(Rec28Sub3, tailDoubles2)};
constexpr std::array kRec28Sub4 = {
    NVB_FIELD(Rec28Sub4, svId),     NVB_FIELD(Rec28Sub4, byte1),    NVB_FIELD(Rec28Sub4, word1),
    NVB_FIELD(Rec28Sub4, dword1),   NVB_FIELD(Rec28Sub4, word2),    NVB_FIELD(Rec28Sub4, dword2),
    NVB_FIELD(Rec28Sub4, doubles1), NVB_FIELD(Rec28Sub4, byte2),    NVB_FIELD(Rec28Sub4, word3),
    NVB_FIELD(Rec28Sub4, dword3),   NVB_FIELD(Rec28Sub4, doubles2), NVB_FIELD(Rec28Sub4, byte3),
    NVB_FIELD(Rec28Sub4, double1),  NVB_FIELD(Rec28Sub4, byte4)};
constexpr std::array kRec28Common = {NVB_FIELD(Rec21, svId),  NVB_FIELD(Rec21, secondByte), NVB_FIELD(Rec21, words),
                                     NVB_FIELD(Rec21, bytes), NVB_FIELD(Rec21, dwords),     NVB_FIELD(Rec21, doubles),
                                     NVB_FIELD(Rec21, dword4)};
constexpr std::array kRec28Sub8 = {
    NVB_FIELD(Rec28Sub8, svId),    NVB_FIELD(Rec28Sub8, word1),   NVB_FIELD(Rec28Sub8, dwords1),
    NVB_FIELD(Rec28Sub8, bytes),   NVB_FIELD(Rec28Sub8, doubles), NVB_FIELD(Rec28Sub8, byte1),
    NVB_FIELD(Rec28Sub8, dword3),  NVB_FIELD(Rec28Sub8, byte2),   NVB_FIELD(Rec28Sub8, words),
    NVB_FIELD(Rec28Sub8, dwords2), NVB_FIELD(Rec28Sub8, dword6)};
constexpr std::array kRec28Sub10Head = {NVB_FIELD(Rec28Sub10, svId), NVB_FIELD(Rec28Sub10, bytes),
                                        NVB_FIELD(Rec28Sub10, word1)};
constexpr std::array kRec28Sub10Doubles = {NVB_FIELD(Rec28Sub10, doubles)};
static_assert(layoutBytes(kRec28Sub1) == sizeof(Rec28Sub1) && layoutBytes(kRec28Sub2) == sizeof(Rec28Sub2) &&
              layoutBytes(kGalileoHead) + layoutBytes(kGalileoTail) == sizeof(Rec28Sub3) &&
              layoutBytes(kRec28Sub4) == sizeof(Rec28Sub4) && layoutBytes(kRec28Common) == offsetof(Rec21, moreBytes) &&
              layoutBytes(kRec28Sub8) == sizeof(Rec28Sub8) &&
              layoutBytes(kRec28Sub10Head) + layoutBytes(kRec28Sub10Doubles) == sizeof(Rec28Sub10));

// Where each wire double of subtype 10 lands in the structure.
constexpr std::array<std::uint8_t, 11> kSub10WireOrder = {0, 1, 4, 3, 6, 8, 5, 7, 2, 9, 10};
// Total lengths of the two forms of subtype 3.
constexpr std::uint16_t kSub3Short = 216;
constexpr std::uint16_t kSub3Long = 220;

// The dropMask bit of each subtype with a layout; 0: never dropped.
constexpr std::array<std::pair<std::uint8_t, std::uint8_t>, 12> kRec28DropBits = {{{1, 0x02},
                                                                                   {2, 0x04},
                                                                                   {3, 0x08},
                                                                                   {4, 0x08},
                                                                                   {5, 0x10},
                                                                                   {6, 0x20},
                                                                                   {7, 0},
                                                                                   {8, 0},
                                                                                   {9, 0x20},
                                                                                   {10, 0x20},
                                                                                   {11, 0x20},
                                                                                   {13, 0x40}}};

// Walks the body of a record 28 behind its subtype; false for a subtype without a layout.
// A frame of subtype 3 is read by the form its length tells; everything else walks the
// 220-byte form, the one the writer always sends.
template <class Walk>
bool walkRec28(Walk& walk, Rec28& rec, std::size_t recordLength = kSub3Long) {
    walk.fields(kRec28Subtype, bytesOf(rec));
    std::uint8_t* body = bytesOf(rec) + 1;
    switch (rec.subtype) {
        case 1:
            walk.fields(kRec28Sub1, body);
            return true;
        case 2:
            walk.fields(kRec28Sub2, body);
            return true;
        case 3:
            walk.fields(kGalileoHead, body);
            if (recordLength == kSub3Long) {
                walk.fields(kGalileoTail, body);
            } else if (recordLength == kSub3Short) {
                rec.sub3.tailWord1 = 0xFFFF;
                rec.sub3.tailWord2 = 0xFFFF;
                walk.fields(kGalileoShortTail, body);
            }
            return true;
        case 4:
            walk.fields(kRec28Sub4, body);
            return true;
        case 8:
            walk.fields(kRec28Sub8, body);
            return true;
        case 10:
            walk.fields(kRec28Sub10Head, body);
            if constexpr (kOnWire<Walk>) {
                for (const std::uint8_t slot : kSub10WireOrder) {
                    const std::array one = {fieldItems(kRec28Sub10Doubles[0], slot, 1)};
                    walk.fields(one, body);
                }
            } else {
                walk.fields(kRec28Sub10Doubles, body);
            }
            return true;
        case 5:
        case 6:
        case 7:
        case 9:
        case 11:
        case 13:
            walk.fields(kRec28Common, body);
            return true;
        default:
            return false;
    }
}

// Record 25: time, week and svId, then the message by subtype.
constexpr std::array kRec25Head = {NVB_FIELD(Rec25, time), NVB_FIELD(Rec25, week), NVB_FIELD(Rec25, svId)};
constexpr std::array kSbasPlain = {opaqueField("data", offsetof(Rec25Sub0, data), NVB_SBAS_DATA_BYTES)};
constexpr std::array kSbasFlagged = {NVB_FIELD(Rec25Sub2, flags),
                                     opaqueField("data", offsetof(Rec25Sub2, data), NVB_SBAS_DATA_BYTES)};
// The check is 24 bits: three bytes on the wire and in the DAT form.
constexpr std::array kSbasCheck = {NVB_FIELD(Rec25Sub2, preamble),
                                   FieldSpec{"crc", offsetof(Rec25Sub2, crc), 3, FieldKind::Unsigned, 1}};

constexpr std::array<std::uint8_t, 3> kSbasPreambles = {0x53, 0x9A, 0xC6};
constexpr std::uint8_t kCheckOnWire = 0x40;
// Of the last data byte only the top two bits belong to the 218-bit message body.
constexpr std::uint8_t kLastDataBits = 0xC0;
constexpr std::size_t kSbasCheckedBits = 8 + 8 * (NVB_SBAS_DATA_BYTES - 1) + 2;
constexpr std::uint32_t kCrc24Polynomial = 0x864CFB;

// False for a subtype other than 0 and 2. The check that the reader computes for a
// message without one is described all the same.
template <class Walk>
bool walkRec25(Walk& walk, Rec25& rec, std::uint8_t subtype) {
    walk.fields(kRec25Head, bytesOf(rec));
    if (subtype == 0) {
        walk.fields(kSbasPlain, bytesOf(rec.sub0));
        return true;
    }
    if (subtype != 2) return false;
    walk.fields(kSbasFlagged, bytesOf(rec.sub2));
    if ((rec.sub2.flags & kCheckOnWire) != 0 || std::is_same_v<Walk, DescribeWalk>) {
        walk.fields(kSbasCheck, bytesOf(rec.sub2));
    }
    return true;
}

// Record 26. The older subtypes 0 and 1 are delivered in the layouts of 6 and 7.
enum class Rec26Layout : std::uint8_t {
    Older,         // subtype 0: the data right behind svId
    OlderGlonass,  // subtype 1: the channel byte, then the data
    Page,          // rawByte, flags and an extra byte when flags has bit 7
    Plain,         // rawByte and one byte of rawWord
    Extended,      // rawByte, one byte of rawWord, and the extra byte
};

struct Rec26Form {
    std::uint8_t subtype;
    Rec26Layout layout;
    std::uint8_t dataBytes;
    std::uint8_t reportedAs;
    std::uint8_t dropBit;  // 0: the encoder's filter knows no bit and refuses it
};

constexpr Rec26Form kRec26Forms[] = {
    {0, Rec26Layout::Older, 38, 6, 0x01},    {1, Rec26Layout::OlderGlonass, 11, 7, 0x04},
    {2, Rec26Layout::Page, 31, 2, 0x08},     {3, Rec26Layout::Page, 30, 3, 0x08},
    {4, Rec26Layout::Page, 31, 4, 0x08},     {5, Rec26Layout::Page, 15, 5, 0x08},
    {14, Rec26Layout::Page, 62, 14, 0},      {6, Rec26Layout::Plain, 38, 6, 0x01},
    {7, Rec26Layout::Extended, 11, 7, 0x04}, {8, Rec26Layout::Plain, 38, 8, 0x20},
    {9, Rec26Layout::Plain, 38, 9, 0x10},    {10, Rec26Layout::Plain, 38, 10, 0x10},
    {11, Rec26Layout::Plain, 38, 11, 0x20},  {12, Rec26Layout::Extended, 125, 12, 0x10},
    {13, Rec26Layout::Plain, 38, 13, 0x40},
};

const Rec26Form* rec26Form(std::uint8_t subtype) {
    const auto* form = std::find_if(std::begin(kRec26Forms), std::end(kRec26Forms),
                                    [subtype](const Rec26Form& f) { return f.subtype == subtype; });
    return form == std::end(kRec26Forms) ? nullptr : form;
}

constexpr std::uint8_t kPageExtraByte = 0x80;
constexpr std::size_t kPlainData = offsetof(Rec26, plain.data);
constexpr std::size_t kExtendedData = offsetof(Rec26, extended.data);
constexpr std::size_t kOlderData = offsetof(Rec26, rawByte);

std::uint8_t pageIndex(std::uint8_t subtype) {
    return subtype == 14 ? 4 : static_cast<std::uint8_t>(subtype - 2);
}

// The DAT form of record 26 is its structure up to the data, as the subtype lays it out.
constexpr std::array kRec26Head = {NVB_FIELD(Rec26, time), NVB_FIELD(Rec26, week), NVB_FIELD(Rec26, svId)};
constexpr std::array kRec26RawByte = {NVB_FIELD(Rec26, rawByte)};
// The count of data bytes is named apart from the record's own length.
constexpr std::array kRec26Plain = {NVB_FIELD(Rec26Plain, rawWord),
                                    FieldSpec{"dataLength", offsetof(Rec26Plain, length), 1, FieldKind::Unsigned, 1}};
constexpr std::array kRec26Page = {NVB_FIELD(Rec26Page, flags), NVB_FIELD(Rec26Page, extraByte),
                                   NVB_FIELD(Rec26Page, flagsLow), NVB_FIELD(Rec26Page, payloadIndex),
                                   FieldSpec{"dataLength", offsetof(Rec26Page, length), 1, FieldKind::Unsigned, 1}};
constexpr std::array kRec26Extended = {
    NVB_FIELD(Rec26Extended, rawWord), NVB_FIELD(Rec26Extended, extraByte),
    FieldSpec{"dataLength", offsetof(Rec26Extended, length), 1, FieldKind::Unsigned, 1}};

// The data run to the end of the DAT form, as far as the structure holds them; the older
// subtypes 0 and 1, which only a host writes, keep them from the raw byte on.
template <class Walk>
void walkRec26Dat(Walk& walk, Rec26& rec, std::uint8_t subtype) {
    walk.fields(kRec26Head, bytesOf(rec));
    const Rec26Form* form = rec26Form(subtype);
    const Rec26Layout layout = form != nullptr ? form->layout : Rec26Layout::Older;
    std::size_t dataAt = kOlderData;
    if (layout != Rec26Layout::Older) {
        walk.fields(kRec26RawByte, bytesOf(rec));
        dataAt = kOlderData + 1;
    }
    if (layout == Rec26Layout::Plain) {
        walk.fields(kRec26Plain, bytesOf(rec.plain));
        dataAt = kPlainData;
    } else if (layout == Rec26Layout::Page) {
        walk.fields(kRec26Page, bytesOf(rec.page));
        dataAt = kPlainData;
    } else if (layout == Rec26Layout::Extended) {
        walk.fields(kRec26Extended, bytesOf(rec.extended));
        dataAt = kExtendedData;
    }
    const std::array data = {opaqueField("data", dataAt, std::min(walk.remaining(), sizeof(Rec26) - dataAt))};
    walk.fields(data, bytesOf(rec));
}

}  // namespace

std::uint32_t crc24q(std::span<const std::uint8_t> bytes, std::size_t bitCount) {
    std::uint32_t shiftRegister = 0;
    const auto shiftIn = [&shiftRegister](unsigned bit) {
        const bool carry = (shiftRegister & 0x800000u) != 0;
        shiftRegister = ((shiftRegister << 1) | bit) & 0xFFFFFFu;
        if (carry) shiftRegister ^= kCrc24Polynomial;
    };
    bitCount = std::min(bitCount, 8 * bytes.size());
    for (std::size_t i = 0; i < bitCount; ++i) shiftIn((bytes[i / 8] >> (7 - i % 8)) & 1u);
    for (int i = 0; i < 24; ++i) shiftIn(0);
    return shiftRegister;
}

void completeSbasMessage(std::uint32_t time, Rec25Sub2& message) {
    message.preamble = kSbasPreambles[time % kSbasPreambles.size()];
    std::array<std::uint8_t, 1 + NVB_SBAS_DATA_BYTES> bits{};
    bits[0] = message.preamble;
    std::memcpy(bits.data() + 1, message.data, NVB_SBAS_DATA_BYTES);
    message.crc = crc24q(bits, kSbasCheckedBits);
}

std::uint16_t readRec21(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec21* rec = state.records.rec21;
    if (rec == nullptr || state.records.datHeader == nullptr) return 0;
    // Every field is assigned, the second byte included, which clears the structure.
    rec->secondByte = 0;
    FrameReadWalk walk{{}, frameBytes(frame), 3};
    walkRec21(walk, *rec);
    constexpr std::uint16_t length = 4 + sizeof(Rec21);
    setDatHeader(state.records.datHeader, length, 0, kType21);
    return length;
}

std::uint16_t writeRec21(const Rec21& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, kType21, false);
    FrameWriteWalk walk{{}, out};
    walkRec21(walk, const_cast<Rec21&>(rec));
    return closeFrame(out, false);
}

int parseRec21Dat(DatReader& in, Rec21* rec) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec21& target) { walkRec21(walk, target); });
}

std::uint16_t readRec28(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7) {
    Rec28* rec = state.records.rec28;
    if (rec == nullptr || state.records.datHeader == nullptr) return 0;
    // Not cleared: what the subtype does not write keeps the last record's values.
    FrameReadWalk walk{{}, frameBytes(frame), 3};
    std::uint16_t length = 0;
    if (walkRec28(walk, *rec, frame.length)) {
        length = static_cast<std::uint16_t>(rec->subtype == 3 ? 5 + sizeof(Rec28Sub3) : 4 + walk.position);
    }
    if (mapSystem5To7 && rec->subtype == 6) {
        rec->common.svId = remapSystem5Sv(rec->common.svId);
        rec->subtype = 9;
    }
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), 0, kType28);
    return length;
}

NavFilter filterRec28(std::uint8_t subtype, std::uint8_t dropMask) {
    const auto* known = std::find_if(kRec28DropBits.begin(), kRec28DropBits.end(),
                                     [subtype](const auto& entry) { return entry.first == subtype; });
    if (known == kRec28DropBits.end()) return NavFilter::Refuse;
    return (known->second & dropMask) != 0 ? NavFilter::Drop : NavFilter::Write;
}

std::uint16_t writeRec28(const Rec28& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, kType28, false);
    FrameWriteWalk walk{{}, out};
    if (!walkRec28(walk, const_cast<Rec28&>(rec))) return 0;
    return closeFrame(out, false);
}

int parseRec28Dat(DatReader& in, Rec28* rec) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec28& target) { walkRec28(walk, target); });
}

std::uint16_t readRec25(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec25* rec = clearedTarget(state.records.rec25, state);
    if (rec == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    FrameReadWalk walk{{}, bytes, kBodyOffset};
    std::uint16_t length = 0;
    if (walkRec25(walk, *rec, subtype)) {
        if (subtype == 2 && (rec->sub2.flags & kCheckOnWire) == 0) completeSbasMessage(rec->time, rec->sub2);
        length = static_cast<std::uint16_t>(4 + walk.position);
    }
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), subtype, kType25);
    return length;
}

std::uint16_t writeRec25(const Rec25& rec, std::uint8_t subtype, nvb_frame_t& frame) {
    Rec25 sent = rec;
    std::uint8_t* data = subtype == 0 ? sent.sub0.data : sent.sub2.data;
    data[NVB_SBAS_DATA_BYTES - 1] &= kLastDataBits;
    WriteBuffer out = openFrame(frame, kType25, false);
    putByte(out, subtype);
    FrameWriteWalk walk{{}, out};
    if (!walkRec25(walk, sent, subtype)) return 0;
    return closeFrame(out, false);
}

int parseRec25Dat(DatReader& in, Rec25* rec, std::uint8_t subtype) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec25& target) {
        walkRec25(walk, target, subtype);
        if (subtype == 2 && (target.sub2.flags & kCheckOnWire) == 0) completeSbasMessage(target.time, target.sub2);
    });
}

std::uint16_t readRec26(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7) {
    Rec26* rec = clearedTarget(state.records.rec26, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    FrameReadWalk walk{{}, bytes, kBodyOffset};
    walk.fields(kRec26Head, bytesOf(*rec));
    std::size_t at = kBodyOffset + walk.position;
    const Rec26Form* form = rec26Form(subtype);
    if (form == nullptr) {
        setDatHeader(header, 0, subtype, kType26);
        return 0;
    }
    std::size_t data = kPlainData;
    std::size_t head = kPlainData;  // the structure bytes ahead of the data in the DAT length
    switch (form->layout) {
        case Rec26Layout::Older:
            rec->plain.length = form->dataBytes;
            break;
        case Rec26Layout::OlderGlonass:
            rec->rawByte = getByte(bytes, at++);
            rec->extended.length = form->dataBytes;
            data = head = kExtendedData;
            break;
        case Rec26Layout::Plain:
            rec->rawByte = getByte(bytes, at++);
            rec->plain.rawWord = getByte(bytes, at++);
            rec->plain.length = form->dataBytes;
            break;
        case Rec26Layout::Extended:
            rec->rawByte = getByte(bytes, at++);
            rec->extended.rawWord = getByte(bytes, at++);
            rec->extended.extraByte = getByte(bytes, at++);
            rec->extended.length = form->dataBytes;
            data = head = kExtendedData;
            break;
        case Rec26Layout::Page: {
            Rec26Page& page = rec->page;
            rec->rawByte = getByte(bytes, at++);
            page.flags = getByte(bytes, at++);
            // The DAT length grows by the extra byte, although the data keep their place.
            if ((page.flags & kPageExtraByte) != 0) {
                page.extraByte = getByte(bytes, at++);
                ++head;
            }
            page.flagsLow = page.flags & 0x0F;
            page.payloadIndex = pageIndex(subtype);
            page.length = form->dataBytes;
            break;
        }
    }
    getBytes(bytesOf(*rec) + data, bytes, at, form->dataBytes);
    std::uint8_t reported = form->reportedAs;
    if (mapSystem5To7 && subtype == 8) {
        reported = 11;
        rec->svId = remapSystem5Sv(rec->svId);
    }
    const auto length = static_cast<std::uint16_t>(4 + head + form->dataBytes);
    setDatHeader(header, static_cast<std::uint8_t>(length), reported, kType26);
    return length;
}

NavFilter filterRec26(std::uint8_t subtype, std::uint8_t dropMask, bool legacyMode) {
    // Older readers take the oldest GPS form only.
    if (legacyMode && subtype != 0) return NavFilter::Drop;
    const Rec26Form* form = rec26Form(subtype);
    if (form == nullptr || form->dropBit == 0) return NavFilter::Refuse;
    return (form->dropBit & dropMask) != 0 ? NavFilter::Drop : NavFilter::Write;
}

std::uint16_t writeRec26(const Rec26& rec, std::uint8_t subtype, nvb_frame_t& frame) {
    const Rec26Form* form = rec26Form(subtype);
    if (form == nullptr) {
        logMessage("Error: Type 26 Unsupported Subtype %d\n", subtype);
        return 0;
    }
    WriteBuffer out = openFrame(frame, kType26, false);
    putByte(out, subtype);
    FrameWriteWalk walk{{}, out};
    walk.fields(kRec26Head, bytesOf(const_cast<Rec26&>(rec)));
    const std::uint8_t* data = bytesOf(rec) + kPlainData;
    switch (form->layout) {
        case Rec26Layout::Older:
            data = bytesOf(rec) + kOlderData;
            break;
        case Rec26Layout::OlderGlonass:
            putByte(out, rec.rawByte);
            data = bytesOf(rec) + kOlderData + 1;
            break;
        case Rec26Layout::Plain:
            putByte(out, rec.rawByte);
            putByte(out, static_cast<std::uint8_t>(rec.plain.rawWord));
            break;
        case Rec26Layout::Extended:
            putByte(out, rec.rawByte);
            putByte(out, static_cast<std::uint8_t>(rec.extended.rawWord));
            putByte(out, rec.extended.extraByte);
            data = bytesOf(rec) + kExtendedData;
            break;
        case Rec26Layout::Page:
            putByte(out, rec.rawByte);
            putByte(out, rec.page.flags);
            if ((rec.page.flags & kPageExtraByte) != 0) putByte(out, rec.page.extraByte);
            break;
    }
    putBytes(out, data, form->dataBytes);
    return closeFrame(out, false);
}

int parseRec26Dat(DatReader& in, Rec26* rec, std::uint8_t subtype) {
    return parseByWalk(in, rec, [&](DatParseWalk& walk, Rec26& target) { walkRec26Dat(walk, target, subtype); });
}

bool describeNavigationRecord(const nvb_expand_t& state, std::uint16_t type, std::uint32_t datLength,
                              const FieldSink& sink) {
    const nvb_record_table_t& records = state.records;
    std::uint8_t* header = records.datHeader;
    if (header == nullptr) return false;
    DescribeWalk walk = describeWalkOf(datLength, sink);
    switch (type) {
        case 21:
            if (records.rec21 == nullptr) return false;
            walkRec21(walk, *records.rec21);
            return true;
        case 25:
            if (records.rec25 == nullptr) return false;
            walk.fields(kHeaderSubtype, header);
            walkRec25(walk, *records.rec25, header[2]);
            return true;
        case 26:
            if (records.rec26 == nullptr) return false;
            walk.fields(kHeaderSubtype, header);
            walkRec26Dat(walk, *records.rec26, header[2]);
            return true;
        case 28:
            return records.rec28 != nullptr && walkRec28(walk, *records.rec28);
        default:
            return false;
    }
}

}  // namespace nvb
