#include "support/encoder.h"
#include "support/reader.h"

#include <gtest/gtest.h>

#include <random>

namespace {

using nvbtest::Bytes;
using nvbtest::Encoder;
using nvbtest::shortDat;

std::vector<Bytes> opaqueRecords(int count, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<Bytes> dats;
    const std::uint8_t types[] = {14, 23};
    for (int i = 0; i < count; ++i) {
        Bytes body(1 + random() % 240);
        for (auto& byte : body) byte = static_cast<std::uint8_t>(random());
        dats.push_back(shortDat(types[i % 2], 0, body));
    }
    return dats;
}

class EncodeEveryMethod : public ::testing::TestWithParam<int> {};

TEST_P(EncodeEveryMethod, OpaqueRecordsReadBackToTheSameDat) {
    for (const std::uint8_t level : {0, 1, 2}) {
        Encoder encoder(static_cast<std::uint8_t>(GetParam()), level);
        const auto dats = opaqueRecords(700, 3);
        for (const Bytes& dat : dats) encoder.put(dat);
        const Bytes& log = encoder.finish();
        nvbtest::Handle handle;
        EXPECT_EQ(nvbtest::deliveredDat(nvbtest::readStream(handle.get(), log, nvbtest::Getter::NvbFile)), dats)
            << "level " << int(level);
    }
}

INSTANTIATE_TEST_SUITE_P(Methods, EncodeEveryMethod, ::testing::Range(0, 8));

TEST(Encode, NoWriteCallbackIsStatusSixteen) {
    Encoder encoder(7);
    encoder->writeCallback = nullptr;
    std::uint8_t status = 0;
    EXPECT_EQ(encoder.put(shortDat(14, 0, Bytes(10, 1)), &status), 0u);
    EXPECT_EQ(status, 16);
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
}

TEST(Encode, RecordCountCountsWhatWentThroughTheWriters) {
    Encoder encoder(1);
    encoder.put(shortDat(14, 0, Bytes(10, 1)));
    encoder.put(shortDat(6, 0, Bytes(10, 1)));    // no parser: refused
    encoder.put(shortDat(103, 0, Bytes(10, 1)));  // beyond the catalogue
    encoder.put(shortDat(23, 0, Bytes(10, 1)));
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 2u);
}

TEST(Encode, HuffmanStreamCarriesEndSymbolsEverySixHundredRecordsAndAtTheEnd) {
    Encoder encoder(0);
    for (const Bytes& dat : opaqueRecords(1200, 9)) encoder.put(dat);
    const Bytes& log = encoder.finish();
    nvbtest::Handle handle;
    int endSymbols = 0;
    const auto events = nvbtest::readStream(handle.get(), log, nvbtest::Getter::NvbByByte);
    for (const auto& event : events) endSymbols += event.status == 6 ? 1 : 0;
    // The end symbol at the very start falls inside stream detection and is not reported.
    EXPECT_EQ(endSymbols, 3);
    EXPECT_EQ(nvbtest::deliveredDat(events).size(), 1200u);
}

TEST(Encode, FirstBlockComesWithTheHeaderInOneCallback) {
    Encoder encoder(1);
    encoder.put(shortDat(14, 0, Bytes(10, 1)));
    encoder.finish();
    EXPECT_EQ(encoder.callbacks(), 1);
    EXPECT_EQ(encoder.output().size(), 17u + 4 + 6 + 16);
}

TEST(Encode, TornTailDeliversEveryRecordBeforeTheCut) {
    for (const std::uint8_t method : {0, 1, 3, 5, 7}) {
        Encoder encoder(method);
        encoder->restartHeader = 0;
        const auto dats = opaqueRecords(3000, 4);
        for (const Bytes& dat : dats) encoder.put(dat);
        const Bytes& log = encoder.finish();
        std::mt19937 random(method);
        for (int cut = 0; cut < 5; ++cut) {
            const std::size_t at = random() % log.size();
            nvbtest::Handle handle;
            const auto read = nvbtest::deliveredDat(
                nvbtest::readStream(handle.get(), Bytes(log.begin(), log.begin() + static_cast<long>(at)), nvbtest::Getter::NvbFile));
            ASSERT_LE(read.size(), dats.size());
            for (std::size_t i = 0; i < read.size(); ++i) ASSERT_EQ(read[i], dats[i]) << "method " << int(method);
        }
    }
}

}  // namespace
