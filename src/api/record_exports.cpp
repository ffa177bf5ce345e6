#include <nvbdll/nvbdll.h>

#include "pipeline/conversions.h"
#include "records/auxiliary_records.h"
#include "records/field_codec.h"
#include "records/measurement_records.h"
#include "records/navigation_records.h"
#include "records/position_records.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"

using namespace nvb;

namespace {

// The host hands a frame buffer of the state's layout: 5120 bytes then the length.
const nvb_frame_t& asFrame(const uint8_t* frame) {
    return *reinterpret_cast<const nvb_frame_t*>(frame);
}

constexpr std::size_t kBodyOffset = 4;

}  // namespace

extern "C" {

NVBDLL_API uint16_t nvbdll_readRec11Buffer(uint8_t* frame, nvb_expand_t* state) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec11(asFrame(frame), *state);
}

NVBDLL_API uint16_t nvbdll_readRec17Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t* aux) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec17(asFrame(frame), *state, reinterpret_cast<Rec17*>(aux));
}

NVBDLL_API uint16_t nvbdll_readRec27Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t* previous, uint32_t recordType,
                                           uint8_t dopplerControl, uint8_t mapSystem5To7, uint8_t mapSystem7To10,
                                           uint8_t keepAllSvBlocks) {
    (void)recordType;
    if (frame == nullptr || state == nullptr) return 0;
    const Rec27ReadOptions options{dopplerControl, mapSystem5To7 != 0, mapSystem7To10 != 0, keepAllSvBlocks != 0};
    return readRec27(frameBytes(asFrame(frame)).subspan(kBodyOffset), *state, reinterpret_cast<Rec27*>(previous),
                     options);
}

NVBDLL_API uint16_t nvbdll_readRec27Stream(uint8_t* body, nvb_expand_t* state, uint8_t* previous, uint32_t recordType,
                                           uint8_t dopplerControl, uint8_t mapSystem5To7, uint8_t mapSystem7To10) {
    (void)recordType;
    if (body == nullptr || state == nullptr) return 0;
    const Rec27ReadOptions options{dopplerControl, mapSystem5To7 != 0, mapSystem7To10 != 0, true};
    return readRec27(ByteView(body, NVB_FRAME_CAPACITY - kBodyOffset), *state, reinterpret_cast<Rec27*>(previous),
                     options);
}

NVBDLL_API uint16_t nvbdll_readRec29Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7,
                                           uint8_t mapSystem7To10) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec29(asFrame(frame), *state, mapSystem5To7 != 0, mapSystem7To10 != 0);
}

NVBDLL_API uint16_t nvbdll_readRec19Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t* aux) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec19(asFrame(frame), *state, reinterpret_cast<TrackingSlots*>(aux));
}

NVBDLL_API uint16_t nvbdll_readRec26Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec26(asFrame(frame), *state, mapSystem5To7 != 0);
}

NVBDLL_API uint16_t nvbdll_readRec28Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec28(asFrame(frame), *state, mapSystem5To7 != 0);
}

// The plain readers that take nothing but a frame and the state.
#define NVB_PLAIN_READER(type)                                                              \
    NVBDLL_API uint16_t nvbdll_readRec##type##Buffer(uint8_t* frame, nvb_expand_t* state) { \
        if (frame == nullptr || state == nullptr) return 0;                                 \
        return readRec##type(asFrame(frame), *state);                                       \
    }
NVB_PLAIN_READER(12)
NVB_PLAIN_READER(15)
NVB_PLAIN_READER(21)
NVB_PLAIN_READER(25)
NVB_PLAIN_READER(30)
NVB_PLAIN_READER(31)
NVB_PLAIN_READER(32)
NVB_PLAIN_READER(40)
NVB_PLAIN_READER(98)
NVB_PLAIN_READER(99)
#undef NVB_PLAIN_READER

NVBDLL_API uint16_t nvbdll_readRec33Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7,
                                           uint8_t mapSystem7To10) {
    if (frame == nullptr || state == nullptr) return 0;
    return readRec33(asFrame(frame), *state, mapSystem5To7 != 0, mapSystem7To10 != 0);
}

NVBDLL_API uint16_t nvbdll_convertRec29toRec11(uint8_t* datHeader, Rec29* in, Rec11* out) {
    return convertRec29toRec11(datHeader, in, out);
}

NVBDLL_API uint16_t nvbdll_convertRec27toRec17(uint8_t* datHeader, Rec27* in, Rec17* out, uint8_t mode) {
    return convertRec27toRec17(datHeader, in, out, mode);
}

NVBDLL_API uint16_t nvbdll_convertRec17toRec27(uint16_t week, uint8_t* datHeader, Rec17* in, Rec27* out) {
    return convertRec17toRec27(week, datHeader, in, out);
}

}  // extern "C"
