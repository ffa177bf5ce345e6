#include "support/host.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using nvbtest::Bytes;
using nvbtest::Handle;
using nvbtest::plainFrame;
using nvbtest::process;
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
        standFrame(handle.get(), c.frame);
        const nvbtest::Processed result = process(handle.get());
        EXPECT_EQ(result.length, c.length) << c.what;
        EXPECT_EQ(result.type, c.type) << c.what;
        EXPECT_EQ(result.status, c.status) << c.what;
    }
}

TEST(OpaqueRecords, GenericBodyComesBackAsItsDatForm) {
    for (const std::uint8_t type : {std::uint8_t{14}, std::uint8_t{23}}) {
        Handle handle;
        Bytes body(40);
        for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * 7);
        standFrame(handle.get(), plainFrame(type, body));
        const nvbtest::Processed result = process(handle.get());
        ASSERT_EQ(result.length, body.size() + 4);
        Bytes dat(result.length);
        EXPECT_FALSE(nvbdll_retrieveDATRecord(handle.get(), type, dat.data()));  // generic: written, but false
        EXPECT_EQ(dat[0], 0x74);
        EXPECT_EQ(dat[1], result.length);
        EXPECT_EQ(dat[2], 0);
        EXPECT_EQ(dat[3], type);
        EXPECT_EQ(Bytes(dat.begin() + 4, dat.end()), body);
    }
}

TEST(OpaqueRecords, Record16KeepsItsSubtypeInTheDatHeader) {
    Handle handle;
    Bytes body = {0x07};  // subtype
    for (int i = 0; i < 30; ++i) body.push_back(static_cast<std::uint8_t>(100 + i));
    standFrame(handle.get(), plainFrame(16, body));
    const nvbtest::Processed result = process(handle.get());
    ASSERT_EQ(result.length, body.size() + 6 - 3);
    Bytes dat(result.length);
    EXPECT_TRUE(nvbdll_retrieveDATRecord(handle.get(), 16, dat.data()));
    EXPECT_EQ(dat[2], 0x07);
    EXPECT_EQ(Bytes(dat.begin() + 4, dat.end()), Bytes(body.begin() + 1, body.end()));
}

TEST(Retrieve, WrongTypeOrNullOutWritesNothing) {
    Handle handle;
    standFrame(handle.get(), plainFrame(14, Bytes(10, 0x20)));
    process(handle.get());
    Bytes out(64, 0xAA);
    EXPECT_FALSE(nvbdll_retrieveDATRecord(handle.get(), 23, out.data()));
    EXPECT_EQ(out[0], 0xAA);
    EXPECT_FALSE(nvbdll_retrieveDATRecord(handle.get(), 14, nullptr));
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
