#ifndef NVB_STREAM_BLOCK_READER_H
#define NVB_STREAM_BLOCK_READER_H

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

// True when ten bytes open a block stream: three zero bytes, any low length byte, and
// one of the two header magics.
[[nodiscard]] bool isBlockStreamStart(const std::uint8_t* firstTen);

// One step of the block reader: takes the byte (when haveByte), decodes a block the
// moment its last byte arrives, and hands out the next record of the decoded block.
// Returns the record type, 0 for none yet, -1 on a failure that `status` tells.
int feedBlockByte(nvb_expand_t& state, bool haveByte, std::uint8_t byte, std::uint8_t& more, std::uint8_t& status);

// Takes in, at once, the leading bytes of `bytes` that feeding one by one would only
// append to the block being gathered: none completes a block, none meets a block too long
// or a buffer with records still to hand out, and detection and search are over. Returns
// how many it took; the byte after them is for feedBlockByte, and the state is as those
// calls would have left it.
std::size_t takeQuietBlockBytes(nvb_expand_t& state, const std::uint8_t* bytes, std::size_t count);

// Takes the next record out of the block output buffer into the frame buffer, rebuilding
// a frame from a bare record. Returns its type; 0 when the buffer is empty; 255 with
// status 3 on failure, the rest of the block thrown away.
int nextBlockRecord(nvb_expand_t& state, std::uint8_t& more, std::uint8_t& status);

// Decodes the block at the front of the block input buffer into the block output buffer.
// Returns 1 when a block was consumed, 0 when more bytes are needed, -1 on a failure that
// `status` tells. A block that is too long or fails to decompress starts the search for
// the next block start at once, which may already decode one (the result is then 1).
[[nodiscard]] int decodeBlock(nvb_expand_t& state, std::uint8_t& status);

// Looks for a plausible block start after damage. Returns true when it has decoded a
// content block.
[[nodiscard]] bool searchBlockStart(nvb_expand_t& state, std::uint8_t& status);

// Removes `count` bytes from the front of the block input buffer; zero or less does nothing.
void discardInput(nvb_expand_t& state, std::int64_t count);

}  // namespace nvb

#endif
