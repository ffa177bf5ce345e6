#include "pipeline/encoding.h"

#include <nvbdll/records.h>
#include <nvbdll/status.h>

#include "common/rclean.h"
#include "external/su/codec_histories.h"
#include "pipeline/record_routes.h"
#include "records/dat_parser.h"
#include "rec35/rec35_assembly.h"
#include "rec35/rec35_writer.h"
#include "stream/block_writer.h"
#include "stream/huffman.h"

#include <cstring>

namespace nvb {

namespace {

constexpr std::uint32_t kNoReference = 0xFFFFFFFFu;

// The thinning of the encode path, asked before the record is written: the interval in
// seconds times 1000, truncated, for every type.
bool keepOnWrite(nvb_encode_t& state, Thinning thinning) {
    const auto intervalMs = [](float seconds) { return static_cast<std::int32_t>(seconds * 1000.0); };
    const float positions = state.positionInterval;
    const float measurements = state.measurementInterval;
    switch (thinning) {
        case Thinning::None:
            return true;
        case Thinning::Position11:
            return !(positions > 0) || rcleanPosition11(state.rclean, *state.records.rec11, intervalMs(positions));
        case Thinning::Position29:
            return !(positions > 0) || rcleanPosition29(state.rclean, *state.records.rec29, intervalMs(positions));
        case Thinning::Epoch17:
            return !(measurements > 0) || rcleanEpoch17(state.rclean, *state.records.rec17,
                                                        intervalMs(measurements), &state.rclean.droppedSlipList);
        case Thinning::Epoch27:
            return !(measurements > 0) || rcleanEpoch27(state.rclean, *state.records.rec27, intervalMs(measurements));
    }
    return true;
}

// The type's route up to and including its writer and compact coder. Returns false when
// the record is dropped or can't be written; the frame to go out then stands in `frame`.
bool writeRecord(nvb_encode_t& state, std::uint8_t type, std::uint8_t& status) {
    const WriteRoute& route = writeRouteOf(type);
    if (route.write == nullptr) {
        if (route.catalogued) status = NVB_STATUS_NOT_WRITABLE;
        return false;
    }
    if (route.filter != nullptr) {
        switch (route.filter(state)) {
            case NavFilter::Write: break;
            case NavFilter::Drop: return false;
            case NavFilter::Refuse: status = NVB_STATUS_NOT_WRITABLE; return false;
        }
    }
    if (!keepOnWrite(state, route.thinning)) return false;
    if (route.write(state, route.compress != nullptr ? state.plainFrame : state.frame) == 0) {
        status = NVB_STATUS_NOT_WRITABLE;
        return false;
    }
    // Only a record 17 that the compact types can't carry finds no coder.
    if (route.compress != nullptr && route.compress(state, state.plainFrame, state.frame) == 0) return false;
    if (isPositionThinning(route.thinning)) {
        ++state.positionCount;
    } else if (route.thinning != Thinning::None) {
        ++state.measurementCount;
    }
    return true;
}

}  // namespace

void initEncodeState(nvb_encode_t& state) {
    std::memset(&state.records, 0, sizeof state.records);
    std::memset(state.output, 0, sizeof state.output);
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    std::memset(&state.frame, 0, sizeof state.frame);
    resetRec35Assembly(state.rec35Assembly);
    state.huffmanEncoder = nvb_huffman_encoder_t{0, 0};
    resetEncodeState(state);
    state.lastEpochReferenceTime = kNoReference;
    state.lastPositionReferenceTime = kNoReference;
    state.lastSolutionReferenceTime = kNoReference;
    state.lastObsReferenceTime = kNoReference;
    state.lastSubframeReferenceTime = kNoReference;
    rcleanInit(state.rclean);
    state.positionInterval = 0;
    state.measurementInterval = 0;
    state.positionCount = 0;
    state.measurementCount = 0;
    state.recordCount = 0;
    state.compressionMethod = 0;
    state.compressionLevel = 0;
    state.blockFill = 0;
    state.legacyMode = 0;
    state.epochForceReference = 0;
    state.forcePositionReference = 0;
    state.dropMask = 0;
    state.scrambleBlocks = 0;
    state.rec35Mode = 0;
    state.writeContext = nullptr;
    state.writeReserved = 0;
    state.restartHeader = 0;
    state.headerPending = 1;
    state.headerTag = 255;
    state.writeCallback = writeToFile;
}

void resetEncodeState(nvb_encode_t& state) {
    resetCompactHistories(state);
    resetRec35Chains(state.rec35Assembly);
}

void releaseEncodeInternals(nvb_encode_t& state) {
    rcleanFree(state.rclean);
    freeRec35Assembly(state.rec35Assembly);
}

std::uint16_t parseDATRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t systemMask) {
    std::uint8_t* header = state.records.datHeader;
    if (header == nullptr || dat == nullptr) return 0;
    std::memcpy(header, dat, 4);
    const std::uint16_t length = parseDatLengthOf(dat);
    const WriteRoute& route = writeRouteOf(dat[3]);
    if (route.parse == nullptr) return 0;
    DatReader in{dat, length, 4};
    return route.parse(state, in, length, systemMask) < 0 ? 0 : length;
}

std::uint32_t processDatRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t& status) {
    status = 0;
    if (dat == nullptr) return 0;
    // Record 35 is parsed by its own writer, whose DAT form may pass 16 bits of length.
    const bool rec35 = dat[3] == 35;
    // A DAT record can't be shorter than its own header.
    if (!rec35 && parseDATRecord(state, dat, state.dropMask) < 4) return 0;
    if (rec35 && state.records.datHeader != nullptr) std::memcpy(state.records.datHeader, dat, 4);
    const std::uint8_t type = dat[3];
    if (type == 29 && state.records.rec29 != nullptr && (state.records.rec29->posFlags & 0x04) == 0) {
        state.rec29BitSeen = 1;
    }
    state.flushBlock = state.restartHeader != 0 ? 1 : 0;
    if (state.writeCallback == nullptr) {
        status = NVB_STATUS_NO_CALLBACK;
        return 0;
    }
    if (state.compressionMethod >= 3 && state.compressionMethod <= 7) state.outputLength = 0;
    if (type < 5 || type > 99) return 0;
    if (rec35) return writeRec35Record(state, dat, status);
    if (!writeRecord(state, type, status)) return 0;
    ++state.recordCount;
    if (state.compressionMethod == 0) return writeHuffmanRecord(state);
    return appendToBlock(state, status);
}

std::uint32_t finalizeDatProcessing(nvb_encode_t& state) {
    if (state.compressionMethod != 0) {
        std::uint8_t swallowed = 0;
        setBlockTarget(state);
        return emitBlock(state, swallowed);
    }
    int written = huffmanEncodeSymbol(state.huffmanEncoder, kHuffmanEndSymbol, state.output, false);
    written += huffmanEncodeSymbol(state.huffmanEncoder, 0, state.output + written, true);
    if (written <= 0) return 0;
    if (state.writeCallback != nullptr) state.writeCallback(state.output, static_cast<std::uint32_t>(written), state.writeContext);
    state.outputLength = 0;
    return static_cast<std::uint32_t>(written);
}

}  // namespace nvb
