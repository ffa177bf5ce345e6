#include "records/receiver_records.h"
#include "support/plain_round_trip.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <string>
#include <vector>

namespace {

using namespace nvbtest;

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

TEST(ReceiverRecords, Record5Subtype7ReadsTheFramesOwnFirstBytesInStepsOfThree) {
    // Seven pairs: the reader walks i = 0, 3, 6 and takes frame byte i into pair byte 2i
    // and byte i + 1 into pair byte 2i + 3, counted from the pairs' start.
    const Bytes pairs = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7, 0xA8, 0xA9, 0xAA, 0xAB, 0xAC, 0xAD};
    const Bytes wire = plainFrame(5, concat({{7}, Body().u16(0x0102).f64(1.5).u16(7).bytes, pairs}));
    Handle handle;
    const ReadEvent got = processFrame(handle.get(), wire);
    ASSERT_EQ(got.datLength, wire.size() - 3);
    Bytes expected(2 * NVB_REC5_MAX_PAIRS, 0);
    for (std::size_t i = 0; i < 7; i += 3) {
        expected[2 * i] = wire[i];
        expected[2 * i + 3] = wire[i + 1];
    }
    const auto* area = &handle->records.rec5->sub7.pairs[0][0];
    EXPECT_EQ(Bytes(area, area + expected.size()), expected);
    EXPECT_EQ(copyOf(handle->records.rec5->sub7.double1), 1.5);
    // Only the DAT path carries the pairs: a DAT form of them is written as it stands.
    EXPECT_EQ(writtenFrame(shortDat(5, 7, concat({{0x02, 0x01}, Bytes(6, 0), {0xF8, 0x3F, 7, 0}, pairs}))), wire);
}

TEST(ReceiverRecords, Record5WithAZeroPresenceMarkIsWrittenUpToTheMarkAndReadOnPastIt) {
    // The reader still reads what follows the mark, here the checksum and end byte.
    Handle handle;
    const Bytes marked =
        plainFrame(5, concat({{2}, nvbtest::fields({{2, 6}, {1, 12}, {1, 12}, {1, 4}}).wire.bytes, {0}}));
    const ReadEvent shortened = processFrame(handle.get(), marked);
    ASSERT_EQ(shortened.datLength, marked.size() - 3);
    EXPECT_EQ(handle->records.rec5->sub2.bytes4[2], 0x03);
    EXPECT_EQ(writtenFrame(shortened.dat), marked);
}

TEST(ReceiverRecords, Record12ReportsItsCountsLengthWhateverTheStructureHolds) {
    const auto head = nvbtest::fields({{1, 1}, {2, 2}, {1, 2}, {2, 1}, {1, 4}, {2, 1}}, 9);
    const auto middle = nvbtest::fields({{1, 8}, {4, 2}}, 20);
    auto record = [&](std::uint8_t n, std::uint16_t word5, std::size_t pairs) {
        Body body;
        body.u8(n).raw(head.wire.bytes).u32(4000000000u).raw(middle.wire.bytes).u16(word5).raw(Bytes(14, 0x5E));
        body.scaled(-0.123456, 4, 22);
        for (std::size_t j = 0; j < pairs; ++j) body.scaled(0.5 + j / 64.0, 2, 11).scaled(-0.001 * j, 2, 21);
        return plainFrame(12, body.bytes);
    };
    Handle handle;
    for (const std::uint8_t n : {0, 5}) {
        const Bytes wire = record(n, 0x0203, n > 0 ? n - 1u : 0u);
        const ReadEvent got = processFrame(handle.get(), wire);
        EXPECT_EQ(got.datLength, n == 0 ? 68u : 68u + 16 * (n - 1u));
        EXPECT_EQ(got.dat[1] | got.dat[2] << 8, static_cast<int>(got.datLength));
        EXPECT_EQ(writtenFrame(got.dat), wire) << int(n);
    }
    EXPECT_EQ(copyOf(handle->records.rec12->unsignedValue), 4000000000.0);
    EXPECT_NEAR(copyOf(handle->records.rec12->signedValue), -0.123456, std::ldexp(1.0, -23));
    EXPECT_NEAR(copyOf(handle->records.rec12->pairs[3].second), -0.003, std::ldexp(1.0, -22));
    processFrame(handle.get(), record(5, 0, 4));
    EXPECT_EQ(copyOf(handle->records.rec12->word5), copyOf(handle->records.rec12->byte2))
        << "a zero word takes offset 9";

    // 60 announces 59 pairs: 48 fit the frame, 47 the structure; the DAT form keeps the
    // count's length, zero beyond the structure, and can't be written.
    const ReadEvent got = processFrame(handle.get(), record(60, 1, 48));
    EXPECT_EQ(got.datLength, 68u + 59 * 16);
    EXPECT_EQ(copyOf(handle->records.rec12->pairs[46].first), 0.5 + 46 / 64.0);
    EXPECT_EQ(got.dat.back(), 0);
    EXPECT_EQ(refusal(got.dat), NVB_STATUS_NOT_WRITABLE);
}

