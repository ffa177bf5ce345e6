// Compact positions (54/55), solutions (56/57), measurement records 17 (68/69, 76/77),
// navigation data blocks (84 to 86) and sensor lists (41):
// records per second of each compressor and expander over a realistic sequence, and the
// bytes per record of the compact stream against the plain records.

#include "external/su/compact_compressors.h"
#include "external/su/list_codec.h"
#include "external/su/subframe_cache.h"
#include "support/sequences.h"
#include "support/subframe_list_sequences.h"

#include <nvbdll/nvbdll.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

namespace {

using nvbtest::Bytes;

enum class Family { Position, Solution, Measurement, Subframe, List };

constexpr std::size_t kRecords = 2000;

std::vector<Bytes> plainRecords(Family family) {
    nvbtest::SequenceShape shape;
    shape.count = kRecords;
    switch (family) {
    case Family::Position: return nvbtest::buildAll(nvbtest::positionSequence(shape));
    case Family::Solution: return nvbtest::buildAll(nvbtest::solutionSequence(shape));
    case Family::Subframe: return nvbtest::buildAll(nvbtest::subframeSequence({.count = kRecords}));
    case Family::List: return nvbtest::buildAll(nvbtest::listSequence({.count = kRecords}));
    default: return nvbtest::buildAll(nvbtest::measurementSequence(shape));
    }
}

std::unique_ptr<nvb_encode_t> newEncoder() {
    auto state = std::make_unique<nvb_encode_t>();
    state->lastPositionReferenceTime = 0xFFFFFFFF;
    state->lastSolutionReferenceTime = 0xFFFFFFFF;
    state->lastObsReferenceTime = 0xFFFFFFFF;
    state->lastSubframeReferenceTime = 0xFFFFFFFF;
    return state;
}

std::uint16_t compress(Family family, nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out) {
    switch (family) {
    case Family::Position: return nvb::compressRec11Frame(state, plain, out);
    case Family::Solution: return nvb::compressRec29Frame(state, plain, out);
    case Family::Subframe: return nvb::compressRec25Frame(state, plain, out);
    case Family::List: return nvb::compressRec40Frame(state, plain, out);
    default: return nvb::compressRec17Frame(state, plain, out);
    }
}

std::vector<nvb_frame_t> framesOf(const std::vector<Bytes>& records) {
    std::vector<nvb_frame_t> frames(records.size());
    for (std::size_t i = 0; i < records.size(); ++i) {
        std::memcpy(frames[i].data, records[i].data(), records[i].size());
        frames[i].length = static_cast<std::uint16_t>(records[i].size());
    }
    return frames;
}

std::vector<nvb_frame_t> compactFrames(Family family, const std::vector<nvb_frame_t>& plains) {
    auto state = newEncoder();
    std::vector<nvb_frame_t> compacts(plains.size());
    for (std::size_t i = 0; i < plains.size(); ++i) compress(family, *state, plains[i], compacts[i]);
    return compacts;
}

void setSizeCounters(benchmark::State& state, const std::vector<nvb_frame_t>& plains,
                     const std::vector<nvb_frame_t>& compacts) {
    double plainBytes = 0;
    double compactBytes = 0;
    for (std::size_t i = 0; i < plains.size(); ++i) {
        plainBytes += plains[i].length;
        compactBytes += compacts[i].length;
    }
    state.counters["plain_bytes_per_record"] = plainBytes / plains.size();
    state.counters["compact_bytes_per_record"] = compactBytes / plains.size();
    state.counters["compact_share"] = compactBytes / plainBytes;
    state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * plains.size()));
    state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * plainBytes));
}

void compressRecords(benchmark::State& state, Family family) {
    const std::vector<nvb_frame_t> plains = framesOf(plainRecords(family));
    auto out = std::make_unique<nvb_frame_t>();
    auto encoder = newEncoder();
    for (auto _ : state) {
        for (const nvb_frame_t& plain : plains) benchmark::DoNotOptimize(compress(family, *encoder, plain, *out));
    }
    setSizeCounters(state, plains, compactFrames(family, plains));
}

void expandRecords(benchmark::State& state, Family family) {
    const std::vector<nvb_frame_t> plains = framesOf(plainRecords(family));
    const std::vector<nvb_frame_t> compacts = compactFrames(family, plains);
    auto reader = std::make_unique<nvb_expand_t>();
    std::uint8_t status = 0;
    for (auto _ : state) {
        for (const nvb_frame_t& compact : compacts) {
            std::memcpy(reader->frame.data, compact.data, compact.length);
            reader->frame.length = compact.length;
            switch (compact.data[2]) {
            case 54: nvbdll_processType54(reader.get(), &status, 1); break;
            case 55: nvbdll_processType55(reader.get(), &status, 1); break;
            case 56: nvbdll_processType56(reader.get(), &status); break;
            case 57: nvbdll_processType57(reader.get(), &status); break;
            case 68: case 76: nvbdll_processType68_76(reader.get(), &status, 1); break;
            case 41: nvbdll_processType41(reader.get(), &status); break;
            case 84: case 85: case 86: nvbdll_processType84(reader.get(), &status); break;
            case 25: case 40: break; // what the codec sends plain
            default: nvbdll_processType69_77(reader.get(), &status, 1); break;
            }
            if (status != 0) state.SkipWithError("expansion failed");
        }
    }
    setSizeCounters(state, plains, compacts);
}

void BM_CompressPositions(benchmark::State& state) { compressRecords(state, Family::Position); }
void BM_ExpandPositions(benchmark::State& state) { expandRecords(state, Family::Position); }
void BM_CompressSolutions(benchmark::State& state) { compressRecords(state, Family::Solution); }
void BM_ExpandSolutions(benchmark::State& state) { expandRecords(state, Family::Solution); }
void BM_CompressRecords17(benchmark::State& state) { compressRecords(state, Family::Measurement); }
void BM_ExpandRecords17(benchmark::State& state) { expandRecords(state, Family::Measurement); }

void BM_CompressSubframes(benchmark::State& state) { compressRecords(state, Family::Subframe); }
void BM_ExpandSubframes(benchmark::State& state) { expandRecords(state, Family::Subframe); }
void BM_CompressLists(benchmark::State& state) { compressRecords(state, Family::List); }
void BM_ExpandLists(benchmark::State& state) { expandRecords(state, Family::List); }

BENCHMARK(BM_CompressPositions)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpandPositions)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompressSolutions)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpandSolutions)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompressRecords17)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpandRecords17)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompressSubframes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpandSubframes)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CompressLists)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ExpandLists)->Unit(benchmark::kMillisecond);

}  // namespace
