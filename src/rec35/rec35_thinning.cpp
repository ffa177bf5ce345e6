#include "rec35/rec35_thinning.h"

#include <nvbdll/rec35_records.h>

#include "common/rclean.h"
#include "rec35/rec35_flat.h"

#include <algorithm>
#include <array>

namespace nvb {

namespace {

// The signals go to the thinning a batch at a time; each batch repeats the same decision.
constexpr std::int64_t kBatch = 64;

bool keepEpoch19(rcleanState& rclean, rec35_sub19_t& r, std::int32_t intervalMs) {
    if (!sub19Consistent(r)) return rcleanEpoch35(rclean, r.epoch__receiveTime, {}, intervalMs);
    std::array<rcleanSignal35, kBatch> batch{};
    std::array<std::int64_t, kBatch> flags{};
    std::array<std::int64_t, kBatch> index{};
    std::int64_t signal = 0;
    std::size_t used = 0;
    bool keep = true;
    const auto flush = [&] {
        keep = rcleanEpoch35(rclean, r.epoch__receiveTime, std::span(batch.data(), used), intervalMs);
        for (std::size_t i = 0; i < used; ++i) {
            flatAt<std::uint32_t>(r.sv__meas__measFlags, index[i]) = static_cast<std::uint32_t>(flags[i]);
        }
        used = 0;
    };
    for (std::int64_t sv = 0; sv < r._Nb; ++sv) {
        const std::int64_t end = signal + flatAt<std::uint32_t>(r._Nb_Na, sv);
        for (; signal < end; ++signal) {
            index[used] = signal;
            flags[used] = flatAt<std::uint32_t>(r.sv__meas__measFlags, signal);
            batch[used] = {static_cast<std::int32_t>(flatAt<std::uint32_t>(r.sv__rt_sattype, sv)),
                           flatAt<std::uint32_t>(r.sv__svId, sv),
                           flatAt<std::uint32_t>(r.sv__meas__blockType, signal),
                           flatAt<std::uint32_t>(r.sv__meas__trackType, signal),
                           flatAt<std::uint32_t>(r.sv__meas__slipCount, signal), &flags[used]};
            if (++used == batch.size()) flush();
        }
    }
    flush();
    return keep;
}

}  // namespace

bool keepRec35(rcleanState& rclean, std::uint64_t subtype, void* native, std::int32_t epochMs,
               std::int32_t positionMs) {
    if (native == nullptr) return true;
    if (subtype == 19 && epochMs > 0) return keepEpoch19(rclean, *static_cast<rec35_sub19_t*>(native), epochMs);
    if (subtype == 2 && positionMs > 0) {
        return rcleanPosition35(rclean, static_cast<const rec35_sub2_t*>(native)->hdr.time, positionMs);
    }
    return true;
}

}  // namespace nvb
