#include <nvbdll/nvbdll.h>

#include "support/epochs.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using nvbtest::addSatellite;
using nvbtest::addSignal;
using Bytes = std::vector<std::uint8_t>;
using Doubles = std::vector<double>;

std::unique_ptr<Rec29> position() {
    return std::make_unique<Rec29>(Rec29{.time = 302400000, .latPos = 45.0, .lonPos = -90.0, .hgtPos = 250.5,
                                         .latVel = 0.5, .lonVel = -1.5, .hgtVel = 0.25, .clkOffset = 0.5f,
                                         .clkDrift = 2.0f, .pdop = 1.75f});
}

TEST(ConvertRec29ToRec11, ScalesTheSolutionIntoTheOlderUnitsAndListsTheUsedSatellites) {
    auto in = position();
    const Rec29SvEntry entries[] = {{5, 0, 2}, {6, 0, 0}, {7, 2, 2}, {8, 0, 1}, {9, 3, 3}};
    in->numSVs = 5;
    for (int k = 0; k < 5; ++k) in->sv[k] = entries[k];
    in->numSVsUsed = 4;
    Rec11 out{};
    std::uint8_t header[4] = {};
    EXPECT_EQ(nvbdll_convertRec29toRec11(header, in.get(), &out), 2 * (4 + 41));
    EXPECT_EQ(Bytes(header, header + 4), (Bytes{0x74, 90, 0, 11}));
    // Three used satellites of the four counted; GLONASS numbers 51 on; the rest stays zero.
    EXPECT_EQ(Bytes(out.lists, out.lists + 8), (Bytes{0, 1, 2, 0, 5, 7 + 51, 9, 0}));
    EXPECT_EQ((Doubles{out.latitude, out.longitude, out.height, out.clockOffset, out.clockDrift, out.pdop,
                       out.velocity2, double(out.time), double(out.nSv)}),
              (Doubles{0.25, -0.5, 250.5, 0.5 * 299792.458, 2.0 / 1e6 * 299792458.0 / 0.19029367279836487, 1.75, -1.5,
                       302400000, 4}));
    EXPECT_EQ(nvbdll_convertRec29toRec11(nullptr, in.get(), &out), 90) << "without a header only the length";
    EXPECT_EQ(nvbdll_convertRec29toRec11(header, nullptr, &out), 0);
    EXPECT_EQ(nvbdll_convertRec29toRec11(header, in.get(), nullptr), 0);
}

TEST(ConvertRec29ToRec11, FixStatusComesFromModeTypeAndInfo) {
    struct Case {
        std::uint8_t fixMode, fixType, fixInfo, positionValid, expected;
    };
    const Case cases[] = {
        {1, 0, 0, 1, 0x00}, {3, 1, 0, 0, 0x12}, {4, 2, 0, 0, 0x53}, {5, 5, 0, 1, 0xC5}, {5, 4, 0, 0, 0x4C},
        {5, 6, 0, 1, 0xCD}, {2, 7, 3, 0, 0x30}, {9, 3, 0, 1, 0xC0}, {3, 8, 3, 1, 0x22}, {5, 3, 0, 2, 0x44},
    };
    for (const Case& c : cases) {
        auto in = position();
        in->fixMode = c.fixMode;
        in->fixType = c.fixType;
        in->fixInfo = c.fixInfo;
        in->positionValid = c.positionValid;
        Rec11 out{};
        nvbdll_convertRec29toRec11(nullptr, in.get(), &out);
        EXPECT_EQ(out.fixStatus, c.expected) << "mode " << int(c.fixMode) << " type " << int(c.fixType);
    }
}

// A GPS satellite with one first-frequency signal of the given flags.
Rec27Sv& gpsSatellite(Rec27& epoch, std::uint8_t svId, std::uint8_t track, std::uint8_t flags1,
                      std::uint8_t svFlags = 0) {
    Rec27Sv& sv = addSatellite(epoch, svId, 0, svFlags);
    sv.elevation = 30;
    sv.azimuth = 200;
    Rec27Meas& l1 = addSignal(sv, 0, track, 2e7, 1e8, flags1);
    l1.snr = 455;
    l1.doppler = -500.5f;
    return sv;
}

