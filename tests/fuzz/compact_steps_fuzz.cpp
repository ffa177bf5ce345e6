// Property: any bytes standing in the frame buffer, expanded by any single step or by the
// dispatch as any compact type, or read by the dispatch as a plain type whose reader counts
// or inflates what the body says, never read or write outside a buffer, nor does taking
// their DAT form; a refused record leaves every compact history byte for byte as it was,
// and the state reads the next one.
#include <nvbdll/nvbdll.h>

#include "pipeline/serialisation.h"
#include "support/host.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr std::uint8_t kCompactTypes[] = {36, 37, 38, 39, 54, 55, 56, 57, 66, 67, 68, 69, 74, 75, 76, 77};
constexpr std::uint8_t kPlainTypes[] = {31, 32, 33, 34, 40, 98, 99};
constexpr std::uint8_t kTableTypes[] = {41, 84, 85, 86};

// The histories lie together in the state, from the first generation's to the list state.
constexpr std::size_t kHistoriesBegin = offsetof(nvb_expand_t, firstGenHistory);
constexpr std::size_t kHistoriesEnd = offsetof(nvb_expand_t, trackingSlots);

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const nvbtest::Handle handle;
    nvb_expand_t* state = handle.get();
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
    nvbtest::Bytes frame(data + 1, data + 1 + std::min(size - 1, sizeof state->frame.data));
    if (frame.size() > 2) frame[2] = type;
    nvbtest::standFrame(state, frame);
    state->currentType = type;
    static std::vector<std::uint8_t> before(kHistoriesEnd - kHistoriesBegin);
    const auto* histories = reinterpret_cast<const std::uint8_t*>(state) + kHistoriesBegin;
    std::memcpy(before.data(), histories, before.size());
    std::uint8_t status = 0;
    bool refused = false;
    if (throughDispatch) {
        state->blockLevel = (data[0] & 0x40) != 0 ? 7 : 1;
        std::uint16_t recordType = 0;
        const std::uint32_t length = nvbdll_processNVBRecord(state, 0, &recordType, &status);
        refused = status == NVB_STATUS_EXPANSION;
        // Retrieval, and the whole DAT form, write no further than the length the dispatch
        // reported.
        if (length > 0 && status == 0) {
            auto dat = std::make_unique<std::uint8_t[]>(length);
            nvbdll_retrieveDATRecord(state, static_cast<std::int16_t>(recordType), dat.get());
            nvb::wholeDatForm(*state, static_cast<std::int16_t>(recordType), static_cast<std::uint16_t>(length),
                              dat.get(), length);
        }
    } else {
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
            case 41: nvbdll_processType41(state, &status); break;
            case 84: case 85: case 86: nvbdll_processType84(state, &status); break;
            default: nvbdll_processType69_77(state, &status, framed); break;
        }
        refused = status != 0;
    }
    // A predicted epoch reports a code too wide for its last field and is delivered all the same.
    if (type == 39 && state->plainFrame.length != 0) refused = false;
    if (refused && std::memcmp(before.data(), histories, before.size()) != 0) {
        std::fprintf(stderr, "a refused type %d record moved a history (status %d)\n", type, status);
        std::abort();
    }
    return 0;
}
