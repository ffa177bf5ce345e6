#include "common/byte_sum.h"
#include "support/wire.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using nvbtest::Bytes;
using nvbtest::concat;
using nvbtest::Getter;
using nvbtest::Handle;
using nvbtest::junk;
using nvbtest::plainFrame;
using nvbtest::plainFrameLong;
using nvbtest::readStream;

// Ten bytes without a start byte let detection pass without losing a frame.
const Bytes kLeadIn = junk(12, 9);

Bytes opaque(std::uint8_t type, std::size_t bodySize, std::uint8_t fill) { return plainFrame(type, Bytes(bodySize, fill)); }

std::vector<std::int32_t> announcedTypes(const std::vector<nvbtest::ReadEvent>& events) {
    std::vector<std::int32_t> types;
    for (const auto& event : events) {
        if (event.result > 0 && event.status == 0) types.push_back(event.result);
    }
    return types;
}

int countStatus(const std::vector<nvbtest::ReadEvent>& events, std::uint8_t status) {
    int count = 0;
    for (const auto& event : events) count += event.status == status ? 1 : 0;
    return count;
}

TEST(StreamDetection, FirstFrameOfTenBytesOrFewerIsLost) {
    for (const std::size_t body : {1u, 4u}) {  // frames of 7 and 10 bytes
        Handle handle;
        const Bytes stream = concat({opaque(14, body, 0x11), opaque(23, 20, 0x22)});
        const auto dats = nvbtest::deliveredDat(readStream(handle.get(), stream, Getter::NvaFile));
        ASSERT_EQ(dats.size(), 1u) << "frame of " << body + 6 << " bytes";
        EXPECT_EQ(dats[0][3], 23);
    }
}

TEST(StreamDetection, FirstFrameLongerThanTenBytesIsKept) {
    Handle handle;
    const Bytes stream = concat({opaque(14, 5, 0x11), opaque(23, 20, 0x22)});
    const auto dats = nvbtest::deliveredDat(readStream(handle.get(), stream, Getter::NvaFile));
    ASSERT_EQ(dats.size(), 2u);
    EXPECT_EQ(dats[0][3], 14);
}

TEST(StreamDetection, ThreeZeroBytesWithAnotherMagicMakeAByteStream) {
    Handle handle;
    const Bytes stream = concat({Bytes{0, 0, 0, 13, 1, 2, 3, 4, 5, 6}, opaque(14, 30, 0x33)});
    readStream(handle.get(), stream, Getter::NvaFile);
    EXPECT_EQ(handle->byteMode, 1);
    EXPECT_EQ(handle->detectPending, 0);
}

TEST(StreamDetection, NothingIsDecidedBeforeTheTenthByte) {
    Handle handle;
    std::uint8_t status = 0;
    std::uint8_t more = 0;
    for (int i = 0; i < 9; ++i) {
        EXPECT_EQ(nvbdll_getNVBRecordByByte(handle.get(), 0x55, &status, 1, &more), 0);
        EXPECT_EQ(handle->detectPending, 1);
    }
    nvbdll_getNVBRecordByByte(handle.get(), 0x55, &status, 1, &more);
    EXPECT_EQ(handle->detectPending, 0);
}

TEST(StreamDetection, BlockStreamIsRecognisedAndYieldsNoFalseRecords) {
    Handle handle;
    const Bytes header = {0, 0, 0, 13, 0x74, 0xBA, 0x79, 0x4B, 0xCF, 0x6B, 8, 97, 0, 0, 8, 11, 255};
    const auto events = readStream(handle.get(), concat({header, junk(300, 4)}), Getter::NvaByByte);
    EXPECT_EQ(handle->byteMode, 1);  // the NVA by-byte getter has no detection at all
    Handle blockHandle;
    const auto blockEvents = readStream(blockHandle.get(), header, Getter::NvbByByte);
    EXPECT_EQ(blockHandle->byteMode, 0);
    EXPECT_TRUE(announcedTypes(blockEvents).empty());
}

TEST(Resynchronisation, FalseStartByteCostsOneByteAndStatusTwo) {
    Handle handle;
    const Bytes inner = opaque(14, 20, 0x44);
    // Three false starts each claiming a short frame that swallows the next start byte.
    const Bytes falseStarts = {0x02, 0x06, 0x0E, 0x02, 0x06, 0x0E, 0x02, 0x09, 0x0E};
    const auto events = readStream(handle.get(), concat({kLeadIn, falseStarts, inner}), Getter::NvaByByte);
    EXPECT_EQ(countStatus(events, 2), 3);
    const auto dats = nvbtest::deliveredDat(events);
    ASSERT_EQ(dats.size(), 1u);
    EXPECT_EQ(dats[0][3], 14);
}

