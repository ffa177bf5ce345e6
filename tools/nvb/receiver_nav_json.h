#ifndef NVB_TOOL_RECEIVER_NAV_JSON_H
#define NVB_TOOL_RECEIVER_NAV_JSON_H

#include <nvbdll/nvbdll.h>

#include <nlohmann/json.hpp>

#include <cstdint>

namespace nvbtool {

// Adds the decoded fields of a navigation record (21, 25, 26, 28) or a receiver record
// (5, 12, 15, 19, 22, 24, 30), by the names of their structures, from the state that
// just decoded it. Byte arrays go out as hex. Returns false for any other type.
bool addNavigationOrReceiverFields(nlohmann::ordered_json& out, const nvb_expand_t& state, std::uint16_t type);

}  // namespace nvbtool

#endif
