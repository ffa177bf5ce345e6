#include <nvbdll/compact_steps.h>

#include "external/su/obs_codec.h"
#include "external/su/position_codec.h"
#include "external/su/solution_codec.h"

namespace {

// A status pointer the host left null still gets a place to land.
std::uint8_t& statusOf(std::uint8_t* status, std::uint8_t& fallback) {
    std::uint8_t& out = status != nullptr ? *status : fallback;
    out = 0;
    return out;
}

}  // namespace

extern "C" {

NVBDLL_API uint8_t nvbdll_processType54(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType54(*state, out, framed != 0);
}

NVBDLL_API uint8_t nvbdll_processType55(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType55(*state, out, framed != 0);
}

NVBDLL_API uint8_t nvbdll_processType56(nvb_expand_t* state, uint8_t* status) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType56(*state, out);
}

NVBDLL_API uint8_t nvbdll_processType57(nvb_expand_t* state, uint8_t* status) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType57(*state, out);
}

NVBDLL_API uint8_t nvbdll_processType66_74(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType66_74(*state, out, framed != 0);
}

NVBDLL_API uint8_t nvbdll_processType67_75(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType67_75(*state, out, framed != 0);
}

NVBDLL_API uint8_t nvbdll_processType68_76(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType68_76(*state, out, framed != 0);
}

NVBDLL_API uint8_t nvbdll_processType69_77(nvb_expand_t* state, uint8_t* status, uint8_t framed) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = statusOf(status, fallback);
    if (state == nullptr) return 0;
    return nvb::processType69_77(*state, out, framed != 0);
}

}  // extern "C"
