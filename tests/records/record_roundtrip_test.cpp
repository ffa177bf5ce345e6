// A record written by the library's writer and read back by its reader gives back every
// field within its wire resolution, which each family states in a table: half a step of
// the field, 0 where the wire carries the value as it stands.
#include "records/position_records.h"
#include "support/epochs.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstring>
#include <random>
#include <sstream>
#include <string>

namespace {

const auto pow2 = [](int e) { return std::ldexp(1.0, e); };

template <typename T>
struct Field {
    const char* name;
    double (*get)(const T&);
    double tolerance;
};
#define FIELD(member, tolerance)                                             \
    {                                                                        \
#member, [](const auto& r) -> double { return r.member; }, tolerance \
    }

template <typename T>
void expectWithin(const T& want, const T& got, std::initializer_list<Field<T>> fields, const std::string& where) {
    for (const Field<T>& f : fields) {
        ASSERT_LE(std::fabs(f.get(want) - f.get(got)), f.tolerance) << f.name << " " << where;
    }
}

int firstRangeBits(std::uint8_t system) {
    return system == 1 || system == 4 ? 6 : (system == 8 ? 10 : 7);
}

// Epochs as a reader leaves them, over every system and antenna, moved off the wire's grid
// by less than half a step.
std::vector<std::unique_ptr<Rec27>> epochsOffTheGrid() {
    std::vector<nvbtest::Bytes> frames =
        nvbtest::makeEpochSequence({.epochs = 1, .satellites = 116, .maxSignals = 2, .longFlags = false});
    const auto log = nvbtest::makeEpochSequence({.maxSignals = 6});
    for (std::size_t i = 0; i < log.size(); i += 10) frames.push_back(log[i]);
    std::mt19937 rng(27);
    const auto off = [&](int bits) { return std::uniform_real_distribution<double>(-0.45, 0.45)(rng) * pow2(-bits); };
    std::vector<std::unique_ptr<Rec27>> epochs;
    for (const nvbtest::Bytes& frame : frames) {
        auto epoch = nvbtest::readEpoch(frame);
        epoch->clkOffset = static_cast<float>(epoch->clkOffset + off(20));
        for (int k = 0; k < epoch->clock.count; ++k) epoch->clock.systemClockOffset[k] += off(29);
        for (int i = 0; i < epoch->nSv; ++i) {
            Rec27Sv& sv = epoch->sv[i];
            sv.antennaNumber = static_cast<std::uint8_t>(i % 4);
            // Systems 6, 8 and 10 too, where the range has the same field; system 8 ranges
            // stay below 4194 km.
            const bool sevenBits = firstRangeBits(sv.rt_sattype) == 7;
            if (sevenBits && i % 10 == 6) sv.rt_sattype = 6;
            if (sevenBits && i % 10 == 9) sv.rt_sattype = 10;
            const bool eight = sevenBits && i % 10 == 8 && sv.nMeas > 0 && (sv.meas[0].measFlags1 & 0x80) == 0;
            const double lift = eight ? 3.0e6 - sv.meas[0].range : 0.0;
            if (eight) sv.rt_sattype = 8;
            for (int j = 0; j < sv.nMeas; ++j) {
                Rec27Meas& meas = sv.meas[j];
                meas.range += lift + (j == 0 ? off(firstRangeBits(sv.rt_sattype) + 1) : off(9));
                meas.phase += off(16);
                meas.doppler = static_cast<float>(meas.doppler + off(9));
            }
        }
        epochs.push_back(std::move(epoch));
    }
    return epochs;
}

void roundTripEpochs() {
    nvbtest::EpochReader reader;
    for (const auto& want : epochsOffTheGrid()) {
        ASSERT_EQ(reader.read(*want, nvbtest::kPlainOptions), nvb::rec27DatLength(*want));
        const Rec27& got = reader.epoch();
        expectWithin<Rec27>(
            *want, got,
            {FIELD(epochHeaderLen, 0), FIELD(weekNum, 0), FIELD(receiveTime, 0), FIELD(clkOffset, pow2(-20) + 1e-6),
             FIELD(nSv, 0), FIELD(epochFlags, 0), FIELD(clkDrift, pow2(-23) + 1e-7), FIELD(raimFault, 0),
             FIELD(clock.blockLength, 0), FIELD(clock.referenceSystem, 0), FIELD(clock.count, 0)},
            "of the epoch");
        for (int k = 0; k < want->clock.count; ++k) {
            ASSERT_EQ(got.clock.rt_clktype[k], want->clock.rt_clktype[k]);
            const double value = want->clock.systemClockOffset[k];
            ASSERT_NEAR(got.clock.systemClockOffset[k], value, std::max(pow2(-29), std::fabs(value) * pow2(-52)));
        }
        for (int i = 0; i < want->nSv; ++i) {
            const std::string where = "of satellite " + std::to_string(i);
            expectWithin<Rec27Sv>(
                want->sv[i], got.sv[i],
                {FIELD(svBlockLen, 0), FIELD(svId, 0), FIELD(rt_sattype, 0), FIELD(antennaNumber, 0), FIELD(channel, 0),
                 FIELD(nMeas, 0), FIELD(elevation, 0), FIELD(azimuth, 0), FIELD(svFlags, 0), FIELD(svFlags2, 0),
                 FIELD(geomSlipCount, 0), FIELD(ionoSlipCount, 0), FIELD(spare, 0)},
                where);
            // Half a step of the first range's field; a later signal adds half a step of its difference.
            const double first = pow2(-firstRangeBits(want->sv[i].rt_sattype) - 1) + 1e-9;
            for (int j = 0; j < want->sv[i].nMeas; ++j) {
                const Rec27Meas& a = want->sv[i].meas[j];
                const Rec27Meas& b = got.sv[i].meas[j];
                ASSERT_NEAR(b.range, a.range, j == 0 ? first : first + pow2(-9)) << where;
                expectWithin<Rec27Meas>(
                    a, b,
                    {FIELD(measBlockLen, 0), FIELD(blockType, 0), FIELD(trackType, 0), FIELD(snr, 0),
                     FIELD(phase, pow2(-16) + 1e-7), FIELD(doppler, pow2(-9)), FIELD(slipCount, 0),
                     FIELD(measFlags1, 0), FIELD(measFlags2, 0), FIELD(measFlags3, 0)},
                    where + " signal " + std::to_string(j));
            }
        }
    }
}

// Positions with every block in turn, values spread over their fields' ranges.
void roundTripPositions() {
    std::mt19937 rng(29);
    auto uniform = [&](double lo, double hi) { return std::uniform_real_distribution<double>(lo, hi)(rng); };
    nvbtest::Handle handle;
    auto frame = std::make_unique<nvb_frame_t>();
    int blocks[4] = {};
    for (int round = 0; round < 200; ++round) {
        Rec29 w{};
        w.block1Len = 15;
        w.block2Len = 93;
        w.week = 2345;
        w.time = 302400123;
        w.positionValid = static_cast<std::uint8_t>(rng() % 2);
        w.raimInfo = static_cast<std::uint8_t>(rng());
        w.posFlags = static_cast<std::uint8_t>(rng() & 0xEE);
        w.fixMode = static_cast<std::uint8_t>(rng() % 8);
        w.fixType = static_cast<std::uint8_t>(rng() % 8);
        w.fixInfo = static_cast<std::uint8_t>(rng());
        w.latPos = uniform(-90, 90);
        w.lonPos = uniform(-180, 180);
        w.hgtPos = uniform(-500, 9000);
        for (double* velocity : {&w.latVel, &w.lonVel, &w.hgtVel}) *velocity = uniform(-500, 500);
        w.clkOffset = static_cast<float>(uniform(-30, 30));
        w.clkDrift = static_cast<float>(uniform(-1000, 1000));
        for (float* dop : {&w.hdop, &w.vdop, &w.tdop}) *dop = static_cast<float>(uniform(0, 100));
        for (float* sigma : {&w.sigmaN, &w.sigmaE, &w.sigmaU}) *sigma = static_cast<float>(uniform(0, 31.9));
        w.rms = static_cast<float>(uniform(0, 3.99));
        const double deviation = uniform(0, 31.9);
        w.unitVariance = static_cast<float>(deviation * deviation);
        if (w.fixType >= 3 && w.fixType <= 6) {
            w.block3Len = 7;
            w.corrInfo = static_cast<std::uint8_t>(rng());
            w.corrAge = static_cast<float>(uniform(0, 1000));
            ++blocks[0];
        }
        if ((w.posFlags & 0x02) != 0) {
            w.block4Len = 10;
            w.auxValueA = static_cast<float>(uniform(-30000, 30000));
            w.auxValueB = static_cast<float>(uniform(-30000, 30000));
            w.auxStatus = static_cast<std::uint8_t>(rng());
            ++blocks[1];
        }
        if (rng() % 2 == 0) {
            w.posFlags |= 0x10;
            w.clock.count = static_cast<std::uint8_t>(rng() % 8);
            w.clock.blockLength = static_cast<std::uint8_t>(3 + 9 * w.clock.count);
            w.clock.referenceSystem = static_cast<std::uint8_t>(rng() % 16);
            for (int k = 0; k < w.clock.count; ++k) {
                w.clock.rt_clktype[k] = static_cast<std::uint8_t>(rng() % 16);
                w.clock.systemClockOffset[k] = uniform(-1e4, 1e4);
            }
            ++blocks[2];
        }
        w.numSVs = static_cast<std::uint8_t>(round == 0 ? NVB_MAX_SV : rng() % 40);
        for (int k = 0; k < w.numSVs; ++k) {
            w.sv[k] = Rec29SvEntry{static_cast<std::uint8_t>(rng()), static_cast<std::uint8_t>(rng() % 5),
                                   static_cast<std::uint8_t>(rng())};
        }
        w.svListLen = static_cast<std::uint8_t>(1 + 3 * w.numSVs);
        w.numSVsUsed = static_cast<std::uint8_t>(rng() % (w.numSVs + 1));
        blocks[3] += w.numSVs == NVB_MAX_SV ? 1 : 0;

        ASSERT_GT(nvb::writeRec29(w, *frame), 0);
        ASSERT_EQ(nvb::readRec29(*frame, *handle.get(), false, false), nvb::rec29DatLength(w)) << round;
        const Rec29& g = *handle->records.rec29;
        ASSERT_EQ(std::memcmp(&g, &w, 15), 0) << "block 1, round " << round;
        ASSERT_EQ(std::memcmp(g.sv, w.sv, 3u * w.numSVs), 0) << "list, round " << round;
        // clang-format off
        expectWithin<Rec29>(w, g, {FIELD(latPos, pow2(-41)), FIELD(lonPos, pow2(-40)), FIELD(hgtPos, pow2(-13)),
                                   FIELD(latVel, pow2(-22)), FIELD(lonVel, pow2(-22)), FIELD(hgtVel, pow2(-22)),
                                   FIELD(clkOffset, pow2(-27) + 2e-6), FIELD(clkDrift, pow2(-18) + 6e-5),
                                   FIELD(hdop, pow2(-5) + 1e-5), FIELD(tdop, pow2(-5) + 1e-5),
                                   FIELD(sigmaU, pow2(-12) + 1e-6), FIELD(rms, pow2(-15) + 1e-7),
                                   FIELD(block3Len, 0), FIELD(corrInfo, 0), FIELD(corrAge, pow2(-7) + 1e-4),
                                   FIELD(block4Len, 0), FIELD(auxValueA, pow2(-17) + 2e-3),
                                   FIELD(auxValueB, pow2(-17) + 2e-3), FIELD(auxStatus, 0),
                                   FIELD(clock.blockLength, 0), FIELD(clock.count, 0), FIELD(svListLen, 0)},
                            "round " + std::to_string(round));
        // clang-format on
        ASSERT_FLOAT_EQ(g.pdop, std::sqrt(g.hdop * g.hdop + g.vdop * g.vdop)) << "pdop is derived";
        ASSERT_NEAR(std::sqrt(g.unitVariance), deviation, pow2(-12) + 1e-5) << "the wire holds the deviation";
        for (int k = 0; k < w.clock.count; ++k) {
            ASSERT_EQ(g.clock.rt_clktype[k], w.clock.rt_clktype[k]);
            ASSERT_NEAR(g.clock.systemClockOffset[k], w.clock.systemClockOffset[k], pow2(-29));
        }
    }
    for (const int reached : blocks) EXPECT_GT(reached, 0) << "block 3, block 4, clock block, full list";
}

void roundTripRecord11() {
    nvbtest::Handle handle;
    auto frame = std::make_unique<nvb_frame_t>();
    Rec11 rec11{0.2, -0.7, 123.25, -1234.567, 0.0123, 2.3, 1.1e-5, -3.3e-3, 77.7, 302400000, 0x40, 32, {}};
    for (std::uint8_t i = 0; i < 64; ++i) rec11.lists[i] = static_cast<std::uint8_t>(i < 32 ? i : 68 + i);
    ASSERT_GT(nvb::writeRec11(rec11, *frame), 0);
    ASSERT_EQ(nvb::readRec11(*frame, *handle.get()), 2 * 32 + 82);
    const Rec11& got11 = *handle->records.rec11;
    expectWithin<Rec11>(rec11, got11,
                        {FIELD(latitude, pow2(-31) * 0.51), FIELD(height, 0), FIELD(clockOffset, pow2(-10)),
                         FIELD(clockDrift, pow2(-18)), FIELD(pdop, 0.0625), FIELD(velocity1, pow2(-45)),
                         FIELD(velocity2, pow2(-33)), FIELD(velocity3, pow2(-22)), FIELD(time, 0), FIELD(fixStatus, 0)},
                        "of record 11");
    EXPECT_EQ(std::memcmp(got11.lists, rec11.lists, 64), 0);
    const std::uint8_t* header = handle->records.datHeader;
    EXPECT_EQ(nvbtest::Bytes(header, header + 4), (nvbtest::Bytes{0x74, 146, 0, 11}));
}

// Records whose DAT form keeps each field of their table in its native width: every field
// reads into the structure in its order, and that DAT form goes through the parser and the
// writer back to the same frame.
void roundTripLayouts() {
    nvbtest::Handle handle;
    handle->mapSystem5To7 = 0;
    for (const nlohmann::json& layout : nvbtest::pinned("records/layouts.json")["layouts"]) {
        SCOPED_TRACE(layout.dump());
        const std::uint8_t type = layout["type"], subtype = layout["subtype"];
        nvbtest::Runs runs;
        std::istringstream text(layout["runs"].get<std::string>());
        for (unsigned width = 0, count = 0; text >> width && text.ignore(1) >> count;) runs.push_back({width, count});
        const auto f = nvbtest::fields(runs, type == 5 || type == 30 ? 3 : type + subtype);
        nvbtest::Bytes native = f.native;
        nvbtest::Bytes body = nvbtest::concat({{subtype}, f.wire.bytes});
        if (type == 21) {
            native.insert(native.begin() + 1, 0);  // the second byte, which the wire leaves out
            body = f.wire.bytes;
        }
        if (type == 28) native = nvbtest::concat({{subtype}, native});
        const std::uint8_t byte2 = type == 21 || type == 28 ? 0 : subtype;
        const std::size_t datLength = layout.value("datLength", 4 + native.size());
        const nvbtest::Bytes wire = nvbtest::plainFrame(type, body);
        const nvbtest::ReadEvent got = nvbtest::processFrame(handle.get(), wire);
        ASSERT_EQ(got.datLength, datLength);
        EXPECT_EQ(got.dat, nvbtest::structDat(type, byte2, native.data(), datLength));
        EXPECT_EQ(nvbtest::writtenFrame(got.dat), wire);
    }
}

TEST(RecordRoundTrip, EveryFieldComesBackWithinItsWireResolution) {
    roundTripEpochs();
    roundTripPositions();
    roundTripRecord11();
    roundTripLayouts();
}

}  // namespace
