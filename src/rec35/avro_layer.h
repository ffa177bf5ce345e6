#ifndef NVB_REC35_AVRO_LAYER_H
#define NVB_REC35_AVRO_LAYER_H

#include <nvbdll/rec35_state.h>

#include "rec35/rec35_slot.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace nvb {

// The version of a schema text, found by scanning the text for the first quoted
// "version" key, never by parsing it: a positive integer up to 65535 followed by a comma.
// Status 19 when there is none.
void getAvroSchemaVersion(std::span<const std::uint8_t> text, std::int64_t& version, std::uint8_t& status);

// A schema text from the stream ends at its first zero byte; empty when it has none.
std::optional<std::span<const char>> terminatedSchemaText(std::span<const std::uint8_t> payload);

// Reader side. Each opening builds the whole set of objects and reads the first record
// into the cache's target; on any failure what was built is released in reverse order,
// the cache stays not live, and the status is 19.
void openMatchedReader(rec35_reader_cache_t& cache, std::span<const char> libraryText,
                       std::span<const std::uint8_t> payload, std::uint8_t& status);
void openResolvedReader(rec35_reader_cache_t& cache, std::span<const char> libraryText,
                        std::span<const char> streamText, std::span<const std::uint8_t> payload,
                        std::uint8_t& status);
// Reads one record with a live cache.
void readWithCache(rec35_reader_cache_t& cache, std::span<const std::uint8_t> payload, std::uint8_t& status);

// Writer side: the memory writer aimed at `out`, and the value of the library's schema;
// then, for a stream in an older schema, the value seen through that schema.
void openWriter(rec35_writer_cache_t& cache, std::span<const char> libraryText, io_buffer_t& out, std::uint8_t& status);
void openResolvedWriter(rec35_writer_cache_t& cache, std::span<const char> streamText, std::uint8_t& status);
// Writes the target into `out`, whose `used` becomes what the writer wrote.
void writeValue(rec35_writer_cache_t& cache, const char* name, io_buffer_t& out, std::uint8_t& status);

// Field access for the family; each failure prints its message and sets status 19.
bool getField(avro_value_t& value, std::size_t index, avro_value_t& out, const char* expectedName,
              std::uint8_t& status);
bool getElement(avro_value_t& value, std::size_t index, avro_value_t& out, std::uint8_t& status);
bool appendElement(avro_value_t& array, avro_value_t& out, const char* name, std::uint8_t& status);
bool arraySize(avro_value_t& array, const char* name, std::size_t& size, std::uint8_t& status);
bool bytesLength(avro_value_t& bytes, const char* name, std::size_t& length, std::uint8_t& status);
// Copies a bytes value into an array of one-byte elements; status 17 when it is too small.
bool readBytes(avro_value_t& bytes, rec35_array_t& destination, std::uint8_t& status);

bool getLong(avro_value_t& value, std::int64_t& out, std::uint8_t& status);
bool getDouble(avro_value_t& value, double& out, std::uint8_t& status);
bool getFloat(avro_value_t& value, float& out, std::uint8_t& status);
bool setLong(avro_value_t& value, std::int64_t in, std::uint8_t& status);
bool setDouble(avro_value_t& value, double in, std::uint8_t& status);
bool setFloat(avro_value_t& value, float in, std::uint8_t& status);
bool setBytes(avro_value_t& value, const rec35_array_t& bytes, std::uint8_t& status);

}  // namespace nvb

#endif
