#include "external/io/io_buffer.h"
#include "rec35/avro_layer.h"
#include "rec35/rec35_envelope.h"
#include "rec35/rec35_slot.h"
#include "support/host.h"
#include "support/rec35_records.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using nvbtest::Bytes;
using nvbtest::Fft;
using nvbtest::Rec35Writer;

Bytes text(const std::string& s) {
    return Bytes(s.begin(), s.end());
}

const nlohmann::json& data() {
    static const nlohmann::json json = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/rec35/schemas.json");
    return json;
}

TEST(Rec35SchemaVersion, TheFirstQuotedVersionKeyFollowedByACommaCounts) {
    for (const nlohmann::json& row : data()["schemaVersions"]) {
        SCOPED_TRACE(row["text"]);
        nvbtest::MessageLog log;
        std::int64_t version = 0;
        std::uint8_t status = 0;
        nvb::getAvroSchemaVersion(text(row["text"]), version, status);
        EXPECT_EQ(status, row["version"] == 0 ? NVB_STATUS_AVRO : 0);
        if (row["version"] != 0) {
            EXPECT_EQ(version, row["version"]);
        }
        EXPECT_EQ(log.text(), row["message"]);
    }
}

// A log whose subtype 24 records come under the schema of `version`: the library's own
// (2) written from native records, an older one through the passthrough writer, a newer
// one copied from bytes another writer made.
Bytes fftLog(int version, const std::vector<Fft>& ffts, const std::string& typeOfMean = "long") {
    if (version == 2) {
        Rec35Writer writer(3);
        for (const Fft& fft : ffts) EXPECT_EQ(writer.fft(fft), 0);
        return writer.finish();
    }
    Rec35Writer writer(3, NVB_REC35_PASSTHROUGH | NVB_REC35_COPY);
    EXPECT_EQ(writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(version, typeOfMean))), 0);
    for (const Fft& fft : ffts) {
        const std::uint8_t status =
            version == 1 ? writer.fft(fft) : writer.dat(nvbtest::rec35Dat(24, 1, nvbtest::fftPayload(fft, version)));
        EXPECT_EQ(status, 0);
    }
    return writer.finish();
}

TEST(Rec35Versions, StreamSchemasOlderNewerOrEqualAreReadThroughTheRightReader) {
    const std::vector<Fft> ffts = nvbtest::fftSequence(4, 16);
    for (const nlohmann::json& c : data()["streamVersions"]) {
        SCOPED_TRACE(c["name"]);
        const int version = c["version"];
        const std::uint8_t status = nvbtest::statusNamed(c["status"]);
        const Bytes log = fftLog(version, ffts, c["typeOfMean"]);
        nvbtest::Handle handle;
        nvbtest::MessageLog messages;
        const auto reads = nvbtest::readRec35Log(log, true, handle.get());
        std::string expected = c["message"];
        if (status != 0) {
            // Each record fails alike; the message stands once per record.
            const std::string perRecord = expected.substr(expected.find("Could not"));
            for (std::size_t i = 1; i < ffts.size(); ++i) expected += perRecord;
        }
        EXPECT_EQ(messages.text(), expected);
        EXPECT_EQ(reads.statuses, std::vector<std::uint8_t>(ffts.size(), status));
        if (status != 0) continue;
        std::vector<Fft> expectedFfts = ffts;
        if (version == 1) {
            for (Fft& fft : expectedFfts) fft.antenna_num = 0;
        }
        EXPECT_EQ(reads.ffts, expectedFfts);
        const rec35_slot_t* slot = handle->rec35Assembly.slots[nvbtest::kFftSlot];
        EXPECT_EQ(slot->reader->resolved, c["resolved"] ? 1 : 0);
        EXPECT_EQ(slot->file_version, version);
    }
}

