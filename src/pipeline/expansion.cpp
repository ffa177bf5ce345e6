#include "pipeline/expansion.h"

#include "common/byte_sum.h"
#include "common/rclean.h"
#include "external/su/delta_epoch.h"
#include "external/su/epoch_image.h"
#include "external/su/obs_codec.h"
#include "external/su/position_codec.h"
#include "external/su/predicted_epoch.h"
#include "external/su/reference_epoch.h"
#include "external/su/solution_codec.h"
#include "records/auxiliary_records.h"
#include "records/measurement_records.h"
#include "records/navigation_records.h"
#include "records/opaque_records.h"
#include "records/position_records.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"
#include "rec35/rec35_reader.h"
#include "stream/framing.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

namespace nvb {

namespace {

// An expander writes the plain frame of a compact record and returns its own status.
using Expander = std::uint8_t (*)(nvb_expand_t& state, bool framed);
// A reader decodes the plain frame into the type's structure and DAT header and returns
// the DAT length.
using Reader = std::uint16_t (*)(nvb_expand_t& state);

constexpr std::uint16_t kNoRecord = 65535;

enum class Thinning : std::uint8_t { None, Position11, Position29, Epoch17, Epoch27 };

struct RecordRoute {
    std::uint16_t reportedType = kNoRecord;
    Expander expand = nullptr; // null: the frame is already plain and is copied
    Reader read = nullptr;     // null: nothing to decode, length 0
    Thinning thinning = Thinning::None;
};

std::uint16_t readGeneric(nvb_expand_t& state) { return readGenericRecord(state.plainFrame, state); }
std::uint16_t read16(nvb_expand_t& state) { return readRec16(state.plainFrame, state); }
std::uint16_t read11(nvb_expand_t& state) { return readRec11(state.plainFrame, state); }
std::uint16_t read17(nvb_expand_t& state) { return readRec17(state.plainFrame, state, state.rec17Work); }
std::uint16_t read29(nvb_expand_t& state) {
    return readRec29(state.plainFrame, state, state.mapSystem5To7 != 0, state.mapSystem7To10 != 0);
}
std::uint16_t read33(nvb_expand_t& state) {
    return readRec33(state.plainFrame, state, state.mapSystem5To7 != 0, state.mapSystem7To10 != 0);
}
template <std::uint16_t (*Read)(const nvb_frame_t&, nvb_expand_t&)>
std::uint16_t readPlain(nvb_expand_t& state) {
    return Read(state.plainFrame, state);
}
std::uint16_t read27(nvb_expand_t& state) {
    const Rec27ReadOptions options{state.dopplerControl, state.mapSystem5To7 != 0, state.mapSystem7To10 != 0,
                                   state.keepAllSvBlocks != 0};
    const ByteView body = frameBytes(state.plainFrame).subspan(4);
    return readRec27(body, state, state.previousEpochs, options);
}

// The compact expanders, by the pair of arguments the dispatch gives them; each reports
// its own status, which the dispatch folds into 7.
template <std::uint8_t (*Step)(nvb_expand_t&, std::uint8_t&, bool)>
std::uint8_t expandFramed(nvb_expand_t& state, bool framed) {
    std::uint8_t status = 0;
    return Step(state, status, framed);
}

template <std::uint8_t (*Step)(nvb_expand_t&, std::uint8_t&)>
std::uint8_t expandAlone(nvb_expand_t& state, bool) {
    std::uint8_t status = 0;
    return Step(state, status);
}

template <bool IsType36>
std::uint8_t expandDelta(nvb_expand_t& state, bool framed) {
    std::uint8_t status = 0;
    return processType37(state, status, framed, IsType36);
}

template <std::uint16_t (*Read)(const nvb_frame_t&, nvb_expand_t&, bool)>
std::uint16_t readMapped(nvb_expand_t& state) {
    return Read(state.plainFrame, state, state.mapSystem5To7 != 0);
}

std::uint16_t read19(nvb_expand_t& state) {
    return readRec19(state.plainFrame, state, reinterpret_cast<TrackingSlots*>(state.trackingSlots));
}

// A new reference description (record 30 of subtype 0) starts the first-generation
// record 17 history over, except for the first one.
std::uint16_t read30(nvb_expand_t& state) {
    const std::uint16_t length = readRec30(state.plainFrame, state);
    if (length != 0) applyRec30ToFirstGeneration(state, state.records.datHeader[2]);
    return length;
}

// Every record type's road through the pipeline, in one place. A compact type whose
// codec is missing has no route and is reported as type 65535 with length 0.
constexpr std::array<RecordRoute, 256> makeRoutes() {
    std::array<RecordRoute, 256> routes{};
    routes[5] = {5, nullptr, readPlain<readRec5>, Thinning::None};
    routes[11] = {11, nullptr, read11, Thinning::Position11};
    routes[12] = {12, nullptr, readPlain<readRec12>, Thinning::None};
    routes[14] = {14, nullptr, readGeneric, Thinning::None};
    routes[15] = {15, nullptr, readPlain<readRec15>, Thinning::None};
    routes[16] = {16, nullptr, read16, Thinning::None};
    routes[17] = {17, nullptr, read17, Thinning::Epoch17};
    routes[19] = {19, nullptr, read19, Thinning::None};
    routes[21] = {21, nullptr, readPlain<readRec21>, Thinning::None};
    routes[22] = {22, nullptr, readPlain<readRec22>, Thinning::None};
    routes[23] = {23, nullptr, readGeneric, Thinning::None};
    routes[24] = {24, nullptr, readPlain<readRec24>, Thinning::None};
    routes[25] = {25, nullptr, readPlain<readRec25>, Thinning::None};
    routes[26] = {26, nullptr, readMapped<readRec26>, Thinning::None};
    routes[27] = {27, nullptr, read27, Thinning::Epoch27};
    routes[28] = {28, nullptr, readMapped<readRec28>, Thinning::None};
    routes[29] = {29, nullptr, read29, Thinning::Position29};
    routes[30] = {30, nullptr, read30, Thinning::None};
    routes[31] = {31, nullptr, readPlain<readRec31>, Thinning::None};
    routes[32] = {32, nullptr, readPlain<readRec32>, Thinning::None};
    routes[33] = {33, nullptr, read33, Thinning::None};
    routes[34] = {34, nullptr, readPlain<readRec34>, Thinning::None};
    routes[36] = {27, expandDelta<true>, read27, Thinning::Epoch27};
    routes[37] = {27, expandDelta<false>, read27, Thinning::Epoch27};
    routes[38] = {27, expandAlone<processType38>, read27, Thinning::Epoch27};
    routes[39] = {27, expandAlone<processType39>, read27, Thinning::Epoch27};
    routes[40] = {40, nullptr, readPlain<readRec40>, Thinning::None};
    routes[54] = {11, expandFramed<processType54>, read11, Thinning::Position11};
    routes[55] = {11, expandFramed<processType55>, read11, Thinning::Position11};
    routes[56] = {29, expandAlone<processType56>, read29, Thinning::Position29};
    routes[57] = {29, expandAlone<processType57>, read29, Thinning::Position29};
    routes[66] = {17, expandFramed<processType66_74>, read17, Thinning::Epoch17};
    routes[67] = {17, expandFramed<processType67_75>, read17, Thinning::Epoch17};
    routes[68] = {17, expandFramed<processType68_76>, read17, Thinning::Epoch17};
    routes[69] = {17, expandFramed<processType69_77>, read17, Thinning::Epoch17};
    routes[74] = routes[66];
    routes[75] = routes[67];
    routes[76] = routes[68];
    routes[77] = routes[69];
    routes[90] = {90, nullptr, nullptr, Thinning::None};
    routes[98] = {98, nullptr, readPlain<readRec98>, Thinning::None};
    routes[99] = {99, nullptr, readPlain<readRec99>, Thinning::None};
    return routes;
}

constexpr std::array<RecordRoute, 256> kRoutes = makeRoutes();

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
    if (thinning == Thinning::Position11 || thinning == Thinning::Position29) {
        ++state.positionCount;
    } else {
        ++state.measurementCount;
    }
    return length;
}

bool hasPlainEpochEnd(const nvb_frame_t& plain, bool framed) {
    if (plain.length < 3 || plain.data[plain.length - 1] != 0x03) return false;
    return !framed || readU16BigEndian(plain.data + plain.length - 3) == byteSum(plain.data, plain.length - 3u);
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
    const bool framed = isFramedLevel(state.blockLevel);
    std::uint16_t length = 0;
    if (type == kPlainEpochType) {
        copyFrameAsPlain(state);
        if (!hasPlainEpochEnd(state.plainFrame, framed)) {
            status = state.plainFrame.length != 0 && state.plainFrame.data[state.plainFrame.length - 1] == 0x03 ? 2 : 5;
            return 0;
        }
        epoch_image_t image;
        const EpochWorkBuffer work = allocateEpochWork();
        if (!work || parseEpochImage(image, state.plainFrame.data, state.plainFrame.length).status != 0) {
            status = 7;
            return 0;
        }
        length = finishEpochOutput(image, state.plainFrame.data, state.plainFrame.length, output, *work);
    } else {
        ExpandedEpoch result;
        if (expandEpochUnder(state, output, framed, result) != 0) {
            status = 7;
            return 0;
        }
        length = result.length != 0 ? epochFrameLength(state.plainFrame.data) : 0;
        state.plainFrame.length = length;
        if (length != 0 && !hasPlainEpochEnd(state.plainFrame, framed)) {
            status = state.plainFrame.data[length - 1] == 0x03 ? 2 : 5;
            return 0;
        }
    }
    if (length == 0) return 0;
    recordType = 27;
    return read27(state);
}

bool isFramedLevel(std::uint8_t blockLevel) {
    return blockLevel != 3 && blockLevel != 5 && blockLevel != 6 && blockLevel != 7;
}

std::uint32_t processRecord(nvb_expand_t& state, std::uint16_t& recordType, std::uint8_t& status) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    status = 0;
    const bool framed = isFramedLevel(state.blockLevel);
    const std::uint16_t type = state.currentType;
    const RecordRoute& route = kRoutes[type & 0xFFu];
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
            status = 7;
            return 0;
        }
    } else if (type != 35) {
        copyFrameAsPlain(state);
    }

    const nvb_frame_t& plain = state.plainFrame;
    if (testEndByte && (plain.length == 0 || plain.data[plain.length - 1] != 0x03)) {
        status = 5;
        return 0;
    }
    if (framed) {
        if (plain.length < 3 || readU16BigEndian(plain.data + plain.length - 3) != byteSum(plain.data, plain.length - 3u)) {
            status = 2;
            return 0;
        }
    }
    if (type < 5 || type > 99) {
        recordType = kNoRecord;
        return 0;
    }
    // Record 35 tells its own type: 0 for a swallowed schema record, 65535 on a failure.
    if (type == 35) return readRec35Buffer(state.rec35Assembly, state, recordType, status);
    recordType = route.reportedType;
    if (route.read == nullptr) return 0;
    return thin(state, route.thinning, route.read(state));
}

}  // namespace nvb
