#include "pipeline/record_source.h"

#include <nvbdll/status.h>

#include "rec35/rec35_assembly.h"
#include "rec35/rec35_reader.h"
#include "stream/block_reader.h"
#include "stream/frame_assembler.h"

namespace nvb {

namespace {

constexpr std::uint32_t kDetectionBytes = 10;

// Decides the shape of the stream on its tenth byte. A block stream keeps the ten bytes
// in the block input buffer; a byte stream replays them through the frame assembler,
// and only the last of the ten calls counts: a frame that ends earlier is lost. A status
// that any of the ten calls set stays, so the first call reports what detection met.
std::int32_t detectStream(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& status,
                          bool huffman) {
    if (haveByte && state.inputFill < kDetectionBytes) state.blockInput[state.inputFill++] = byte;
    if (state.inputFill < kDetectionBytes) return 0;
    state.detectPending = 0;
    state.byteMode = 1;
    if (isBlockStreamStart(state.blockInput)) {
        state.byteMode = 0;
        return 0;
    }
    int result = 0;
    for (state.inputReplayPos = 0; state.inputReplayPos < kDetectionBytes; ++state.inputReplayPos) {
        result = assembleFrame(state.frameAssembly, state.blockInput[state.inputReplayPos], status, huffman,
                               state.frame);
    }
    state.inputReplayPos = 0;
    state.inputFill = 0;
    return static_cast<std::uint8_t>(result);
}

// Byte mode: the block input buffer serves as a queue between host and assembler.
std::int32_t feedByteStream(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more,
                            std::uint8_t& status, bool huffman) {
    if (haveByte) state.blockInput[state.inputFill++] = byte;
    if (state.inputReplayPos >= state.inputFill) {
        // Called without a byte while nothing is queued: no stale byte is replayed, and the
        // next byte finds the queue level again.
        status = NVB_STATUS_FRAME_LENGTH;
        return -1;
    }
    const int result =
        assembleFrame(state.frameAssembly, state.blockInput[state.inputReplayPos++], status, huffman, state.frame);
    if ((status == NVB_STATUS_OK || status == NVB_STATUS_HUFFMAN_END) && result != 0) {
        state.inputFill -= state.inputReplayPos;
        state.inputReplayPos = 0;
        if (state.inputFill > 0) more = 1;
    }
    // An empty queue starts again at the front, so a long run without frames never
    // walks off the end of the buffer.
    if (state.inputReplayPos == state.inputFill) {
        state.inputReplayPos = 0;
        state.inputFill = 0;
    }
    return result;
}

}  // namespace

std::int32_t getNextRecord(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more,
                           std::uint8_t& status, bool huffman) {
    status = 0;
    more = 0;
    if (state.detectPending == 1) return detectStream(state, haveByte, byte, status, huffman);

    std::int32_t result = 0;
    if (state.byteMode == 1) {
        result = feedByteStream(state, haveByte, byte, more, status, huffman);
    } else {
        // Record 35 fragments are joined on this path only: bare levels are the only place
        // a record 35 can be read.
        result = feedBlockByte(state, haveByte, byte, more, status);
        result = assembleRec35(state.frame, state.records.rec35, state.rec35Assembly, result, status);
    }
    state.currentType = static_cast<std::uint16_t>(result);
    if (result == 35) return rec35ReportedType(state);
    return result;
}

std::int32_t readFileRecord(nvb_expand_t& state, std::FILE* file, std::uint8_t& status, bool huffman) {
    status = 0;
    if (file == nullptr || std::feof(file)) {
        status = NVB_STATUS_END_OF_FILE;
        return -1;
    }
    for (;;) {
        std::int32_t result = 0;
        if (state.moreRecords != 0) {
            result = getNextRecord(state, false, 0, state.moreRecords, status, huffman);
        } else {
            // The value getc gives at the end is fed in as 0xFF before the end is noticed.
            const int next = std::getc(file);
            result = getNextRecord(state, true, static_cast<std::uint8_t>(next), state.moreRecords, status, huffman);
        }
        if (result != 0) return result;
        if (status != NVB_STATUS_OK && status != NVB_STATUS_END_OF_FILE) return -1;
        if (std::feof(file)) {
            status = NVB_STATUS_END_OF_FILE;
            return -1;
        }
    }
}

}  // namespace nvb