TEST(ReceiverRecords, Record15ScaledFieldsReadAsWholeNumbers) {
    const Bytes wire = plainFrame(15, Body()
                                          .raw(nvbtest::fields({{8, 11}}).wire.bytes)
                                          .u16(0xFFFE)
                                          .u16(300)
                                          .u32(4000000000u)
                                          .raw(text("setting"))
                                          .u8(9)
                                          .bytes);
    Handle handle;
    const ReadEvent got = processFrame(handle.get(), wire);
    ASSERT_EQ(got.datLength, 124u);
    EXPECT_EQ(copyOf(handle->records.rec15->signedValue1), -2.0);
    EXPECT_EQ(copyOf(handle->records.rec15->unsignedValue), 4000000000.0);
    EXPECT_EQ(writtenFrame(got.dat), wire);
}

const nlohmann::json& data() {
    static const nlohmann::json json = readJson(NVBDLL_TEST_DATA_DIR "/records/receiver.json");
    return json;
}

// A record 19 of a row's subtype and body.
Bytes rec19(const nlohmann::json& row) {
    return plainFrame(
        19, concat({{row["subtype"]}, fieldBytes(row["body"].get<std::string>()), text(row.value("text", ""))}));
}

TEST(ReceiverRecords, Record19SubtypesGiveTheirValuesAndOnlyFiveToSevenAreWrittenWhole) {
    Handle handle;
    for (const nlohmann::json& row : data()["record19"]) {
        SCOPED_TRACE(row.dump());
        const Bytes wire = rec19(row);
        const ReadEvent got = processFrame(handle.get(), wire);
        EXPECT_EQ(got.datLength, row["datLength"]);
        EXPECT_EQ(got.dat[2], row["reportedAs"]);
        const Rec19& rec = *handle->records.rec19;
        const double value = row["subtype"] == 1      ? rec.sub1.value
                             : row["subtype"] == 6    ? rec.sub6.value
                             : row["reportedAs"] == 7 ? rec.sub7.value
                                                      : rec.sub2.value;
        if (row.contains("value")) {
            EXPECT_EQ(value, row["value"]);
        }
        EXPECT_EQ(writtenFrame(got.dat),
                  row.contains("written") ? plainFrame(19, fieldBytes(row["written"].get<std::string>())) : wire);
    }
    processFrame(handle.get(), plainFrame(19, concat({{8, 0x12, 0x34, 0xFF}, text("FW 5.45 BUILD 0017")})));
    EXPECT_EQ(copyOf(handle->records.rec19->sub8.word), 0x1234) << "the slot byte is the word's high part";
    EXPECT_EQ(std::string(handle->records.rec19->sub8.text), "FW 5.45 BUILD 0017");
}

TEST(ReceiverRecords, Record19CompactValuesGoOnFromTheirSlotsLinearPrediction) {
    Handle handle;
    for (const nlohmann::json& step : data()["record19Compact"]) {
        SCOPED_TRACE(step.dump());
        ASSERT_EQ(processFrame(handle.get(), rec19(step)).datLength, 15u);
        const Rec19Sub7& rec = handle->records.rec19->sub7;
        EXPECT_EQ(rec.slot, step["slot"]);
        EXPECT_EQ(copyOf(rec.word), step["word"]);
        EXPECT_EQ(copyOf(rec.value), step["value"]);
    }
}

