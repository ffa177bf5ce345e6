#include "common/rclean.h"

#include <gtest/gtest.h>

#include <array>
#include <cstddef>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The state and the list are packed: their fields are compared by value (unary plus), never
// bound to a reference at an unaligned address.
class Rclean : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(nvb::rcleanInit(*state)); }
    void TearDown() override { nvb::rcleanFree(*state); }

    using Dims = std::array<int32_t, 4>;
    Dims dims() const { return {state->slipDims[0], state->slipDims[1], state->slipDims[2], state->slipDims[3]}; }

    std::unique_ptr<rcleanState> state = std::make_unique<rcleanState>();
};

TEST_F(Rclean, PositionTimesAreReadWithTheirOwnSignedness) {
    // 2^31 + 500 ms: 148 past a second as unsigned, 148 before one as signed.
    Rec29 rec29{};
    rec29.time = 2147484148u;
    EXPECT_FALSE(nvb::rcleanPosition29(*state, rec29, 1000));
    Rec11 rec11{};
    rec11.time = 2147484148u;
    EXPECT_TRUE(nvb::rcleanPosition11(*state, rec11, 1000));
    // A record 35 time of -1 stands for 2^32 - 1, 295 past a second.
    EXPECT_FALSE(nvb::rcleanPosition35(*state, -1, 1000));
    EXPECT_EQ(+state->time, 4294967295.0);
}

struct Signal27 {
    uint8_t system = 0;
    uint8_t svId = 5;
    uint8_t blockType = 0;
    uint8_t trackType = 0;
};

// Thins an epoch holding the one signal; its slip mark after thinning, or -1 when dropped.
int epoch27(rcleanState& state, double time, Signal27 signal, uint8_t slipCount, uint8_t measFlags1) {
    auto rec = std::make_unique<Rec27>();
    rec->receiveTime = time;
    rec->nSv = 1;
    rec->sv[0].rt_sattype = signal.system;
    rec->sv[0].svId = signal.svId;
    rec->sv[0].nMeas = 1;
    rec->sv[0].meas[0].blockType = signal.blockType;
    rec->sv[0].meas[0].trackType = signal.trackType;
    rec->sv[0].meas[0].slipCount = slipCount;
    rec->sv[0].meas[0].measFlags1 = measFlags1;
    if (!nvb::rcleanEpoch27(state, *rec, 1000)) return -1;
    return rec->sv[0].meas[0].measFlags1 & 0x08;
}

TEST_F(Rclean, Epoch27SbasNumberFallsBy120WithEachMeasurementOfItsSatellite) {
    auto rec = std::make_unique<Rec27>();
    rec->receiveTime = 1000;
    rec->nSv = 2;
    for (int i = 0; i < 2; ++i) {
        rec->sv[i].rt_sattype = 1;
        rec->sv[i].svId = i == 0 ? 130 : 245;
        rec->sv[i].nMeas = 2;
        rec->sv[i].meas[1].blockType = 1;
        rec->sv[i].meas[1].slipCount = 9;
    }
    ASSERT_TRUE(nvb::rcleanEpoch27(*state, *rec, 1000));
    // Satellite 130 fills its first cell (10) only; 245 its second, 240 below (5).
    const std::size_t trackRow = std::size_t{1} * NVB_RCLEAN_TRACKS * NVB_RCLEAN_SBAS_SVS;
    EXPECT_EQ(+state->lastCycleSbas[10], 0);
    EXPECT_EQ(+state->lastCycleSbas[trackRow + 5], 9);
    int filled = 0;
    for (int cell = 0; cell < NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_SBAS_SVS; ++cell) {
        filled += state->lastCycleSbas[cell] != -1 ? 1 : 0;
    }
    EXPECT_EQ(filled, 2);
}

TEST_F(Rclean, Epoch27IndicesOutsideTheTablesAreIgnored) {
    const std::size_t begin = offsetof(rcleanState, lastCycleGps);
    const std::size_t end = offsetof(rcleanState, rec17Pending);
    std::vector<unsigned char> before(end - begin);
    std::memcpy(before.data(), reinterpret_cast<const unsigned char*>(state.get()) + begin, before.size());

    const Signal27 outside[] = {{0, 5, 6, 0},   {0, 5, 200, 0}, {0, 5, 0, 18}, {0, 5, 5, 255}, {0, 40, 0, 0},
                                {1, 119, 0, 0}, {1, 145, 0, 0}, {2, 30, 0, 0}, {3, 60, 5, 17}, {4, 1, 0, 0}};
    for (const Signal27& signal : outside) {
        EXPECT_EQ(epoch27(*state, 1500, signal, 1, 0x08), -1);
        EXPECT_EQ(epoch27(*state, 2000, signal, 2, 0), 0);
    }
    // Counts past the arrays are bounded: 255 satellites of 255 measurements.
    auto rec = std::make_unique<Rec27>();
    rec->receiveTime = 2000;
    rec->nSv = 255;
    for (Rec27Sv& sv : rec->sv) {
        sv.svId = 40;
        sv.nMeas = 255;
    }
    EXPECT_TRUE(nvb::rcleanEpoch27(*state, *rec, 1000));

    EXPECT_EQ(std::memcmp(before.data(), reinterpret_cast<const unsigned char*>(state.get()) + begin, before.size()),
              0);
}

