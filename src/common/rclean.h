#ifndef NVB_COMMON_RCLEAN_H
#define NVB_COMMON_RCLEAN_H

#include <nvbdll/rclean_state.h>
#include <nvbdll/records.h>

#include <cstdint>
#include <span>

namespace nvb {

// Record 35 marks a slip, and a carried slip, with this bit of a signal's flags.
inline constexpr int64_t kRec35SlipFlag = 0x100;

// Dimensions the record 35 slip table starts with: system, satellite, band, track.
inline constexpr int32_t kRclean35InitialDims[4] = {10, 40, 12, 39};

// One signal of a record 35 measurement epoch as the thinning sees it. The record 35
// code fills one per signal, repeating its satellite block's system code and satellite
// number, and points flags at the signal's own flags, which may receive the slip bit.
// A signal without flags is skipped.
struct rcleanSignal35 {
    int32_t systemCode;  // record 35 system code of the satellite block
    int64_t satellite;  // satellite number as the record carries it
    int64_t band;
    int64_t track;
    int64_t count;  // cycle slip counter
    int64_t* flags;  // kRec35SlipFlag marks a slip
};

// Sets the tables to "nothing seen", clears counters and the dropped-slip list and builds
// the record 35 slip table. The state is taken as unset memory (an encode state comes from
// the host's allocator), so a table built earlier is not freed: call rcleanFree first when
// initialising a state again. An allocation failure ends the process.
bool rcleanInit(rcleanState& state);
// Frees the record 35 slip table and sets its dimensions to zero. Safe on a freed state.
void rcleanFree(rcleanState& state);

// Makes slip[system][satellite][band][track] addressable: every dimension that an index
// reaches or passes becomes that index, each level holding dimension + 1 entries. New
// entries have last count -1 and no pending slip. An allocation failure ends the process.
void rcleanGrow(rcleanState& state, int32_t system, int32_t satellite, int32_t band, int32_t track);

// The thinning decision: keeps an epoch within 5 ms of a multiple of the interval (below 5
// after it, at or above interval - 5 before the next), and every epoch when the remainder
// is not a number (interval 0). Stores time, interval and the decision in the state.
bool rcleanKeepEpoch(rcleanState& state, double time, int32_t intervalMs);

// Each returns the decision (true keep, false drop). The epoch functions first note every
// slip of the record, so that one in a dropped epoch is marked on the next kept one.
bool rcleanEpoch27(rcleanState& state, Rec27& rec, int32_t intervalMs);
// Interval -1 keeps the record without looking at it. The list, which may be null, is
// refilled with the slipping satellites of a dropped epoch (at most 12).
bool rcleanEpoch17(rcleanState& state, Rec17& rec, int32_t intervalMs, droppedSlipList_t* list);
// time is the record's receive time as carried (the low 32 bits are read as unsigned).
bool rcleanEpoch35(rcleanState& state, int64_t time, std::span<rcleanSignal35> signals, int32_t intervalMs);

bool rcleanPosition29(rcleanState& state, const Rec29& rec, int32_t intervalMs);
bool rcleanPosition11(rcleanState& state, const Rec11& rec, int32_t intervalMs);
bool rcleanPosition35(rcleanState& state, int64_t time, int32_t intervalMs);

}  // namespace nvb

#endif
