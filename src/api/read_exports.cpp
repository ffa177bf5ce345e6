#include <nvbdll/nvbdll.h>

#include "pipeline/expansion.h"
#include "pipeline/record_source.h"
#include "pipeline/serialisation.h"
#include "records/opaque_records.h"

#include <cstring>

using namespace nvb;

namespace {

// A status pointer the host left null still gets a place to land.
std::uint8_t& statusOf(std::uint8_t* status, std::uint8_t& fallback) { return status != nullptr ? *status : fallback; }

std::uint32_t processDiscardingType(nvb_expand_t* state, std::uint8_t* status) {
    std::uint16_t recordType = 0;
    std::uint8_t fallback = 0;
    if (state == nullptr) return 0;
    return processRecord(*state, recordType, statusOf(status, fallback));
}

}  // namespace

extern "C" {

NVBDLL_API int32_t nvbdll_getNVBRecord(nvb_expand_t* state, FILE* file, uint8_t* status) {
    std::uint8_t fallback = 0;
    if (state == nullptr) return -1;
    return readFileRecord(*state, file, statusOf(status, fallback), true);
}

NVBDLL_API int32_t nvbdll_getNVARecord(nvb_expand_t* state, FILE* file, uint8_t* status) {
    std::uint8_t fallback = 0;
    if (state == nullptr) return -1;
    return readFileRecord(*state, file, statusOf(status, fallback), false);
}

NVBDLL_API int32_t nvbdll_getNVBRecordByByte(nvb_expand_t* state, uint8_t byte, uint8_t* status, uint8_t haveByte,
                                             uint8_t* more) {
    std::uint8_t statusFallback = 0;
    std::uint8_t moreFallback = 0;
    if (state == nullptr) return -1;
    return getNextRecord(*state, haveByte != 0, byte, more != nullptr ? *more : moreFallback,
                         statusOf(status, statusFallback), true);
}

NVBDLL_API int32_t nvbdll_getNVARecordByByte(nvb_expand_t* state, uint8_t byte, uint8_t* status) {
    std::uint8_t statusFallback = 0;
    std::uint8_t more = 0;
    if (state == nullptr) return -1;
    state->detectPending = 0;
    return getNextRecord(*state, true, byte, more, statusOf(status, statusFallback), false);
}

NVBDLL_API uint32_t nvbdll_processNVBRecord(nvb_expand_t* state, uint32_t unused, uint16_t* recordType,
                                            uint8_t* status) {
    (void)unused;
    std::uint16_t typeFallback = 0;
    std::uint8_t statusFallback = 0;
    if (state == nullptr) return 0;
    return processRecord(*state, recordType != nullptr ? *recordType : typeFallback, statusOf(status, statusFallback));
}

NVBDLL_API bool nvbdll_retrieveDATRecord(nvb_expand_t* state, int16_t recordType, uint8_t* out) {
    if (state == nullptr) return false;
    return retrieveDATRecord(*state, recordType, out);
}

#define NVB_CONVERT_ALIAS(number)                                                                    \
    NVBDLL_API uint32_t nvbdll_convertRec##number(nvb_expand_t* state, uint8_t unused, uint8_t* status) { \
        (void)unused;                                                                                \
        return processDiscardingType(state, status);                                                 \
    }
NVB_CONVERT_ALIAS(11)
NVB_CONVERT_ALIAS(12)
NVB_CONVERT_ALIAS(15)
NVB_CONVERT_ALIAS(17)
NVB_CONVERT_ALIAS(19)
NVB_CONVERT_ALIAS(21)
NVB_CONVERT_ALIAS(25)
NVB_CONVERT_ALIAS(26)
NVB_CONVERT_ALIAS(27)
NVB_CONVERT_ALIAS(28)
NVB_CONVERT_ALIAS(29)
NVB_CONVERT_ALIAS(40)
#undef NVB_CONVERT_ALIAS

NVBDLL_API bool nvbdll_processTypeXX(nvb_expand_t* state) {
    if (state != nullptr) std::memcpy(&state->plainFrame, &state->frame, sizeof state->frame);
    return false;
}

NVBDLL_API uint16_t nvbdll_readRec16Buffer(uint8_t* frame, nvb_expand_t* state) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec16(*reinterpret_cast<const nvb_frame_t*>(frame), *state);
}

}  // extern "C"
