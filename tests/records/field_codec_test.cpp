#include "records/field_codec.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <vector>

namespace {

using nvb::ByteView;
using Bytes = std::vector<std::uint8_t>;

const auto pow2 = [](int e) { return std::ldexp(1.0, e); };

TEST(FieldReaders, ScaledFieldsTakeTheSignFromTheHeadAndAddTheTailUnsigned) {
    for (const nlohmann::json& c : nvbtest::pinned("records/field_writers.json")["scaledReads"]) {
        const Bytes bytes = nvbtest::fieldBytes(c["bytes"].get<std::string>());
        const auto width = static_cast<unsigned>(bytes.size());
        EXPECT_EQ(nvb::getScaled(ByteView(bytes), 0, width, c["exponent"], c["signed"]), c["value"].get<double>()) << c;
    }
}

TEST(FieldReaders, ReadsPastTheEndSeeZerosAndWidthZeroIsZero) {
    const Bytes bytes = {0x12, 0x34};
    const ByteView view(bytes);
    EXPECT_EQ(nvb::getUint(view, 0, 4), 0x12340000u);
    EXPECT_EQ(nvb::getUint(view, 1, 0), 0u);
    EXPECT_EQ(nvb::getByte(view, 2), 0);
    EXPECT_EQ(nvb::getScaled(view, 1, 3, 0, false), 0x340000);
}

// Writes through one primitive into a fresh frame and returns the bytes written.
template <class Write>
Bytes written(Write write) {
    auto frame = std::make_unique<nvb_frame_t>();
    nvb::WriteBuffer out{*frame};
    write(out);
    return Bytes(frame->data, frame->data + frame->length);
}

TEST(FieldWriters, RoundHalfAwayFromZeroAndKeepTheLowBytes) {
    for (const nlohmann::json& c : nvbtest::pinned("records/field_writers.json")["twoBytes"]) {
        EXPECT_EQ(written([&](nvb::WriteBuffer& out) { nvb::putScaled2(out, c["x"], 0); }),
                  nvbtest::fieldBytes(c["bytes"].get<std::string>()))
            << c;
    }
    // A first range just below the rollover passes 2^31 in its four unsigned bytes.
    EXPECT_EQ(written([](nvb::WriteBuffer& out) { nvb::putScaled4(out, 33554431.0, 7); }),
              (Bytes{0xFF, 0xFF, 0xFF, 0x80}));
    EXPECT_EQ(written([](nvb::WriteBuffer& out) { nvb::putScaled3(out, -1.0, 19); }), (Bytes{0xF8, 0x00, 0x00}));
    EXPECT_EQ(written([](nvb::WriteBuffer& out) { nvb::putScaled6(out, -pow2(-15), 15); }), Bytes(6, 0xFF));
    EXPECT_EQ(written([](nvb::WriteBuffer& out) { nvb::putScaled1(out, std::nan(""), 0); }), Bytes{0x00});
}

TEST(FieldWriters, VariableWidthKeepsTheFewestSignedBytes) {
    for (const nlohmann::json& c : nvbtest::pinned("records/field_writers.json")["variableWidth"]) {
        unsigned width = 0;
        const Bytes bytes = written([&](nvb::WriteBuffer& out) { width = nvb::putScaledVar(out, c["x"], 0, 1, 7); });
        const Bytes expected = nvbtest::fieldBytes(c["bytes"].get<std::string>());
        EXPECT_EQ(bytes, expected) << c;
        EXPECT_EQ(width, expected.size()) << c;
    }
}

TEST(FieldWriters, VariableWidthBeyondSevenBytesEndsTheProcess) {
    EXPECT_DEATH(written([](nvb::WriteBuffer& out) { nvb::putScaledVar(out, pow2(55), 0, 1, 7); }),
                 "nBytes <= maxBytes");
    EXPECT_DEATH(written([](nvb::WriteBuffer& out) { nvb::putScaledVar(out, std::nan(""), 0, 1, 7); }),
                 "9.223372036854776e\\+018");
}

TEST(FieldWriters, SplitHeadTruncatesAndHandsBackAClampedResidual) {
    for (const nlohmann::json& c : nvbtest::pinned("records/field_writers.json")["splitHead"]) {
        std::uint8_t residual = 0;
        const Bytes bytes =
            written([&](nvb::WriteBuffer& out) { residual = nvb::putScaled4Split(out, c["x"], c["scale"]); });
        EXPECT_EQ(bytes, nvbtest::fieldBytes(c["bytes"].get<std::string>())) << c;
        if (c.contains("residual")) {
            EXPECT_EQ(static_cast<std::int8_t>(residual), c["residual"]) << c;
        }
    }
}

// Every field writer, started at each place near the end of the buffer: the bytes that fit
// are those the field writes anywhere else, and a field that does not fit whole flags the
// frame, which then does not close.
TEST(FieldWriters, AWritePastTheBufferKeepsWhatFitsAndIsFlagged) {
    using Writer = void (*)(nvb::WriteBuffer&);
    const std::vector<Writer> writers = {
        [](nvb::WriteBuffer& out) { nvb::putU16(out, 0x0102); },
        [](nvb::WriteBuffer& out) { nvb::putU32(out, 0x01020304); },
        [](nvb::WriteBuffer& out) { nvb::putF32(out, -1.5f); },
        [](nvb::WriteBuffer& out) { nvb::putF64(out, 1e300); },
        [](nvb::WriteBuffer& out) { nvb::putScaled1(out, -0.5, 2); },
        [](nvb::WriteBuffer& out) { nvb::putScaled2(out, -1234.5, 3); },
        [](nvb::WriteBuffer& out) { nvb::putScaled3(out, 1e30, 0); },
        [](nvb::WriteBuffer& out) { nvb::putScaled4(out, -0.0, 7); },
        [](nvb::WriteBuffer& out) { nvb::putScaled6(out, 123456789.125, 8); },
        [](nvb::WriteBuffer& out) { (void)nvb::putScaled4Split(out, -5.25, 0); },
    };
    auto frame = std::make_unique<nvb_frame_t>();
    for (const Writer write : writers) {
        const Bytes whole = written(write);
        for (std::size_t start = NVB_FRAME_CAPACITY - 9; start <= NVB_FRAME_CAPACITY; ++start) {
            SCOPED_TRACE(testing::Message() << whole.size() << " bytes at " << start);
            *frame = {};
            frame->length = static_cast<std::uint16_t>(start);
            nvb::WriteBuffer out{*frame};
            write(out);
            const std::size_t fits = std::min(whole.size(), NVB_FRAME_CAPACITY - start);
            EXPECT_EQ(out.overflow, fits < whole.size());
            EXPECT_EQ(frame->length, start + fits);
            EXPECT_EQ(Bytes(frame->data + start, frame->data + start + fits),
                      Bytes(whole.begin(), whole.begin() + fits));
            if (out.overflow) {
                EXPECT_EQ(nvb::closeFrame(out, true), 0);
            }
        }
    }
}

TEST(FieldWriters, ClosingAFrameStoresItsLengthChecksumAndEndByte) {
    auto frame = std::make_unique<nvb_frame_t>();
    nvb::WriteBuffer out{*frame};
    for (const std::uint8_t byte : {0x02, 0x00, 0x1B, 0x00, 0x10, 0x20}) nvb::putByte(out, byte);
    ASSERT_EQ(nvb::closeFrame(out, true), 9);
    EXPECT_EQ(Bytes(frame->data, frame->data + 9), (Bytes{0x02, 0x09, 0x1B, 0x00, 0x10, 0x20, 0x00, 0x56, 0x03}));
}

TEST(DatFields, ReadsPastTheAnnouncedLengthSeeZerosAndTheSwapFlagReversesEvenWidths) {
    const Bytes dat = {0x34, 0x12, 0xAA, 0xBB, 0xCC};
    nvb::DatReader in{dat.data(), 4};
    EXPECT_EQ(nvb::datRead<std::uint16_t>(in), 0x1234);
    EXPECT_EQ(nvb::datRead<std::uint16_t>(in), 0xBBAA);
    EXPECT_EQ(nvb::datRead<std::uint8_t>(in), 0) << "the fifth byte lies past the length";

    nvb::hostSwapDAT = 1;
    nvb::DatReader swapped{dat.data(), dat.size()};
    const auto word = nvb::datRead<std::uint16_t>(swapped);
    std::uint8_t three[3] = {};
    nvb::datCopy(swapped, three, 1, 3);
    nvb::hostSwapDAT = 0;
    EXPECT_EQ(word, 0x3412);
    EXPECT_EQ(Bytes(three, three + 3), (Bytes{0xAA, 0xBB, 0xCC})) << "odd widths are left alone";
}

}  // namespace
