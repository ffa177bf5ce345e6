#include "nvb/status_text.h"

#include <nvbdll/status.h>

#include <fmt/format.h>

namespace nvbtool {

std::string statusText(std::uint8_t status) {
    switch (status) {
        case NVB_STATUS_OK:
            return "no condition";
        case NVB_STATUS_END_OF_FILE:
            return "end of the input";
        case NVB_STATUS_CHECKSUM:
            return "checksum of a frame wrong";
        case NVB_STATUS_FRAME_LENGTH:
            return "impossible frame length";
        case NVB_STATUS_END_BYTE:
            return "end byte of a frame wrong";
        case NVB_STATUS_HUFFMAN_END:
            return "Huffman end symbol";
        case NVB_STATUS_EXPANSION:
            return "a compact record could not be expanded";
        case NVB_STATUS_BZIP2:
            return "block too long, or bzip2 failed";
        case NVB_STATUS_READER_TOO_OLD:
            return "the log needs a newer reader than 8.97";
        case NVB_STATUS_ZLIB:
            return "zlib failed";
        case NVB_STATUS_UNKNOWN_METHOD:
            return "compression method unknown";
        case NVB_STATUS_SCRAMBLED:
            return "scrambled block (read it with --descramble)";
        case NVB_STATUS_NOT_WRITABLE:
            return "a record the writer can't take";
        case NVB_STATUS_NO_CALLBACK:
            return "no write callback";
        case NVB_STATUS_REC35_CONTENT:
            return "record 35 without content";
        case NVB_STATUS_RESYNCHRONISED:
            return "reading found its footing again";
        case NVB_STATUS_AVRO:
            return "record 35 Avro failure";
        case NVB_STATUS_CAPACITY:
            return "record 35 element count above capacity";
        case NVB_STATUS_SCHEMA:
            return "record 35 schema conflict";
        case NVB_STATUS_NEED_REFERENCE:
            return "record 35 delta while a reference is needed";
        case NVB_STATUS_BROTLI:
            return "brotli failed";
        case NVB_STATUS_ZSTD:
            return "zstd failed";
        default:
            return fmt::format("status {}", status);
    }
}

bool isDamageStatus(std::uint8_t status) {
    return status != NVB_STATUS_OK && status != NVB_STATUS_END_OF_FILE && status != NVB_STATUS_HUFFMAN_END &&
           status != NVB_STATUS_READER_TOO_OLD;
}

}  // namespace nvbtool