Rec17Sv& addSv17(Rec17& rec, uint8_t svId, uint8_t svFlags, uint8_t constant = 3) {
    Rec17Sv& sv = rec.sv[rec.nSv++];
    sv.svId = svId;
    sv.svFlags = svFlags;
    sv.svFlags3 = constant;
    return sv;
}

TEST_F(Rclean, Epoch17IntervalZeroKeepsEveryEpochAndMinusOneTouchesNeitherRecordNorState) {
    auto rec = std::make_unique<Rec17>();
    for (double time : {1500.0, 1000007.25, 3.0}) {
        rec->receiveTime = time;
        EXPECT_TRUE(nvb::rcleanEpoch17(*state, *rec, 0, nullptr)) << time;
    }
    addSv17(*rec, 5, 0x42);
    const Rec17 copy = *rec;
    const rcleanState stateCopy = *state;
    droppedSlipList_t list{};
    list.count = 7;
    EXPECT_TRUE(nvb::rcleanEpoch17(*state, *rec, -1, &list));
    EXPECT_EQ(std::memcmp(&copy, rec.get(), sizeof copy), 0);
    EXPECT_EQ(std::memcmp(&stateCopy, state.get(), sizeof stateCopy), 0);
    EXPECT_EQ(+list.count, 7);
}

TEST_F(Rclean, Epoch17DroppedListStopsAtTwelveSatellites) {
    auto rec = std::make_unique<Rec17>();
    rec->receiveTime = 1500;
    for (int i = 0; i < NVB_REC17_MAX_SV; ++i) addSv17(*rec, static_cast<uint8_t>(i + 1), 0x42);
    rec->nSv = 200;
    droppedSlipList_t list{};
    EXPECT_FALSE(nvb::rcleanEpoch17(*state, *rec, 1000, &list));
    ASSERT_EQ(+list.count, NVB_RCLEAN_DROPPED_MAX);
    EXPECT_EQ(+state->listCount, static_cast<uint32_t>(NVB_RCLEAN_DROPPED_MAX));
    for (int i = 0; i < NVB_RCLEAN_DROPPED_MAX; ++i) EXPECT_EQ(list.entries[i][0], i + 1);
    // All 24 are still remembered and carried.
    rec->receiveTime = 2000;
    for (Rec17Sv& sv : rec->sv) sv.svFlags = 0x50;
    EXPECT_TRUE(nvb::rcleanEpoch17(*state, *rec, 1000, &list));
    for (const Rec17Sv& sv : rec->sv) EXPECT_EQ(sv.svFlags, 0x52) << int{sv.svId};
}

// One signal of a record 35 epoch at the given time; its slip bit afterwards, -1 when dropped.
int64_t epoch35(rcleanState& state, int64_t time, nvb::rcleanSignal35 signal) {
    std::span<nvb::rcleanSignal35> signals(&signal, 1);
    if (!nvb::rcleanEpoch35(state, time, signals, 1000)) return -1;
    return *signal.flags & nvb::kRec35SlipFlag;
}

TEST_F(Rclean, SlipTable35GrowthRaisesOnlyTheDimensionsReachedAndKeepsEntries) {
    // Built with room for an index equal to each dimension.
    EXPECT_EQ(dims(), (Dims{10, 40, 12, 39}));
    EXPECT_EQ(state->slip[10][40][12][39].last, -1);
    state->slip[2][5][3][7] = rclean_slip_t{4, 1};
    rclean_slip_t**** table = state->slip;
    nvb::rcleanGrow(*state, 10, 40, 12, 39);
    EXPECT_EQ(+state->slip, table);

    nvb::rcleanGrow(*state, 2, 50, 3, 45);
    EXPECT_EQ(dims(), (Dims{10, 50, 12, 45}));
    EXPECT_EQ(state->slip[2][5][3][7].last, 4);
    EXPECT_EQ(state->slip[2][5][3][7].pending, 1);
    for (const rclean_slip_t& entry :
         {state->slip[2][5][3][40], state->slip[2][5][3][45], state->slip[10][50][12][45], state->slip[0][41][0][0]}) {
        EXPECT_EQ(entry.last, -1);
        EXPECT_EQ(entry.pending, 0);
    }
    // A record 35 signal beyond the table grows it.
    int64_t flags = 0;
    epoch35(*state, 1000, {3, 61, 20, 30, 7, &flags});
    EXPECT_EQ(dims(), (Dims{10, 60, 20, 45}));
    EXPECT_EQ(state->slip[3][60][20][30].last, 7);
}