TEST(ConvertRec27ToRec17, TakesOnlyGpsAndMapsTheFirstFrequencyFlags) {
    auto epoch = nvbtest::newEpoch(1000.0, 0.25f);
    addSignal(addSatellite(*epoch, 3, 2), 0, 0, 2e7, 0.0);
    Rec17 out{};
    std::uint8_t header[4] = {};
    EXPECT_EQ(nvbdll_convertRec27toRec17(header, epoch.get(), &out, 0), 21);
    EXPECT_EQ(out.nSv, 0);

    gpsSatellite(*epoch, 7, 1, 0x08 | 0x40 | 0x20 | 0x03, 0x04);
    gpsSatellite(*epoch, 9, 0, 0x07);
    EXPECT_EQ(nvbdll_convertRec27toRec17(header, epoch.get(), &out, 0), 21 + 2 * 48);
    EXPECT_EQ(Bytes(header, header + 4), (Bytes{0x74, 117, 0, 17}));
    ASSERT_EQ(out.nSv, 2);
    const Rec17Sv& slipped = out.sv[0];
    EXPECT_EQ((Doubles{out.receiveTime, out.clkOffset, double(slipped.svId), double(slipped.elevation),
                       double(slipped.azimuth), slipped.snr, slipped.doppler, double(slipped.svFlags3)}),
              (Doubles{1000.0, 0.25, 7, 30, 200, 45.5, 0.0, 3}));
    EXPECT_EQ(slipped.svFlags, 0xC0 | 0x02 | 0x08 | 0x10);
    EXPECT_EQ(slipped.svFlags2, 0x08 | 0x01 | 0x80) << "block flag, track 1, no Doppler";
    EXPECT_EQ(out.sv[1].svFlags2, 0x00);
    EXPECT_EQ(+out.sv[1].doppler, -500.5);
}

TEST(ConvertRec27ToRec17, TheModePicksTheSecondFrequencySignal) {
    auto epoch = nvbtest::newEpoch(1000.0);
    Rec27Sv& both = gpsSatellite(*epoch, 7, 0, 0x03);
    addSignal(both, 1, 2, 2e7 + 1.0, 11.0, 0x0B).snr = 300;  // slot 0, with a slip mark
    addSignal(both, 1, 9, 2e7 + 2.0, 22.0, 0x03).snr = 310;  // slot 1
    Rec27Sv& otherOnly = gpsSatellite(*epoch, 8, 0, 0x03);
    addSignal(otherOnly, 1, 3, 2e7 + 3.0, 33.0, 0x03);
    struct Case {
        std::uint8_t mode;
        double firstDifference;  // 0: no second frequency
        double secondDifference;
    };
    const Case cases[] = {{0, 1.0, 0.0}, {1, 2.0, 3.0}, {2, 1.0, 3.0}, {3, 2.0, 3.0}, {4, 0.0, 0.0}};
    for (const Case& c : cases) {
        Rec17 out{};
        const int seconds = (c.firstDifference != 0.0 ? 1 : 0) + (c.secondDifference != 0.0 ? 1 : 0);
        EXPECT_EQ(nvbdll_convertRec27toRec17(nullptr, epoch.get(), &out, c.mode), 21 + 2 * 48 + 24 * seconds)
            << "mode " << int(c.mode);
        EXPECT_EQ(+out.sv[0].rangeDiff2, c.firstDifference) << "mode " << int(c.mode);
        EXPECT_EQ(+out.sv[1].rangeDiff2, c.secondDifference) << "mode " << int(c.mode);
    }
    Rec17 out{};
    nvbdll_convertRec27toRec17(nullptr, epoch.get(), &out, 0);
    EXPECT_EQ(out.sv[0].svFlags, 0xC0 | 0x21 | 0x04) << "the slip mark of the second signal";
    EXPECT_EQ((Doubles{out.sv[0].snr2, out.sv[0].phase2}), (Doubles{30.0, 11.0}));
    nvbdll_convertRec27toRec17(nullptr, epoch.get(), &out, 1);
    EXPECT_EQ(out.sv[0].svFlags, 0xC0 | 0x21);
}

TEST(ConvertRec27ToRec17, TheSecondFrequencyTrackSetsItsFlagBits) {
    struct Case {
        std::uint8_t track, expected;
    };
    // 0x80: the first signal carries no Doppler.
    const Case cases[] = {{0, 0x80}, {1, 0x82}, {2, 0x84}, {9, 0x86}, {3, 0x80}, {5, 0x80}, {7, 0x80}};
    for (const Case& c : cases) {
        auto epoch = nvbtest::newEpoch(1000.0);
        addSignal(gpsSatellite(*epoch, 7, 0, 0x03), 1, c.track, 2e7, 0.0, 0x03);
        Rec17 out{};
        nvbdll_convertRec27toRec17(nullptr, epoch.get(), &out, 3);
        EXPECT_EQ(out.sv[0].svFlags2, c.expected) << "track " << int(c.track);
    }
}

