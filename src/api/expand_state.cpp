#include <nvbdll/nvbdll.h>

#include "common/rclean.h"
#include "external/su/codec_histories.h"
#include "rec35/rec35_assembly.h"
#include "records/record_slots.h"
#include "stream/frame_assembler.h"
#include "stream/huffman.h"

#include <array>
#include <cstring>
#include <new>

namespace nvb {

namespace {

void* allocateCleared(std::size_t size) {
    void* block = ::operator new(size, std::nothrow);
    if (block != nullptr) std::memset(block, 0, size);
    return block;
}

void freeStructures(nvb_record_table_t& table) {
    void** slots = slotsOf(table);
    ::operator delete(slots[0]);
    freeRec35Content(static_cast<rec35_content_t*>(slots[kRec35ContentSlot]));
    for (std::size_t slot = 1; slot < kSlotCount; ++slot) {
        if (slot != kRec35ContentSlot) ::operator delete(slots[slot]);
    }
    std::memset(&table, 0, sizeof table);
}

// Slot order, except that the record 35 content comes second.
bool allocateStructures(nvb_record_table_t& table) {
    void** slots = slotsOf(table);
    std::array<std::size_t, kSlotCount> order{};
    order[0] = 0;
    order[1] = kRec35ContentSlot;
    for (std::size_t slot = 1, next = 2; slot < kSlotCount; ++slot) {
        if (slot != kRec35ContentSlot) order[next++] = slot;
    }
    for (const std::size_t slot : order) {
        slots[slot] = allocateCleared(kSlotSizes[slot]);
        if (slots[slot] == nullptr) {
            freeStructures(table);
            return false;
        }
    }
    return true;
}

nvb_expand_t* createExpandState() {
    auto* state = static_cast<nvb_expand_t*>(allocateCleared(sizeof(nvb_expand_t)));
    if (state == nullptr) return nullptr;
    nvbdll_initNVBExpandState(state);
    if (!allocateStructures(state->records)) {
        rcleanFree(state->rclean);
        ::operator delete(state);
        return nullptr;
    }
    return state;
}

}  // namespace

}  // namespace nvb

using namespace nvb;

extern "C" {

NVBDLL_API nvb_expand_t* nvbdll_GetNVBStateHandle(void) { return createExpandState(); }

NVBDLL_API nvb_expand_t* nvbdll_newExpandState(void) {
    nvbdll_initNVBLib();
    return createExpandState();
}

NVBDLL_API nvb_expand_t* nvbdll_FreeNVBStateHandle(nvb_expand_t* state) {
    if (state == nullptr) return nullptr;
    freeRec35Assembly(state->rec35Assembly);
    freeStructures(state->records);
    rcleanFree(state->rclean);
    ::operator delete(state);
    return nullptr;
}

NVBDLL_API void nvbdll_freeExpandState(nvb_expand_t* state) {
    if (state == nullptr) return;
    // What the library allocated inside the state is the library's to release.
    freeRec35Assembly(state->rec35Assembly);
    rcleanFree(state->rclean);
    freeHostOwnedSlots(state->records);
    ::operator delete(state);
}

NVBDLL_API bool nvbdll_initNVBExpandState(nvb_expand_t* state) {
    if (state == nullptr) return false;
    std::memset(&state->records, 0, sizeof state->records);
    std::memset(&state->frameAssembly, 0, sizeof state->frameAssembly);
    std::memset(&state->plainFrame, 0, sizeof state->plainFrame);
    std::memset(&state->frame, 0, sizeof state->frame);
    resetRec35Assembly(state->rec35Assembly);
    resetFrameAssembly(state->frameAssembly);
    resetObsHistory(state->firstGenHistory);
    resetCompactHistories(*state);
    std::memset(state->trackingSlots, 0, sizeof state->trackingSlots);
    std::memset(state->rec17Work, 0, sizeof state->rec17Work);
    std::memset(state->previousEpochs, 0, sizeof state->previousEpochs);
    state->dopplerControl = 3;
    rcleanFree(state->rclean);
    const bool result = rcleanInit(state->rclean);
    state->positionInterval = 0;
    state->measurementInterval = 0;
    state->positionCount = 0;
    state->measurementCount = 0;
    state->blockBytes = 0;
    state->blockReadPos = 0;
    state->inputFill = 0;
    state->inputReplayPos = 0;
    state->recordOffset = 0;
    state->nextRecordOffset = 0;
    state->convertRec35Sub16 = 0;
    state->convertAllObservables = 0;
    state->keepAllSvBlocks = 0;
    state->headerCount = 0;
    state->descramble = 0;
    state->byteMode = 1;
    state->detectPending = 1;
    state->headerAccepted = 1;
    state->firstRec30 = 1;
    state->mapSystem5To7 = 1;
    state->mapSystem7To10 = 1;
    state->convertRec35Sub2 = 1;
    state->convertRec35Sub9 = 1;
    state->convertRec35Sub19 = 1;
    return result;
}

NVBDLL_API void nvbdll_resetNVBExpandState(nvb_expand_t* state) {
    if (state == nullptr) return;
    // The Doppler predecessors go too: nothing is rebuilt across a jump in the input.
    std::memset(state->rec17Work, 0, sizeof state->rec17Work);
    std::memset(state->previousEpochs, 0, sizeof state->previousEpochs);
    resetCompactHistories(*state);
    restartRec35Assembly(state->rec35Assembly);
}

}  // extern "C"
