#include "external/io/io_buffer.h"

#include <nvbdll/status.h>

#include <cstdlib>
#include <cstring>
#include <limits>

namespace nvb {

namespace {

void* systemReallocate(void* block, std::size_t size) { return std::realloc(block, size); }

IoReallocate activeReallocate = systemReallocate;

// Capacity and used are 32-bit: a block that can't be told in them is not made.
bool growTo(io_buffer_t& buffer, std::uint64_t size) {
    if (size > std::numeric_limits<std::uint32_t>::max()) return false;
    if (size <= buffer.capacity && buffer.data != nullptr) return true;
    void* grown = ioReallocate(buffer.data, size == 0 ? 1 : static_cast<std::size_t>(size));
    if (grown == nullptr) return false;
    buffer.data = static_cast<std::uint8_t*>(grown);
    buffer.capacity = static_cast<std::uint32_t>(size);
    return true;
}

}  // namespace

void* ioReallocate(void* block, std::size_t size) { return activeReallocate(block, size); }

void setIoReallocate(IoReallocate reallocate) {
    activeReallocate = reallocate != nullptr ? reallocate : systemReallocate;
}

void reserveIoBuffer(io_buffer_t& buffer, std::int64_t size, std::uint8_t& status) {
    if (size < 0) return;
    if (!growTo(buffer, static_cast<std::uint64_t>(size))) status = NVB_STATUS_REC35_CONTENT;
}

void assignIoBuffer(io_buffer_t& destination, std::span<const std::uint8_t> bytes, std::uint8_t& status) {
    if (!growTo(destination, bytes.size())) {
        status = NVB_STATUS_REC35_CONTENT;
        return;
    }
    if (!bytes.empty()) std::memmove(destination.data, bytes.data(), bytes.size());
    destination.used = static_cast<std::uint32_t>(bytes.size());
}

void copyIoBuffer(io_buffer_t& destination, const io_buffer_t& source, std::uint8_t& status) {
    assignIoBuffer(destination, usedBytes(source), status);
}

bool appendIoBuffer(io_buffer_t& buffer, std::span<const std::uint8_t> bytes) {
    const std::uint64_t total = std::uint64_t{buffer.used} + bytes.size();
    if (!growTo(buffer, total)) return false;
    if (!bytes.empty()) std::memcpy(buffer.data + buffer.used, bytes.data(), bytes.size());
    buffer.used = static_cast<std::uint32_t>(total);
    return true;
}

void freeIoBuffer(io_buffer_t& buffer) {
    std::free(buffer.data);
    buffer = io_buffer_t{0, 0, nullptr};
}

}  // namespace nvb
