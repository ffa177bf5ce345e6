#include "common/status_text.h"

#include <nvbdll/status.h>

#include <array>
#include <utility>

namespace nvb {

namespace {

// Each status value of the interface and what it says.
constexpr std::array<std::pair<std::uint8_t, const char*>, 22> kStatusTexts = {{
    {NVB_STATUS_OK, "no condition"},
    {NVB_STATUS_END_OF_FILE, "end of the input"},
    {NVB_STATUS_CHECKSUM, "checksum of a frame wrong"},
    {NVB_STATUS_FRAME_LENGTH, "impossible frame length"},
    {NVB_STATUS_END_BYTE, "end byte of a frame wrong"},
    {NVB_STATUS_HUFFMAN_END, "Huffman end symbol"},
    {NVB_STATUS_EXPANSION, "a compact record could not be expanded"},
    {NVB_STATUS_BZIP2, "block too long, or bzip2 failed"},
    {NVB_STATUS_READER_TOO_OLD, "the log needs a newer reader than 8.97"},
    {NVB_STATUS_ZLIB, "zlib failed"},
    {NVB_STATUS_UNKNOWN_METHOD, "compression method unknown"},
    {NVB_STATUS_SCRAMBLED, "scrambled block while descrambling is off"},
    {NVB_STATUS_NOT_WRITABLE, "a record the writer can't take"},
    {NVB_STATUS_NO_CALLBACK, "no write callback"},
    {NVB_STATUS_REC35_CONTENT, "record 35 without content"},
    {NVB_STATUS_RESYNCHRONISED, "reading found its footing again"},
    {NVB_STATUS_AVRO, "record 35 Avro failure"},
    {NVB_STATUS_CAPACITY, "record 35 element count above capacity"},
    {NVB_STATUS_SCHEMA, "record 35 schema conflict"},
    {NVB_STATUS_NEED_REFERENCE, "record 35 delta while a reference is needed"},
    {NVB_STATUS_BROTLI, "brotli failed"},
    {NVB_STATUS_ZSTD, "zstd failed"},
}};

}  // namespace

const char* statusText(std::uint8_t status) {
    for (const auto& [value, text] : kStatusTexts) {
        if (value == status) return text;
    }
    return nullptr;
}

}  // namespace nvb
