#include "support/frame_builder.h"
#include "support/reader.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

using nvbtest::Bytes;
using nvbtest::Handle;
using nvbtest::plainFrame;

// Puts a frame where a getter would leave it, as the dispatch finds it.
void standFrame(nvb_expand_t* state, const Bytes& frame, std::uint16_t type) {
    std::memset(&state->frame, 0, sizeof state->frame);
    std::memcpy(state->frame.data, frame.data(), frame.size());
    state->frame.length = static_cast<std::uint16_t>(frame.size());
    state->currentType = type;
}

struct Processed {
    std::uint32_t length;
    std::uint16_t type;
    std::uint8_t status;
};

Processed process(nvb_expand_t* state) {
    Processed result{0, 0, 0xEE};
    result.length = nvbdll_processNVBRecord(state, 0, &result.type, &result.status);
    return result;
}

TEST(Dispatch, WrongEndByteIsStatusFive) {
    Handle handle;
    Bytes frame = plainFrame(14, Bytes(10, 0x20));
    frame.back() = 0x04;
    standFrame(handle.get(), frame, 14);
    const Processed result = process(handle.get());
    EXPECT_EQ(result.status, 5);
    EXPECT_EQ(result.length, 0u);
}

TEST(Dispatch, WrongChecksumIsStatusTwoInFramedLevelsOnly) {
    Bytes frame = plainFrame(23, Bytes(10, 0x20));
    frame[frame.size() - 2] ^= 0x01;
    Handle framed;
    standFrame(framed.get(), frame, 23);
    EXPECT_EQ(process(framed.get()).status, 2);

    Handle bare;
    bare->blockLevel = 5;  // bare levels carry no checksum to test
    standFrame(bare.get(), frame, 23);
    const Processed result = process(bare.get());
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.type, 23);
    EXPECT_EQ(result.length, frame.size() - 2);
}

TEST(Dispatch, UnknownTypeBelowHundredIsReportedAsNone) {
    Handle handle;
    standFrame(handle.get(), plainFrame(6, Bytes(10, 0x20)), 6);
    const Processed result = process(handle.get());
    EXPECT_EQ(result.type, 65535);
    EXPECT_EQ(result.length, 0u);
    EXPECT_EQ(result.status, 0);
}

TEST(Dispatch, TypesOutsideFiveToNinetyNineAreReportedAsNone) {
    for (const std::uint8_t type : {std::uint8_t{4}, std::uint8_t{100}, std::uint8_t{200}}) {
        Handle handle;
        standFrame(handle.get(), plainFrame(type, Bytes(10, 0x20)), type);
        const Processed result = process(handle.get());
        EXPECT_EQ(result.type, 65535) << int(type);
        EXPECT_EQ(result.length, 0u);
    }
}

TEST(Dispatch, MarkerNinetyIsReportedWithoutLength) {
    Handle handle;
    standFrame(handle.get(), plainFrame(90, Bytes(3, 0x20)), 90);
    const Processed result = process(handle.get());
    EXPECT_EQ(result.type, 90);
    EXPECT_EQ(result.length, 0u);
    EXPECT_EQ(result.status, 0);
}

TEST(Dispatch, Record35OutsideTheBareLevelsEndsInStatusTwo) {
    Handle handle;
    standFrame(handle.get(), plainFrame(35, Bytes(10, 0x20)), 35);
    EXPECT_EQ(process(handle.get()).status, 2);
}

TEST(Dispatch, EmptyFrameBufferDeliversNothing) {
    Handle handle;
    const Processed result = process(handle.get());
    EXPECT_EQ(result.length, 0u);
    EXPECT_NE(result.status, 0);
}

TEST(Dispatch, StatusIsClearedOnEntry) {
    Handle handle;
    standFrame(handle.get(), plainFrame(14, Bytes(10, 0x20)), 14);
    std::uint8_t status = 18;
    std::uint16_t type = 0;
    EXPECT_EQ(nvbdll_processNVBRecord(handle.get(), 0, &type, &status), 14u);
    EXPECT_EQ(status, 0);
}

TEST(OpaqueRecords, GenericBodyComesBackAsItsDatForm) {
    for (const std::uint8_t type : {std::uint8_t{14}, std::uint8_t{23}}) {
        Handle handle;
        Bytes body(40);
        for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * 7);
        standFrame(handle.get(), plainFrame(type, body), type);
        const Processed result = process(handle.get());
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
    standFrame(handle.get(), plainFrame(16, body), 16);
    const Processed result = process(handle.get());
    ASSERT_EQ(result.length, body.size() + 6 - 3);
    Bytes dat(result.length);
    EXPECT_TRUE(nvbdll_retrieveDATRecord(handle.get(), 16, dat.data()));
    EXPECT_EQ(dat[2], 0x07);
    EXPECT_EQ(Bytes(dat.begin() + 4, dat.end()), Bytes(body.begin() + 1, body.end()));
}

TEST(OpaqueRecords, ExportedReaderOfRecord16MatchesTheDispatch) {
    Handle handle;
    const Bytes frame = plainFrame(16, Bytes{3, 9, 9, 9});
    standFrame(handle.get(), frame, 16);
    EXPECT_EQ(nvbdll_readRec16Buffer(reinterpret_cast<std::uint8_t*>(&handle->frame), handle.get()), 7);
    EXPECT_EQ(handle->records.datHeader[2], 3);
}

TEST(OpaqueRecords, BodyShorterThanItsTrailerReadsAsEmpty) {
    Handle handle;
    standFrame(handle.get(), Bytes{0x02, 0x03, 16}, 16);
    EXPECT_EQ(nvbdll_readRec16Buffer(reinterpret_cast<std::uint8_t*>(&handle->frame), handle.get()), 0);
}

TEST(Retrieve, WrongTypeOrNullOutWritesNothing) {
    Handle handle;
    standFrame(handle.get(), plainFrame(14, Bytes(10, 0x20)), 14);
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
        standFrame(handle.get(), plainFrame(23, Bytes(12, 0x31)), 23);
        std::uint8_t status = 0xEE;
        EXPECT_EQ(alias(handle.get(), 0, &status), 16u);
        EXPECT_EQ(status, 0);
    }
}

TEST(SingleSteps, ProcessTypeXXCopiesTheFrameAndReturnsFalse) {
    Handle handle;
    const Bytes frame = plainFrame(23, Bytes(12, 0x31));
    standFrame(handle.get(), frame, 23);
    EXPECT_FALSE(nvbdll_processTypeXX(handle.get()));
    EXPECT_EQ(std::memcmp(&handle->plainFrame, &handle->frame, sizeof handle->frame), 0);
}

}  // namespace
