#include "rec35/rec35_sub24.h"

#include <nvbdll/status.h>

#include "rec35/avro_layer.h"
#include "rec35/rec35_family.h"

#include <cstdint>

namespace nvb {

namespace {

// The library's schema of subtype 24, with CRLF line ends as the receiver writes them.
constexpr char kSchema[] =
    "{\r\n"
    "  \"type\": \"record\",\r\n"
    "  \"name\": \"rec35_sub24\",\r\n"
    "  \"namespace\": \"com.halvane.nve.avro\",\r\n"
    "  \"version\": 2,\r\n"
    "  \"description\": \"FFT Data\",\r\n"
    "  \"fields\": [\r\n"
    "    {\"name\": \"gps_msecs\", \"type\": \"long\"},\r\n"
    "    {\"name\": \"center_freq\", \"type\": \"double\"},\r\n"
    "    {\"name\": \"bin_size\", \"type\": \"float\"},\r\n"
    "    {\"name\": \"peak_freq\", \"type\": \"double\"},\r\n"
    "    {\"name\": \"peak_snr\", \"type\": \"float\"},\r\n"
    "    {\"name\": \"mean_val\", \"type\": \"long\"},\r\n"
    "    {\"name\": \"FreqData\", \"type\": {\"type\": \"array\", \"items\": \"long\"}},\r\n"
    "    {\"name\": \"antenna_num\", \"type\": \"long\"}\r\n"
    "  ]\r\n"
    "}\r\n";

struct Wire {
    std::int64_t version;
    std::int64_t gps_msecs;
    double center_freq;
    float bin_size;
    double peak_freq;
    float peak_snr;
    std::int64_t mean_val;
    rec35_array_t FreqData;  // int64_t elements
    std::int64_t antenna_num;
};

using Native = rec35_sub24_t;

Wire& wireOf(void* wire) { return *static_cast<Wire*>(wire); }
const Wire& wireOf(const void* wire) { return *static_cast<const Wire*>(wire); }
const Native& nativeOf(const void* native) { return *static_cast<const Native*>(native); }
std::int64_t* longs(rec35_array_t& array) { return static_cast<std::int64_t*>(array.elements); }
const std::int64_t* longs(const rec35_array_t& array) { return static_cast<const std::int64_t*>(array.elements); }

void alloc_wire_rec35_sub24(void*& wire, std::int64_t freqDataCapacity, std::uint8_t& status) {
    if (wire == nullptr) wire = allocateRecord(sizeof(Wire));
    if (wire == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    growArray(wireOf(wire).FreqData, freqDataCapacity, sizeof(std::int64_t), status);
}

void free_wire_rec35_sub24(void*& wire) {
    if (wire == nullptr) return;
    freeArray(wireOf(wire).FreqData);
    freeRecord(wire);
    wire = nullptr;
}

void alloc_native_rec35_sub24(void*& native, std::int64_t freqDataCapacity, std::uint8_t& status) {
    if (native == nullptr) native = allocateRecord(sizeof(Native));
    if (native == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    growArray(static_cast<Native*>(native)->FreqData, freqDataCapacity, sizeof(std::int32_t), status);
}

void free_native_rec35_sub24(void*& native) {
    if (native == nullptr) return;
    freeArray(static_cast<Native*>(native)->FreqData);
    freeRecord(native);
    native = nullptr;
}

void check_counts_rec35_sub24(const void* native, void*& wire, std::uint8_t& status) {
    const Native& in = nativeOf(native);
    if (!countFits(in.FreqData, status)) return;
    alloc_wire_rec35_sub24(wire, in.FreqData.capacity, status);
}

// Ten bytes a long, eight a double, four a float, eleven an array level and its elements.
std::int64_t estimate_size_rec35_sub24(const void* native) {
    const std::int64_t capacity = nativeOf(native).FreqData.capacity;
    return 3 * 10 + 2 * 8 + 2 * 4 + 11 + 10 * (capacity > 0 ? capacity : 0);
}

void native_to_wire_rec35_sub24(const void* native, void* wire, std::uint8_t&) {
    const Native& in = nativeOf(native);
    Wire& out = wireOf(wire);
    out.version = in.version;
    out.gps_msecs = in.gps_msecs;
    out.center_freq = in.center_freq;
    out.bin_size = in.bin_size;
    out.peak_freq = in.peak_freq;
    out.peak_snr = in.peak_snr;
    out.mean_val = in.mean_val;
    const auto* bins = static_cast<const std::int32_t*>(in.FreqData.elements);
    for (std::int64_t i = 0; i < in.FreqData.count; ++i) longs(out.FreqData)[i] = bins[i];
    out.FreqData.count = in.FreqData.count;
    out.antenna_num = in.antenna_num;
}

void to_avro_rec35_sub24(const void* wire, avro_value_t& value, std::uint8_t& status) {
    const Wire& in = wireOf(wire);
    avro_value_t field;
    avro_value_t element;
    if (!getField(value, 0, field, "gps_msecs", status) || !setLong(field, in.gps_msecs, status)) return;
    if (!getField(value, 1, field, "center_freq", status) || !setDouble(field, in.center_freq, status)) return;
    if (!getField(value, 2, field, "bin_size", status) || !setFloat(field, in.bin_size, status)) return;
    if (!getField(value, 3, field, "peak_freq", status) || !setDouble(field, in.peak_freq, status)) return;
    if (!getField(value, 4, field, "peak_snr", status) || !setFloat(field, in.peak_snr, status)) return;
    if (!getField(value, 5, field, "mean_val", status) || !setLong(field, in.mean_val, status)) return;
    if (!getField(value, 6, field, "FreqData", status)) return;
    for (std::int64_t i = 0; i < in.FreqData.count; ++i) {
        if (!appendElement(field, element, "FreqData", status) || !setLong(element, longs(in.FreqData)[i], status)) {
            return;
        }
    }
    if (!getField(value, 7, field, "antenna_num", status)) return;
    setLong(field, in.antenna_num, status);
}

void prepare_rec35_sub24(void*& wire, avro_value_t& value, std::uint8_t& status) {
    avro_value_t field;
    std::size_t bins = 0;
    if (!getField(value, 6, field, "FreqData", status) || !arraySize(field, "FreqData", bins, status)) return;
    alloc_wire_rec35_sub24(wire, static_cast<std::int64_t>(bins), status);
}

void from_avro_rec35_sub24(avro_value_t& value, void* wire, std::uint8_t& status) {
    Wire& out = wireOf(wire);
    avro_value_t field;
    avro_value_t element;
    if (!getField(value, 0, field, "gps_msecs", status) || !getLong(field, out.gps_msecs, status)) return;
    if (!getField(value, 1, field, "center_freq", status) || !getDouble(field, out.center_freq, status)) return;
    if (!getField(value, 2, field, "bin_size", status) || !getFloat(field, out.bin_size, status)) return;
    if (!getField(value, 3, field, "peak_freq", status) || !getDouble(field, out.peak_freq, status)) return;
    if (!getField(value, 4, field, "peak_snr", status) || !getFloat(field, out.peak_snr, status)) return;
    if (!getField(value, 5, field, "mean_val", status) || !getLong(field, out.mean_val, status)) return;
    std::size_t bins = 0;
    if (!getField(value, 6, field, "FreqData", status) || !arraySize(field, "FreqData", bins, status)) return;
    for (std::size_t i = 0; i < bins; ++i) {
        if (!getElement(field, i, element, status) || !getLong(element, longs(out.FreqData)[i], status)) return;
    }
    out.FreqData.count = static_cast<std::int64_t>(bins);
    if (!getField(value, 7, field, "antenna_num", status)) return;
    getLong(field, out.antenna_num, status);
}

void check_counts_in_rec35_sub24(const void* wire, void*& native, std::uint8_t& status) {
    const Wire& in = wireOf(wire);
    if (!countFits(in.FreqData, status)) return;
    alloc_native_rec35_sub24(native, in.FreqData.capacity, status);
}

void wire_to_native_rec35_sub24(const void* wire, void* native, std::uint8_t&) {
    const Wire& in = wireOf(wire);
    Native& out = *static_cast<Native*>(native);
    out.version = in.version;
    out.gps_msecs = static_cast<std::uint32_t>(in.gps_msecs);
    out.center_freq = in.center_freq;
    out.bin_size = in.bin_size;
    out.peak_freq = in.peak_freq;
    out.peak_snr = in.peak_snr;
    out.mean_val = static_cast<std::int32_t>(in.mean_val);
    auto* bins = static_cast<std::int32_t*>(out.FreqData.elements);
    for (std::int64_t i = 0; i < in.FreqData.count; ++i) bins[i] = static_cast<std::int32_t>(longs(in.FreqData)[i]);
    out.FreqData.count = in.FreqData.count;
    out.antenna_num = static_cast<std::uint32_t>(in.antenna_num);
}

void sync_history_rec35_sub24(rec35_slot_t& slot, std::uint8_t& status) {
    alloc_wire_rec35_sub24(slot.history_prev, 0, status);
    alloc_wire_rec35_sub24(slot.history_pred, 0, status);
}

// gps_msecs linear, mean_val and antenna_num hold; the bins go as they are.
void predict_rec35_sub24(rec35_slot_t& slot, bool first, bool encode) {
    Wire& record = wireOf(slot.wire);
    Wire& previous = wireOf(slot.history_prev);
    Wire& predicted = wireOf(slot.history_pred);
    const auto field = encode ? predictOutField : predictInField;
    field(record.gps_msecs, predicted.gps_msecs, previous.gps_msecs, first, static_cast<int>(Prediction::Linear));
    field(record.mean_val, predicted.mean_val, previous.mean_val, first, static_cast<int>(Prediction::Hold));
    field(record.antenna_num, predicted.antenna_num, previous.antenna_num, first, static_cast<int>(Prediction::Hold));
}

}  // namespace

const Rec35Codec kRec35Sub24{
    .subtype = 24,
    .name = "rec35_sub24",
    .schema = std::span<const char>(kSchema, sizeof kSchema),
    .freeNative = free_native_rec35_sub24,
    .freeWire = free_wire_rec35_sub24,
    .checkCounts = check_counts_rec35_sub24,
    .estimateSize = estimate_size_rec35_sub24,
    .nativeToWire = native_to_wire_rec35_sub24,
    .toAvro = to_avro_rec35_sub24,
    .prepare = prepare_rec35_sub24,
    .fromAvro = from_avro_rec35_sub24,
    .checkCountsIn = check_counts_in_rec35_sub24,
    .wireToNative = wire_to_native_rec35_sub24,
    .syncHistory = sync_history_rec35_sub24,
    .predict = predict_rec35_sub24,
};

}  // namespace nvb
