#include "rec35/rec35_codecs.h"

#include "rec35/rec35_measurement.h"
#include "rec35_generated_codecs.h"

#include <algorithm>

namespace nvb {

namespace {

constexpr std::size_t slotIndexOf(std::uint32_t subtype) {
    return static_cast<std::size_t>(std::find(kRec35AvroSubtypes.begin(), kRec35AvroSubtypes.end(), subtype) -
                                    kRec35AvroSubtypes.begin());
}

// The generated members by slot; a subtype with work beyond its fields takes a
// hand-written row built on its generated one.
const std::array<const Rec35Codec*, NVB_REC35_SUBTYPES>& codecs() {
    static const std::array<const Rec35Codec*, NVB_REC35_SUBTYPES> table = [] {
        std::array<const Rec35Codec*, NVB_REC35_SUBTYPES> rows = kGeneratedRec35Codecs;
        rows[slotIndexOf(19)] = &rec35Sub19Codec();
        rows[slotIndexOf(260)] = &rec35Sub260Codec();
        return rows;
    }();
    return table;
}

}  // namespace

std::optional<std::size_t> rec35SlotOf(std::uint64_t subtype) {
    if (subtype > kRec35AvroSubtypes.back()) return std::nullopt;
    const std::size_t slot = slotIndexOf(static_cast<std::uint32_t>(subtype));
    if (slot == kRec35AvroSubtypes.size()) return std::nullopt;
    return slot;
}

const Rec35Codec* rec35CodecAt(std::size_t slot) { return slot < codecs().size() ? codecs()[slot] : nullptr; }

}  // namespace nvb
