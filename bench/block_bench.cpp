// Writing and reading speed of each compression method, and what each makes of one fixed
// corpus of frames. MB/s counts the frame bytes going in (writing) or coming out (reading).
#include "support/blocks.h"

#include <benchmark/benchmark.h>

namespace {

using namespace nvbtest::blocks;

// 3000 frames of mixed types and lengths, about 1.9 MB.
const std::vector<Bytes>& corpus() {
    static const std::vector<Bytes> frames = mixedFrames(3000, 2024);
    return frames;
}

std::size_t corpusBytes() {
    static const std::size_t bytes = concatAll(corpus()).size();
    return bytes;
}

Bytes writtenStream(int method) {
    EncodeHarness writer(static_cast<std::uint8_t>(method));
    writer.writeAll(corpus());
    return writer.stream();
}

void BM_BlockWrite(benchmark::State& state) {
    const int method = static_cast<int>(state.range(0));
    std::size_t written = 0;
    for (auto _ : state) {
        EncodeHarness writer(static_cast<std::uint8_t>(method));
        writer.writeAll(corpus());
        written = writer.stream().size();
        benchmark::DoNotOptimize(written);
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpusBytes()));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * corpus().size()));
    state.counters["corpus_bytes"] = static_cast<double>(corpusBytes());
    state.counters["compressed_bytes"] = static_cast<double>(written);
    state.counters["ratio"] = static_cast<double>(written) / static_cast<double>(corpusBytes());
}

// The host's loop of the by-byte getter, following `more`; counts the records delivered.
std::size_t countRecords(nvb_expand_t* expand, const Bytes& stream) {
    std::size_t records = 0;
    for (const std::uint8_t byte : stream) {
        std::uint8_t status = 0;
        std::uint8_t more = 0;
        std::int32_t result = nvbdll_getNVBRecordByByte(expand, byte, &status, 1, &more);
        records += result > 0 && status == 0 ? 1 : 0;
        while (more == 1) {
            result = nvbdll_getNVBRecordByByte(expand, 0, &status, 0, &more);
            records += result > 0 && status == 0 ? 1 : 0;
        }
    }
    return records;
}

void BM_BlockRead(benchmark::State& state) {
    const int method = static_cast<int>(state.range(0));
    const Bytes stream = writtenStream(method);
    std::size_t records = 0;
    for (auto _ : state) {
        nvb_expand_t* expand = nvbdll_GetNVBStateHandle();
        records = countRecords(expand, stream);
        nvbdll_FreeNVBStateHandle(expand);
        benchmark::DoNotOptimize(records);
    }
    if (records != corpus().size()) state.SkipWithError("the stream did not read back whole");
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * corpusBytes()));
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * corpus().size()));
    state.counters["compressed_bytes"] = static_cast<double>(stream.size());
}

BENCHMARK(BM_BlockWrite)->DenseRange(0, 7)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_BlockRead)->DenseRange(0, 7)->Unit(benchmark::kMillisecond);

}  // namespace
