#include "support/wire.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

using nvbtest::Bytes;
using nvbtest::concat;

// A small Huffman-coded log in two chunks, each closed by an end symbol: opaque records
// with one frame whose checksum is wrong in the first, then plain records 27, 29, 17, 11.
Bytes exampleLog() {
    Bytes damaged = nvbtest::plainFrame(14, Bytes(20, 0x14));
    damaged[10] ^= 0x01;
    const Bytes first = concat({nvbtest::junk(12, 5), nvbtest::plainFrame(14, Bytes(20, 0x14)),
                                nvbtest::plainFrame(16, Bytes{4, 1, 2, 3, 4, 5}), damaged});
    const Bytes second = concat({nvbtest::plainFrame(23, Bytes(33, 0x23)), nvbtest::plainFrame(14, Bytes(9, 0x41)),
                                 nvbtest::plainMeasurementLog()});
    return nvbtest::huffmanEncodeChunks({first, second});
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

TEST(ExampleLog, WritesTheExampleLogAndReadsItBack) {
    const Bytes log = exampleLog();
    const char* target = std::getenv("NVBDLL_EXAMPLE_LOG");
    if (target != nullptr) {
        std::FILE* file = std::fopen(target, "wb");
        ASSERT_NE(file, nullptr);
        std::fwrite(log.data(), 1, log.size(), file);
        std::fclose(file);
    }
    nvbtest::Handle handle;
    const auto events = nvbtest::readStream(handle.get(), log, nvbtest::Getter::NvbFile);
    const auto dats = nvbtest::deliveredDat(events);
    ASSERT_EQ(dats.size(), 10u);
    EXPECT_EQ(dats[1][3], 16);
    for (std::size_t i = 0; i < nvbtest::kPlainLogTypes.size(); ++i) {
        EXPECT_EQ(dats[4 + i][3], nvbtest::kPlainLogTypes[i]);
        EXPECT_EQ(dats[4 + i].size(), nvbtest::kPlainLogDatLengths[i]);
    }
    int damaged = 0;
    for (const auto& event : events) damaged += event.status == 2 ? 1 : 0;
    EXPECT_EQ(damaged, 1);
    expectTheLastStructures(handle.get());

    // The same records as plain frames, through the NVA file getter.
    nvbtest::Handle plain;
    const auto plainDats = nvbtest::deliveredDat(nvbtest::readStream(plain.get(), nvbtest::plainMeasurementLog(), nvbtest::Getter::NvaFile));
    ASSERT_EQ(plainDats.size(), nvbtest::kPlainLogTypes.size());
    for (std::size_t i = 0; i < plainDats.size(); ++i) EXPECT_EQ(plainDats[i], dats[4 + i]);
}

}  // namespace
