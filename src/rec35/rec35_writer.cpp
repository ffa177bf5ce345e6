#include "rec35/rec35_writer.h"

#include <nvbdll/status.h>

#include "external/io/io_buffer.h"
#include "rec35/rec35_assembly.h"
#include "rec35/rec35_codecs.h"
#include "rec35/rec35_envelope.h"
#include "rec35/rec35_thinning.h"
#include "stream/block_writer.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace nvb {

namespace {

constexpr std::uint32_t kLongDat = 0xFFFF;
// The encode side takes a quarter of the raw area and 50 words of the test area; the
// read side keeps 80000 and 800 bytes.
constexpr std::uint32_t kRawAreaWritten = 20000;
constexpr std::uint32_t kTestAreaWritten = 200;

struct Rec35Dat {
    std::uint64_t subtype;
    std::uint64_t subsubtype;
    std::span<const std::uint8_t> payload;
};

std::uint64_t readLittleEndian(const std::uint8_t* bytes, std::size_t count) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < count; ++i) value |= std::uint64_t{bytes[i]} << (8 * i);
    return value;
}

// The header tells the length, or 65535 for one of 65535 bytes or more, which the payload
// length behind the subtypes then tells. Nothing past the told length is read.
std::optional<Rec35Dat> parseRec35Dat(const std::uint8_t* dat) {
    const std::uint32_t told = dat[1] | (dat[2] << 8);
    if (told < NVB_REC35_DAT_HEADER_BYTES) return std::nullopt;
    const auto payloadLength = static_cast<std::uint32_t>(readLittleEndian(dat + 20, 4));
    const std::uint64_t length = std::uint64_t{NVB_REC35_DAT_HEADER_BYTES} + payloadLength;
    if (told < kLongDat ? length != told : length < kLongDat) return std::nullopt;
    return Rec35Dat{readLittleEndian(dat + 4, 8), readLittleEndian(dat + 12, 8),
                    std::span<const std::uint8_t>(dat + NVB_REC35_DAT_HEADER_BYTES, payloadLength)};
}

enum class Route : std::uint8_t { Refused, Marker, Area, Avro, AsItIs };

// The header test of the mode; may force the subsubtype.
Route routeOf(Rec35Dat& record, const Rec35Codec*& codec, bool passthrough, bool copy) {
    const std::uint64_t subtype = record.subtype;
    if (subtype == NVB_REC35_RESET_MARKER_SUBTYPE) {
        if (passthrough && record.subsubtype != 0) return Route::Refused;
        record.subsubtype = 0;
        return Route::Marker;
    }
    if (subtype == NVB_REC35_RAW_AREA_SUBTYPE || subtype == NVB_REC35_TEST_AREA_SUBTYPE) return Route::Area;
    if (const auto slot = rec35SlotOf(subtype)) codec = rec35CodecAt(*slot);
    if (codec != nullptr) {
        if (!passthrough) {
            // The library's own records come from native records, never from foreign bytes.
            if (!record.payload.empty()) return Route::Refused;
            record.subsubtype = 1;
        } else if (record.subsubtype >= 3) {
            return Route::Refused;
        }
        return Route::Avro;
    }
    return copy && !record.payload.empty() ? Route::AsItIs : Route::Refused;
}

// Subtypes 0 and 12345678 without a payload in the DAT form take theirs from the areas.
bool areaPayload(const nvb_encode_t& state, const Rec35Dat& record, io_buffer_t& out, std::uint8_t& status) {
    const rec35_content_t* content = state.records.rec35;
    const bool raw = record.subtype == NVB_REC35_RAW_AREA_SUBTYPE;
    const std::uint8_t* area = content == nullptr ? nullptr : raw ? content->raw_area : content->test_area;
    const std::uint32_t size = raw ? kRawAreaWritten : kTestAreaWritten;
    if (area == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return false;
    }
    assignIoBuffer(out, std::span<const std::uint8_t>(area, size), status);
    return status == 0;
}

