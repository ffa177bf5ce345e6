#ifndef NVB_STREAM_BLOCK_WRITER_H
#define NVB_STREAM_BLOCK_WRITER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Process-wide, set by nothing in the library: when active, an NVE header block carries
// these two bytes as its minimum reader version.
struct MinimumVersionOverride {
    std::uint8_t active;
    std::uint8_t major;
    std::uint8_t minor;
};
extern MinimumVersionOverride minimumVersionOverride;

// Whether a compression method keeps its records bare (3, 5, 6, 7) rather than framed.
[[nodiscard]] bool isBareMethod(std::uint8_t method);

// Recomputes blockTarget and bzip2BlockSize from compressionLevel and compressionMethod.
void setBlockTarget(nvb_encode_t& state);

// Builds the 17-byte header block: the NVE magic and minimum reader 8.90 for fileFormat 5,
// the first magic and 8.11 otherwise.
void buildHeaderBlock(std::uint8_t headerTag, std::uint32_t fileFormat, std::uint8_t* out);

// Compresses the filling block by compressionMethod and hands the unit (header block
// first while one is pending) to writeCallback. Returns the bytes of the unit; 0 with
// `status` (8 bzip2, 10 zlib, 13 unknown method, 24 brotli, 25 zstd) on failure, the
// filling block then kept as it was.
[[nodiscard]] std::uint32_t emitBlock(nvb_encode_t& state, std::uint8_t& status);

// Adds the frame in the frame buffer to the filling block, as a frame or as a bare record
// by method, closing the block first when the frame would pass blockTarget or flushBlock
// is set. Returns the bytes that closing wrote, or 0. A failed closing leaves the frame
// out; a frame longer than the frame buffer, or too short for its trailer, gets status 3.
[[nodiscard]] std::uint32_t appendToBlock(nvb_encode_t& state, std::uint8_t& status);

// The default write callback: fwrite to the FILE* in writeContext, nothing when it is null.
void writeToFile(const std::uint8_t* buffer, std::uint32_t length, void* writeContext);

// Method 0: Huffman-codes the frame into the output and hands it to writeCallback. The
// stream opens with an end symbol, and every 600th record closes with one. Returns the
// bytes written.
std::uint32_t writeHuffmanRecord(nvb_encode_t& state);

// Appends the end symbol and the padding of the partial byte behind the output. Returns
// the bytes appended.
std::uint16_t flushHuffman(nvb_encode_t& state);

}  // namespace nvb

#endif
