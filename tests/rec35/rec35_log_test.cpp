#include "rec35/rec35_codecs.h"
#include "support/host.h"
#include "support/rec35_natives.h"
#include "support/rec35_records.h"

#include <gtest/gtest.h>

#include <cstdio>
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

struct Seen {
    std::uint64_t subtype;
    std::uint64_t subsubtype;
};

std::vector<Seen> recordsOf(const std::vector<Bytes>& dats) {
    std::vector<Seen> out;
    for (const Bytes& dat : dats) {
        if (dat[3] == 35) out.push_back({nvbtest::datSubtype(dat), nvbtest::datSubsubtype(dat)});
    }
    return out;
}

class Rec35LogRoundTrip : public ::testing::TestWithParam<int> {};

TEST_P(Rec35LogRoundTrip, ALogOfRecords35ReadsBackTheSameAndCopiesWhole) {
    const Rec35Log input;
    const auto method = static_cast<std::uint8_t>(GetParam());
    const auto reads = nvbtest::readRec35Log(input.write(method));
    for (const auto& read : reads) EXPECT_EQ(read.processStatus, 0);
    EXPECT_EQ(nvbtest::deliveredFfts(reads), input.ffts);

    const std::vector<Bytes> dats = nvbtest::deliveredDats(reads);
    const std::vector<Seen> seen = recordsOf(dats);
    const std::vector<std::pair<std::uint64_t, std::uint64_t>> expected = {
        {0, 0},  {24, 0}, {24, 1}, {24, 2}, {24, 2}, {24, 2}, {24, 2}, {1, 0},
        {24, 1}, {24, 2}, {24, 2}, {12345678, 4}, {0, 0}};
    ASSERT_EQ(seen.size(), expected.size());
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].subtype, expected[i].first) << i;
        EXPECT_EQ(seen[i].subsubtype, expected[i].second) << i;
    }
    EXPECT_EQ(nvbtest::datPayload(dats.front()), input.raw);
    EXPECT_EQ(nvbtest::datPayload(dats.back()), input.longRaw);
    EXPECT_EQ(dats.back()[1] | (dats.back()[2] << 8), 0xFFFF) << "a long DAT form tells 65535";
    EXPECT_EQ(std::count(dats.begin(), dats.end(), input.plain), 1);

    // Written back in copy mode, every record comes again byte for byte.
    Rec35Writer copy(method, NVB_REC35_PASSTHROUGH | NVB_REC35_COPY);
    for (const Bytes& dat : dats) EXPECT_EQ(copy.dat(dat), 0);
    EXPECT_EQ(nvbtest::deliveredDats(nvbtest::readRec35Log(copy.finish())), dats);
}

INSTANTIATE_TEST_SUITE_P(BareMethods, Rec35LogRoundTrip, ::testing::Values(3, 5, 6, 7));

// While swallowing, every record of subsubtype 0 is kept from the host, the areas and the
// marker written with it included.
TEST(Rec35LogRoundTripDifferences, RecordsOfSubsubtype0AreSwallowedUnlessTheHostAsksForThem) {
    const Rec35Log input;
    const Bytes log = input.write(3);
    std::vector<Seen> expected;
    for (const Seen& record : recordsOf(nvbtest::deliveredDats(nvbtest::readRec35Log(log, false)))) {
        if (record.subsubtype != 0) expected.push_back(record);
    }
    const auto swallowed = recordsOf(nvbtest::deliveredDats(nvbtest::readRec35Log(log, true)));
    ASSERT_EQ(swallowed.size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) EXPECT_EQ(swallowed[i].subtype, expected[i].subtype);
}

// The values another Avro implementation must find in what the library wrote: the whole
// numbers of a reference record, the residuals of a delta (gps_msecs linear, mean_val and
// antenna_num hold), and fields an older schema lacks left out.
struct Expected {
    int schemaVersion;
    Fft values;  // wire values
};

std::string jsonNumber(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.17g", value);
    return text;
}

// One entry of the file: the schema text, the payload, and the values when they are
// to be checked (a delta record's are residuals: it must decode whole, that is all).
std::string jsonEntry(const Bytes& schema, const Bytes& payload, const std::string& values) {
    std::string out = "{\"schema\": \"";
    for (std::size_t i = 0; i + 1 < schema.size(); ++i) {
        const char c = static_cast<char>(schema[i]);
        if (c == '"' || c == '\\') out += '\\';
        if (c == '\r') {
            out += "\\r";
        } else if (c == '\n') {
            out += "\\n";
        } else {
            out += c;
        }
    }
    out += "\", \"payload\": \"";
    for (const std::uint8_t byte : payload) {
        char hex[3];
        std::snprintf(hex, sizeof hex, "%02x", byte);
        out += hex;
    }
    return out + "\"" + (values.empty() ? "" : ", \"values\": " + values) + "}";
}

