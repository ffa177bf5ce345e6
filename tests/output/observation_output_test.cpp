// Observation output: the value column, strength digits and calendar, the epoch and
// observation lines of each version, Compact RINEX differences, the BINEX record, the
// slip tracking of decimation, and the bounded writer.
#include "common/byte_sum.h"
#include "external/su/epoch_image.h"
#include "output/binex_record.h"
#include "output/observation_output.h"
#include "output/observation_tables.h"
#include "output/rinex_text.h"
#include "support/epochs.h"
#include "support/wire.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <chrono>
#include <string>
#include <vector>

namespace {

using namespace std::chrono;
using nvbtest::addSatellite;
using nvbtest::addSignal;

constexpr double kStartMs = 345600000.0;  // 2024-12-19 00:00:00 of week 2345

// An epoch through the record writer and the image parser, as the expanders hold it.
struct ImageEpoch {
    std::unique_ptr<Rec27> rec = nvbtest::newEpoch(kStartMs);
    epoch_image_t image{};
    nvb_frame_t frame{};

    const epoch_image_t& build() {
        EXPECT_NE(nvb::writeRec27(*rec, frame, 1, true), 0);
        EXPECT_EQ(nvb::parseEpochImage(image, frame.data, frame.length).status, 0);
        return image;
    }
};

Rec27Meas& signal(Rec27Sv& sv, std::uint8_t band, std::uint8_t track, double range, double phase, std::uint16_t snr,
                  std::uint8_t slipCount = 0, std::uint8_t flags = 0x03) {
    Rec27Meas& meas = addSignal(sv, band, track, range, phase, flags);
    meas.snr = snr;
    meas.slipCount = slipCount;
    return meas;
}

// An epoch `offsetMs` after the start: one L1 C/A signal of each GPS satellite, with that satellite's slip count.
ImageEpoch gpsEpoch(double offsetMs, std::initializer_list<std::pair<std::uint8_t, std::uint8_t>> satellites) {
    ImageEpoch epoch;
    epoch.rec->receiveTime = kStartMs + offsetMs;
    for (const auto& [sv, slips] : satellites) signal(addSatellite(*epoch.rec, sv, 0), 0, 0, 2.1e7, 1.0, 450, slips);
    return epoch;
}

// A started control writing into a buffer; each epoch's text comes back as a string.
class Output {
public:
    Output(std::uint8_t mode, std::uint16_t version, std::size_t capacity = 1 << 20)
        : buffer_(capacity), writer_{buffer_.data(), static_cast<std::uint32_t>(capacity), 0, 0},
          output_(control, mode, version, writer_), work_(std::make_unique<epoch_rinex_t>()) {}

    std::string epoch(ImageEpoch& epoch) {
        const epoch_image_t& image = epoch.build();
        writer_.length = 0;
        lastLength = nvb::finishEpochOutput(image, epoch.frame.data, epoch.frame.length, control, *work_);
        return std::string(buffer_.begin(), buffer_.begin() + writer_.length);
    }
    const rinex_writer_t& writer() const { return writer_; }

