#ifndef NVB_STREAM_BLOCK_CODECS_H
#define NVB_STREAM_BLOCK_CODECS_H

#include <nvbdll/state.h>

#include <array>
#include <cstdint>
#include <span>

namespace nvb {

inline constexpr std::uint32_t kBlockCapacity = NVB_BLOCK_CAPACITY;
inline constexpr std::uint32_t kBlockHeaderLength = 4;
inline constexpr std::uint32_t kHeaderBlockLength = 17;
inline constexpr std::uint32_t kMagicLength = 6;

inline constexpr std::array<std::uint8_t, 6> kFirstHeaderMagic = {0x74, 0xBA, 0x79, 0x4B, 0xCF, 0x6B};
inline constexpr std::array<std::uint8_t, 6> kSecondHeaderMagic = {0xD1, 0x60, 0x42, 0x2E, 0xF8, 0xF9};

// Row i of the block table pairs block type byte i with the magic that stands at offset 4.
// Level 0 marks the two rows without a content level of their own.
struct BlockRow {
    std::array<std::uint8_t, 6> magic;
    std::uint8_t magicLength;
    std::uint8_t level;
    std::uint8_t dataOffset;
};

// The block types and their magics, as the search of a block start tests them.
inline constexpr std::array<BlockRow, 10> kBlockRows = {{
    {kFirstHeaderMagic, 6, 0, 0},
    {{0x42, 0x5A, 0x68}, 3, 4, 4},
    {{0xC2, 0xEA, 0xB4, 0xD8, 0xBE, 0xF1}, 6, 3, 10},
    {{0x77, 0x01, 0xEE, 0xA8, 0x9C, 0xCC}, 6, 2, 10},
    {{0xA1, 0x74, 0xF9, 0x60, 0x35, 0x99}, 6, 1, 10},
    {{0x42, 0x5A, 0x68}, 3, 5, 4},
    {{0x42, 0x5A, 0x68}, 3, 5, 4},
    {{0x01, 0x00, 0x00}, 3, 6, 4},
    {{0x03, 0x00, 0x00}, 3, 7, 4},
    {kSecondHeaderMagic, 6, 0, 0},
}};

// Block types as the writer chooses them.
inline constexpr std::uint8_t kHeaderBlockType = 0;
inline constexpr std::uint8_t kBzip2FramesType = 1;
inline constexpr std::uint8_t kZlibType = 2;
inline constexpr std::uint8_t kHuffmanType = 3;
inline constexpr std::uint8_t kCopyType = 4;
inline constexpr std::uint8_t kBzip2BareType = 5;
inline constexpr std::uint8_t kBzip2ScrambledType = 6;
inline constexpr std::uint8_t kBrotliType = 7;
inline constexpr std::uint8_t kZstdType = 8;

// The levels, and the methods that write them, whose blocks hold bare records (no start
// byte, checksum or end byte): zlib, bzip2, brotli and zstd.
[[nodiscard]] constexpr bool isBareLevel(std::uint8_t level) {
    return level == 3 || level == 5 || level == 6 || level == 7;
}

// The brotli body carries these three bytes ahead of the brotli stream.
inline constexpr std::array<std::uint8_t, 3> kBrotliPrefix = {0x01, 0x00, 0x00};

// One-shot calls on whole blocks. Each fills `out` from its front, sets `produced` and
// returns false on any failure of the library (including output that does not fit).
[[nodiscard]] bool inflateBody(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, std::uint32_t& produced);
[[nodiscard]] bool deflateBody(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int level,
                               std::uint32_t& produced);
[[nodiscard]] bool bzip2Decompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out,
                                   std::uint32_t& produced);
[[nodiscard]] bool bzip2Compress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int blockSize,
                                 std::uint32_t& produced);
[[nodiscard]] bool brotliDecompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out,
                                    std::uint32_t& produced);
[[nodiscard]] bool brotliCompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int quality,
                                  std::uint32_t& produced);
[[nodiscard]] bool zstdDecompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out,
                                  std::uint32_t& produced);
[[nodiscard]] bool zstdCompress(std::span<const std::uint8_t> in, std::span<std::uint8_t> out, int level,
                                std::uint32_t& produced);

}  // namespace nvb

#endif
