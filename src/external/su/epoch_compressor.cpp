#include "external/su/epoch_compressor.h"

#include "external/su/delta_epoch.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"

#include <cstring>

namespace nvb {

namespace {

std::uint16_t writeReference(const std::uint8_t* plain, std::size_t plainCapacity, std::uint8_t* out,
                             epoch_history_t& history, std::uint32_t& lastReferenceTime, std::uint32_t timeMs) {
    const std::uint16_t length = compressReferenceEpoch(out, kEpochOutCapacity, history, plain, plainCapacity);
    if (length != 0) lastReferenceTime = timeMs;
    return length;
}

}  // namespace

std::uint16_t compressEpoch(const std::uint8_t* plain, std::size_t plainCapacity, std::uint8_t* out,
                            epoch_history_t& history, std::uint32_t& lastReferenceTime, std::uint32_t timeMs,
                            std::uint8_t keepDoppler, std::uint8_t usePredicted, std::uint8_t forceLong,
                            std::uint8_t forceReference) {
    const bool longForm = keepDoppler != 0 || usePredicted != 0 || forceLong != 0;
    if (referenceDue(timeMs, lastReferenceTime) || forceReference == 1) {
        return writeReference(plain, plainCapacity, out, history, lastReferenceTime, timeMs);
    }
    // An epoch on a whole 100 ms is never predicted: it anchors the lossy ones around it.
    if (usePredicted != 0 && timeMs % 100 != 0 &&
        compressPredictedEpoch(plain, plainCapacity, out, kEpochOutCapacity, history) == kPredictedWritten) {
        return epochFrameLength(out);
    }
    if (compressDeltaEpoch(plain, plainCapacity, out, kEpochOutCapacity, history, longForm)) return epochFrameLength(out);
    // A delta longer than a frame, or a record that is no epoch: the reference form always fits.
    return writeReference(plain, plainCapacity, out, history, lastReferenceTime, timeMs);
}

std::uint16_t compressEpochFrame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    std::memset(&out, 0, sizeof out);
    const std::uint32_t timeMs = readBigEndian32(plain.data + 7);
    // The state is byte-packed: its 32-bit field is read and written by value.
    std::uint32_t lastReferenceTime = state.lastEpochReferenceTime;
    out.length = compressEpoch(plain.data, sizeof plain.data, out.data, state.epochHistory, lastReferenceTime, timeMs,
                               state.epochKeepDoppler, state.epochUsePredicted, state.epochForceLong,
                               state.epochForceReference);
    state.lastEpochReferenceTime = lastReferenceTime;
    state.epochForceReference = 0;
    return out.length;
}

}  // namespace nvb
