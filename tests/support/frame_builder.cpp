#include "support/frame_builder.h"

#include "common/byte_sum.h"
#include "stream/huffman.h"

namespace nvbtest {

namespace {

Bytes closeFrame(Bytes frame) {
    const std::uint16_t sum = nvb::byteSum(frame.data(), frame.size());
    frame.push_back(static_cast<std::uint8_t>(sum >> 8));
    frame.push_back(static_cast<std::uint8_t>(sum));
    frame.push_back(0x03);
    return frame;
}

}  // namespace

Bytes plainFrame(std::uint8_t type, const Bytes& body) {
    Bytes frame = {0x02, static_cast<std::uint8_t>(body.size() + 6), type};
    frame.insert(frame.end(), body.begin(), body.end());
    return closeFrame(frame);
}

Bytes plainFrameLong(std::uint8_t type, const Bytes& body) {
    const std::size_t length = body.size() + 7;
    Bytes frame = {0x02, static_cast<std::uint8_t>(length), type, static_cast<std::uint8_t>(length >> 8)};
    frame.insert(frame.end(), body.begin(), body.end());
    return closeFrame(frame);
}

Bytes junk(std::size_t count, std::uint8_t seed) {
    Bytes bytes(count);
    std::uint32_t x = seed;
    for (auto& byte : bytes) {
        x = x * 1103515245u + 12345u;
        byte = static_cast<std::uint8_t>(x >> 16);
        if (byte == 0x02) byte = 0x42;
    }
    return bytes;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const Bytes& part : parts) all.insert(all.end(), part.begin(), part.end());
    return all;
}

void ensureHuffmanTree() {
    if (nvb::huffmanRoot() == nullptr) nvb::huffmanBuild();
}

Bytes huffmanEncode(const Bytes& plain, bool endSymbolFirst) {
    ensureHuffmanTree();
    nvb_huffman_encoder_t encoder{};
    Bytes out(plain.size() * 2 + 16);
    std::size_t used = 0;
    if (endSymbolFirst) {
        used += static_cast<std::size_t>(nvb::huffmanEncodeSymbol(encoder, nvb::kHuffmanEndSymbol, out.data() + used, false));
        used += static_cast<std::size_t>(nvb::huffmanEncodeSymbol(encoder, 0, out.data() + used, true));
    }
    for (const std::uint8_t byte : plain) {
        used += static_cast<std::size_t>(nvb::huffmanEncodeSymbol(encoder, byte, out.data() + used, false));
    }
    used += static_cast<std::size_t>(nvb::huffmanEncodeSymbol(encoder, 0, out.data() + used, true));
    out.resize(used);
    return out;
}

Bytes huffmanEncodeChunks(std::initializer_list<Bytes> chunks) {
    ensureHuffmanTree();
    nvb_huffman_encoder_t encoder{};
    Bytes out;
    std::uint8_t scratch[4];
    auto emit = [&](std::uint16_t symbol, bool flush) {
        const int count = nvb::huffmanEncodeSymbol(encoder, symbol, scratch, flush);
        out.insert(out.end(), scratch, scratch + count);
    };
    for (const Bytes& chunk : chunks) {
        for (const std::uint8_t byte : chunk) emit(byte, false);
        emit(nvb::kHuffmanEndSymbol, false);
        emit(0, true);
    }
    return out;
}

}  // namespace nvbtest
