#include "support/measurement_epochs.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace {

using nvbtest::Coverage;
using nvbtest::EpochGenerator;
using nvbtest::EpochReader;
using nvbtest::firstRangeBits;

double pow2(int e) {
    return std::ldexp(1.0, e);
}

// Every field equal, or within its wire resolution where it is scaled.
::testing::AssertionResult sameEpoch(const Rec27& want, const Rec27& got) {
    std::ostringstream diff;
    diff.precision(17);
    auto exact = [&](const char* field, long long a, long long b) {
        if (a != b) diff << field << ": " << a << " != " << b << "; ";
    };
    auto near = [&](const char* field, double a, double b, double tolerance) {
        if (!(std::fabs(a - b) <= tolerance)) diff << field << ": " << a << " != " << b << "; ";
    };
    exact("epochHeaderLen", want.epochHeaderLen, got.epochHeaderLen);
    exact("weekNum", want.weekNum, got.weekNum);
    near("receiveTime", want.receiveTime, got.receiveTime, 0.0);
    near("clkOffset", want.clkOffset, got.clkOffset, pow2(-20) + 1e-6);
    exact("nSv", want.nSv, got.nSv);
    exact("epochFlags", want.epochFlags, got.epochFlags);
    if ((want.epochFlags & 0x02) != 0) near("clkDrift", want.clkDrift, got.clkDrift, pow2(-23) + 1e-7);
    exact("raimFault", want.raimFault, got.raimFault);
    exact("clock.blockLength", want.clock.blockLength, got.clock.blockLength);
    exact("clock.referenceSystem", want.clock.referenceSystem, got.clock.referenceSystem);
    exact("clock.count", want.clock.count, got.clock.count);
    for (int k = 0; k < want.clock.count; ++k) {
        exact("rt_clktype", want.clock.rt_clktype[k], got.clock.rt_clktype[k]);
        const double value = want.clock.systemClockOffset[k];
        near("systemClockOffset", value, got.clock.systemClockOffset[k],
             std::max(pow2(-29), std::fabs(value) * pow2(-52)));
    }
    for (int i = 0; i < want.nSv && diff.tellp() == 0; ++i) {
        const Rec27Sv& a = want.sv[i];
        const Rec27Sv& b = got.sv[i];
        exact("svBlockLen", a.svBlockLen, b.svBlockLen);
        exact("svId", a.svId, b.svId);
        exact("rt_sattype", a.rt_sattype, b.rt_sattype);
        exact("antennaNumber", a.antennaNumber, b.antennaNumber);
        exact("channel", a.channel, b.channel);
        exact("nMeas", a.nMeas, b.nMeas);
        exact("elevation", a.elevation, b.elevation);
        exact("azimuth", a.azimuth, b.azimuth);
        exact("svFlags", a.svFlags, b.svFlags);
        exact("svFlags2", a.svFlags2, b.svFlags2);
        exact("slips", a.geomSlipCount * 65536 + a.ionoSlipCount * 256 + a.spare,
              b.geomSlipCount * 65536 + b.ionoSlipCount * 256 + b.spare);
        // Half a step of the first range's field, and for later signals half a step of
        // the difference on top.
        const double firstTolerance = pow2(-firstRangeBits(a.rt_sattype) - 1);
        for (int j = 0; j < a.nMeas; ++j) {
            const Rec27Meas& x = a.meas[j];
            const Rec27Meas& y = b.meas[j];
            exact("measBlockLen", x.measBlockLen, y.measBlockLen);
            exact("blockType", x.blockType, y.blockType);
            exact("trackType", x.trackType, y.trackType);
            exact("snr", x.snr, y.snr);
            near("range", x.range, y.range, (j == 0 ? firstTolerance : firstTolerance + pow2(-9)) + 1e-9);
            near("phase", x.phase, y.phase, pow2(-16) + 1e-7);
            exact("slipCount", x.slipCount, y.slipCount);
            exact("measFlags1", x.measFlags1, y.measFlags1);
            exact("measFlags2", x.measFlags2, y.measFlags2);
            exact("measFlags3", x.measFlags3, y.measFlags3);
            near("doppler", x.doppler, y.doppler, pow2(-9));
        }
        if (diff.tellp() != 0) diff << "at satellite " << i;
    }
    if (diff.tellp() == 0) return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << diff.str();
}

TEST(Rec27RoundTrip, RandomEpochsComeBackWithinTheirWireResolution) {
    EpochGenerator generator(2024);
    Coverage coverage;
    EpochReader reader;
    const int svCounts[] = {1, 2, 3, 12, 24, 40, 77, 116};
    for (int round = 0; round < 240; ++round) {
        const int svCount = round < 8 ? svCounts[round] : 1 + static_cast<int>((round * 7919u) % 116u);
        const auto epoch = generator.epoch(svCount, coverage);
        const std::uint16_t length = reader.read(*epoch, nvbtest::kPlainOptions);
        ASSERT_EQ(length, nvb::rec27DatLength(*epoch)) << "round " << round;
        ASSERT_TRUE(sameEpoch(*epoch, reader.epoch())) << "round " << round << ", " << svCount << " satellites";
    }
    for (int terms = 0; terms < 8; ++terms) EXPECT_GT(coverage.clockTerms[terms], 0) << terms << " clock terms";
    for (const int reached : {coverage.drift, coverage.raim, coverage.svFlags2, coverage.slipBytes, coverage.flags3,
                              coverage.doppler, coverage.rollover, coverage.atRollover, coverage.wide,
                              coverage.exactly100, coverage.fullEpochs, coverage.sixSignals}) {
        EXPECT_GT(reached, 0);
    }
}

}  // namespace
