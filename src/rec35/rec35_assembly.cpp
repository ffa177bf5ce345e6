#include "rec35/rec35_assembly.h"

#include <nvbdll/status.h>

#include "common/diagnostics.h"
#include "external/io/io_buffer.h"
#include "rec35/rec35_codecs.h"
#include "rec35/rec35_envelope.h"

#include <cstdlib>
#include <new>

namespace nvb {

namespace {

constexpr std::uint8_t kOutOfOrder = 18;
constexpr std::uint16_t kFramingFailure = 65535;

// The piece of a frame goes behind the record in progress. A piece that can't be stored is
// skipped without a status: the record then simply lacks it.
void storePiece(rec35_assembly_t& assembly, std::span<const std::uint8_t> piece) {
    (void)appendIoBuffer(assembly.payload, piece);
}

}  // namespace

void resetRec35Chains(rec35_assembly_t& assembly) {
    // The state is packed: slots are reached by index, never bound by reference.
    for (std::size_t i = 0; i < NVB_REC35_SUBTYPES; ++i) {
        if (assembly.slots[i] == nullptr) continue;
        assembly.slots[i]->need_reference_out = 1;
        assembly.slots[i]->need_reference_in = 1;
    }
}

void resetRec35Assembly(rec35_assembly_t& assembly) {
    assembly.payload.used = 0;
    assembly.in_progress = 0;
    assembly.pending = 0;
    for (std::size_t i = 0; i < NVB_REC35_SUBTYPES; ++i) {
        if (assembly.slots[i] != nullptr) clearRec35Slot(*assembly.slots[i]);
    }
    assembly.schema_swallow = 1;
    assembly.skip_debug_260 = 0;
}

void restartRec35Assembly(rec35_assembly_t& assembly) {
    assembly.payload.used = 0;
    assembly.in_progress = 0;
    assembly.pending = 0;
    resetRec35Chains(assembly);
}

void freeRec35Assembly(rec35_assembly_t& assembly) {
    freeIoBuffer(assembly.payload);
    for (std::size_t i = 0; i < NVB_REC35_SUBTYPES; ++i) {
        rec35_slot_t* slot = assembly.slots[i];
        // A slot is only ever made for a subtype whose family exists.
        if (const Rec35Codec* codec = rec35CodecAt(i)) freeRec35Slot(slot, *codec);
        assembly.slots[i] = nullptr;
    }
}

void freeRec35Content(rec35_content_t* content) {
    if (content == nullptr) return;
    freeIoBuffer(content->schema_text);
    std::free(content->raw_area);
    for (std::size_t i = 0; i < NVB_REC35_SUBTYPES; ++i) {
        void* native = content->records[i];
        if (const Rec35Codec* codec = rec35CodecAt(i)) {
            codec->freeNative(native);
        } else {
            std::free(native);
        }
    }
    std::free(content->test_area);
    ::operator delete(content);
}

void acceptRec35Fragment(nvb_frame_t& frame, rec35_content_t& content, rec35_assembly_t& assembly,
                         std::uint8_t& status) {
    const FragmentCode code = fragmentCodeOf(frame);
    const std::optional<Rec35Envelope> envelope = readRec35Envelope(frame);
    const bool continuing = assembly.in_progress != 0;
    bool store = true;
    std::uint8_t next = 0;
    bool take = true;  // this frame's subtype and subsubtype become the current ones
    switch (code) {
        case FragmentCode::Whole:
        case FragmentCode::First:
            if (continuing) status = kOutOfOrder;  // the partial record is thrown away
            next = code == FragmentCode::First ? 1 : 0;
            assembly.payload.used = 0;
            break;
        case FragmentCode::Middle:
        case FragmentCode::Last:
            if (continuing && envelope && envelope->subtype == content.subtype &&
                envelope->subsubtype == content.subsubtype && status != kOutOfOrder) {
                next = code == FragmentCode::Middle ? 1 : 0;
                take = false;
                break;
            }
            store = false;
            status = kOutOfOrder;
            assembly.payload.used = 0;
            break;
    }
    // A frame too short for its own envelope, or whose payload length would wrap, is a
    // broken fragment: nothing of it is stored and no record is in progress behind it.
    if (!envelope) {
        store = false;
        take = false;
        next = 0;
        status = kOutOfOrder;
        assembly.payload.used = 0;
    }
    if (take) {
        content.subtype = envelope->subtype;
        content.subsubtype = envelope->subsubtype;
    }
    if (store) storePiece(assembly, envelope->payload);
    frame.length = 0;
    assembly.in_progress = next;
    if (code == FragmentCode::Whole || code == FragmentCode::Last) assembly.pending = 0;
}

std::int32_t assembleRec35(nvb_frame_t& frame, rec35_content_t* content, rec35_assembly_t& assembly,
                           std::int32_t result, std::uint8_t& status) {
    const auto recordType = static_cast<std::uint16_t>(result);
    const bool ours = recordType != 0 && (recordType == kRec35FrameType || assembly.pending != 0);
    if (ours) {
        if (content == nullptr) {
            status = NVB_STATUS_REC35_CONTENT;
            resetRec35Chains(assembly);
            return -1;
        }
        if (assembly.pending == 0) assembly.in_progress = 0;
        if (assembly.pending != 0 && recordType != kRec35FrameType) {
            logMessage("Incomplete record 35. Dump partial record.\n");
            assembly.pending = 0;
            assembly.payload.used = 0;
            // The foreign record goes on with 18 beside it; a framing failure stays the
            // only thing reported.
            if (recordType != kFramingFailure) {
                status = kOutOfOrder;
                resetRec35Chains(assembly);
                return result;
            }
        } else {
            assembly.pending = 1;
            acceptRec35Fragment(frame, *content, assembly, status);
            if (assembly.pending != 0) result = 0;
        }
        if (assembly.payload.used == 0) {
            if (status == 0) status = NVB_STATUS_EXPANSION;
            resetRec35Chains(assembly);
            return -1;
        }
    }
    if (status != 0) resetRec35Chains(assembly);
    return result;
}

}  // namespace nvb
