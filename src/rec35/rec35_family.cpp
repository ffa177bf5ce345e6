#include "rec35/rec35_family.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"
#include "external/io/io_buffer.h"
#include "rec35/avro_layer.h"

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

namespace nvb {

namespace {

constexpr double kWireLimit = 1152921504606846976.0;  // 2^60

std::int64_t wrappingAdd(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}

std::int64_t wrappingSub(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}

bool knownMethod(int method) {
    if (method == static_cast<int>(Prediction::Hold) || method == static_cast<int>(Prediction::Linear)) return true;
    logMessage("Unknown prediction method (%d) for delta encoding\n", method);
    return false;
}

// Both directions update the history from the true value alike.
void followValue(std::int64_t value, std::int64_t& predicted, std::int64_t& previous, bool first, int method) {
    if (method == static_cast<int>(Prediction::Hold)) {
        predicted = value;
        if (first) previous = 0;
        return;
    }
    predicted = first ? value : wrappingSub(wrappingAdd(value, value), previous);
    previous = value;
}

}  // namespace

void growArray(rec35_array_t& array, std::int64_t capacity, std::size_t elementSize, std::uint8_t& status) {
    if (status != 0 || capacity <= array.capacity) return;
    const auto wanted = static_cast<std::uint64_t>(capacity);
    void* grown = nullptr;
    if (wanted <= std::numeric_limits<std::size_t>::max() / elementSize) {
        grown = ioReallocate(array.elements, static_cast<std::size_t>(wanted) * elementSize);
    }
    if (grown == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    const std::size_t old = array.capacity > 0 ? static_cast<std::size_t>(array.capacity) : 0;
    std::memset(static_cast<std::uint8_t*>(grown) + old * elementSize, 0, (wanted - old) * elementSize);
    array.elements = grown;
    array.capacity = capacity;
}

void freeArray(rec35_array_t& array) {
    std::free(array.elements);
    array = rec35_array_t{0, 0, nullptr};
}

void* allocateRecord(std::size_t size) {
    void* record = ioReallocate(nullptr, size);
    if (record != nullptr) std::memset(record, 0, size);
    return record;
}

void freeRecord(void* record) { std::free(record); }

void ensureRecord(void*& record, std::size_t size, std::uint8_t& status) {
    if (record == nullptr) record = allocateRecord(size);
    if (record == nullptr) status = NVB_STATUS_REC35_CONTENT;
}

bool countFits(const rec35_array_t& array, std::uint8_t& status) { return countFits(array, array.capacity, status); }

bool countFits(const rec35_array_t& array, std::int64_t limit, std::uint8_t& status) {
    if (array.count >= 0 && array.count <= array.capacity && array.count <= limit) return true;
    status = NVB_STATUS_CAPACITY;
    return false;
}

bool setCount(rec35_array_t& array, std::size_t count, std::uint8_t& status) {
    if (array.capacity < 0 || count > static_cast<std::uint64_t>(array.capacity)) {
        status = NVB_STATUS_CAPACITY;
        return false;
    }
    array.count = static_cast<std::int64_t>(count);
    return true;
}

void copyElements(const rec35_array_t& from, rec35_array_t& to, std::size_t elementSize) {
    if (from.count > 0) std::memcpy(to.elements, from.elements, static_cast<std::size_t>(from.count) * elementSize);
    to.count = from.count;
}

std::int64_t arrayBound(std::int64_t capacity, std::int64_t each) {
    constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
    if (capacity <= 0) return 11;
    if (each > 0 && capacity > (kLargest - 11) / each) return kLargest;
    return 11 + capacity * each;
}

std::int64_t boundSum(std::int64_t constant, std::initializer_list<std::int64_t> terms) {
    constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
    std::int64_t sum = constant;
    for (const std::int64_t term : terms) sum = term > kLargest - sum ? kLargest : sum + term;
    return sum;
}

bool boundFits(std::int64_t bound, std::uint8_t& status) {
    if (bound <= std::int64_t{UINT32_MAX}) return true;
    status = NVB_STATUS_REC35_CONTENT;
    return false;
}

std::int64_t scaleToWire(double value, int n, std::uint8_t& status) {
    const double scaled = std::ldexp(value, n);
    const double rounded = scaled >= 0 ? scaled + 0.5 : scaled - 0.5;
    if (!(std::fabs(rounded) <= kWireLimit)) {
        status = NVB_STATUS_AVRO;
        return std::numeric_limits<std::int64_t>::min();
    }
    return static_cast<std::int64_t>(rounded);
}

double scaleFromWire(std::int64_t value, int n) { return std::ldexp(static_cast<double>(value), -n); }

void predictOutField(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first, int method) {
    if (!knownMethod(method)) return;
    const std::int64_t truth = value;
    if (!first) value = wrappingSub(truth, predicted);
    followValue(truth, predicted, previous, first, method);
}

void predictInField(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first, int method) {
    if (!knownMethod(method)) return;
    if (!first) value = wrappingAdd(value, predicted);
    followValue(value, predicted, previous, first, method);
}

void syncHistoryArray(rec35_array_t& history, const rec35_array_t& record, std::size_t elementSize,
                      std::uint8_t& status) {
    growArray(history, record.count, elementSize, status);
    if (status != 0) return;
    const std::int64_t old = history.count > 0 ? history.count : 0;
    if (record.count > old) {
        std::memset(static_cast<std::uint8_t*>(history.elements) + static_cast<std::size_t>(old) * elementSize, 0,
                    static_cast<std::size_t>(record.count - old) * elementSize);
    }
    history.count = record.count;
}

namespace {

template <class Access>
bool withField(avro_value_t& record, std::size_t index, const char* name, std::uint8_t& status, Access access) {
    avro_value_t field;
    return getField(record, index, field, name, status) && access(field);
}

}  // namespace

bool putLong(avro_value_t& record, std::size_t index, const char* name, std::int64_t in, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return setLong(field, in, status); });
}

bool putDouble(avro_value_t& record, std::size_t index, const char* name, double in, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return setDouble(field, in, status); });
}

bool putFloat(avro_value_t& record, std::size_t index, const char* name, float in, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return setFloat(field, in, status); });
}

bool putBytes(avro_value_t& record, std::size_t index, const char* name, const rec35_array_t& in,
              std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return setBytes(field, in, status); });
}

bool takeLong(avro_value_t& record, std::size_t index, const char* name, std::int64_t& out, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return getLong(field, out, status); });
}

bool takeDouble(avro_value_t& record, std::size_t index, const char* name, double& out, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return getDouble(field, out, status); });
}

bool takeFloat(avro_value_t& record, std::size_t index, const char* name, float& out, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return getFloat(field, out, status); });
}

bool takeBytes(avro_value_t& record, std::size_t index, const char* name, rec35_array_t& out, std::uint8_t& status) {
    return withField(record, index, name, status, [&](avro_value_t& field) { return readBytes(field, out, status); });
}

}  // namespace nvb
