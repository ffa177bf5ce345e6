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
    // What the C host reads of it, its opaque records and its one damaged frame, is
    // ExampleHost.ReadsTheLogTheTestsWrote's to check; here the plain records that close it
    // read as the same frames do through the NVA file getter.
    const auto dats = nvbtest::readLog(log);
    ASSERT_EQ(dats.size(), 10u);
    nvbtest::Handle plain;
    const auto plainDats = nvbtest::deliveredDat(
        nvbtest::readStream(plain.get(), nvbtest::plainMeasurementLog(), nvbtest::Getter::NvaFile));
    ASSERT_EQ(plainDats.size(), nvbtest::kPlainLogTypes.size());
    for (std::size_t i = 0; i < plainDats.size(); ++i) {
        EXPECT_EQ(plainDats[i][3], nvbtest::kPlainLogTypes[i]);
        EXPECT_EQ(plainDats[i].size(), nvbtest::kPlainLogDatLengths[i]);
        EXPECT_EQ(dats[4 + i], plainDats[i]);
    }
}

}  // namespace
