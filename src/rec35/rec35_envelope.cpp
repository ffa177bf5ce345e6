#include "rec35/rec35_envelope.h"

#include "common/byte_sum.h"
#include "external/io/varint.h"
#include "stream/block_writer.h"
#include "stream/framing.h"

#include <cstring>

namespace nvb {

namespace {

constexpr std::size_t kEnvelopeStart = 4;  // start, length, type, length and code
constexpr std::size_t kTrailer = 3;        // checksum and end byte

}  // namespace

FragmentCode fragmentCodeOf(const nvb_frame_t& frame) {
    return static_cast<FragmentCode>((frame.data[3] >> 4) & 0x03u);
}

std::optional<Rec35Envelope> readRec35Envelope(const nvb_frame_t& frame) {
    const std::size_t length = std::min<std::size_t>(frame.length, sizeof frame.data);
    if (length < kEnvelopeStart + kTrailer) return std::nullopt;
    const std::span<const std::uint8_t> body(frame.data + kEnvelopeStart, length - kEnvelopeStart - kTrailer);
    const auto subtype = readVarint(body);
    if (!subtype) return std::nullopt;
    const auto subsubtype = readVarint(body.subspan(subtype->length));
    if (!subsubtype) return std::nullopt;
    return Rec35Envelope{subtype->value, subsubtype->value, body.subspan(subtype->length + subsubtype->length)};
}

std::uint32_t writeRec35Fragments(nvb_encode_t& state, std::uint64_t subtype, std::uint64_t subsubtype,
                                  std::span<const std::uint8_t> payload, std::uint8_t& status) {
    std::uint32_t written = 0;
    std::size_t offset = 0;
    FragmentCode code = payload.size() > kRec35MaxPiece ? FragmentCode::First : FragmentCode::Whole;
    while (offset < payload.size() && status == 0) {
        const std::size_t piece = std::min(payload.size() - offset, kRec35MaxPiece);
        nvb_frame_t& frame = state.frame;
        std::memset(&frame, 0, sizeof frame);
        frame.data[0] = kStartByte;
        frame.data[2] = kRec35FrameType;
        std::size_t n = kEnvelopeStart;
        n += writeVarint(subtype, frame.data + n);
        n += writeVarint(subsubtype, frame.data + n);
        std::memcpy(frame.data + n, payload.data() + offset, piece);
        n += piece;
        const auto length = static_cast<std::uint32_t>(n + kTrailer);
        frame.data[3] = static_cast<std::uint8_t>(static_cast<std::uint8_t>(code) << 4);
        storeLengthExtension(kRec35FrameType, length, frame.data[1], frame.data[3]);
        writeU16BigEndian(frame.data + n, byteSum(frame.data, n));
        frame.data[n + 2] = kEndByte;
        frame.length = static_cast<std::uint16_t>(length);
        written += appendToBlock(state, status);
        offset += piece;
        code = payload.size() - offset > kRec35MaxPiece ? FragmentCode::Middle : FragmentCode::Last;
    }
    return written;
}

}  // namespace nvb
