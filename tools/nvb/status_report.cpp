#include "nvb/status_report.h"

#include <nvbdll/status.h>

#include "common/status_text.h"

#include <fmt/format.h>

namespace nvbtool {

std::string statusText(std::uint8_t status) {
    const char* text = nvb::statusText(status);
    if (text == nullptr) return fmt::format("status {}", status);
    if (status == NVB_STATUS_SCRAMBLED) return fmt::format("{} (read it with --descramble)", text);
    return text;
}

bool isDamageStatus(std::uint8_t status) {
    return status != NVB_STATUS_OK && status != NVB_STATUS_END_OF_FILE && status != NVB_STATUS_HUFFMAN_END &&
           status != NVB_STATUS_READER_TOO_OLD;
}

}  // namespace nvbtool
