#ifndef NVB_COMMON_STATUS_TEXT_H
#define NVB_COMMON_STATUS_TEXT_H

#include <cstdint>

namespace nvb {

// The one place that names each status value, for messages and reports; null for a
// value the library does not use.
[[nodiscard]] const char* statusText(std::uint8_t status);

}  // namespace nvb

#endif
