#include "host/dat_form.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace {

using nvbtest::Bytes;
using nvbtest::Encoder;
using nvbtest::readLog;

// Level 3 takes the level the host sets: the highest of zlib, a middling one elsewhere.
Bytes writeLog(const std::vector<Bytes>& dats, std::uint8_t method, std::uint8_t level = 0) {
    Encoder encoder(method, level);
    encoder->explicitLevel = method == 3 ? 9 : 5;
    for (const Bytes& dat : dats) encoder.put(dat);
    return encoder.finish();
}

// What a host feeds back of retrieved records: epochs with their true satellite count.
std::vector<Bytes> fedBack(std::vector<Bytes> dats) {
    for (Bytes& dat : dats) nvbtool::prepareEpochForEncoder(dat);
    return dats;
}

// Each record as it comes out of a log, which is what a log written from it must give back.
const std::vector<Bytes>& canonicalLog() {
    static const std::vector<Bytes> log = readLog(writeLog(nvbtest::mixedDatLog(nvbtest::LogShape{.epochs = 700}), 1));
    return log;
}

class LogRoundTrip : public ::testing::TestWithParam<int> {};

TEST_P(LogRoundTrip, EveryLevelGivesBackTheSameDatRecordsAndATornLogThoseBeforeTheCut) {
    const std::vector<Bytes>& expected = canonicalLog();
    ASSERT_GT(expected.size(), 1500u);
    std::mt19937 random(static_cast<std::uint32_t>(GetParam()));
    for (const std::uint8_t level : {0, 1, 2, 3}) {
        const Bytes log = writeLog(fedBack(expected), static_cast<std::uint8_t>(GetParam()), level);
        const auto read = readLog(log);
        ASSERT_EQ(read.size(), expected.size()) << "level " << int(level);
        for (std::size_t i = 0; i < read.size(); ++i) ASSERT_EQ(read[i], expected[i]) << "record " << i;
        const std::size_t cut = random() % log.size();
        const auto torn = readLog(Bytes(log.begin(), log.begin() + static_cast<std::ptrdiff_t>(cut)));
        ASSERT_LE(torn.size(), read.size());
        for (std::size_t i = 0; i < torn.size(); ++i) ASSERT_EQ(torn[i], read[i]) << "cut at " << cut;
    }
}

INSTANTIATE_TEST_SUITE_P(EveryMethod, LogRoundTrip, ::testing::Range(0, 8));

TEST(LogRoundTripDifferences, EpochsComeBackCountingOnlyFirstAntennaSatellites) {
    // Written from epochs whose satellites all sit on the first antenna: the packed system
    // byte gives GLONASS and Galileo the antenna numbers 2 and 3 on the way, so the count in
    // front of the satellites then holds the GPS satellites alone. Everything else is equal.
    const auto original = nvbtest::mixedDatLog(nvbtest::LogShape{.epochs = 20, .positions = false,
                                                                  .olderRecords = false, .opaqueRecords = false});
    nvbtest::Handle handle;
    handle->dopplerControl = 1;
    const auto read =
        nvbtest::deliveredDat(nvbtest::readStream(handle.get(), writeLog(original, 7), nvbtest::Getter::NvbFile));
    ASSERT_EQ(read.size(), original.size());
    for (std::size_t i = 0; i < read.size(); ++i) {
        ASSERT_EQ(read[i].size(), original[i].size());
        EXPECT_EQ(original[i][nvbtool::kRec27CountOffset], 36);
        EXPECT_EQ(read[i][nvbtool::kRec27CountOffset], 12);
        Bytes patched = read[i];
        patched[nvbtool::kRec27CountOffset] = original[i][nvbtool::kRec27CountOffset];
        EXPECT_EQ(patched, original[i]) << "epoch " << i;
    }
}

constexpr std::size_t kTimeOffset = 4 + 1 + 2;  // behind the header, header length and week
// measFlags1 of the first signal of the first satellite: the epoch header with its drift,
// the satellite block, then the signal up to its slip count.
constexpr std::size_t kFirstSignalFlagsOffset = 4 + 17 + 4 + 10 + 26;

double timeOf(const Bytes& dat) {
    double time = 0;
    std::memcpy(&time, dat.data() + kTimeOffset, sizeof time);
    return time;
}

// One epoch a second whose times stray from the whole second around each 30 s mark, and
// a slip marked only in epoch 31.
std::vector<Bytes> strayingEpochs() {
    auto dats = nvbtest::mixedDatLog(nvbtest::LogShape{.epochs = 181, .satellites = 4, .positions = false,
                                                        .olderRecords = false, .opaqueRecords = false,
                                                        .systems = {0}});
    const double strays[] = {0, 4, -5, 5, -6, 4, 0};  // at 0 s, 30 s, 60 s, ... 180 s; whole ms on the wire
    for (std::size_t k = 0; k < dats.size(); k += 30) {
        const double time = timeOf(dats[k]) + strays[k / 30];
        std::memcpy(dats[k].data() + kTimeOffset, &time, sizeof time);
    }
    dats[31][kFirstSignalFlagsOffset] |= 0x08;
    return dats;
}

// Kept: within 5 ms of the mark, the upper edge (mark + 5) open, the lower (mark - 5) closed.
const std::vector<double> kKeptTimes = {345600000, 345630004, 345659995, 345750004, 345780000};

std::vector<double> timesOf(const std::vector<Bytes>& dats) {
    std::vector<double> times;
    for (const Bytes& dat : dats) times.push_back(timeOf(dat));
    return times;
}

// The read path and the encode path keep the same epochs and carry the same slip.
TEST(Thinning, BothPathsKeepTheEpochsNearEachMarkAndCarryTheSlip) {
    nvbtest::Handle handle;
    handle->measurementInterval = 30.0f;
    Encoder thinning(7);
    thinning->measurementInterval = 30.0f;
    for (const Bytes& dat : strayingEpochs()) thinning.put(dat);
    const std::vector<Bytes> paths[] = {
        nvbtest::deliveredDat(nvbtest::readStream(handle.get(), writeLog(strayingEpochs(), 7), nvbtest::Getter::NvbFile)),
        readLog(thinning.finish())};
    for (const std::vector<Bytes>& kept : paths) {
        EXPECT_EQ(timesOf(kept), kKeptTimes);
        ASSERT_EQ(kept.size(), kKeptTimes.size());
        // The slip marked only in the dropped epoch 31 lands on the next kept one, at 60 s.
        for (std::size_t i = 0; i < kept.size(); ++i)
            EXPECT_EQ((kept[i][kFirstSignalFlagsOffset] & 0x08) != 0, i == 2) << "kept epoch " << i;
    }
}

}  // namespace
