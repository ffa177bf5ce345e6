#include "common/rclean.h"

#include "common/diagnostics.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <cstdlib>
#include <cstring>

namespace nvb {

namespace {

// Record 27 slip tables of one satellite system: ((blockType * 18) + trackType) * svCount
// + satellite index. The tables sit unaligned in the packed state, so their cells are
// reached by offset and copied rather than referenced.
struct SlipTable27 {
    std::size_t lastOffset;
    std::size_t flagOffset;
    int32_t svCount;
    int32_t svBase;
};

constexpr std::array<SlipTable27, 4> kSlipTables27 = {{
    {offsetof(rcleanState, lastCycleGps), offsetof(rcleanState, slipFlagGps), NVB_RCLEAN_GPS_SVS, 0},
    {offsetof(rcleanState, lastCycleSbas), offsetof(rcleanState, slipFlagSbas), NVB_RCLEAN_SBAS_SVS, 120},
    {offsetof(rcleanState, lastCycleGlonass), offsetof(rcleanState, slipFlagGlonass), NVB_RCLEAN_GLONASS_SVS, 0},
    {offsetof(rcleanState, lastCycleGalileo), offsetof(rcleanState, slipFlagGalileo), NVB_RCLEAN_GALILEO_SVS, 0},
}};

constexpr uint8_t kSlipMark27 = 0x08;
constexpr uint8_t kSbasSystem = 1;

// Record 17 slip kinds, in the order of the pending flags and counters.
enum Kind17 { kKindA = 0, kKindB = 1, kKindC = 2 };
constexpr uint8_t kFlag17SecondFrequency = 0x01;
constexpr uint8_t kFlag17Slip = 0x02;
constexpr uint8_t kFlag17SlipC = 0x04;
constexpr uint8_t kFlag17PhaseUsable = 0x10;
constexpr uint8_t kFlag17Override = 0x40;

// Table index of each record 35 system code 0 to 10; any other code goes to index 0.
constexpr std::array<int32_t, 11> kSlipSystem35 = {0, 1, 2, 3, 4, 5, 7, 5, 8, 6, 5};
// Lowest satellite number of each table index, taken off before indexing.
constexpr std::array<int32_t, 10> kSlipSatelliteBase35 = {1, 120, 1, 1, 193, 1, 1, 0, 11, 0};
// Satellite, band and track of record 35 come from 64-bit fields that the plain records
// hold in a byte. A larger value would make every level of the table grow to it, so it is
// ignored rather than allowed to exhaust memory.
constexpr int64_t kSlipIndexMax35 = 255;

int32_t loadCell(const rcleanState& state, std::size_t offset, std::size_t index) {
    int32_t value;
    std::memcpy(&value, reinterpret_cast<const unsigned char*>(&state) + offset + index * sizeof value,
                sizeof value);
    return value;
}

void storeCell(rcleanState& state, std::size_t offset, std::size_t index, int32_t value) {
    std::memcpy(reinterpret_cast<unsigned char*>(&state) + offset + index * sizeof value, &value, sizeof value);
}

// Visits every measurement of the record whose table cell exists, with the cell's index.
template <typename Visit>
void forEachSlipCell27(Rec27& rec, Visit&& visit) {
    const int svCount = std::min<int>(rec.nSv, NVB_MAX_SV);
    for (int i = 0; i < svCount; ++i) {
        Rec27Sv& sv = rec.sv[i];
        if (sv.rt_sattype >= kSlipTables27.size()) continue;
        const SlipTable27& table = kSlipTables27[sv.rt_sattype];
        int32_t number = sv.svId;
        const int measCount = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
        for (int j = 0; j < measCount; ++j) {
            Rec27Meas& meas = sv.meas[j];
            // SBAS numbers are lowered by 120 once per measurement, not once per satellite,
            // so a second signal lands 240 below its number. This is how thinning has always
            // placed these marks and it stays; a lowered number outside the table is skipped.
            if (sv.rt_sattype == kSbasSystem) number -= table.svBase;
            if (meas.blockType >= NVB_RCLEAN_BANDS || meas.trackType >= NVB_RCLEAN_TRACKS) continue;
            if (number < 0 || number >= table.svCount) continue;
            const std::size_t cell =
                (static_cast<std::size_t>(meas.blockType) * NVB_RCLEAN_TRACKS + meas.trackType) * table.svCount +
                static_cast<std::size_t>(number);
            visit(meas, table, cell);
        }
    }
}

template <typename T>
T* resizeLevel(T* level, std::size_t oldCount, std::size_t newCount, const char* text, int line) {
    auto* grown = static_cast<T*>(std::realloc(level, newCount * sizeof(T)));
    if (grown == nullptr) fatalAssert(text, "rclean", line);
    if (newCount > oldCount) std::memset(grown + oldCount, 0, (newCount - oldCount) * sizeof(T));
    return grown;
}

void markSlips17(rcleanState& state, const Rec17Sv& sv, bool keep, droppedSlipList_t* list) {
    const uint8_t f = sv.svFlags;
    const uint8_t g = sv.svFlags3;
    const bool kindA = ((g & 1) == 0 || (f & kFlag17Override) != 0) && (f & kFlag17PhaseUsable) == 0;
    const bool kindB = (f & kFlag17Slip) != 0 && !((g & 1) != 0 && (f & kFlag17Override) == 0);
    const bool kindC = (f & kFlag17SecondFrequency) != 0 && (f & kFlag17SlipC) != 0;
    // The tables hold 36 satellites; others still reach the dropped list, but nothing is
    // remembered for them.
    const bool tracked = sv.svId < NVB_RCLEAN_REC17_SVS;
    const uint8_t id = sv.svId;

    if (tracked) state.svSeen[id] = 1;
    if (kindA && tracked) {
        state.rec17Pending[id][kKindA] = 1;
        if (keep) {
            state.keptSlip[id] = 1;
            state.rec17Pending[id][kKindB] = 1;
            ++state.slipSeenCount[kKindB][id];
        }
        ++state.slipSeenCount[kKindA][id];
    }
    if (kindB && tracked) {
        state.rec17Pending[id][kKindB] = 1;
        ++state.slipSeenCount[kKindB][id];
    }
    if (kindC && tracked) {
        state.rec17Pending[id][kKindC] = 1;
        ++state.slipSeenCount[kKindC][id];
    }
    if (keep || !(kindA || kindB || kindC) || list == nullptr) return;
    // The list holds 12 satellites; further slipping satellites of the same epoch are not
    // written and not counted, so a host reading count entries stays inside it.
    if (list->count >= NVB_RCLEAN_DROPPED_MAX) return;
    list->entries[list->count][0] = sv.svId;
    list->entries[list->count][1] = f;
    ++list->count;
    ++state.listCount;
}

void carrySlips17(rcleanState& state, Rec17Sv& sv, droppedSlipList_t* list) {
    const uint8_t id = sv.svId;
    if (id < NVB_RCLEAN_REC17_SVS) {
        if (state.rec17Pending[id][kKindA] != 0 && state.keptSlip[id] != 0) {
            sv.svFlags &= static_cast<uint8_t>(~kFlag17PhaseUsable);
            ++state.slipPassedCount[0][id];
        }
        if (state.rec17Pending[id][kKindB] != 0) {
            sv.svFlags |= kFlag17Slip;
            ++state.slipPassedCount[1][id];
        }
        if (state.rec17Pending[id][kKindC] != 0) sv.svFlags |= kFlag17SlipC;
        state.keptSlip[id] = 0;
        std::memset(state.rec17Pending[id], 0, sizeof state.rec17Pending[id]);
    }
    if (list != nullptr) std::memset(list->entries, 0, sizeof list->entries);
}

}  // namespace

bool rcleanInit(rcleanState& state) {
    std::memset(&state, 0, sizeof state);
    state.interval = -1;
    std::memset(state.svSeen, 1, sizeof state.svSeen);
    for (const SlipTable27& table : kSlipTables27) {
        const std::size_t cells = std::size_t{NVB_RCLEAN_BANDS} * NVB_RCLEAN_TRACKS * table.svCount;
        for (std::size_t cell = 0; cell < cells; ++cell) storeCell(state, table.lastOffset, cell, -1);
    }
    rcleanGrow(state, kRclean35InitialDims[0], kRclean35InitialDims[1], kRclean35InitialDims[2],
               kRclean35InitialDims[3]);
    return true;
}

void rcleanFree(rcleanState& state) {
    rclean_slip_t**** slip = state.slip;
    if (slip != nullptr) {
        const int32_t d0 = state.slipDims[0], d1 = state.slipDims[1], d2 = state.slipDims[2];
        for (int32_t i = 0; i <= d0; ++i) {
            for (int32_t j = 0; j <= d1; ++j) {
                for (int32_t k = 0; k <= d2; ++k) std::free(slip[i][j][k]);
                std::free(slip[i][j]);
            }
            std::free(slip[i]);
        }
        std::free(slip);
    }
    state.slip = nullptr;
    for (int level = 0; level < 4; ++level) state.slipDims[level] = 0;
}

void rcleanGrow(rcleanState& state, int32_t system, int32_t satellite, int32_t band, int32_t track) {
    const int32_t wanted[4] = {system, satellite, band, track};
    int32_t dims[4];
    bool changed = state.slip == nullptr;
    for (int level = 0; level < 4; ++level) {
        const int32_t current = state.slipDims[level];
        dims[level] = std::max(current, wanted[level]);
        changed = changed || dims[level] != current;
    }
    // An index equal to its dimension already lies inside, so the usual call costs nothing.
    if (!changed) return;

    // Each level holds one entry more than its dimension: an index equal to it is valid.
    std::size_t oldCount[4] = {0, 0, 0, 0};
    std::size_t newCount[4];
    for (int level = 0; level < 4; ++level) {
        if (state.slip != nullptr) oldCount[level] = static_cast<std::size_t>(state.slipDims[level]) + 1;
        newCount[level] = static_cast<std::size_t>(dims[level]) + 1;
    }

    rclean_slip_t**** slip =
        resizeLevel(state.slip, oldCount[0], newCount[0], "rcleanState->slip != NULL", 206);
    state.slip = slip;
    for (std::size_t i = 0; i < newCount[0]; ++i) {
        const bool oldI = i < oldCount[0];
        slip[i] = resizeLevel(slip[i], oldI ? oldCount[1] : 0, newCount[1], "rcleanState->slip[i] != NULL", 209);
        for (std::size_t j = 0; j < newCount[1]; ++j) {
            const bool oldJ = oldI && j < oldCount[1];
            slip[i][j] =
                resizeLevel(slip[i][j], oldJ ? oldCount[2] : 0, newCount[2], "rcleanState->slip[i][j] != NULL", 212);
            for (std::size_t k = 0; k < newCount[2]; ++k) {
                const std::size_t kept = oldJ && k < oldCount[2] ? oldCount[3] : 0;
                rclean_slip_t* entries = resizeLevel(slip[i][j][k], kept, newCount[3],
                                                     "rcleanState->slip[i][j][k] != NULL", 215);
                for (std::size_t l = kept; l < newCount[3]; ++l) entries[l].last = -1;
                slip[i][j][k] = entries;
            }
        }
    }
    for (int level = 0; level < 4; ++level) state.slipDims[level] = dims[level];
}

bool rcleanKeepEpoch(rcleanState& state, double time, int32_t intervalMs) {
    const double interval = intervalMs;
    const double remainder = std::fmod(time, interval);
    // Written so that an unordered remainder (interval 0 gives NaN) keeps the epoch.
    const bool drop = remainder >= 5.0 && remainder < interval - 5.0;
    state.time = time;
    state.interval = intervalMs;
    state.keep = drop ? 0 : 1;
    return !drop;
}

bool rcleanEpoch27(rcleanState& state, Rec27& rec, int32_t intervalMs) {
    forEachSlipCell27(rec, [&state](Rec27Meas& meas, const SlipTable27& table, std::size_t cell) {
        int32_t last = loadCell(state, table.lastOffset, cell);
        if (last == -1) last = meas.slipCount;
        if (last != meas.slipCount || (meas.measFlags1 & kSlipMark27) != 0) {
            storeCell(state, table.flagOffset, cell, 1);
        }
        storeCell(state, table.lastOffset, cell, meas.slipCount);
    });
    if (!rcleanKeepEpoch(state, rec.receiveTime, intervalMs)) return false;
    forEachSlipCell27(rec, [&state](Rec27Meas& meas, const SlipTable27& table, std::size_t cell) {
        if (loadCell(state, table.flagOffset, cell) != 1) return;
        storeCell(state, table.flagOffset, cell, 0);
        meas.measFlags1 |= kSlipMark27;
    });
    return true;
}

bool rcleanEpoch17(rcleanState& state, Rec17& rec, int32_t intervalMs, droppedSlipList_t* list) {
    if (intervalMs == -1) return true;
    state.record = &rec;
    state.list = list;
    const bool keep = rcleanKeepEpoch(state, rec.receiveTime, intervalMs);
    if (list != nullptr) {
        list->reserved = 0;
        list->count = 0;
        list->time = rec.receiveTime;
    }
    state.listCount = 0;
    const int svCount = std::min<int>(rec.nSv, NVB_REC17_MAX_SV);
    for (int i = 0; i < svCount; ++i) {
        Rec17Sv& sv = rec.sv[i];
        state.item = &sv;
        markSlips17(state, sv, keep, list);
        if (keep) carrySlips17(state, sv, list);
    }
    return keep;
}

bool rcleanEpoch35(rcleanState& state, int64_t time, std::span<rcleanSignal35> signals, int32_t intervalMs) {
    const bool keep = rcleanKeepEpoch(state, static_cast<uint32_t>(time), intervalMs);
    for (rcleanSignal35& signal : signals) {
        if (signal.flags == nullptr) continue;
        const bool knownCode = signal.systemCode >= 0 && signal.systemCode < static_cast<int32_t>(kSlipSystem35.size());
        const int32_t system = knownCode ? kSlipSystem35[signal.systemCode] : 0;
        const int32_t base = kSlipSatelliteBase35[system];
        if (signal.satellite < base || signal.satellite - base > kSlipIndexMax35) continue;
        if (signal.band < 0 || signal.band > kSlipIndexMax35) continue;
        if (signal.track < 0 || signal.track > kSlipIndexMax35) continue;
        const auto satellite = static_cast<int32_t>(signal.satellite - base);
        const auto band = static_cast<int32_t>(signal.band);
        const auto track = static_cast<int32_t>(signal.track);

        rcleanGrow(state, system, satellite, band, track);
        rclean_slip_t& entry = state.slip[system][satellite][band][track];
        const auto count = static_cast<int32_t>(signal.count);
        if (entry.last == -1) entry.last = count;
        if (entry.last != count || (*signal.flags & kRec35SlipFlag) != 0) {
            entry.last = count;
            entry.pending = 1;
        }
        if (keep && entry.pending != 0) {
            entry.pending = 0;
            *signal.flags |= kRec35SlipFlag;
        }
    }
    return keep;
}

bool rcleanPosition29(rcleanState& state, const Rec29& rec, int32_t intervalMs) {
    return rcleanKeepEpoch(state, rec.time, intervalMs);
}

bool rcleanPosition11(rcleanState& state, const Rec11& rec, int32_t intervalMs) {
    // Record 11 time is read as signed: a value past 2^31 falls below zero and is kept.
    return rcleanKeepEpoch(state, static_cast<int32_t>(rec.time), intervalMs);
}

bool rcleanPosition35(rcleanState& state, int64_t time, int32_t intervalMs) {
    return rcleanKeepEpoch(state, static_cast<uint32_t>(time), intervalMs);
}

}  // namespace nvb
