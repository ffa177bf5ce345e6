#ifndef NVB_RECORDS_FIELD_WALK_H
#define NVB_RECORDS_FIELD_WALK_H

#include "records/field_codec.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <type_traits>

namespace nvb {

enum class FieldKind : std::uint8_t {
    Unsigned,  // big-endian on the wire
    Real,      // IEEE single or double
    Opaque,    // bytes carried as they stand, `width` of them to an item
};

// One field of a record body, in the order both encodings carry it: where its items
// stand in the structure, the width of one item, and how many follow.
struct FieldSpec {
    const char* name;
    std::uint16_t offset;
    std::uint8_t width;
    FieldKind kind;
    std::uint16_t count;
};

using Layout = std::span<const FieldSpec>;

// The bytes a layout takes in the structure (and, field for field, on the wire).
constexpr std::size_t layoutBytes(Layout layout) {
    std::size_t total = 0;
    for (const FieldSpec& field : layout) total += std::size_t{field.width} * field.count;
    return total;
}

template <class Member>
consteval FieldSpec describeField(const char* name, std::size_t offset) {
    using Item = std::remove_all_extents_t<Member>;
    return {name, static_cast<std::uint16_t>(offset), static_cast<std::uint8_t>(sizeof(Item)),
            std::is_floating_point_v<Item> ? FieldKind::Real : FieldKind::Unsigned,
            static_cast<std::uint16_t>(sizeof(Member) / sizeof(Item))};
}

// The field `member` of the packed structure `Type`, whole.
#define NVB_FIELD(Type, member) ::nvb::describeField<decltype(Type::member)>(#member, offsetof(Type, member))

// `count` items of an array field from item `first` on.
constexpr FieldSpec fieldItems(FieldSpec field, std::size_t first, std::size_t count) {
    field.offset = static_cast<std::uint16_t>(field.offset + first * field.width);
    field.count = static_cast<std::uint16_t>(count);
    return field;
}

constexpr FieldSpec opaqueField(const char* name, std::size_t offset, std::size_t count) {
    return {name, static_cast<std::uint16_t>(offset), 1, FieldKind::Opaque, static_cast<std::uint16_t>(count)};
}

// A walk carries a record body through the fields of its layouts in wire order, in one
// of four directions: from a frame or a DAT form into the structure (kFills), or from
// the structure into a frame or a DAT form. A record's layout is then written once.
// `length` is what the body holds (or announces), `position` how much was walked.
struct WalkExtent {
    std::size_t length = 0;
    std::size_t position = 0;
    bool overfull = false;  // a count passed the array it fills

    [[nodiscard]] std::size_t remaining() const { return position < length ? length - position : 0; }
};

// Big-endian fields from a frame, the body starting at `start`; past the buffer zeros.
struct FrameReadWalk : WalkExtent {
    static constexpr bool kFills = true;
    ByteView bytes;
    std::size_t start;

    void fields(Layout layout, std::uint8_t* base);
    void open(const char*, bool) {}
    void close() {}
};

struct FrameWriteWalk : WalkExtent {
    static constexpr bool kFills = false;
    WriteBuffer& out;

    void fields(Layout layout, std::uint8_t* base);
    void open(const char*, bool) {}
    void close() {}
};

// Native fields from a DAT form, as far as its announced length.
struct DatParseWalk : WalkExtent {
    static constexpr bool kFills = true;
    DatReader& in;

    void fields(Layout layout, std::uint8_t* base);
    void open(const char*, bool) {}
    void close() {}
};

// Native fields into a DAT form, never past its capacity.
struct DatPackWalk : WalkExtent {
    static constexpr bool kFills = false;
    DatWriter& out;

    void fields(Layout layout, std::uint8_t* base);
    void open(const char*, bool) {}
    void close() {}
};

// Whether a walk carries the stream form, which leaves out or reorders some fields that
// the structure and the DAT form keep.
template <class Walk>
inline constexpr bool kOnWire = std::is_same_v<Walk, FrameReadWalk> || std::is_same_v<Walk, FrameWriteWalk>;

// What a description of a decoded record hands on: each field with its items (native
// order, unaligned), and the groups (entries, blocks) that hold fields.
struct FieldSink {
    void* context;
    void (*field)(void* context, const FieldSpec& field, const std::uint8_t* items);
    void (*open)(void* context, const char* group, bool repeated);
    void (*close)(void* context);
};

struct DescribeWalk : WalkExtent {
    static constexpr bool kFills = false;
    const FieldSink& sink;

