#include "pipeline/encoding.h"

#include <nvbdll/records.h>
#include <nvbdll/status.h>

#include "common/rclean.h"
#include "external/su/codec_histories.h"
#include "external/su/compact_compressors.h"
#include "external/su/epoch_compressor.h"
#include "records/auxiliary_records.h"
#include "records/dat_parser.h"
#include "records/field_codec.h"
#include "records/measurement_records.h"
#include "records/navigation_records.h"
#include "records/position_records.h"
#include "records/rec33_records.h"
#include "records/receiver_records.h"
#include "rec35/rec35_assembly.h"
#include "rec35/rec35_writer.h"
#include "stream/block_writer.h"
#include "stream/huffman.h"

#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kNotWritable = NVB_STATUS_NOT_WRITABLE;
constexpr std::uint8_t kNoCallback = NVB_STATUS_NO_CALLBACK;
constexpr std::uint8_t kRec33MixedSystems = 3;
constexpr std::uint32_t kNoReference = 0xFFFFFFFFu;
constexpr std::uint16_t kLongestRecord17 = 511;

// The interval of the encode path: seconds times 1000, truncated, for every type.
std::int32_t intervalMs(float seconds) { return static_cast<std::int32_t>(seconds * 1000.0); }

// Records 14, 22, 23, 24: the generic area as the body, behind the type byte.
bool writeGenericFrame(nvb_encode_t& state, std::uint8_t type) {
    const std::uint32_t body = state.records.datHeader[1] >= 4 ? state.records.datHeader[1] - 4u : 0u;
    if (body + 6 > 255 || state.records.generic == nullptr) return false;
    WriteBuffer out = openFrame(state.frame, type, false);
    putBytes(out, state.records.generic->data, body);
    return closeFrame(out, false) != 0;
}

// Record 16: the subtype from the DAT header at offset 3, then the body.
bool writeRec16Frame(nvb_encode_t& state) {
    const std::uint32_t body = state.records.datHeader[1] >= 4 ? state.records.datHeader[1] - 4u : 0u;
    if (body + 7 > 255 || state.records.rec16 == nullptr) return false;
    WriteBuffer out = openFrame(state.frame, 16, false);
    putByte(out, state.records.datHeader[2]);
    putBytes(out, state.records.rec16->data, body);
    return closeFrame(out, false) != 0;
}

// Record 40 always goes out as its compact carrier, type 41. Until that coder is in place
// the plain form goes as it stands, which every reader takes.
void handOverListRecord(nvb_encode_t& state) {
    std::memcpy(&state.frame, &state.plainFrame, sizeof state.frame);
}

// A record 33 listing the systems in use starts the compact families over: the block
// closes, and the next epoch and position go out as references.
void restartAfterSystemList(nvb_encode_t& state) {
    state.flushBlock = 1;
    state.epochForceReference = 1;
    state.forcePositionReference = 1;
}

// Older readers take at most three measurements a satellite and no clock block: the GPS
// term of the clock block moves to the single drift field.
void applyLegacyToRec27(Rec27& rec) {
    for (std::size_t i = 0; i < rec.nSv && i < NVB_MAX_SV; ++i) {
        if (rec.sv[i].nMeas > 3) rec.sv[i].nMeas = 3;
    }
    if ((rec.epochFlags & 0x20) == 0) return;
    rec.epochFlags = static_cast<std::uint8_t>(rec.epochFlags & ~0x20);
    for (std::size_t i = 0; i < rec.clock.count && i < NVB_MAX_CLOCK_TERMS; ++i) {
        if (rec.clock.rt_clktype[i] == 2) {
            rec.clkDrift = static_cast<float>(rec.clock.systemClockOffset[i]);
            rec.epochFlags = static_cast<std::uint8_t>(rec.epochFlags | 0x02);
            break;
        }
    }
}

enum class Outcome : std::uint8_t { Written, Dropped, Refused };

// The navigation and receiver records: their filters, then a plain frame, which goes out
// as it stands.
Outcome writeNavigationOrReceiver(nvb_encode_t& state, std::uint8_t type) {
    const nvb_record_table_t& records = state.records;
    const std::uint8_t* header = records.datHeader;
    nvb_frame_t& frame = state.frame;
    const std::uint8_t subtype = header[2];
    std::uint16_t length = 0;
    switch (type) {
        case 5: length = writeRec5(*records.rec5, header, frame); break;
        case 12: length = writeRec12(*records.rec12, frame); break;
        case 15: length = writeRec15(*records.rec15, frame); break;
        case 19: length = writeRec19(*records.rec19, subtype, frame); break;
        case 21: length = writeRec21(*records.rec21, frame); break;
        case 30: length = writeRec30(*records.rec30, header, frame); break;
        case 25:
            if (state.legacyMode != 0 && subtype != 0) return Outcome::Dropped;
            length = writeRec25(*records.rec25, subtype, frame);
            break;
        case 26:
            switch (filterRec26(subtype, state.dropMask, state.legacyMode != 0)) {
                case NavFilter::Drop: return Outcome::Dropped;
                case NavFilter::Refuse: return Outcome::Refused;
                case NavFilter::Write: break;
            }
            length = writeRec26(*records.rec26, subtype, frame);
            break;
        case 28:
            switch (filterRec28(records.rec28->subtype, state.dropMask)) {
                case NavFilter::Drop: return Outcome::Dropped;
                case NavFilter::Refuse: return Outcome::Refused;
                case NavFilter::Write: break;
            }
            length = writeRec28(*records.rec28, frame);
            break;
        default:
            return Outcome::Refused;
    }
    return length != 0 ? Outcome::Written : Outcome::Refused;
}

