#include "records/auxiliary_records.h"

#include "records/opaque_records.h"

#include <nvbdll/records.h>

#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint16_t kLongestShortFrame = 255;
constexpr std::size_t kFrameTrailer = 3;  // checksum and end byte

// Frame bytes ahead of each body: start, length, type, then subtype or high length byte.
constexpr std::size_t kShortBody = 3;  // from the subtype, or the first body byte
constexpr std::size_t kLongBody = 4;   // behind the high length byte

constexpr std::size_t kRec34RawBytes = sizeof(Rec34) - 1;
constexpr std::uint8_t kRec40RawIdSigned = 6;
constexpr std::uint8_t kRec40RawIdUnsignedA = 7;
constexpr std::uint8_t kRec40RawIdUnsignedB = 8;
constexpr double kRec40Scale = 100.0;
constexpr std::size_t kRec40Entries = 10;
constexpr std::uint8_t kRec98ExtraByte = 0x80;
constexpr std::uint8_t kRec99Deflated = 1;
constexpr std::size_t kRec99HeadBytes = 7;  // flags, word, u32
// Payloads of record 99 are deflated at zlib's usual level.
constexpr int kRec99DeflateLevel = 6;

constexpr std::array kRec31 = {NVB_FIELD(Rec31, tag), NVB_FIELD(Rec31, tagByte), NVB_FIELD(Rec31, count)};

constexpr std::array kRec32Subtype = {NVB_FIELD(Rec32, subtype)};
constexpr std::array kRec32Sub3 = {
    NVB_FIELD(Rec32Sub3, word1),  NVB_FIELD(Rec32Sub3, dword1),   NVB_FIELD(Rec32Sub3, doubles1),
    NVB_FIELD(Rec32Sub3, byte1),  NVB_FIELD(Rec32Sub3, doubles2), NVB_FIELD(Rec32Sub3, word2),
    NVB_FIELD(Rec32Sub3, dword2), NVB_FIELD(Rec32Sub3, words),    NVB_FIELD(Rec32Sub3, doubles3),
    NVB_FIELD(Rec32Sub3, dword3), NVB_FIELD(Rec32Sub3, word7)};
constexpr std::array kRec32Sub4 = {NVB_FIELD(Rec32Sub4, bytes)};
constexpr std::array kRec32Sub5 = {NVB_FIELD(Rec32Sub5, doubles), NVB_FIELD(Rec32Sub5, words)};
constexpr std::array kRec32Sub6 = {NVB_FIELD(Rec32Sub6, bytes), NVB_FIELD(Rec32Sub6, words),
                                   NVB_FIELD(Rec32Sub6, single1), NVB_FIELD(Rec32Sub6, byte1),
                                   NVB_FIELD(Rec32Sub6, doubles)};

constexpr std::array kRec34Kind = {NVB_FIELD(Rec34, kind)};
constexpr std::array kRec34Kind1Head = {NVB_FIELD(Rec34Kind1, word1), NVB_FIELD(Rec34Kind1, count)};
constexpr std::array kRec34Kind1Entry = {NVB_FIELD(Rec34Kind1Entry, time), NVB_FIELD(Rec34Kind1Entry, value)};
constexpr std::array kRec34Kind2Head = {NVB_FIELD(Rec34Kind2, word1), NVB_FIELD(Rec34Kind2, count)};
constexpr std::array kRec34Kind2Entry = {NVB_FIELD(Rec34Kind2Entry, time), NVB_FIELD(Rec34Kind2Entry, values),
                                         NVB_FIELD(Rec34Kind2Entry, byte1)};

constexpr std::array kRec40Head = {NVB_FIELD(Rec40, week), NVB_FIELD(Rec40, time), NVB_FIELD(Rec40, count)};
constexpr std::array kRec40Entry = {NVB_FIELD(Rec40Entry, id), NVB_FIELD(Rec40Entry, value)};

constexpr std::array kRec98Head = {NVB_FIELD(Rec98, flags), NVB_FIELD(Rec98, word1), NVB_FIELD(Rec98, dword1)};
constexpr std::array kRec98Extra = {NVB_FIELD(Rec98, extraByte)};
constexpr std::array kRec99Head = {NVB_FIELD(Rec99, flags), NVB_FIELD(Rec99, word1), NVB_FIELD(Rec99, dword1)};

