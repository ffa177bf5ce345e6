#include <nvbdll/compact_steps.h>

#include "external/su/delta_epoch.h"
#include "external/su/reference_epoch.h"

extern "C" {

NVBDLL_API uint8_t nvbdll_processType37(nvb_expand_t* state, uint8_t* status, uint8_t framed, uint8_t isType36) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = status != nullptr ? *status : fallback;
    out = 0;
    if (state == nullptr) return 0;
    return nvb::processType37(*state, out, framed != 0, isType36 != 0);
}

NVBDLL_API uint8_t nvbdll_processType38(nvb_expand_t* state, uint8_t* status) {
    std::uint8_t fallback = 0;
    std::uint8_t& out = status != nullptr ? *status : fallback;
    out = 0;
    if (state == nullptr) return 0;
    return nvb::processType38(*state, out);
}

}  // extern "C"
