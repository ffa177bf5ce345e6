#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <array>
#include <thread>
#include <vector>

namespace {

using nvbtest::Bytes;

// The Huffman byte stream, Huffman blocks, bzip2 over bare records and zstd: the two
// Huffman paths and two block libraries, framed and bare.
constexpr std::array<std::uint8_t, 4> kMethods = {0, 2, 5, 7};

struct Outcome {
    Bytes log;
    std::vector<Bytes> read;
};

// One writer and one reader, each with a state of its own.
Outcome writeAndRead(std::uint8_t method) {
    // Records 27 and 29 in every epoch, 11 and 17 every tenth: all four compact families.
    static const std::vector<Bytes> datLog =
        nvbtest::mixedDatLog(nvbtest::LogShape{.epochs = 200, .opaqueRecords = false});
    Outcome run;
    nvbtest::Encoder encoder(method);
    for (const Bytes& dat : datLog) encoder.put(dat);
    run.log = encoder.finish();
    run.read = nvbtest::readLog(run.log);
    return run;
}

TEST(Threads, FourWritersAndFourReadersSideBySideGiveWhatASequentialRunGives) {
    nvbtest::initLibrary();
    std::array<Outcome, kMethods.size()> sequential;
    for (std::size_t i = 0; i < kMethods.size(); ++i) sequential[i] = writeAndRead(kMethods[i]);
    ASSERT_GT(sequential[0].read.size(), 250u);

    constexpr int kRounds = 4;
    std::array<std::array<Outcome, kRounds>, kMethods.size()> parallel;
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < kMethods.size(); ++i) {
        threads.emplace_back([i, &parallel] {
            for (Outcome& run : parallel[i]) run = writeAndRead(kMethods[i]);
        });
    }
    for (std::thread& thread : threads) thread.join();

    for (std::size_t i = 0; i < kMethods.size(); ++i) {
        for (const Outcome& run : parallel[i]) {
            EXPECT_EQ(run.log, sequential[i].log) << "method " << int(kMethods[i]);
            EXPECT_EQ(run.read, sequential[i].read) << "method " << int(kMethods[i]);
        }
    }
}

}  // namespace
