#ifndef NVB_REC35_REC35_SLOT_H
#define NVB_REC35_REC35_SLOT_H

#include <nvbdll/rec35_records.h>
#include <nvbdll/rec35_state.h>

#include "rec35/avro_handles.h"
#include "rec35/rec35_fields.h"

#include <cstdint>
#include <span>

namespace nvb {

// What the layer knows of one Avro subtype: its names, the library's schema text and the
// routines of its family, which know its fields. The routines take the subtype's native
// and wire records as void pointers; every native and wire record opens with its 64-bit
// version. A row of this kind is all a subtype needs to join the dispatch; the generator
// writes one per subtype.
struct Rec35Codec {
    std::uint32_t subtype;
    const char* name;             // the Avro record name, "rec35_sub<N>", also the word of messages
    std::span<const char> schema; // the library's text; its size counts the terminating zero
    std::span<const Rec35Field> fields;  // the native record behind its version, for tools
    std::size_t nativeSize;

    void (*freeNative)(void*& native);
    void (*freeWire)(void*& wire);

    // Encoding, in the order the encode entry calls them.
    void (*checkCounts)(const void* native, void*& wire, std::uint8_t& status); // and sizes the wire record
    std::int64_t (*estimateSize)(const void* native);
    void (*nativeToWire)(const void* native, void* wire, std::uint8_t& status);
    void (*toAvro)(const void* wire, avro_value_t& value, std::uint8_t& status);

    // Decoding, in the order the decode entry calls them.
    void (*prepare)(void*& wire, avro_value_t& value, std::uint8_t& status); // sizes the wire record
    void (*fromAvro)(avro_value_t& value, void* wire, std::uint8_t& status);
    void (*checkCountsIn)(const void* wire, void*& native, std::uint8_t& status); // and sizes the native record
    void (*wireToNative)(const void* wire, void* native, std::uint8_t& status);

    // Prediction; both null for a subtype without one, which always writes subsubtype 1.
    // syncHistory brings the slot's two history records to the shape of its wire record;
    // predict runs every predicted field in schema order, `encode` telling the direction.
    void (*syncHistory)(rec35_slot_t& slot, std::uint8_t& status) = nullptr;
    void (*predict)(rec35_slot_t& slot, bool first, bool encode) = nullptr;

    // Work of a subtype beyond its fields, null where it has none. A hand-written row
    // built on the generated one sets them.
    // Encoding: on the caller's native record before anything is converted.
    void (*adjustNativeOut)(void* native, std::uint8_t& status) = nullptr;
    // Encoding: on the wire record before the prediction, while the history still has
    // the shape of the last record (elements past its counts are not known yet).
    void (*adjustWireOut)(rec35_slot_t& slot) = nullptr;
    // Decoding: on the native record once it is filled.
    void (*adjustNativeIn)(void* native, std::uint8_t& status) = nullptr;
};

}  // namespace nvb

// The objects of the reader side, one set per subtype and stream schema version. Members
// are released in the reverse of their order here, which is the teardown order: the
// resolved half (resolved value, resolver, reader, stream schema) first, then the
// library half (value, class, schema).
struct rec35_reader_cache_t {
    nvb::AvroSchema reader_schema;  // the library's schema
    nvb::AvroClass reader_class;
    nvb::AvroValue value;           // what the family reads from
    // Where the stream's schema lacks fields of the library's: the library's schema cut to
    // the fields the stream has, whose values are copied into `value` after each read.
    nvb::AvroSchema view_schema;
    nvb::AvroClass view_class;
    nvb::AvroValue view_value;
    nvb::AvroSchema writer_schema;  // the stream's schema, resolved case only
    nvb::AvroReader reader;
    nvb::AvroClass resolver;
    nvb::AvroValue resolved_value;
    std::uint8_t live = 0;
    std::uint8_t resolved = 0;
    std::int64_t version = 0;
    avro_value_t* target = nullptr;  // what avro_value_read fills

    void tearDown();
};

// The objects of the writer side. Released in the reverse of this order: resolved value,
// stream schema, resolver; then value, class, schema, and the memory writer last.
struct rec35_writer_cache_t {
    nvb::AvroWriter writer;
    nvb::AvroSchema schema;
    nvb::AvroClass value_class;
    nvb::AvroValue value;           // what the family fills
    nvb::AvroClass resolver;
    nvb::AvroSchema resolved_schema;
    nvb::AvroValue resolved_value;  // `value` seen through the stream's older schema
    std::uint8_t writer_live = 0;
    std::uint8_t value_live = 0;
    std::uint8_t resolved_live = 0;
    std::int64_t resolved_version = 0;
    avro_value_t* target = nullptr;  // what avro_value_write is given
};

// One per Avro subtype, made on the subtype's first use.
struct rec35_slot_t {
    std::uint8_t schema_written = 0;
    std::uint8_t external_accepted = 0;
    std::uint8_t external_schema = 0;
    std::int64_t library_version = 0;
    std::int64_t file_version = 0;
    io_buffer_t schema_text{0, 0, nullptr};
    rec35_writer_cache_t* writer = nullptr;
    rec35_reader_cache_t* reader = nullptr;
    std::uint8_t schema_loaded = 0;
    std::uint8_t need_reference_out = 1;
    void* history_prev = nullptr;
    void* history_pred = nullptr;
    std::uint8_t need_reference_in = 1;
    void* wire = nullptr;
};

namespace nvb {

// Makes the slot if it is missing; status 17 when it can't be had.
void ensureRec35Slot(rec35_slot_t*& slot, std::uint8_t& status);
// Back to no schema and a reference needed; caches and records stay.
void clearRec35Slot(rec35_slot_t& slot);
// Releases the schema text, both caches, the history and wire records, then the slot.
void freeRec35Slot(rec35_slot_t*& slot, const Rec35Codec& codec);

// Read path: a schema record's payload becomes the stream's schema of the subtype, copied
// into `schemaCopy` as well. A text newer than the library's is told, not refused.
void rec35SchemaReceived(const Rec35Codec& codec, const io_buffer_t& payload, rec35_slot_t& slot,
                         io_buffer_t& schemaCopy, std::uint8_t& status);
// Read path: the decode entry of an Avro subtype. A schema record stops after it is
// stored; a data record is read, its prediction undone, and it lands in `native`.
void decodeRec35Subtype(const Rec35Codec& codec, const io_buffer_t& payload, std::uint64_t subsubtype,
                        rec35_slot_t*& slot, void*& native, io_buffer_t& schemaCopy, std::uint8_t& status);

// Encode path: the schema step before each record. `offered` is the host's schema text
// when the record is a passthrough schema record, else empty. Leaves the schema record
// to write in `out` when the slot's schema_written is clear. `acceptNewer` lets a stream
// schema newer than the library's through, for payloads that go out as they are.
void registerRec35Schema(const Rec35Codec& codec, std::uint64_t subsubtype, rec35_slot_t*& slot, bool passthrough,
                         bool acceptNewer, std::span<const std::uint8_t> offered, io_buffer_t& out,
                         std::uint8_t& status);
// Encode path: the encode entry. Fills `out` with the Avro form of the native record
// under the stream's schema and sets the subsubtype: 1 for a reference, 2 for a delta.
void encodeRec35Subtype(const Rec35Codec& codec, void* native, std::uint64_t& subsubtype, rec35_slot_t& slot,
                        io_buffer_t& out, std::uint8_t& status);

}  // namespace nvb

#endif
