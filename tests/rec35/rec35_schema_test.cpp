#include "external/io/io_buffer.h"
#include "rec35/avro_layer.h"
#include "rec35/rec35_envelope.h"
#include "rec35/rec35_slot.h"
#include "support/host.h"
#include "support/rec35_records.h"

#include <gtest/gtest.h>

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

TEST(Rec35SchemaVersion, TheFirstQuotedVersionKeyFollowedByACommaCounts) {
    const struct {
        const char* text;
        std::int64_t version;  // 0: status 19
        const char* message;
    } rows[] = {
        {"{\"version\": 7, \"fields\": []}", 7, ""},
        {"{\"version\":7,\"fields\":[]}", 7, ""},
        {"{\"version\": 65535, \"x\": 1}", 65535, ""},
        {"{\"a\": 1, \"version\": 3, \"version\": 4,}", 3, ""},
        {"{\"fields\": [], \"version\": 7}", 0, ""},
        {"{\"version\": 0, \"x\": 1}", 0, "get_avro_schema_version() read an invalid version: 0.\n"},
        {"{\"version\": 65536, \"x\": 1}", 0, "get_avro_schema_version() read an invalid version: 65536.\n"},
        {"{\"version\": -2, \"x\": 1}", 0, "get_avro_schema_version() read an invalid version: -2.\n"},
        {"{\"version\": seven, \"x\": 1}", 0, "get_avro_schema_version() read an invalid version: 0.\n"},
        {"{\"version\":, \"x\": 1}", 0, ""},
        {"{\"versions\": 7, \"x\": 1}", 0, ""},
        {"\"version\"", 0, ""},
        {"version: 7, x", 0, ""},
        {"", 0, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        nvbtest::MessageLog log;
        std::int64_t version = 0;
        std::uint8_t status = 0;
        nvb::getAvroSchemaVersion(text(row.text), version, status);
        EXPECT_EQ(status, row.version == 0 ? NVB_STATUS_AVRO : 0);
        if (row.version != 0) {
            EXPECT_EQ(version, row.version);
        }
        EXPECT_EQ(log.text(), row.message);
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

struct VersionCase {
    const char* name;
    int version;
    const char* typeOfMean;
    std::uint8_t status;
    bool resolved;
    const char* message;
};

const VersionCase kVersionCases[] = {
    {"same version: matched reader", 2, "long", 0, false, ""},
    {"older stream: resolved reader, the missing field reads 0", 1, "long", 0, true, ""},
    {"newer stream: resolved reader, the new field is skipped", 3, "long", 0, true,
     "For Record 35 Subtype 24: nvblib schema version = 2, nve file schema version = 3. Upgrade your nvb "
     "library.\n"},
    {"newer stream whose field no resolver matches", 3, "string", NVB_STATUS_AVRO, true,
     "For Record 35 Subtype 24: nvblib schema version = 2, nve file schema version = 3. Upgrade your nvb "
     "library.\nCould not create resolver\nreadRec35BufferContent error: 19 subtype=24 subsubtype=1\n"},
};

TEST(Rec35Versions, StreamSchemasOlderNewerOrEqualAreReadThroughTheRightReader) {
    const std::vector<Fft> ffts = nvbtest::fftSequence(4, 16);
    for (const VersionCase& c : kVersionCases) {
        SCOPED_TRACE(c.name);
        const Bytes log = fftLog(c.version, ffts, c.typeOfMean);
        nvbtest::Handle handle;
        nvbtest::MessageLog messages;
        const auto reads = nvbtest::readRec35Log(log, true, handle.get());
        std::string expected = c.message;
        if (c.status != 0) {
            // Each record fails alike; the message stands once per record.
            std::string repeated = c.message;
            const std::string perRecord = repeated.substr(repeated.find("Could not"));
            for (std::size_t i = 1; i < ffts.size(); ++i) expected += perRecord;
        }
        EXPECT_EQ(messages.text(), expected);
        EXPECT_EQ(nvbtest::processStatuses(reads), std::vector<std::uint8_t>(ffts.size(), c.status));
        if (c.status != 0) continue;
        std::vector<Fft> expectedFfts = ffts;
        if (c.version == 1) {
            for (Fft& fft : expectedFfts) fft.antenna_num = 0;
        }
        EXPECT_EQ(nvbtest::deliveredFfts(reads), expectedFfts);
        const rec35_slot_t* slot = handle->rec35Assembly.slots[nvbtest::kFftSlot];
        EXPECT_EQ(slot->reader->resolved, c.resolved ? 1 : 0);
        EXPECT_EQ(slot->file_version, c.version);
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
    EXPECT_EQ(nvbtest::deliveredFfts(nvbtest::readRec35Log(writer.finish(), true)), expected);
}

TEST(Rec35Versions, ADataRecordBeforeItsSchemaIsNotDecoded) {
    nvbtest::Encoder encoder(3);
    std::uint8_t status = 0;
    nvb::writeRec35Fragments(*encoder.get(), 24, 1, nvbtest::fftPayload(nvbtest::fftSequence(1, 4)[0]), status);
    nvbtest::MessageLog messages;
    const auto reads = nvbtest::readRec35Log(encoder.finish());
    ASSERT_EQ(reads.size(), 1u);
    EXPECT_EQ(reads[0].processStatus, NVB_STATUS_AVRO);
    EXPECT_EQ(reads[0].type, NVB_NO_RECORD_TYPE);
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
    EXPECT_TRUE(nvbtest::deliveredDats(nvbtest::readRec35Log(writer.finish())).empty());
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
    const Bytes payload(10, 1);
    const struct {
        const char* name;
        std::uint8_t method;
        std::uint8_t mode;
        Bytes dat;
        std::uint8_t status;
    } rows[] = {
        {"byte stream", 0, 0, nvbtest::rec35Dat(0, 0, payload), NVB_STATUS_NOT_WRITABLE},
        {"framed block method", 4, 0, nvbtest::rec35Dat(0, 0, payload), NVB_STATUS_NOT_WRITABLE},
        {"raw area", 3, 0, nvbtest::rec35Dat(0, 0, payload), 0},
        {"test area", 3, 0, nvbtest::rec35Dat(12345678, 5, payload), 0},
        {"marker", 3, 0, nvbtest::rec35Dat(1, 0, {}), 0},
        {"marker with a subsubtype in passthrough", 3, NVB_REC35_PASSTHROUGH, nvbtest::rec35Dat(1, 1, {}),
         NVB_STATUS_NOT_WRITABLE},
        {"foreign Avro bytes outside passthrough", 3, 0, nvbtest::rec35Dat(24, 1, payload), NVB_STATUS_NOT_WRITABLE},
        {"subsubtype 3 in passthrough", 3, NVB_REC35_PASSTHROUGH, nvbtest::rec35Dat(24, 3, payload),
         NVB_STATUS_NOT_WRITABLE},
        {"no native record", 3, 0, nvbtest::rec35Dat(24, 1, {}), NVB_STATUS_REC35_CONTENT},
        {"no raw area", 3, 0, nvbtest::rec35Dat(0, 0, {}), NVB_STATUS_REC35_CONTENT},
        {"unknown subtype", 3, NVB_REC35_PASSTHROUGH, nvbtest::rec35Dat(13, 1, payload), NVB_STATUS_NOT_WRITABLE},
        {"unknown subtype copied", 3, NVB_REC35_PASSTHROUGH | NVB_REC35_COPY, nvbtest::rec35Dat(13, 1, payload), 0},
        {"subtype with a high word copied", 3, NVB_REC35_COPY, nvbtest::rec35Dat(1ull << 40, 1, payload), 0},
        {"nothing to copy", 3, NVB_REC35_COPY, nvbtest::rec35Dat(13, 1, {}), NVB_STATUS_NOT_WRITABLE},
        {"a length beside the told one", 3, 0,
         [&] {
             Bytes dat = nvbtest::rec35Dat(0, 0, payload);
             dat[1] = 20;
             return dat;
         }(),
         NVB_STATUS_NOT_WRITABLE},
        {"a header shorter than the fields", 3, 0, Bytes{0x74, 4, 0, 35}, NVB_STATUS_NOT_WRITABLE},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Rec35Writer writer(row.method, row.mode);
        const std::uint32_t before = writer.encoder->recordCount;
        EXPECT_EQ(writer.dat(row.dat), row.status);
        EXPECT_EQ(writer.encoder->recordCount - before, row.status == 0 ? 1u : 0u);
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
        const auto statuses = nvbtest::processStatuses(reads);
        ASSERT_FALSE(statuses.empty());
        EXPECT_EQ(statuses.front(), NVB_STATUS_AVRO);
        EXPECT_EQ(statuses.back(), 0);
        EXPECT_EQ(nvbtest::deliveredFfts(reads), std::vector<Fft>{fft});
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
    const std::vector<Fft> read = nvbtest::deliveredFfts(nvbtest::readRec35Log(writer.finish()));
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
