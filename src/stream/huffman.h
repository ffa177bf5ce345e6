#ifndef NVB_STREAM_HUFFMAN_H
#define NVB_STREAM_HUFFMAN_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

inline constexpr std::uint16_t kHuffmanEndSymbol = 256;
inline constexpr int kHuffmanSymbolCount = 257;

struct HuffmanNode;

// One entry of the code table, per symbol.
struct HuffmanCode {
    const HuffmanNode* leaf;
    std::uint16_t symbol;
    std::uint32_t weight;
    std::uint8_t length;
    std::uint16_t code; // most significant bit first, `length` bits
};

// Builds the process-wide tree and code table from the fixed weights. Returns false and
// does nothing when a tree already exists.
bool huffmanBuild();
// Frees the tree and clears the tables.
void huffmanFree();
// The root of the tree, null when none is built.
[[nodiscard]] const HuffmanNode* huffmanRoot();
// The code of a symbol (0..256); only valid after huffmanBuild.
[[nodiscard]] const HuffmanCode& huffmanCodeOf(std::uint16_t symbol);

// With flush 0 appends the code of `symbol` and writes each finished byte to `out`. With
// flush 1 pads pending bits with zeros and writes them.
// Returns the bytes written.
int huffmanEncodeSymbol(nvb_huffman_encoder_t& encoder, std::uint16_t symbol, std::uint8_t* out,
                        bool flush);
// Encodes `count` bytes; returns the bytes written to `out`.
std::uint32_t huffmanEncodeBuffer(nvb_huffman_encoder_t& encoder, const std::uint8_t* in,
                                  std::uint8_t* out, std::uint16_t count);
// With reset sets `position` to the root and returns 0. Otherwise consumes the 8 bits of
// `byte` and returns how many decoded bytes it stored in `out` (0 to 8), or -1 when the end
// symbol was met (the bytes of this call are then dropped and `position` is the root).
int huffmanDecodeByte(const void*& position, std::uint8_t byte, std::uint8_t* out, bool reset);

}  // namespace nvb

#endif
