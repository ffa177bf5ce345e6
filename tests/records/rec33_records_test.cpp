#include "records/rec33_records.h"
#include "support/plain_round_trip.h"
#include "support/sequences.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstring>
#include <stdexcept>
#include <string>

namespace {

using nvbtest::Bytes;

const nlohmann::json& data() {
    static const nlohmann::json json = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/records/rec33.json");
    return json;
}

Bytes frameOf(const nlohmann::json& row) {
    return nvbtest::plainFrame(33, nvbtest::fieldBytes(row["body"].get<std::string>()));
}

// A frame of either list by its name.
Bytes rec33(std::string_view name) {
    for (const char* list : {"frames", "cornerForms"}) {
        for (const nlohmann::json& row : data()[list]) {
            if (row["name"] == name) return frameOf(row);
        }
    }
    throw std::invalid_argument("no such frame");
}

TEST(Rec33RoundTrip, EverySubtypeComesBackByteForByteThroughItsDatFormInEveryMethod) {
    std::vector<nvbtest::NamedFrame> frames;
    for (const nlohmann::json& row : data()["frames"]) frames.push_back({row["name"].get<std::string>(), frameOf(row)});
    const auto reads = nvbtest::expectPlainRoundTrips(frames);
    for (std::size_t i = 0; i < reads.size(); ++i) {
        EXPECT_EQ(reads[i].datLength, frames[i].frame.size() - 2) << frames[i].name;
        EXPECT_EQ(reads[i].dat[4], frames[i].frame[3]) << frames[i].name << ": the subtype leads the structure";
    }
}

TEST(Rec33DatForm, FieldsTheStructureKeepsAtFixedPlacesArePackedIntoTheReportedLength) {
    nvbtest::Handle handle;
    // Subtype 22: the structure holds the last matrix cell at 101, beyond the 85 bytes the
    // DAT length counts; packed, it follows the cell before it.
    const nvbtest::ReadEvent read = nvbtest::processFrame(handle.get(), rec33("22"));
    double last = 0;
    std::memcpy(&last, read.dat.data() + 4 + 77, sizeof last);
    EXPECT_EQ(last, 0.16);
    EXPECT_EQ(read.dat.size(), 4 + 77 + 8u);
    // Subtype 3 carries its triples as the wire interleaves them, the count not at all.
    const nvbtest::ReadEvent triples = nvbtest::processFrame(handle.get(), rec33("3"));
    EXPECT_EQ(Bytes(triples.dat.begin() + 5, triples.dat.end()), (Bytes{0, 12, 1, 2, 7, 1, 3, 11, 0, 10, 30, 1}));
    EXPECT_EQ(handle->records.rec33->sub3.count, 4);
}

TEST(Rec33Reader, FillsTheGapsOfTheCovarianceSubtypesWithCopies) {
    nvbtest::Handle handle;
    for (const char* name : {"22", "23"}) {
        nvbtest::processFrame(handle.get(), rec33(name));
        const Rec33& rec = *handle->records.rec33;
        double m[3][3];
        const std::size_t at = rec.subtype == 22 ? offsetof(Rec33, sub22.matrix) : offsetof(Rec33, sub23.matrix);
        std::memcpy(m, reinterpret_cast<const std::uint8_t*>(&rec) + at, sizeof m);
        for (const auto& [r, c] : {std::pair{1, 0}, {2, 0}, {2, 1}}) {
            EXPECT_EQ(m[r][c], m[c][r]) << int(rec.subtype) << " " << r << c;
        }
        EXPECT_EQ(m[2][2], 0.16);
    }
}

// What the reader and writer do to forms that do not come back as they went.
TEST(Rec33Reader, CornerFormsReadAsTheFormatSays) {
    nvbtest::Handle handle;
    const auto read = [&](const Bytes& frame) -> const Rec33& {
        nvbtest::processFrame(handle.get(), frame);
        return *handle->records.rec33;
    };
    const Rec33& dropped = read(rec33("16, a second byte above 18"));
    EXPECT_EQ(dropped.sub16.count, 4);
    EXPECT_EQ(nvbtest::copyOf(dropped.sub16.values[0]), 0.0) << "above 18 the doubles are dropped";

    EXPECT_EQ(read(rec33("29, a count above 24")).sub29.count, 24);
    EXPECT_EQ(read(rec33("3, no body")).sub3.count, 0) << "a 7-byte record";
    EXPECT_EQ(read(rec33("7, L below 12")).sub5to12.count, 0) << "L below 12";

    const Rec33& kindOne = read(rec33("21, kind 1 without leading singles"));
    EXPECT_EQ(nvbtest::copyOf(kindOne.sub21.groupA.lead[0]), 0.0f);
    EXPECT_EQ(nvbtest::copyOf(kindOne.sub21.groupA.singles3[0]), 0.1f) << "no leading single in any group";
    EXPECT_EQ(nvbtest::copyOf(kindOne.sub21.groupC.singles5[4]), 1.5f);

    for (const std::uint8_t raw : {0, 24, 31, 255}) {
        const Rec33& rec = read(rec33(std::to_string(raw) + ", raw"));
        EXPECT_EQ(rec.subtype, 0) << int(raw);
        EXPECT_EQ(rec.raw.originalSubtype, raw);
        EXPECT_EQ(rec.raw.data[4], 5);
    }
}

TEST(Rec33Reader, MixedSystemListsTakeTheLaterSystemNumbersAsAsked) {
    nvbtest::Handle handle;
    const Bytes frame = rec33("3, mixed systems");
    auto systems = [&](std::uint8_t map5, std::uint8_t map7) {
        auto buffer = std::make_unique<nvb_frame_t>();
        std::memcpy(buffer->data, frame.data(), frame.size());
        buffer->length = static_cast<std::uint16_t>(frame.size());
        EXPECT_EQ(nvbdll_readRec33Buffer(reinterpret_cast<std::uint8_t*>(buffer.get()), handle.get(), map5, map7), 14);
        const Rec33Sub3& sub = handle->records.rec33->sub3;
        return Bytes{sub.system[0], sub.system[1], sub.system[2], sub.second[0]};
    };
    EXPECT_EQ(systems(0, 0), (Bytes{5, 7, 0, 1}));
    EXPECT_EQ(systems(1, 0), (Bytes{7, 7, 0, 1})) << "the satellite is not renumbered";
    EXPECT_EQ(systems(0, 1), (Bytes{5, 10, 0, 1}));
    EXPECT_EQ(systems(1, 1), (Bytes{10, 10, 0, 1}));
}

TEST(Rec33Writer, RefusesTheRawSubtypesAndSendsSubtype16AsItsSecondByteAllows) {
    const auto dat = [](std::uint8_t subtype, std::uint8_t second) {
        Bytes body{subtype, 2, second, 2};
        for (int i = 0; i < 16; ++i) body.push_back(0x3F);
        return nvbtest::shortDat(33, 0, body);
    };
    for (const std::uint8_t raw : {0, 24, 31}) EXPECT_EQ(nvbtest::refusal(dat(raw, 0)), NVB_STATUS_NOT_WRITABLE);
    EXPECT_EQ(nvbtest::refusal(dat(16, 19)), NVB_STATUS_NOT_WRITABLE);
    EXPECT_EQ(nvbtest::refusal(nvbtest::shortDat(33, 0, {13, 16, 0, 0})), NVB_STATUS_NOT_WRITABLE) << "past 255 bytes";
    EXPECT_EQ(nvbtest::writtenFrame(dat(16, 9)), nvbtest::plainFrame(33, {16}, false)) << "the subtype byte alone";
    EXPECT_EQ(nvbtest::writtenFrame(dat(16, 8)).size(), 7 + 3 + 16u);
}

// A frame buffer of 0x41 bytes whose length, subtype and first body byte a test sets,
// read by the exported reader: what the reader takes beyond the body shows.
struct JunkFrame {
    nvbtest::Handle handle;
    std::unique_ptr<nvb_frame_t> buffer = std::make_unique<nvb_frame_t>();

