#include "external/su/compact_compressors.h"
#include "external/su/solution_codec.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

namespace nvb {
namespace {

using nvbtest::Bytes;

nvbtest::CompactLink link() { return nvbtest::CompactLink(compressRec29Frame, nvbtest::solutionStep); }

nvbtest::Rec29Wire baseSolution() {
    nvbtest::Rec29Wire record = nvbtest::solutionSequence({})[0];
    record.svs.resize(10);
    return record;
}

// The compact record of `next` against a history that holds `first` as its reference.
Bytes deltaAfter(const Bytes& first, const Bytes& next) {
    solution_history_t history{};
    std::array<std::uint8_t, 1024> out{};
    EXPECT_TRUE(compressSolutionReference(history, first.data(), first.size(), out.data(), out.size()));
    EXPECT_TRUE(compressSolutionDelta(history, next.data(), next.size(), out.data(), out.size()));
    return Bytes(out.begin(), out.begin() + out[1] + 256 * out[3]);
}

// A reader's history after the reference form of `first`: the plain record less its end byte.
solution_history_t readerAfter(const Bytes& first) {
    solution_history_t reader{};
    std::array<std::uint8_t, 1024> out{};
    std::uint8_t status = 0;
    Bytes reference(first.begin(), first.end() - 1);
    reference[1] = static_cast<std::uint8_t>(reference.size());
    reference[3] = static_cast<std::uint8_t>(reference.size() >> 8);
    EXPECT_EQ(expandSolutionReference(reader, reference.data(), reference.size(), out.data(), out.size(), status), 0);
    return reader;
}

TEST(SolutionCodec, SatelliteCountMovesByThreeInTheCodeAndByFourInARawByte) {
    const nvbtest::Rec29Wire base = baseSolution();
    struct Case {
        std::size_t count;
        std::uint8_t field;
        bool raw;
    };
    for (const Case& c : {Case{13, 3, false}, Case{14, 4, true}, Case{7, 5, false}, Case{6, 4, true}}) {
        nvbtest::Rec29Wire next = base;
        next.svs.resize(c.count, {40, 0, 2});
        const Bytes plain = nvbtest::build(next);
        const Bytes delta = deltaAfter(nvbtest::build(base), plain);
        EXPECT_EQ((delta[5] >> 4) & 7, c.field) << c.count;
        EXPECT_EQ(delta[4], c.raw ? 3 : 2) << c.count;
        if (c.raw) {
            EXPECT_EQ(delta[6], c.count);
        }
        solution_history_t reader = readerAfter(nvbtest::build(base));
        std::uint8_t status = 0;
        solution_image_t image;
        const auto input = nvbtest::exactCopy(delta);
        expandSolutionDelta(reader, input.get(), delta.size(), image, status);
        EXPECT_EQ(status, 0);
        std::array<std::uint8_t, 1024> out{};
        EXPECT_EQ(Bytes(out.begin(), out.begin() + writeSolutionImage(image, out.data(), out.size())), plain);
    }
}

TEST(SolutionCodec, ListPatchesAreFourBytesEachAndALengthOfOneMeansNone) {
    const nvbtest::Rec29Wire base = baseSolution();
    nvbtest::Rec29Wire patched = base;
    patched.svs[4].flags ^= 2;
    for (const auto& [next, length] : {std::pair{base, 1}, std::pair{patched, 5}}) {
        const Bytes delta = deltaAfter(nvbtest::build(base), nvbtest::build(next));
        const std::size_t block6 = delta.size() - 2 - static_cast<std::size_t>(length);
        EXPECT_EQ(delta[block6], length);
        if (length == 5) {
            EXPECT_EQ(delta[block6 + 1], 4);
        }
    }
}

// A reference is the plain record less its end byte, its length lowered as one number.
TEST(SolutionCodec, FormsTheDeltaCannotCarryGoOutAsReferences) {
    // A record of 256 bytes or more: the expanded length wraps and keeps the delta's high
    // byte. Correction bytes behind block 3: the delta form has no room for them.
    nvbtest::Rec29Wire exact = baseSolution();
    while (nvbtest::build(exact).size() < 256) exact.svs.push_back({1, 0, 0});
    nvbtest::Rec29Wire big = baseSolution();
    while (big.svs.size() < 70) big.svs.push_back({static_cast<std::uint8_t>(big.svs.size()), 3, 2});
    nvbtest::Rec29Wire corrected = baseSolution();
    corrected.fixType = 4;
    corrected.corrFlags = 3;
    ASSERT_EQ(nvbtest::build(exact).size(), 256u);
    for (const nvbtest::Rec29Wire& record : {exact, big, corrected}) {
        nvbtest::Rec29Wire next = record;
        next.time += 1000;
        const Bytes first = nvbtest::build(record);
        const Bytes second = nvbtest::build(next);
        const Bytes delta = deltaAfter(first, second);
        solution_history_t reader = readerAfter(first);
        std::uint8_t status = 0;
        solution_image_t image;
        expandSolutionDelta(reader, delta.data(), delta.size(), image, status);
        EXPECT_EQ(status, 0);
        if (second.size() > 255) {
            EXPECT_EQ(image.head[1], second.size() & 0xFF);
            EXPECT_EQ(image.head[3], delta[3]);
        } else {
            EXPECT_EQ(image.head[1], second.size() - 13); // the 13 correction bytes are gone
        }

        nvbtest::CompactLink codec = link();
        Bytes expanded;
        for (const Bytes& plain : {first, second}) {
            const Bytes compact = codec.compress(plain);
            EXPECT_EQ(compact[2], kTypeSolutionReference);
            EXPECT_EQ(compact.size(), plain.size() - 1);
            EXPECT_EQ(compact[1] + 256u * compact[3], compact.size());
            ASSERT_EQ(codec.expand(compact, expanded), 0);
            EXPECT_EQ(expanded, plain);
        }
    }
}

TEST(SolutionCodec, FrontEndOfAnEmptyFrameIsStatus8AndWritesNothing) {
    nvbtest::CompactLink codec = link();
    codec.expander().frame.length = 0;
    std::uint8_t status = 0;
    EXPECT_EQ(nvbdll_processType56(&codec.expander(), &status), 8);
    EXPECT_EQ(codec.expander().plainFrame.length, 0);
}

}  // namespace
}  // namespace nvb