// The per-type step before and including the writer. Returns false when the record is
// dropped or can't be written; the frame to go out then stands in `frame`.
bool writeRecord(nvb_encode_t& state, std::uint8_t type, std::uint8_t& status) {
    switch (type) {
        case 14: case 22: case 23: case 24:
            if (writeGenericFrame(state, type)) return true;
            status = kNotWritable;
            return false;
        case 16:
            if (writeRec16Frame(state)) return true;
            status = kNotWritable;
            return false;
        case 11: {
            Rec11& rec = *state.records.rec11;
            if (state.positionInterval > 0 && !rcleanPosition11(state.rclean, rec, intervalMs(state.positionInterval))) {
                return false;
            }
            if (writeRec11(rec, state.plainFrame) == 0) {
                status = kNotWritable;
                return false;
            }
            compressRec11Frame(state, state.plainFrame, state.frame);
            ++state.positionCount;
            return true;
        }
        case 17: {
            Rec17& rec = *state.records.rec17;
            if (state.measurementInterval > 0 &&
                !rcleanEpoch17(state.rclean, rec, intervalMs(state.measurementInterval), &state.rclean.droppedSlipList)) {
                return false;
            }
            // A record 17 has one length byte, with 256 added for the long compact types:
            // one of more than 511 bytes (many satellites on two frequencies) can't be told.
            const std::uint16_t length = writeRec17(rec, state.plainFrame);
            if (length == 0 || length > kLongestRecord17) {
                status = kNotWritable;
                return false;
            }
            if (compressRec17Frame(state, state.plainFrame, state.frame) == 0) return false;
            ++state.measurementCount;
            return true;
        }
        case 27: {
            Rec27& rec = *state.records.rec27;
            if (state.measurementInterval > 0 && !rcleanEpoch27(state.rclean, rec, intervalMs(state.measurementInterval))) {
                return false;
            }
            if (state.legacyMode == 1) applyLegacyToRec27(rec);
            if (writeRec27(rec, state.plainFrame, state.fileFormat, state.epochKeepDoppler != 0) == 0) {
                status = kNotWritable;
                return false;
            }
            compressEpochFrame(state, state.plainFrame, state.frame);
            ++state.measurementCount;
            return true;
        }
        case 29: {
            Rec29& rec = *state.records.rec29;
            if (state.positionInterval > 0 && !rcleanPosition29(state.rclean, rec, intervalMs(state.positionInterval))) {
                return false;
            }
            if (state.legacyMode == 1) rec.posFlags = static_cast<std::uint8_t>(rec.posFlags & ~0x10);
            if (state.rec29BitSeen == 0) rec.posFlags = static_cast<std::uint8_t>(rec.posFlags | 0x04);
            if (writeRec29(rec, state.plainFrame) == 0) {
                status = kNotWritable;
                return false;
            }
            compressRec29Frame(state, state.plainFrame, state.frame);
            ++state.positionCount;
            return true;
        }
        case 5: case 12: case 15: case 19: case 21: case 25: case 26: case 28: case 30:
            switch (writeNavigationOrReceiver(state, type)) {
                case Outcome::Written: return true;
                case Outcome::Dropped: return false;
                case Outcome::Refused: break;
            }
            status = NVB_STATUS_NOT_WRITABLE;
            return false;
        case 20:
        case 31:
        case 32:
        case 34:
        case 98:
        case 99:
            if (writeAuxiliaryFrame(state, type)) return true;
            status = kNotWritable;
            return false;
        case 33: {
            const Rec33& rec = *state.records.rec33;
            if (!writeRec33(rec, state.records.datHeader[1], state.frame)) {
                status = kNotWritable;
                return false;
            }
            if (rec.subtype == kRec33MixedSystems) restartAfterSystemList(state);
            return true;
        }
        case 40:
            if (!writeRec40(*state.records.rec40, state.records.datHeader[2], state.plainFrame)) {
                status = kNotWritable;
                return false;
            }
            handOverListRecord(state);
            return true;
        default:
            return false;
    }
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
        status = kNoCallback;
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
