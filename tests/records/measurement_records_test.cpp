#include "support/epochs.h"
#include "support/rec35_records.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

namespace {

using nvb::Rec27ReadOptions;
using nvbtest::addFlags2;
using nvbtest::addSatellite;
using nvbtest::addSignal;
using nvbtest::EpochReader;
using nvbtest::kPlainOptions;
using nvbtest::newEpoch;

// An epoch of `count` GPS satellites with one signal each.
std::unique_ptr<Rec27> epochOf(int count) {
    auto epoch = newEpoch(1000.0);
    for (int i = 0; i < count; ++i)
        addSignal(addSatellite(*epoch, static_cast<std::uint8_t>(i + 1), 0), 0, 0, 2e7, 1e6);
    return epoch;
}

TEST(Rec27Limits, ASatelliteCountAbove116ReadsNothing) {
    auto tooMany = epochOf(NVB_MAX_SV);  // the round-trip table reads 116 whole
    tooMany->nSv = 117;                  // the writer sends the count as it stands
    EXPECT_EQ(EpochReader().read(*tooMany, kPlainOptions), 0);
}

TEST(Rec27Limits, SevenSignalsOnTheLastSatelliteReadNothingAfterTheOthersAreFilled) {
    auto epoch = epochOf(3);
    Rec27Sv& last = epoch->sv[2];
    for (int j = 1; j < NVB_MAX_MEAS; ++j) addSignal(last, static_cast<std::uint8_t>(j), 0, 2e7 + j, 1e6);
    last.nMeas = 7;
    EpochReader reader;
    EXPECT_EQ(reader.read(*epoch, kPlainOptions), 0);
    EXPECT_EQ(reader.epoch().sv[1].svId, 2);
    EXPECT_EQ(+reader.epoch().sv[1].meas[0].range, 2e7);
}

// The byte-stream form has no flag byte for a range past 32 bits: it loses its top (see
// the epoch table), and the log stream hears of it once, not per epoch.
TEST(Rec27Ranges, ARangePastTheByteStreamFormIsReportedOnce) {
    auto epoch = newEpoch(1000.0);
    addSignal(addSatellite(*epoch, 3, 0), 0, 0, 33554433.0, 0.0);
    EpochReader reader;
    const nvbtest::MessageLog log;
    ASSERT_GT(reader.read(*epoch, kPlainOptions, 0), 0);
    ASSERT_GT(reader.read(*epoch, kPlainOptions, 0), 0);
    const std::string text = log.text();
    EXPECT_EQ(text.rfind("Warning: ", 0), 0u) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << "said once";
}

// An epoch of a row of data/records/measurement.json, with its defaults.
std::unique_ptr<Rec27> epochFrom(const nlohmann::json& row) {
    auto epoch = newEpoch(row.value("time", 1000.0), row.value("clock", 0.0f));
    if (row.value("clockBlock", false)) {
        epoch->epochFlags = 0x20;
        epoch->clock.blockLength = 3;
    }
    for (const nlohmann::json& sat : row["satellites"]) {
        Rec27Sv& sv = addSatellite(*epoch, sat["id"], sat["system"]);
        for (const nlohmann::json& s : sat["signals"]) {
            Rec27Meas& meas = addSignal(sv, s.value("band", 0), s.value("track", 0), s.value("range", 2e7),
                                        s.value("phase", 0.0), s.value("flags", 0x03));
            if (s.contains("flags2")) addFlags2(meas, s["flags2"]);
            meas.slipCount = s.value("slipCount", 0);
            if (s.contains("wire")) {
                meas.measFlags1 |= 0x04;
                meas.doppler = s["wire"];
            }
        }
    }
    return epoch;
}

// A field of an epoch by its path: "nSv", "sv[1].svId", "sv[0].meas[2].doppler".
double fieldAt(const Rec27& epoch, const std::string& path) {
    int i = 0, j = 0;
    char name[32] = {};
    if (std::sscanf(path.c_str(), "sv[%d].meas[%d].%31s", &i, &j, name) == 3) {
        const Rec27Meas& m = epoch.sv[i].meas[j];
        return std::map<std::string, double>{{"range", +m.range},
                                             {"phase", +m.phase},
                                             {"doppler", +m.doppler},
                                             {"hasDoppler", (m.measFlags1 & 0x04) != 0},
                                             {"measFlags1", +m.measFlags1},
                                             {"measFlags2", +m.measFlags2},
                                             {"measBlockLen", +m.measBlockLen}}
            .at(name);
    }
    if (std::sscanf(path.c_str(), "sv[%d].%31s", &i, name) == 2) {
        const Rec27Sv& sv = epoch.sv[i];
        return std::map<std::string, double>{{"svId", +sv.svId}, {"rt_sattype", +sv.rt_sattype}}.at(name);
    }
    EXPECT_EQ(path, "nSv");
    return epoch.nSv;
}

TEST(Rec27Reads, EachEpochOfATableRowReadsIntoTheFieldsItExpects) {
    const nlohmann::json data = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/records/measurement.json");
    for (const nlohmann::json& row : data["epochReads"]) {
        SCOPED_TRACE(row["what"].get<std::string>());
        const Rec27ReadOptions options{row.value("control", std::uint8_t{1}), row.value("map5To7", false),
                                       row.value("map7To10", false), row.value("keepAll", true)};
        EpochReader reader;
        for (const nlohmann::json& step : row["epochs"]) {
            const std::uint16_t length = reader.read(*epochFrom(step), options, row.value("form", 1u));
            EXPECT_EQ(length, step.value("length", length)) << step["satellites"].size() << " satellites";
            EXPECT_GT(length, 0);
            const nlohmann::json expected = step.value("expect", nlohmann::json::object());
            for (const auto& [path, want] : expected.items()) {
                const bool previous = path.rfind("previous[", 0) == 0;
                const Rec27& epoch = previous ? reader.state()->previousEpochs[path[9] - '0'] : reader.epoch();
                const double value = want.is_boolean() ? want.get<bool>() : want.get<double>();
                EXPECT_NEAR(fieldAt(epoch, previous ? path.substr(12) : path), value, row.value("within", 0.0))
                    << path << " at " << step.value("time", 1000.0);
            }
        }
    }
}

TEST(Rec27Header, TheDatHeaderCarriesTheLengthOfTheBlocksAndNoLengthWithoutSatellites) {
    auto epoch = epochOf(2);
    epoch->epochFlags = 0x32;
    epoch->epochHeaderLen = 22;
    epoch->clock.count = 2;
    epoch->clock.blockLength = 21;
    EpochReader reader;
    const std::uint16_t length = reader.read(*epoch, kPlainOptions);
    EXPECT_EQ(length, 21 + 22 + 4 + 2 * (10 + 27));
    const std::uint8_t* header = reader.state()->records.datHeader;
    EXPECT_EQ(header[0], 0x74);
    EXPECT_EQ(header[1] | (header[2] << 8), length);
    EXPECT_EQ(header[3], 27);

    EXPECT_EQ(reader.read(*epochOf(0), kPlainOptions), 0);
}

TEST(Rec27ClockBlock, TheWriterPacksFourCountBitsWhereTheReaderTakesThree) {
    auto epoch = epochOf(1);
    epoch->epochFlags = 0x20;
    epoch->clock.count = 7;
    epoch->clock.blockLength = 66;
    for (int k = 0; k < 8; ++k) epoch->clock.systemClockOffset[k] = k * 0.25;
    EpochReader reader;
    ASSERT_GT(reader.read(*epoch, kPlainOptions), 0);
    EXPECT_EQ(reader.epoch().clock.count, 7);
    EXPECT_EQ(+reader.epoch().clock.systemClockOffset[6], 1.5);

    epoch->clock.count = 8;
    reader.read(*epoch, kPlainOptions);
    EXPECT_EQ(reader.epoch().clock.count, 0) << "count 8 has only its fourth bit set";
}

TEST(Rec27BadInput, ABodyThatEndsEarlyReadsZerosWithoutError) {
    nvbtest::Epoch27 epoch;
    epoch.timeMs = 5000;
    nvbtest::Satellite27 sv{9, 0, 0, 1, 30, 90, 0, {}};
    sv.signals.push_back({0, 0, 450, 2e7, 1e6, 0, 0x03, 100.0});
    epoch.satellites = {sv, sv};
    nvbtest::Bytes bytes = nvbtest::build(epoch);
    bytes.resize(46);  // the second satellite ends after its number
    EpochReader reader;
    std::memset(&reader.frame(), 0, sizeof(nvb_frame_t));
    std::memcpy(reader.frame().data, bytes.data(), bytes.size());
    reader.frame().length = static_cast<std::uint16_t>(bytes.size());
    EXPECT_GT(reader.readFrame(kPlainOptions), 0);
    EXPECT_EQ(reader.epoch().nSv, 2);
    EXPECT_EQ(+reader.epoch().sv[0].meas[0].doppler, 100.0f);
    EXPECT_EQ(reader.epoch().sv[1].svId, 9);
    EXPECT_EQ(reader.epoch().sv[1].nMeas, 0);
}

TEST(Rec27BadInput, FlagBytesRunningToTheEndOfTheBufferStopAtItsEdge) {
    EpochReader reader;
    nvb_frame_t& frame = reader.frame();
    std::memset(frame.data, 0x86, sizeof frame.data);
    std::uint8_t* body = frame.data + 4;
    body[10] = NVB_MAX_SV;
    body[11] = 0;                 // no optional epoch fields
    body[12 + 4] = NVB_MAX_MEAS;  // first satellite: six signals
    body[12 + 7] = 0;             // and no svFlags2
    frame.length = 100;           // a length that lies about the counts
    EXPECT_GT(reader.readFrame(kPlainOptions), 0);
    EXPECT_EQ(reader.epoch().nSv, NVB_MAX_SV);
}

TEST(Rec27DopplerControl, AnInvalidValueEndsTheProcessWithCode2) {
    auto epoch = epochOf(1);
    EpochReader reader;
    EXPECT_EXIT(reader.read(*epoch, {0, false, false, true}), ::testing::ExitedWithCode(2),
                "The dopplerControl in nvb_expand_t is set to an invalid value 0");
    EXPECT_EXIT(reader.read(*epoch, {4, false, false, true}), ::testing::ExitedWithCode(2), "invalid value 4");
}

// Record 17 rebuilds Doppler by satellite alone, with no control of the host.

std::unique_ptr<Rec17> epoch17(double time) {
    auto epoch = std::make_unique<Rec17>();
    epoch->receiveTime = time;
    epoch->clkOffset = 0.125;
    return epoch;
}

Rec17Sv& add17(Rec17& epoch, std::uint8_t svId, std::uint8_t svFlags, double phase) {
    Rec17Sv& sv = epoch.sv[epoch.nSv++];
    sv = Rec17Sv{svId, svFlags, 0x03, 0, 40, 250, 44.25, 21000000.5, phase, 0, 0, 0, 0, 0, 0};
    return sv;
}

struct Rec17Reader {
    nvbtest::Handle handle;
    std::unique_ptr<nvb_frame_t> frame = std::make_unique<nvb_frame_t>();

