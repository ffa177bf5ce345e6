#ifndef NVB_IO_VARINT_H
#define NVB_IO_VARINT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace nvb {

// Unsigned base-128 varints: seven bits a byte, least significant group first, bit 7 set
// on every byte but the last.
inline constexpr std::size_t kMaxVarintLength = 10;

struct Varint {
    std::uint64_t value;
    std::size_t length;  // bytes taken
};

// Reads a varint of any length: it ends at the first byte with bit 7 clear, and groups
// beyond the 64th bit are dropped. Empty when the bytes end before it does.
[[nodiscard]] std::optional<Varint> readVarint(std::span<const std::uint8_t> bytes);

// Writes the shortest form into `out`, which holds kMaxVarintLength bytes; returns its length.
std::size_t writeVarint(std::uint64_t value, std::uint8_t* out);

}  // namespace nvb

#endif