constexpr std::array kRec101 = {NVB_FIELD(Rec101, values), NVB_FIELD(Rec101, bytes)};
constexpr std::array kRec102Head = {NVB_FIELD(Rec102, values), NVB_FIELD(Rec102, count)};
constexpr std::array kRec102Entry = {NVB_FIELD(Rec102Entry, bytes), NVB_FIELD(Rec102Entry, values)};

// Record 20 has no structure of its own: its fields stand in the generic area as the
// DAT form holds them, a double and then, by subtype, four words and a u32 or bytes.
constexpr std::array kRec20Value = {FieldSpec{"value", 0, 8, FieldKind::Real, 1}};
constexpr std::array kRec20Sub0 = {FieldSpec{"words", 8, 2, FieldKind::Unsigned, 4},
                                   FieldSpec{"dword", 16, 4, FieldKind::Unsigned, 1}};
constexpr std::size_t kRec20Bytes = 8;

// The 16-bit length of the types that keep its high byte at offset 3.
std::size_t longFrameLength(ByteView bytes) {
    return getByte(bytes, 1) | (std::size_t{getByte(bytes, 3)} << 8);
}

std::size_t bodyAfter(std::size_t frameLength, std::size_t start) {
    return frameLength > start + kFrameTrailer ? frameLength - start - kFrameTrailer : 0;
}

// A body of bytes running to the record's end, cut to its area; a DAT form whose
// payload passes the area is refused, a frame's is cut.
template <class Walk>
void walkPayload(Walk& walk, const char* name, std::size_t offset, std::size_t capacity, std::uint8_t* base) {
    const std::size_t count = walk.remaining();
    if constexpr (Walk::kFills) {
        if (count > capacity) walk.overfull = true;
    }
    const std::array payload = {opaqueField(name, offset, std::min(count, capacity))};
    walk.fields(payload, base);
}

template <class Walk>
void walkRec31(Walk& walk, Rec31& rec) {
    std::uint8_t* base = bytesOf(rec);
    walk.fields(kRec31, base);
    const std::array data = {opaqueField("data", offsetof(Rec31, data), rec.count)};
    walk.fields(data, base);
}

// The subtype leads the body; returns false for a subtype without a layout.
template <class Walk>
bool walkRec32(Walk& walk, Rec32& rec) {
    walk.fields(kRec32Subtype, bytesOf(rec));
    std::uint8_t* base = bytesOf(rec) + 1;
    switch (rec.subtype) {
        case 2:
            return true;
        case 3:
            walk.fields(kRec32Sub3, base);
            return true;
        case 4:
            walk.fields(kRec32Sub4, base);
            walk.fields(kRec32Sub3, base + offsetof(Rec32Sub4, set));
            return true;
        case 5:
            walk.fields(kRec32Sub5, base);
            return true;
        case 6:
            walk.fields(kRec32Sub6, base);
            return true;
        default:
            return false;
    }
}

template <class Walk>
void walkRec34(Walk& walk, Rec34& rec) {
    walk.fields(kRec34Kind, bytesOf(rec));
    std::uint8_t* base = bytesOf(rec) + 1;
    if (rec.kind == 1) {
        walkCounted<Rec34Kind1Entry>(walk, kRec34Kind1Head, rec.kind1.count, NVB_REC34_MAX_KIND1, kRec34Kind1Entry,
                                     offsetof(Rec34Kind1, entries), base);
    } else if (rec.kind == 2) {
        walkCounted<Rec34Kind2Entry>(walk, kRec34Kind2Head, rec.kind2.count, NVB_REC34_MAX_KIND2, kRec34Kind2Entry,
                                     offsetof(Rec34Kind2, entries), base);
    } else {
        walkPayload(walk, "raw", 0, kRec34RawBytes, base);
    }
}

