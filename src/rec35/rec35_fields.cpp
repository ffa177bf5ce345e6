#include "rec35/rec35_fields.h"

#include <nvbdll/rec35_records.h>

#include <cstring>

namespace nvb {

namespace {

template <class T>
T valueAt(const void* at) {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

void describeValue(const Rec35Field& field, const std::uint8_t* at, const Rec35Visitor& visitor) {
    switch (field.kind) {
    case Rec35FieldKind::Unsigned: visitor.integer(visitor.context, field.name, valueAt<std::uint32_t>(at)); break;
    case Rec35FieldKind::Signed: visitor.integer(visitor.context, field.name, valueAt<std::int32_t>(at)); break;
    case Rec35FieldKind::Scaled:
    case Rec35FieldKind::Double: visitor.real(visitor.context, field.name, valueAt<double>(at), false); break;
    case Rec35FieldKind::Float: visitor.real(visitor.context, field.name, valueAt<float>(at), true); break;
    case Rec35FieldKind::Bytes: {
        const auto array = valueAt<rec35_array_t>(at);
        const std::size_t count = array.count > 0 ? static_cast<std::size_t>(array.count) : 0;
        visitor.bytes(visitor.context, field.name, {static_cast<const std::uint8_t*>(array.elements), count});
        break;
    }
    case Rec35FieldKind::Record:
        visitor.open(visitor.context, field.name, false);
        describeRec35(field.members, at, visitor);
        visitor.close(visitor.context, false);
        break;
    case Rec35FieldKind::Array: {
        const auto array = valueAt<rec35_array_t>(at);
        const auto* elements = static_cast<const std::uint8_t*>(array.elements);
        visitor.open(visitor.context, field.name, true);
        for (std::int64_t i = 0; i < array.count; ++i) {
            describeValue(field.members[0], elements + static_cast<std::size_t>(i) * field.elementSize, visitor);
        }
        visitor.close(visitor.context, true);
        break;
    }
    }
}

}  // namespace

void describeRec35(std::span<const Rec35Field> fields, const void* record, const Rec35Visitor& visitor) {
    for (const Rec35Field& field : fields) {
        describeValue(field, static_cast<const std::uint8_t*>(record) + field.offset, visitor);
    }
}

}  // namespace nvb
