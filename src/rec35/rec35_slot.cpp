#include "rec35/rec35_slot.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"
#include "external/io/io_buffer.h"
#include "rec35/avro_layer.h"

#include <cstdlib>
#include <cstring>
#include <new>

void rec35_reader_cache_t::tearDown() {
    resolved_value.reset();
    resolver.reset();
    reader.reset();
    writer_schema.reset();
    view_value.reset();
    view_class.reset();
    view_schema.reset();
    value.reset();
    reader_class.reset();
    reader_schema.reset();
    live = 0;
    resolved = 0;
    target = nullptr;
}

namespace nvb {

namespace {

// Objects of the layer come from the one reallocation function, so that a test can make
// any of them fail.
template <class T>
T* makeObject() {
    void* block = ioReallocate(nullptr, sizeof(T));
    return block != nullptr ? new (block) T() : nullptr;
}

template <class T>
void destroyObject(T*& object) {
    if (object == nullptr) return;
    object->~T();
    std::free(object);
    object = nullptr;
}

std::span<const std::uint8_t> bytesOf(std::span<const char> text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// A version read off the library's own text never fails; the message stays for a text
// that someone edits wrongly. Returns the status of the read.
std::uint8_t readLibraryVersion(const Rec35Codec& codec, rec35_slot_t& slot) {
    std::uint8_t status = 0;
    getAvroSchemaVersion(bytesOf(codec.schema), slot.library_version, status);
    return status;
}

void readerSetup(const Rec35Codec& codec, rec35_slot_t& slot, std::span<const std::uint8_t> payload,
                 std::uint8_t& status) {
    if (slot.reader == nullptr) slot.reader = makeObject<rec35_reader_cache_t>();
    if (slot.reader == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    rec35_reader_cache_t& cache = *slot.reader;
    // A stream may change a subtype's schema midway; the reader follows.
    if (cache.live != 0 && cache.version != slot.file_version) cache.tearDown();
    if (cache.live != 0) {
        readWithCache(cache, payload, status);
        return;
    }
    if (slot.file_version == slot.library_version) {
        openMatchedReader(cache, codec.schema, payload, status);
    } else {
        const auto streamText = terminatedSchemaText(usedBytes(slot.schema_text));
        if (!streamText) {
            logMessage("Unable to parse writer schema\n");
            status = NVB_STATUS_AVRO;
            return;
        }
        openResolvedReader(cache, codec.schema, *streamText, payload, status);
    }
    if (status != 0) return;
    cache.version = slot.file_version;
    cache.live = 1;
}

void writerSetup(const Rec35Codec& codec, rec35_slot_t& slot, io_buffer_t& out, std::uint8_t& status) {
    if (slot.writer == nullptr) slot.writer = makeObject<rec35_writer_cache_t>();
    if (slot.writer == nullptr) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    rec35_writer_cache_t& cache = *slot.writer;
    if (cache.value_live != 0) {
        avro_writer_memory_set_dest(cache.writer.get(), reinterpret_cast<const char*>(out.data), out.capacity);
        if (avro_value_reset(cache.value.get()) != 0) status = NVB_STATUS_AVRO;
    } else {
        openWriter(cache, codec.schema, out, status);
    }
    if (status != 0) return;
    // The reader follows a change of version; the writer refuses one once it has a resolver.
    if (cache.resolved_live != 0 && cache.resolved_version != slot.file_version) {
        logMessage(
            "Writing to multiple schema versions with the same cached writer.This mode of operation has not been "
            "tested.\n");
        status = NVB_STATUS_AVRO;
        return;
    }
    if (slot.file_version == slot.library_version) {
        cache.target = cache.value.get();
        return;
    }
    if (cache.resolved_live == 0) {
        const auto streamText = terminatedSchemaText(usedBytes(slot.schema_text));
        if (!streamText) {
            status = NVB_STATUS_AVRO;
            return;
        }
        openResolvedWriter(cache, *streamText, status);
        if (status != 0) return;
        cache.resolved_version = slot.file_version;
    }
    cache.target = cache.resolved_value.get();
}

void predictIn(const Rec35Codec& codec, rec35_slot_t& slot, std::uint64_t subsubtype, std::uint8_t& status) {
    const bool first = subsubtype == 1;
    if (slot.need_reference_in != 0) {
        if (!first) {
            status = NVB_STATUS_NEED_REFERENCE;
            return;
        }
        slot.need_reference_in = 0;
    }
    codec.syncHistory(slot, status);
    if (status != 0) return;
    codec.predict(slot, first, false);
    slot.need_reference_out = 0;
}

void predictOut(const Rec35Codec& codec, rec35_slot_t& slot, std::uint64_t& subsubtype, std::uint8_t& status) {
    const bool first = slot.need_reference_out != 0;
    subsubtype = first ? 1 : 2;
    if (codec.adjustWireOut != nullptr) codec.adjustWireOut(slot);
    codec.syncHistory(slot, status);
    if (status != 0) return;
    codec.predict(slot, first, true);
    slot.need_reference_out = 0;
}

}  // namespace

void ensureRec35Slot(rec35_slot_t*& slot, std::uint8_t& status) {
    if (slot == nullptr) slot = makeObject<rec35_slot_t>();
    if (slot == nullptr) status = NVB_STATUS_REC35_CONTENT;
}

void clearRec35Slot(rec35_slot_t& slot) {
    slot.schema_written = 0;
    slot.external_accepted = 0;
    slot.external_schema = 0;
    slot.library_version = 0;
    slot.file_version = 0;
    slot.schema_text.used = 0;
    slot.schema_loaded = 0;
    slot.need_reference_out = 1;
    slot.need_reference_in = 1;
}

void freeRec35Slot(rec35_slot_t*& slot, const Rec35Codec& codec) {
    if (slot == nullptr) return;
    freeIoBuffer(slot->schema_text);
    destroyObject(slot->writer);
    destroyObject(slot->reader);
    codec.freeWire(slot->history_prev);
    codec.freeWire(slot->history_pred);
    codec.freeWire(slot->wire);
    destroyObject(slot);
}

void rec35SchemaReceived(const Rec35Codec& codec, const io_buffer_t& payload, rec35_slot_t& slot,
                         io_buffer_t& schemaCopy, std::uint8_t& status) {
    copyIoBuffer(schemaCopy, payload, status);
    if (status == 0) copyIoBuffer(slot.schema_text, payload, status);
    if (status != 0) return;
    // The text ends at its terminating zero; one without it is not a schema text.
    const auto text = terminatedSchemaText(usedBytes(slot.schema_text));
    if (text) {
        getAvroSchemaVersion(bytesOf(*text), slot.file_version, status);
    } else {
        status = NVB_STATUS_AVRO;
    }
    if (status != 0) {
        logMessage("Failed get_avro_schema_version() rec35_sub%u err = %d\n", codec.subtype, status);
        return;
    }
    slot.schema_loaded = 1;
    if (const std::uint8_t failed = readLibraryVersion(codec, slot); failed != 0) {
        logMessage("Failed get_avro_schema_version() of library schema = %d\n", failed);
    }
    if (slot.file_version > slot.library_version) {
        // A message, not an error: the resolver reads what it can.
        logMessage(
            "For Record 35 Subtype %u: nvblib schema version = %lld, nve file schema version = %lld. Upgrade your "
            "nvb library.\n",
            codec.subtype, static_cast<long long>(slot.library_version), static_cast<long long>(slot.file_version));
    }
}

void decodeRec35Subtype(const Rec35Codec& codec, const io_buffer_t& payload, std::uint64_t subsubtype,
                        rec35_slot_t*& slot, void*& native, io_buffer_t& schemaCopy, std::uint8_t& status) {
    ensureRec35Slot(slot, status);
    if (status != 0) return;
    rec35_slot_t& s = *slot;
    if (subsubtype == 0) {
        rec35SchemaReceived(codec, payload, s, schemaCopy, status);
        return;
    }
    if (s.schema_loaded == 0) {
        logMessage("Writer schema is not loaded. Cannot decode record.\n");
        status = NVB_STATUS_AVRO;
        return;
    }
    readerSetup(codec, s, usedBytes(payload), status);
    if (status == 0) codec.prepare(s.wire, *s.reader->value.get(), status);
    if (status == 0) {
        *static_cast<std::int64_t*>(s.wire) = s.file_version;
        codec.fromAvro(*s.reader->value.get(), s.wire, status);
    }
    if (status == 0 && codec.predict != nullptr) predictIn(codec, s, subsubtype, status);
    if (status == 0) codec.checkCountsIn(s.wire, native, status);
    if (status == 0) codec.wireToNative(s.wire, native, status);
    if (status == 0 && codec.adjustNativeIn != nullptr) codec.adjustNativeIn(native, status);
    // A record lost half way leaves the prediction behind the stream: nothing more of the
    // subtype is delivered until a reference record.
    if (status != 0 && status != NVB_STATUS_NEED_REFERENCE) s.need_reference_in = 1;
}

void registerRec35Schema(const Rec35Codec& codec, std::uint64_t subsubtype, rec35_slot_t*& slot, bool passthrough,
                         bool acceptNewer, std::span<const std::uint8_t> offered, io_buffer_t& out,
                         std::uint8_t& status) {
    ensureRec35Slot(slot, status);
    if (status != 0) return;
    rec35_slot_t& s = *slot;
    if (passthrough && subsubtype == 0) {
        s.external_accepted = 0;
        s.external_schema = 1;
        const auto text = terminatedSchemaText(offered);
        if (text) {
            getAvroSchemaVersion(bytesOf(*text), s.file_version, status);
        } else {
            status = NVB_STATUS_AVRO;
        }
        if (status != 0) {
            logMessage("Failed get_avro_schema_version of external schema rec35_sub%u() err = %d\n", codec.subtype,
                       status);
            return;
        }
        if (const std::uint8_t failed = readLibraryVersion(codec, s); failed != 0) {
            logMessage("Failed get_avro_schema_version of native nvblib schema rec35_sub%u() err = %d\n", codec.subtype,
                       failed);
        }
        // The library can't write what it does not know.
        if (s.file_version > s.library_version && !acceptNewer) {
            status = NVB_STATUS_SCHEMA;
            return;
        }
        assignIoBuffer(s.schema_text, offered, status);
        if (status == 0) assignIoBuffer(out, offered, status);
        if (status != 0) return;
        s.schema_written = 0;
        s.external_accepted = 1;
        s.need_reference_out = 1;
        return;
    }
    if (s.external_schema == 0) {
        if (s.schema_written != 0) return;
        reserveIoBuffer(out, static_cast<std::int64_t>(codec.schema.size()), status);
        if (status != 0) {
            logMessage("Failed write_schema_rec35_sub%u() err = %d\n", codec.subtype, status);
            return;
        }
        std::memcpy(out.data, codec.schema.data(), codec.schema.size());
        out.used = static_cast<std::uint32_t>(codec.schema.size());
        getAvroSchemaVersion(usedBytes(out), s.file_version, status);
        if (status != 0) {
            logMessage("Failed get_avro_schema_version_rec35_sub%u() err = %d\n", codec.subtype, status);
            return;
        }
        s.library_version = s.file_version;
        s.need_reference_out = 1;
        return;
    }
    // A record must not be written under a rejected schema.
    if (s.external_accepted == 0) status = NVB_STATUS_SCHEMA;
}

void encodeRec35Subtype(const Rec35Codec& codec, void* native, std::uint64_t& subsubtype, rec35_slot_t& slot,
                        io_buffer_t& out, std::uint8_t& status) {
    *static_cast<std::int64_t*>(native) = slot.file_version;
    if (codec.adjustNativeOut != nullptr) codec.adjustNativeOut(native, status);
    if (status == 0) codec.checkCounts(native, slot.wire, status);
    if (status == 0) reserveIoBuffer(out, codec.estimateSize(native), status);
    if (status == 0) codec.nativeToWire(native, slot.wire, status);
    // Refused before its prediction, a record leaves the history as it was, and the next
    // one goes as a delta against it.
    if (status != 0) return;
    if (codec.predict != nullptr) {
        predictOut(codec, slot, subsubtype, status);
    } else {
        subsubtype = 1;
    }
    if (status == 0) writerSetup(codec, slot, out, status);
    if (status == 0) codec.toAvro(slot.wire, *slot.writer->value.get(), status);
    if (status == 0) writeValue(*slot.writer, codec.name, out, status);
    // The history has moved on to a record that did not go out: the next one must stand whole.
    if (status != 0) slot.need_reference_out = 1;
}

}  // namespace nvb
