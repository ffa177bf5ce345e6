#include "stream/block_codecs.h"
#include "support/blocks.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using namespace nvbtest::blocks;

// After every call of every getter, whatever the bytes: each buffer within its bounds,
// and each failure told by a known status. The status is read after the call.
void expectSound(const nvb_expand_t& state, std::int32_t result, const std::uint8_t& status) {
    static const std::set<int> statuses = {0, 1, 2, 3, 6, 7, 8, 9, 10, 14, 18, 24, 25};
    ASSERT_LE(copyOf(state.inputFill), nvb::kBlockCapacity);
    ASSERT_LE(copyOf(state.blockBytes), nvb::kBlockCapacity);
    ASSERT_TRUE(state.blockBytes == 0 || state.blockReadPos < state.blockBytes);
    ASSERT_LE(copyOf(state.frame.length), nvb::kMaxFrameLength);
    ASSERT_EQ(statuses.count(status), 1u) << int(status);
    ASSERT_TRUE(result >= -1 && result <= 255 && (result != -1 || status != 0)) << result;
}

void throughEveryGetter(const Bytes& stream) {
    for (int getter = 0; getter < 4 && !::testing::Test::HasFatalFailure(); ++getter) {
        SCOPED_TRACE("getter " + std::to_string(getter));
        nvbtest::Handle handle;
        nvb_expand_t* state = handle.get();
        std::uint8_t status = 0;
        if (getter < 2) {
            std::FILE* file = std::tmpfile();
            std::fwrite(stream.data(), 1, stream.size(), file);
            std::rewind(file);
            for (std::size_t calls = 0;
                 status != 1 && calls <= stream.size() + 2 && !::testing::Test::HasFatalFailure(); ++calls) {
                expectSound(
                    *state,
                    getter == 0 ? nvbdll_getNVBRecord(state, file, &status) : nvbdll_getNVARecord(state, file, &status),
                    status);
            }
            std::fclose(file);
            EXPECT_EQ(status, 1) << "the file getter reaches the end";
            continue;
        }
        for (std::size_t i = 0; i < stream.size() && !::testing::Test::HasFatalFailure(); ++i) {
            std::uint8_t more = 0;
            expectSound(*state,
                        getter == 2 ? nvbdll_getNVBRecordByByte(state, stream[i], &status, 1, &more)
                                    : nvbdll_getNVARecordByByte(state, stream[i], &status),
                        status);
            for (int follow = 0; more == 1 && follow <= 5120; ++follow) {
                expectSound(*state, nvbdll_getNVBRecordByByte(state, 0, &status, 0, &more), status);
            }
            ASSERT_EQ(more, 0) << "`more` runs out";
        }
    }
}

Bytes headerBlock() {
    Bytes header(nvb::kHeaderBlockLength);
    nvb::buildHeaderBlock(255, 0, header.data());
    return header;
}

TEST(BlockRandomInput, NoiseShapedLikeBlocksStaysInBoundsThroughEveryGetter) {
    std::mt19937 random(2024);
    for (int round = 0; round < 14 && !HasFatalFailure(); ++round) {
        // Block starts of every row with small and huge lengths, bodies of noise, or noise alone.
        Bytes stream = headerBlock();
        const std::size_t length = 2000 + random() % 20000;
        while (stream.size() < length) {
            const std::size_t row = random() % 10;
            const std::uint32_t blockLength = random() % 8 == 0 ? random() % 600000 : random() % 3000;
            for (const std::uint32_t byte : {std::uint32_t(row), blockLength >> 16, blockLength >> 8, blockLength}) {
                stream.push_back(static_cast<std::uint8_t>(byte));
            }
            const auto& magic = nvb::kBlockRows[row].magic;
            if (round % 2 == 0)
                stream.insert(stream.end(), magic.begin(), magic.begin() + nvb::kBlockRows[row].magicLength);
            for (std::size_t i = random() % 400; i > 0; --i) stream.push_back(static_cast<std::uint8_t>(random()));
        }
        SCOPED_TRACE("round " + std::to_string(round));
        throughEveryGetter(stream);
    }
}

TEST(BlockRandomInput, TruncatedAndDamagedWrittenStreamsStayInBoundsThroughEveryGetter) {
    std::mt19937 random(99);
    for (int method = 0; method <= 7 && !HasFatalFailure(); ++method) {
        EncodeHarness writer(static_cast<std::uint8_t>(method));
        writer.writeAll(mixedFrames(90, static_cast<std::uint32_t>(method) + 40));
        const Bytes stream = writer.stream();
        for (int round = 0; round < 3 && !HasFatalFailure(); ++round) {
            SCOPED_TRACE("method " + std::to_string(method) + " round " + std::to_string(round));
            throughEveryGetter(
                Bytes(stream.begin(), stream.begin() + static_cast<std::ptrdiff_t>(random() % stream.size())));
            Bytes damaged = stream;
            for (int flip = 0; flip < 1 + round * 4; ++flip)
                damaged[random() % damaged.size()] ^= static_cast<std::uint8_t>(1u << (random() % 8));
            throughEveryGetter(damaged);
        }
    }
}

}  // namespace
