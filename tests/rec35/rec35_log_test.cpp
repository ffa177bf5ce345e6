#include "rec35/rec35_codecs.h"
#include "support/host.h"
#include "support/rec35_natives.h"
#include "support/rec35_records.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <random>
#include <string>

namespace {

using nvbtest::Bytes;
using nvbtest::Fft;
using nvbtest::Rec35Writer;

Bytes pattern(std::size_t size, std::uint8_t seed) {
    Bytes bytes(size);
    for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<std::uint8_t>(seed + i * 7 + (i >> 8));
    return bytes;
}

// What a newer receiver logs: spectra under the library's schema, references and deltas,
// a chain reset, the two areas, one payload of three frames and one past 64 KB, and a
// plain record among them.
struct Rec35Log {
    std::vector<Fft> ffts = nvbtest::fftSequence(8, 64);
    Bytes raw = pattern(9000, 3);
    Bytes longRaw = pattern(70000, 5);
    Bytes test = pattern(200, 9);
    Bytes plain = nvbtest::shortDat(14, 0, pattern(30, 1));

    Bytes write(std::uint8_t method) const {
        Rec35Writer writer(method);
        EXPECT_EQ(writer.dat(nvbtest::rec35Dat(0, 0, raw)), 0);
        for (std::size_t i = 0; i < 5; ++i) EXPECT_EQ(writer.fft(ffts[i]), 0);
        EXPECT_EQ(writer.dat(plain), 0);
        EXPECT_EQ(writer.dat(nvbtest::rec35Dat(1, 0, {})), 0);
        for (std::size_t i = 5; i < ffts.size(); ++i) EXPECT_EQ(writer.fft(ffts[i]), 0);
        EXPECT_EQ(writer.dat(nvbtest::rec35Dat(12345678, 4, test)), 0);
        EXPECT_EQ(writer.dat(nvbtest::rec35Dat(0, 0, longRaw)), 0);
        return writer.finish();
    }
};

using Seen = std::vector<std::pair<std::uint64_t, std::uint64_t>>;

// The subtype and subsubtype of each record 35 delivered.
Seen recordsOf(const std::vector<Bytes>& dats) {
    Seen out;
    for (const Bytes& dat : dats) {
        if (dat[3] == 35) out.emplace_back(nvbtest::datSubtype(dat), nvbtest::datSubsubtype(dat));
    }
    return out;
}

class Rec35LogRoundTrip : public ::testing::TestWithParam<int> {};

TEST_P(Rec35LogRoundTrip, ALogOfRecords35ReadsBackTheSameAndCopiesWhole) {
    const Rec35Log input;
    const auto method = static_cast<std::uint8_t>(GetParam());
    const Bytes log = input.write(method);
    const auto reads = nvbtest::readRec35Log(log);
    for (const auto& read : reads.all) EXPECT_EQ(read.processStatus, 0);
    EXPECT_EQ(reads.ffts, input.ffts);

    const std::vector<Bytes>& dats = reads.dats;
    const Seen expected = {{0, 0}, {24, 0}, {24, 1}, {24, 2}, {24, 2},       {24, 2}, {24, 2},
                           {1, 0}, {24, 1}, {24, 2}, {24, 2}, {12345678, 4}, {0, 0}};
    EXPECT_EQ(recordsOf(dats), expected);
    // While swallowing, every record of subsubtype 0 is kept from the host, the areas and
    // the marker written with it included.
    Seen kept;
    std::copy_if(expected.begin(), expected.end(), std::back_inserter(kept),
                 [](const auto& r) { return r.second != 0; });
    EXPECT_EQ(recordsOf(nvbtest::readRec35Log(log, true).dats), kept);
    EXPECT_EQ(nvbtest::datPayload(dats.front()), input.raw);
    EXPECT_EQ(nvbtest::datPayload(dats.back()), input.longRaw);
    EXPECT_EQ(dats.back()[1] | (dats.back()[2] << 8), 0xFFFF) << "a long DAT form tells 65535";
    EXPECT_EQ(std::count(dats.begin(), dats.end(), input.plain), 1);

    // Written back in copy mode, every record comes again byte for byte.
    Rec35Writer copy(method, NVB_REC35_PASSTHROUGH | NVB_REC35_COPY);
    for (const Bytes& dat : dats) EXPECT_EQ(copy.dat(dat), 0);
    EXPECT_EQ(nvbtest::readRec35Log(copy.finish()).dats, dats);
}

INSTANTIATE_TEST_SUITE_P(BareMethods, Rec35LogRoundTrip, ::testing::Values(3, 5, 6, 7));

// One entry of the file: the schema text, the payload, and the values when they are
// to be checked (a delta record's are residuals: it must decode whole, that is all).
nlohmann::json jsonEntry(const Bytes& schema, const Bytes& payload, const nlohmann::json& values = nullptr) {
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const std::uint8_t byte : payload) hex += {kDigits[byte >> 4], kDigits[byte & 15]};
    nlohmann::json entry = {{"schema", std::string(schema.begin(), schema.end() - 1)}, {"payload", hex}};
    if (!values.is_null()) entry["values"] = values;
    return entry;
}

