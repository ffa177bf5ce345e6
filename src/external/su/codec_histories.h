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

}  // namespace nvb

#endif