    void fields(Layout layout, std::uint8_t* base);
    void open(const char* group, bool repeated) { sink.open(sink.context, group, repeated); }
    void close() { sink.close(sink.context); }
};

// A walk that describes a record of `datLength` DAT bytes, its four-byte header left out.
inline DescribeWalk describeWalkOf(std::uint32_t datLength, const FieldSink& sink) {
    return DescribeWalk{{datLength > 4 ? datLength - 4 : 0}, sink};
}

// The subtype of the records that keep it in the DAT header only, byte 2.
inline constexpr std::array<FieldSpec, 1> kHeaderSubtype = {FieldSpec{"subtype", 2, 1, FieldKind::Unsigned, 1}};

// The count a walk goes on with, once it has walked the count field: the field cut to
// `capacity`. A filling walk stores the cut count, and flags it as overfull unless the
// cut is the format's own.
template <class Walk>
std::size_t walkCount(Walk& walk, std::uint8_t& count, std::size_t capacity, bool formatCap) {
    if (count <= capacity) return count;
    if constexpr (Walk::kFills) {
        count = static_cast<std::uint8_t>(capacity);
        if (!formatCap) walk.overfull = true;
    }
    return capacity;
}

// `count` entries of an array of `Entry` structures from `first` on, each a group.
template <class Walk, class Entry>
void walkEntries(Walk& walk, Layout entry, std::uint8_t* first, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        walk.open("entries", true);
        walk.fields(entry, first + i * sizeof(Entry));
        walk.close();
    }
}

// A head that ends in a count, then that many entries, the count cut to `capacity`.
template <class Entry, class Walk>
void walkCounted(Walk& walk, Layout head, std::uint8_t& count, std::size_t capacity, Layout entry,
                 std::size_t entriesAt, std::uint8_t* base) {
    walk.fields(head, base);
    walkEntries<Walk, Entry>(walk, entry, base + entriesAt, walkCount(walk, count, capacity, false));
}

// A number that the wire carries as a scaled integer of `wireWidth` bytes (2 or 4) in
// units of 2^exponent, and the structure and DAT form as the double of `field`.
struct ScaledSpec {
    FieldSpec field;
    std::uint8_t wireWidth;
    std::int8_t exponent;
    bool isSigned;
};

template <class Walk>
void walkScaled(Walk& walk, const ScaledSpec& scaled, std::uint8_t* base) {
    std::uint8_t* item = base + scaled.field.offset;
    if constexpr (std::is_same_v<Walk, FrameReadWalk>) {
        const double value =
            getScaled(walk.bytes, walk.start + walk.position, scaled.wireWidth, scaled.exponent, scaled.isSigned);
        std::memcpy(item, &value, sizeof value);
        walk.position += scaled.wireWidth;
    } else if constexpr (std::is_same_v<Walk, FrameWriteWalk>) {
        double value = 0;
        std::memcpy(&value, item, sizeof value);
        if (scaled.wireWidth == 2) {
            putScaled2(walk.out, value, -scaled.exponent);
        } else {
            putScaled4(walk.out, value, -scaled.exponent);
        }
        walk.position += scaled.wireWidth;
    } else {
        const std::array field = {scaled.field};
        walk.fields(field, base);
    }
}

// A DAT parser on a record's walk: the structure cleared, then filled as far as the DAT
// form reaches. -1 without a structure, -2 for a count beyond it, 0 otherwise.
template <class Rec, class WalkRecord>
int parseByWalk(DatReader& in, Rec* rec, WalkRecord walkRecord) {
    if (rec == nullptr) return -1;
    std::memset(static_cast<void*>(rec), 0, sizeof *rec);
    DatParseWalk walk{{datLeft(in)}, in};
    walkRecord(walk, *rec);
    return walk.overfull ? -2 : 0;
}

template <class T>
[[nodiscard]] std::uint8_t* bytesOf(T& value) {
    return reinterpret_cast<std::uint8_t*>(&value);
}

template <class T>
[[nodiscard]] std::uint8_t* bytesOf(const T& value) {
    // The taking walks read through the same pointer type as the filling ones; they
    // never write through it.
    return const_cast<std::uint8_t*>(reinterpret_cast<const std::uint8_t*>(&value));
}

}  // namespace nvb

#endif
