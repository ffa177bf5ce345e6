#ifndef NVB_RECORDS_RECORD_SLOTS_H
#define NVB_RECORDS_RECORD_SLOTS_H

// The table of structures that opens both states: 38 slots, each the structure of one
// record type or a spare, allocated at these sizes. A host that builds its own state
// allocates every slot; freeing the state frees the host-owned ones with it.

#include <nvbdll/records.h>
#include <nvbdll/state.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <new>

namespace nvb {

inline constexpr std::size_t kSlotCount = 38;
inline constexpr std::size_t kRec35ContentSlot = 32;

// Slots without a structure of their own keep the sizes the table was laid out with;
// 36 and 37 are the sizes of records 101 and 102.
inline constexpr std::array<std::size_t, kSlotCount> kSlotSizes = {
    4,             sizeof(RecGeneric), 78,            78,            78,            202,
    sizeof(Rec5),  160,                118,           20,            5,             86,
    sizeof(Rec11), sizeof(Rec12),      sizeof(Rec15), sizeof(Rec16), sizeof(Rec17), sizeof(Rec19),
    264,           sizeof(Rec21),      sizeof(Rec22), sizeof(Rec24), sizeof(Rec25), sizeof(Rec26),
    sizeof(Rec27), sizeof(Rec28),      sizeof(Rec29), sizeof(Rec30), sizeof(Rec31), sizeof(Rec32),
    sizeof(Rec33), sizeof(Rec34),      sizeof(rec35_content_t), sizeof(Rec40), sizeof(Rec98), sizeof(Rec99),
    sizeof(Rec101), sizeof(Rec102),
};

// The DAT header and the structures of 5, 11, 12, 15, 16, 17, 19, 21, 25 to 31, 40, 98, 99.
inline constexpr std::array<std::size_t, 19> kHostOwnedSlots = {0,  6,  12, 13, 14, 15, 16, 17, 19, 22,
                                                                23, 24, 25, 26, 27, 28, 33, 34, 35};

[[nodiscard]] constexpr bool isHostOwnedSlot(std::size_t slot) {
    return std::find(kHostOwnedSlots.begin(), kHostOwnedSlots.end(), slot) != kHostOwnedSlots.end();
}

[[nodiscard]] inline void** slotsOf(nvb_record_table_t& table) { return reinterpret_cast<void**>(&table); }

// What freeing a state releases of the structures a host built; the host frees the rest.
inline void freeHostOwnedSlots(nvb_record_table_t& table) {
    for (const std::size_t slot : kHostOwnedSlots) ::operator delete(slotsOf(table)[slot]);
}

}  // namespace nvb

#endif
