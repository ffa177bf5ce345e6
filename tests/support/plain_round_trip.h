#ifndef NVB_TESTS_PLAIN_ROUND_TRIP_H
#define NVB_TESTS_PLAIN_ROUND_TRIP_H

#include "support/host.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace nvbtest {

struct NamedFrame {
    std::string name;
    Bytes frame;
};

// The property every plain record family shares: a frame read, and its DAT form written
// again, gives the same frame byte for byte and reads back to the same DAT form; and the
// DAT forms of all of them come back the same from a log in every method. Returns what
// each frame read as.
inline std::vector<ReadEvent> expectPlainRoundTrips(const std::vector<NamedFrame>& frames) {
    Handle handle;
    std::vector<ReadEvent> reads;
    std::vector<Bytes> dats;
    for (const NamedFrame& f : frames) {
        const ReadEvent read = processFrame(handle.get(), f.frame);
        EXPECT_TRUE(read.delivered()) << f.name;
        const Bytes written = writtenFrame(read.dat);
        EXPECT_EQ(written, f.frame) << f.name;
        EXPECT_EQ(processFrame(handle.get(), written).dat, read.dat) << f.name;
        reads.push_back(read);
        dats.push_back(read.dat);
    }
    for (std::uint8_t method = 0; method < 8; ++method) EXPECT_EQ(writtenAndRead(dats, method), dats) << int(method);
    return reads;
}

// The status of a DAT form the writer refuses, of which it writes nothing.
inline std::uint8_t refusal(const Bytes& dat) {
    std::uint8_t status = 0;
    EXPECT_EQ(writtenFrame(dat, &status), Bytes());
    return status;
}

}  // namespace nvbtest

#endif