// Every subtype: a reference record whose wire values are the native ones scaled, and a
// delta record behind it.
void appendEverySubtype(std::vector<nlohmann::json>& entries) {
    for (std::size_t slot = 0; slot < NVB_REC35_SUBTYPES; ++slot) {
        const nvb::Rec35Codec& codec = *nvb::rec35CodecAt(slot);
        std::mt19937_64 random(slot);
        Rec35Writer writer(7);
        nvbtest::Rec35Native reference(codec, 3);
        nvbtest::Rec35Native delta(codec, 3);
        nvbtest::fillRec35(codec, reference.get(), nvbtest::Rec35Values::Random, random);
        nvbtest::fillRec35(codec, delta.get(), nvbtest::Rec35Values::Random, random);
        ASSERT_EQ(writer.native(codec.subtype, reference.get()), 0);
        ASSERT_EQ(writer.native(codec.subtype, delta.get()), 0);
        const auto dats = nvbtest::readRec35Log(writer.finish()).dats;
        ASSERT_EQ(dats.size(), 3u);
        const Bytes schema = nvbtest::datPayload(dats[0]);
        entries.push_back(
            jsonEntry(schema, nvbtest::datPayload(dats[1]), nvbtest::rec35Json(codec, reference.get(), true)));
        entries.push_back(jsonEntry(schema, nvbtest::datPayload(dats[2])));
    }
}

TEST(Rec35Interop, TheLibrarysSchemaAndPayloadsAreLeftForAnotherAvroReader) {
    const char* target = std::getenv("NVBDLL_REC35_INTEROP");
    const std::string path = target != nullptr ? target : nvbtest::writeTempFile({}, ".json");
    std::vector<nlohmann::json> entries;

    // Every subtype in the library's own schema, then subtype 24 written through the
    // resolver under an older stream schema, which leaves antenna_num out.
    appendEverySubtype(entries);
    Rec35Writer writer(7, NVB_REC35_PASSTHROUGH);
    writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(1)));
    for (const Fft& fft : nvbtest::fftSequence(2, 3)) ASSERT_EQ(writer.fft(fft), 0);
    const auto dats = nvbtest::readRec35Log(writer.finish()).dats;
    ASSERT_EQ(dats.size(), 3u);
    for (std::size_t i = 1; i < dats.size(); ++i) {
        entries.push_back(jsonEntry(nvbtest::datPayload(dats[0]), nvbtest::datPayload(dats[i])));
    }
    std::ofstream out(path);
    out << nlohmann::json(entries).dump(1) << "\n";
    ASSERT_TRUE(out.good());
}

}  // namespace
