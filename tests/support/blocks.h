#ifndef NVB_TESTS_BLOCKS_H
#define NVB_TESTS_BLOCKS_H

// Block streams for tests and benchmarks: frames of every length coding, and an encode
// state as its initialisation leaves it, driven through the block writer alone.

#include <nvbdll/nvbdll.h>

#include "common/byte_sum.h"
#include "stream/block_codecs.h"
#include "stream/block_writer.h"
#include "stream/framing.h"
#include "stream/huffman.h"
#include "support/host.h"

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace nvbtest::blocks {

using nvbtest::Bytes;
using nvbtest::copyOf;

// A frame of `type` and total `length`: plain types with a true checksum and end byte,
// compact types with a trailer of their own; the payload in runs, for the compressors.
inline Bytes frameOfLength(std::uint8_t type, std::size_t length, std::mt19937& random) {
    Bytes frame(length);
    std::uint8_t run = 0;
    for (auto& byte : frame) byte = random() % 4 == 0 ? (run = static_cast<std::uint8_t>(random())) : run;
    frame[0] = nvb::kStartByte;
    frame[2] = type;
    nvb::storeLengthExtension(type, static_cast<std::uint32_t>(length), frame[1], frame[3]);
    if (!nvb::isCompactType(type)) {
        nvb::writeU16BigEndian(frame.data() + length - 3, nvb::byteSum(frame.data(), length - 3));
        frame[length - 1] = nvb::kEndByte;
    }
    return frame;
}

// Plain and compact types of each length coding (one byte, high byte, 256 + byte), bodies
// from 1 to about 5000 bytes. The first frame outlasts the ten bytes of stream detection.
inline std::vector<Bytes> mixedFrames(std::size_t count, std::uint32_t seed) {
    struct Kind {
        std::uint8_t type;
        std::size_t shortest, longest;
    };
    static constexpr Kind kinds[] = {{5, 7, 255},   {16, 7, 255},  {40, 7, 255}, {27, 8, 5120},
                                     {29, 8, 3000}, {98, 8, 5007}, {41, 7, 255}, {66, 7, 255},
                                     {84, 7, 255},  {36, 7, 5120}, {56, 7, 900}, {74, 259, 511}};
    std::mt19937 random(seed);
    std::vector<Bytes> frames;
    for (std::size_t i = 0; i < count; ++i) {
        const Kind& kind = kinds[random() % std::size(kinds)];
        const std::size_t span =
            random() % 3 == 0 ? std::min<std::size_t>(40, kind.longest - kind.shortest) : kind.longest - kind.shortest;
        const std::size_t length = kind.shortest + random() % (span + 1);
        frames.push_back(frameOfLength(kind.type, i == 0 ? std::max<std::size_t>(length, 64) : length, random));
    }
    return frames;
}

// A frame as it stands in a block of the bare methods.
inline Bytes bareRecord(const Bytes& frame) {
    const auto bareLength = static_cast<std::uint32_t>(frame.size() - (nvb::isCompactType(frame[2]) ? 3 : 4));
    Bytes bare(frame.begin() + 1, frame.begin() + 1 + bareLength);
    nvb::storeLengthExtension(frame[2], bareLength, bare[0], bare[2]);
    return bare;
}

// The parts one after the other: the bytes of frames, or the frames of several lists.
template <class Part = Bytes>
Part concatAll(const std::vector<Part>& parts) {
    Part all;
    for (const Part& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

// One unit handed to the write callback, with the frames of the block it carries.
struct WrittenUnit {
    Bytes bytes;
    std::size_t firstFrame = 0;
    std::size_t frameCount = 0;
};

// An encode state as its initialisation leaves it, writing into memory, and the steps of
// the encode pipeline around the block writer.
class EncodeHarness {
public:
    explicit EncodeHarness(std::uint8_t method, std::uint8_t level = 0) : state_(std::make_unique<nvb_encode_t>()) {
        // A tree already built is kept, so that no reader's decoder is left on freed nodes.
        if (nvb::huffmanRoot() == nullptr) nvbdll_initNVBLib();
        state_->headerPending = 1;
        state_->headerTag = 255;
        state_->writeCallback = &EncodeHarness::capture;
        state_->writeContext = this;
        state_->compressionMethod = method;
        state_->compressionLevel = level;
    }

    nvb_encode_t& state() { return *state_; }
    const std::vector<WrittenUnit>& units() const { return units_; }
    Bytes stream() const {
        Bytes all;
        for (const WrittenUnit& unit : units_) all.insert(all.end(), unit.bytes.begin(), unit.bytes.end());
        return all;
    }

    std::uint32_t write(const Bytes& frame, std::uint8_t& status) {
        nvb_encode_t& state = *state_;
        status = 0;
        state.flushBlock = 0;
        if (state.restartHeader != 0) state.flushBlock = 1;
        std::memset(&state.frame, 0, sizeof state.frame);
        std::memcpy(state.frame.data, frame.data(), frame.size());
        state.frame.length = static_cast<std::uint16_t>(frame.size());
        ++state.recordCount;
        const std::uint32_t written =
            state.compressionMethod == 0 ? nvb::writeHuffmanRecord(state) : nvb::appendToBlock(state, status);
        if (status == 0) ++given_;
        return written;
    }

    void writeAll(const std::vector<Bytes>& frames) {
        std::uint8_t status = 0;
        for (const Bytes& frame : frames) write(frame, status);
        finish();
    }

    // Closes the stream as finalisation does.
    std::uint32_t finish() {
        nvb_encode_t& state = *state_;
        std::uint8_t status = 0;
        if (state.compressionMethod != 0) {
            nvb::setBlockTarget(state);
            return nvb::emitBlock(state, status);
        }
        state.outputLength = 0;
        const std::uint32_t length = nvb::flushHuffman(state);
        if (length > 0) capture(state.output, length, this);
        state.outputLength = 0;
        return length;
    }

private:
    // A closing block holds the frames given since the last one; the frame being written
    // goes into the next.
    static void capture(const std::uint8_t* buffer, std::uint32_t length, void* context) {
        auto* self = static_cast<EncodeHarness*>(context);
        self->units_.push_back({Bytes(buffer, buffer + length), self->blockFirst_, self->given_ - self->blockFirst_});
        self->blockFirst_ = self->given_;
    }

    std::unique_ptr<nvb_encode_t> state_;
    std::vector<WrittenUnit> units_;
    std::size_t given_ = 0;
    std::size_t blockFirst_ = 0;
};

// The host's reading loop of the by-byte getter, following `more`.
inline std::vector<ReadEvent> readByByte(nvb_expand_t* state, const Bytes& stream) {
    return readStream(state, stream, Getter::NvbByByte);
}

// What a reader gives back for frames [first, first + count) written with `method`.
inline std::vector<Bytes> expectedFrames(const std::vector<Bytes>& frames, int method, std::size_t first,
                                         std::size_t count) {
    std::vector<Bytes> expected;
    for (std::size_t i = first; i < first + count; ++i) {
        expected.push_back(frames[i]);
        // Rebuilt from a bare record, a frame's checksum or trailer bytes are zero.
        if (nvb::isBareLevel(static_cast<std::uint8_t>(method))) {
            const std::size_t from = frames[i].size() - (nvb::isCompactType(frames[i][2]) ? 2 : 3);
            expected.back()[from] = expected.back()[from + 1] = 0;
        }
    }
    return expected;
}

// Empty when the frames agree, else where they first part: logs are too long to print.
inline std::string frameDifference(const std::vector<Bytes>& actual, const std::vector<Bytes>& expected) {
    for (std::size_t i = 0; i < std::min(actual.size(), expected.size()); ++i) {
        if (actual[i] != expected[i]) return "frame " + std::to_string(i) + " differs";
    }
    if (actual.size() == expected.size()) return "";
    return std::to_string(actual.size()) + " frames read, " + std::to_string(expected.size()) + " expected";
}

}  // namespace nvbtest::blocks

#endif
