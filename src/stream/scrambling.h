#ifndef NVB_STREAM_SCRAMBLING_H
#define NVB_STREAM_SCRAMBLING_H

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::size_t kScrambleTableLength = 128;

// The scrambling key, shared by writer and reader: 128 characters of our own.
inline constexpr char kScrambleTable[] =
    "Carrier phase is a count of cycles; a slip breaks it. A block travels as one unit, "
    "and when one is damaged it costs only itself.";
static_assert(sizeof kScrambleTable == kScrambleTableLength + 1, "the key is 128 bytes");

// XORs byte i of `bytes` with byte i modulo 128 of the table, in place; its own inverse.
// Returns 0.
int scrambleBlock(std::uint8_t* bytes, std::size_t count);

}  // namespace nvb

#endif
