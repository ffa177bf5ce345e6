#include "external/io/varint.h"

namespace nvb {

std::optional<Varint> readVarint(std::span<const std::uint8_t> bytes) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        const std::uint64_t group = bytes[i] & 0x7Fu;
        const std::size_t shift = 7 * i;
        // A writer never sends more than ten bytes; longer forms are read to their end.
        if (shift < 64) value |= group << shift;
        if ((bytes[i] & 0x80u) == 0) return Varint{value, i + 1};
    }
    return std::nullopt;
}

std::size_t writeVarint(std::uint64_t value, std::uint8_t* out) {
    std::size_t length = 0;
    while (value >= 0x80u) {
        out[length++] = static_cast<std::uint8_t>(value | 0x80u);
        value >>= 7;
    }
    out[length++] = static_cast<std::uint8_t>(value);
    return length;
}

}  // namespace nvb
