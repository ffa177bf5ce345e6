#include "rec35/avro_layer.h"
#include "rec35/rec35_codecs.h"
#include "rec35/rec35_envelope.h"
#include "rec35/rec35_family.h"
#include "rec35/rec35_fields.h"
#include "support/rec35_natives.h"
#include "support/rec35_records.h"
#include "support/wire.h"

#include <avro.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using nvbtest::Bytes;
using nvbtest::Rec35Writer;

const nlohmann::json& data() {
    static const nlohmann::json json = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/rec35/prediction.json");
    return json;
}

TEST(Rec35Prediction, EachMethodSendsItsResidualsAndTheReaderUndoesThem) {
    for (const nlohmann::json& row : data()["methods"]) {
        SCOPED_TRACE(row["name"]);
        const int method = row["method"];
        const auto values = row["values"].get<std::vector<std::int64_t>>();
        nvbtest::MessageLog log;
        std::int64_t outPredicted = 0, outPrevious = 0, inPredicted = 0, inPrevious = 0;
        for (std::size_t i = 0; i < values.size(); ++i) {
            std::int64_t value = values[i];
            nvb::predictOutField(value, outPredicted, outPrevious, i == 0, method);
            EXPECT_EQ(value, row["wire"][i]) << i;
            nvb::predictInField(value, inPredicted, inPrevious, i == 0, method);
            EXPECT_EQ(value, values[i]) << i;
        }
        EXPECT_EQ(inPredicted, outPredicted);
        EXPECT_EQ(inPrevious, outPrevious);
        if (method > 1) {
            std::string expected;
            for (std::size_t i = 0; i < 2 * values.size(); ++i) {
                expected += "Unknown prediction method (2) for delta encoding\n";
            }
            EXPECT_EQ(log.text(), expected);
        }
    }
}

TEST(Rec35Prediction, FixedPointRoundsHalfAwayFromZeroUpTo2To60) {
    for (const nlohmann::json& row : data()["fixedPoint"]) {
        SCOPED_TRACE(row.dump());
        const int scale = row["scale"];
        std::uint8_t status = 0;
        const std::int64_t wire = nvb::scaleToWire(row["value"], scale, status);
        EXPECT_EQ(status, nvbtest::statusNamed(row.value("status", "OK")));
        if (status != 0) continue;
        EXPECT_EQ(wire, row["wire"]);
        EXPECT_EQ(nvb::scaleFromWire(wire, scale), std::ldexp(static_cast<double>(wire), -scale));
    }
}

// Subtype 306 carries one linear array: its payload is the array of residuals.
TEST(Rec35Prediction, ArrayElementsKeepTheirOwnHistoryAndANewOneGoesWhole) {
    const nvb::Rec35Codec& codec = *nvb::rec35CodecAt(nvb::rec35SlotOf(306).value());
    const std::vector<std::vector<std::uint32_t>> records = {
        {10, 20, 30}, {11, 21}, {12, 22, 33}, {13, 23, 36, 7}, {},
    };
    const std::vector<std::vector<std::int64_t>> wire = {
        {10, 20, 30},
        {1, 1},
        {0, 0, 33},      // the third element came back: its history starts from 0
        {0, 0, -30, 7},  // and its previous value is 0 as well: 36 - (2 x 33 - 0)
        {},
    };
    Rec35Writer writer(3);
    for (const auto& values : records) {
        nvbtest::Rec35Native native(codec, 4);
        nvbtest::setRec35(codec, native.get(), {{"msecs", values}});
        ASSERT_EQ(writer.native(306, native.get()), 0);
    }
    // The reader's side is the every-subtype suite's, whose arrays grow and shrink.
    const auto dats = nvbtest::readRec35Log(writer.finish(), true).dats;
    ASSERT_EQ(dats.size(), wire.size());
    for (std::size_t i = 0; i < wire.size(); ++i) {
        EXPECT_EQ(nvbtest::datSubsubtype(dats[i]), i == 0 ? 1u : 2u);
        EXPECT_EQ(nvbtest::datPayload(dats[i]), nvbtest::AvroBytes().longArray(wire[i]).bytes) << i;
    }
}

// A spectrum's residuals: gps_msecs linear, mean_val and antenna_num hold, the doubles and
// floats as they are.
TEST(Rec35Prediction, LinearAndHoldFieldsOfARecordSendTheirResiduals) {
    Rec35Writer writer(6);
    const auto fft = [](std::uint32_t time, std::int32_t mean, std::uint32_t antenna) {
        return nvbtest::Fft{time, 1575.42e6, 2.5f, 1.5, 30.0f, mean, {}, antenna};
    };
    for (const auto& [time, mean, antenna] : {std::tuple{10u, 10, 1u}, {20u, 20, 1u}, {40u, 40, 3u}}) {
        ASSERT_EQ(writer.fft(fft(time, mean, antenna)), 0);
    }
    const auto dats = nvbtest::readRec35Log(writer.finish()).dats;
    ASSERT_EQ(dats.size(), 4u);
    const nvbtest::Fft residuals[] = {fft(10, 10, 1), fft(10, 10, 0), fft(10, 20, 2)};
    for (std::size_t i = 0; i < 3; ++i) {
        EXPECT_EQ(nvbtest::datSubsubtype(dats[i + 1]), i == 0 ? 1u : 2u);
        EXPECT_EQ(nvbtest::datPayload(dats[i + 1]), nvbtest::fftPayload(residuals[i])) << i;
    }
}

