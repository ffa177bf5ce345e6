#include "nvb/log_io.h"
#include "nvb/simulator.h"

#include "external/su/epoch_image.h"
#include "host/host_encoder.h"
#include "pipeline/serialisation.h"
#include "records/system_tables.h"

#include <nvbdll/nvbdll.h>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <numeric>
#include <set>
#include <span>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace {

using nvbtool::ReceiverSimulator;
using nvbtool::SimulationOptions;

constexpr double kSpeedOfLight = 299792458.0;

// A run seen one epoch at a time, with the epoch before at hand.
struct Walk {
    ReceiverSimulator simulator;
    std::unique_ptr<Rec27> current = std::make_unique<Rec27>();
    std::unique_ptr<Rec27> previous = std::make_unique<Rec27>();
    Rec29 position{};
    std::uint64_t epochs = 0;

    explicit Walk(const SimulationOptions& chosen) : simulator(chosen) {}
    bool step() {
        std::swap(current, previous);
        if (!simulator.next(*current, position)) return false;
        ++epochs;
        return true;
    }
    bool hasPrevious() const { return epochs > 1; }
};

const Rec27Sv* sameSatellite(const Rec27& epoch, const Rec27Sv& sv) {
    for (int i = 0; i < epoch.nSv; ++i) {
        if (epoch.sv[i].svId == sv.svId && epoch.sv[i].rt_sattype == sv.rt_sattype) return &epoch.sv[i];
    }
    return nullptr;
}

double wavelengthOf(const Rec27Sv& sv, const Rec27Meas& meas) {
    return nvb::bandWavelength(sv.rt_sattype, meas.blockType, static_cast<std::int8_t>(sv.channel));
}

using SignalKey = std::tuple<int, int, int>;  // system, satellite, band

// One hour of the four systems, epoch by epoch against the one before:
// - range + phase x wavelength is the lock's constant ambiguity plus code noise and bias,
//   through clock steps, until a slip or a new lock restarts it;
// - Doppler explains the phase step, and what it leaves is a slip's whole cycles;
// - the receiver steers its clock by whole milliseconds, and every range and phase moves
//   with it.
TEST(SimulatedObservables, RangePhaseDopplerAndClockAgreeAsAReceiversDo) {
    Walk walk({.durationSeconds = 3600.0});
    std::map<SignalKey, std::vector<double>> segments;
    int segmentsChecked = 0, compared = 0, acrossSteps = 0, slips = 0, steps = 0;
    auto check = [&](std::vector<double>& values) {
        if (values.size() >= 30) {
            const double count = static_cast<double>(values.size());
            const double mean = std::accumulate(values.begin(), values.end(), 0.0) / count;
            double spread = 0.0;
            for (const double v : values) {
                spread += (v - mean) * (v - mean);
                ASSERT_LT(std::fabs(v - mean), 6.0);
            }
            EXPECT_LT(std::sqrt(spread / count), 1.5);
            ++segmentsChecked;
        }
        values.clear();
    };
    while (walk.step()) {
        const Rec27& epoch = *walk.current;
        ASSERT_LE(std::fabs(epoch.clkOffset), 0.5001);
        EXPECT_NEAR(walk.position.clkOffset, epoch.clkOffset, 1e-5);
        // The clock step a reader sees between two epochs, in milliseconds.
        const double change = walk.hasPrevious() ? epoch.clkOffset - walk.previous->clkOffset : 0.0;
        const int step = change > 0.5 ? 1 : (change < -0.5 ? -1 : 0);
        ASSERT_EQ(step, walk.hasPrevious() ? walk.simulator.truth().steeringMs : 0);
        if (step != 0) {
            ++steps;
            // Besides the step, the clock drifts by a few microseconds a second.
            EXPECT_NEAR(change, step, 0.003);
        }
        for (int i = 0; i < epoch.nSv; ++i) {
            const Rec27Sv& sv = epoch.sv[i];
            const Rec27Sv* was = walk.hasPrevious() ? sameSatellite(*walk.previous, sv) : nullptr;
            for (int j = 0; j < sv.nMeas; ++j) {
                const Rec27Meas& meas = sv.meas[j];
                const bool slipped = (meas.measFlags1 & 0x08) != 0;
                std::vector<double>& values = segments[{sv.rt_sattype, sv.svId, meas.blockType}];
                if (slipped) check(values);
                values.push_back(meas.range + meas.phase * wavelengthOf(sv, meas));
                if (was == nullptr) continue;
                ASSERT_EQ(meas.measFlags1 & 0xF7, 0x07);
                ASSERT_EQ(slipped, walk.simulator.truth().satellites[i].signals[j].slipped);
                ASSERT_EQ(meas.slipCount, static_cast<std::uint8_t>(was->meas[j].slipCount + (slipped ? 1 : 0)));
                // What the Doppler does not explain of the phase step is the slip. A reader takes
                // the phase rate with a clock step's whole milliseconds of carrier put back, over
                // the true interval.
                const double carrier =
                    nvb::carrierFreqHz(sv.rt_sattype, meas.blockType, static_cast<std::int8_t>(sv.channel));
                const double cycles = meas.phase - was->meas[j].phase + step * carrier * 0.001;
                const double rate = cycles / ((epoch.receiveTime - walk.previous->receiveTime - step) / 1000.0);
                const double extra = rate - 0.5 * (meas.doppler + was->meas[j].doppler);
                ASSERT_NEAR(extra, slipped ? std::round(extra) : 0.0, 0.25)
                    << "system " << int(sv.rt_sattype) << " sv " << int(sv.svId) << " epoch " << walk.epochs;
                EXPECT_TRUE(!slipped || std::round(extra) != 0.0) << extra;
                ++compared;
                acrossSteps += step != 0 ? 1 : 0;
                slips += slipped ? 1 : 0;
                if (step == 0) continue;
                // Light travels 299792 m in a millisecond; satellite and drift add under 2 km.
                const double rangeChange = meas.range - was->meas[j].range;
                EXPECT_NEAR(rangeChange, step * kSpeedOfLight * 1e-3, 2000.0);
                if (!slipped) {
                    EXPECT_NEAR(-(meas.phase - was->meas[j].phase) * wavelengthOf(sv, meas), rangeChange, 10.0);
                }
            }
        }
    }
    for (auto& [key, values] : segments) check(values);
    EXPECT_GT(segmentsChecked, 50);
    EXPECT_GT(compared, 100000);
    EXPECT_GT(acrossSteps, 100);
    EXPECT_GE(slips, 10);
    EXPECT_GE(steps, 2);
}

