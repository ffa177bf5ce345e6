#include "host/host_encoder.h"

#include "records/record_slots.h"

#include <cstring>
#include <new>

namespace nvbtool {

HostEncoder::HostEncoder(std::uint8_t method, std::uint8_t level, Sink sink)
    : state_(new nvb_encode_t()), sink_(std::move(sink)) {
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
