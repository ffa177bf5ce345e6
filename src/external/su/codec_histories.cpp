#include "external/su/codec_histories.h"

#include <cstring>

namespace nvb {

bool resetEpochHistory(epoch_history_t& history) {
    std::memset(&history, 0, sizeof history);
    return true;
}

void resetPositionHistory(position_history_t& history) { std::memset(&history, 0, sizeof history); }

void resetSolutionHistory(solution_history_t& history) { std::memset(&history, 0, sizeof history); }

void resetObsHistory(obs_history_t& history) { std::memset(&history, 0, sizeof history); }

// Slot 63 takes no part in the cache, and the reset leaves its row alone.
void resetSubframeCache(subframe_cache_t& cache) {
    for (int slot = 0; slot < 63; ++slot) std::memset(&cache.slots[slot], 0, sizeof cache.slots[slot]);
    cache.week = 0;
    cache.time = 0;
    cache.first = 1;
}

void resetListState(list_state_t& state) { std::memset(&state, 0, sizeof state); }

}  // namespace nvb