TEST(Rec35Prediction, DeltasWaitForAReferenceAndSubsubtypesAbove2ReadAsDeltas) {
    nvbtest::Encoder encoder(3);
    std::uint8_t status = 0;
    const nvbtest::Fft fft = nvbtest::fftSequence(1, 4)[0];
    auto put = [&](std::uint64_t subsubtype, const Bytes& payload) {
        nvb::writeRec35Fragments(*encoder.get(), 24, subsubtype, payload, status);
    };
    put(0, nvbtest::fftSchema(2));
    put(2, nvbtest::fftPayload(fft));
    put(2, nvbtest::fftPayload(fft));
    put(1, nvbtest::fftPayload(fft));
    nvbtest::Fft zero = fft;  // residuals of the linear and hold fields all 0
    zero.gps_msecs = zero.antenna_num = 0;
    zero.mean_val = 0;
    zero.FreqData.clear();
    const Bytes zeroResiduals = nvbtest::fftPayload(zero);
    put(2, zeroResiduals);
    put(5, zeroResiduals);
    const auto reads = nvbtest::readRec35Log(encoder.finish(), true);
    EXPECT_EQ(reads.statuses,
              (std::vector<std::uint8_t>{NVB_STATUS_NEED_REFERENCE, NVB_STATUS_NEED_REFERENCE, 0, 0, 0}));
    ASSERT_EQ(reads.ffts.size(), 3u);
    EXPECT_EQ(reads.ffts[1].gps_msecs, fft.gps_msecs) << "a zero residual repeats the reference";
    EXPECT_EQ(reads.ffts[2].gps_msecs, fft.gps_msecs);
}

// Subtype 301 is meas[].week_number[][]: every element's inner arrays take the largest
// count of any, so one long array among many empty elements multiplies out.
TEST(Rec35BadInput, APayloadWhoseArraysMultiplyOutPastAnyWritableRecordIsRefused) {
    const nvb::Rec35Codec& codec = *nvb::rec35CodecAt(nvb::rec35SlotOf(301).value());
    constexpr std::int64_t kElements = 30000;
    nvbtest::AvroBytes payload;
    payload.longValue(kElements).longValue(1).longArray(std::vector<std::int64_t>(kElements, 0)).longValue(0);
    for (std::int64_t i = 1; i < kElements; ++i) payload.longValue(0);
    payload.longValue(0);
    nvbtest::Encoder encoder(3);
    std::uint8_t status = 0;
    nvb::writeRec35Fragments(*encoder.get(), 301, 0, Bytes(codec.schema.begin(), codec.schema.end()), status);
    nvb::writeRec35Fragments(*encoder.get(), 301, 1, payload.bytes, status);
    nvbtest::MessageLog quiet;
    EXPECT_EQ(nvbtest::readRec35Log(encoder.finish(), true).statuses,
              std::vector<std::uint8_t>{NVB_STATUS_REC35_CONTENT});
}

// What every member of the family shares, over all 40: random records on each field's
// grid, arrays growing and shrinking, one reference and deltas behind it, one refused
// record among them, read back in a fresh state equal field for field.
class Rec35EverySubtype : public ::testing::TestWithParam<std::size_t> {
protected:
    const nvb::Rec35Codec& codec() const { return *nvb::rec35CodecAt(GetParam()); }
};

TEST_P(Rec35EverySubtype, ARunOfRecordsReadsBackFieldForFieldPastARefusedOne) {
    const nvb::Rec35Codec& c = codec();
    std::mt19937_64 random(c.subtype);
    constexpr int kRecords = 12;
    Rec35Writer writer(3);
    std::vector<nlohmann::json> written;
    for (int i = 0; i < kRecords; ++i) {
        nvbtest::Rec35Native native(c, 3);
        nvbtest::fillRec35(c, native.get(), nvbtest::Rec35Values::Random, random);
        if (i == kRecords / 2) {
            // The record is refused before its prediction: the history stays that of
            // the record before, which the reader never learns of.
            const std::uint8_t refusal = nvbtest::spoilRec35(c, native.get());
            if (refusal != 0) {
                nvbtest::MessageLog quiet;
                EXPECT_EQ(writer.native(c.subtype, native.get()), refusal);
                continue;
            }
        }
        ASSERT_EQ(writer.native(c.subtype, native.get()), 0) << i;
        written.push_back(nvbtest::rec35Json(c, native.get()));
    }
    const auto reads = nvbtest::readRec35Log(writer.finish(), true);
    for (const auto& read : reads.all) EXPECT_EQ(read.processStatus, 0);
    ASSERT_EQ(reads.values.size(), written.size());
    for (std::size_t i = 0; i < written.size(); ++i) EXPECT_EQ(reads.values[i], written[i]) << "record " << i;
    for (std::size_t i = 0; i < reads.dats.size(); ++i) {
        EXPECT_EQ(nvbtest::datSubsubtype(reads.dats[i]), i == 0 || c.predict == nullptr ? 1u : 2u) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(AllAvroSubtypes, Rec35EverySubtype, ::testing::Range<std::size_t>(0, NVB_REC35_SUBTYPES),
                         [](const testing::TestParamInfo<std::size_t>& param) {
                             return "Sub" + std::to_string(nvb::kRec35AvroSubtypes[param.param]);
                         });

}  // namespace