TEST(Resynchronisation, FrameWithBadChecksumHidingAValidFrameYieldsTheInnerFrame) {
    Handle handle;
    const Bytes inner = opaque(23, 10, 0x55);
    // An outer frame whose length covers the inner frame, with a wrong checksum.
    Bytes outer = {0x02, static_cast<std::uint8_t>(inner.size() + 7), 14, 0x66};
    outer.insert(outer.end(), inner.begin(), inner.end());
    outer.insert(outer.end(), {0xDE, 0xAD, 0x03});
    // The assembler needs input to move on; the byte that arrives while the inner frame is
    // already whole is dropped.
    const auto events = readStream(handle.get(), concat({kLeadIn, outer, junk(20)}), Getter::NvaByByte);
    EXPECT_EQ(countStatus(events, 2), 1);
    const auto dats = nvbtest::deliveredDat(events);
    ASSERT_EQ(dats.size(), 1u);
    EXPECT_EQ(dats[0][3], 23);
}

TEST(Resynchronisation, JunkWithoutStartByteYieldsNothingForever) {
    Handle handle;
    const auto events = readStream(handle.get(), junk(600000, 3), Getter::NvaByByte);
    EXPECT_TRUE(events.empty());
    EXPECT_LE(nvbtest::copyOf(handle->frameAssembly.fill), 1);  // only the last byte waits for the next call
}

TEST(Resynchronisation, CompactFrameWithWrongTrailerIsDeliveredByTheAssembler) {
    Handle handle;
    const Bytes compact = {0x02, 0x08, 37, 0x00, 1, 2, 0xBE, 0xEF};
    const auto events = readStream(handle.get(), concat({kLeadIn, compact}), Getter::NvaByByte);
    EXPECT_EQ(announcedTypes(events), std::vector<std::int32_t>{37});
}

TEST(FrameLength, LongestFrameIsAcceptedAndOneMoreIsStatusThree) {
    Handle accepted;
    const Bytes longest = plainFrameLong(98, Bytes(5120 - 7, 0x10));
    ASSERT_EQ(longest.size(), 5120u);
    const auto events = readStream(accepted.get(), concat({kLeadIn, longest}), Getter::NvaByByte);
    EXPECT_EQ(announcedTypes(events), std::vector<std::int32_t>{98});

    Handle refused;
    const Bytes tooLong = plainFrameLong(98, Bytes(5121 - 7, 0x10));
    const auto refusedEvents = readStream(refused.get(), concat({kLeadIn, tooLong}), Getter::NvaByByte);
    EXPECT_GE(countStatus(refusedEvents, 3), 1);
    EXPECT_TRUE(announcedTypes(refusedEvents).empty());
}

TEST(FrameLength, ZeroLengthIsStatusThreeAndLosesTheInputByte) {
    Handle handle;
    const Bytes stream = concat({kLeadIn, Bytes{0x02, 0x00, 14, 0x00, 0x77}, opaque(14, 20, 0x11)});
    const auto events = readStream(handle.get(), stream, Getter::NvaByByte);
    EXPECT_EQ(countStatus(events, 3), 1);
    EXPECT_EQ(nvbtest::deliveredDat(events).size(), 1u);
}

TEST(FrameLength, Type35LengthIgnoresTheFragmentNibble) {
    Handle handle;
    // 0x31: fragment code 3 in the high nibble, high length bits 1.
    Bytes frame = {0x02, 0x04, 35, 0x31};
    frame.resize(0x104 - 3, 0xA5);
    const std::uint16_t sum = nvb::byteSum(frame.data(), frame.size());
    frame.insert(frame.end(), {static_cast<std::uint8_t>(sum >> 8), static_cast<std::uint8_t>(sum), 0x03});
    ASSERT_EQ(frame.size(), 0x104u);
    const auto events = readStream(handle.get(), concat({kLeadIn, frame}), Getter::NvaByByte);
    EXPECT_EQ(announcedTypes(events), std::vector<std::int32_t>{35});
}

