#include "stream/huffman.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

namespace {

class Huffman : public ::testing::Test {
protected:
    void SetUp() override {
        nvb::huffmanFree();
        ASSERT_TRUE(nvb::huffmanBuild());
    }

    static std::string bitsOf(std::uint16_t symbol) {
        const nvb::HuffmanCode& code = nvb::huffmanCodeOf(symbol);
        std::string bits;
        for (int bit = code.length - 1; bit >= 0; --bit) bits += ((code.code >> bit) & 1u) != 0 ? '1' : '0';
        return bits;
    }
};

TEST_F(Huffman, CodesOfTheNamedSymbolsAreTheKnownOnes) {
    EXPECT_EQ(bitsOf(0), "100");
    EXPECT_EQ(bitsOf(32), "00010");
    EXPECT_EQ(bitsOf(255), "00111");
    EXPECT_EQ(bitsOf(nvb::kHuffmanEndSymbol), "10111001111");
}

TEST_F(Huffman, CodeLengthsFollowTheKnownDistribution) {
    std::map<int, int> lengths;
    for (std::uint16_t symbol = 0; symbol < nvb::kHuffmanSymbolCount; ++symbol) {
        ++lengths[nvb::huffmanCodeOf(symbol).length];
    }
    const std::map<int, int> expected = {{3, 1}, {4, 1}, {5, 4}, {6, 7}, {7, 19}, {8, 47}, {9, 75}, {10, 101}, {11, 2}};
    EXPECT_EQ(lengths, expected);
}

TEST_F(Huffman, BuildRefusesWhileATreeExists) { EXPECT_FALSE(nvb::huffmanBuild()); }

TEST_F(Huffman, EndSymbolThrowsAwayTheRestOfItsByte) {
    // End symbol, then symbol 0 completing in the same byte: 10111001 11110010 0...
    // The decoder reports -1 and drops the symbol behind the end.
    nvb_huffman_encoder_t encoder{};
    std::uint8_t coded[8] = {};
    int used = nvb::huffmanEncodeSymbol(encoder, nvb::kHuffmanEndSymbol, coded, false);
    used += nvb::huffmanEncodeSymbol(encoder, 0, coded + used, false);
    used += nvb::huffmanEncodeSymbol(encoder, 0, coded + used, false);
    used += nvb::huffmanEncodeSymbol(encoder, 0, coded + used, true);
    ASSERT_EQ(used, 3);
    EXPECT_EQ(coded[1], 0b11110010);
    const void* position = nullptr;
    nvb::huffmanDecodeByte(position, 0, nullptr, true);
    std::uint8_t out[8];
    EXPECT_EQ(nvb::huffmanDecodeByte(position, coded[0], out, false), 0);
    EXPECT_EQ(nvb::huffmanDecodeByte(position, coded[1], out, false), -1);
    EXPECT_EQ(position, static_cast<const void*>(nvb::huffmanRoot()));
}

TEST_F(Huffman, FlushPadsWithZeroBitsAndWritesNothingWhenNothingIsPending) {
    nvb_huffman_encoder_t encoder{};
    std::uint8_t out[4] = {0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(nvb::huffmanEncodeSymbol(encoder, 0, out, true), 0);
    EXPECT_EQ(out[0], 0xFF);
    int used = nvb::huffmanEncodeSymbol(encoder, nvb::kHuffmanEndSymbol, out, false);
    ASSERT_EQ(used, 1);  // eight of the eleven bits
    EXPECT_EQ(nvb::huffmanEncodeSymbol(encoder, 0, out + used, true), 1);
    EXPECT_EQ(out[0], 0b10111001);
    EXPECT_EQ(out[1], 0b11100000);
    EXPECT_EQ(encoder.bitCount, 0);
}

TEST_F(Huffman, DecodingWithoutATreeDeliversNothing) {
    nvb::huffmanFree();
    const void* position = nullptr;
    std::uint8_t out[8];
    EXPECT_EQ(nvb::huffmanDecodeByte(position, 0x80, out, false), 0);
}

}  // namespace