TEST(ReceiverRecords, Records22And24AreDecodedAndHandOverTheirWireBodyNotTheirStructure) {
    Handle handle;
    const Bytes wire24 = plainFrame(24, nvbtest::fields({{8, 12}, {4, 2}}).wire.bytes);
    const ReadEvent got24 = processFrame(handle.get(), wire24);
    ASSERT_EQ(got24.datLength, 108u);
    EXPECT_EQ(copyOf(handle->records.rec24->values[0]), nvbtest::kOrbit[1]);
    EXPECT_EQ(copyOf(handle->records.rec24->counters[1]), 302400u + 7 * 14);
    EXPECT_FALSE(nvbdll_retrieveDATRecord(handle.get(), 24, Bytes(108).data()));
    EXPECT_EQ(writtenFrame(got24.dat), wire24);

    // Three entries to each table; ten entries fill a frame and the structure keeps eight.
    for (const std::uint8_t n : {2, 9}) {
        const std::size_t entries = n + 1u;
        Body body;
        body.u8(n).raw(nvbtest::fields({{8, 4}, {1, 8}}).wire.bytes).raw(Bytes(entries, 0x21));
        body.raw(Bytes(6, 0x06)).raw(Bytes(entries, 0x22)).u16(1).u16(2).u16(3).u16(4);
        for (std::size_t t = 0; t < 4 * entries; ++t) body.u32(1000 * (t / entries) + t % entries);
        body.u16(5).u32(6).u32(7).u16(8).u16(9);
        const Bytes wire = plainFrame(22, body.bytes);
        const ReadEvent got = processFrame(handle.get(), wire);
        ASSERT_EQ(got.datLength, wire.size() - 2) << int(n);
        const Rec22& rec = *handle->records.rec22;
        EXPECT_EQ(copyOf(rec.dwordTables[3][2]), 3002u);
        EXPECT_EQ(copyOf(rec.dwordTables[1][7]), n > 7 ? 1007u : 0u);
        EXPECT_EQ(copyOf(rec.word7), 9);
        EXPECT_EQ(writtenFrame(got.dat), wire);
    }
    // A DAT form built from the structure goes out in native order and reads back swapped.
    Rec24 rec{};
    rec.values[0] = 1.0;
    rec.counters[0] = 1;
    processFrame(handle.get(), writtenFrame(structDat(24, 0, &rec, 108)));
    EXPECT_EQ(copyOf(handle->records.rec24->counters[0]), 0x01000000u);
    EXPECT_NE(copyOf(handle->records.rec24->values[0]), 1.0);
}

// A receiver describing itself in record 30, subtype 1.
Bytes description() {
    return plainFrame(30, fieldBytes(data()["description"].get<std::string>()));
}

TEST(ReceiverRecords, Record30SectionsReadAsFarAsTheirLengthsReach) {
    Handle handle;
    const Bytes wire = description();
    const ReadEvent got = processFrame(handle.get(), wire);
    ASSERT_EQ(got.datLength, wire.size() - 3);
    const Rec30Sub1& rec = handle->records.rec30->sub1;
    EXPECT_EQ(copyOf(rec.a.dword1), 0x00A1B2C3u);
    EXPECT_EQ(std::string(rec.b.text), "TR-9 GNSS RX");
    EXPECT_EQ(copyOf(rec.d.words[2]), 0x0203);
    EXPECT_EQ(copyOf(rec.f.dword1), 0x12345678u);
    EXPECT_EQ(rec.f.bytes[0], 0x9A) << "F's two bytes stand as they came";
    EXPECT_EQ(rec.i.byte1, 8);
    EXPECT_EQ(writtenFrame(got.dat), wire);

    for (const nlohmann::json& row : data()["record30"]) {
        SCOPED_TRACE(row["what"]);
        const Bytes read = plainFrame(30, fieldBytes(row["body"].get<std::string>()));
        const ReadEvent section = processFrame(handle.get(), read);
        ASSERT_EQ(section.datLength, row["datLength"]);
        Bytes expected = fieldBytes(row["dat"].get<std::string>());
        expected.resize(section.datLength - 4, 0);
        EXPECT_EQ(Bytes(section.dat.begin() + 4, section.dat.end()), expected);
        EXPECT_EQ(writtenFrame(section.dat),
                  row.contains("written") ? plainFrame(30, fieldBytes(row["written"].get<std::string>())) : read);
    }
}

