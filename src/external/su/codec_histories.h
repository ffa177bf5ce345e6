#ifndef NVB_SU_CODEC_HISTORIES_H
#define NVB_SU_CODEC_HISTORIES_H

#include <nvbdll/codec_state.h>

namespace nvb {

// Each compact family keeps its history in step on both sides; a reset returns it to the
// state of a new stream, in which the next reference form starts over.
bool resetEpochHistory(epoch_history_t& history);
void resetPositionHistory(position_history_t& history);
void resetSolutionHistory(solution_history_t& history);
void resetObsHistory(obs_history_t& history);
void resetSubframeCache(subframe_cache_t& cache);
void resetListState(list_state_t& state);

// The histories that a reset of either state clears, in their order; the expand state's
// first-generation record 17 history is left to the first record 30 of a new reference.
template <typename State>
void resetCompactHistories(State& state) {
    resetPositionHistory(state.positionHistory);
    resetObsHistory(state.secondGenHistory);
    resetSubframeCache(state.subframeCache);
    resetEpochHistory(state.epochHistory);
    resetSolutionHistory(state.solutionHistory);
    resetListState(state.listState);
}

}  // namespace nvb

#endif
