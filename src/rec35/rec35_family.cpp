#include "rec35/rec35_family.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"
#include "external/io/io_buffer.h"

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
        std::free(array.elements);
        array = rec35_array_t{0, 0, nullptr};
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

bool countFits(const rec35_array_t& array, std::uint8_t& status) {
    if (array.count >= 0 && array.count <= array.capacity) return true;
    status = NVB_STATUS_CAPACITY;
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

}  // namespace nvb
