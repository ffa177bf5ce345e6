#ifndef NVB_REC35_REC35_FAMILY_H
#define NVB_REC35_REC35_FAMILY_H

#include <nvbdll/rec35_records.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

// Routines that every member of the per-subtype family shares.

// Grows an array to `capacity` elements, zeroing the new ones; never shrinks. Nothing
// when a status is set. Status 17 when it can't grow, capacity and elements then 0.
void growArray(rec35_array_t& array, std::int64_t capacity, std::size_t elementSize, std::uint8_t& status);
// Frees the elements and zeroes capacity and count.
void freeArray(rec35_array_t& array);

// A record of the family made zeroed; null when it can't be had. Released by freeRecord.
void* allocateRecord(std::size_t size);
void freeRecord(void* record);

// Whether an array's count fits its capacity; status 20 when it does not.
bool countFits(const rec35_array_t& array, std::uint8_t& status);

// Fixed point: x times 2^n, rounded half away from zero; status 19 beyond 2^60 (the value
// is still stored).
std::int64_t scaleToWire(double value, int n, std::uint8_t& status);
double scaleFromWire(std::int64_t value, int n);

enum class Prediction : int { Hold = 0, Linear = 1 };

// One field of a record through its prediction, in either direction; the history pair
// follows the true value. Arithmetic wraps at 64 bits.
void predictOutField(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first, int method);
void predictInField(std::int64_t& value, std::int64_t& predicted, std::int64_t& previous, bool first, int method);

// Brings a history array to the record's count: grown as needed, elements from the old
// count up zeroed, so that a new element is predicted as 0.
void syncHistoryArray(rec35_array_t& history, const rec35_array_t& record, std::size_t elementSize,
                      std::uint8_t& status);

}  // namespace nvb

#endif