TEST_F(Rclean, SlipTable35SystemCodesMapToTheirTableAndSatelliteBase) {
    struct Case {
        int32_t code;
        int64_t satellite;
        int32_t table;
        int32_t index;
    };
    const Case cases[] = {{1, 120, 1, 0}, {2, 1, 2, 0}, {4, 195, 4, 2},  {5, 3, 5, 2},  {6, 0, 7, 0},
                          {7, 4, 5, 3},   {8, 11, 8, 0}, {9, 1, 6, 0},   {10, 2, 5, 1}, {-3, 1, 0, 0}, {99, 40, 0, 39}};
    int32_t count = 0;
    for (const Case& c : cases) {
        int64_t flags = 0;
        ++count;
        epoch35(*state, 1000, {c.code, c.satellite, 1, 2, count, &flags});
        EXPECT_EQ(state->slip[c.table][c.index][1][2].last, count) << c.code;
    }
}

TEST_F(Rclean, SlipTable35IndicesThatCannotBeTableIndicesAreIgnored) {
    int64_t flags = 0x100;
    const nvb::rcleanSignal35 outside[] = {
        {1, 119, 0, 0, 1, &flags}, {2, 0, 0, 0, 1, &flags},   {2, 1, -1, 0, 1, &flags},
        {2, 1, 0, -5, 1, &flags},  {2, 257, 0, 0, 1, &flags}, {2, 1, 256, 0, 1, &flags},
        {2, 1, 0, int64_t{1} << 40, 1, &flags}, {2, 1, 0, 0, 1, nullptr},
    };
    for (const nvb::rcleanSignal35& signal : outside) EXPECT_EQ(epoch35(*state, 1500, signal), -1);
    EXPECT_EQ(dims(), (Dims{10, 40, 12, 39}));
    EXPECT_EQ(state->slip[2][0][0][0].last, -1);
}

// The cases of rclean_marks.txt: each epoch thinned from the case's fresh state, and what
// thinning left of its slip mark; a dropped epoch keeps the flags it came with.
TEST_F(Rclean, SlipMarksOfDroppedEpochsCounterChangesAndFirstSightingsLandWhereTheyShould) {
    std::ifstream file(NVBDLL_TEST_DATA_DIR "/common/rclean_marks.txt");
    std::string line, what;
    droppedSlipList_t list{};  // a kept record 17 epoch clears what the dropped one listed
    int steps = 0;
    while (std::getline(file, line)) {
        if (line.starts_with("#")) continue;
        if (line.starts_with("== ")) {
            what = line.substr(3);
            list = {};
            nvb::rcleanFree(*state);
            ASSERT_TRUE(nvb::rcleanInit(*state));
            continue;
        }
        std::istringstream in(line);
        std::vector<int64_t> v;  // kind, time, the fields, and the list count of record 17
        std::string token;
        while (in >> token) {
            if (token != "->") v.push_back(token == "-" ? -1 : std::stoll(token, nullptr, 0));
        }
        SCOPED_TRACE(what + ": " + line);
        ++steps;
        const auto u8 = [&](int at) { return static_cast<uint8_t>(v[at]); };
        if (v[0] == 27) {
            EXPECT_EQ(epoch27(*state, static_cast<double>(v[1]), {u8(2), u8(3), u8(4), u8(5)}, u8(6), u8(7)), v[8]);
        } else if (v[0] == 35) {
            int64_t flags = v[7];
            const bool kept = epoch35(*state, v[1], {static_cast<int32_t>(v[2]), v[3], v[4], v[5], v[6], &flags}) >= 0;
            EXPECT_EQ(kept ? flags & nvb::kRec35SlipFlag : -1, v[8]);
            if (!kept) {
                EXPECT_EQ(flags, v[7]);
            }
        } else {
            auto rec = std::make_unique<Rec17>();
            rec->receiveTime = static_cast<double>(v[1]);
            addSv17(*rec, u8(2), u8(3), u8(4));
            const bool kept = nvb::rcleanEpoch17(*state, *rec, 1000, &list);
            EXPECT_EQ(kept ? rec->sv[0].svFlags : -1, v[5]);
            ASSERT_EQ(+list.count, v[6]);
            if (!kept) {
                EXPECT_EQ(rec->sv[0].svFlags, v[3]);
                EXPECT_EQ(+list.time, static_cast<double>(v[1]));
                EXPECT_EQ(+state->listCount, +list.count);
            }
            EXPECT_EQ(list.entries[0][0], v[6] != 0 ? v[2] : 0);
            EXPECT_EQ(list.entries[0][1], v[6] != 0 ? v[3] : 0);
        }
    }
    EXPECT_GT(steps, 30) << "the cases were read";
}

}  // namespace
