#ifndef NVB_REC35_REC35_FAMILY_H
#define NVB_REC35_REC35_FAMILY_H

#include <nvbdll/rec35_records.h>

#include "rec35/avro_handles.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <limits>

struct rec35_slot_t;

namespace nvb {

// Routines that every member of the per-subtype family shares; the generated members
// call them, the rest of their code being their own fields.

// Grows an array to `capacity` elements, zeroing the new ones; never shrinks. Nothing
// when a status is set. Status 17 when it can't grow; the array then keeps its block,
// whose elements may own arrays of their own.
void growArray(rec35_array_t& array, std::int64_t capacity, std::size_t elementSize, std::uint8_t& status);
// Frees the elements and zeroes capacity and count.
void freeArray(rec35_array_t& array);

template <class T>
T* elementsOf(rec35_array_t& array) {
    return static_cast<T*>(array.elements);
}
template <class T>
const T* elementsOf(const rec35_array_t& array) {
    return static_cast<const T*>(array.elements);
}

// A record of the family made zeroed; null when it can't be had. Released by freeRecord.
void* allocateRecord(std::size_t size);
void freeRecord(void* record);
// Makes the record if it is missing; status 17 when it can't be had.
void ensureRecord(void*& record, std::size_t size, std::uint8_t& status);

// Whether an array's count fits its capacity; status 20 when it does not.
bool countFits(const rec35_array_t& array, std::uint8_t& status);
// The same, and the count within `limit` too: the inner arrays of every element are sized
// by those of the first, so a count above the first element's capacity does not fit.
bool countFits(const rec35_array_t& array, std::int64_t limit, std::uint8_t& status);
// Sets a count read from Avro; status 20 when the array can't hold it.
bool setCount(rec35_array_t& array, std::size_t count, std::uint8_t& status);
inline void atLeast(std::int64_t& capacity, std::size_t size) {
    capacity = std::max(capacity, static_cast<std::int64_t>(std::min<std::size_t>(size, INT64_MAX)));
}
// Copies the counted elements of an array whose elements are alike in both forms.
void copyElements(const rec35_array_t& from, rec35_array_t& to, std::size_t elementSize);

// Bounds of the encoded size: an array level costs its count and end (11 bytes) and its
// elements; the sums stop at the largest 64-bit number rather than wrap.
std::int64_t arrayBound(std::int64_t capacity, std::int64_t each);
std::int64_t boundSum(std::int64_t constant, std::initializer_list<std::int64_t> terms);
// Whether a record of that bound can be written at all (the output buffer's size has 32
// bits); status 17 when not. The reader asks before it sizes anything from a payload.
bool boundFits(std::int64_t bound, std::uint8_t& status);

// An unscaled long on its way to the wire: unsigned fields take zeros above their 32
// bits, signed ones the sign.
inline std::int64_t widen(std::uint32_t value) { return value; }
inline std::int64_t widen(std::int32_t value) { return value; }

// Fixed point: x times 2^n, rounded half away from zero; status 19 beyond 2^60 (the value
// is still stored).
std::int64_t scaleToWire(double value, int n, std::uint8_t& status);
double scaleFromWire(std::int64_t value, int n);

enum class Prediction : int { Hold = 0, Linear = 1 };
inline constexpr int kHold = static_cast<int>(Prediction::Hold);
inline constexpr int kLinear = static_cast<int>(Prediction::Linear);

// One field of a record through its prediction, in either direction; the history pair
// follows the true value. Arithmetic wraps at 64 bits.
void predictOutField(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first, int method);
void predictInField(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first, int method);
using PredictField = void (*)(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first,
                              int method);

// Brings a history array to the record's count: grown as needed, elements from the old
// count up zeroed, so that a new element is predicted as 0.
void syncHistoryArray(rec35_array_t& history, const rec35_array_t& record, std::size_t elementSize,
                      std::uint8_t& status);
// The same for elements that own arrays: `clear` zeroes an element's values and empties
// its arrays, whose blocks stay for when they grow again.
template <class T>
void syncHistoryElements(rec35_array_t& history, std::int64_t count, void (*clear)(T&), std::uint8_t& status) {
    growArray(history, count, sizeof(T), status);
    if (status != 0) return;
    for (std::int64_t i = std::max<std::int64_t>(history.count, 0); i < count; ++i) clear(elementsOf<T>(history)[i]);
    history.count = count;
}
inline void clearCount(rec35_array_t& array) { array.count = 0; }

// A scalar field of an Avro record by index and name, set or read; false and status 19
// when the field is not the expected one or its value is not of the type.
bool putLong(avro_value_t& record, std::size_t index, const char* name, std::int64_t in, std::uint8_t& status);
bool putDouble(avro_value_t& record, std::size_t index, const char* name, double in, std::uint8_t& status);
bool putFloat(avro_value_t& record, std::size_t index, const char* name, float in, std::uint8_t& status);
bool putBytes(avro_value_t& record, std::size_t index, const char* name, const rec35_array_t& in,
              std::uint8_t& status);
bool takeLong(avro_value_t& record, std::size_t index, const char* name, std::int64_t& out, std::uint8_t& status);
bool takeDouble(avro_value_t& record, std::size_t index, const char* name, double& out, std::uint8_t& status);
bool takeFloat(avro_value_t& record, std::size_t index, const char* name, float& out, std::uint8_t& status);
// Bytes land in an array sized beforehand; status 17 when it is too small.
bool takeBytes(avro_value_t& record, std::size_t index, const char* name, rec35_array_t& out, std::uint8_t& status);

}  // namespace nvb

#endif
