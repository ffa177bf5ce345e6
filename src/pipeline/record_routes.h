#ifndef NVB_PIPELINE_RECORD_ROUTES_H
#define NVB_PIPELINE_RECORD_ROUTES_H

// Every record type's road through the pipeline, one table per direction, side by side:
// a record family joins with one row in each.

#include <nvbdll/state.h>

#include "records/field_codec.h"
#include "records/navigation_records.h"

#include <cstdint>

namespace nvb {

inline constexpr std::uint16_t kNoRecord = 65535;

// Which thinning a type takes, in either direction.
enum class Thinning : std::uint8_t { None, Position11, Position29, Epoch17, Epoch27 };

[[nodiscard]] constexpr bool isPositionThinning(Thinning thinning) {
    return thinning == Thinning::Position11 || thinning == Thinning::Position29;
}

// Reading, by the type the getter found: the type reported for it, the expander of a
// compact type (null: the frame is plain and is copied; a compact type without one is no
// record), the reader that decodes the plain frame into the type's structure and DAT
// header (null: nothing to decode, length 0), its thinning, and the writer of its own DAT
// form behind the header (null: the generic area, not the type's own form).
struct ReadRoute {
    std::uint16_t reportedType = kNoRecord;
    std::uint8_t (*expand)(nvb_expand_t& state, bool framed) = nullptr;
    std::uint16_t (*read)(nvb_expand_t& state) = nullptr;
    Thinning thinning = Thinning::None;
    bool (*retrieve)(nvb_expand_t& state, DatWriter& out) = nullptr;
};

// Writing, by the type of a DAT record: the parser into the type's structure (null: the
// record is refused), its thinning, whether the type is in the catalogue, the filter that
// drops or refuses a subtype (null: every record goes on), the writer of its frame (null:
// a catalogued type without a writer, refused as not writable), and the compact coder that
// replaces the plain frame (null: the frame goes out as written).
struct WriteRoute {
    int (*parse)(nvb_encode_t& state, DatReader& in, std::uint16_t length, std::uint8_t systemMask) = nullptr;
    Thinning thinning = Thinning::None;
    bool catalogued = false;
    NavFilter (*filter)(const nvb_encode_t& state) = nullptr;
    std::uint16_t (*write)(nvb_encode_t& state, nvb_frame_t& out) = nullptr;
    std::uint16_t (*compress)(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) = nullptr;
};

[[nodiscard]] const ReadRoute& readRouteOf(std::uint16_t type);
[[nodiscard]] const WriteRoute& writeRouteOf(std::uint8_t type);

}  // namespace nvb

#endif
