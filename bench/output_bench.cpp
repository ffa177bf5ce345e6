// Observation output: epochs per second written as RINEX text, Compact RINEX and BINEX
// from the expanders' images, for a 40-satellite, 3-signal epoch; the writer is drained
// after every epoch, as the tool does.
#include "external/su/epoch_image.h"
#include "output/observation_output.h"
#include "support/sequences.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

namespace {

struct Images {
    std::vector<nvbtest::Bytes> frames;
    std::vector<epoch_image_t> images;
};

const Images& log() {
    static const Images images = [] {
        nvbtest::EpochSequenceOptions options;
        options.epochs = 600;
        options.satellites = 40;
        options.maxSignals = 3;
        options.riseAndSet = false;
        Images made;
        made.frames = nvbtest::makeEpochSequence(options);
        made.images.resize(made.frames.size());
        for (std::size_t i = 0; i < made.frames.size(); ++i) nvbtest::readPlainEpoch(made.frames[i], made.images[i]);
        return made;
    }();
    return images;
}

void writeEpochs(benchmark::State& bench, std::uint8_t mode, std::uint16_t version) {
    const Images& input = log();
    std::vector<std::uint8_t> buffer(1 << 20);
    rinex_writer_t writer{buffer.data(), static_cast<std::uint32_t>(buffer.size()), 0, 0};
    auto control = std::make_unique<rinex_control_t>();
    nvb::ObservationOutput output(*control, mode, version, writer);
    auto work = std::make_unique<epoch_rinex_t>();
    std::vector<nvbtest::Bytes> frames = input.frames;
    std::size_t next = 0;
    std::uint64_t bytes = 0;
    for (auto _ : bench) {
        const std::size_t i = next++ % frames.size();
        const auto length = static_cast<std::uint16_t>(frames[i].size());
        benchmark::DoNotOptimize(nvb::finishEpochOutput(input.images[i], frames[i].data(), length, *control, *work));
        bytes += writer.length;
        writer.length = 0;
    }
    bench.SetItemsProcessed(bench.iterations());
    bench.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    bench.counters["bytes/epoch"] = static_cast<double>(bytes) / static_cast<double>(bench.iterations());
}

void BM_RinexOutput(benchmark::State& bench) { writeEpochs(bench, nvb::kOutputRinex, static_cast<std::uint16_t>(bench.range(0))); }
void BM_CompactRinexOutput(benchmark::State& bench) {
    writeEpochs(bench, nvb::kOutputCompactRinex, static_cast<std::uint16_t>(bench.range(0)));
}
void BM_BinexOutput(benchmark::State& bench) { writeEpochs(bench, nvb::kOutputBinex, 303); }

}  // namespace

BENCHMARK(BM_RinexOutput)->Arg(211)->Arg(303);
BENCHMARK(BM_CompactRinexOutput)->Arg(211)->Arg(303);
BENCHMARK(BM_BinexOutput);
