// Property: any bytes standing in the frame buffer, expanded by any single step or by the
// dispatch as any compact type, or read by the dispatch as a plain type whose reader counts
// or inflates what the body says, never read or write outside a buffer, nor does taking
// their DAT form; a refused record leaves the state able to read the next one, and a
// subframe or list record that a single step refuses leaves its history byte-identical.
#include <nvbdll/nvbdll.h>

#include "pipeline/serialisation.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

void standFrame(nvb_expand_t* state, const std::uint8_t* data, std::size_t size, std::uint8_t type) {
    std::memset(&state->frame, 0, sizeof state->frame);
    const std::size_t length = size < sizeof state->frame.data ? size : sizeof state->frame.data;
    std::memcpy(state->frame.data, data, length);
    if (length > 2) state->frame.data[2] = type;
    state->frame.length = static_cast<std::uint16_t>(length);
    state->currentType = type;
}

constexpr std::uint8_t kCompactTypes[] = {36, 37, 38, 39, 54, 55, 56, 57, 66, 67, 68, 69, 74, 75, 76, 77};
constexpr std::uint8_t kPlainTypes[] = {31, 32, 33, 34, 40, 98, 99};
constexpr std::uint8_t kTableTypes[] = {41, 84, 85, 86};

// Runs the step of a subframe or list record and ends the process when a refusal has
// touched the history.
void stepWithTable(nvb_expand_t* state, std::uint8_t type) {
    static const auto cache = std::make_unique<subframe_cache_t>();
    static list_state_t list;
    std::memcpy(cache.get(), &state->subframeCache, sizeof *cache);
    list = state->listState;
    std::uint8_t status = 0;
    if (type == 41) {
        nvbdll_processType41(state, &status);
    } else {
        nvbdll_processType84(state, &status);
    }
    if (status != 0 && (std::memcmp(cache.get(), &state->subframeCache, sizeof *cache) != 0 ||
                        std::memcmp(&list, &state->listState, sizeof list) != 0)) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static nvb_expand_t* state = [] {
        nvbdll_initNVBLib();
        return nvbdll_GetNVBStateHandle();
    }();
    if (size < 2) return 0;
    // The first byte picks the type and the way in, the rest is the record; the state
    // carries its history from one input to the next, as a reader's does. Bits 4 and 5
    // send the dispatch a plain type, both together a subframe or list type; bit 6 sends a
    // single step one of those.
    const bool throughDispatch = (data[0] & 0x80) != 0;
    const bool table = throughDispatch ? (data[0] & 0x30) == 0x30 : (data[0] & 0x40) != 0;
    const bool plain = throughDispatch && !table && (data[0] & 0x30) != 0;
    const std::uint8_t type = table   ? kTableTypes[(throughDispatch ? data[0] : data[0] >> 1) & 3]
                              : plain ? kPlainTypes[(data[0] & 0x0F) % sizeof kPlainTypes]
                                      : kCompactTypes[data[0] % sizeof kCompactTypes];
    standFrame(state, data + 1, size - 1, type);
    std::uint8_t status = 0;
    if (throughDispatch) {
        state->blockLevel = (data[0] & 0x40) != 0 ? 7 : 1;
        std::uint16_t recordType = 0;
        const std::uint32_t length = nvbdll_processNVBRecord(state, 0, &recordType, &status);
        static std::vector<std::uint8_t> dat(1 << 17);
        if (length > 0 && status == 0) {
            nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(recordType), dat.data());
            nvb::wholeDatForm(*state, static_cast<std::int16_t>(recordType), static_cast<std::uint16_t>(length),
                              dat.data(), dat.size());
        }
        return 0;
    }
    if (table) {
        stepWithTable(state, type);
        return 0;
    }
    const std::uint8_t framed = data[0] & 1;
    switch (type) {
        case 36: case 37: nvbdll_processType37(state, &status, framed, type == 36); break;
        case 38: nvbdll_processType38(state, &status); break;
        case 54: nvbdll_processType54(state, &status, framed); break;
        case 55: nvbdll_processType55(state, &status, framed); break;
        case 56: nvbdll_processType56(state, &status); break;
        case 57: nvbdll_processType57(state, &status); break;
        case 66: case 74: nvbdll_processType66_74(state, &status, framed); break;
        case 67: case 75: nvbdll_processType67_75(state, &status, framed); break;
        case 68: case 76: nvbdll_processType68_76(state, &status, framed); break;
        default: nvbdll_processType69_77(state, &status, framed); break;
    }
    return 0;
}
