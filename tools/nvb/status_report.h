#ifndef NVB_TOOL_STATUS_REPORT_H
#define NVB_TOOL_STATUS_REPORT_H

#include <cstdint>
#include <string>

namespace nvbtool {

// A short text for a status value of the library, for messages and reports.
std::string statusText(std::uint8_t status);

// Whether a status met while reading tells of damage: end symbols and the end of the
// input belong to a healthy log, and 9 means the log can't be read at all.
bool isDamageStatus(std::uint8_t status);

}  // namespace nvbtool

#endif
