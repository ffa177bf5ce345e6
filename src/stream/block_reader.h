#ifndef NVB_STREAM_BLOCK_READER_H
#define NVB_STREAM_BLOCK_READER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// True when ten bytes open a block stream: three zero bytes, any low length byte, and
// one of the two header magics.
[[nodiscard]] bool isBlockStreamStart(const std::uint8_t* firstTen);

// One step of the block reader: takes the byte (when haveByte), decodes a block the
// moment its last byte arrives, and hands out the next record of the decoded block.
// Returns the record type, 0 for none yet, -1 on a failure that `status` tells.
int feedBlockByte(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more,
                  std::uint8_t& status);

// Takes the next record out of the block output buffer into the frame buffer, rebuilding
// a frame from a bare record. Returns its type; 0 when the buffer is empty; 255 with
// status 3 on failure.
int nextBlockRecord(nvb_expand_t& state, std::uint8_t& more, std::uint8_t& status);

}  // namespace nvb

#endif