TEST(Getters, ByteAndFileGettersDeliverTheSameRecords) {
    Bytes stream = kLeadIn;
    std::mt19937 random(11);
    for (int i = 0; i < 300; ++i) {
        const std::uint8_t types[] = {14, 16, 23};
        stream = concat({stream, opaque(types[random() % 3], 2 + random() % 200, static_cast<std::uint8_t>(random())),
                         junk(random() % 5, static_cast<std::uint8_t>(i))});
    }
    // Plain frames through the NVA getters, their Huffman coding through the NVB getters.
    const Bytes coded = nvbtest::huffmanEncode(stream);
    std::vector<std::vector<Bytes>> results;
    for (const Getter getter : {Getter::NvaFile, Getter::NvaByByte, Getter::NvbFile, Getter::NvbByByte}) {
        Handle handle;
        const bool huffman = getter == Getter::NvbFile || getter == Getter::NvbByByte;
        results.push_back(nvbtest::deliveredDat(readStream(handle.get(), huffman ? coded : stream, getter)));
    }
    EXPECT_EQ(results[0].size(), 300u);
    for (std::size_t i = 1; i < results.size(); ++i) EXPECT_EQ(results[i], results[0]) << "getter " << i;
}

TEST(Getters, HuffmanEndSymbolsAreReportedAndDecodingGoesOn) {
    Bytes first = kLeadIn;
    Bytes second;
    for (int i = 0; i < 50; ++i) {
        first = concat({first, opaque(23, 40 + i, static_cast<std::uint8_t>(i))});
        second = concat({second, opaque(14, 60 + i, static_cast<std::uint8_t>(i))});
    }
    const Bytes coded = nvbtest::huffmanEncodeChunks({first, second});
    Handle handle;
    const auto events = readStream(handle.get(), coded, Getter::NvbByByte);
    EXPECT_EQ(countStatus(events, 6), 2);
    EXPECT_EQ(nvbtest::deliveredDat(events).size(), 100u);
}

// Detection runs its ten bytes through the assembler without clearing the status, so the
// first call of a stream reports what those bytes met, before the first record.
TEST(StreamDetection, FirstCallReportsWhatTheTenBytesMet) {
    struct Case {
        const char* what;
        Bytes stream;
        std::uint8_t status;
    };
    const Case cases[] = {
        {"Huffman end symbol", nvbtest::huffmanEncode(concat({kLeadIn, opaque(23, 40, 1)}), true), 6},
        {"impossible length", concat({Bytes{0x02, 0x00, 0x0E}, junk(7, 9), opaque(23, 40, 1)}), 3},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        Handle handle;
        std::FILE* file = std::tmpfile();
        std::fwrite(c.stream.data(), 1, c.stream.size(), file);
        std::rewind(file);
        std::uint8_t status = 0;
        const auto get = c.status == 6 ? nvbdll_getNVBRecord : nvbdll_getNVARecord;
        EXPECT_EQ(get(handle.get(), file, &status), -1);
        EXPECT_EQ(status, c.status);
        EXPECT_EQ(get(handle.get(), file, &status), 23);
        EXPECT_EQ(status, 0);
        std::fclose(file);
    }
}

TEST(Getters, CallWithoutAByteWhenNothingIsQueuedIsStatusThreeAndRecovers) {
    Handle handle;
    const Bytes coded = nvbtest::huffmanEncode(concat({kLeadIn, kLeadIn, opaque(14, 30, 0x12)}));
    const Bytes head(coded.begin(), coded.begin() + 12);
    const Bytes tail(coded.begin() + 12, coded.end());
    readStream(handle.get(), head, Getter::NvbByByte);
    std::uint8_t status = 0;
    std::uint8_t more = 0;
    EXPECT_EQ(nvbdll_getNVBRecordByByte(handle.get(), 0, &status, 0, &more), -1);
    EXPECT_EQ(status, 3);
    const auto events = readStream(handle.get(), tail, Getter::NvbByByte);
    EXPECT_EQ(nvbtest::deliveredDat(events).size(), 1u);
}

TEST(Getters, FileGetterReportsEndOfFile) {
    Handle handle;
    std::FILE* file = std::tmpfile();
    std::uint8_t status = 0;
    EXPECT_EQ(nvbdll_getNVBRecord(handle.get(), file, &status), -1);
    EXPECT_EQ(status, 1);
    std::fclose(file);
    EXPECT_EQ(nvbdll_getNVBRecord(handle.get(), nullptr, &status), -1);
    EXPECT_EQ(status, 1);
}

}  // namespace
