#include "rec35/rec35_reader.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"
#include "external/io/io_buffer.h"
#include "rec35/rec35_codecs.h"
#include "rec35/rec35_convert.h"

#include <algorithm>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint16_t kNoRecord = 65535;
constexpr std::uint64_t kDebugSubtype = 260;

// The schema-less areas keep what fits of the payload; the DAT form carries it whole.
void copyIntoArea(std::uint8_t*& area, std::size_t size, const io_buffer_t& payload, std::uint8_t& status) {
    if (area == nullptr) area = static_cast<std::uint8_t*>(ioReallocate(nullptr, size));
    if (area == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    std::memset(area, 0, size);
    std::memcpy(area, payload.data, std::min<std::size_t>(payload.used, size));
}

void putLittleEndian(std::uint8_t* out, std::uint64_t value, std::size_t bytes) {
    for (std::size_t i = 0; i < bytes; ++i) out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace

std::uint64_t rec35DatLength(std::uint32_t payloadLength) {
    return std::uint64_t{NVB_REC35_DAT_HEADER_BYTES} + payloadLength;
}

void readRec35BufferContent(rec35_assembly_t& assembly, rec35_content_t& content, std::uint16_t& recordType,
                            std::uint32_t& length, std::uint8_t& status) {
    status = 0;
    const std::uint64_t subtype = content.subtype;
    const std::uint64_t subsubtype = content.subsubtype;
    // The state is packed: its pointers are read into locals and stored back.
    if (subtype == NVB_REC35_RAW_AREA_SUBTYPE) {
        std::uint8_t* area = content.raw_area;
        copyIntoArea(area, NVB_REC35_RAW_AREA_BYTES, assembly.payload, status);
        content.raw_area = area;
    } else if (subtype == NVB_REC35_TEST_AREA_SUBTYPE) {
        std::uint8_t* area = content.test_area;
        copyIntoArea(area, NVB_REC35_TEST_AREA_BYTES, assembly.payload, status);
        content.test_area = area;
    } else if (const auto slot = rec35SlotOf(subtype)) {
        if (const Rec35Codec* codec = rec35CodecAt(*slot)) {
            void* native = content.records[*slot];
            rec35_slot_t* slotObject = assembly.slots[*slot];
            decodeRec35Subtype(*codec, assembly.payload, subsubtype, slotObject, native, content.schema_text, status);
            assembly.slots[*slot] = slotObject;
            content.records[*slot] = native;
        }
    }
    if (status != 0) {
        logMessage("readRec35BufferContent error: %d subtype=%d subsubtype=%d\n", status, static_cast<int>(subtype),
                   static_cast<int>(subsubtype));
        recordType = kNoRecord;
        length = 0;
        return;
    }
    if (assembly.schema_swallow != 0 && subsubtype == 0) {
        recordType = 0;
        length = 0;
        return;
    }
    recordType = 35;
    length = assembly.payload.used;
}

std::uint32_t readRec35Buffer(rec35_assembly_t& assembly, nvb_expand_t& state, std::uint16_t& recordType,
                              std::uint8_t& status) {
    rec35_content_t* content = state.records.rec35;
    if (content == nullptr) return 0;
    if (content->subtype == kDebugSubtype && assembly.skip_debug_260 != 0) return 0;
    std::uint32_t length = 0;
    readRec35BufferContent(assembly, *content, recordType, length, status);
    if (recordType != 35) return 0;
    if (state.mapSystem7To10 != 0 && content->subsubtype != 0) normalizeRec35(*content);
    const std::uint64_t datLength = rec35DatLength(length);
    // Two bytes can't tell a longer record; the length field behind the subtypes does.
    const std::uint64_t told = std::min<std::uint64_t>(datLength, 0xFFFF);
    std::uint8_t* header = state.records.datHeader;
    if (header != nullptr) {
        header[0] = 0x74;
        header[1] = static_cast<std::uint8_t>(told);
        header[2] = static_cast<std::uint8_t>(told >> 8);
        header[3] = 35;
    }
    return static_cast<std::uint32_t>(datLength);
}

std::int32_t rec35ReportedType(const nvb_expand_t& state) {
    const rec35_content_t* content = state.records.rec35;
    if (content == nullptr) return 35;
    const std::uint64_t subtype = content->subtype;
    if (subtype == 2 && state.convertRec35Sub2 != 0) return 57;
    if ((subtype == 9 && state.convertRec35Sub9 != 0) || (subtype == 19 && state.convertRec35Sub19 != 0)) return 38;
    return 35;
}

bool writeRec35Dat(const nvb_expand_t& state, std::uint8_t* out) {
    const rec35_content_t* content = state.records.rec35;
    if (content == nullptr || state.records.datHeader == nullptr) return false;
    const io_buffer_t& payload = state.rec35Assembly.payload;
    std::memcpy(out, state.records.datHeader, 4);
    putLittleEndian(out + 4, content->subtype, 8);
    putLittleEndian(out + 12, content->subsubtype, 8);
    putLittleEndian(out + 20, payload.used, 4);
    if (payload.used > 0) std::memcpy(out + NVB_REC35_DAT_HEADER_BYTES, payload.data, payload.used);
    return true;
}

}  // namespace nvb
