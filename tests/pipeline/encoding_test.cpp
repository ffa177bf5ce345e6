#include "pipeline/serialisation.h"
#include "support/encoder.h"
#include "support/reader.h"

#include <gtest/gtest.h>

#include <memory>
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
    // At the very start (reported by the first call, from detection), every 600 records
    // and at the close.
    EXPECT_EQ(endSymbols, 4);
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

namespace {

// A record 17 of ten satellites, five with their second frequency: 258 bytes on the wire,
// so its reference form is a type 77 of 257 bytes.
Bytes longRecord17() {
    auto rec = std::make_unique<Rec17>();
    rec->receiveTime = 345600000;
    rec->nSv = 10;
    for (int i = 0; i < rec->nSv; ++i) {
        Rec17Sv& sv = rec->sv[i];
        sv.svId = static_cast<std::uint8_t>(1 + i);
        sv.svFlags = static_cast<std::uint8_t>(0x10 | (i < 5 ? 0x01 : 0x00));
        sv.svFlags3 = 3;
        sv.snr = 44.0;
        sv.range = 21.0e6 + 1000.0 * i;
        sv.phase = -1.1e8 - 5000.0 * i;
    }
    Bytes dat(4096);
    dat.resize(nvb::writeDatForm(*rec, dat.data(), dat.size()));
    return dat;
}

}  // namespace

TEST(Encode, ALongRecord17TheBareMethodsCantLengthCodeIsRefusedWhole) {
    const Bytes dat = longRecord17();
    Encoder bare(7);
    std::uint8_t status = 0;
    bare.put(dat, &status);
    EXPECT_EQ(status, 3);
    nvbtest::Handle bareReader;
    EXPECT_TRUE(nvbtest::deliveredDat(nvbtest::readStream(bareReader.get(), bare.finish(), nvbtest::Getter::NvbFile)).empty());

    Encoder framed(1);
    framed.put(dat, &status);
    EXPECT_EQ(status, 0);
    nvbtest::Handle framedReader;
    const auto read = nvbtest::deliveredDat(nvbtest::readStream(framedReader.get(), framed.finish(), nvbtest::Getter::NvbFile));
    ASSERT_EQ(read.size(), 1u);
    EXPECT_EQ(read[0][3], 17);
}

TEST(Encode, AClockTermBeyondSevenBytesIsRefusedWhole) {
    auto epoch = std::make_unique<Rec27>();
    epoch->epochHeaderLen = 17;
    epoch->receiveTime = 345600000;
    epoch->epochFlags = 0x20;
    epoch->clock.blockLength = 12;
    epoch->clock.count = 1;
    epoch->clock.systemClockOffset[0] = 1e300;
    epoch->nSv = 1;
    epoch->sv[0].svBlockLen = 10;
    epoch->sv[0].svId = 5;
    epoch->sv[0].nMeas = 1;
    epoch->sv[0].meas[0].measBlockLen = 27;
    epoch->sv[0].meas[0].range = 2.1e7;
    Bytes dat(1 << 16);
    dat.resize(nvb::writeDatForm(*epoch, dat.data(), dat.size()));
    Encoder encoder(7);
    std::uint8_t status = 0;
    EXPECT_EQ(encoder.put(dat, &status), 0u);
    EXPECT_EQ(status, 15);
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
}

TEST(Encode, ARecord17LongerThanItsLengthByteCanTellIsRefusedWhole) {
    auto rec = std::make_unique<Rec17>();
    rec->receiveTime = 345600000;
    rec->nSv = 18;  // 13 + 29 x 18 = 535 bytes on the wire
    for (int i = 0; i < rec->nSv; ++i) {
        rec->sv[i].svId = static_cast<std::uint8_t>(1 + i);
        rec->sv[i].svFlags = 0x11;
        rec->sv[i].range = 21.0e6;
    }
    Bytes dat(4096);
    dat.resize(nvb::writeDatForm(*rec, dat.data(), dat.size()));
    for (const std::uint8_t method : {0, 1, 7}) {
        Encoder encoder(method);
        std::uint8_t status = 0;
        EXPECT_EQ(encoder.put(dat, &status), 0u);
        EXPECT_EQ(status, 15) << "method " << int(method);
        EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
    }
}
