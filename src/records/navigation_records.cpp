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

// Record 21 behind svId and its second byte, which the wire does not carry.
constexpr FieldRun kRec21Body[] = {{2, 2}, {1, 2}, {4, 3}, {8, 19}, {4, 1}, {1, 10}};
static_assert(2 + layoutBytes(kRec21Body) == sizeof(Rec21));

// Record 28 bodies from svId on, in the structure's order. Subtype 3 is its 220-byte
// form; subtype 10 holds its doubles in the structure's order, not the wire's.
constexpr FieldRun kRec28Sub1[] = {{1, 1}, {2, 1}, {4, 1}, {1, 2}, {8, 11}};
constexpr FieldRun kRec28Sub2[] = {{1, 1}, {2, 1}, {4, 1}, {2, 1}, {1, 3}, {4, 1}, {1, 6}, {8, 14}};
constexpr FieldRun kRec28Sub3[] = {{1, 1}, {2, 1}, {4, 1}, {2, 1}, {4, 1}, {8, 15}, {1, 1}, {2, 1},
                                   {1, 1}, {2, 1}, {4, 1}, {8, 4}, {2, 1}, {4, 1},  {8, 4}};
constexpr FieldRun kRec28Sub4[] = {{1, 1}, {1, 1}, {2, 1}, {4, 1}, {2, 1}, {4, 1}, {8, 15},
                                   {1, 1}, {2, 1}, {4, 1}, {8, 4}, {1, 1}, {8, 1}, {1, 1}};
constexpr FieldRun kRec28Common[] = {{1, 2}, {2, 2}, {1, 2}, {4, 3}, {8, 19}, {4, 1}};
constexpr FieldRun kRec28Sub8[] = {{1, 1}, {2, 1}, {4, 2}, {1, 2}, {8, 3}, {1, 1},
                                   {4, 1}, {1, 1}, {2, 4}, {4, 2}, {4, 1}};
constexpr FieldRun kRec28Sub10[] = {{1, 1}, {1, 4}, {2, 1}, {8, 11}};
static_assert(layoutBytes(kRec28Sub1) == sizeof(Rec28Sub1) && layoutBytes(kRec28Sub2) == sizeof(Rec28Sub2) &&
              layoutBytes(kRec28Sub3) == sizeof(Rec28Sub3) && layoutBytes(kRec28Sub4) == sizeof(Rec28Sub4) &&
              layoutBytes(kRec28Common) == offsetof(Rec21, moreBytes) && layoutBytes(kRec28Sub8) == sizeof(Rec28Sub8) &&
              layoutBytes(kRec28Sub10) == sizeof(Rec28Sub10));

constexpr std::size_t kSub3HeadRuns = 9;
constexpr std::size_t kSub10HeadRuns = 3;
// Where each wire double of subtype 10 lands in the structure.
constexpr std::array<std::uint8_t, 11> kSub10WireOrder = {0, 1, 4, 3, 6, 8, 5, 7, 2, 9, 10};
// Total lengths of the two forms of subtype 3.
constexpr std::uint16_t kSub3Short = 216;
constexpr std::uint16_t kSub3Long = 220;

struct Rec28Form {
    std::uint8_t subtype;
    FieldLayout body;
    std::uint8_t dropBit;  // 0: never dropped
};

constexpr Rec28Form kRec28Forms[] = {
    {1, kRec28Sub1, 0x02},   {2, kRec28Sub2, 0x04},   {3, kRec28Sub3, 0x08},    {4, kRec28Sub4, 0x08},
    {5, kRec28Common, 0x10}, {6, kRec28Common, 0x20}, {7, kRec28Common, 0},     {8, kRec28Sub8, 0},
    {9, kRec28Common, 0x20}, {10, kRec28Sub10, 0x20}, {11, kRec28Common, 0x20}, {13, kRec28Common, 0x40},
};

const Rec28Form* rec28Form(std::uint8_t subtype) {
    const auto* form = std::find_if(std::begin(kRec28Forms), std::end(kRec28Forms),
                                    [subtype](const Rec28Form& f) { return f.subtype == subtype; });
    return form == std::end(kRec28Forms) ? nullptr : form;
}

// time, week and svId ahead of records 25 and 26.
constexpr FieldRun kTimedHead[] = {{4, 1}, {2, 1}, {1, 1}};
constexpr std::size_t kTimedHeadBytes = layoutBytes(kTimedHead);
constexpr std::size_t kBodyOffset = 4;

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

// Record 25.
constexpr std::array<std::uint8_t, 3> kSbasPreambles = {0x53, 0x9A, 0xC6};
constexpr std::uint8_t kCheckOnWire = 0x40;
// Of the last data byte only the top two bits belong to the 218-bit message body.
constexpr std::uint8_t kLastDataBits = 0xC0;
constexpr std::size_t kSbasCheckedBits = 8 + 8 * (NVB_SBAS_DATA_BYTES - 1) + 2;
constexpr std::uint32_t kCrc24Polynomial = 0x864CFB;

