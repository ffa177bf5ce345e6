#include "rec35/avro_layer.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace nvb {

namespace {

constexpr std::string_view kVersionKey = "\"version\"";

bool fail(std::uint8_t& status) {
    status = NVB_STATUS_AVRO;
    return false;
}

// Texts go to the parser with their length, so one without a terminating zero is never
// read past its end.
AvroSchema parseSchema(std::span<const char> text) {
    avro_schema_t schema = nullptr;
    if (avro_schema_from_json_length(text.data(), text.size(), &schema) != 0) return AvroSchema();
    return AvroSchema(schema);
}

std::span<const char> withoutTerminator(std::span<const char> text) {
    const auto zero = std::find(text.begin(), text.end(), '\0');
    return text.first(static_cast<std::size_t>(zero - text.begin()));
}

avro_schema_t linkTarget(avro_schema_t schema) {
    while (schema != nullptr && is_avro_link(schema)) schema = avro_schema_link_target(schema);
    return schema;
}

// The reader's schema cut, at every level of records, to the fields that the writer's
// schema has by name. The Avro C build resolves no reader field that an older writer
// lacks, default or not; reading through this view and copying by name fills such fields
// with zeros instead of failing every record of an older stream.
AvroSchema viewOf(avro_schema_t reader, avro_schema_t writer) {
    reader = linkTarget(reader);
    writer = linkTarget(writer);
    if (is_avro_record(reader) && is_avro_record(writer)) {
        AvroSchema record(avro_schema_record(avro_schema_name(reader), avro_schema_namespace(reader)));
        if (!record) return record;
        for (std::size_t i = 0; i < avro_schema_record_size(reader); ++i) {
            const char* name = avro_schema_record_field_name(reader, static_cast<int>(i));
            // Looked up by index: the lookup by name reads past its table for a missing name.
            const int writerIndex = avro_schema_record_field_get_index(writer, name);
            if (writerIndex < 0) continue;
            AvroSchema field = viewOf(avro_schema_record_field_get_by_index(reader, static_cast<int>(i)),
                                      avro_schema_record_field_get_by_index(writer, writerIndex));
            if (!field || avro_schema_record_field_append(record.get(), name, field.get()) != 0) return AvroSchema();
        }
        return record;
    }
    if (is_avro_array(reader) && is_avro_array(writer)) {
        AvroSchema items = viewOf(avro_schema_array_items(reader), avro_schema_array_items(writer));
        return items ? AvroSchema(avro_schema_array(items.get())) : AvroSchema();
    }
    if (is_avro_map(reader) && is_avro_map(writer)) {
        AvroSchema values = viewOf(avro_schema_map_values(reader), avro_schema_map_values(writer));
        return values ? AvroSchema(avro_schema_map(values.get())) : AvroSchema();
    }
    return AvroSchema(avro_schema_incref(reader));
}

// Copies a value of the view into a value of the full schema, field by field by name;
// fields the view lacks keep their reset value.
bool copyByName(avro_value_t& destination, avro_value_t& source) {
    std::size_t count = 0;
    switch (avro_value_get_type(&destination)) {
        case AVRO_RECORD:
            if (avro_value_get_size(&destination, &count) != 0) return false;
            for (std::size_t i = 0; i < count; ++i) {
                avro_value_t to;
                avro_value_t from;
                const char* name = nullptr;
                if (avro_value_get_by_index(&destination, i, &to, &name) != 0) return false;
                if (avro_value_get_by_name(&source, name, &from, nullptr) != 0) continue;
                if (!copyByName(to, from)) return false;
            }
            return true;
        case AVRO_ARRAY:
            if (avro_value_get_size(&source, &count) != 0) return false;
            for (std::size_t i = 0; i < count; ++i) {
                avro_value_t to;
                avro_value_t from;
                if (avro_value_get_by_index(&source, i, &from, nullptr) != 0) return false;
                if (avro_value_append(&destination, &to, nullptr) != 0 || !copyByName(to, from)) return false;
            }
            return true;
        case AVRO_MAP:
            if (avro_value_get_size(&source, &count) != 0) return false;
            for (std::size_t i = 0; i < count; ++i) {
                avro_value_t to;
                avro_value_t from;
                const char* key = nullptr;
                if (avro_value_get_by_index(&source, i, &from, &key) != 0) return false;
                if (avro_value_add(&destination, key, &to, nullptr, nullptr) != 0 || !copyByName(to, from)) {
                    return false;
                }
            }
            return true;
        default:
            return avro_value_copy_fast(&destination, &source) == 0;
    }
}

// The view's record, read by the resolver, moved into the library's value.
bool fillFromView(rec35_reader_cache_t& cache) {
    if (!cache.view_value) return true;
    return avro_value_reset(cache.value.get()) == 0 && copyByName(*cache.value.get(), *cache.view_value.get());
}

// Avro C allocates a string or bytes value at the length the payload announces before it
// reads it, and keeps that allocation when the payload ends first. A skip over the payload
// allocates nothing, so it turns such a payload away before the read.
bool readRecord(rec35_reader_cache_t& cache, std::span<const std::uint8_t> payload, const char* failureText,
                std::uint8_t& status) {
    const auto setSource = [&cache, payload] {
        avro_reader_memory_set_source(cache.reader.get(), reinterpret_cast<const char*>(payload.data()),
                                      static_cast<std::int64_t>(payload.size()));
    };
    const AvroSchema& wire = cache.writer_schema ? cache.writer_schema : cache.reader_schema;
    setSource();
    const bool fits = avro_skip_data(cache.reader.get(), wire.get()) == 0;
    setSource();
    if (!fits || avro_value_read(cache.reader.get(), cache.target) != 0 || !fillFromView(cache)) {
        logMessage(failureText, avro_strerror());
        return fail(status);
    }
    return true;
}

bool makeValue(const AvroClass& valueClass, AvroValue& value) {
    return avro_generic_value_new(valueClass.get(), value.out()) == 0;
}

bool failWith(const char* text, std::uint8_t& status) {
    logMessage("%s", text);
    return fail(status);
}

// The class and value of the library's schema, and of its view where there is one.
bool makeReaderValues(rec35_reader_cache_t& built, std::uint8_t& status) {
    built.reader_class = AvroClass(avro_generic_class_from_schema(built.reader_schema.get()));
    if (built.view_schema) built.view_class = AvroClass(avro_generic_class_from_schema(built.view_schema.get()));
    if (!built.reader_class || (built.view_schema && !built.view_class)) {
        return failWith("Could not create reader class\n", status);
    }
    if (!makeValue(built.reader_class, built.value) ||
        (built.view_class && !makeValue(built.view_class, built.view_value))) {
        return failWith("Error creating instance of record\n", status);
    }
    return true;
}

// The memory reader and the first record; then what was built becomes the cache. On a
// failure the built objects go, in reverse order, and the cache stays as it was.
void finishOpening(rec35_reader_cache_t& cache, rec35_reader_cache_t& built, std::span<const std::uint8_t> payload,
                   bool resolved, std::uint8_t& status) {
    built.reader = AvroReader(avro_reader_memory(reinterpret_cast<const char*>(payload.data()),
                                                 static_cast<std::int64_t>(payload.size())));
    if (!built.reader) {
        failWith("Error creating avro reader\n", status);
        return;
    }
    built.target = resolved ? built.resolved_value.get() : built.value.get();
    const char* failureText =
        resolved ? "Error reading resolved record. Error = %s\n" : "Error reading matched record. Error = %s\n";
    if (!readRecord(built, payload, failureText, status)) return;
    built.resolved = resolved ? 1 : 0;
    cache.tearDown();
    cache = std::move(built);
    cache.target = resolved ? cache.resolved_value.get() : cache.value.get();
}

}  // namespace