TEST(SimulatedSky, SatellitesRiseAndSetAboveTheMaskAndGlonassOnesKeepTheirChannel) {
    Walk walk({.durationSeconds = 6 * 3600.0, .intervalSeconds = 60.0});
    std::set<std::pair<int, int>> before, everSeen;
    std::map<int, int> channelOf, rises, sets;
    std::size_t mostAtOnce = 0;
    while (walk.step()) {
        const Rec27& epoch = *walk.current;
        const nvbtool::EpochTruth& truth = walk.simulator.truth();
        ASSERT_EQ(truth.satelliteCount, epoch.nSv);
        std::set<std::pair<int, int>> now;
        std::map<int, int> perSystem;
        for (int i = 0; i < epoch.nSv; ++i) {
            const Rec27Sv& sv = epoch.sv[i];
            EXPECT_GE(truth.satellites[i].elevationDeg, 10.0);
            EXPECT_TRUE(sv.elevation >= 10 && sv.elevation <= 90) << int(sv.elevation);
            EXPECT_TRUE(sv.azimuth % 2 == 0 && sv.azimuth < 360) << int(sv.azimuth);
            now.insert({sv.rt_sattype, sv.svId});
            ++perSystem[sv.rt_sattype];
            if (sv.rt_sattype != 2) continue;
            const int channel = static_cast<std::int8_t>(sv.channel);
            EXPECT_TRUE(channel >= -7 && channel <= 6) << channel;
            EXPECT_EQ(channelOf.emplace(sv.svId, channel).first->second, channel) << "sv " << int(sv.svId);
        }
        for (const int system : {0, 2, 3, 10}) EXPECT_GE(perSystem[system], 4) << "system " << system;
        if (walk.hasPrevious()) {
            for (const auto& seen : now) rises[seen.first] += before.count(seen) == 0 ? 1 : 0;
            for (const auto& seen : before) sets[seen.first] += now.count(seen) == 0 ? 1 : 0;
        }
        everSeen.insert(now.begin(), now.end());
        mostAtOnce = std::max(mostAtOnce, now.size());
        before = std::move(now);
    }
    for (const int system : {0, 2, 3, 10}) {
        EXPECT_GE(rises[system], 2) << "system " << system;
        EXPECT_GE(sets[system], 2) << "system " << system;
    }
    EXPECT_GT(everSeen.size(), mostAtOnce + 10);
    EXPECT_GE(channelOf.size(), 6u);
}

