#include "host/host_encoder.h"

#include "records/record_slots.h"

#include <cstddef>
#include <cstring>
#include <new>

namespace nvbtool {

namespace {

// A state cleared whole but for its filling block: the writer reads only what it has put
// there, and the pages of a block larger than the target are then never touched.
nvb_encode_t* newEncodeState() {
    auto* state = new nvb_encode_t;
    auto* bytes = reinterpret_cast<std::uint8_t*>(state);
    const std::size_t block = offsetof(nvb_encode_t, block);
    std::memset(bytes, 0, block);
    std::memset(bytes + block + sizeof state->block, 0, sizeof *state - block - sizeof state->block);
    return state;
}

}  // namespace

HostEncoder::HostEncoder(std::uint8_t method, std::uint8_t level, Sink sink)
    : state_(newEncodeState()), sink_(std::move(sink)) {
    nvbdll_initDATEncodeState(state_);
    void** slots = nvb::slotsOf(state_->records);
    for (std::size_t slot = 0; slot < nvb::kSlotCount; ++slot) {
        slots[slot] = ::operator new(nvb::kSlotSizes[slot]);
        std::memset(slots[slot], 0, nvb::kSlotSizes[slot]);
    }
    state_->compressionMethod = method;
    state_->compressionLevel = level;
    state_->writeCallback = &HostEncoder::written;
    state_->writeContext = this;
}

HostEncoder::~HostEncoder() {
    void** slots = nvb::slotsOf(state_->records);
    for (std::size_t slot = 0; slot < nvb::kSlotCount; ++slot) {
        if (!nvb::isHostOwnedSlot(slot)) ::operator delete(slots[slot]);
    }
    nvbdll_freeEncodeState(state_);
}

void HostEncoder::written(const std::uint8_t* buffer, std::uint32_t length, void* context) {
    static_cast<HostEncoder*>(context)->sink_(std::span<const std::uint8_t>(buffer, length));
}

}  // namespace nvbtool