void getAvroSchemaVersion(std::span<const std::uint8_t> text, std::int64_t& version, std::uint8_t& status) {
    const std::size_t used = text.size();
    if (used <= 8) {
        fail(status);
        return;
    }
    bool keyFound = false;
    std::optional<std::size_t> colon;
    std::size_t i = 8;
    for (; i < used; ++i) {
        if (!keyFound) {
            keyFound = std::memcmp(text.data() + i - 8, kVersionKey.data(), kVersionKey.size()) == 0;
        } else if (!colon) {
            if (text[i] == ':') colon = i;
        } else if (text[i] == ',') {
            break;
        }
    }
    // The value lies between the colon and the comma; nothing between them is no value.
    if (i >= used || !colon || *colon + 1 >= i) {
        fail(status);
        return;
    }
    // The comma ends the number, so strtol reads in place without a terminated copy.
    const char* value = reinterpret_cast<const char*>(text.data()) + *colon + 1;
    char* end = nullptr;
    const long number = std::strtol(value, &end, 10);
    if (end > value + (i - *colon - 1)) {
        logMessage("get_avro_schema_version() read past the version field.\n");
        fail(status);
        return;
    }
    if (number < 1 || number > 65535) {
        logMessage("get_avro_schema_version() read an invalid version: %ld.\n", number);
        fail(status);
        return;
    }
    version = static_cast<std::int64_t>(number);
}

