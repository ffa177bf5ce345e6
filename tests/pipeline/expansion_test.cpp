#include "support/host.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>

namespace {

using nvbtest::Bytes;
using nvbtest::concat;
using nvbtest::Handle;
using nvbtest::plainFrame;
using nvbtest::process;
using nvbtest::shortDat;
using nvbtest::standFrame;

Bytes withByte(Bytes frame, std::size_t fromEnd, std::uint8_t flip) {
    frame[frame.size() - fromEnd] ^= flip;
    return frame;
}

TEST(Dispatch, EndByteChecksumAndTypeDecideWhatIsDelivered) {
    struct Case {
        const char* what;
        Bytes frame;
        std::uint8_t blockLevel;
        std::uint32_t length;
        std::uint16_t type;
        std::uint8_t status;
    };
    const Bytes opaque = plainFrame(23, Bytes(10, 0x20));
    const Case cases[] = {
        {"wrong end byte", withByte(plainFrame(14, Bytes(10, 0x20)), 1, 0x07), 0, 0, 0, 5},
        {"wrong checksum in a framed level", withByte(opaque, 2, 0x01), 0, 0, 0, 2},
        {"no checksum in a bare level", withByte(opaque, 2, 0x01), 5, 14, 23, 0},
        {"a type below 100 without a reader", plainFrame(6, Bytes(10, 0x20)), 0, 0, 65535, 0},
        {"type 4", plainFrame(4, Bytes(10, 0x20)), 0, 0, 65535, 0},
        {"type 100", plainFrame(100, Bytes(10, 0x20)), 0, 0, 65535, 0},
        {"type 200", plainFrame(200, Bytes(10, 0x20)), 0, 0, 65535, 0},
        {"marker 90 has no length", plainFrame(90, Bytes(3, 0x20)), 0, 0, 90, 0},
        {"record 35 outside the bare levels", plainFrame(35, Bytes(10, 0x20)), 0, 0, 0, 2},
        {"an empty frame buffer", {}, 0, 0, 0, 5},
        {"a good frame clears the status", plainFrame(14, Bytes(10, 0x20)), 0, 14, 14, 0},
    };
    for (const Case& c : cases) {
        Handle handle;
        handle->blockLevel = c.blockLevel;
        const nvbtest::Processed result = process(handle.get(), c.frame);
        EXPECT_EQ(result.length, c.length) << c.what;
        EXPECT_EQ(result.type, c.type) << c.what;
        EXPECT_EQ(result.status, c.status) << c.what;
    }
}

// Generic types are written whole but not told as their own form; record 16 keeps its
// subtype in the DAT header and is.
TEST(Retrieve, OpaqueBodiesComeBackAsTheirDatFormAndAWrongTypeWritesNothing) {
    Bytes body(40);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * 7);
    const Bytes head(body.begin(), body.begin() + 30);
    const std::tuple<Bytes, Bytes, bool> cases[] = {
        {plainFrame(14, body), shortDat(14, 0, body), false},
        {plainFrame(23, body), shortDat(23, 0, body), false},
        {plainFrame(16, concat({{0x07}, head})), shortDat(16, 0x07, head), true}};
    for (const auto& [frame, dat, told] : cases) {
        Handle handle;
        ASSERT_EQ(process(handle.get(), frame).length, dat.size());
        Bytes out(dat.size());
        EXPECT_EQ(nvbdll_retrieveDATRecord(handle.get(), dat[3], out.data()), told);
        EXPECT_EQ(out, dat);
        EXPECT_FALSE(nvbdll_retrieveDATRecord(handle.get(), dat[3], nullptr));
        out.assign(64, 0xAA);
        EXPECT_FALSE(nvbdll_retrieveDATRecord(handle.get(), 27, out.data()));
        EXPECT_EQ(out, Bytes(64, 0xAA));
    }
}

TEST(ConvertAliases, EveryNameBehavesAsTheDispatch) {
    using Alias = uint32_t (*)(nvb_expand_t*, uint8_t, uint8_t*);
    const Alias aliases[] = {nvbdll_convertRec11, nvbdll_convertRec12, nvbdll_convertRec15, nvbdll_convertRec17,
                             nvbdll_convertRec19, nvbdll_convertRec21, nvbdll_convertRec25, nvbdll_convertRec26,
                             nvbdll_convertRec27, nvbdll_convertRec28, nvbdll_convertRec29, nvbdll_convertRec40};
    for (const Alias alias : aliases) {
        Handle handle;
        standFrame(handle.get(), plainFrame(23, Bytes(12, 0x31)));
        std::uint8_t status = 0xEE;
        EXPECT_EQ(alias(handle.get(), 0, &status), 16u);
        EXPECT_EQ(status, 0);
    }
}

TEST(SingleSteps, ProcessTypeXXCopiesTheFrameAndReturnsFalse) {
    Handle handle;
    const Bytes frame = plainFrame(23, Bytes(12, 0x31));
    standFrame(handle.get(), frame);
    EXPECT_FALSE(nvbdll_processTypeXX(handle.get()));
    EXPECT_EQ(std::memcmp(&handle->plainFrame, &handle->frame, sizeof handle->frame), 0);
}

}  // namespace
