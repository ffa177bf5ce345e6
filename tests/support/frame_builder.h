#ifndef NVB_TESTS_FRAME_BUILDER_H
#define NVB_TESTS_FRAME_BUILDER_H

#include <cstdint>
#include <vector>

namespace nvbtest {

using Bytes = std::vector<std::uint8_t>;

// The states are packed: a test reads a wide field by value before comparing it, since
// the comparison macros bind references.
template <typename T>
T copyOf(T value) {
    return value;
}

// A plain frame of `type` around `body` (the bytes from offset 3, or from offset 4 for
// types that keep a high length byte there): start byte, length, type, body, checksum, end.
Bytes plainFrame(std::uint8_t type, const Bytes& body);

// A frame of a type with a high length byte at offset 3 (27, 29, 98, ...).
Bytes plainFrameLong(std::uint8_t type, const Bytes& body);

// Bytes of `count` values that the stream never mistakes for a start byte.
Bytes junk(std::size_t count, std::uint8_t seed = 1);

// Concatenates byte strings.
Bytes concat(std::initializer_list<Bytes> parts);

// The Huffman coding of a byte stream, as the writer of a byte stream produces it.
Bytes huffmanEncode(const Bytes& plain, bool endSymbolFirst = false);

// Huffman coding of several chunks, each closed by an end symbol and zero padding, as a
// byte-stream writer closes every 600 records.
Bytes huffmanEncodeChunks(std::initializer_list<Bytes> chunks);

}  // namespace nvbtest

#endif
