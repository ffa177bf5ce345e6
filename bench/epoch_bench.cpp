// Measurement epochs: compression and expansion in epochs per second for a 40-satellite,
// 3-signal epoch logged at 20 Hz, and the bytes an epoch takes in each form.
#include <nvbdll/nvbdll.h>

#include "external/su/epoch_compressor.h"
#include "external/su/epoch_image.h"
#include "external/su/predicted_epoch.h"
#include "support/host.h"
#include "support/sequences.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>

namespace {

using nvbtest::Bytes;

// Forty satellites of three signals at 20 Hz for a minute, with slips, steering jumps and
// doppler gaps, as a writer that keeps doppler makes it.
const std::vector<Bytes>& keepDopplerLog() {
    static const std::vector<Bytes> frames = [] {
        nvbtest::EpochSequenceOptions options;
        options.epochs = 1200;
        options.intervalMs = 50;
        options.satellites = 40;
        options.maxSignals = 3;
        options.riseAndSet = false;
        return nvbtest::makeEpochSequence(options);
    }();
    return frames;
}

// The same log as a default writer (format level 0, no doppler) makes it.
const std::vector<Bytes>& defaultWriterLog() {
    static const std::vector<Bytes> frames = [] {
        std::vector<Bytes> out;
        auto image = std::make_unique<epoch_image_t>();
        for (const Bytes& frame : keepDopplerLog()) {
            nvbtest::readPlainEpoch(frame, *image);
            for (std::size_t sat = 0; sat < image->nSv; ++sat) {
                epoch_sat_row_t& row = image->sats[sat];
                row.svFlags &= 0x7F;
                row.svFlags2 = 0;
                std::memset(row.svSlipCounts, 0, 3);
                for (epoch_sig_row_t& signal : row.signals) {
                    if ((signal.measFlags2 & nvb::kRangeThreeBytes) != 0) std::memmove(signal.range, signal.range + 1, 2);
                    signal.range[2] = 0;
                    signal.measFlags1 &= static_cast<std::uint8_t>(~(0x80 | nvb::kMeasHasDoppler));
                    signal.measFlags2 = 0;
                    signal.measFlags3 = 0;
                    std::memset(signal.doppler, 0, 3);
                }
            }
            nvbtest::settleEpochLengths(*image);
            out.push_back(nvbtest::writePlainEpoch(*image));
        }
        return out;
    }();
    return frames;
}

struct Form {
    const char* name;
    const std::vector<Bytes>& (*log)();
    std::uint8_t keepDoppler, usePredicted, forceLong, forceReference;
};

const Form kForms[] = {
    {"38", keepDopplerLog, 1, 0, 0, 1},
    {"37", defaultWriterLog, 0, 0, 0, 0},
    {"36", keepDopplerLog, 1, 0, 0, 0},
    {"39", keepDopplerLog, 1, 1, 0, 0},
};

std::vector<Bytes> compressAll(const Form& form) {
    nvbtest::CompactLink link = nvbtest::epochLink();
    std::vector<Bytes> out;
    for (const Bytes& frame : form.log()) {
        link.encoder().epochKeepDoppler = form.keepDoppler;
        link.encoder().epochUsePredicted = form.usePredicted;
        link.encoder().epochForceLong = form.forceLong;
        link.encoder().epochForceReference = form.forceReference;
        out.push_back(link.compress(frame));
    }
    return out;
}

void BM_EpochCompress(benchmark::State& state) {
    const Form& form = kForms[state.range(0)];
    const auto& frames = form.log();
    nvbtest::CompactLink link = nvbtest::epochLink();
    link.encoder().epochKeepDoppler = form.keepDoppler;
    link.encoder().epochUsePredicted = form.usePredicted;
    auto plain = std::make_unique<nvb_frame_t>();
    auto compact = std::make_unique<nvb_frame_t>();
    std::size_t next = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        const Bytes& frame = frames[next];
        bytes += frame.size();
        std::memcpy(plain->data, frame.data(), frame.size());
        plain->length = static_cast<std::uint16_t>(frame.size());
        link.encoder().epochForceReference = form.forceReference;
        benchmark::DoNotOptimize(nvb::compressEpochFrame(link.encoder(), *plain, *compact));
        next = (next + 1) % frames.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    state.SetLabel(std::string("to form ") + form.name);
}

void BM_EpochExpand(benchmark::State& state) {
    const Form& form = kForms[state.range(0)];
    const std::vector<Bytes> records = compressAll(form);
    nvbtest::CompactLink link = nvbtest::epochLink();
    nvb_expand_t* expander = &link.expander();
    std::size_t next = 0;
    std::uint8_t status = 0;
    std::uint64_t bytes = 0;
    for (auto _ : state) {
        const Bytes& record = records[next];
        bytes += record.size();
        std::memcpy(expander->frame.data, record.data(), record.size());
        expander->frame.length = static_cast<std::uint16_t>(record.size());
        switch (record[2]) {
        case 38: nvbdll_processType38(expander, &status); break;
        case 39: nvb::processType39(*expander, status); break;
        default: nvbdll_processType37(expander, &status, 1, record[2] == 36); break;
        }
        if (status != 0) state.SkipWithError("expansion failed");
        next = (next + 1) % records.size();
    }
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(static_cast<std::int64_t>(bytes));
    state.SetLabel(std::string("from form ") + form.name);
}

// Bytes an epoch takes in each form, over the whole log. Under 39 the epochs on the whole
// 100 ms (and those it declines) go as 36; 39_alone is the predicted records by themselves.
void BM_EpochBytes(benchmark::State& state) {
    for (auto _ : state) {
        double plainKeep = 0, plainDefault = 0;
        for (const Bytes& frame : keepDopplerLog()) plainKeep += static_cast<double>(frame.size());
        for (const Bytes& frame : defaultWriterLog()) plainDefault += static_cast<double>(frame.size());
        const double epochs = static_cast<double>(keepDopplerLog().size());
        state.counters["27_keepDoppler"] = plainKeep / epochs;
        state.counters["27_default"] = plainDefault / epochs;
        for (const Form& form : kForms) {
            double bytes = 0, predictedBytes = 0, predicted = 0;
            for (const Bytes& record : compressAll(form)) {
                bytes += static_cast<double>(record.size());
                if (record[2] == 39) {
                    predictedBytes += static_cast<double>(record.size());
                    ++predicted;
                }
            }
            state.counters[form.name] = bytes / epochs;
            if (predicted > 0) state.counters["39_alone"] = predictedBytes / predicted;
        }
        // Every form compresses the whole log once.
        state.SetItemsProcessed(static_cast<std::int64_t>(epochs * std::size(kForms)));
        state.SetBytesProcessed(static_cast<std::int64_t>(plainKeep * std::size(kForms)));
    }
}

BENCHMARK(BM_EpochCompress)->DenseRange(0, 3);
BENCHMARK(BM_EpochExpand)->DenseRange(0, 3);
BENCHMARK(BM_EpochBytes)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