template <class Walk>
void walkRec40(Walk& walk, Rec40& rec) {
    walkCounted<Rec40Entry>(walk, kRec40Head, rec.count, NVB_REC40_MAX_ENTRIES, kRec40Entry, offsetof(Rec40, entries),
                            bytesOf(rec));
}

template <class Walk>
void walkRec98(Walk& walk, Rec98& rec) {
    std::uint8_t* base = bytesOf(rec);
    walk.fields(kRec98Head, base);
    if ((rec.flags & kRec98ExtraByte) != 0) walk.fields(kRec98Extra, base);
    walkPayload(walk, "payload", offsetof(Rec98, payload), NVB_REC98_MAX_PAYLOAD, base);
}

template <class Walk>
void walkRec99(Walk& walk, Rec99& rec) {
    std::uint8_t* base = bytesOf(rec);
    walk.fields(kRec99Head, base);
    walkPayload(walk, "payload", offsetof(Rec99, payload), NVB_REC99_MAX_PAYLOAD, base);
}

template <class Walk>
void walkRec102(Walk& walk, Rec102& rec) {
    walkCounted<Rec102Entry>(walk, kRec102Head, rec.count, NVB_REC102_MAX_ENTRIES, kRec102Entry,
                             offsetof(Rec102, entries), bytesOf(rec));
}

// One shot into the payload area. A failure leaves the size at the area's, whatever
// came out before it.
std::size_t inflatePayload(const std::uint8_t* in, std::size_t length, std::uint8_t* out, std::size_t capacity) {
    z_stream stream{};
    stream.next_in = const_cast<Bytef*>(in);
    stream.avail_in = static_cast<uInt>(length);
    stream.next_out = out;
    stream.avail_out = static_cast<uInt>(capacity);
    if (inflateInit(&stream) != Z_OK) return capacity;
    const int result = inflate(&stream, Z_FINISH);
    const std::size_t produced = stream.total_out;
    inflateEnd(&stream);
    return result == Z_STREAM_END ? produced : capacity;
}

// Returns the deflated length, 0 when it failed or did not fit `capacity`.
std::size_t deflatePayload(const std::uint8_t* in, std::size_t length, std::uint8_t* out, std::size_t capacity) {
    z_stream stream{};
    if (deflateInit(&stream, kRec99DeflateLevel) != Z_OK) return 0;
    stream.next_in = const_cast<Bytef*>(in);
    stream.avail_in = static_cast<uInt>(length);
    stream.next_out = out;
    stream.avail_out = static_cast<uInt>(capacity);
    const int result = deflate(&stream, Z_FINISH);
    const std::size_t produced = stream.total_out;
    deflateEnd(&stream);
    return result == Z_STREAM_END ? produced : 0;
}

double rec40Value(std::uint8_t id, std::uint16_t raw) {
    if (id == kRec40RawIdSigned) return static_cast<std::int16_t>(raw);
    if (id == kRec40RawIdUnsignedA || id == kRec40RawIdUnsignedB) return raw;
    return static_cast<std::int16_t>(raw) / kRec40Scale;
}

double rec40WireValue(std::uint8_t id, double value) {
    if (id == kRec40RawIdSigned || id == kRec40RawIdUnsignedA || id == kRec40RawIdUnsignedB) return value;
    return value * kRec40Scale;
}

// Closes a frame of one length byte, refusing one that byte can't tell.
bool closeShortFrame(WriteBuffer& out) {
    return out.frame.length + kFrameTrailer <= kLongestShortFrame && closeFrame(out, false) != 0;
}

std::size_t datBody(const std::uint8_t* header, std::size_t front) {
    return header[1] > front ? header[1] - front : 0;
}

std::size_t longDatBody(const std::uint8_t* header, std::size_t front) {
    const std::size_t length = header[1] | (std::size_t{header[2]} << 8);
    return length > front ? length - front : 0;
}

