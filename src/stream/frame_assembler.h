#ifndef NVB_STREAM_FRAME_ASSEMBLER_H
#define NVB_STREAM_FRAME_ASSEMBLER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Takes one input byte into the assembly (through the Huffman decoder when asked).
// Returns the record type when a frame has been completed and copied into `frame`,
// 0 when more input is needed, -1 on a failure that `status` tells (2 checksum,
// 3 impossible length, 6 Huffman end symbol). `status` is only written on failure.
int assembleFrame(nvb_frame_assembly_t& assembly, std::uint8_t byte, std::uint8_t& status, bool huffman,
                  nvb_frame_t& frame);

// Empties the assembly and puts the Huffman decoder back at the root.
void resetFrameAssembly(nvb_frame_assembly_t& assembly);

}  // namespace nvb

#endif