TEST(ReceiverRecords, Record30SectionsHAndIRetrieveTheirFurtherBytesFromSectionG) {
    Handle handle;
    Rec30& rec = *handle->records.rec30;
    rec = Rec30{};
    rec.sub1.sectionCount = 9;
    rec.sub1.g.length = 6;
    rec.sub1.g.more[0] = 0xAA;
    rec.sub1.g.more[1] = 0xBB;
    rec.sub1.h.length = 3;
    rec.sub1.h.more[0] = 0x11;
    rec.sub1.i.length = 2;
    rec.sub1.i.more[0] = 0x22;
    const std::uint8_t length = 5 + 6 + 7 + 4 + 3;
    const std::uint8_t header[] = {0x74, length, 1, 30};
    std::memcpy(handle->records.datHeader, header, 4);
    Bytes dat(length);
    ASSERT_TRUE(nvbdll_retrieveDATRecord(handle.get(), 30, dat.data()));
    EXPECT_EQ(Bytes(dat.begin() + 11, dat.end()), Bytes({6, 0, 0, 0, 0, 0xAA, 0xBB, 3, 0, 0, 0xAA, 2, 0, 0xAA}));
}

TEST(ReceiverRecords, OnlyTheFirstDescriptionOfSubtypeZeroLeavesTheFirstGenerationHistory) {
    Handle handle;
    handle->firstGenHistory.previous.rowCount = 4;
    const Bytes reference = plainFrame(30, {0, 1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(processFrame(handle.get(), description()).type, 30);
    EXPECT_EQ(handle->firstRec30, 1) << "subtype 1 is no reference";
    EXPECT_EQ(processFrame(handle.get(), reference).type, 30);
    EXPECT_EQ(handle->firstRec30, 0);
    EXPECT_EQ(handle->firstGenHistory.previous.rowCount, 4);
    processFrame(handle.get(), reference);
    EXPECT_EQ(handle->firstGenHistory.previous.rowCount, 0);
}

TEST(PlainRecords, ShortBodiesAndUncappedCountsReadSafelyAndTheWriterRefusesWhatItCannotHold) {
    Handle handle;
    struct Hostile {
        Bytes frame;
        std::uint32_t datLength;
    };
    const Hostile frames[] = {
        {plainFrame(21, {17}), 190},  // svId alone: the rest reads the trailer and zeros
        {plainFrame(12, {255, 1, 2}), 68 + 16 * 254},
        {plainFrame(19, {3}), 4},
        {plainFrame(22, {255, 1, 2, 3}), 255},
    };
    for (const Hostile& hostile : frames) {
        EXPECT_EQ(processFrame(handle.get(), hostile.frame).datLength, hostile.datLength)
            << "type " << int(hostile.frame[2]);
    }
    EXPECT_EQ(copyOf(handle->records.rec21->words[1]), 0x0300) << "end byte, then zero";
    Rec5 pairs{};
    pairs.sub7.count = NVB_REC5_MAX_PAIRS + 1;
    Rec5 named{};
    named.sub0.textLength = NVB_REC5_TEXT_BYTES + 1;
    const Bytes refused[] = {structDat(5, 7, &pairs, 4 + sizeof(Rec5)), structDat(5, 0, &named, 4 + sizeof(Rec5)),
                             shortDat(5, 9, Bytes(sizeof(Rec5) + 1, 1)), shortDat(30, 7, {1, 2, 3})};
    for (const Bytes& dat : refused) {
        EXPECT_EQ(refusal(dat), NVB_STATUS_NOT_WRITABLE) << "type " << int(dat[3]) << " byte 2 " << int(dat[2]);
    }
}

}  // namespace
