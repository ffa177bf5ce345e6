#ifndef NVB_TESTS_REC35_NATIVES_H
#define NVB_TESTS_REC35_NATIVES_H

#include "rec35/rec35_slot.h"

#include <cstdint>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace nvbtest {

// A native record of any Avro subtype, made from the subtype's field table as a host
// makes one with malloc: every array at every level `capacity` elements long, so that
// the first element's arrays are as large as any, counts 0. The library's free
// releases it.
class Rec35Native {
public:
    Rec35Native(const nvb::Rec35Codec& codec, std::int64_t capacity);
    ~Rec35Native();
    Rec35Native(const Rec35Native&) = delete;
    Rec35Native& operator=(const Rec35Native&) = delete;
    void* get() const { return record_; }

private:
    const nvb::Rec35Codec& codec_;
    void* record_;
};

// How the values of a record are drawn. Random: every value anywhere on its field's grid
// (scaled fields a whole number of steps within 2^40 of them, so the double is exact),
// every count anywhere up to its capacity. Smooth: a receiver's record `step` epochs in,
// values moving slowly and counts full.
enum class Rec35Values { Random, Smooth };
void fillRec35(const nvb::Rec35Codec& codec, void* native, Rec35Values how, std::mt19937_64& random,
               std::uint32_t step = 0);

// An array field of a native record by its name.
rec35_array_t& rec35Column(const nvb::Rec35Codec& codec, void* native, std::string_view name);

// Spoils a filled record so that the encoder must refuse it: an outer count above its
// capacity (status 20), else a scaled value beyond 2^60 on the wire (status 19). Returns
// the status to expect, 0 when the subtype has neither an array nor a scaled field.
std::uint8_t spoilRec35(const nvb::Rec35Codec& codec, void* native);

// The wire form of a native record as JSON, as another Avro reader decodes a reference
// record: every long as its wire integer, bytes as a list of numbers. Two records are
// equal field for field where their texts are, with the schema version heading them.
std::string rec35WireJson(const nvb::Rec35Codec& codec, const void* native, bool withVersion = false);

}  // namespace nvbtest

#endif
