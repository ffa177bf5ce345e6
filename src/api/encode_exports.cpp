#include <nvbdll/nvbdll.h>

#include "pipeline/encoding.h"
#include "records/record_slots.h"

#include <new>

extern "C" {

NVBDLL_API nvb_encode_t* nvbdll_newEncodeState(void) { return nullptr; }

NVBDLL_API int nvbdll_initDATEncodeState(nvb_encode_t* state) {
    if (state != nullptr) nvb::initEncodeState(*state);
    return 0;
}

NVBDLL_API void nvbdll_resetDATEncodeState(nvb_encode_t* state) {
    if (state != nullptr) nvb::resetEncodeState(*state);
}

NVBDLL_API uint32_t nvbdll_processDATRecord(nvb_encode_t* state, uint8_t* datRecord, uint8_t* status) {
    std::uint8_t fallback = 0;
    if (state == nullptr) return 0;
    return nvb::processDatRecord(*state, datRecord, status != nullptr ? *status : fallback);
}

NVBDLL_API uint32_t nvbdll_finalizeDATProcessing(nvb_encode_t* state) {
    if (state == nullptr) return 0;
    return nvb::finalizeDatProcessing(*state);
}

NVBDLL_API void nvbdll_freeEncodeState(nvb_encode_t* state) {
    if (state == nullptr) return;
    nvb::releaseEncodeInternals(*state);
    nvb::freeHostOwnedSlots(state->records);
    ::operator delete(state);
}

}  // extern "C"
