#ifndef NVB_IO_IO_BUFFER_H
#define NVB_IO_IO_BUFFER_H

#include <nvbdll/rec35_state.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace nvb {

// Every block of the record 35 layer is reallocated through this one function, so that
// a test can make any allocation fail. It has the contract of std::realloc.
using IoReallocate = void* (*)(void* block, std::size_t size);
void* ioReallocate(void* block, std::size_t size);
// Sets the reallocation function; null puts std::realloc back. Not for concurrent use.
void setIoReallocate(IoReallocate reallocate);

// Grows the buffer's block to hold `size` bytes, keeping its contents and `used`. A
// negative size does nothing; a size above 32 bits or the capacity reallocates exactly.
// Status 17 when the block can't be had, the buffer then unchanged.
void reserveIoBuffer(io_buffer_t& buffer, std::int64_t size, std::uint8_t& status);

// Makes `destination` a byte-for-byte copy of `source`, growing it as needed; status 17
// when it can't grow, the destination then unchanged.
void copyIoBuffer(io_buffer_t& destination, const io_buffer_t& source, std::uint8_t& status);

// The same from bytes that are not in a buffer.
void assignIoBuffer(io_buffer_t& destination, std::span<const std::uint8_t> bytes, std::uint8_t& status);

// Appends bytes behind `used`, growing the block to exactly the new length; false when it
// can't grow, the buffer then unchanged.
[[nodiscard]] bool appendIoBuffer(io_buffer_t& buffer, std::span<const std::uint8_t> bytes);

// Releases the block and zeroes the buffer.
void freeIoBuffer(io_buffer_t& buffer);

inline std::span<const std::uint8_t> usedBytes(const io_buffer_t& buffer) {
    return {buffer.data, buffer.data != nullptr ? buffer.used : 0u};
}

}  // namespace nvb

#endif