    JunkFrame() { std::memset(buffer->data, 0x41, sizeof buffer->data); }
    const Rec33& read(std::uint8_t length, std::uint8_t subtype, std::uint8_t first = 0x41) {
        buffer->data[1] = length;
        buffer->data[3] = subtype;
        buffer->data[4] = first;
        nvbdll_readRec33Buffer(reinterpret_cast<std::uint8_t*>(buffer.get()), handle.get(), 1, 1);
        return *handle->records.rec33;
    }
};

TEST(Rec33Reader, Subtype19TakesItsTailFromL95Up) {
    JunkFrame junk;
    EXPECT_EQ(junk.read(96, 19).sub19.tailBytes[0], 0) << "L 94: cleared";
    EXPECT_EQ(junk.read(97, 19).sub19.tailBytes[0], 0x41) << "L 95: read, past the body";
    EXPECT_EQ(junk.read(101, 19).sub19.tailBytes[1], 0x41) << "L 99, the older form";
}

TEST(Rec33BadInput, CountsADamagedBodyPushesPastTheStructureAreCut) {
    JunkFrame junk;
    EXPECT_EQ(junk.read(3, 3, 0).sub3.count, 0) << "a length below a subtype 3's own bytes";
    EXPECT_EQ(junk.read(1, 3, 0).sub3.count, 82) << "L wraps";
    EXPECT_EQ(junk.read(255, 12, 0).sub5to12.count, 31);
    EXPECT_EQ(junk.read(1, 5, 0).sub5to12.count, 31);
    EXPECT_EQ(junk.read(255, 13, 200).sub13.count, 28);
    EXPECT_EQ(junk.read(255, 17, 0).sub17.count, 25);
    EXPECT_EQ(junk.read(255, 18, 0).sub18.count, 32);
    EXPECT_EQ(junk.read(255, 16, 0).sub16.count, 30);
    // A DAT form whose counts pass the arrays is refused whole.
    nvbtest::Encoder encoder(1);
    std::uint8_t status = 0;
    EXPECT_EQ(encoder.put(nvbtest::shortDat(33, 0, Bytes{13, 29, 0, 0}), &status), 0u);
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
}

// A record 33 of subtype 3 says which systems the receiver tracks: the encoder closes the
// block and starts the epoch and position histories over.
TEST(Rec33Writer, ASystemListClosesTheBlockAndTheNextEpochAndPositionAreReferences) {
    const auto log =
        nvbtest::mixedDatLog(nvbtest::LogShape{.epochs = 6, .olderRecords = false, .opaqueRecords = false});
    nvbtest::Encoder encoder(3);
    for (std::size_t i = 0; i + 2 < log.size(); ++i) encoder.put(log[i]);
    const int callbacks = encoder.callbacks();
    nvbtest::Handle reader;
    const Bytes list = nvbtest::processFrame(reader.get(), rec33("3")).dat;
    EXPECT_GT(encoder.put(list), 0u) << "the block before it goes out";
    EXPECT_EQ(encoder.callbacks(), callbacks + 1);
    encoder.put(log[log.size() - 2]);
    encoder.put(log.back());
    const Bytes& written = encoder.finish();

    // The carried types, as a reader meets them.
    nvbtest::Handle handle;
    const auto events = nvbtest::readStream(handle.get(), written, nvbtest::Getter::NvbByByte);
    std::vector<std::int32_t> carried;
    for (const nvbtest::ReadEvent& event : events) {
        if (event.result > 0 && event.status == 0) carried.push_back(event.result);
    }
    ASSERT_EQ(carried.size(), log.size() + 1);
    EXPECT_EQ(carried[carried.size() - 3], 33);
    EXPECT_EQ(carried[carried.size() - 2], 38) << "a reference epoch";
    EXPECT_EQ(carried.back(), 57) << "a reference position";
    EXPECT_EQ(carried[carried.size() - 4], 56) << "the position before it was a delta";
    const auto read = nvbtest::deliveredDat(events);
    EXPECT_EQ(read[read.size() - 3], list);
}

}  // namespace
