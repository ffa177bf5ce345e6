#ifndef NVB_REC35_REC35_FLAT_H
#define NVB_REC35_REC35_FLAT_H

#include <nvbdll/rec35_records.h>

#include <cstddef>
#include <cstdint>
#include <initializer_list>

namespace nvb {

// Subtypes 19 and 260 keep each field of a satellite or a signal as one array, in the
// manner of a column store: a satellite's signals follow those of the satellites before
// it, as many as its entry in the per-satellite signal counts says.

template <class T>
T& flatAt(const rec35_array_t& array, std::size_t index) {
    return static_cast<T*>(array.elements)[index];
}

// Whether every array holds `count` elements within its capacity.
bool parallelArrays(std::initializer_list<const rec35_array_t*> arrays, std::int64_t count);
// The sum of the per-satellite signal counts; -1 when the counts array does not fit its capacity.
std::int64_t signalTotal(const rec35_array_t& perSatellite);

// Whether the arrays of a subtype 19 record agree with each other and with `_Na` and `_Nb`.
bool sub19Consistent(const rec35_sub19_t& record);
// The same for subtype 260 and its `_Na`.
bool sub260Consistent(const rec35_sub260_t& record);

}  // namespace nvb

#endif
