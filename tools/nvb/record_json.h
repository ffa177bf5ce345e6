#ifndef NVB_TOOL_RECORD_JSON_H
#define NVB_TOOL_RECORD_JSON_H

#include "nvb/log_io.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>

namespace nvbtool {

// The decoded fields of a delivered record: epochs 27 and 17, positions 29 and 11, the
// navigation and receiver records and the auxiliary records 31 to 34, 40, 98 and 99 field
// by field, every other type as its DAT body in hex. Reads the structure before the DAT
// form is taken.
nlohmann::ordered_json recordJson(DeliveredRecord& record);

// What a record 35 is: "schema", "reference", "delta" (or "other") for an Avro-coded
// subtype by its subsubtype, "record" for the areas and any other subtype.
std::string rec35Kind(std::uint64_t subtype, std::uint64_t subsubtype);

// One line of text for the same fields: key=value pairs, lists in brackets.
std::string recordText(const nlohmann::ordered_json& fields);

}  // namespace nvbtool

#endif
