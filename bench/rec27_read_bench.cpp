// Reading plain record 27 epochs through the exported reader: 40 satellites with three
// signals each, two epochs a second apart read in turn, so that every read also rebuilds
// Doppler from the phase step.
#include <nvbdll/nvbdll.h>

#include "support/wire.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

namespace {

using namespace nvbtest;

Epoch27 fortySatellites(std::uint32_t timeMs, double phaseStep) {
    Epoch27 epoch;
    epoch.week = 2345;
    epoch.timeMs = timeMs;
    epoch.clockMs = 0.125;
    epoch.clockDrift = 0.01;
    for (int i = 0; i < 40; ++i) {
        Satellite27 sv{static_cast<std::uint8_t>(1 + i % 32),
                     static_cast<std::uint8_t>(i / 10),
                     0,
                     static_cast<std::uint8_t>(i),
                     static_cast<std::int8_t>(10 + i),
                     static_cast<std::uint16_t>(8 * i),
                     0x10,
                     {}};
        const double range = 2.0e7 + 1.0e5 * i;
        const double phase = 1.0e8 + 1.0e6 * i + phaseStep * (i + 1);
        sv.signals.push_back({0, 0, 450, range, phase, 0, 0x03, -1000.0 + i});
        sv.signals.push_back({1, 2, 400, range + 3.5, phase * 0.78, 0, 0x03, std::nullopt});
        sv.signals.push_back({2, 3, 420, range - 1.25, phase * 0.75, 0, 0x03, std::nullopt});
        epoch.satellites.push_back(sv);
    }
    return epoch;
}

std::unique_ptr<nvb_frame_t> frameOf(const Bytes& bytes) {
    auto frame = std::make_unique<nvb_frame_t>();
    std::memcpy(frame->data, bytes.data(), bytes.size());
    frame->length = static_cast<std::uint16_t>(bytes.size());
    return frame;
}

void ReadPlainRec27Epoch(benchmark::State& state) {
    nvb_expand_t* expand = nvbdll_GetNVBStateHandle();
    const Bytes first = build(fortySatellites(302400000, 0.0));
    const Bytes second = build(fortySatellites(302401000, 250.0));
    auto frames = std::make_unique<std::unique_ptr<nvb_frame_t>[]>(2);
    frames[0] = frameOf(first);
    frames[1] = frameOf(second);
    auto* previous = reinterpret_cast<std::uint8_t*>(expand->previousEpochs);

    std::size_t next = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        auto* frame = reinterpret_cast<std::uint8_t*>(frames[next].get());
        const std::uint16_t length = nvbdll_readRec27Buffer(frame, expand, previous, 27, 3, 1, 1, 0);
        if (length == 0) {
            state.SkipWithError("the epoch was not read");
            break;
        }
        benchmark::DoNotOptimize(length);
        bytes += frames[next]->length;
        next ^= 1u;
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    state.counters["frame bytes"] = static_cast<double>(first.size());
    nvbdll_FreeNVBStateHandle(expand);
}

BENCHMARK(ReadPlainRec27Epoch);

}  // namespace