bool writeRec20(nvb_encode_t& state) {
    const std::uint8_t* header = state.records.datHeader;
    const std::uint8_t subtype = header[2];
    if (state.records.generic == nullptr || subtype > 1) return false;
    std::uint8_t* base = state.records.generic->data;
    double value = 0;
    std::memcpy(&value, base, sizeof value);
    WriteBuffer out = openFrame(state.frame, 20, false);
    putByte(out, subtype);
    putScaled4(out, value, 0);
    if (subtype == 0) {
        FrameWriteWalk walk{{}, out};
        walk.fields(kRec20Sub0, base);
    } else {
        putBytes(out, base + kRec20Bytes, std::min(datBody(header, 12), sizeof(RecGeneric) - kRec20Bytes));
    }
    return closeShortFrame(out);
}

int parseRec20Dat(DatReader& in, RecGeneric* generic, std::uint8_t subtype) {
    if (generic == nullptr) return -1;
    std::memset(generic, 0, sizeof *generic);
    DatParseWalk walk{{in.length > 4 ? in.length - 4 : 0}, in};
    walk.fields(kRec20Value, generic->data);
    if (subtype == 0) {
        walk.fields(kRec20Sub0, generic->data);
    } else {
        walkPayload(walk, "data", kRec20Bytes, sizeof(RecGeneric) - kRec20Bytes, generic->data);
    }
    return walk.overfull ? -2 : 0;
}

bool writeRec99(const Rec99& rec, std::size_t datBodyLength, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, 99, true);
    FrameWriteWalk walk{{datBodyLength}, out};
    walk.fields(kRec99Head, bytesOf(rec));
    const std::size_t count = std::min<std::size_t>(walk.remaining(), NVB_REC99_MAX_PAYLOAD);
    if (rec.flags == kRec99Deflated) {
        const std::size_t room = NVB_FRAME_CAPACITY - kFrameTrailer - out.frame.length;
        // What can't be deflated goes raw, under the same flags.
        const std::size_t packed = deflatePayload(rec.payload, count, out.frame.data + out.frame.length, room);
        if (packed > 0) {
            out.frame.length = static_cast<std::uint16_t>(out.frame.length + packed);
            return closeFrame(out, true) != 0;
        }
    }
    putBytes(out, rec.payload, count);
    return closeFrame(out, true) != 0;
}

template <class Rec>
[[nodiscard]] bool present(const Rec* rec, const std::uint8_t* header) {
    return rec != nullptr && header != nullptr;
}

// The DAT header of the types whose length keeps its high byte there.
std::uint16_t setLongDatHeader(std::uint8_t* header, std::size_t length, std::uint8_t type) {
    const auto datLength = static_cast<std::uint16_t>(length);
    setDatHeader(header, static_cast<std::uint8_t>(datLength), static_cast<std::uint8_t>(datLength >> 8), type);
    return datLength;
}

// Clears the structure, walks the body up to the checksum and reports what was walked.
template <class Rec, void (*WalkRecord)(FrameReadWalk&, Rec&)>
std::uint16_t readLongRecord(const nvb_frame_t& frame, nvb_expand_t& state, Rec* rec, std::uint8_t type) {
    if (!present(rec, state.records.datHeader)) return 0;
    std::memset(rec, 0, sizeof *rec);
    const ByteView bytes = frameBytes(frame);
    FrameReadWalk walk{{bodyAfter(longFrameLength(bytes), kLongBody)}, bytes, kLongBody};
    WalkRecord(walk, *rec);
    return setLongDatHeader(state.records.datHeader, 4 + walk.position, type);
}

}  // namespace

std::uint16_t readRec31(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec31* rec = state.records.rec31;
    if (!present(rec, state.records.datHeader)) return 0;
    std::memset(rec, 0, sizeof *rec);
    FrameReadWalk walk{{}, frameBytes(frame), kShortBody};
    walkRec31(walk, *rec);
    const auto length = static_cast<std::uint16_t>(rec->count + 8u);
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), 0, 31);
    return length;
}

std::uint16_t readRec32(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec32* rec = state.records.rec32;
    if (!present(rec, state.records.datHeader)) return 0;
    FrameReadWalk walk{{}, frameBytes(frame), kShortBody};
    const std::uint16_t length = walkRec32(walk, *rec) ? static_cast<std::uint16_t>(4 + walk.position) : 0;
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), 0, 32);
    return length;
}