void putSbasData(WriteBuffer& out, const std::uint8_t* data) {
    putBytes(out, data, NVB_SBAS_DATA_BYTES - 1);
    putByte(out, data[NVB_SBAS_DATA_BYTES - 1] & kLastDataBits);
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
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    // Every field is assigned, the second byte included, which clears the structure.
    rec->svId = getByte(bytes, 3);
    rec->secondByte = 0;
    getRuns(bytes, kBodyOffset, kRec21Body, structBytes(*rec, offsetof(Rec21, words)));
    constexpr std::uint16_t length = 4 + sizeof(Rec21);
    setDatHeader(header, length, 0, kType21);
    return length;
}

std::uint16_t writeRec21(const Rec21& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, kType21, false);
    putByte(out, rec.svId);
    putRuns(out, kRec21Body, structBytes(rec, offsetof(Rec21, words)));
    return closeFrame(out, false);
}

int parseRec21Dat(DatReader& in, Rec21* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    rec->svId = datRead<std::uint8_t>(in);
    rec->secondByte = datRead<std::uint8_t>(in);
    datRuns(in, kRec21Body, structBytes(*rec, offsetof(Rec21, words)));
    return 0;
}

std::uint16_t readRec28(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7) {
    Rec28* rec = state.records.rec28;
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr) return 0;
    const ByteView bytes = frameBytes(frame);
    rec->subtype = getByte(bytes, 3);
    std::uint16_t length = 0;
    if (const Rec28Form* form = rec28Form(rec->subtype)) {
        std::uint8_t* body = structBytes(*rec, 1);
        if (rec->subtype == 3) {
            // Only the record's length tells the two forms apart; at any other length the
            // tail keeps what the last record left.
            const FieldLayout head = form->body.first(kSub3HeadRuns);
            const std::size_t tail = getRuns(bytes, kBodyOffset, head, body);
            if (frame.length == kSub3Long) {
                getRuns(bytes, tail, form->body.subspan(kSub3HeadRuns), body + layoutBytes(head));
            } else if (frame.length == kSub3Short) {
                rec->sub3.tailWord1 = 0xFFFF;
                rec->sub3.tailWord2 = 0xFFFF;
                const FieldLayout part = form->body.subspan(kSub3HeadRuns + 1, 2);
                const std::size_t second =
                    getRuns(bytes, tail, part, structBytes(*rec, offsetof(Rec28, sub3.tailDword1)));
                getRuns(bytes, second, part, structBytes(*rec, offsetof(Rec28, sub3.tailDword2)));
            }
        } else if (rec->subtype == 10) {
            const std::size_t doubles = getRuns(bytes, kBodyOffset, form->body.first(kSub10HeadRuns), body);
            for (std::size_t i = 0; i < kSub10WireOrder.size(); ++i) {
                rec->sub10.doubles[kSub10WireOrder[i]] = getDouble(bytes, doubles + 8 * i);
            }
        } else {
            getRuns(bytes, kBodyOffset, form->body, body);
        }
        length = static_cast<std::uint16_t>(4 + 1 + layoutBytes(form->body));
    }
    if (mapSystem5To7 && rec->subtype == 6) {
        rec->common.svId = remapSystem5Sv(rec->common.svId);
        rec->subtype = 9;
    }
    setDatHeader(header, static_cast<std::uint8_t>(length), 0, kType28);
    return length;
}

NavFilter filterRec28(std::uint8_t subtype, std::uint8_t dropMask) {
    const Rec28Form* form = rec28Form(subtype);
    if (form == nullptr) return NavFilter::Refuse;
    return (form->dropBit & dropMask) != 0 ? NavFilter::Drop : NavFilter::Write;
}

std::uint16_t writeRec28(const Rec28& rec, nvb_frame_t& frame) {
    const Rec28Form* form = rec28Form(rec.subtype);
    if (form == nullptr) return 0;
    WriteBuffer out = openFrame(frame, kType28, false);
    putByte(out, rec.subtype);
    const std::uint8_t* body = structBytes(rec, 1);
    if (rec.subtype == 10) {
        putRuns(out, form->body.first(kSub10HeadRuns), body);
        for (const std::uint8_t slot : kSub10WireOrder) putF64(out, rec.sub10.doubles[slot]);
    } else {
        putRuns(out, form->body, body);
    }
    return closeFrame(out, false);
}

int parseRec28Dat(DatReader& in, Rec28* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    rec->subtype = datRead<std::uint8_t>(in);
    if (const Rec28Form* form = rec28Form(rec->subtype)) datRuns(in, form->body, structBytes(*rec, 1));
    return 0;
}