std::string jsonOf(const Bytes& schema, const Bytes& payload, const Fft& v, bool withAntenna) {
    std::string values = "{\"gps_msecs\": " + std::to_string(static_cast<std::int64_t>(v.gps_msecs)) +
                         ", \"center_freq\": " + jsonNumber(v.center_freq) + ", \"bin_size\": " +
                         jsonNumber(v.bin_size) + ", \"peak_freq\": " + jsonNumber(v.peak_freq) +
                         ", \"peak_snr\": " + jsonNumber(v.peak_snr) + ", \"mean_val\": " +
                         std::to_string(v.mean_val) + ", \"FreqData\": [";
    for (std::size_t i = 0; i < v.bins.size(); ++i) values += (i ? ", " : "") + std::to_string(v.bins[i]);
    values += "]";
    if (withAntenna) values += ", \"antenna_num\": " + std::to_string(v.antenna_num);
    return jsonEntry(schema, payload, values + "}");
}

// Every subtype: a reference record whose wire values are the native ones scaled, and a
// delta record behind it.
void appendEverySubtype(std::vector<std::string>& entries) {
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
        const auto dats = nvbtest::deliveredDats(nvbtest::readRec35Log(writer.finish()));
        ASSERT_EQ(dats.size(), 3u);
        const Bytes schema = nvbtest::datPayload(dats[0]);
        entries.push_back(jsonEntry(schema, nvbtest::datPayload(dats[1]), nvbtest::rec35WireJson(codec, reference.get())));
        entries.push_back(jsonEntry(schema, nvbtest::datPayload(dats[2]), ""));
    }
}

Fft spectrum(std::uint32_t time, std::int32_t mean, std::uint32_t antenna, std::vector<std::int32_t> bins) {
    Fft fft = nvbtest::fftSequence(1, 0)[0];
    fft.gps_msecs = time;
    fft.mean_val = mean;
    fft.antenna_num = antenna;
    fft.bins = std::move(bins);
    return fft;
}

TEST(Rec35Interop, TheLibrarysSchemaAndPayloadsAreLeftForAnotherAvroReader) {
    const char* target = std::getenv("NVBDLL_REC35_INTEROP");
    const std::string path = target != nullptr ? target : nvbtest::writeTempFile({}, ".json");
    std::vector<std::string> entries;

    // The library's own schema: 10, 20, 40 go out as 10, 10, 10 (linear) and 10, 10, 20 (hold).
    const std::vector<Fft> own = {spectrum(10, 10, 1, {5, -5, 70000}), spectrum(20, 20, 1, {}),
                                  spectrum(40, 40, 3, {-2147483647 - 1})};
    const std::vector<Fft> ownWire = {spectrum(10, 10, 1, {5, -5, 70000}), spectrum(10, 10, 0, {}),
                                      spectrum(10, 20, 2, {-2147483647 - 1})};
    // An older stream schema, written through the resolver: antenna_num is left out.
    const std::vector<Fft> older = {spectrum(100, 5, 1, {1}), spectrum(150, 7, 1, {2, 3})};
    const std::vector<Fft> olderWire = {spectrum(100, 5, 1, {1}), spectrum(50, 2, 1, {2, 3})};

    for (const bool passthrough : {false, true}) {
        Rec35Writer writer(7, passthrough ? NVB_REC35_PASSTHROUGH : 0);
        if (passthrough) writer.dat(nvbtest::rec35Dat(24, 0, nvbtest::fftSchema(1)));
        for (const Fft& fft : passthrough ? older : own) ASSERT_EQ(writer.fft(fft), 0);
        const auto dats = nvbtest::deliveredDats(nvbtest::readRec35Log(writer.finish()));
        const std::vector<Fft>& wire = passthrough ? olderWire : ownWire;
        ASSERT_EQ(dats.size(), wire.size() + 1);
        const Bytes schema = nvbtest::datPayload(dats[0]);
        ASSERT_EQ(nvbtest::datSubsubtype(dats[0]), 0u);
        for (std::size_t i = 0; i < wire.size(); ++i) {
            entries.push_back(jsonOf(schema, nvbtest::datPayload(dats[i + 1]), wire[i], !passthrough));
        }
    }
    appendEverySubtype(entries);
    std::ofstream out(path);
    out << "[\n";
    for (std::size_t i = 0; i < entries.size(); ++i) out << entries[i] << (i + 1 < entries.size() ? ",\n" : "\n");
    out << "]\n";
    ASSERT_TRUE(out.good());
}

}  // namespace