// A kind of its own runs to the record's end: the length its frame tells, not a count
// read from the type byte, which no structure could hold.
std::uint16_t readRec34(const nvb_frame_t& frame, nvb_expand_t& state) {
    return readLongRecord<Rec34, walkRec34<FrameReadWalk>>(frame, state, state.records.rec34, 34);
}

std::uint16_t readRec40(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec40* rec = state.records.rec40;
    if (!present(rec, state.records.datHeader)) return 0;
    std::memset(rec, 0, sizeof *rec);
    const ByteView bytes = frameBytes(frame);
    const std::size_t frameLength = getByte(bytes, 1);
    rec->week = static_cast<std::uint16_t>(getUint(bytes, 4, 2));
    rec->time = getUint(bytes, 6, 4);
    // Entries of three bytes run up to the checksum; the structure holds the first 20.
    const std::size_t entries = bodyAfter(frameLength, kRec40Entries) / 3;
    rec->count = static_cast<std::uint8_t>(std::min<std::size_t>(entries, NVB_REC40_MAX_ENTRIES));
    for (std::size_t i = 0; i < rec->count; ++i) {
        const std::size_t at = kRec40Entries + 3 * i;
        const std::uint8_t id = getByte(bytes, at);
        rec->entries[i].id = id;
        rec->entries[i].value = rec40Value(id, static_cast<std::uint16_t>(getUint(bytes, at + 1, 2)));
    }
    const auto length = static_cast<std::uint16_t>(9u * rec->count + 11u);
    setDatHeader(state.records.datHeader, static_cast<std::uint8_t>(length), getByte(bytes, 3), 40);
    return length;
}

std::uint16_t readRec98(const nvb_frame_t& frame, nvb_expand_t& state) {
    return readLongRecord<Rec98, walkRec98<FrameReadWalk>>(frame, state, state.records.rec98, 98);
}

std::uint16_t readRec99(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec99* rec = state.records.rec99;
    if (!present(rec, state.records.datHeader)) return 0;
    std::memset(rec, 0, sizeof *rec);
    const ByteView bytes = frameBytes(frame);
    FrameReadWalk walk{{}, bytes, kLongBody};
    walk.fields(kRec99Head, bytesOf(*rec));
    const std::size_t start = kLongBody + kRec99HeadBytes;
    const std::size_t wire = std::min(bodyAfter(longFrameLength(bytes), start), bytes.size() - start);
    std::size_t size = 0;
    if (rec->flags == kRec99Deflated) {
        size = inflatePayload(bytes.data() + start, wire, rec->payload, NVB_REC99_MAX_PAYLOAD);
    } else {
        size = std::min<std::size_t>(wire, NVB_REC99_MAX_PAYLOAD);
        getBytes(rec->payload, bytes, start, size);
    }
    return setLongDatHeader(state.records.datHeader, size + 11, 99);
}

bool writeRec40(const Rec40& rec, std::uint8_t subtype, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, 40, false);
    putByte(out, subtype);
    putU16(out, rec.week);
    putU32(out, rec.time);
    const std::size_t count = std::min<std::size_t>(rec.count, NVB_REC40_MAX_ENTRIES);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t id = rec.entries[i].id;
        putByte(out, id);
        putScaled2(out, rec40WireValue(id, rec.entries[i].value), 0);
    }
    return closeShortFrame(out);
}

