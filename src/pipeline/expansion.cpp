#include "pipeline/expansion.h"

#include <nvbdll/status.h>

#include "common/byte_sum.h"
#include "common/rclean.h"
#include "external/su/delta_epoch.h"
#include "external/su/epoch_image.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"
#include "pipeline/record_routes.h"
#include "rec35/rec35_convert.h"
#include "rec35/rec35_reader.h"
#include "rec35/rec35_thinning.h"
#include "stream/block_codecs.h"
#include "stream/framing.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace nvb {

namespace {

void copyFrameAsPlain(nvb_expand_t& state) { std::memcpy(&state.plainFrame, &state.frame, sizeof state.frame); }

// Records 11 and 17 take the interval in whole seconds, so 0.5 s keeps every epoch;
// 27 and 29 round it to the millisecond. The difference is deliberate.
std::int32_t wholeSecondsAsMs(float seconds) {
    return static_cast<std::int32_t>(std::min(std::trunc(static_cast<double>(seconds)), 2147483.0)) * 1000;
}

std::int32_t roundedMs(float seconds) {
    return static_cast<std::int32_t>(std::min(static_cast<double>(seconds) * 1000.0 + 0.5, 2147483647.0));
}

// Asks the thinning about a record the reader delivered; returns the length that stays
// (0 when dropped) and counts what is delivered.
std::uint32_t thin(nvb_expand_t& state, Thinning thinning, std::uint32_t length) {
    if (length == 0) return 0;
    const nvb_record_table_t& records = state.records;
    const float positions = state.positionInterval;
    const float measurements = state.measurementInterval;
    bool keep = true;
    switch (thinning) {
        case Thinning::None:
            return length;
        case Thinning::Position11:
            if (positions > 0) keep = rcleanPosition11(state.rclean, *records.rec11, wholeSecondsAsMs(positions));
            break;
        case Thinning::Position29:
            if (positions > 0) keep = rcleanPosition29(state.rclean, *records.rec29, roundedMs(positions));
            break;
        case Thinning::Epoch17:
            if (measurements > 0) {
                keep = rcleanEpoch17(state.rclean, *records.rec17, wholeSecondsAsMs(measurements),
                                     &state.rclean.droppedSlipList);
            }
            break;
        case Thinning::Epoch27:
            if (measurements > 0) keep = rcleanEpoch27(state.rclean, *records.rec27, roundedMs(measurements));
            break;
    }
    if (!keep) return 0;
    if (isPositionThinning(thinning)) {
        ++state.positionCount;
    } else {
        ++state.measurementCount;
    }
    return length;
}

// The end byte (unless told not to test it), and in a framed level the checksum, of a
// plain frame: 0 when both hold.
std::uint8_t plainFrameStatus(const nvb_frame_t& plain, bool framed, bool testEndByte = true) {
    if (testEndByte && (plain.length == 0 || plain.data[plain.length - 1] != 0x03)) return NVB_STATUS_END_BYTE;
    if (framed && (plain.length < 3 || readU16BigEndian(plain.data + plain.length - 3) !=
                                           byteSum(plain.data, plain.length - 3u))) {
        return NVB_STATUS_CHECKSUM;
    }
    return 0;
}

// The epoch expanders with the host's control in place of mode 0.
std::uint8_t expandEpochUnder(nvb_expand_t& state, rinex_control_t& output, bool framed, ExpandedEpoch& result) {
    const std::uint8_t* frame = state.frame.data;
    std::uint8_t* plain = state.plainFrame.data;
    const std::size_t capacity = sizeof state.frame.data;
    switch (state.currentType) {
        case kLongDeltaEpochType:
        case kShortDeltaEpochType:
            output.verify = framed ? 1 : 0;
            return expandDeltaEpoch(frame, capacity, plain, capacity, state.epochHistory,
                                    state.currentType == kLongDeltaEpochType, result, output);
        case kReferenceEpochType:
            return expandReferenceEpoch(frame, capacity, plain, capacity, state.epochHistory, result, output);
        default:
            return expandPredictedEpoch(frame, capacity, plain, capacity, state.epochHistory, result, output);
    }
}

}  // namespace

std::uint32_t processRecordWithOutput(nvb_expand_t& state, rinex_control_t& output, std::uint16_t& recordType,
                                      std::uint8_t& status) {
    const std::uint16_t type = state.currentType;
    if (type != kPlainEpochType && (type < kLongDeltaEpochType || type > kPredictedEpochType)) {
        return processRecord(state, recordType, status);
    }
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    status = 0;
    recordType = kNoRecord;
    const bool framed = !isBareLevel(state.blockLevel);
    std::uint16_t length = 0;
    if (type == kPlainEpochType) {
        copyFrameAsPlain(state);
        status = plainFrameStatus(state.plainFrame, framed);
        if (status != 0) return 0;
        epoch_image_t image;
        const EpochWorkBuffer work = allocateEpochWork();
        if (!work || parseEpochImage(image, state.plainFrame.data, state.plainFrame.length).status != 0) {
            status = NVB_STATUS_EXPANSION;
            return 0;
        }
        length = finishEpochOutput(image, state.plainFrame.data, state.plainFrame.length, output, *work);
    } else {
        ExpandedEpoch result;
        if (expandEpochUnder(state, output, framed, result) != 0) {
            status = NVB_STATUS_EXPANSION;
            return 0;
        }
        length = result.length != 0 ? epochFrameLength(state.plainFrame.data) : 0;
        state.plainFrame.length = length;
        if (length != 0) status = plainFrameStatus(state.plainFrame, framed);
        if (status != 0) return 0;
    }
    if (length == 0) return 0;
    recordType = kPlainEpochType;
    return readRouteOf(kPlainEpochType).read(state);
}

std::uint32_t processRecord(nvb_expand_t& state, std::uint16_t& recordType, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    status = 0;
    const bool framed = !isBareLevel(state.blockLevel);
    const std::uint16_t type = state.currentType;
    const ReadRoute& route = readRouteOf(type);
    const bool compact = type < 256 && isCompactType(static_cast<std::uint8_t>(type));

    if (compact && route.expand == nullptr) {
        recordType = kNoRecord;
        return 0;
    }
    // Record 35 lies in its own assembly and has no plain frame; every other type is
    // tested for its end byte.
    const bool testEndByte = type != 35;
    if (route.expand != nullptr) {
        status = route.expand(state, framed);
        if (status != 0) {
            status = NVB_STATUS_EXPANSION;
            return 0;
        }
    } else if (type != 35) {
        copyFrameAsPlain(state);
    }

    status = plainFrameStatus(state.plainFrame, framed, testEndByte);
    if (status != 0) return 0;
    if (type < 5 || type > 99) {
        recordType = kNoRecord;
        return 0;
    }
    // Record 35 tells its own type: 0 for a swallowed schema record, 65535 on a failure.
    if (type == 35) {
        std::uint32_t length = readRec35Buffer(state.rec35Assembly, state, recordType, status);
        const rec35_content_t* content = state.records.rec35;
        if (length != 0 && content != nullptr && content->subsubtype != 0 &&
            !keepRec35(state.rclean, content->subtype, rec35NativeOf(*content, content->subtype),
                       state.measurementInterval > 0 ? roundedMs(state.measurementInterval) : 0,
                       state.positionInterval > 0 ? roundedMs(state.positionInterval) : 0)) {
            length = 0;
        }
        return convertRec35Result(state, recordType, length, status);
    }
    recordType = route.reportedType;
    if (route.read == nullptr) return 0;
    return thin(state, route.thinning, route.read(state));
}

}  // namespace nvb
