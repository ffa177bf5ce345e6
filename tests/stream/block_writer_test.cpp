#include "stream/block_codecs.h"
#include "support/blocks.h"
#include "stream/scrambling.h"

#include <gtest/gtest.h>

namespace {

using namespace nvbtest::blocks;

Bytes writtenHeader(std::uint8_t tag, std::uint32_t format) {
    Bytes header(nvb::kHeaderBlockLength);
    nvb::buildHeaderBlock(tag, format, header.data());
    return header;
}

std::vector<Bytes> framesOfLength(std::size_t count, std::size_t length) {
    std::mt19937 random(3);
    std::vector<Bytes> frames;
    for (std::size_t i = 0; i < count; ++i) frames.push_back(frameOfLength(98, length, random));
    return frames;
}

TEST(HeaderBlock, CarriesMagicVersionsAndTagOfEachFormat) {
    EXPECT_EQ(writtenHeader(0x42, 0),
              (Bytes{0, 0, 0, 13, 0x74, 0xBA, 0x79, 0x4B, 0xCF, 0x6B, 8, 97, 0, 0, 8, 11, 0x42}));
    EXPECT_EQ(writtenHeader(255, 5), (Bytes{0, 0, 0, 13, 0xD1, 0x60, 0x42, 0x2E, 0xF8, 0xF9, 8, 97, 0, 0, 8, 90, 255}));
}

TEST(EmitBlock, FirstUnitCarriesHeaderAndBlockInOneCallback) {
    EncodeHarness writer(1);
    writer.writeAll(framesOfLength(3, 100));
    writer.writeAll(framesOfLength(3, 100));
    ASSERT_EQ(writer.units().size(), 2u);
    const Bytes& first = writer.units()[0].bytes;
    EXPECT_EQ(Bytes(first.begin(), first.begin() + 17), writtenHeader(255, 0));
    EXPECT_EQ(Bytes(first.begin() + 17, first.begin() + 21), (Bytes{4, 0, 0x01, 0x32})) << "six magic bytes and 300";
    EXPECT_EQ(first.size(), 21u + 306u);
    EXPECT_EQ(writer.units()[1].bytes[0], 4) << "no header in front of the second block";
}

TEST(EmitBlock, FlushOfAnEmptyBlockWritesABlockWithoutData) {
    for (std::uint8_t method = 1; method <= 7; ++method) {
        EncodeHarness writer(method);
        nvb_encode_t& state = writer.state();
        state.flushBlock = 1;
        const Bytes frame = framesOfLength(1, 50)[0];
        std::memcpy(state.frame.data, frame.data(), frame.size());
        state.frame.length = 50;
        std::uint8_t status = 0;
        const std::uint32_t written = nvb::appendToBlock(state, status);
        EXPECT_EQ(written, writer.units().at(0).bytes.size());
        EXPECT_EQ(copyOf(state.blockFill), method == 1 || method == 2 || method == 4 ? 50u : 46u);
        nvbtest::Handle handle;
        EXPECT_TRUE(readByByte(handle.get(), writer.units()[0].bytes).empty()) << "method " << int(method);
        EXPECT_EQ(copyOf(handle->headerCount), 1u);
    }
}

TEST(AppendToBlock, BlocksCloseBeforeTheirTargetAndHuffmanBlocksStaySmall) {
    struct Case {
        std::uint8_t method, level;
        std::size_t target;
    };
    for (const Case& c : {Case{1, 0, 32768}, Case{1, 1, 262144}, Case{2, 2, 32768}}) {
        EncodeHarness writer(c.method, c.level);
        const auto frames = mixedFrames(1000, 9);
        writer.writeAll(frames);
        ASSERT_GT(writer.units().size(), 1u);
        for (std::size_t i = 0; i < writer.units().size(); ++i) {
            const WrittenUnit& unit = writer.units()[i];
            const Bytes body(unit.bytes.begin() + (i == 0 ? 27 : 10), unit.bytes.end());
            std::size_t held = body.size();
            if (c.method == 2) {
                // What the Huffman body decodes to from the root; an end symbol counts nothing.
                const void* position = nullptr;
                std::uint8_t out[8];
                nvb::huffmanDecodeByte(position, 0, out, true);
                held = 0;
                for (const std::uint8_t byte : body)
                    held += std::max(0, nvb::huffmanDecodeByte(position, byte, out, false));
            }
            EXPECT_LE(held, c.target);
            if (i + 1 < writer.units().size()) {
                EXPECT_GT(held + frames[unit.firstFrame + unit.frameCount].size(), c.target);
            }
        }
    }
}

TEST(Scrambling, OnlyTheBzip2MethodsScrambleAndOnlyMethod5SaysSo) {
    const auto frames = mixedFrames(80, 4);
    for (std::uint8_t method = 1; method <= 7; ++method) {
        EncodeHarness clear(method);
        EncodeHarness scrambled(method);
        scrambled.state().scrambleBlocks = 1;
        clear.writeAll(frames);
        scrambled.writeAll(frames);
        const Bytes& plainUnit = clear.units()[0].bytes;
        Bytes unit = scrambled.units()[0].bytes;
        EXPECT_EQ(unit[17], method == 5 ? 6 : plainUnit[17]);
        if (method == 4 || method == 5) {
            EXPECT_NE(unit, plainUnit);
            nvb::scrambleBlock(unit.data() + 21, unit.size() - 21);
            unit[17] = plainUnit[17];
        }
        EXPECT_EQ(unit, plainUnit) << "method " << int(method);
    }
}

TEST(EmitBlock, AFailingCompressorWritesNothingAndTheBlockWaits) {
    struct Case {
        std::uint8_t method, level, explicitLevel, status;
    };
    for (const Case& c : {Case{3, 3, 42, 10}, Case{9, 0, 0, 13}}) {
        EncodeHarness writer(c.method, c.level);
        nvb_encode_t& state = writer.state();
        state.explicitLevel = c.explicitLevel;
        const auto frames = framesOfLength(10, 5000);
        std::uint8_t status = 0;
        std::size_t given = 0;
        while (status == 0 && given < frames.size()) writer.write(frames[given++], status);
        EXPECT_EQ(status, c.status);
        const std::uint32_t held = state.blockFill;
        EXPECT_EQ(writer.write(frames[given], status), 0u);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(copyOf(state.blockFill), held) << "the block is kept and the next frame not added";
        EXPECT_EQ(copyOf(state.outputLength), 0u);
        EXPECT_EQ(state.headerPending, 1);
        EXPECT_TRUE(writer.units().empty());
    }
}

}  // namespace
