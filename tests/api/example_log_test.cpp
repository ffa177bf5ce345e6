#include "support/wire.h"
#include "support/host.h"

#include <gtest/gtest.h>

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

    // The same records as plain frames, through the NVA file getter.
    nvbtest::Handle plain;
    const auto plainDats = nvbtest::deliveredDat(nvbtest::readStream(plain.get(), nvbtest::plainMeasurementLog(), nvbtest::Getter::NvaFile));
    ASSERT_EQ(plainDats.size(), nvbtest::kPlainLogTypes.size());
    for (std::size_t i = 0; i < plainDats.size(); ++i) EXPECT_EQ(plainDats[i], dats[4 + i]);
}

}  // namespace
