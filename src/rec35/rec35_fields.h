#ifndef NVB_REC35_REC35_FIELDS_H
#define NVB_REC35_REC35_FIELDS_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace nvb {

// What a native record holds, field by field, for those who show or build one without
// knowing its subtype: the tool's dump, the tests and the benchmarks. The codecs do not
// read it; they know their fields.
enum class Rec35FieldKind : std::uint8_t {
    Unsigned,  // uint32_t, an unscaled long
    Signed,    // int32_t, an unscaled long
    Scaled,    // double, a long times 2^scale on the wire
    Double,
    Float,
    Bytes,     // rec35_array_t of bytes
    Record,    // an inline record: `members` are its fields
    Array,     // rec35_array_t: `members` is the one element, `elementSize` its size
};

struct Rec35Field {
    const char* name;  // null for the element of an array
    Rec35FieldKind kind;
    std::int8_t method;  // -1 none, else the prediction method of the wire value
    std::int8_t scale;
    std::size_t offset;  // in the record, or 0 for an element
    std::size_t elementSize;
    std::span<const Rec35Field> members;
};

}  // namespace nvb

#endif
