#include "support/rec35_natives.h"

#include "rec35/rec35_fields.h"

#include <nvbdll/status.h>

#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <type_traits>

namespace nvbtest {

namespace {

using nvb::Rec35Field;
using Kind = nvb::Rec35FieldKind;

// The field at `offset` in a record or element, const where the record is.
template <class T, class Base>
auto& at(Base* base, std::size_t offset) {
    using Byte = std::conditional_t<std::is_const_v<Base>, const std::uint8_t, std::uint8_t>;
    using Field = std::conditional_t<std::is_const_v<Base>, const T, T>;
    return *reinterpret_cast<Field*>(reinterpret_cast<Byte*>(base) + offset);
}

template <class Base>
Base* shifted(Base* base, std::size_t offset) {
    return &at<std::uint8_t>(base, offset);
}

std::size_t elementSizeOf(const Rec35Field& field) {
    return field.kind == Kind::Bytes ? 1 : field.elementSize;
}

void* elementAt(const rec35_array_t& array, const Rec35Field& field, std::int64_t index) {
    return static_cast<std::uint8_t*>(array.elements) + static_cast<std::size_t>(index) * elementSizeOf(field);
}

void allocate(const Rec35Field& field, void* base, std::int64_t capacity) {
    if (field.kind == Kind::Record) {
        for (const Rec35Field& member : field.members) allocate(member, shifted(base, field.offset), capacity);
        return;
    }
    if (field.kind != Kind::Array && field.kind != Kind::Bytes) return;
    auto& array = at<rec35_array_t>(base, field.offset);
    array.capacity = capacity;
    array.count = 0;
    array.elements = std::calloc(static_cast<std::size_t>(capacity) + 1, elementSizeOf(field));
    if (field.kind == Kind::Array) {
        for (std::int64_t i = 0; i < capacity; ++i) allocate(field.members[0], elementAt(array, field, i), capacity);
    }
}

struct Filler {
    Rec35Values how;
    std::mt19937_64& random;
    std::uint32_t step;
    std::uint32_t leaf = 0;

    std::int64_t count(std::int64_t capacity) {
        if (how == Rec35Values::Smooth) return capacity;
        return std::uniform_int_distribution<std::int64_t>(0, capacity)(random);
    }

    // A whole number: anywhere in 32 bits, or a slow ramp per leaf.
    std::int64_t whole(std::int64_t low, std::int64_t high) {
        if (how == Rec35Values::Smooth) return 100 * static_cast<std::int64_t>(leaf) + 7 * step;
        return std::uniform_int_distribution<std::int64_t>(low, high)(random);
    }

