#include "stream/block_reader.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"
#include "stream/block_codecs.h"
#include "stream/framing.h"
#include "stream/huffman.h"
#include "stream/scrambling.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <span>

namespace nvb {

namespace {

constexpr std::uint32_t kNewestReaderNeeded = NVB_VERSION_MAJOR * 100u + NVB_VERSION_MINOR;
// Type, three length bytes and the longest magic: what a candidate block start needs.
constexpr std::int64_t kCandidateSpan = 10;
constexpr std::int64_t kGarbageRun = 4096;
constexpr int kRecordFailure = 255;

std::uint32_t blockLengthAt(const std::uint8_t* block) {
    return (static_cast<std::uint32_t>(block[1]) << 16) | (static_cast<std::uint32_t>(block[2]) << 8) | block[3];
}

void emptyOutput(nvb_expand_t& state) {
    state.blockBytes = 0;
    state.blockReadPos = 0;
}

void readHeaderBlock(nvb_expand_t& state, std::uint32_t length) {
    // A header block shorter than the writer's reads its missing fields as zero.
    std::array<std::uint8_t, kHeaderBlockLength> header{};
    std::memcpy(header.data(), state.blockInput,
                std::min<std::uint32_t>(length + kBlockHeaderLength, kHeaderBlockLength));
    state.writerMajor = header[10];
    state.writerMinor = header[11];
    state.headerByte12 = header[12] & 0x7Fu;
    state.headerFlagBit = static_cast<std::uint8_t>(header[12] >> 7);
    state.headerByte13 = header[13];
    state.minReaderMajor = header[14];
    state.minReaderMinor = header[15];
    state.headerTag = header[16];
}

// Level 2: the Huffman code of frames. The loop count is 16 bits wide, which bounds what
// one block can yield to eight bytes for each of 65535 input bytes.
std::uint32_t decodeHuffmanBody(const std::uint8_t* body, std::uint32_t length, std::uint8_t* out) {
    const void* position = nullptr;
    std::uint8_t scratch[8];
    huffmanDecodeByte(position, 0, scratch, true);
    const auto count = static_cast<std::uint16_t>(length);
    std::uint32_t produced = 0;
    for (std::uint16_t i = 0; i < count; ++i) {
        const int decoded = huffmanDecodeByte(position, body[i], out + produced, false);
        if (decoded > 0) produced += static_cast<std::uint32_t>(decoded);
    }
    return produced;
}

// Decompresses the block at the front of the input into the output buffer. Returns 1 on
// success, 0 for a Huffman block that yielded nothing, -1 with `failure` on failure.
int decodeBody(nvb_expand_t& state, const BlockRow& row, std::uint32_t length, std::uint8_t& failure) {
    const std::span<std::uint8_t> out(state.blockOutput, kBlockCapacity);
    // The six magic bytes of the framed and zlib levels count in L, ahead of the data.
    const std::uint32_t end = length + kBlockHeaderLength;
    const std::span<const std::uint8_t> data(state.blockInput + row.dataOffset,
                                             end > row.dataOffset ? end - row.dataOffset : 0);
    std::uint32_t produced = 0;
    bool decoded = true;
    switch (row.level) {
        case 1:
            std::memcpy(out.data(), data.data(), data.size());
            produced = static_cast<std::uint32_t>(data.size());
            break;
        case 2:
            produced = decodeHuffmanBody(data.data(), static_cast<std::uint32_t>(data.size()), out.data());
            if (produced == 0) {
                state.blockBytes = 0;
                return 0;
            }
            break;
        case 3:
            decoded = inflateBody(data, out, produced);
            failure = NVB_STATUS_ZLIB;
            break;
        case 4:
        case 5:
            decoded = bzip2Decompress(data, out, produced);
            failure = NVB_STATUS_BZIP2;
            break;
        case 6:
            decoded = data.size() >= kBrotliPrefix.size() &&
                      brotliDecompress(data.subspan(kBrotliPrefix.size()), out, produced);
            failure = NVB_STATUS_BROTLI;
            break;
        default:
            decoded = zstdDecompress(data, out, produced);
            failure = NVB_STATUS_ZSTD;
            break;
    }
    if (!decoded) return -1;
    state.blockBytes = produced;
    state.blockReadPos = 0;
    return 1;
}

// After a failure in normal reading the search runs at once; it may already find and
// decode the next block.
int failureTail(nvb_expand_t& state, std::uint8_t& status) {
    if (state.searching == 0 && searchBlockStart(state, status)) return 1;
    return -1;
}

bool isCandidate(const std::uint8_t* bytes, std::size_t row) {
    const BlockRow& candidate = kBlockRows[row];
    return bytes[0] == row && blockLengthAt(bytes) <= kBlockCapacity &&
           std::memcmp(bytes + kBlockHeaderLength, candidate.magic.data(), candidate.magicLength) == 0;
}

int refuseRecord(nvb_expand_t& state, std::uint8_t& status) {
    status = NVB_STATUS_FRAME_LENGTH;
    emptyOutput(state);
    return kRecordFailure;
}

}  // namespace

bool isBlockStreamStart(const std::uint8_t* firstTen) {
    if (firstTen[0] != 0 || firstTen[1] != 0 || firstTen[2] != 0) return false;
    return std::memcmp(firstTen + 4, kFirstHeaderMagic.data(), kMagicLength) == 0 ||
           std::memcmp(firstTen + 4, kSecondHeaderMagic.data(), kMagicLength) == 0;
}

void discardInput(nvb_expand_t& state, std::int64_t count) {
    if (count <= 0) return;
    const auto removed = static_cast<std::uint32_t>(std::min<std::int64_t>(count, state.inputFill));
    state.inputFill -= removed;
    std::memmove(state.blockInput, state.blockInput + removed, state.inputFill);
}

int decodeBlock(nvb_expand_t& state, std::uint8_t& status) {
    if (state.inputFill <= kBlockHeaderLength) return 0;
    const std::uint8_t* block = state.blockInput;
    const std::uint32_t length = blockLengthAt(block);
    if (length + kBlockHeaderLength > kBlockCapacity) {
        state.blockBytes = 0;
        status = NVB_STATUS_BZIP2;  // the status of a bzip2 failure tells a block too long too
        return failureTail(state, status);
    }
    if (state.inputFill - kBlockHeaderLength < length) return 0;

    const std::uint8_t type = block[0];
    // An unknown block stays where it is: every further byte meets it again.
    if (type > kZstdType) {
        status = NVB_STATUS_EXPANSION;  // as a compact record that fails, a block type unknown
        return -1;
    }
    if (type == kHeaderBlockType) {
        readHeaderBlock(state, length);
        // A refused header stays in the buffer, so the reader never passes it.
        if (state.minReaderMajor * 100u + state.minReaderMinor > kNewestReaderNeeded) {
            state.headerAccepted = 0;
            state.blockBytes = 0;
            status = NVB_STATUS_READER_TOO_OLD;
            return -1;
        }
        ++state.headerCount;
        state.headerSeen = 1;
        state.headerAccepted = 1;
        discardInput(state, length + kBlockHeaderLength);
        return 1;
    }

    const BlockRow& row = kBlockRows[type];
    const std::uint8_t level = row.level;
    state.blockLevel = level;
    if (type == kBzip2ScrambledType && (state.descramble & 1u) == 0) {
        state.blockBytes = 0;
        status = NVB_STATUS_SCRAMBLED;
        return -1;
    }
    // The reader's table runs from the block's first byte, four bytes out of step with
    // the writer's, which starts at the body; both are kept as the format has them.
    if ((state.descramble & 1u) != 0) scrambleBlock(state.blockInput, length);
    if (state.headerAccepted == 0) {
        state.blockBytes = 0;
        status = NVB_STATUS_READER_TOO_OLD;
        discardInput(state, length + kBlockHeaderLength);
        return -1;
    }

    std::uint8_t failure = 0;
    const int decoded = decodeBody(state, row, length, failure);
    if (decoded == 0) return 0;
    if (decoded < 0) {
        status = failure;
        state.blockBytes = 0;
        if (level >= 4) state.bzip2LevelSeen = 0;
        return failureTail(state, status);
    }
    if (level == 4 || level == 5)
        state.bzip2LevelSeen = static_cast<std::uint32_t>(block[kBlockHeaderLength + 3]) - '0';
    // Only the compressed levels report the end of a search, whether the search decoded
    // the block itself or handed over its beginning; after the copy, Huffman and zlib
    // levels reading stays as it was.
    if (level >= 4) {
        status = state.searching != 0 || state.resyncPending != 0 ? NVB_STATUS_RESYNCHRONISED : 0;
        state.searching = 0;
    }
    state.resyncPending = 0;
    discardInput(state, length + kBlockHeaderLength);
    return 1;
}

bool searchBlockStart(nvb_expand_t& state, std::uint8_t& status) {
    const auto lastPosition = [&state] { return static_cast<std::int64_t>(state.inputFill) - kCandidateSpan; };
    std::int64_t position = 1;
    if (state.searching != 0) {
        // Each new byte completes one new candidate position.
        position = lastPosition();
        if (position < 0) return false;
    } else {
        // Position 0 is the block that failed.
        state.searching = 1;
        if (lastPosition() < 1) return false;
    }
    for (; position <= lastPosition(); ++position) {
        for (std::size_t row = 0; row < kBlockRows.size() && position <= lastPosition(); ++row) {
            if (!isCandidate(state.blockInput + position, row)) continue;
            discardInput(state, position);
            position = 0;
            const int decoded = decodeBlock(state, status);
            if (decoded == 0) {
                // The beginning of a plausible block: normal reading goes on, and the block's
                // decoding reports that reading has found its footing again.
                state.searching = 0;
                state.resyncPending = 1;
                return false;
            }
            if (decoded == 1 && row > 0) return true;
        }
    }
    // A long run of garbage is dropped, keeping the bytes of the last position tested.
    if (position > kGarbageRun) discardInput(state, position - 1);
    return false;
}

int feedBlockByte(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more, std::uint8_t& status) {
    more = 0;
    if (haveByte) {
        // A readable stream never fills the buffer; a block that stays at its front (an
        // unknown type, a refused header, a scrambled block) would, so a byte that finds
        // it full is dropped.
        if (state.inputFill < kBlockCapacity) state.blockInput[state.inputFill++] = byte;
        if (state.searching == 0) {
            const int decoded = decodeBlock(state, status);
            if (decoded <= 0) return decoded;
        } else if (!searchBlockStart(state, status)) {
            return 0;
        }
    }
    if (state.searching == 0) return nextBlockRecord(state, more, status);
    return 0;
}

std::size_t takeQuietBlockBytes(nvb_expand_t& state, const std::uint8_t* bytes, std::size_t count) {
    if (state.detectPending != 0 || state.byteMode != 0 || state.searching != 0 || state.blockBytes != 0) return 0;
    std::size_t taken = 0;
    while (taken < count) {
        // Up to the block header nothing is looked at; behind it, everything short of
        // the block's last byte.
        std::size_t quiet = 0;
        if (state.inputFill < kBlockHeaderLength) {
            quiet = kBlockHeaderLength - state.inputFill;
        } else {
            const std::size_t whole = std::size_t{blockLengthAt(state.blockInput)} + kBlockHeaderLength;
            if (whole > kBlockCapacity || state.inputFill + 1 >= whole) break;
            quiet = whole - 1 - state.inputFill;
        }
        const std::size_t step = std::min(quiet, count - taken);
        std::memcpy(state.blockInput + state.inputFill, bytes + taken, step);
        state.inputFill += static_cast<std::uint32_t>(step);
        taken += step;
    }
    if (taken > 0) state.currentType = 0;
    return taken;
}

int nextBlockRecord(nvb_expand_t& state, std::uint8_t& more, std::uint8_t& status) {
    if (state.blockBytes == 0) return 0;
    const std::uint32_t blockBytes = state.blockBytes;
    const std::uint32_t end = std::min(blockBytes, kBlockCapacity);
    const std::uint32_t position = state.blockReadPos;
    const std::uint32_t available = end > position ? end - position : 0;
    // Header bytes past the end of the block read as zero; such a record is refused below.
    const auto byteAt = [&state, end](std::uint32_t offset) -> std::uint8_t {
        return offset < end ? state.blockOutput[offset] : 0;
    };

    const bool bare = isBareLevel(state.blockLevel);
    const std::uint32_t headerAt = position + (bare ? 0 : 1);
    const std::uint8_t type = byteAt(headerAt + 1);
    const std::uint32_t length = addLengthExtension(type, byteAt(headerAt), byteAt(headerAt + 2));
    state.recordOffset = state.nextRecordOffset;
    state.nextRecordOffset += length;
    std::memset(&state.frame, 0, sizeof state.frame);

    const std::uint32_t lead = bare ? 1 : 0;
    const std::uint32_t trailer = bare ? (isCompactType(type) ? 3 : 4) : 0;
    // The rebuilt frame must fit the frame buffer too, trailer included.
    if (length + lead > kMaxFrameLength || length + trailer > kMaxFrameLength) {
        logMessage("nvbbuf length overflow %d %d %d\n", static_cast<int>(lead), static_cast<int>(length),
                   static_cast<int>(kMaxFrameLength));
        return refuseRecord(state, status);
    }
    const std::uint32_t frameLength = length + trailer;
    // A record that runs past the block's end, or whose rebuilt length its type can't
    // code, is refused like a record of length 0.
    if (length > available || (bare && !lengthFitsType(type, frameLength))) return refuseRecord(state, status);

    std::memcpy(state.frame.data + lead, state.blockOutput + position, length);
    state.frame.length = static_cast<std::uint16_t>(frameLength);
    if (bare) {
        // The checksum bytes stay zero: a rebuilt frame is not checked.
        state.frame.data[0] = kStartByte;
        storeLengthExtension(type, frameLength, state.frame.data[1], state.frame.data[3]);
        if (!isCompactType(type)) state.frame.data[frameLength - 1] = kEndByte;
    }
    if (length == 0) {
        logMessage("Warning: 0-length raw record type %d\n", type);
        return refuseRecord(state, status);
    }

    state.blockReadPos += length;
    if (state.blockReadPos >= end) {
        emptyOutput(state);
    } else {
        more = 1;
    }
    return type;
}

}  // namespace nvb
