#include "external/su/compact_compressors.h"

#include "common/diagnostics.h"
#include "external/su/compact_frame.h"
#include "external/su/obs_codec.h"
#include "external/su/position_codec.h"
#include "external/su/solution_codec.h"

#include <array>
#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kCapacity = NVB_FRAME_CAPACITY;

// The expander's output when a delta is checked. Not cleared: only what the expander
// wrote is compared, and its length bytes are cleared where a failed expansion leaves
// them unwritten.
struct Scratch {
    std::array<std::uint8_t, kCapacity> bytes;
    Scratch() { bytes[1] = bytes[3] = 0; }
    std::uint8_t* data() { return bytes.data(); }
    static constexpr std::size_t size() { return kCapacity; }
    std::uint8_t operator[](std::size_t at) const { return bytes[at]; }
};

// A delta is sent only when the expander, starting from the same history, gives back the
// plain record byte for byte. Records that the delta forms cannot carry (a first list of a
// record 11 other than 0, 1, 2, ..., 32 or more changes, correction bytes behind block 3
// of a record 29, a record 29 whose length byte wraps, a record 17 with Doppler or a
// reserved byte) go out as references instead of as deltas a reader would misread.
bool sameRecord(const std::uint8_t* rebuilt, std::size_t rebuiltLength, const nvb_frame_t& plain,
                std::size_t plainLength) {
    return rebuiltLength == plainLength && std::memcmp(rebuilt, plain.data, plainLength) == 0;
}

std::size_t recordLength(const nvb_frame_t& plain, std::size_t length) {
    return length <= kCapacity && length <= plain.length ? length : 0;
}

std::uint16_t finish(nvb_frame_t& out, std::size_t length) {
    out.length = static_cast<std::uint16_t>(length);
    return out.length;
}

bool positionDeltaRoundTrips(const position_history_t& before, const nvb_frame_t& plain, std::size_t length,
                             const nvb_frame_t& out) {
    position_history_t history = before;
    Scratch rebuilt;
    std::uint8_t status = 0;
    expandPositionDelta(history, out.data, out.data[1], rebuilt.data(), rebuilt.size(), status, true);
    return status == 0 && sameRecord(rebuilt.data(), rebuilt[1], plain, length);
}

bool solutionDeltaRoundTrips(const solution_history_t& before, const nvb_frame_t& plain, std::size_t length,
                             const nvb_frame_t& out) {
    solution_image_t image;
    std::uint8_t status = 0;
    expandSolutionImage(before, out.data, out.data[1] + 256u * out.data[3], image, status);
    if (status != 0) return false;
    Scratch rebuilt;
    const std::size_t written = writeSolutionImage(image, rebuilt.data(), rebuilt.size());
    return written == rebuilt[1] + 256u * rebuilt[3] && sameRecord(rebuilt.data(), written, plain, length);
}

bool obsDeltaRoundTrips(const obs_history_t& before, const nvb_frame_t& plain, std::size_t length,
                        const nvb_frame_t& out) {
    obs_history_t history = before;
    Scratch rebuilt;
    std::uint8_t status = 0;
    const std::size_t compactLength = out.data[1] + (out.data[2] == kTypeObsDeltaLong ? 256u : 0u);
    if (!expandObsDelta(history, out.data, compactLength, rebuilt.data(), rebuilt.size(), status, true)) {
        return false;
    }
    return sameRecord(rebuilt.data(), plainObsLength(rebuilt.data()), plain, length);
}

}  // namespace

std::uint16_t compressRec11Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    std::memset(&out, 0, sizeof out);
    const std::size_t length = recordLength(plain, plain.data[1]);
    if (length < 41) return 0;
    const std::uint32_t time = timeTagAt(plain.data + 37);
    if (!referenceDue(time, state.lastPositionReferenceTime)) {
        const position_history_t before = state.positionHistory;
        if (compressPositionDelta(state.positionHistory, plain.data, length, out.data, kCapacity) &&
            positionDeltaRoundTrips(before, plain, length, out)) {
            return finish(out, out.data[1]);
        }
        std::memset(&out, 0, sizeof out);
    } else {
        state.lastPositionReferenceTime = time;
    }
    if (!compressPositionReference(state.positionHistory, plain.data, length, out.data, kCapacity)) return 0;
    return finish(out, out.data[1]);
}

std::uint16_t compressRec29Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    std::memset(&out, 0, sizeof out);
    const std::size_t length = recordLength(plain, plain.data[1] + 256u * plain.data[3]);
    if (length < 11) return 0;
    const std::uint32_t time = timeTagAt(plain.data + 7);
    if (!referenceDue(time, state.lastSolutionReferenceTime) && state.forcePositionReference != 1) {
        const solution_history_t before = state.solutionHistory;
        if (compressSolutionDelta(state.solutionHistory, plain.data, length, out.data, kCapacity) &&
            solutionDeltaRoundTrips(before, plain, length, out)) {
            return finish(out, out.data[1] + 256u * out.data[3]);
        }
        std::memset(&out, 0, sizeof out);
    } else {
        state.lastSolutionReferenceTime = time;
        state.forcePositionReference = 0;
    }
    if (!compressSolutionReference(state.solutionHistory, plain.data, length, out.data, kCapacity)) return 0;
    return finish(out, out.data[1] + 256u * out.data[3]);
}

std::uint16_t compressRec17Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    std::memset(&out, 0, sizeof out);
    const std::size_t length = recordLength(plain, plainObsLength(plain.data));
    if (length >= 7) {
        const std::uint32_t time = timeTagAt(plain.data + 3);
        bool coded = false;
        if (!referenceDue(time, state.lastObsReferenceTime)) {
            const obs_history_t before = state.secondGenHistory;
            coded = compressObsDelta(state.secondGenHistory, plain.data, length, out.data, kCapacity) &&
                    obsDeltaRoundTrips(before, plain, length, out);
            if (!coded) std::memset(&out, 0, sizeof out);
        } else {
            state.lastObsReferenceTime = time;
        }
        if (!coded) (void)compressObsReference(state.secondGenHistory, plain.data, length, out.data, kCapacity);
    }
    switch (out.data[2]) {
    case kTypeObsDelta:
    case kTypeObsReference:
        return finish(out, out.data[1]);
    case kTypeObsDeltaLong:
    case kTypeObsReferenceLong:
        return finish(out, out.data[1] + 256u);
    default:
        logMessage("Unknown compressed format: %d\n", out.data[2]);
        return finish(out, 0);
    }
}

}  // namespace nvb