    std::uint16_t read(const Rec17& epoch) {
        std::memset(frame.get(), 0, sizeof(nvb_frame_t));
        EXPECT_NE(nvb::writeRec17(epoch, *frame), 0);
        return readFrame();
    }
    std::uint16_t readFrame() { return nvb::readRec17(*frame, *handle.get(), handle->rec17Work); }
    const Rec17& epoch() const { return *handle->records.rec17; }
};

TEST(Rec17RoundTrip, TheWireAsymmetriesShow) {
    auto epoch = epoch17(345600000.0);
    add17(*epoch, 7, 0x31, 1e8).snr2 = 38.5;
    Rec17Sv& narrow = add17(*epoch, 8, 0x11, 2e8);
    narrow.snr2 = 5.0;  // written at 2^5 without the wide bit
    narrow.rangeDiff2 = 1.0;
    add17(*epoch, 131, 0x10, 3e8).range = 19000000.25;
    Rec17Reader reader;
    EXPECT_EQ(reader.read(*epoch), 21 + 3 * 48 + 2 * 24);
    const Rec17& read = reader.epoch();
    EXPECT_EQ(read.sv[0].svFlags2, 0x83) << "low nibble kept, and no Doppler in the first epoch";
    EXPECT_EQ(read.sv[0].svFlags3, 3);
    EXPECT_EQ(+read.sv[0].doppler, 0.0) << "the writer carries no Doppler";
    EXPECT_EQ(+read.sv[1].snr2, 5.0 * 8) << "the reader can't tell 2^5 from 2^2";
    EXPECT_EQ(+read.sv[1].rangeDiff2, 0.0) << "written only with the wide bit";
    EXPECT_EQ(+read.sv[2].range, 2 * 19000000.25) << "SBAS ranges are doubled on reading, never halved on writing";
}

TEST(Rec17RoundTrip, ARecordLongerThan255BytesIsMarkedForTheCompactCoder) {
    auto epoch = epoch17(1000.0);
    for (std::uint8_t i = 1; i <= 9; ++i) add17(*epoch, i, 0x01, 1e6);
    auto frame = std::make_unique<nvb_frame_t>();
    const std::uint16_t length = nvb::writeRec17(*epoch, *frame);
    EXPECT_EQ(length, 10 + 9 * 29 + 3);
    EXPECT_EQ(frame->data[2], 'u');
    EXPECT_EQ(frame->data[1], static_cast<std::uint8_t>(length));
    epoch->nSv = 8;
    EXPECT_EQ(nvb::writeRec17(*epoch, *frame), 10 + 8 * 29 + 3);
    EXPECT_EQ(frame->data[2], 17);
}

TEST(Rec17Doppler, PhaseUsableOnBothEpochsGivesTheRateAndASlipTheOldPrediction) {
    Rec17Reader reader;
    auto first = epoch17(1000.0);
    add17(*first, 7, 0x10, 1000.0);
    add17(*first, 9, 0x00, 1000.0);
    reader.read(*first);
    auto second = epoch17(2000.0);
    add17(*second, 9, 0x10, 1300.0);
    add17(*second, 7, 0x10, 1250.0);
    reader.read(*second);
    EXPECT_EQ(+reader.epoch().sv[1].doppler, 250.0);
    EXPECT_EQ(reader.epoch().sv[1].svFlags2 & 0x80, 0);
    EXPECT_EQ(+reader.epoch().sv[0].doppler, 0.0) << "satellite 9 had no usable phase before";
    EXPECT_EQ(reader.epoch().sv[0].svFlags2 & 0x80, 0x80);

    auto third = epoch17(3000.0);
    add17(*third, 7, 0x10, 1550.0);
    reader.read(*third);
    EXPECT_EQ(+reader.epoch().sv[0].doppler, 300.0);
    auto slipped = epoch17(4000.0);
    add17(*slipped, 7, 0x12, 0.0);
    reader.read(*slipped);
    EXPECT_EQ(+reader.epoch().sv[0].doppler, 2 * 300.0 - 250.0);
    EXPECT_EQ(reader.epoch().sv[0].svFlags2 & 0x80, 0x80);
}

TEST(Rec17BadInput, ALengthThatLiesStopsAt24SatellitesAndAShortBodyReadsZeros) {
    Rec17Reader reader;
    nvb_frame_t& frame = *reader.frame;
    std::memset(frame.data, 0x11, sizeof frame.data);
    frame.length = NVB_FRAME_CAPACITY;
    EXPECT_EQ(reader.readFrame(), 21 + 24 * 72);
    EXPECT_EQ(reader.epoch().nSv, 24);

    std::memset(frame.data, 0, sizeof frame.data);
    nvbtest::Rec17Sat sat{7, 0x01, 0, 10, 10, 160, 2560000000u, std::int64_t{1000000} << 15, 0, 0, 120, 0, 256};
    const nvbtest::Bytes bytes = nvbtest::build(nvbtest::Rec17Wire{5000, 1 << 18, {sat}});
    std::memcpy(frame.data, bytes.data(), 25);
    frame.length = 30;  // the second-frequency block lies beyond what arrived
    EXPECT_EQ(reader.readFrame(), 21 + 72);
    EXPECT_EQ(+reader.epoch().sv[0].snr2, 0.0);
}

}  // namespace
