#include <nvbdll/nvbdll.h>

#include "common/status_text.h"
#include "support/wire.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <vector>

namespace {

TEST(Lifecycle, NewHandleHasTheDefaults) {
    nvbdll_initNVBLib();
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    ASSERT_NE(state, nullptr);
    const std::vector<int> defaults = {state->dopplerControl,    state->byteMode,          state->detectPending,
                                       state->headerAccepted,    state->firstRec30,        state->mapSystem5To7,
                                       state->mapSystem7To10,    state->convertRec35Sub2,  state->convertRec35Sub9,
                                       state->convertRec35Sub16, state->convertRec35Sub19, state->keepAllSvBlocks,
                                       state->blockLevel,        nvbtest::copyOf(state->rclean.interval),
                                       state->rec35Assembly.schema_swallow};
    EXPECT_EQ(defaults, (std::vector<int>{3, 1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 0, 0, -1, 1}));
    // Every structure slot is allocated and cleared.
    void* const* slots = reinterpret_cast<void* const*>(&state->records);
    for (int slot = 0; slot < 38; ++slot) EXPECT_NE(slots[slot], nullptr) << "slot " << slot;
    EXPECT_EQ(state->records.rec27->nSv, 0);
    nvbdll_FreeNVBStateHandle(state);
}

TEST(Lifecycle, InitClearsTheTableOfStructures) {
    nvb_expand_t* state = nvbdll_newExpandState();
    ASSERT_NE(state, nullptr);
    nvb_record_table_t saved;
    std::memcpy(&saved, &state->records, sizeof saved);
    EXPECT_TRUE(nvbdll_initNVBExpandState(state));
    EXPECT_EQ(state->records.rec27, nullptr);
    std::memcpy(&state->records, &saved, sizeof saved);  // the host restores its allocations
    nvbdll_FreeNVBStateHandle(state);
}

TEST(Lifecycle, ResetLeavesHeaderAndBlockBuffersAlone) {
    nvbdll_initNVBLib();
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    state->headerAccepted = 0;
    state->blockInput[7] = 0x5A;
    state->blockBytes = 33;
    state->detectPending = 0;
    state->epochHistory.previous.nSv = 9;
    nvbdll_resetNVBExpandState(state);
    EXPECT_EQ(state->headerAccepted, 0);
    EXPECT_EQ(state->blockInput[7], 0x5A);
    EXPECT_EQ(nvbtest::copyOf(state->blockBytes), 33u);
    EXPECT_EQ(state->detectPending, 0);  // a reset does not bring detection back
    EXPECT_EQ(state->epochHistory.previous.nSv, 0);
    nvbdll_FreeNVBStateHandle(state);
}

TEST(Lifecycle, FreeingANullHandleDoesNothingAndAHostBuiltStateGoesByTheHostFreeFunction) {
    EXPECT_EQ(nvbdll_FreeNVBStateHandle(nullptr), nullptr);
    nvbdll_freeExpandState(nullptr);
    // A host that builds its own state allocates the 19 structures with new.
    auto* state = new nvb_expand_t();
    state->records.datHeader = static_cast<std::uint8_t*>(::operator new(4));
    state->records.rec27 = new Rec27();
    nvbdll_freeExpandState(state);  // reaches only those slots and the state: ASan would see a leak or mismatch
}

TEST(Lifecycle, LibraryCanBeInitialisedAgainWhileAStateIsReading) {
    nvbdll_initNVBLib();
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    std::uint8_t status = 0;
    std::uint8_t more = 0;
    for (int i = 0; i < 20; ++i) nvbdll_getNVBRecordByByte(state, static_cast<std::uint8_t>(i * 37), &status, 1, &more);
    nvbdll_initNVBLib();
    for (int i = 0; i < 20; ++i) nvbdll_getNVBRecordByByte(state, static_cast<std::uint8_t>(i * 41), &status, 1, &more);
    nvbdll_freeNVBLib();
    for (int i = 0; i < 20; ++i) nvbdll_getNVBRecordByByte(state, static_cast<std::uint8_t>(i * 43), &status, 1, &more);
    nvbdll_initNVBLib();
    nvbdll_FreeNVBStateHandle(state);
}

}  // namespace

TEST(StatusText, EveryStatusOfTheInterfaceHasATextAndOthersNone) {
    const int used[] = {0, 1, 2, 3, 5, 6, 7, 8, 9, 10, 13, 14, 15, 16, 17, 18, 19, 20, 21, 23, 24, 25};
    for (int status = 0; status < 256; ++status) {
        const bool isUsed = std::find(std::begin(used), std::end(used), status) != std::end(used);
        EXPECT_EQ(nvb::statusText(static_cast<std::uint8_t>(status)) != nullptr, isUsed) << status;
    }
}