    rinex_control_t control{};
    std::uint16_t lastLength = 0;

private:
    std::vector<std::uint8_t> buffer_;
    rinex_writer_t writer_;
    nvb::ObservationOutput output_;
    std::unique_ptr<epoch_rinex_t> work_;
};

// The `count` lines behind END OF HEADER.
std::string linesAfterHeader(const std::string& text, std::size_t count) {
    std::size_t from = text.find('\n', text.find("END OF HEADER")) + 1;
    std::size_t to = from;
    for (std::size_t i = 0; i < count; ++i) to = text.find('\n', to) + 1;
    return text.substr(from, to - from - 1);
}

// A group of observation_lines.json.
const nlohmann::json& pinned(const std::string& name) {
    static const nlohmann::json groups = nvbtest::readJson(NVBDLL_TEST_DATA_DIR "/output/observation_lines.json");
    return groups.at(name);
}

// A group of lines, joined by newlines.
std::string golden(const std::string& name) {
    std::string text;
    for (const auto& line : pinned(name)) text.append(text.empty() ? "" : "\n").append(line.get<std::string>());
    return text;
}

TEST(RinexValueColumn, KeepsThreeDecimalsByHandAndWideValuesByPrintf) {
    for (const auto& row : pinned("value column")) {
        char text[15];
        nvb::rinexFormatValue(row[0].get<double>(), text);
        EXPECT_EQ(text, row[1].get<std::string>()) << row[0];
    }
}

TEST(RinexStrengthDigit, FollowsTheThresholdTablesBelow300AndSixthsOfTheStrengthFromIt) {
    for (const auto& row : pinned("strength digit")) {
        const int digit = nvb::rinexSignalStrengthDigit(0, row[0].get<std::uint16_t>(), row[1].get<std::uint8_t>(),
                                                        row[2].get<std::uint16_t>());
        EXPECT_EQ(digit, row[3].get<int>()) << row;
    }
}

TEST(RinexCalendar, CountsEveryFourthYearAsLeapAndStartsIn1985) {
    const auto gps = [](year_month_day date) {
        return (sys_days(date) - sys_days(1980y / January / 6)).count() * std::int64_t{86400};
    };
    const nvb::CalendarTime leap2000 = nvb::rinexCalendar(gps(2000y / February / 29) + 3723);
    EXPECT_EQ(std::vector<int>({leap2000.year, leap2000.month, leap2000.day, leap2000.hour, leap2000.minute,
                                leap2000.second, leap2000.weekday}),
              std::vector<int>({2000, 2, 29, 1, 2, 3, 2}));
    // The rule knows no century exception: the true 1 March 2100 prints as 29 February.
    const nvb::CalendarTime march2100 = nvb::rinexCalendar(gps(2100y / March / 1));
    EXPECT_EQ(march2100.month * 100 + march2100.day, 229);
    const nvb::CalendarTime early = nvb::rinexCalendar(0x9620D00 - 1);
    EXPECT_EQ(early.year * 10000 + early.month * 100 + early.day, 19800106);
    EXPECT_EQ(nvb::rinexCalendar(gps(2016y / December / 31) + 86400, true).second, 60);
}

TEST(RinexEpochLines, CarryTheClockAndContinueAfterTwelveSatellitesInEachVersion) {
    ImageEpoch thirteen;
    thirteen.rec->receiveTime = kStartMs + 1500;
    thirteen.rec->clkOffset = -0.5f;
    for (std::uint8_t sv = 1; sv <= 13; ++sv) signal(addSatellite(*thirteen.rec, sv, 0), 0, 0, 2.0e7 + sv, 100.5, 453);
    Output v2(nvb::kOutputRinex, 212);
    EXPECT_EQ(linesAfterHeader(v2.epoch(thirteen), 3), golden("v212 thirteen satellites"));
    Output v3(nvb::kOutputRinex, 303);
    const std::string text3 = v3.epoch(thirteen);
    EXPECT_EQ(linesAfterHeader(text3, 2), golden("v303 thirteen satellites"));
    EXPECT_NE(text3.find(golden("v303 thirteen satellites: types") + "\n"), std::string::npos);
    EXPECT_NE(text3.find(golden("v303 thirteen satellites: first epoch") + "\n"), std::string::npos);
}

TEST(RinexObservationLines, BreakAfterFiveValuesBelow300AndLeaveOutSystemsTheVersionLacks) {
    ImageEpoch epoch;
    Rec27Sv& gps = addSatellite(*epoch.rec, 5, 0);
    signal(gps, 0, 0, 2.1e7, 10.0, 450);
    signal(gps, 0, 1, 2.1e7 + 1, 11.0, 440);
    signal(gps, 1, 5, 2.1e7 + 2, 12.0, 430);
    signal(gps, 2, 8, 2.1e7 + 3, 13.0, 420);
    signal(addSatellite(*epoch.rec, 193, 4), 0, 0, 3.7e7, 1.0, 400);
    Output out(nvb::kOutputRinex, 211);
    const std::string text = out.epoch(epoch);
    EXPECT_NE(text.find(golden("v211 five values a line: types") + "\n"), std::string::npos);
    EXPECT_EQ(linesAfterHeader(text, 4), golden("v211 five values a line"));
}

TEST(RinexObservationLines, AChangedSignalSetWritesAnEventLineAndNewTypes) {
    Output out(nvb::kOutputRinex, 302);
    ImageEpoch first = gpsEpoch(0, {{5, 0}});
    out.epoch(first);
    ImageEpoch second = gpsEpoch(1000, {{5, 0}});
    signal(second.rec->sv[0], 1, 5, 2.1e7, 1.0, 450);
    const std::string expected = golden("v302 changed signal set");
    EXPECT_EQ(out.epoch(second).substr(0, expected.size()), expected);
}

TEST(CompactRinex, DifferencesTheEpochLineValuesAndFlagsAndRestartsAReturningSatellite) {
    Output out(nvb::kOutputCompactRinex, 303);
    // Second differences of the range; the phase runs at a constant rate; the slip flag of
    // G07 clears ("&"); G07 leaves (the line shrinks by "&&&") and comes back with "3&".
    for (int second = 0; second < 5; ++second) {
        ImageEpoch epoch;
        epoch.rec->receiveTime = kStartMs + 1000.0 * second;
        signal(addSatellite(*epoch.rec, 5, 0), 0, 0, 2.1e7 + 0.5 * second * second, 10.0 + second, 450);
        if (second != 2) signal(addSatellite(*epoch.rec, 7, 0), 0, 0, 2.2e7, 20.0, 400, 0, second == 0 ? 0x0B : 0x03);
        const std::string text = out.epoch(epoch);
        EXPECT_EQ(second == 0 ? text.substr(text.find('\n', text.find("END OF HEADER")) + 1) : text,
                  golden("crx second " + std::to_string(second)) + "\n");
    }
}

TEST(BinexRecord, GoldenBytesWithItsChecksumAndNothingForAnEmptyEpoch) {
    Output out(nvb::kOutputBinex, 303);
    ImageEpoch epoch;
    epoch.rec->receiveTime = kStartMs + 1500;
    epoch.rec->clkOffset = 0.25f;
    signal(addSatellite(*epoch.rec, 5, 0), 0, 0, 21000000.5, -10.25, 453, 2, 0x07);
    const std::string record = out.epoch(epoch);
    const std::uint16_t plainLength = epoch.frame.length;
    EXPECT_EQ(out.lastLength, plainLength) << "mode 2 delivers the plain record too";
    EXPECT_EQ(nvbtest::Bytes(record.begin(), record.end()), nvbtest::fieldBytes(golden("binex G05 one signal")));

    ImageEpoch empty;
    EXPECT_EQ(out.epoch(empty), "");
    EXPECT_EQ(nvb::binexCrc16(std::vector<std::uint8_t>{'1', '2', '3', '4', '5', '6', '7', '8', '9'}), 0x31C3);
}

TEST(EpochDecimation, CarriesTheSlipOfADroppedEpochAndLeavesAMovedSatellitesMarkInItsOldRow) {
    rinex_control_t control{};
    control.interval = 2000;
    const auto track = [&](std::initializer_list<std::pair<std::uint8_t, std::uint8_t>> sats, double ms) {
        ImageEpoch epoch = gpsEpoch(ms, sats);
        std::uint8_t marks[116][6] = {};
        nvb::trackEpochSlips(epoch.build(), control, static_cast<std::uint32_t>(kStartMs + ms) % 2000 == 0, marks);
        return std::pair<int, int>{marks[0][0], marks[1][0]};
    };
    EXPECT_EQ(track({{3, 0}, {9, 0}}, 0), std::make_pair(1, 1)) << "new satellites";
    EXPECT_EQ(track({{3, 1}, {9, 0}}, 1000), std::make_pair(0, 0)) << "dropped: the slip waits";
    EXPECT_EQ(track({{3, 1}, {9, 0}}, 2000), std::make_pair(1, 0)) << "kept: the slip of 3 shows";
    track({{3, 2}, {9, 0}}, 3000);
    // 3 moves to row 1: its carried mark stays in row 0, where 9 now reports it.
    EXPECT_EQ(track({{9, 0}, {3, 2}}, 4000), std::make_pair(1, 0));
}

TEST(EpochDecimation, MarksTheCarriedSlipInAPlainRecordAndMakesItsChecksumAnew) {
    Output out(nvb::kOutputBinex, 303);
    out.control.mode = nvb::kOutputPlain;
    out.control.interval = 2000;
    ImageEpoch first = gpsEpoch(0, {{3, 0}});
    out.epoch(first);
    ImageEpoch dropped = gpsEpoch(1000, {{3, 1}});
    EXPECT_EQ(out.epoch(dropped), "");
    EXPECT_EQ(out.lastLength, 0);
    ImageEpoch kept = gpsEpoch(2000, {{3, 1}});
    out.epoch(kept);
    ASSERT_NE(out.lastLength, 0);
    ASSERT_EQ(nvb::parseEpochImage(kept.image, kept.frame.data, out.lastLength).status, 0);
    EXPECT_EQ(kept.image.sats[0].signals[0].measFlags1 & 0x08, 0x08);
    EXPECT_EQ(nvb::readU16BigEndian(kept.frame.data + out.lastLength - 3),
              nvb::byteSum(kept.frame.data, out.lastLength - 3u));
}

TEST(ObservationWriter, RefusesAnEpochThatCannotFitWholeAndWritesNothingOfIt) {
    Output out(nvb::kOutputRinex, 303, 4096);
    ImageEpoch epoch = gpsEpoch(0, {{5, 0}});
    EXPECT_EQ(out.epoch(epoch), "");
    EXPECT_EQ(nvbtest::copyOf(out.writer().refused), 1u);
    EXPECT_EQ(nvbtest::copyOf(out.control.headerOpen), 1) << "nothing of the epoch happened";
}

}  // namespace
