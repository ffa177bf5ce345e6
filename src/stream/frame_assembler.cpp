#include "stream/frame_assembler.h"

#include <nvbdll/status.h>

#include "common/byte_sum.h"
#include "stream/framing.h"
#include "stream/huffman.h"

#include <cstring>

namespace nvb {

namespace {

// One move per dropped byte: the buffer is short and false starts are rare.
void dropFirstByte(nvb_frame_assembly_t& assembly) {
    if (assembly.fill == 0) return;
    --assembly.fill;
    std::memmove(assembly.bytes, assembly.bytes + 1, assembly.fill);
}

// Appends the input byte, or what the Huffman decoder makes of it. Returns the decoder's
// result: -1 for the end symbol, else the number of bytes appended.
int takeInputByte(nvb_frame_assembly_t& assembly, std::uint8_t byte, bool huffman) {
    if (!huffman) {
        assembly.bytes[assembly.fill++] = byte;
        return 1;
    }
    // The state is packed: the position is copied out rather than bound by reference.
    const void* position = assembly.huffmanPosition;
    const int decoded = huffmanDecodeByte(position, byte, assembly.decoded, false);
    assembly.huffmanPosition = position;
    if (decoded > 0) {
        std::memcpy(assembly.bytes + assembly.fill, assembly.decoded, static_cast<std::size_t>(decoded));
        assembly.fill = static_cast<std::uint16_t>(assembly.fill + decoded);
    }
    return decoded;
}

}  // namespace

int assembleFrame(nvb_frame_assembly_t& assembly, std::uint8_t byte, std::uint8_t& status, bool huffman,
                  nvb_frame_t& frame) {
    // Resynchronisation is this loop: the search for a start byte, one byte at a time.
    while (assembly.fill > 0 && assembly.bytes[0] != kStartByte) dropFirstByte(assembly);

    if (assembly.fill >= 4) {
        const std::uint8_t type = assembly.bytes[2];
        const std::uint32_t length = addLengthExtension(type, assembly.bytes[1], assembly.bytes[3]);
        if (length == 0 || length > kMaxFrameLength) {
            dropFirstByte(assembly);
            status = NVB_STATUS_FRAME_LENGTH;
            return -1;
        }
        // A byte that arrives while a whole frame is already held (Huffman can deliver
        // several at once) is not taken in.
        if (assembly.fill < length) takeInputByte(assembly, byte, huffman);
        if (assembly.fill < length) return 0;
        if (!isCompactType(type)) {
            const bool checksumGood = length >= 3 && readU16BigEndian(assembly.bytes + length - 3) ==
                                                         byteSum(assembly.bytes, length - 3);
            if (!checksumGood) {
                // Only the false start byte goes; the bytes behind it are searched again.
                dropFirstByte(assembly);
                status = NVB_STATUS_CHECKSUM;
                return -1;
            }
        }
        std::memset(&frame, 0, sizeof frame);
        std::memcpy(frame.data, assembly.bytes, length);
        frame.length = static_cast<std::uint16_t>(length);
        assembly.fill = static_cast<std::uint16_t>(assembly.fill - length);
        std::memmove(assembly.bytes, assembly.bytes + length, assembly.fill);
        return type;
    }

    if (takeInputByte(assembly, byte, huffman) < 0) {
        status = NVB_STATUS_HUFFMAN_END;
        return -1;
    }
    return 0;
}

void resetFrameAssembly(nvb_frame_assembly_t& assembly) {
    std::memset(assembly.bytes, 0, sizeof assembly.bytes);
    assembly.fill = 0;
    std::memset(assembly.decoded, 0, sizeof assembly.decoded);
    const void* position = nullptr;
    huffmanDecodeByte(position, 0, assembly.decoded, true);
    assembly.huffmanPosition = position;
}

}  // namespace nvb
