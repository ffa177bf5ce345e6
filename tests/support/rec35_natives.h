#ifndef NVB_TESTS_REC35_NATIVES_H
#define NVB_TESTS_REC35_NATIVES_H

#include "rec35/rec35_slot.h"

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <random>

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

// Spoils a filled record so that the encoder must refuse it: an outer count above its
// capacity (status 20), else a scaled value beyond 2^60 on the wire (status 19). Returns
// the status to expect, 0 when the subtype has neither an array nor a scaled field.
std::uint8_t spoilRec35(const nvb::Rec35Codec& codec, void* native);

// A native record as JSON, version first; or its wire form, as another Avro reader decodes
// a reference record: no version, every scaled field as its wire integer. Bytes are lists
// of numbers. Two records are equal field for field where their JSON is.
nlohmann::json rec35Json(const nvb::Rec35Codec& codec, const void* native, bool wire = false);

// Sets the fields that `values` names, in native units and the shape of rec35Json; in a
// record of parallel arrays a column ("sv__meas__range") takes every value along its
// path. Arrays need the capacity.
void setRec35(const nvb::Rec35Codec& codec, void* native, const nlohmann::json& values);

}  // namespace nvbtest

#endif
