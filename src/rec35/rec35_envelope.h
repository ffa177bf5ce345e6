#ifndef NVB_REC35_REC35_ENVELOPE_H
#define NVB_REC35_REC35_ENVELOPE_H

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace nvb {

inline constexpr std::size_t kRec35MaxPiece = 4000;
inline constexpr std::uint8_t kRec35FrameType = 35;

enum class FragmentCode : std::uint8_t { Whole = 0, First = 1, Middle = 2, Last = 3 };

// Bits 4-5 of the byte behind the type.
[[nodiscard]] FragmentCode fragmentCodeOf(const nvb_frame_t& frame);

// What a record 35 frame says of itself behind its fragment code.
struct Rec35Envelope {
    std::uint64_t subtype;
    std::uint64_t subsubtype;
    std::span<const std::uint8_t> payload;  // this frame's piece
};

// Reads subtype, subsubtype and piece of a frame of the given length. Empty when the two
// varints or the trailer do not fit inside it.
[[nodiscard]] std::optional<Rec35Envelope> readRec35Envelope(const nvb_frame_t& frame);

// Cuts a payload into frames of at most 4000 bytes, each with its fragment code, and hands
// each to the block writer. Returns the bytes that went out; stops at the first status.
std::uint32_t writeRec35Fragments(nvb_encode_t& state, std::uint64_t subtype, std::uint64_t subsubtype,
                                  std::span<const std::uint8_t> payload, std::uint8_t& status);

}  // namespace nvb

#endif
