#include "common/byte_sum.h"
#include "support/wire.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <array>
#include <tuple>

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
constexpr std::array<std::uint8_t, 17> kBlockHeader = {0, 0, 0, 13, 0x74, 0xBA, 0x79, 0x4B, 0xCF,
                                                       0x6B, 8, 97, 0, 0, 8, 11, 255};

Bytes opaque(std::uint8_t type, std::size_t bodySize, std::uint8_t fill) { return plainFrame(type, Bytes(bodySize, fill)); }

// Detection, resynchronisation and frame length, each case a stream and what a host
// following the calling order meets in it: the types the getter announces, the types
// delivered, and how often a status came.
TEST(Framing, EachStreamYieldsWhatItsFramesAllow) {
    struct Case {
        const char* what;
        Bytes stream;
        Getter getter;
        std::vector<std::int32_t> announced;
        std::vector<int> delivered;
        std::uint8_t status;
        int statusCount;
    };
    const Bytes inner = opaque(23, 10, 0x55);
    // An outer frame whose length covers the inner frame, with a wrong checksum; the byte
    // that arrives while the inner frame is already whole is dropped.
    Bytes outer = concat({{0x02, static_cast<std::uint8_t>(inner.size() + 7), 14, 0x66}, inner, {0xDE, 0xAD, 0x03}});
    // Type 35 keeps a fragment code in the high nibble of its extension byte: 0x31 is
    // fragment 3 and the high length bits 1.
    Bytes fragment = {0x02, 0x04, 35, 0x31};
    fragment.resize(0x104 - 3, 0xA5);
    const std::uint16_t sum = nvb::byteSum(fragment.data(), fragment.size());
    fragment.insert(fragment.end(), {static_cast<std::uint8_t>(sum >> 8), static_cast<std::uint8_t>(sum), 0x03});
    const Case cases[] = {
        {"a first frame of 7 bytes is lost to detection", concat({opaque(14, 1, 0x11), opaque(23, 20, 0x22)}),
         Getter::NvaFile, {23}, {23}, 0, 0},
        {"a first frame of 10 bytes is lost to detection", concat({opaque(14, 4, 0x11), opaque(23, 20, 0x22)}),
         Getter::NvaFile, {14, 23}, {23}, 0, 0},
        {"a first frame of 11 bytes is kept", concat({opaque(14, 5, 0x11), opaque(23, 20, 0x22)}), Getter::NvaFile,
         {14, 23}, {14, 23}, 0, 0},
        {"three false starts swallowing the next start byte cost a byte and a status 2 each",
         concat({kLeadIn, {0x02, 0x06, 0x0E, 0x02, 0x06, 0x0E, 0x02, 0x09, 0x0E}, opaque(14, 20, 0x44)}),
         Getter::NvaByByte, {14}, {14}, 2, 3},
        {"a bad checksum hiding a valid frame yields the inner frame", concat({kLeadIn, outer, junk(20)}),
         Getter::NvaByByte, {23}, {23}, 2, 1},
        {"a compact frame with a wrong trailer is announced", concat({kLeadIn, {0x02, 0x08, 37, 0x00, 1, 2, 0xBE, 0xEF}}),
         Getter::NvaByByte, {37}, {}, 0, 0},
        {"the longest frame, 5120 bytes, is taken", concat({kLeadIn, plainFrameLong(98, Bytes(5120 - 7, 0x10))}),
         Getter::NvaByByte, {98}, {98}, 3, 0},
        {"one byte more is status 3", concat({kLeadIn, plainFrameLong(98, Bytes(5121 - 7, 0x10))}), Getter::NvaByByte,
         {}, {}, 3, 1},
        {"length 0 is status 3 and loses the input byte",
         concat({kLeadIn, Bytes{0x02, 0x00, 14, 0x00, 0x77}, opaque(14, 20, 0x11)}), Getter::NvaByByte, {14}, {14}, 3,
         1},
        {"the length of a type 35 leaves out its fragment nibble", concat({kLeadIn, fragment}), Getter::NvaByByte,
         {35}, {}, 0, 0},
        {"a block stream's header announces nothing", Bytes(kBlockHeader.begin(), kBlockHeader.end()),
         Getter::NvbByByte, {}, {}, 0, 0},
    };
    for (const Case& c : cases) {
        Handle handle;
        std::vector<std::int32_t> announced;
        std::vector<int> delivered;
        int statusCount = 0;
        for (const nvbtest::ReadEvent& event : readStream(handle.get(), c.stream, c.getter)) {
            if (event.result > 0 && event.status == 0) announced.push_back(event.result);
            if (event.delivered()) delivered.push_back(event.dat[3]);
            statusCount += event.status == c.status ? 1 : 0;
        }
        EXPECT_EQ(announced, c.announced) << c.what;
        EXPECT_EQ(delivered, c.delivered) << c.what;
        if (c.status != 0) {
            EXPECT_EQ(statusCount, c.statusCount) << c.what;
        }
    }
}

// When the tenth byte decides is the framing table's (a first frame of 10 bytes is lost).
TEST(StreamDetection, TheTenBytesDecideWhatKindOfStreamItIs) {
    // Three zero bytes and another magic make a byte stream; the block header a block
    // stream, except to the NVA by-byte getter, which detects nothing.
    const std::tuple<Bytes, Getter, int> streams[] = {
        {concat({Bytes{0, 0, 0, 13, 1, 2, 3, 4, 5, 6}, opaque(14, 30, 0x33)}), Getter::NvaFile, 1},
        {Bytes(kBlockHeader.begin(), kBlockHeader.end()), Getter::NvbByByte, 0},
        {concat({Bytes(kBlockHeader.begin(), kBlockHeader.end()), junk(300, 4)}), Getter::NvaByByte, 1}};
    for (const auto& [stream, getter, byteMode] : streams) {
        Handle detecting;
        readStream(detecting.get(), stream, getter);
        EXPECT_EQ(detecting->byteMode, byteMode);
        EXPECT_EQ(detecting->detectPending, 0);
    }
}

TEST(Resynchronisation, JunkWithoutStartByteYieldsNothingForever) {
    Handle handle;
    EXPECT_TRUE(readStream(handle.get(), junk(600000, 3), Getter::NvaByByte).empty());
    EXPECT_LE(nvbtest::copyOf(handle->frameAssembly.fill), 1);  // only the last byte waits for the next call
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
        Handle handle;
        const auto events = readStream(handle.get(), c.stream, c.status == 6 ? Getter::NvbFile : Getter::NvaFile);
        ASSERT_GE(events.size(), 2u) << c.what;
        EXPECT_EQ(std::tuple(events[0].result, events[0].status), std::tuple(-1, c.status)) << c.what;
        EXPECT_EQ(std::tuple(events[1].result, events[1].status), std::tuple(23, 0)) << c.what;
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
