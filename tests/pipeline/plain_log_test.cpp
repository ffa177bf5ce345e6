#include "support/frame_builder.h"
#include "support/plain_log.h"
#include "support/reader.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

using nvbtest::Bytes;
using nvbtest::Getter;
using nvbtest::Handle;

void expectTheLogsRecords(const std::vector<nvbtest::ReadEvent>& events) {
    std::vector<nvbtest::ReadEvent> delivered;
    for (const auto& event : events) {
        if (event.delivered()) delivered.push_back(event);
    }
    ASSERT_EQ(delivered.size(), nvbtest::kPlainLogTypes.size());
    for (std::size_t i = 0; i < delivered.size(); ++i) {
        EXPECT_EQ(delivered[i].type, nvbtest::kPlainLogTypes[i]) << "record " << i;
        EXPECT_EQ(delivered[i].datLength, nvbtest::kPlainLogDatLengths[i]) << "record " << i;
        EXPECT_EQ(delivered[i].dat[3], nvbtest::kPlainLogTypes[i]) << "record " << i;
    }
}

// What the last record of each type left in the state, as the host may read it.
void expectTheLastStructures(const nvb_expand_t* state) {
    const Rec27& epoch = *state->records.rec27;
    EXPECT_EQ(+epoch.weekNum, 2345);
    EXPECT_EQ(+epoch.receiveTime, 302401000.0);
    ASSERT_EQ(epoch.nSv, 3);
    EXPECT_EQ(+epoch.sv[1].elevation, -5);
    EXPECT_EQ(epoch.sv[1].channel, 0xFD);
    // Wire Doppler stays where the wire has it; elsewhere it comes from a second of phase.
    EXPECT_EQ(+epoch.sv[0].meas[0].doppler, -1234.5f);
    EXPECT_EQ(+epoch.sv[0].meas[1].doppler, 777.25f);
    EXPECT_EQ(+epoch.sv[0].meas[1].range, 21456791.75);
    EXPECT_EQ(+epoch.sv[1].meas[0].doppler, 2500.25f);
    EXPECT_EQ(+epoch.sv[2].meas[0].doppler, 100.0f);
    EXPECT_EQ(+epoch.sv[2].meas[1].doppler, -321.5f);

    const Rec17& older = *state->records.rec17;
    ASSERT_EQ(older.nSv, 2);
    EXPECT_EQ(+older.sv[0].doppler, 1000.5);
    EXPECT_EQ(+older.sv[0].rangeDiff2, 2.625);
    EXPECT_EQ(+older.sv[1].range, 38000000.0);
    EXPECT_EQ(+older.sv[1].doppler, 5.25);

    const Rec29& fix = *state->records.rec29;
    EXPECT_NEAR(+fix.latPos, 37.7749, 1e-11);
    EXPECT_NEAR(+fix.lonPos, -122.4194, 1e-11);
    EXPECT_FLOAT_EQ(+fix.pdop, std::sqrt(1.25f * 1.25f + 4.0f));
    EXPECT_EQ(fix.sv[1].rt_sattype, 2);

    const Rec11& old = *state->records.rec11;
    EXPECT_EQ(old.nSv, 3);
    EXPECT_NEAR(+old.latitude, 0.2098 + 5 * std::ldexp(1.0, -39), std::ldexp(1.0, -32));
    // One list area: three channel bytes, then the three satellite bytes right behind.
    const Bytes lists(old.lists, old.lists + 6);
    EXPECT_EQ(lists, (Bytes{1, 2, 3, 7, 63, 11}));
}

TEST(PlainLog, ReadsEndToEndThroughTheFileGetter) {
    Handle handle;
    const auto events = nvbtest::readStream(handle.get(), nvbtest::plainMeasurementLog(), Getter::NvaFile);
    expectTheLogsRecords(events);
    expectTheLastStructures(handle.get());
}

TEST(PlainLog, ReadsEndToEndHuffmanCodedByByte) {
    Handle handle;
    const Bytes coded = nvbtest::huffmanEncode(nvbtest::plainMeasurementLog());
    expectTheLogsRecords(nvbtest::readStream(handle.get(), coded, Getter::NvbByByte));
}

}  // namespace
