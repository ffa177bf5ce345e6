#include <nvbdll/compact_steps.h>

#include "external/su/delta_epoch.h"
#include "external/su/list_codec.h"
#include "external/su/obs_codec.h"
#include "external/su/position_codec.h"
#include "external/su/reference_epoch.h"
#include "external/su/solution_codec.h"
#include "external/su/subframe_cache.h"

namespace {

// Every single step clears the host's status byte, which may be null, and does nothing
// without a state; the step's own status is both written there and returned.
template <typename Step>
std::uint8_t runStep(nvb_expand_t* state, std::uint8_t* status, Step step) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = status != nullptr ? *status : fallback;
    out = 0;
    if (state == nullptr) return 0;
    return step(*state, out);
}

}  // namespace

extern "C" {

NVBDLL_API uint8_t nvbdll_processType37(nvb_expand_t* state, uint8_t* status, uint8_t framed, uint8_t isType36) {
    return runStep(state, status, [=](nvb_expand_t& s, std::uint8_t& out) {
        return nvb::processType37(s, out, framed != 0, isType36 != 0);
    });
}

NVBDLL_API uint8_t nvbdll_processType38(nvb_expand_t* state, uint8_t* status) {
    return runStep(state, status, nvb::processType38);
}

NVBDLL_API uint8_t nvbdll_processType41(nvb_expand_t* state, uint8_t* status) {
    return runStep(state, status, nvb::processType41);
}

NVBDLL_API uint8_t nvbdll_processType54(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    return runStep(state, status, [=](nvb_expand_t& s, std::uint8_t& out) { return nvb::processType54(s, out, framed != 0); });
}

NVBDLL_API uint8_t nvbdll_processType55(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    return runStep(state, status, [=](nvb_expand_t& s, std::uint8_t& out) { return nvb::processType55(s, out, framed != 0); });
}

NVBDLL_API uint8_t nvbdll_processType56(nvb_expand_t* state, uint8_t* status) {
    return runStep(state, status, nvb::processType56);
}

NVBDLL_API uint8_t nvbdll_processType57(nvb_expand_t* state, uint8_t* status) {
    return runStep(state, status, nvb::processType57);
}

NVBDLL_API uint8_t nvbdll_processType66_74(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    return runStep(state, status,
                   [=](nvb_expand_t& s, std::uint8_t& out) { return nvb::processType66_74(s, out, framed != 0); });
}

NVBDLL_API uint8_t nvbdll_processType67_75(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    return runStep(state, status,
                   [=](nvb_expand_t& s, std::uint8_t& out) { return nvb::processType67_75(s, out, framed != 0); });
}

NVBDLL_API uint8_t nvbdll_processType68_76(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    return runStep(state, status,
                   [=](nvb_expand_t& s, std::uint8_t& out) { return nvb::processType68_76(s, out, framed != 0); });
}

NVBDLL_API uint8_t nvbdll_processType69_77(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    return runStep(state, status,
                   [=](nvb_expand_t& s, std::uint8_t& out) { return nvb::processType69_77(s, out, framed != 0); });
}

NVBDLL_API uint8_t nvbdll_processType84(nvb_expand_t* state, uint8_t* status) {
    return runStep(state, status, nvb::processType84);
}

NVBDLL_API uint8_t nvbdll_processType85(nvb_expand_t* state, uint8_t* status) {
    return runStep(state, status, nvb::processType84);
}

}  // extern "C"
