#include "records/field_walk.h"

#include <cstring>

namespace nvb {

namespace {

std::size_t bytesOfField(const FieldSpec& field) {
    return std::size_t{field.width} * field.count;
}

}  // namespace

void FrameReadWalk::fields(Layout layout, std::uint8_t* base) {
    for (const FieldSpec& field : layout) {
        std::uint8_t* item = base + field.offset;
        std::size_t at = start + position;
        if (field.kind == FieldKind::Opaque) {
            getBytes(item, bytes, at, bytesOfField(field));
            position += bytesOfField(field);
            continue;
        }
        for (std::size_t i = 0; i < field.count; ++i, item += field.width, at += field.width) {
            if (field.kind == FieldKind::Real && field.width == 4) {
                const float value = getFloat(bytes, at);
                std::memcpy(item, &value, sizeof value);
            } else if (field.kind == FieldKind::Real) {
                const double value = getDouble(bytes, at);
                std::memcpy(item, &value, sizeof value);
            } else {
                // Native order of the item's own width: the host is little-endian.
                const std::uint64_t value = getBigEndian(bytes, at, field.width);
                std::memcpy(item, &value, field.width);
            }
        }
        position += bytesOfField(field);
    }
}

void FrameWriteWalk::fields(Layout layout, std::uint8_t* base) {
    for (const FieldSpec& field : layout) {
        const std::uint8_t* item = base + field.offset;
        position += bytesOfField(field);
        if (field.kind == FieldKind::Opaque) {
            putBytes(out, item, bytesOfField(field));
            continue;
        }
        for (std::size_t i = 0; i < field.count; ++i, item += field.width) {
            if (field.kind == FieldKind::Real && field.width == 4) {
                float value = 0;
                std::memcpy(&value, item, sizeof value);
                putF32(out, value);
            } else if (field.kind == FieldKind::Real) {
                double value = 0;
                std::memcpy(&value, item, sizeof value);
                putF64(out, value);
            } else {
                // Big-endian of the item's own width, three bytes included.
                std::uint64_t value = 0;
                std::memcpy(&value, item, field.width);
                for (unsigned b = field.width; b > 0; --b) putByte(out, static_cast<std::uint8_t>(value >> (8 * (b - 1))));
            }
        }
    }
}

void DatParseWalk::fields(Layout layout, std::uint8_t* base) {
    for (const FieldSpec& field : layout) {
        if (field.kind == FieldKind::Opaque) {
            datCopy(in, base + field.offset, bytesOfField(field), 1);
        } else {
            datCopy(in, base + field.offset, field.count, field.width);
        }
        position += bytesOfField(field);
    }
}

void DatPackWalk::fields(Layout layout, std::uint8_t* base) {
    for (const FieldSpec& field : layout) {
        datPut(out, base + field.offset, bytesOfField(field));
        position += bytesOfField(field);
    }
}

void DescribeWalk::fields(Layout layout, std::uint8_t* base) {
    for (const FieldSpec& field : layout) {
        sink.field(sink.context, field, base + field.offset);
        position += bytesOfField(field);
    }
}

}  // namespace nvb