bool writeAuxiliaryFrame(nvb_encode_t& state, std::uint8_t type) {
    const nvb_record_table_t& records = state.records;
    const std::uint8_t* header = records.datHeader;
    if (header == nullptr) return false;
    switch (type) {
        case 20:
            return writeRec20(state);
        case 31: {
            if (records.rec31 == nullptr) return false;
            WriteBuffer out = openFrame(state.frame, 31, false);
            FrameWriteWalk walk{{}, out};
            walkRec31(walk, *records.rec31);
            return closeShortFrame(out);
        }
        case 32: {
            if (records.rec32 == nullptr) return false;
            WriteBuffer out = openFrame(state.frame, 32, false);
            FrameWriteWalk walk{{}, out};
            return walkRec32(walk, *records.rec32) && closeShortFrame(out);
        }
        case 34: {
            if (records.rec34 == nullptr) return false;
            WriteBuffer out = openFrame(state.frame, 34, true);
            FrameWriteWalk walk{{longDatBody(header, 4)}, out};
            walkRec34(walk, *records.rec34);
            return closeFrame(out, true) != 0;
        }
        case 98: {
            if (records.rec98 == nullptr) return false;
            WriteBuffer out = openFrame(state.frame, 98, true);
            FrameWriteWalk walk{{longDatBody(header, 4)}, out};
            walkRec98(walk, *records.rec98);
            return closeFrame(out, true) != 0;
        }
        case 99:
            return records.rec99 != nullptr && writeRec99(*records.rec99, longDatBody(header, 4), state.frame);
        default:
            return false;
    }
}

int parseAuxiliaryDat(nvb_encode_t& state, std::uint8_t type, DatReader& in) {
    const nvb_record_table_t& records = state.records;
    const std::size_t body = in.length > in.position ? in.length - in.position : 0;
    const auto parse = [&](auto* rec, auto walkRecord) {
        if (rec == nullptr) return -1;
        std::memset(rec, 0, sizeof *rec);
        DatParseWalk walk{{body}, in};
        walkRecord(walk, *rec);
        return walk.overfull ? -2 : 0;
    };
    switch (type) {
        case 20:
            return parseRec20Dat(in, records.generic, records.datHeader[2]);
        case 31:
            return parse(records.rec31, [](auto& walk, Rec31& rec) { walkRec31(walk, rec); });
        case 32:
            return parse(records.rec32, [](auto& walk, Rec32& rec) { walkRec32(walk, rec); });
        case 34:
            return parse(records.rec34, [](auto& walk, Rec34& rec) { walkRec34(walk, rec); });
        case 40:
            return parse(records.rec40, [](auto& walk, Rec40& rec) { walkRec40(walk, rec); });
        case 98:
            return parse(records.rec98, [](auto& walk, Rec98& rec) { walkRec98(walk, rec); });
        case 99:
            return parse(records.rec99, [](auto& walk, Rec99& rec) { walkRec99(walk, rec); });
        case 101:
            return parse(records.rec101, [](auto& walk, Rec101& rec) { walk.fields(kRec101, bytesOf(rec)); });
        case 102:
            return parse(records.rec102, [](auto& walk, Rec102& rec) { walkRec102(walk, rec); });
        default:
            return -1;
    }
}

void writeRec98Dat(const Rec98& rec, DatWriter& out) {
    DatPackWalk walk{{out.capacity}, out};
    walkRec98(walk, const_cast<Rec98&>(rec));
}

bool describeAuxiliaryRecord(const nvb_expand_t& state, std::uint16_t type, std::uint32_t datLength,
                             const FieldSink& sink) {
    const nvb_record_table_t& records = state.records;
    const std::uint8_t* header = records.datHeader;
    if (header == nullptr) return false;
    const auto describe = [&](auto* rec, auto walkRecord) {
        if (rec == nullptr) return false;
        DescribeWalk walk = describeWalkOf(datLength, sink);
        walkRecord(walk, *rec);
        return true;
    };
    switch (type) {
        case 31:
            return describe(records.rec31, [](auto& walk, Rec31& rec) { walkRec31(walk, rec); });
        case 32:
            return describe(records.rec32, [](auto& walk, Rec32& rec) { walkRec32(walk, rec); });
        case 34:
            return describe(records.rec34, [](auto& walk, Rec34& rec) { walkRec34(walk, rec); });
        case 40:
            return describe(records.rec40, [&](auto& walk, Rec40& rec) {
                walk.fields(kHeaderSubtype, const_cast<std::uint8_t*>(header));
                walkRec40(walk, rec);
            });
        case 98:
            return describe(records.rec98, [](auto& walk, Rec98& rec) { walkRec98(walk, rec); });
        case 99:
            return describe(records.rec99, [](auto& walk, Rec99& rec) { walkRec99(walk, rec); });
        default:
            return false;
    }
}

}  // namespace nvb