    void fill(const Rec35Field& field, void* base) {
        ++leaf;
        switch (field.kind) {
            case Kind::Unsigned:
                at<std::uint32_t>(base, field.offset) = static_cast<std::uint32_t>(whole(0, UINT32_MAX));
                break;
            case Kind::Signed:
                at<std::int32_t>(base, field.offset) = static_cast<std::int32_t>(whole(INT32_MIN, INT32_MAX));
                break;
            case Kind::Scaled:
                at<double>(base, field.offset) =
                    std::ldexp(static_cast<double>(whole(-(1LL << 40), 1LL << 40)), -field.scale);
                break;
            case Kind::Double:
                at<double>(base, field.offset) = static_cast<double>(whole(-(1LL << 50), 1LL << 50)) / 1024;
                break;
            case Kind::Float:
                at<float>(base, field.offset) = static_cast<float>(whole(-(1 << 20), 1 << 20)) / 16;
                break;
            case Kind::Bytes: {
                auto& array = at<rec35_array_t>(base, field.offset);
                array.count = count(array.capacity);
                auto* bytes = static_cast<std::uint8_t*>(array.elements);
                for (std::int64_t i = 0; i < array.count; ++i) bytes[i] = static_cast<std::uint8_t>(whole(0, 255) + i);
                break;
            }
            case Kind::Record:
                for (const Rec35Field& member : field.members) fill(member, shifted(base, field.offset));
                break;
            case Kind::Array: {
                auto& array = at<rec35_array_t>(base, field.offset);
                array.count = count(array.capacity);
                for (std::int64_t i = 0; i < array.count; ++i) fill(field.members[0], elementAt(array, field, i));
                break;
            }
        }
    }
};

// The offset of the first field of a kind outside any array, records looked into.
const Rec35Field* firstOf(std::span<const Rec35Field> fields, bool arrays, std::size_t& offset) {
    for (const Rec35Field& field : fields) {
        if (field.kind == Kind::Record) {
            std::size_t inner = 0;
            if (firstOf(field.members, arrays, inner) != nullptr) {
                offset = field.offset + inner;
                return &field;
            }
        } else if (arrays ? (field.kind == Kind::Array || field.kind == Kind::Bytes) : field.kind == Kind::Scaled) {
            offset = field.offset;
            return &field;
        }
    }
    return nullptr;
}

// A field as JSON: records as objects, arrays as lists, scaled fields in native units or
// in wire units (whole numbers on the field's grid, and a fraction off it).
nlohmann::json jsonOf(const Rec35Field& field, const void* base, bool wire) {
    switch (field.kind) {
        case Kind::Unsigned:
            return at<std::uint32_t>(base, field.offset);
        case Kind::Signed:
            return at<std::int32_t>(base, field.offset);
        case Kind::Scaled: {
            const double value = std::ldexp(at<double>(base, field.offset), wire ? field.scale : 0);
            // On the grid a wire value is a whole number, for another reader to match exactly.
            if (wire && value == std::trunc(value)) return static_cast<std::int64_t>(value);
            return value;
        }
        case Kind::Double:
            return at<double>(base, field.offset);
        case Kind::Float:
            return at<float>(base, field.offset);
        case Kind::Record: {
            nlohmann::json record = nlohmann::json::object();
            for (const Rec35Field& member : field.members) {
                record[member.name] = jsonOf(member, shifted(base, field.offset), wire);
            }
            return record;
        }
        case Kind::Bytes:
        case Kind::Array: {
            const auto& array = at<rec35_array_t>(base, field.offset);
            nlohmann::json list = nlohmann::json::array();
            for (std::int64_t i = 0; i < array.count; ++i) {
                const void* element = elementAt(array, field, i);
                list.push_back(field.kind == Kind::Bytes ? nlohmann::json(*static_cast<const std::uint8_t*>(element))
                                                         : jsonOf(field.members[0], element, wire));
            }
            return list;
        }
    }
    return nullptr;
}

// Sets a field from JSON in native units; an array takes as many elements as the list holds.
void setFrom(const nlohmann::json& value, const Rec35Field& field, void* base) {
    switch (field.kind) {
        case Kind::Unsigned:
            at<std::uint32_t>(base, field.offset) = value;
            break;
        case Kind::Signed:
            at<std::int32_t>(base, field.offset) = value;
            break;
        case Kind::Scaled:
        case Kind::Double:
            at<double>(base, field.offset) = value;
            break;
        case Kind::Float:
            at<float>(base, field.offset) = value;
            break;
        case Kind::Record:
            for (const Rec35Field& member : field.members) {
                if (value.contains(member.name)) setFrom(value[member.name], member, shifted(base, field.offset));
            }
            break;
        case Kind::Bytes:
        case Kind::Array: {
            auto& array = at<rec35_array_t>(base, field.offset);
            array.count = static_cast<std::int64_t>(value.size());
            for (std::int64_t i = 0; i < array.count; ++i) {
                void* element = elementAt(array, field, i);
                if (field.kind == Kind::Bytes) {
                    *static_cast<std::uint8_t*>(element) = value[i];
                } else {
                    setFrom(value[i], field.members[0], element);
                }
            }
            break;
        }
    }
}

// The values along a path of names ("sv__meas__range") through objects and lists, every
// element's in one list where a step is a list; null where a name is missing anywhere.
nlohmann::json along(const nlohmann::json& value, std::string_view path) {
    if (path.empty()) return value;
    if (value.is_array()) {
        nlohmann::json all = nlohmann::json::array();
        for (const nlohmann::json& element : value) {
            const nlohmann::json inner = along(element, path);
            if (inner.is_null()) return nullptr;
            if (inner.is_array()) {
                all.insert(all.end(), inner.begin(), inner.end());
            } else {
                all.push_back(inner);
            }
        }
        return all;
    }
    const std::size_t end = path.find("__");
    const std::string name(path.substr(0, end));
    if (!value.contains(name)) return nullptr;
    return along(value[name], end == std::string_view::npos ? "" : path.substr(end + 2));
}

// An array field of a native record by its name.
rec35_array_t& rec35Column(const nvb::Rec35Codec& codec, void* native, std::string_view name) {
    for (const Rec35Field& field : codec.fields) {
        if (name == field.name) return at<rec35_array_t>(native, field.offset);
    }
    std::abort();
}

}  // namespace

Rec35Native::Rec35Native(const nvb::Rec35Codec& codec, std::int64_t capacity)
    : codec_(codec), record_(std::calloc(1, codec.nativeSize)) {
    for (const Rec35Field& field : codec.fields) allocate(field, record_, capacity);
}

Rec35Native::~Rec35Native() {
    codec_.freeNative(record_);
}

void fillRec35(const nvb::Rec35Codec& codec, void* native, Rec35Values how, std::mt19937_64& random,
               std::uint32_t step) {
    Filler filler{how, random, step};
    for (const Rec35Field& field : codec.fields) filler.fill(field, native);
    if (codec.subtype != 19 && codec.subtype != 260) return;
    // The parallel arrays: each group as long as its first array, all signals on the first satellite.
    const bool sub19 = codec.subtype == 19;
    rec35_array_t& perSatellite = rec35Column(codec, native, sub19 ? "_Nb_Na" : "_Na_Na");
    const std::int64_t svs = sub19 ? rec35Column(codec, native, "sv__svId").count : perSatellite.count;
    const std::int64_t clocks = sub19 ? rec35Column(codec, native, "clock__system__rt_clktype").count : 0;
    const std::int64_t signals =
        svs == 0 ? 0 : rec35Column(codec, native, sub19 ? "sv__meas__range" : "sv__meas__flags").count;
    for (const Rec35Field& field : codec.fields) {
        const std::string_view name = field.name;
        if (field.kind != Kind::Array) continue;
        at<rec35_array_t>(native, field.offset).count = name.starts_with("sv__meas__") ? signals
                                                        : name.starts_with("clock__")  ? clocks
                                                                                       : svs;
    }
    for (std::int64_t i = 0; i < svs; ++i) static_cast<std::uint32_t*>(perSatellite.elements)[i] = i == 0 ? signals : 0;
}

std::uint8_t spoilRec35(const nvb::Rec35Codec& codec, void* native) {
    std::size_t offset = 0;
    if (firstOf(codec.fields, true, offset) != nullptr) {
        auto& array = at<rec35_array_t>(native, offset);
        array.count = array.capacity + 1;
        return NVB_STATUS_CAPACITY;
    }
    if (firstOf(codec.fields, false, offset) != nullptr) {
        at<double>(native, offset) = std::ldexp(1.0, 70);
        return NVB_STATUS_AVRO;
    }
    return 0;
}

nlohmann::json rec35Json(const nvb::Rec35Codec& codec, const void* native, bool wire) {
    nlohmann::json out = nlohmann::json::object();
    if (!wire) out["version"] = *static_cast<const std::int64_t*>(native);
    for (const Rec35Field& field : codec.fields) out[field.name] = jsonOf(field, native, wire);
    return out;
}

void setRec35(const nvb::Rec35Codec& codec, void* native, const nlohmann::json& values) {
    for (const Rec35Field& field : codec.fields) {
        const nlohmann::json value = along(values, field.name);
        if (!value.is_null()) setFrom(value, field, native);
    }
}

}  // namespace nvbtest
