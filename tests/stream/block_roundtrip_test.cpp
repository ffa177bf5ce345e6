#include "support/blocks.h"
#include "stream/scrambling.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iterator>

namespace {

using namespace nvbtest::blocks;

std::string methodName(const ::testing::TestParamInfo<int>& param) {
    return "Method" + std::to_string(param.param);
}

class BlockRoundTrip : public ::testing::TestWithParam<int> {};

// In the block methods, restarts cut the stream into pieces: read whole or each alone.
TEST_P(BlockRoundTrip, MixedFramesComeBackInOrderThroughBothGettersAndEachRestartedPieceAlone) {
    const int method = GetParam();
    const auto frames = mixedFrames(700, 11u + static_cast<unsigned>(method));
    EncodeHarness writer(static_cast<std::uint8_t>(method));
    std::uint8_t status = 0;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        if (method != 0 && (i == 37 || i == 150 || i == 151 || i == 290)) writer.state().restartHeader = 1;
        writer.write(frames[i], status);
    }
    writer.finish();
    ASSERT_TRUE(method == 0 ? writer.units().size() == frames.size() + 1 : writer.units().size() > 8u)
        << "the byte stream hands over each record as it is coded and its close; blocks span many units";
    for (const auto getter : {nvbtest::Getter::NvbByByte, nvbtest::Getter::NvbFile}) {
        nvbtest::Handle handle;
        const auto events = readStream(handle.get(), writer.stream(), getter);
        EXPECT_EQ(frameDifference(nvbtest::framesOf(events), expectedFrames(frames, method, 0, frames.size())), "");
        // A Huffman byte stream meets its end symbols: at its opening (reported by the
        // first call), at 600 records and at the close. The close at 600 falls on a byte
        // boundary, or the decoder, which drops the rest of the byte, would lose the next frame.
        EXPECT_EQ(events.size() - frames.size(), method == 0 ? 3u : 0u);
    }
    if (method == 0) return;
    // A piece runs from a unit that opens with a header block to the next such unit.
    std::vector<WrittenUnit> pieces;
    for (const WrittenUnit& unit : writer.units()) {
        if (unit.bytes[0] == 0) pieces.push_back({{}, unit.firstFrame, 0});
        pieces.back().bytes.insert(pieces.back().bytes.end(), unit.bytes.begin(), unit.bytes.end());
        pieces.back().frameCount += unit.frameCount;
    }
    ASSERT_EQ(pieces.size(), 5u);
    EXPECT_EQ(pieces.back().firstFrame + pieces.back().frameCount, frames.size());
    for (const WrittenUnit& piece : pieces) {
        nvbtest::Handle handle;
        const auto events = readByByte(handle.get(), piece.bytes);
        EXPECT_EQ(
            frameDifference(nvbtest::framesOf(events), expectedFrames(frames, method, piece.firstFrame, piece.frameCount)), "");
        EXPECT_EQ(events.size(), piece.frameCount);
    }
}

INSTANTIATE_TEST_SUITE_P(EveryMethod, BlockRoundTrip, ::testing::Range(0, 8), methodName);

// The standard tool of each format decodes the bodies the writer produces.
class StandardTools : public ::testing::TestWithParam<int> {};

Bytes runTool(const std::string& command, const Bytes& input) {
    const std::string in = nvbtest::writeTempFile(input, ".in");
    const std::string out = in + ".out";
    const int result = std::system((command + " < " + in + " > " + out + " 2>/dev/null").c_str());
    std::ifstream file(out, std::ios::binary);
    Bytes decoded((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::remove(in.c_str());
    std::remove(out.c_str());
    return result == 0 ? decoded : Bytes{};
}

TEST_P(StandardTools, DecodeEveryWrittenBody) {
    const bool scrambled = GetParam() == 8;
    const auto method = static_cast<std::uint8_t>(scrambled ? 5 : GetParam());
    struct Tool {
        std::string name, command;
        std::size_t skip;  // body bytes ahead of the standard stream
    };
    const Tool tool = method == 3   ? Tool{"python3",
                                         "python3 -c 'import sys, zlib; sys.stdout.buffer.write("
                                           "zlib.decompress(sys.stdin.buffer.read()))'",
                                         6}
                      : method == 6 ? Tool{"brotli", "brotli -dc", 3}
                      : method == 7 ? Tool{"zstd", "zstd -dc", 0}
                                    : Tool{"bzip2", "bzip2 -dc", 0};
    if (std::system(("command -v " + tool.name + " >/dev/null 2>&1").c_str()) != 0) {
        GTEST_SKIP() << tool.name << " is not installed";
    }
    EncodeHarness writer(method);
    writer.state().scrambleBlocks = scrambled ? 1 : 0;
    const auto frames = mixedFrames(500, 77);
    writer.writeAll(frames);
    ASSERT_GT(writer.units().size(), 1u);
    for (const WrittenUnit& unit : writer.units()) {
        Bytes body(unit.bytes.begin() + (unit.bytes[0] == 0 ? 21 : 4), unit.bytes.end());
        static constexpr int kBlockTypeOfMethod[] = {0, 4, 3, 2, 1, 5, 7, 8};
        EXPECT_EQ(unit.bytes[unit.bytes[0] == 0 ? 17 : 0], scrambled ? 6 : kBlockTypeOfMethod[method]);
        // The writer scrambles from the body's first byte.
        if (scrambled) nvb::scrambleBlock(body.data(), body.size());
        std::vector<Bytes> records;
        for (std::size_t f = unit.firstFrame; f < unit.firstFrame + unit.frameCount; ++f) {
            records.push_back(method == 4 ? frames[f] : bareRecord(frames[f]));
        }
        EXPECT_EQ(runTool(tool.command, Bytes(body.begin() + static_cast<std::ptrdiff_t>(tool.skip), body.end())),
                  concatAll(records))
            << tool.name;
    }
}

std::string toolName(const ::testing::TestParamInfo<int>& param) {
    static const char* const names[] = {"Zlib", "Bzip2Frames", "Bzip2Bare", "Brotli", "Zstd", "Bzip2Scrambled"};
    return names[param.param - 3];
}

INSTANTIATE_TEST_SUITE_P(Formats, StandardTools, ::testing::Range(3, 9), toolName);

}  // namespace
