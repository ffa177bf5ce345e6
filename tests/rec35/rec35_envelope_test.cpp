#include "external/io/io_buffer.h"
#include "external/io/varint.h"
#include "rec35/rec35_assembly.h"
#include "rec35/rec35_envelope.h"
#include "rec35/rec35_slot.h"
#include "stream/block_writer.h"
#include "stream/framing.h"
#include "support/host.h"
#include "support/rec35_records.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <sstream>

namespace {

using nvbtest::Bytes;

const nlohmann::json& data() {
    static const nlohmann::json json = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/rec35/envelope.json");
    return json;
}

TEST(Rec35Varint, ShortestFormsAndTheirLengths) {
    for (const nlohmann::json& row : data()["varints"]) {
        const std::uint64_t value = row["value"];
        const std::size_t length = row["length"];
        std::uint8_t out[nvb::kMaxVarintLength] = {};
        ASSERT_EQ(nvb::writeVarint(value, out), length) << value;
        const auto back = nvb::readVarint(std::span<const std::uint8_t>(out, length));
        ASSERT_TRUE(back);
        EXPECT_EQ(back->value, value);
        EXPECT_EQ(back->length, length);
    }
}

TEST(Rec35Varint, LongerFormsAreReadToTheirEndAndBitsPast64AreDropped) {
    const Bytes eleven = {0x81, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0x80, 0xFF, 0x7F};
    const auto value = nvb::readVarint(eleven);
    ASSERT_TRUE(value);
    EXPECT_EQ(value->length, 11u);
    EXPECT_EQ(value->value, 1u | (1ull << 63));
    EXPECT_FALSE(nvb::readVarint(Bytes{0x80, 0x80, 0x80}));
    EXPECT_FALSE(nvb::readVarint(Bytes{}));
}

TEST(Rec35Buffer, ReserveGrowsExactlyAndRefusesWhatItCannotTell) {
    io_buffer_t buffer{0, 0, nullptr};
    std::uint8_t status = 0;
    nvb::reserveIoBuffer(buffer, -1, status);
    EXPECT_EQ(buffer.capacity, 0u);
    nvb::reserveIoBuffer(buffer, 10, status);
    EXPECT_EQ(buffer.capacity, 10u);
    nvb::reserveIoBuffer(buffer, std::int64_t{1} << 33, status);
    EXPECT_EQ(status, NVB_STATUS_REC35_CONTENT);
    EXPECT_EQ(buffer.capacity, 10u);
    nvb::freeIoBuffer(buffer);
}

// Splitting: the fragment codes and piece sizes of the frames a payload becomes, read off
// the bare records of the filling block.
TEST(Rec35Fragments, PayloadsSplitIntoFramesOfAtMost4000Bytes) {
    for (const nlohmann::json& row : data()["fragments"]) {
        nvbtest::Encoder encoder(3, 2);
        nvb::setBlockTarget(*encoder.get());
        std::uint8_t status = 0;
        const Bytes payload(row["payload"].get<std::size_t>(), 0x5A);
        nvb::writeRec35Fragments(*encoder.get(), 24, 1, payload, status);
        ASSERT_EQ(status, 0);
        std::vector<int> codes;
        std::vector<std::size_t> pieces;
        for (std::uint32_t at = 0; at < encoder->blockFill;) {
            const std::uint8_t* bare = encoder->block + at;
            ASSERT_EQ(bare[1], 35);
            const std::uint32_t length = nvb::addLengthExtension(35, bare[0], bare[2]);
            codes.push_back(bare[2] >> 4);
            pieces.push_back(length - 5);  // three bytes of length and type, two varints
            at += length;
        }
        EXPECT_EQ(codes, row["codes"].get<std::vector<int>>()) << row["payload"];
        EXPECT_EQ(pieces, row["pieces"].get<std::vector<std::size_t>>()) << row["payload"];
    }
}

// Each step hands one getter result to the assembly, with a frame where it is a record 35.
Bytes stepFrame(const nlohmann::json& step, std::uint64_t& subtype, std::uint64_t& subsubtype) {
    if (!step.contains("frame")) return {};
    std::istringstream in(step["frame"].get<std::string>());
    std::size_t code = 0, size = 0;
    in >> code >> size >> subtype >> subsubtype;
    Bytes frame = nvbtest::rec35Frame(static_cast<std::uint8_t>(code), subtype, subsubtype, Bytes(size, 0x33));
    if (step.value("varintWithoutEnd", false)) std::fill(frame.begin() + 4, frame.end() - 3, 0x80);
    if (step.contains("cutTo")) {
        frame.resize(step["cutTo"]);
        frame[1] = step["cutTo"];
    }
    return frame;
}

TEST(Rec35Assembly, FragmentSequencesEndAsTheStateMachineSays) {
    for (const nlohmann::json& c : data()["assembly"]) {
        SCOPED_TRACE(c["name"]);
        const bool content = c.value("content", true);
        nvbtest::Handle handle;
        nvbtest::MessageLog log;
        rec35_assembly_t& assembly = handle->rec35Assembly;
        // A slot whose chain runs, to see whether a status starts every chain again.
        rec35_slot_t* slot = nullptr;
        std::uint8_t ignored = 0;
        nvb::ensureRec35Slot(slot, ignored);
        slot->need_reference_in = 0;
        assembly.slots[nvbtest::kFftSlot] = slot;
        for (const nlohmann::json& step : c["steps"]) {
            std::uint64_t subtype = 24, subsubtype = 1;
            const Bytes frame = stepFrame(step, subtype, subsubtype);
            std::memset(&handle->frame, 0, sizeof handle->frame);
            std::copy(frame.begin(), frame.end(), handle->frame.data);
            handle->frame.length = static_cast<std::uint16_t>(frame.size());
            slot->need_reference_in = 0;
            std::uint8_t status = nvbtest::statusNamed(step.value("getterStatus", "OK"));
            const std::int32_t result = nvb::assembleRec35(handle->frame, content ? handle->records.rec35 : nullptr,
                                                           assembly, step.value("getter", 35), status);
            EXPECT_EQ(result, step["result"]);
            EXPECT_EQ(status, nvbtest::statusNamed(step["status"]));
            EXPECT_EQ(slot->need_reference_in, status != 0 ? 1 : 0) << "every chain starts again after a status";
            if (!frame.empty() && content) {
                EXPECT_EQ(handle->frame.length, 0) << "the record lies in the assembly now";
            }
            if (result == 35) {
                EXPECT_EQ(nvbtest::copyOf(handle->records.rec35->subtype), subtype);
                EXPECT_EQ(nvbtest::copyOf(handle->records.rec35->subsubtype), subsubtype);
            }
        }
        EXPECT_EQ(assembly.pending, c["pending"]);
        EXPECT_EQ(nvbtest::copyOf(assembly.payload.used), c["used"]);
        EXPECT_EQ(log.text().find("Incomplete record 35. Dump partial record.\n") != std::string::npos,
                  c.value("message", false));
    }
}

// Record 35 stands only in the bare levels: a framed level and a byte stream hand the
// checksum step an empty plain frame.
TEST(Rec35Assembly, Record35OutsideTheBareLevelsGivesStatus2) {
    nvbtest::Encoder framed(1);
    std::uint8_t status = 0;
    nvb::writeRec35Fragments(*framed.get(), 12345678, 0, Bytes(50, 9), status);
    ASSERT_EQ(status, 0);
    const Bytes block = framed.finish();
    const Bytes bytes = nvbtest::concat({nvbtest::junk(12), nvbtest::rec35Frame(0, 12345678, 0, Bytes(50, 9))});
    for (const auto& [stream, getter] :
         {std::pair{block, nvbtest::Getter::NvbFile}, std::pair{bytes, nvbtest::Getter::NvaByByte}}) {
        nvbtest::Handle handle;
        const auto events = nvbtest::readStream(handle.get(), stream, getter);
        ASSERT_FALSE(events.empty());
        EXPECT_EQ(events.back().result, 35);
        EXPECT_EQ(events.back().processStatus, NVB_STATUS_CHECKSUM);
    }
}

}  // namespace
