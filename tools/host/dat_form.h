#ifndef NVB_HOST_DAT_FORM_H
#define NVB_HOST_DAT_FORM_H

#include <cstddef>
#include <cstdint>
#include <span>

namespace nvbtool {

// The offset of the satellite count in the DAT form of record 27: behind the DAT header,
// the epoch header length, the week, the time and the clock offset.
inline constexpr std::size_t kRec27CountOffset = 4 + 1 + 2 + 8 + 4;

// What the encoder needs to know of a record 27 in DAT form.
struct EpochShape {
    std::size_t satellites = 0;  // satellite entries that follow the epoch header
    bool needsLongForm = false;  // something that the short delta form can't carry
};

// Walks the satellite and measurement blocks of a record 27 DAT form by their own
// length bytes, as the parser does.
EpochShape epochShapeOf(std::span<const std::uint8_t> dat);

// Prepares a record 27 DAT form for the encoder: retrieval counts only the first
// antenna's satellites in the byte where the parser takes the satellite count, so the
// count is set to the entries that follow. Other types are left alone.
EpochShape prepareEpochForEncoder(std::span<std::uint8_t> dat);

}  // namespace nvbtool

#endif
