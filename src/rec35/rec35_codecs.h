#ifndef NVB_REC35_REC35_CODECS_H
#define NVB_REC35_REC35_CODECS_H

#include "rec35/rec35_slot.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace nvb {

// The 40 Avro subtypes in ascending order; a subtype's position is its slot and the index
// of its native record in rec35_content_t.
inline constexpr std::array<std::uint32_t, NVB_REC35_SUBTYPES> kRec35AvroSubtypes = {
    2,   3,   4,   5,   6,   7,   8,   9,   10,  11,  12,  14,  15,  16,  17,  18,  19,  20,  21,  24,
    25,  26,  128, 129, 130, 131, 132, 133, 256, 257, 258, 259, 260, 300, 301, 302, 303, 304, 305, 306,
};

// The slot of an Avro subtype; empty for any other number, a high word included.
[[nodiscard]] std::optional<std::size_t> rec35SlotOf(std::uint64_t subtype);

// The family of the subtype in a slot; null while its codec is not part of the library,
// and the subtype is then carried undecoded like an unknown one.
[[nodiscard]] const Rec35Codec* rec35CodecAt(std::size_t slot);

}  // namespace nvb

#endif
