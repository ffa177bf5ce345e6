#include "rec35/rec35_codecs.h"

#include "rec35_generated_codecs.h"

#include <algorithm>

namespace nvb {

namespace {

constexpr std::size_t slotIndexOf(std::uint32_t subtype) {
    return static_cast<std::size_t>(std::find(kRec35AvroSubtypes.begin(), kRec35AvroSubtypes.end(), subtype) -
                                    kRec35AvroSubtypes.begin());
}

// The generated members by slot. A subtype whose native record differs from its wire
// record takes a hand-written row here, built on its generated one.
constexpr std::array<const Rec35Codec*, NVB_REC35_SUBTYPES> kCodecs = kGeneratedRec35Codecs;

}  // namespace

std::optional<std::size_t> rec35SlotOf(std::uint64_t subtype) {
    if (subtype > kRec35AvroSubtypes.back()) return std::nullopt;
    const std::size_t slot = slotIndexOf(static_cast<std::uint32_t>(subtype));
    if (slot == kRec35AvroSubtypes.size()) return std::nullopt;
    return slot;
}

const Rec35Codec* rec35CodecAt(std::size_t slot) { return slot < kCodecs.size() ? kCodecs[slot] : nullptr; }

}  // namespace nvb