// The schema step and the payload of an Avro subtype. Returns false when the record is
// finished (a passthrough schema record) or failed; `written` counts the schema record.
bool avroPayload(nvb_encode_t& state, const Rec35Codec& codec, Rec35Dat& record, bool passthrough, bool copy,
                 std::span<const std::uint8_t>& out, std::uint32_t& written, std::uint8_t& status) {
    rec35_assembly_t& assembly = state.rec35Assembly;
    const std::size_t slotIndex = *rec35SlotOf(record.subtype);
    rec35_slot_t* slot = assembly.slots[slotIndex];
    std::span<const std::uint8_t> offered;
    if (passthrough && record.subsubtype == 0) {
        const rec35_content_t* content = state.records.rec35;
        offered = !record.payload.empty() || content == nullptr ? record.payload : usedBytes(content->schema_text);
    }
    registerRec35Schema(codec, record.subsubtype, slot, passthrough, copy, offered, assembly.payload, status);
    assembly.slots[slotIndex] = slot;
    if (status != 0) return false;
    if (slot->schema_written == 0) {
        written += writeRec35Fragments(state, record.subtype, 0, usedBytes(assembly.payload), status);
        if (status != 0) return false;
        slot->schema_written = 1;
    }
    // A passthrough schema record has just gone out as the schema of the subtype.
    if (passthrough && record.subsubtype == 0) return false;
    if (!record.payload.empty()) {
        out = record.payload;
        return true;
    }
    rec35_content_t* content = state.records.rec35;
    void* native = content != nullptr ? content->records[slotIndex] : nullptr;
    if (native == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return false;
    }
    encodeRec35Subtype(codec, native, record.subsubtype, *slot, assembly.payload, status);
    out = usedBytes(assembly.payload);
    return status == 0;
}

// The thinning of a record the library encodes from the host's native record; the
// interval in whole milliseconds, as for every type on this path.
bool keptByThinning(nvb_encode_t& state, const Rec35Dat& record) {
    const rec35_content_t* content = state.records.rec35;
    const auto slot = rec35SlotOf(record.subtype);
    if (content == nullptr || !slot || !record.payload.empty() || record.subsubtype == 0) return true;
    const auto ms = [](float seconds) {
        return seconds > 0 ? static_cast<std::int32_t>(std::min(seconds * 1000.0, 2147483647.0)) : 0;
    };
    return keepRec35(state.rclean, record.subtype, content->records[*slot], ms(state.measurementInterval),
                     ms(state.positionInterval));
}

}  // namespace

std::uint32_t writeRec35Record(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t& status) {
    std::optional<Rec35Dat> parsed = parseRec35Dat(dat);
    if (!isBareMethod(state.compressionMethod) || !parsed) {
        status = NVB_STATUS_NOT_WRITABLE;
        return 0;
    }
    Rec35Dat& record = *parsed;
    const bool copy = (state.rec35Mode & NVB_REC35_COPY) != 0;
    const bool passthrough = copy || (state.rec35Mode & NVB_REC35_PASSTHROUGH) != 0;
    const Rec35Codec* codec = nullptr;
    const Route route = routeOf(record, codec, passthrough, copy);

    std::uint32_t written = 0;
    std::span<const std::uint8_t> payload = record.payload;
    static constexpr std::uint8_t kMarkerPayload[1] = {0};
    switch (route) {
        case Route::Refused:
            status = NVB_STATUS_NOT_WRITABLE;
            return 0;
        case Route::Marker:
            resetRec35Chains(state.rec35Assembly);
            payload = kMarkerPayload;
            break;
        case Route::Area:
            if (payload.empty()) {
                if (!areaPayload(state, record, state.rec35Assembly.payload, status)) return 0;
                payload = usedBytes(state.rec35Assembly.payload);
            }
            break;
        case Route::Avro:
            if (!keptByThinning(state, record)) return 0;
            if (!avroPayload(state, *codec, record, passthrough, copy, payload, written, status)) {
                if (status != 0) return 0;
                ++state.recordCount;
                return written;
            }
            break;
        case Route::AsItIs:
            break;
    }
    if (payload.empty()) {
        status = NVB_STATUS_NOT_WRITABLE;
        return 0;
    }
    ++state.recordCount;
    written += writeRec35Fragments(state, record.subtype, record.subsubtype, payload, status);
    if (status != 0) return 0;
    // After the marker the next record opens a new block, where a reader can start afresh.
    if (route == Route::Marker) written += emitBlock(state, status);
    return status == 0 ? written : 0;
}

}  // namespace nvb
