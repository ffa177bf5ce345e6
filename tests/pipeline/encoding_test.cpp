#include "host/dat_form.h"
#include "pipeline/serialisation.h"
#include "support/epochs.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <memory>

namespace {

using nvbtest::Bytes;
using nvbtest::Encoder;
using nvbtest::readLog;
using nvbtest::shortDat;

Bytes padded(Bytes dat, std::size_t size) {
    dat.resize(size, 0);
    return dat;
}

// A record 17 of `count` GPS satellites, the first `dual` with their second frequency.
Bytes record17(int count, int dual) {
    auto rec = std::make_unique<Rec17>();
    rec->receiveTime = 345600000;
    rec->nSv = static_cast<std::uint8_t>(count);
    for (int i = 0; i < count; ++i) {
        Rec17Sv& sv = rec->sv[i];
        sv.svId = static_cast<std::uint8_t>(1 + i);
        sv.svFlags = static_cast<std::uint8_t>(0x10 | (i < dual ? 0x01 : 0x00));
        sv.svFlags3 = 3;
        sv.snr = 44.0;
        sv.range = 21.0e6 + 1000.0 * i;
        sv.phase = -1.1e8 - 5000.0 * i;
    }
    return nvbtest::datOf(*rec);
}

// A host hands over as many bytes as the header announces; here they don't say what the
// header says they are, or the writer can't carry them. Each is refused whole (an epoch
// without satellites goes out, and a reader delivers nothing of it), between two good
// records that read back.
TEST(Encode, RecordsTheWriterCantTakeAreRefusedWholeAndTheRestReadsBack) {
    struct Case {
        const char* what;
        Bytes dat;
        std::uint8_t method;
        std::uint8_t status;
        bool counted;  // in recordCount: it went through a writer
        bool readBack;
    };
    Bytes tooManySatellites(64, 0);
    tooManySatellites[0] = 0x74;
    tooManySatellites[1] = 64;
    tooManySatellites[3] = 27;
    tooManySatellites[nvbtool::kRec27CountOffset] = 117;
    // Ten satellites, five on two frequencies: 258 bytes on the wire, a compact form of 257.
    const Bytes long17 = record17(10, 5);
    // 13 + 29 x 18 = 535 bytes on the wire.
    const Bytes longest17 = record17(18, 18);
    auto hugeClockTerm = nvbtest::newEpoch(345600000);
    hugeClockTerm->epochFlags = 0x20;
    hugeClockTerm->clock = ClockSystemBlock{12, 0, 1, {0}, {1e300}};
    nvbtest::addSignal(nvbtest::addSatellite(*hugeClockTerm, 5, 0), 0, 0, 2.1e7, 0.0);
    const Case cases[] = {
        {"no such record", shortDat(6, 0, Bytes(10, 1)), 1, 0, false, false},
        {"a type beyond the catalogue", shortDat(103, 0, Bytes(10, 1)), 1, 0, false, false},
        {"an epoch of zeros", padded(Bytes{0x74, 0xFF, 0xFF, 27, 21, 0x29, 0x09, 0x01, 0x02}, 65535), 1, 0, true,
         false},
        {"shorter than its own header", Bytes{0x74, 3, 0, 14}, 1, 0, false, false},
        {"cut off inside an epoch", padded(Bytes{0x74, 40, 0, 27, 21, 0x29, 0x09}, 40), 1, 0, true, false},
        {"117 satellites", tooManySatellites, 1, 0, false, false},
        {"a clock term beyond seven bytes", nvbtest::datOf(*hugeClockTerm), 7, 15, false, false},
        {"a record 17 longer than its length byte can tell", longest17, 0, 15, false, false},
        {"the same in stored blocks", longest17, 1, 15, false, false},
        {"the same in zstd blocks", longest17, 7, 15, false, false},
        {"a long record 17 the bare methods can't length-code", long17, 7, 3, true, false},
        {"the same record in the framed methods", long17, 1, 0, true, true},
    };
    const Bytes good = shortDat(14, 0, Bytes(30, 0x14));
    for (const Case& c : cases) {
        Encoder encoder(c.method);
        encoder.put(good);
        std::uint8_t status = 0xEE;
        EXPECT_EQ(encoder.put(c.dat, &status), 0u) << c.what;
        EXPECT_EQ(status, c.status) << c.what;
        encoder.put(good);
        EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), c.counted ? 3u : 2u) << c.what;
        const auto read = readLog(encoder.finish());
        ASSERT_EQ(read.size(), c.readBack ? 3u : 2u) << c.what;
        EXPECT_EQ(read.front(), good) << c.what;
        EXPECT_EQ(read.back(), good) << c.what;
        if (c.readBack) {
            EXPECT_EQ(read[1][3], 17) << c.what;
        }
    }
}

TEST(Encode, NoWriteCallbackIsStatusSixteen) {
    Encoder encoder(7);
    encoder->writeCallback = nullptr;
    std::uint8_t status = 0;
    EXPECT_EQ(encoder.put(shortDat(14, 0, Bytes(10, 1)), &status), 0u);
    EXPECT_EQ(status, 16);
    EXPECT_EQ(nvbtest::copyOf(encoder->recordCount), 0u);
}

}  // namespace