std::uint16_t readRec25(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec25* rec = clearedTarget(state.records.rec25, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    std::size_t at = getRuns(bytes, kBodyOffset, kTimedHead, structBytes(*rec, 0));
    std::uint16_t length = 0;
    if (subtype == 0) {
        getBytes(rec->sub0.data, bytes, at, NVB_SBAS_DATA_BYTES);
        length = 39;
    } else if (subtype == 2) {
        Rec25Sub2& message = rec->sub2;
        message.flags = getByte(bytes, at++);
        getBytes(message.data, bytes, at, NVB_SBAS_DATA_BYTES);
        at += NVB_SBAS_DATA_BYTES;
        if ((message.flags & kCheckOnWire) != 0) {
            message.preamble = getByte(bytes, at);
            message.crc = getUint(bytes, at + 1, 3);
            length = 44;
        } else {
            completeSbasMessage(rec->time, message);
            length = 40;
        }
    }
    setDatHeader(header, static_cast<std::uint8_t>(length), subtype, kType25);
    return length;
}

std::uint16_t writeRec25(const Rec25& rec, std::uint8_t subtype, nvb_frame_t& frame) {
    if (subtype != 0 && subtype != 2) return 0;
    WriteBuffer out = openFrame(frame, kType25, false);
    putByte(out, subtype);
    putRuns(out, kTimedHead, structBytes(rec, 0));
    if (subtype == 0) {
        putSbasData(out, rec.sub0.data);
    } else {
        const Rec25Sub2& message = rec.sub2;
        putByte(out, message.flags);
        putSbasData(out, message.data);
        if ((message.flags & kCheckOnWire) != 0) {
            putByte(out, message.preamble);
            putByte(out, static_cast<std::uint8_t>(message.crc >> 16));
            putU16(out, static_cast<std::uint16_t>(message.crc));
        }
    }
    return closeFrame(out, false);
}

int parseRec25Dat(DatReader& in, Rec25* rec, std::uint8_t subtype) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    datRuns(in, kTimedHead, structBytes(*rec, 0));
    if (subtype == 0) {
        datCopy(in, rec->sub0.data, NVB_SBAS_DATA_BYTES, 1);
    } else if (subtype == 2) {
        Rec25Sub2& message = rec->sub2;
        message.flags = datRead<std::uint8_t>(in);
        datCopy(in, message.data, NVB_SBAS_DATA_BYTES, 1);
        if ((message.flags & kCheckOnWire) != 0) {
            message.preamble = datRead<std::uint8_t>(in);
            // The DAT form holds the 24-bit check in three bytes, low byte first.
            datCopy(in, &message.crc, 3, 1);
        } else {
            completeSbasMessage(rec->time, message);
        }
    }
    return 0;
}

std::uint16_t readRec26(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7) {
    Rec26* rec = clearedTarget(state.records.rec26, state);
    if (rec == nullptr) return 0;
    std::uint8_t* header = state.records.datHeader;
    const ByteView bytes = frameBytes(frame);
    const std::uint8_t subtype = getByte(bytes, 3);
    std::size_t at = getRuns(bytes, kBodyOffset, kTimedHead, structBytes(*rec, 0));
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
    getBytes(structBytes(*rec, data), bytes, at, form->dataBytes);
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
    putRuns(out, kTimedHead, structBytes(rec, 0));
    const std::uint8_t* data = structBytes(rec, kPlainData);
    switch (form->layout) {
        case Rec26Layout::Older:
            data = structBytes(rec, kOlderData);
            break;
        case Rec26Layout::OlderGlonass:
            putByte(out, rec.rawByte);
            data = structBytes(rec, kOlderData + 1);
            break;
        case Rec26Layout::Plain:
            putByte(out, rec.rawByte);
            putByte(out, static_cast<std::uint8_t>(rec.plain.rawWord));
            break;
        case Rec26Layout::Extended:
            putByte(out, rec.rawByte);
            putByte(out, static_cast<std::uint8_t>(rec.extended.rawWord));
            putByte(out, rec.extended.extraByte);
            data = structBytes(rec, kExtendedData);
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
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    datRuns(in, kTimedHead, structBytes(*rec, 0));
    std::size_t at = kTimedHeadBytes;
    const Rec26Form* form = rec26Form(subtype);
    if (form != nullptr && (form->layout == Rec26Layout::Plain || form->layout == Rec26Layout::Extended)) {
        rec->rawByte = datRead<std::uint8_t>(in);
        rec->plain.rawWord = datRead<std::uint32_t>(in);
        at = offsetof(Rec26, plain.length);
    }
    // Everything else is single bytes, up to the DAT length and the structure's end.
    datCopy(in, structBytes(*rec, at), std::min(datLeft(in), sizeof(Rec26) - at), 1);
    return 0;
}

}  // namespace nvb
