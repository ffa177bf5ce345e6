#include "stream/block_writer.h"

#include <nvbdll/status.h>

#include "stream/block_codecs.h"
#include "stream/framing.h"
#include "stream/huffman.h"
#include "stream/scrambling.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <span>

namespace nvb {

MinimumVersionOverride minimumVersionOverride = {0, 0, 0};

namespace {

constexpr std::uint32_t kSmallTarget = 32768;
constexpr std::uint32_t kMediumTarget = 262144;
constexpr std::uint32_t kLargeTarget = 524288;
static_assert(kLargeTarget <= NVB_FILLING_BLOCK_CAPACITY, "the largest block fits the filling block");
constexpr std::uint32_t kNveFileFormat = 5;
constexpr std::uint8_t kExplicitLevel = 3;
constexpr std::uint8_t kDefaultFastLevel = 1;
constexpr int kZlibDefaultLevel = -1;
constexpr std::uint32_t kEndSymbolInterval = 600;
// Room for a Huffman-coded frame of the longest kind and two end symbols behind it.
constexpr std::uint32_t kHuffmanRecordRoom = kMaxFrameLength * 2 + 8;

int levelOr(const nvb_encode_t& state, int otherwise) {
    return state.compressionLevel == kExplicitLevel ? state.explicitLevel : otherwise;
}

void putMagic(std::uint8_t* body, std::uint8_t type) {
    std::memcpy(body, kBlockRows[type].magic.data(), kMagicLength);
}

// Compresses the filling block into `body`. Returns false with `failure` set.
bool compressBlock(nvb_encode_t& state, std::span<std::uint8_t> body, std::uint8_t& type, std::uint32_t& length,
                   std::uint8_t& failure) {
    // A fill count written by hand past the block's end is cut to the block.
    const std::uint32_t blockFill = state.blockFill;
    const std::span<const std::uint8_t> input(state.block, std::min(blockFill, NVB_FILLING_BLOCK_CAPACITY));
    switch (state.compressionMethod) {
        case 1:
            type = kCopyType;
            putMagic(body.data(), type);
            std::memcpy(body.data() + kMagicLength, input.data(), input.size());
            length = static_cast<std::uint32_t>(input.size());
            return true;
        case 2: {
            type = kHuffmanType;
            putMagic(body.data(), type);
            std::uint8_t* coded = body.data() + kMagicLength;
            length = huffmanEncodeBuffer(state.huffmanEncoder, input.data(), coded,
                                         static_cast<std::uint16_t>(input.size()));
            length += static_cast<std::uint32_t>(
                huffmanEncodeSymbol(state.huffmanEncoder, kHuffmanEndSymbol, coded + length, false));
            length += static_cast<std::uint32_t>(huffmanEncodeSymbol(state.huffmanEncoder, 0, coded + length, true));
            return true;
        }
        case 3:
            type = kZlibType;
            putMagic(body.data(), type);
            failure = NVB_STATUS_ZLIB;
            return deflateBody(input, body.subspan(kMagicLength), levelOr(state, kZlibDefaultLevel), length);
        case 4:
        case 5: {
            failure = NVB_STATUS_BZIP2;
            if (!bzip2Compress(input, body, static_cast<int>(state.bzip2BlockSize), length)) return false;
            const bool scrambled = (state.scrambleBlocks & 1u) != 0;
            // Method 4 scrambles too, but only method 5's block type says so.
            if (scrambled) scrambleBlock(body.data(), length);
            type = state.compressionMethod == 4 ? kBzip2FramesType : (scrambled ? kBzip2ScrambledType : kBzip2BareType);
            return true;
        }
        case 6:
            type = kBrotliType;
            std::memcpy(body.data(), kBrotliPrefix.data(), kBrotliPrefix.size());
            failure = NVB_STATUS_BROTLI;
            if (!brotliCompress(input, body.subspan(kBrotliPrefix.size()), levelOr(state, kDefaultFastLevel), length)) {
                return false;
            }
            length += static_cast<std::uint32_t>(kBrotliPrefix.size());
            return true;
        case 7:
            type = kZstdType;
            failure = NVB_STATUS_ZSTD;
            return zstdCompress(input, body, levelOr(state, kDefaultFastLevel), length);
        default:
            failure = NVB_STATUS_UNKNOWN_METHOD;
            return false;
    }
}

}  // namespace

bool isBareMethod(std::uint8_t method) {
    return method == 3 || method == 5 || method == 6 || method == 7;
}

void setBlockTarget(nvb_encode_t& state) {
    if (state.compressionLevel == 0 || state.compressionMethod == 2) {
        state.blockTarget = kSmallTarget;
        state.bzip2BlockSize = 1;
    } else if (state.compressionLevel == 1) {
        state.blockTarget = kMediumTarget;
        state.bzip2BlockSize = 3;
    } else if (state.compressionLevel == 2) {
        state.blockTarget = kLargeTarget;
        state.bzip2BlockSize = 9;
    } else {
        state.blockTarget = kSmallTarget;
        state.bzip2BlockSize = 1;
    }
}

void buildHeaderBlock(std::uint8_t headerTag, std::uint32_t fileFormat, std::uint8_t* out) {
    const bool nve = fileFormat == kNveFileFormat;
    out[0] = kHeaderBlockType;
    out[1] = 0;
    out[2] = 0;
    out[3] = kHeaderBlockLength - kBlockHeaderLength;
    std::memcpy(out + 4, nve ? kSecondHeaderMagic.data() : kFirstHeaderMagic.data(), kMagicLength);
    out[10] = NVB_VERSION_MAJOR;
    out[11] = NVB_VERSION_MINOR;
    out[12] = 0;
    out[13] = 0;
    out[14] = 8;
    out[15] = nve ? 90 : 11;
    if (minimumVersionOverride.active != 0) {
        // Printed for either magic, although only the NVE header takes the values.
        std::fputs("Warning!  Changing minimum NVE requirements - dangerous...\n", stdout);
        if (nve) {
            out[14] = minimumVersionOverride.major;
            out[15] = minimumVersionOverride.minor;
        }
    }
    out[16] = headerTag;
}

std::uint32_t emitBlock(nvb_encode_t& state, std::uint8_t& status) {
    const bool withHeader = state.headerPending == 1;
    std::array<std::uint8_t, kHeaderBlockLength> header{};
    if (withHeader) buildHeaderBlock(state.headerTag, state.fileFormat, header.data());
    const std::uint32_t bodyStart = (withHeader ? kHeaderBlockLength : 0) + kBlockHeaderLength;
    // The output limit is a block's capacity, cut to what the output buffer has behind
    // the headers.
    const std::uint32_t room = std::min(kBlockCapacity, NVB_ENCODE_OUTPUT_CAPACITY - bodyStart);

    std::uint8_t type = 0;
    std::uint32_t length = 0;
    std::uint8_t failure = 0;
    if (!compressBlock(state, {state.output + bodyStart, room}, type, length, failure)) {
        state.outputLength = 0;
        status = failure;
        return 0;
    }
    state.blockFill = 0;
    if (state.compressionMethod <= 3) length += kMagicLength;
    std::uint8_t* blockHeader = state.output + bodyStart - kBlockHeaderLength;
    blockHeader[0] = type;
    blockHeader[1] = static_cast<std::uint8_t>(length >> 16);
    blockHeader[2] = static_cast<std::uint8_t>(length >> 8);
    blockHeader[3] = static_cast<std::uint8_t>(length);
    if (withHeader) {
        std::memcpy(state.output, header.data(), header.size());
        state.headerPending = 0;
    }
    // A restart puts a header block in front of the next block, so the stream can be cut
    // there into pieces each readable alone.
    if (state.restartHeader != 0) {
        state.headerPending = 1;
        state.restartHeader = 0;
    }
    const std::uint32_t unit = bodyStart + length;
    state.outputLength = unit;
    if (state.writeCallback != nullptr) state.writeCallback(state.output, unit, state.writeContext);
    state.outputLength = 0;
    return unit;
}

std::uint32_t appendToBlock(nvb_encode_t& state, std::uint8_t& status) {
    setBlockTarget(state);
    const std::uint32_t frameLength = state.frame.length;
    const std::uint8_t type = state.frame.data[2];
    const bool bare = isBareLevel(state.compressionMethod);
    const std::uint32_t trailer = bare ? (isCompactType(type) ? 3 : 4) : 0;
    // A bare record is length-coded like its frame but three or four bytes shorter: a
    // long record 17 of 256 to 258 bytes can't be told as bare, and is refused whole
    // rather than written with a length that reads back wrong.
    if (frameLength > kMaxFrameLength || frameLength < trailer || (bare && !lengthFitsType(type, frameLength - trailer))) {
        status = NVB_STATUS_FRAME_LENGTH;
        return 0;
    }

    std::uint32_t written = 0;
    if (std::uint64_t{frameLength} + state.blockFill > state.blockTarget || state.flushBlock != 0) {
        std::uint8_t emitStatus = 0;
        written = emitBlock(state, emitStatus);
        if (emitStatus != 0) {
            status = emitStatus;
            return 0;
        }
        state.flushBlock = 0;
    }
    // Closing the block before it passes blockTarget keeps every frame inside the
    // filling block, whose capacity is the largest target.
    if (bare) {
        // Start byte and trailer fall away; the length bytes are rewritten for what remains.
        const auto bareLength = static_cast<std::uint16_t>(frameLength - trailer);
        storeLengthExtension(type, bareLength, state.frame.data[1], state.frame.data[3]);
        std::memcpy(state.block + state.blockFill, state.frame.data + 1, bareLength);
        state.blockFill += bareLength;
    } else {
        std::memcpy(state.block + state.blockFill, state.frame.data, frameLength);
        state.blockFill += frameLength;
    }
    return written;
}

void writeToFile(const std::uint8_t* buffer, std::uint32_t length, void* writeContext) {
    if (writeContext == nullptr) return;
    std::fwrite(buffer, 1, length, static_cast<std::FILE*>(writeContext));
}

std::uint16_t flushHuffman(nvb_encode_t& state) {
    std::uint8_t* out = state.output + state.outputLength;
    int written = huffmanEncodeSymbol(state.huffmanEncoder, kHuffmanEndSymbol, out, false);
    written += huffmanEncodeSymbol(state.huffmanEncoder, 0, out + written, true);
    const auto appended = static_cast<std::uint16_t>(written);
    state.outputLength += appended;
    return appended;
}

std::uint32_t writeHuffmanRecord(nvb_encode_t& state) {
    // Only a length left behind by hand could be this long; it is not built on.
    if (state.outputLength > NVB_ENCODE_OUTPUT_CAPACITY - kHuffmanRecordRoom) state.outputLength = 0;
    if (state.headerPending == 1) {
        // The stream opens with an end symbol: a reader's decoder meets it first and
        // starts clean.
        state.headerPending = 0;
        flushHuffman(state);
    } else {
        state.outputLength = 0;
    }
    const auto frameLength = static_cast<std::uint16_t>(std::min<std::uint32_t>(state.frame.length, kMaxFrameLength));
    state.outputLength +=
        huffmanEncodeBuffer(state.huffmanEncoder, state.frame.data, state.output + state.outputLength, frameLength);
    // Every 600th record ends on a byte boundary with an end symbol, where a reader can start.
    if (state.recordCount % kEndSymbolInterval == 0) flushHuffman(state);
    const std::uint32_t length = state.outputLength;
    if (length == 0) return 0;
    if (state.writeCallback != nullptr) state.writeCallback(state.output, length, state.writeContext);
    state.outputLength = 0;
    return length;
}

}  // namespace nvb