std::optional<std::span<const char>> terminatedSchemaText(std::span<const std::uint8_t> payload) {
    const auto zero = std::find(payload.begin(), payload.end(), std::uint8_t{0});
    if (zero == payload.end()) return std::nullopt;
    return std::span<const char>(reinterpret_cast<const char*>(payload.data()),
                                 static_cast<std::size_t>(zero - payload.begin()));
}

void openMatchedReader(rec35_reader_cache_t& cache, std::span<const char> libraryText,
                       std::span<const std::uint8_t> payload, std::uint8_t& status) {
    rec35_reader_cache_t built;
    built.reader_schema = parseSchema(withoutTerminator(libraryText));
    if (!built.reader_schema) {
        failWith("Unable to parse schema\n", status);
        return;
    }
    if (makeReaderValues(built, status)) finishOpening(cache, built, payload, false, status);
}

namespace {

// Avro C's resolver crashes, instead of failing, where the items of an array or the values
// of a map do not resolve. Every such pair it can meet is tried here from the innermost out,
// so that it is only called where the containers' contents resolve.
bool containersResolve(avro_schema_t writer, avro_schema_t reader) {
    if (is_avro_union(writer)) {
        for (std::size_t i = 0; i < avro_schema_union_size(writer); ++i) {
            if (!containersResolve(avro_schema_union_branch(writer, static_cast<int>(i)), reader)) return false;
        }
        return true;
    }
    if (is_avro_union(reader)) {
        for (std::size_t i = 0; i < avro_schema_union_size(reader); ++i) {
            if (!containersResolve(writer, avro_schema_union_branch(reader, static_cast<int>(i)))) return false;
        }
        return true;
    }
    if (is_avro_record(writer) && is_avro_record(reader)) {
        for (std::size_t i = 0; i < avro_schema_record_size(writer); ++i) {
            const int index = static_cast<int>(i);
            const avro_schema_t field = avro_schema_record_field_get(reader, avro_schema_record_field_name(writer, index));
            if (field != nullptr && !containersResolve(avro_schema_record_field_get_by_index(writer, index), field)) {
                return false;
            }
        }
        return true;
    }
    avro_schema_t writerInner = nullptr;
    avro_schema_t readerInner = nullptr;
    if (is_avro_array(writer) && is_avro_array(reader)) {
        writerInner = avro_schema_array_items(writer);
        readerInner = avro_schema_array_items(reader);
    } else if (is_avro_map(writer) && is_avro_map(reader)) {
        writerInner = avro_schema_map_values(writer);
        readerInner = avro_schema_map_values(reader);
    } else {
        return true;
    }
    if (!containersResolve(writerInner, readerInner)) return false;
    const AvroClass inner(avro_resolved_writer_new(writerInner, readerInner));
    return static_cast<bool>(inner);
}

AvroClass resolverOf(avro_schema_t writer, avro_schema_t reader) {
    return containersResolve(writer, reader) ? AvroClass(avro_resolved_writer_new(writer, reader)) : AvroClass();
}

}  // namespace