TEST(ConvertRec27ToRec17, AtMost24SatellitesAreTaken) {
    auto epoch = nvbtest::newEpoch(1000.0);
    for (int i = 0; i < 30; ++i) gpsSatellite(*epoch, static_cast<std::uint8_t>(i + 1), 0, 0x03);
    Rec17 out{};
    EXPECT_EQ(nvbdll_convertRec27toRec17(nullptr, epoch.get(), &out, 0), 21 + 24 * 48);
    EXPECT_EQ(out.nSv, 24);
}

// A GPS satellite on two frequencies and an SBAS satellite with an invalid Doppler.
std::unique_ptr<Rec17> olderEpoch() {
    return std::make_unique<Rec17>(Rec17{
        .receiveTime = 5000.0,
        .clkOffset = 0.125,
        .nSv = 2,
        .sv = {{.svId = 12, .svFlags = 0x01 | 0x02 | 0x04 | 0x10, .svFlags2 = 0x08, .elevation = 33, .azimuth = 144,
                .snr = 44.9, .range = 2.1e7, .phase = 1.1e8, .doppler = 1575.42, .snr2 = 38.2, .phase2 = 8.5e7,
                .rangeDiff2 = 2.5},
               {.svId = 152, .svFlags = 0x02, .svFlags2 = 0x80, .snr = 40.0}}});
}

TEST(ConvertRec17ToRec27, BuildsOneOrTwoSignalsPerSatelliteAndCountsSlipsOn) {
    auto in = olderEpoch();
    auto out = std::make_unique<Rec27>();
    std::uint8_t header[4] = {};
    const std::uint16_t length = nvbdll_convertRec17toRec27(2345, header, in.get(), out.get());
    EXPECT_EQ(length, 21 + 37 + 27 + 37);
    EXPECT_EQ(Bytes(header, header + 4), (Bytes{0x74, static_cast<std::uint8_t>(length), 0, 27}));
    EXPECT_EQ((Doubles{double(out->weekNum), double(out->epochHeaderLen), out->clkOffset}), (Doubles{2345, 17, 0.125}));
    ASSERT_EQ(out->nSv, 2);
    const Rec27Sv& gps = out->sv[0];
    const Rec27Sv& sbas = out->sv[1];
    ASSERT_EQ(gps.nMeas, 2);
    EXPECT_EQ((std::vector<int>{gps.rt_sattype, gps.svFlags, gps.elevation, sbas.rt_sattype, sbas.svFlags, sbas.nMeas}),
              (std::vector<int>{0, 0x06, 33, 1, 0x02, 1}));
    // Strength in whole dB-Hz, in tenths; the second signal's Doppler scaled to its band.
    EXPECT_EQ((std::vector<int>{gps.meas[0].snr, gps.meas[0].measFlags1, gps.meas[1].blockType, gps.meas[1].trackType,
                                gps.meas[1].snr, gps.meas[1].measFlags1}),
              (std::vector<int>{440, 0x07 | 0x08 | 0x20, 1, 2, 380, 0x07 | 0x08 | 0x20}));
    EXPECT_EQ((Doubles{gps.meas[0].doppler, gps.meas[1].range, gps.meas[1].doppler}),
              (Doubles{1575.42f, 2.1e7 + 2.5, static_cast<float>(1575.42f * (1227.6 / 1575.42))}));
    EXPECT_EQ(sbas.meas[0].measFlags1, 0x03 | 0x08) << "Doppler marked invalid";

    // The slip counters belong to the process and count on with each conversion.
    const int counts[] = {gps.meas[0].slipCount, gps.meas[1].slipCount, sbas.meas[0].slipCount};
    EXPECT_EQ(nvbdll_convertRec17toRec27(2345, nullptr, in.get(), out.get()), length);
    EXPECT_EQ((std::vector<int>{gps.meas[0].slipCount, gps.meas[1].slipCount, sbas.meas[0].slipCount}),
              (std::vector<int>{(counts[0] + 1) & 0xFF, (counts[1] + 1) & 0xFF, (counts[2] + 1) & 0xFF}))
        << "152 folds to counter 0";
    in->sv[1].svId = 120;  // folds to 224, beyond the 71 counters
    nvbdll_convertRec17toRec27(2345, nullptr, in.get(), out.get());
    EXPECT_EQ(sbas.meas[0].slipCount, 0);
    EXPECT_EQ(sbas.meas[0].measFlags1 & 0x08, 0x08);
}

}  // namespace
