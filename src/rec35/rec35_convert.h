#ifndef NVB_REC35_REC35_CONVERT_H
#define NVB_REC35_REC35_CONVERT_H

#include <nvbdll/rec35_records.h>
#include <nvbdll/records.h>
#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// The decoded record's native record of an Avro subtype; null while it has none.
[[nodiscard]] void* rec35NativeOf(const rec35_content_t& content, std::uint64_t subtype);

// The plain records a newer receiver's subtypes become. Each fills `out` whole (cleared
// first) and returns its DAT length; a converted record never holds more than the plain
// record's arrays, whatever the native record counts.
std::uint16_t convertSub9ToRec27(const rec35_sub9_t& in, Rec27& out, bool allObservables);
std::uint16_t convertSub19ToRec27(const rec35_sub19_t& in, Rec27& out, bool allObservables);
// False, with `out` untouched, when no position has value 1 in its flags.
bool convertSub2ToRec29(const rec35_sub2_t& in, Rec29& out, std::uint16_t& length);
// False, with `out` untouched, when the record has no position.
bool convertSub16ToRec33(const rec35_sub16_t& in, Rec33& out);

// System 7 becomes 10 in subtypes 2 and 9, with the half cycle of the BeiDou signals that
// the receiver numbers the other way.
void normalizeRec35(rec35_content_t& content);

// The end of every read of a record: a record 35 of a subtype that the options convert
// becomes its plain record, in the state's structure and DAT header. Returns the length
// that the record now has; `recordType` and `status` as the conversion leaves them.
std::uint32_t convertRec35Result(nvb_expand_t& state, std::uint16_t& recordType, std::uint32_t length,
                                 std::uint8_t& status);

}  // namespace nvb

#endif