void openResolvedReader(rec35_reader_cache_t& cache, std::span<const char> libraryText,
                        std::span<const char> streamText, std::span<const std::uint8_t> payload,
                        std::uint8_t& status) {
    rec35_reader_cache_t built;
    built.reader_schema = parseSchema(withoutTerminator(libraryText));
    if (!built.reader_schema) {
        failWith("Unable to parse reader schema\n", status);
        return;
    }
    built.writer_schema = parseSchema(streamText);
    if (!built.writer_schema) {
        failWith("Unable to parse writer schema\n", status);
        return;
    }
    built.resolver = resolverOf(built.writer_schema.get(), built.reader_schema.get());
    if (!built.resolver) {
        built.view_schema = viewOf(built.reader_schema.get(), built.writer_schema.get());
        if (built.view_schema) {
            built.resolver = resolverOf(built.writer_schema.get(), built.view_schema.get());
        }
        if (!built.resolver) {
            failWith("Could not create resolver\n", status);
            return;
        }
    }
    if (avro_resolved_writer_new_value(built.resolver.get(), built.resolved_value.out()) != 0) {
        failWith("Could not create resolved record.\n", status);
        return;
    }
    if (!makeReaderValues(built, status)) return;
    avro_resolved_writer_set_dest(built.resolved_value.get(),
                                  built.view_value ? built.view_value.get() : built.value.get());
    finishOpening(cache, built, payload, true, status);
}

void readWithCache(rec35_reader_cache_t& cache, std::span<const std::uint8_t> payload, std::uint8_t& status) {
    readRecord(cache, payload, "Error reading resolved record. Error = %s\n", status);
}

void openWriter(rec35_writer_cache_t& cache, std::span<const char> libraryText, io_buffer_t& out, std::uint8_t& status) {
    const std::span<const char> text = withoutTerminator(libraryText);
    AvroSchema schema = parseSchema(text);
    if (!schema) {
        logMessage("Unable to parse schema %s\n", avro_strerror());
        logMessage("Schema = \n%.*s\n", static_cast<int>(text.size()), text.data());
        fail(status);
        return;
    }
    AvroWriter writer(avro_writer_memory(reinterpret_cast<const char*>(out.data), out.capacity));
    if (!writer) {
        logMessage("Error creating avro writer.\n");
        fail(status);
        return;
    }
    AvroClass valueClass(avro_generic_class_from_schema(schema.get()));
    if (!valueClass) {
        logMessage("Error creating record class.\n");
        fail(status);
        return;
    }
    AvroValue value;
    if (!makeValue(valueClass, value)) {
        // The text names one subtype for every subtype alike; it stays as it is.
        logMessage("Error creating instance of rec35_sub22. Error = %s\n", avro_strerror());
        fail(status);
        return;
    }
    std::size_t fields = 0;
    if (avro_value_reset(value.get()) != 0 || avro_value_get_size(value.get(), &fields) != 0) {
        logMessage("Error getting number of fields in rec35_sub22. Error = %s", avro_strerror());
        fail(status);
        return;
    }
    cache.writer = std::move(writer);
    cache.schema = std::move(schema);
    cache.value_class = std::move(valueClass);
    cache.value = std::move(value);
    cache.writer_live = 1;
    cache.value_live = 1;
}

void openResolvedWriter(rec35_writer_cache_t& cache, std::span<const char> streamText, std::uint8_t& status) {
    AvroSchema streamSchema = parseSchema(streamText);
    if (!streamSchema) {
        logMessage("Unable to parse schema %s\n", avro_strerror());
        logMessage("Schema = \n%.*s\n", static_cast<int>(streamText.size()), streamText.data());
        fail(status);
        return;
    }
    AvroClass resolver(avro_resolved_reader_new(cache.schema.get(), streamSchema.get()));
    if (!resolver) {
        logMessage("Failed avro_resolved_reader_new()\n");
        fail(status);
        return;
    }
    AvroValue resolved;
    if (avro_resolved_reader_new_value(resolver.get(), resolved.out()) != 0) {
        logMessage("Failed avro_resolved_reader_new_value");
        fail(status);
        return;
    }
    avro_resolved_reader_set_source(resolved.get(), cache.value.get());
    cache.resolver = std::move(resolver);
    cache.resolved_schema = std::move(streamSchema);
    cache.resolved_value = std::move(resolved);
    cache.resolved_live = 1;
}

