#ifndef NVB_EXTERNAL_SU_COMPACT_FRAME_H
#define NVB_EXTERNAL_SU_COMPACT_FRAME_H

// Small helpers shared by the compact codecs of positions, solutions and records 17.

#include "external/su/su_compr_common.h"

#include <cstddef>
#include <cstdint>

namespace nvb {

// A code byte that is known only after the fields behind it: the place of one stream byte,
// filled in later. When the stream is full the writer fails and the code lands in `spare`.
[[nodiscard]] inline std::uint8_t* reserveByte(ByteWriter& writer, std::uint8_t& spare) {
    if (spaceLeft(writer) == 0) {
        writer.failed = true;
        return &spare;
    }
    *writer.pos = 0;
    return writer.pos++;
}

// Bytes consumed or written so far, counted from the start of the record.
[[nodiscard]] inline std::size_t distanceFrom(const ByteReader& reader, const std::uint8_t* start) {
    return static_cast<std::size_t>(reader.pos - start);
}

[[nodiscard]] inline std::size_t distanceFrom(const ByteWriter& writer, const std::uint8_t* start) {
    return static_cast<std::size_t>(writer.pos - start);
}

// A time tag in ms: four big-endian bytes, as the plain records hold it.
[[nodiscard]] inline std::uint32_t timeTagAt(const std::uint8_t* bytes) {
    return (static_cast<std::uint32_t>(bytes[0]) << 24) | (static_cast<std::uint32_t>(bytes[1]) << 16) |
           (static_cast<std::uint32_t>(bytes[2]) << 8) | bytes[3];
}

}  // namespace nvb

#endif
