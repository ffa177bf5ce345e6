// Record 35 subtypes through their codec family: records per second of encoding (scale,
// predict, fill the Avro value, write) and decoding (read, undo the prediction, scale
// back) for a small subtype (one barometer reading) and a large one (a measurement epoch
// of 8 satellites with 8 signals each), and the allocations per record in the steady
// state, the family's own and Avro's.

#include "external/io/io_buffer.h"
#include "rec35/rec35_codecs.h"
#include "support/rec35_natives.h"

#include <avro/allocation.h>
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <memory>
#include <vector>

namespace {

constexpr std::uint32_t kRecords = 500;

std::int64_t familyAllocations = 0;
std::int64_t avroAllocations = 0;

void* countingReallocate(void* block, std::size_t size) {
    ++familyAllocations;
    return std::realloc(block, size);
}

void* countingAvroAllocate(void*, void* block, std::size_t, std::size_t size) {
    if (size == 0) {
        std::free(block);
        return nullptr;
    }
    ++avroAllocations;
    return std::realloc(block, size);
}

// Counts the allocations of one timed loop; the counters are read per record.
class AllocationCount {
public:
    AllocationCount() : saved_(AVRO_CURRENT_ALLOCATOR) {
        familyAllocations = avroAllocations = 0;
        nvb::setIoReallocate(countingReallocate);
        avro_set_allocator(countingAvroAllocate, nullptr);
    }
    ~AllocationCount() {
        nvb::setIoReallocate(nullptr);
        avro_set_allocator(saved_.alloc, saved_.user_data);
    }
    AllocationCount(const AllocationCount&) = delete;
    AllocationCount& operator=(const AllocationCount&) = delete;

    // `payloadBytes`: the encoded bytes of one pass over the records.
    static void report(benchmark::State& state, double payloadBytes) {
        const auto records = static_cast<double>(state.iterations() * kRecords);
        state.counters["family_allocations_per_record"] = static_cast<double>(familyAllocations) / records;
        state.counters["avro_allocations_per_record"] = static_cast<double>(avroAllocations) / records;
        state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kRecords));
        state.SetBytesProcessed(static_cast<std::int64_t>(static_cast<double>(state.iterations()) * payloadBytes));
    }

private:
    avro_allocator_state saved_;
};

const nvb::Rec35Codec& codecOf(std::uint32_t subtype) {
    return *nvb::rec35CodecAt(nvb::rec35SlotOf(subtype).value());
}

// A smooth run of native records of the subtype, every array `capacity` long.
std::vector<std::unique_ptr<nvbtest::Rec35Native>> sequence(const nvb::Rec35Codec& codec, std::int64_t capacity) {
    std::mt19937_64 random(1);
    std::vector<std::unique_ptr<nvbtest::Rec35Native>> out;
    for (std::uint32_t i = 0; i < kRecords; ++i) {
        out.push_back(std::make_unique<nvbtest::Rec35Native>(codec, capacity));
        nvbtest::fillRec35(codec, out.back()->get(), nvbtest::Rec35Values::Smooth, random, i);
    }
    return out;
}

// One encoder of a subtype with its slot and payload buffer, as the writer holds them.
struct Encoder {
    const nvb::Rec35Codec& codec;
    rec35_slot_t* slot = nullptr;
    io_buffer_t out{0, 0, nullptr};
    io_buffer_t schema{0, 0, nullptr};

    explicit Encoder(const nvb::Rec35Codec& c) : codec(c) {
        std::uint8_t status = 0;
        nvb::registerRec35Schema(codec, 1, slot, false, false, {}, schema, status);
        slot->schema_written = 1;
    }
    ~Encoder() {
        nvb::freeRec35Slot(slot, codec);
        nvb::freeIoBuffer(out);
        nvb::freeIoBuffer(schema);
    }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    std::uint64_t encode(void* native, std::uint8_t& status) {
        std::uint64_t subsubtype = 0;
        out.used = 0;
        nvb::encodeRec35Subtype(codec, native, subsubtype, *slot, out, status);
        return subsubtype;
    }
};

struct Payload {
    std::vector<std::uint8_t> bytes;
    std::uint64_t subsubtype;
};

void encodeRecords(benchmark::State& state, std::uint32_t subtype, std::int64_t capacity) {
    const nvb::Rec35Codec& codec = codecOf(subtype);
    const auto natives = sequence(codec, capacity);
    Encoder encoder(codec);
    std::uint8_t status = 0;
    double bytes = 0;
    for (const auto& native : natives) {
        encoder.encode(native->get(), status);
        bytes += encoder.out.used;
    }
    AllocationCount count;
    for (auto _ : state) {
        for (const auto& native : natives) benchmark::DoNotOptimize(encoder.encode(native->get(), status));
        if (status != 0) state.SkipWithError("encoding failed");
    }
    AllocationCount::report(state, bytes);
    state.counters["bytes_per_record"] = bytes / kRecords;
}

void decodeRecords(benchmark::State& state, std::uint32_t subtype, std::int64_t capacity) {
    const nvb::Rec35Codec& codec = codecOf(subtype);
    const auto natives = sequence(codec, capacity);
    std::vector<Payload> payloads;
    std::uint8_t status = 0;
    io_buffer_t schema{0, 0, nullptr};
    {
        Encoder encoder(codec);
        nvb::copyIoBuffer(schema, encoder.schema, status);
        for (const auto& native : natives) {
            const std::uint64_t subsubtype = encoder.encode(native->get(), status);
            payloads.push_back({{encoder.out.data, encoder.out.data + encoder.out.used}, subsubtype});
        }
    }
    rec35_slot_t* slot = nullptr;
    void* native = nullptr;
    io_buffer_t schemaCopy{0, 0, nullptr};
    nvb::decodeRec35Subtype(codec, schema, 0, slot, native, schemaCopy, status);
    io_buffer_t payload{0, 0, nullptr};
    auto decode = [&](const Payload& p) {
        payload.data = const_cast<std::uint8_t*>(p.bytes.data());
        payload.capacity = payload.used = static_cast<std::uint32_t>(p.bytes.size());
        nvb::decodeRec35Subtype(codec, payload, p.subsubtype, slot, native, schemaCopy, status);
    };
    for (const Payload& p : payloads) decode(p);
    double bytes = 0;
    for (const Payload& p : payloads) bytes += static_cast<double>(p.bytes.size());
    {
        AllocationCount count;
        for (auto _ : state) {
            // Each pass starts again from the reference record, as after a chain reset.
            slot->need_reference_in = 1;
            for (const Payload& p : payloads) decode(p);
            if (status != 0) state.SkipWithError("decoding failed");
        }
        AllocationCount::report(state, bytes);
    }
    codec.freeNative(native);
    nvb::freeRec35Slot(slot, codec);
    nvb::freeIoBuffer(schema);
    nvb::freeIoBuffer(schemaCopy);
}

void BM_Rec35EncodeBarometer(benchmark::State& state) {
    encodeRecords(state, 8, 1);
}
void BM_Rec35DecodeBarometer(benchmark::State& state) {
    decodeRecords(state, 8, 1);
}
void BM_Rec35EncodeMeasurementEpoch(benchmark::State& state) {
    encodeRecords(state, 9, 8);
}
void BM_Rec35DecodeMeasurementEpoch(benchmark::State& state) {
    decodeRecords(state, 9, 8);
}

BENCHMARK(BM_Rec35EncodeBarometer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rec35DecodeBarometer)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rec35EncodeMeasurementEpoch)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Rec35DecodeMeasurementEpoch)->Unit(benchmark::kMillisecond);

}  // namespace
