#ifndef NVB_REC35_AVRO_HANDLES_H
#define NVB_REC35_AVRO_HANDLES_H

#include <avro.h>

#include <utility>

namespace nvb {

// Owns one Avro C handle and releases it exactly once; move-only, so a handle can travel
// from a half-built set of objects into a cache without being released twice.
template <class Handle, void (*Release)(Handle)>
class AvroHandle {
public:
    AvroHandle() = default;
    explicit AvroHandle(Handle handle) : handle_(handle) {}
    ~AvroHandle() { reset(); }
    AvroHandle(AvroHandle&& other) noexcept : handle_(std::exchange(other.handle_, Handle{})) {}
    AvroHandle& operator=(AvroHandle&& other) noexcept {
        if (this != &other) {
            reset();
            handle_ = std::exchange(other.handle_, Handle{});
        }
        return *this;
    }
    AvroHandle(const AvroHandle&) = delete;
    AvroHandle& operator=(const AvroHandle&) = delete;

    Handle get() const { return handle_; }
    explicit operator bool() const { return handle_ != Handle{}; }
    void reset() {
        if (handle_ != Handle{}) Release(std::exchange(handle_, Handle{}));
    }

private:
    Handle handle_{};
};

namespace avro_release {
inline void schema(avro_schema_t schema) { avro_schema_decref(schema); }
inline void valueClass(avro_value_iface_t* iface) { avro_value_iface_decref(iface); }
inline void reader(avro_reader_t reader) { avro_reader_free(reader); }
inline void writer(avro_writer_t writer) { avro_writer_free(writer); }
}  // namespace avro_release

using AvroSchema = AvroHandle<avro_schema_t, avro_release::schema>;
using AvroClass = AvroHandle<avro_value_iface_t*, avro_release::valueClass>;
using AvroReader = AvroHandle<avro_reader_t, avro_release::reader>;
using AvroWriter = AvroHandle<avro_writer_t, avro_release::writer>;

// A value made by a class: released by its own class's decref.
class AvroValue {
public:
    AvroValue() = default;
    ~AvroValue() { reset(); }
    AvroValue(AvroValue&& other) noexcept : value_(std::exchange(other.value_, avro_value_t{nullptr, nullptr})) {}
    AvroValue& operator=(AvroValue&& other) noexcept {
        if (this != &other) {
            reset();
            value_ = std::exchange(other.value_, avro_value_t{nullptr, nullptr});
        }
        return *this;
    }
    AvroValue(const AvroValue&) = delete;
    AvroValue& operator=(const AvroValue&) = delete;

    // For the Avro call that fills it; the value must be empty then.
    avro_value_t* out() { return &value_; }
    avro_value_t* get() { return &value_; }
    explicit operator bool() const { return value_.iface != nullptr; }
    void reset() {
        if (value_.iface != nullptr) avro_value_decref(&value_);
        value_ = avro_value_t{nullptr, nullptr};
    }

private:
    avro_value_t value_{nullptr, nullptr};
};

}  // namespace nvb

#endif