TEST(SimulatorRun, CountsEpochsAndRefusesWhatItCannotSimulate) {
    EXPECT_EQ(ReceiverSimulator({.durationSeconds = 3600.0}).epochCount(), 3600u);
    EXPECT_EQ(ReceiverSimulator({.durationSeconds = 10.0, .intervalSeconds = 0.05}).epochCount(), 200u);
    EXPECT_EQ(ReceiverSimulator({.durationSeconds = 0.5}).epochCount(), 1u);
    EXPECT_EQ(ReceiverSimulator({.durationSeconds = 0.0}).epochCount(), 0u);
    EXPECT_THROW(ReceiverSimulator({.durationSeconds = 10.0, .intervalSeconds = 0.04}), std::invalid_argument);
    EXPECT_THROW(ReceiverSimulator({.durationSeconds = -1.0}), std::invalid_argument);
    EXPECT_THROW(ReceiverSimulator({.durationSeconds = 10.0, .systems = "GX"}), std::invalid_argument);
    EXPECT_THROW(ReceiverSimulator({.durationSeconds = 10.0, .systems = ""}), std::invalid_argument);
}

TEST(SimulatorRun, RecordsFitTheLimitsAndReadBackFromALogAsSimulated) {
    // A low mask fills the epochs; what the writer keeps of each field is what was simulated.
    const SimulationOptions chosen{.durationSeconds = 900.0, .elevationMaskDegrees = 0.0};
    nvbdll_initNVBLib();
    const std::string path = ::testing::TempDir() + "simulated.nve";
    std::FILE* log = std::fopen(path.c_str(), "wb");
    nvbtool::HostEncoder encoder(7, 0, [log](std::span<const std::uint8_t> bytes) {
        std::fwrite(bytes.data(), 1, bytes.size(), log);
    });
    encoder.state().epochKeepDoppler = 1;
    Walk writer(chosen);
    std::vector<std::uint8_t> dat(5120);
    std::uint8_t status = 0;
    while (writer.step()) {
        ASSERT_LE(writer.current->nSv, NVB_MAX_SV);
        ASSERT_GT(nvb::writeDatForm(*writer.current, dat.data(), dat.size()), 0u) << "a record 27 outgrew its frame";
        encoder.put(dat.data(), status);
        ASSERT_EQ(status, 0);
        ASSERT_GT(nvb::writeDatForm(writer.position, dat.data(), dat.size()), 0u);
        encoder.put(dat.data(), status);
        ASSERT_EQ(status, 0);
    }
    encoder.finish();
    std::fclose(log);

    const auto input = nvbtool::Input::open(path);
    nvbtool::LogReader reader(*input, {});
    Walk again(chosen);
    int epochsRead = 0;
    const nvbtool::ReadSummary summary = reader.run([&](nvbtool::DeliveredRecord& record) {
        if (record.type == 29) {
            ASSERT_EQ(std::memcmp(record.state->records.rec29, &again.position, sizeof(Rec29)), 0);
            return;
        }
        ASSERT_EQ(record.type, 27);
        ASSERT_TRUE(again.step());
        ++epochsRead;
        // The packed system byte puts the system's low bits into the antenna number.
        Rec27& read = *record.state->records.rec27;
        for (int i = 0; i < read.nSv; ++i) {
            EXPECT_EQ(read.sv[i].antennaNumber, read.sv[i].rt_sattype & 3);
            read.sv[i].antennaNumber = 0;
        }
        ASSERT_EQ(std::memcmp(&read, again.current.get(), sizeof(Rec27)), 0) << "epoch " << epochsRead;
    });
    EXPECT_FALSE(summary.damaged());
    EXPECT_EQ(epochsRead, 900);
    std::remove(path.c_str());
}

}  // namespace
