// Property: any run of record 35 frames, whole, fragmented, broken or cut by other
// records, written into a bare block stream and read through any getter, with whatever
// the getter announces processed and retrieved, never reads or writes outside a buffer,
// never leaks and never hangs.
//
// Input: a byte choosing the getter, whether schema records are delivered and whether all
// conversions into plain records run, a byte choosing the bare method, then frames: two
// bytes (length of the body, its top four bits the fragment code; bit 15 makes a short
// foreign record instead) and the body, the bytes behind the fragment code: subtype and
// subsubtype varints, then the piece.
#include <nvbdll/nvbdll.h>

#include "common/byte_sum.h"
#include "host/host_encoder.h"
#include "stream/block_writer.h"
#include "support/host.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

namespace {

constexpr std::array<std::uint8_t, 4> kBareMethods = {3, 5, 6, 7};
constexpr std::array<nvbtest::Getter, 4> kGetters = {nvbtest::Getter::NvaFile, nvbtest::Getter::NvbFile,
                                                     nvbtest::Getter::NvbByByte, nvbtest::Getter::NvaByByte};
constexpr std::size_t kLongestBody = 4095 - 7;

// The frame in the encoder's frame buffer, checksum and end byte included.
void putFrame(nvb_encode_t& state, std::uint8_t type, std::uint8_t code, const std::uint8_t* body,
              std::size_t size) {
    nvb_frame_t& frame = state.frame;
    std::memset(&frame, 0, sizeof frame);
    const std::size_t length = size + 7;
    frame.data[0] = 0x02;
    frame.data[1] = static_cast<std::uint8_t>(length);
    frame.data[2] = type;
    frame.data[3] = type == 35 ? static_cast<std::uint8_t>((code << 4) | ((length >> 8) & 0x0F)) : code;
    std::memcpy(frame.data + 4, body, size);
    nvb::writeU16BigEndian(frame.data + 4 + size, nvb::byteSum(frame.data, 4 + size));
    frame.data[length - 1] = 0x03;
    frame.length = static_cast<std::uint16_t>(length);
}

std::vector<std::uint8_t> writeStream(const std::uint8_t* data, std::size_t size, std::uint8_t method) {
    std::vector<std::uint8_t> output;
    nvbtool::HostEncoder encoder(method, 0, [&output](std::span<const std::uint8_t> unit) {
        output.insert(output.end(), unit.begin(), unit.end());
    });
    nvb_encode_t& state = encoder.state();
    for (std::size_t position = 0; position + 2 <= size;) {
        const std::uint16_t head = static_cast<std::uint16_t>(data[position] | (data[position + 1] << 8));
        const bool foreign = (head & 0x8000u) != 0;
        const std::size_t wanted = foreign ? (head & 0xFFu) % 200 : head & 0x0FFFu;
        const std::size_t body = std::min({wanted, size - position - 2, kLongestBody});
        putFrame(state, foreign ? 14 : 35, static_cast<std::uint8_t>((head >> 12) & 0x03), data + position + 2, body);
        std::uint8_t status = 0;
        (void)nvb::appendToBlock(state, status);
        position += 2 + body;
    }
    encoder.finish();
    return output;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const nvbtest::Handle state;
    const std::vector<std::uint8_t> stream = writeStream(data + 2, size - 2, kBareMethods[data[1] % 4]);
    const nvbtest::Getter getter = kGetters[data[0] % 4];
    state->rec35Assembly.schema_swallow = (data[0] & 0x80) != 0 ? 1 : 0;
    // Every conversion into plain records, all signals included.
    if ((data[0] & 0x40) != 0) state->convertRec35Sub16 = state->convertAllObservables = 1;
    (void)nvbtest::readStream(state.get(), stream, getter);
    if (getter == nvbtest::Getter::NvbByByte) nvbdll_resetNVBExpandState(state.get());
    return 0;
}