void writeValue(rec35_writer_cache_t& cache, const char* name, io_buffer_t& out, std::uint8_t& status) {
    if (avro_value_write(cache.writer.get(), cache.target) != 0) {
        logMessage("Unable to write record %s into memory\n", name);
        fail(status);
    }
    out.used = static_cast<std::uint32_t>(avro_writer_tell(cache.writer.get()));
}

bool getField(avro_value_t& value, std::size_t index, avro_value_t& out, const char* expectedName,
              std::uint8_t& status) {
    const char* name = nullptr;
    if (avro_value_get_by_index(&value, index, &out, &name) != 0) {
        logMessage("Cannot get field index %lld name %s:\n %s\n", static_cast<long long>(index),
                   expectedName != nullptr ? expectedName : "", avro_strerror());
        return fail(status);
    }
    if (expectedName != nullptr && (name == nullptr || std::strcmp(name, expectedName) != 0)) {
        logMessage("Desired name = %s. Obtained name = %s. Fail. \n", expectedName, name != nullptr ? name : "");
        return fail(status);
    }
    return true;
}

bool getElement(avro_value_t& value, std::size_t index, avro_value_t& out, std::uint8_t& status) {
    return getField(value, index, out, nullptr, status);
}

bool appendElement(avro_value_t& array, avro_value_t& out, const char* name, std::uint8_t& status) {
    if (avro_value_append(&array, &out, nullptr) != 0) {
        logMessage("Append element %s failed: %s\n", name, avro_strerror());
        return fail(status);
    }
    return true;
}

bool arraySize(avro_value_t& array, const char* name, std::size_t& size, std::uint8_t& status) {
    if (avro_value_get_size(&array, &size) != 0) {
        logMessage("Could not get array %s size: %s\n", name, avro_strerror());
        return fail(status);
    }
    return true;
}

bool bytesLength(avro_value_t& bytes, const char* name, std::size_t& length, std::uint8_t& status) {
    const void* data = nullptr;
    if (avro_value_get_bytes(&bytes, &data, &length) != 0) {
        logMessage("Could not get bytes %s length: %s\n", name, avro_strerror());
        return fail(status);
    }
    return true;
}

bool readBytes(avro_value_t& bytes, rec35_array_t& destination, std::uint8_t& status) {
    const void* data = nullptr;
    std::size_t length = 0;
    if (avro_value_get_bytes(&bytes, &data, &length) != 0) return fail(status);
    if (destination.capacity < 0 || static_cast<std::uint64_t>(destination.capacity) < length) {
        status = NVB_STATUS_REC35_CONTENT;
        return false;
    }
    if (length > 0) std::memcpy(destination.elements, data, length);
    destination.count = static_cast<std::int64_t>(length);
    return true;
}

bool getLong(avro_value_t& value, std::int64_t& out, std::uint8_t& status) {
    return avro_value_get_long(&value, &out) == 0 || fail(status);
}

bool getDouble(avro_value_t& value, double& out, std::uint8_t& status) {
    return avro_value_get_double(&value, &out) == 0 || fail(status);
}

bool getFloat(avro_value_t& value, float& out, std::uint8_t& status) {
    return avro_value_get_float(&value, &out) == 0 || fail(status);
}

bool setLong(avro_value_t& value, std::int64_t in, std::uint8_t& status) {
    return avro_value_set_long(&value, in) == 0 || fail(status);
}

bool setDouble(avro_value_t& value, double in, std::uint8_t& status) {
    return avro_value_set_double(&value, in) == 0 || fail(status);
}

bool setFloat(avro_value_t& value, float in, std::uint8_t& status) {
    return avro_value_set_float(&value, in) == 0 || fail(status);
}

bool setBytes(avro_value_t& value, const rec35_array_t& bytes, std::uint8_t& status) {
    const std::size_t length = bytes.count > 0 ? static_cast<std::size_t>(bytes.count) : 0;
    return avro_value_set_bytes(&value, bytes.elements, length) == 0 || fail(status);
}

}  // namespace nvb
