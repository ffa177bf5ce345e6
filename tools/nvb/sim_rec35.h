#ifndef NVB_TOOL_SIM_REC35_H
#define NVB_TOOL_SIM_REC35_H

#include "nvb/simulator.h"

#include <nvbdll/rec35_records.h>

#include <cstdint>

namespace nvbtool {

// Record 35 subtypes of a newer receiver: it logs its epochs as the flattened
// measurement record and its positions as the position record.
inline constexpr std::uint32_t kNewerEpochSubtype = 19;
inline constexpr std::uint32_t kNewerPositionSubtype = 2;

// The simulated epoch and position as a newer receiver fills them, made from what the
// simulator filled last: the same values on the grids of these subtypes, azimuth and
// elevation finer than a record 27 holds them, and the steering clock, which no plain
// record carries. The arrays belong to this object and are reused from epoch to epoch.
class NewerReceiverRecords {
public:
    NewerReceiverRecords() = default;
    ~NewerReceiverRecords();
    NewerReceiverRecords(const NewerReceiverRecords&) = delete;
    NewerReceiverRecords& operator=(const NewerReceiverRecords&) = delete;

    void fill(const Rec27& epoch, const Rec29& position, const EpochTruth& truth);

    rec35_sub19_t& epoch() { return epoch_; }
    rec35_sub2_t& position() { return position_; }

private:
    rec35_sub19_t epoch_{};
    rec35_sub2_t position_{};
};

}  // namespace nvbtool

#endif
