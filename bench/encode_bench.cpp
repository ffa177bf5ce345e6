// Writing whole logs: encode throughput per compression method (epochs and DAT bytes per
// second) and the bytes an epoch takes in the written log, on a sequence of
// 40-satellite, 3-signal epochs with a position behind each; and reading them back.
#include "support/host.h"
#include "support/sequences.h"

#include <benchmark/benchmark.h>

namespace {

using nvbtest::Bytes;

const std::vector<Bytes>& epochSequence() {
    static const std::vector<Bytes> dats = nvbtest::mixedDatLog(nvbtest::LogShape{
        .epochs = 600, .satellites = 14, .signals = 3, .olderRecords = false, .opaqueRecords = false});
    return dats;
}

std::size_t datBytes() {
    std::size_t total = 0;
    for (const Bytes& dat : epochSequence()) total += dat.size();
    return total;
}

Bytes writeLog(std::uint8_t method) {
    nvbtest::Encoder encoder(method);
    for (const Bytes& dat : epochSequence()) encoder.put(dat);
    return encoder.finish();
}

void BM_EncodeLog(benchmark::State& state) {
    const auto method = static_cast<std::uint8_t>(state.range(0));
    std::size_t written = 0;
    for (auto _ : state) {
        written = writeLog(method).size();
        benchmark::DoNotOptimize(written);
    }
    const double epochs = 600.0;
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 600));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * datBytes()));
    state.counters["bytes/epoch"] = static_cast<double>(written) / epochs;
}

void BM_ReadLog(benchmark::State& state) {
    const Bytes log = writeLog(static_cast<std::uint8_t>(state.range(0)));
    for (auto _ : state) {
        nvbtest::Handle handle;
        benchmark::DoNotOptimize(nvbtest::readStream(handle.get(), log, nvbtest::Getter::NvbFile).size());
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * 600));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * log.size()));
}

BENCHMARK(BM_EncodeLog)->DenseRange(0, 7)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReadLog)->DenseRange(0, 7)->Unit(benchmark::kMillisecond);

}  // namespace