TEST(Rec35Versions, ASecondSchemaMidwayRebuildsTheReaderForTheRecordsBehindIt) {
    const std::vector<Fft> ffts = nvbtest::fftSequence(4, 8);
    Rec35Writer writer(5, NVB_REC35_PASSTHROUGH | NVB_REC35_COPY);
    writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(2)));
    writer.dat(nvbtest::rec35Dat(24, 1, nvbtest::fftPayload(ffts[0], 2)));
    writer.dat(nvbtest::rec35Dat(24, 1, nvbtest::fftPayload(ffts[1], 2)));
    writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(1)));
    writer.dat(nvbtest::rec35Dat(24, 1, nvbtest::fftPayload(ffts[2], 1)));
    writer.dat(nvbtest::rec35Dat(24, 1, nvbtest::fftPayload(ffts[3], 1)));
    std::vector<Fft> expected = ffts;
    expected[2].antenna_num = expected[3].antenna_num = 0;
    EXPECT_EQ(nvbtest::readRec35Log(writer.finish(), true).ffts, expected);
}

TEST(Rec35Versions, ADataRecordBeforeItsSchemaIsNotDecoded) {
    nvbtest::Encoder encoder(3);
    std::uint8_t status = 0;
    nvb::writeRec35Fragments(*encoder.get(), 24, 1, nvbtest::fftPayload(nvbtest::fftSequence(1, 4)[0]), status);
    nvbtest::MessageLog messages;
    const auto reads = nvbtest::readRec35Log(encoder.finish());
    ASSERT_EQ(reads.all.size(), 1u);
    EXPECT_EQ(reads.all[0].processStatus, NVB_STATUS_AVRO);
    EXPECT_EQ(reads.all[0].type, NVB_NO_RECORD_TYPE);
    EXPECT_EQ(messages.text(),
              "Writer schema is not loaded. Cannot decode record.\n"
              "readRec35BufferContent error: 19 subtype=24 subsubtype=1\n");
}

TEST(Rec35Versions, APassthroughSchemaNewerThanTheLibrarysIsRefusedWithEveryRecordBehindIt) {
    Rec35Writer writer(7, NVB_REC35_PASSTHROUGH);
    const Fft fft = nvbtest::fftSequence(1, 4)[0];
    EXPECT_EQ(writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(3))), NVB_STATUS_SCHEMA);
    EXPECT_EQ(writer.fft(fft), NVB_STATUS_SCHEMA);
    EXPECT_EQ(writer.dat(nvbtest::rec35Dat(24, 1, nvbtest::fftPayload(fft, 3))), NVB_STATUS_SCHEMA);
    EXPECT_TRUE(nvbtest::readRec35Log(writer.finish()).dats.empty());
}

TEST(Rec35Versions, TheWriterRefusesASecondVersionOnceItHasAResolver) {
    Rec35Writer writer(3, NVB_REC35_PASSTHROUGH);
    const Fft fft = nvbtest::fftSequence(1, 4)[0];
    nvbtest::MessageLog messages;
    EXPECT_EQ(writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(1))), 0);
    EXPECT_EQ(writer.fft(fft), 0);
    EXPECT_EQ(writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(2))), 0);
    EXPECT_EQ(writer.fft(fft), NVB_STATUS_AVRO);
    EXPECT_EQ(messages.text(),
              "Writing to multiple schema versions with the same cached writer.This mode of "
              "operation has not been tested.\n");
}

// What the writer refuses, by mode; the method must be a bare one for record 35 at all.
TEST(Rec35Refusals, HeadersTheModeCannotTakeAreRefusedWhole) {
    for (const nlohmann::json& row : data()["refusals"]) {
        SCOPED_TRACE(row["name"]);
        std::uint8_t mode = 0;
        for (const std::string flag : row.value("mode", nlohmann::json::array())) {
            mode |= flag == "copy" ? NVB_REC35_COPY : NVB_REC35_PASSTHROUGH;
        }
        Bytes dat = row.contains("dat") ? nvbtest::fieldBytes(row["dat"].get<std::string>())
                                        : nvbtest::rec35Dat(row["subtype"], row.value("subsubtype", 0),
                                                            Bytes(row.value("payload", 0), 1));
        if (row.contains("toldLength")) dat[1] = row["toldLength"];
        Rec35Writer writer(row["method"], mode);
        const std::uint32_t before = writer.encoder->recordCount;
        const std::uint8_t status = nvbtest::statusNamed(row["status"]);
        EXPECT_EQ(writer.dat(dat), status);
        EXPECT_EQ(writer.encoder->recordCount - before, status == 0 ? 1u : 0u);
    }
}

