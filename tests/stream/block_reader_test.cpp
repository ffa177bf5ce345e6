#include "common/diagnostics.h"
#include "stream/block_codecs.h"
#include "stream/block_reader.h"
#include "support/blocks.h"
#include "support/rec35_records.h"
#include "stream/scrambling.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>

namespace {

using namespace nvbtest::blocks;
using nvbtest::Getter;
using nvbtest::readStream;
using Frames = std::vector<Bytes>;

// A block whose length field says `length` (by default its body's).
Bytes block(std::uint8_t type, const Bytes& body, std::int64_t length = -1) {
    const auto told = static_cast<std::uint32_t>(length < 0 ? static_cast<std::int64_t>(body.size()) : length);
    // Sized once and filled in place: g++ 12 at -O3 sees a false bound in the insert
    // that would grow a four-byte vector.
    Bytes bytes(4 + body.size());
    bytes[0] = type;
    bytes[1] = static_cast<std::uint8_t>(told >> 16);
    bytes[2] = static_cast<std::uint8_t>(told >> 8);
    bytes[3] = static_cast<std::uint8_t>(told);
    std::copy(body.begin(), body.end(), bytes.begin() + 4);
    return bytes;
}

Bytes header(std::uint8_t minMajor, std::uint8_t minMinor, std::uint8_t byte12 = 0) {
    Bytes body(nvb::kFirstHeaderMagic.begin(), nvb::kFirstHeaderMagic.end());
    for (const std::uint8_t field : {8, 97, int(byte12), 0x33, int(minMajor), int(minMinor), 0x42})
        body.push_back(field);
    return block(0, body);
}

Bytes copyBlock(const std::vector<Bytes>& frames) {
    Bytes body(nvb::kBlockRows[4].magic.begin(), nvb::kBlockRows[4].magic.end());
    const Bytes all = concatAll(frames);
    body.insert(body.end(), all.begin(), all.end());
    return block(nvb::kCopyType, body);
}

// A written stream taken apart: its header block, then each block with the frames a
// reader gives back for it.
struct WrittenBlocks {
    Bytes header;
    std::vector<Bytes> blocks;
    std::vector<std::vector<Bytes>> expected;
};

WrittenBlocks writeBlocks(int method, std::size_t frameCount, std::uint32_t seed) {
    const auto frames = mixedFrames(frameCount, seed);
    EncodeHarness writer(static_cast<std::uint8_t>(method));
    writer.writeAll(frames);
    WrittenBlocks written;
    for (const WrittenUnit& unit : writer.units()) {
        const std::size_t at = written.blocks.empty() ? nvb::kHeaderBlockLength : 0;
        if (at > 0) written.header.assign(unit.bytes.begin(), unit.bytes.begin() + at);
        written.blocks.emplace_back(unit.bytes.begin() + static_cast<std::ptrdiff_t>(at), unit.bytes.end());
        written.expected.push_back(expectedFrames(frames, method, unit.firstFrame, unit.frameCount));
    }
    return written;
}

// A block whose compressed stream is cut in half; its length says `claimed` more bytes.
Bytes damaged(const Bytes& whole, std::uint32_t claimed = 0) {
    const Bytes half(whole.begin() + 4, whole.begin() + 4 + static_cast<std::ptrdiff_t>((whole.size() - 4) / 2));
    return block(whole[0], half, static_cast<std::int64_t>(half.size() + claimed));
}

// Each event as its record type, or as -100 minus the status of anything else.
std::vector<int> outline(const std::vector<nvbtest::ReadEvent>& events) {
    std::vector<int> types;
    for (const nvbtest::ReadEvent& event : events) types.push_back(event.isRecord() ? event.result : -100 - event.status);
    return types;
}

TEST(HeaderBlock, ReaderStoresEveryFieldAndCountsTheHeader) {
    nvbtest::Handle handle;
    EXPECT_TRUE(readByByte(handle.get(), header(8, 11, 0x85)).empty());
    const std::vector<int> fields = {handle->writerMajor,    handle->writerMinor,  handle->headerByte12,
                                     handle->headerFlagBit,  handle->headerByte13, handle->minReaderMajor,
                                     handle->minReaderMinor, handle->headerTag,    handle->headerSeen};
    EXPECT_EQ(fields, (std::vector<int>{8, 97, 0x05, 1, 0x33, 8, 11, 0x42, 1}));
    EXPECT_EQ(copyOf(handle->headerCount), 1u);
}

TEST(BlockFailures, EachFailureIsToldByItsStatusAtTheByteThatRevealsIt) {
    std::mt19937 random(5);
    const auto frames = mixedFrames(4, 1);
    // 103 frames of 5120 bytes and one of 2764 fill a copy block of L = 530130.
    std::vector<Bytes> longest(103);
    for (auto& frame : longest) frame = frameOfLength(98, 5120, random);
    longest.push_back(frameOfLength(98, 2764, random));
    Bytes huffmanEndOnly(nvb::kBlockRows[3].magic.begin(), nvb::kBlockRows[3].magic.end());
    for (const std::uint8_t byte : nvbtest::huffmanEncodeChunks({Bytes{}})) huffmanEndOnly.push_back(byte);
    Bytes scrambled = writeBlocks(5, 30, 2).blocks[0];
    scrambled[0] = nvb::kBzip2ScrambledType;
    const Bytes good = copyBlock(frames);
    const std::vector<int> goodTypes = {frames[0][2], frames[1][2], frames[2][2], frames[3][2]};

    struct Case {
        const char* what;
        Bytes stream;
        std::size_t firstEventAt;  // bytes fed when the first event comes
        std::vector<int> outline;
    };
    const Case cases[] = {
        {"minimum reader 8.97", concatAll({header(8, 97), good}), 17 + good.size(), goodTypes},
        {"minimum reader 8.98 is refused for good", concatAll({header(8, 98), good}), 17,
         std::vector<int>(good.size() + 1, -109)},
        {"minimum reader 7.198 is refused", concatAll({header(7, 198)}), 17, {-109}},
        {"block type 9 stays and meets every byte",
         concatAll({header(8, 11), block(9, Bytes(20, 1)), Bytes(3, 0)}),
         41,
         {-107, -107, -107, -107}},
        {"L = 530130 is read", concatAll({header(8, 11), copyBlock(longest)}), 17 + 530134, std::vector<int>(104, 98)},
        {"L = 530131 is refused once its length has come",
         concatAll({header(8, 11), block(4, Bytes(20, 0), 530131)}),
         22,
         {-108}},
        {"scrambled block while descrambling is off", concatAll({header(8, 11), scrambled}), 17 + scrambled.size(), {-114}},
        {"input that ends inside a block", concatAll({header(8, 11), Bytes(good.begin(), good.end() - 1)}), 0, {}},
        {"a Huffman block that yields nothing waits", concatAll({header(8, 11), block(3, huffmanEndOnly), good}), 0, {}},
    };
    for (const Case& c : cases) {
        nvbtest::Handle handle;
        std::size_t fed = 0;
        std::vector<nvbtest::ReadEvent> events;
        for (const std::uint8_t byte : c.stream) {
            ++fed;
            const auto step = readByByte(handle.get(), Bytes{byte});
            if (events.empty() && !step.empty()) {
                EXPECT_EQ(fed, c.firstEventAt) << c.what;
            }
            events.insert(events.end(), step.begin(), step.end());
        }
        EXPECT_EQ(outline(events), c.outline) << c.what;
        EXPECT_LE(copyOf(handle->inputFill), nvb::kBlockCapacity);
    }
}

TEST(Descrambling, ReaderStartsTheTableAtTheBlocksFirstByteFourBytesAheadOfTheWriter) {
    WrittenBlocks written = writeBlocks(5, 40, 3);
    Bytes scrambled = written.blocks[0];
    scrambled[0] = nvb::kBzip2ScrambledType;
    // Table index 0 falls on the block type, so the last four bytes of the body stay clear.
    for (std::size_t i = 4; i < scrambled.size() - 4; ++i)
        scrambled[i] ^= static_cast<std::uint8_t>(nvb::kScrambleTable[i % 128]);
    nvbtest::Handle reader;
    reader->descramble = 1;
    EXPECT_EQ(
        frameDifference(nvbtest::framesOf(readByByte(reader.get(), concatAll({written.header, scrambled}))), written.expected[0]),
        "");

    EncodeHarness writer(5);
    writer.state().scrambleBlocks = 1;
    writer.writeAll(mixedFrames(40, 3));
    nvbtest::Handle outOfStep;
    outOfStep->descramble = 1;
    EXPECT_EQ(outline(readByByte(outOfStep.get(), writer.stream())), std::vector<int>{-108});
}

struct DamageCase {
    int method;
    int status;
    int nextMethod;  // of the blocks behind the damaged one
    bool swallows;   // its length reaches past the next block
};

class DamagedBlock : public ::testing::TestWithParam<DamageCase> {};

// Block A, the damaged block, then blocks of the next method.
TEST_P(DamagedBlock, CostsOnlyWhatItsLengthReachesAndReadingGoesOn) {
    const DamageCase c = GetParam();
    const WrittenBlocks first = writeBlocks(c.method, 200, 6);
    const WrittenBlocks next = writeBlocks(c.nextMethod, 400, 7);
    ASSERT_GE(next.blocks.size(), 4u);
    const auto claimed = static_cast<std::uint32_t>(c.swallows ? next.blocks[1].size() + 40 : 0);
    const Bytes stream = concatAll({first.header, first.blocks[0], damaged(first.blocks[1], claimed), next.blocks[1],
                                    next.blocks[2], next.blocks[3]});
    // The search can't match a zstd block that this library wrote (its body opens with the
    // zstd magic, not 03 00 00): after damage a zstd stream is lost to its end. A zlib block
    // found by the search leaves it running: that block is lost, and so is the one whose
    // start the search has passed.
    const bool searchRuns = c.swallows && c.nextMethod == 3;
    const auto expected =
        c.nextMethod == 7 ? first.expected[0]
        : searchRuns      ? concatAll<Frames>({first.expected[0], next.expected[3]})
                     : concatAll<Frames>({first.expected[0], next.expected[1], next.expected[2], next.expected[3]});
    const std::size_t at = first.expected[0].size();
    for (const Getter getter : {Getter::NvbByByte, Getter::NvbFile}) {
        nvbtest::Handle handle;
        const auto events = readStream(handle.get(), stream, getter);
        EXPECT_EQ(frameDifference(nvbtest::framesOf(events), expected), "");
        ASSERT_GT(events.size(), at);
        if (c.swallows && !searchRuns) {
            // The compressed levels end the search: status 18 comes with the first record of
            // the block found, and the block the damage reached into is read in full.
            EXPECT_TRUE(events[at].isRecord());
            EXPECT_EQ(events[at].status, 18);
            continue;
        }
        // The status comes on the damaged block's last byte.
        EXPECT_EQ(events[at].status, c.status);
        if (c.swallows) {
            EXPECT_EQ(events[at].result, getter == Getter::NvbByByte ? 0 : -1) << "no record comes with it";
            continue;
        }
        // The search meets the next block before it is whole and hands it to normal reading;
        // a compressed block then brings status 18 with its first record, a zlib block reads
        // on without it.
        ASSERT_EQ(events.size(), expected.size() + 1);
        if (c.nextMethod != 7) {
            EXPECT_TRUE(events[at + 1].isRecord());
            EXPECT_EQ(events[at + 1].status, c.nextMethod == 3 ? 0 : 18);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(EveryDecompressor, DamagedBlock,
                         ::testing::Values(DamageCase{3, 10, 3, false}, DamageCase{4, 8, 4, false},
                                           DamageCase{5, 8, 5, false}, DamageCase{6, 24, 6, false},
                                           DamageCase{7, 25, 7, false}, DamageCase{7, 25, 5, false},
                                           DamageCase{3, 10, 3, true}, DamageCase{4, 8, 4, true},
                                           DamageCase{5, 8, 5, true}, DamageCase{6, 24, 6, true},
                                           DamageCase{7, 25, 5, true}),
                         [](const ::testing::TestParamInfo<DamageCase>& param) {
                             return "Method" + std::to_string(param.param.method) + "Then" +
                                    std::to_string(param.param.nextMethod) + (param.param.swallows ? "PastIt" : "");
                         });

// zstd blocks carry the frame's content checksum: wherever a byte of a body flips, the
// block fails whole, or decodes to exactly what was written when the flip is harmless.
TEST(VerifiedBlocks, AFlippedByteInAZstdBodyGivesAStatusNeverAWrongRecord) {
    const WrittenBlocks written = writeBlocks(7, 200, 12);
    const Bytes& target = written.blocks[1];
    std::vector<std::size_t> positions;
    for (std::size_t p = 4; p < 24; ++p) positions.push_back(p);
    for (std::size_t p = 24; p < target.size() - 8; p += target.size() / 97) positions.push_back(p);
    for (std::size_t p = target.size() - 8; p < target.size(); ++p) positions.push_back(p);
    const auto whole = concatAll<Frames>({written.expected[0], written.expected[1]});
    for (const std::size_t position : positions) {
        for (const std::uint8_t flip : {0x01, 0x80}) {
            Bytes bad = target;
            bad[position] ^= flip;
            nvbtest::Handle handle;
            const auto events = readByByte(handle.get(), concatAll({written.header, written.blocks[0], bad}));
            const auto records = nvbtest::framesOf(events);
            const bool failed = std::any_of(events.begin(), events.end(),
                                            [](const nvbtest::ReadEvent& event) { return event.status == NVB_STATUS_ZSTD; });
            EXPECT_EQ(frameDifference(records, failed ? written.expected[0] : whole), "")
                << "byte " << position << " flipped by " << int(flip);
        }
    }
}

TEST(BlockSearch, BlocksBehindARefusedHeaderAreRefusedAndDropped) {
    const WrittenBlocks written = writeBlocks(4, 200, 10);
    const Bytes refused = header(8, 98);
    const auto claimed = static_cast<std::uint32_t>(refused.size() + 20);
    const Bytes stream =
        concatAll({written.header, damaged(written.blocks[0], claimed), refused, written.blocks[1], written.blocks[2]});
    nvbtest::Handle handle;
    EXPECT_EQ(outline(readByByte(handle.get(), stream)), (std::vector<int>{-109, -109, -109}));
    EXPECT_EQ(handle->headerAccepted, 0);
    EXPECT_EQ(copyOf(handle->inputFill), 0u);
}

TEST(BlockSearch, GarbageDoesNotGrowTheInputBuffer) {
    const WrittenBlocks written = writeBlocks(5, 120, 11);
    const Bytes garbage = nvbtest::junk(200000, 3);
    nvbtest::Handle searching;
    std::uint32_t largest = 0;
    for (const std::uint8_t byte : concatAll({written.header, damaged(written.blocks[0]), garbage})) {
        readByByte(searching.get(), Bytes{byte});
        largest = std::max(largest, copyOf(searching->inputFill));
    }
    EXPECT_LE(largest, std::max<std::size_t>(4106, damaged(written.blocks[0]).size()));
    EXPECT_EQ(frameDifference(nvbtest::framesOf(readByByte(searching.get(), written.blocks[1])), written.expected[1]), "");
}

// nextBlockRecord on an output buffer filled by hand.
class NextBlockRecord : public ::testing::Test {
protected:
    int next(std::uint8_t level, const Bytes& content) {
        handle_->blockLevel = level;
        std::memcpy(handle_->blockOutput, content.data(), content.size());
        handle_->blockBytes = static_cast<std::uint32_t>(content.size());
        handle_->blockReadPos = 0;
        return next();
    }
    int next() {
        more_ = 0;
        status_ = 0;
        return nvb::nextBlockRecord(*handle_.get(), more_, status_);
    }
    // A bare record: length byte, type, extension byte, payload.
    static Bytes bare(std::uint8_t type, std::uint32_t length, std::uint8_t extension = 0) {
        Bytes record(std::max<std::uint32_t>(length, 3), 0x5A);
        record[1] = type;
        record[2] = extension;
        nvb::storeLengthExtension(type, length, record[0], record[2]);
        record.resize(length);
        return record;
    }
    nvbtest::Handle handle_;
    std::uint8_t more_ = 0;
    std::uint8_t status_ = 0;
};

TEST_F(NextBlockRecord, LengthLimitsOfBareAndFramedRecords) {
    std::mt19937 random(1);
    const Bytes longBare = bare(98, 100);
    struct Case {
        const char* what;
        std::uint8_t level;
        Bytes content;
        int result;
        std::uint16_t frameLength;
    };
    const Case cases[] = {
        {"bare plain B=251", 3, bare(5, 251), 5, 255},
        {"bare plain B=252 can't be coded", 3, bare(5, 252), 255, 0},
        {"bare compact B=253 can't be coded", 5, bare(41, 253), 255, 0},
        {"bare type 74 B=508", 6, bare(74, 508), 74, 511},
        {"bare type 74 B=509 can't be coded", 6, bare(74, 509), 255, 0},
        {"bare B=5116", 7, bare(98, 5116), 98, 5120},
        {"bare B=5117 would pass the frame buffer", 7, bare(98, 5117), 255, 0},
        {"bare B=5120", 7, bare(98, 5120), 255, 0},
        {"bare B=0", 3, {0, 5, 0, 0}, 255, 0},
        {"bare record past the block end", 3, Bytes(longBare.begin(), longBare.begin() + 50), 255, 0},
        {"framed L=5120", 1, frameOfLength(98, 5120, random), 98, 5120},
        {"framed L=5121", 4, Bytes{2, 0x01, 98, 0x14, 0, 0, 0}, 255, 0},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(next(c.level, c.content), c.result) << c.what;
        EXPECT_EQ(status_, c.result == 255 ? 3 : 0) << c.what;
        if (c.result != 255) {
            EXPECT_EQ(copyOf(handle_->frame.length), c.frameLength) << c.what;
        }
        EXPECT_EQ(copyOf(handle_->blockBytes), 0u) << c.what << ": a failure throws the block away";
    }
}

TEST_F(NextBlockRecord, RebuildsFramesFromBareRecordsAndCountsOffsets) {
    next(3, concatAll({bare(27, 300), bare(37, 20), bare(35, 0x310, 0x53)}));
    EXPECT_EQ(more_, 1);
    const nvb_frame_t& frame = handle_->frame;
    EXPECT_EQ(Bytes(frame.data, frame.data + 4), (Bytes{2, 304 & 0xFF, 27, 1}));
    EXPECT_EQ(Bytes(frame.data + 301, frame.data + 304), (Bytes{0, 0, 3})) << "zero checksum, end byte";
    EXPECT_EQ(copyOf(handle_->nextRecordOffset), 300u);

    EXPECT_EQ(next(), 37);
    EXPECT_EQ(copyOf(frame.length), 23) << "a compact frame has no end byte";
    EXPECT_EQ(copyOf(handle_->recordOffset), 300u);
    EXPECT_EQ(copyOf(handle_->nextRecordOffset), 320u);

    // Record 35 keeps its fragment code in the high nibble of the extension byte.
    EXPECT_EQ(next(), 35);
    EXPECT_EQ(more_, 0);
    EXPECT_EQ(Bytes(frame.data + 1, frame.data + 4), (Bytes{0x14, 35, 0x53}));
    EXPECT_EQ(next(), 0);
}

TEST_F(NextBlockRecord, FailuresAreLoggedWithTheFormatsTexts) {
    const nvbtest::MessageLog log;
    next(7, bare(98, 5120));
    next(3, Bytes{0, 5, 0});
    EXPECT_EQ(log.text(), "nvbbuf length overflow 1 5120 5120\nWarning: 0-length raw record type 5\n");
}

TEST(LogFiles, HandBuiltBlockLogsDecodeOrFailAsDescribed) {
    const std::pair<const char*, std::vector<int>> cases[] = {
        {"block_copy_three_frames.nvb", {16, 23, 14}},
        {"block_header_needs_898.nvb", {-109}},
        {"block_bzip2_damaged_then_whole.nvb", {-108, 16, 19}},
    };
    for (const auto& [name, expected] : cases) {
        std::ifstream file(std::string(NVBDLL_TEST_DATA_DIR) + "/" + name, std::ios::binary);
        ASSERT_TRUE(file) << name;
        const Bytes log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        nvbtest::Handle handle;
        std::vector<int> types = outline(readStream(handle.get(), log, Getter::NvbFile));
        // A refused header meets every later byte again; the first refusal tells it.
        if (!types.empty() && types[0] == -109) types.resize(1);
        EXPECT_EQ(types, expected) << name;
    }
}

}  // namespace
