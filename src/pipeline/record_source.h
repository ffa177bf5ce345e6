#ifndef NVB_PIPELINE_RECORD_SOURCE_H
#define NVB_PIPELINE_RECORD_SOURCE_H

#include <nvbdll/state.h>

#include <cstdint>
#include <cstdio>

namespace nvb {

// The one routine behind every record getter: keeps the first ten bytes to tell a byte
// stream from a block stream, then feeds the frame assembler or the block reader.
// Returns the record type standing in the frame buffer, 0 for none yet, -1 on a failure
// that `status` tells, 255 on a block record failure (status 3).
std::int32_t getNextRecord(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more,
                           std::uint8_t& status, bool huffman);

// The loop behind the two file getters.
std::int32_t readFileRecord(nvb_expand_t& state, std::FILE* file, std::uint8_t& status, bool huffman);

}  // namespace nvb

#endif