// Bad schema texts and payloads cost their own records only; later good ones still read.
TEST(Rec35BadInput, BadSchemaTextsAndPayloadsGiveStatus19) {
    const Fft fft = nvbtest::fftSequence(1, 4)[0];
    Bytes unterminated = nvbtest::fftSchema(1);
    unterminated.pop_back();
    Bytes notJson = text("{\"version\": 1, this is no schema");
    notJson.push_back(0);
    Bytes truncated = nvbtest::fftPayload(fft);
    truncated.resize(truncated.size() / 2);
    const struct {
        const char* name;
        Bytes schema;
        Bytes payload;
    } rows[] = {
        {"schema without its terminating zero", unterminated, nvbtest::fftPayload(fft, 1)},
        {"schema that is not JSON", notJson, nvbtest::fftPayload(fft, 1)},
        {"payload cut short", nvbtest::fftSchema(2), truncated},
        {"payload of another schema", nvbtest::fftSchema(2), nvbtest::AvroBytes().longValue(-1).bytes},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        nvbtest::Encoder encoder(7);
        std::uint8_t status = 0;
        nvb::writeRec35Fragments(*encoder.get(), 24, 0, row.schema, status);
        nvb::writeRec35Fragments(*encoder.get(), 24, 1, row.payload, status);
        nvb::writeRec35Fragments(*encoder.get(), 24, 0, nvbtest::fftSchema(2), status);
        nvb::writeRec35Fragments(*encoder.get(), 24, 1, nvbtest::fftPayload(fft), status);
        nvbtest::MessageLog quiet;
        const auto reads = nvbtest::readRec35Log(encoder.finish(), true);
        ASSERT_FALSE(reads.statuses.empty());
        EXPECT_EQ(reads.statuses.front(), NVB_STATUS_AVRO);
        EXPECT_EQ(reads.statuses.back(), 0);
        EXPECT_EQ(reads.ffts, std::vector<Fft>{fft});
    }
}

// Every allocation of the layer failing in turn: a status and the rest of the log, never a
// crash or a leak. Avro C's own allocations are left alone: its schema parser does not
// survive a failed one.
std::int64_t failAt = -1;
std::int64_t allocations = 0;

void* failingReallocate(void* block, std::size_t size) {
    return allocations++ == failAt ? nullptr : std::realloc(block, size);
}

// The spectra a log written and read with allocation `at` failing delivers.
std::vector<Fft> readWithFailureAt(std::int64_t at, const std::vector<Fft>& ffts) {
    failAt = at;
    allocations = 0;
    nvb::setIoReallocate(failingReallocate);
    Rec35Writer writer(3);
    for (const Fft& fft : ffts) writer.fft(fft);
    writer.dat(nvbtest::rec35Dat(0, 0, Bytes(9000, 4)));
    const std::vector<Fft> read = nvbtest::readRec35Log(writer.finish()).ffts;
    nvb::setIoReallocate(nullptr);
    return read;
}

TEST(Rec35BadInput, EveryAllocationFailingInTurnCostsRecordsNeverTheProcess) {
    const std::vector<Fft> ffts = nvbtest::fftSequence(3, 6);
    ASSERT_EQ(readWithFailureAt(-1, ffts), ffts);
    const std::int64_t total = allocations;
    ASSERT_GT(total, 10);
    for (std::int64_t at = 0; at < total; ++at) {
        nvbtest::MessageLog quiet;
        // What is delivered is right; what is lost is lost whole.
        for (const Fft& fft : readWithFailureAt(at, ffts)) {
            EXPECT_NE(std::find(ffts.begin(), ffts.end(), fft), ffts.end()) << at;
        }
    }
}

}  // namespace
