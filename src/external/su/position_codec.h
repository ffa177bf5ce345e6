#ifndef NVB_EXTERNAL_SU_POSITION_CODEC_H
#define NVB_EXTERNAL_SU_POSITION_CODEC_H

// Compact positions: type 55 is a record 11 one byte shorter (its end byte dropped), type
// 54 codes a record 11 as the difference from a linear prediction of the last two. Both
// sides keep `previous` and `predicted` in step; a reference replaces them, a good delta
// advances them, and any failure leaves them as they were.

#include <nvbdll/codec_state.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kTypePositionDelta = 54;
inline constexpr std::uint8_t kTypePositionReference = 55;
inline constexpr std::uint8_t kTypePosition = 11;

// Fills `image` from a plain record 11 of at most `remaining` bytes when its start byte is
// 2 and its satellite count at most 116; otherwise, or when the record is shorter than its
// counts say, leaves the image as it was and returns false.
[[nodiscard]] bool parsePositionImage(std::size_t remaining, position_image_t& image, const std::uint8_t* record);

// predicted := the linear extrapolation of the ten head fields from previous and current,
// with current's solution byte, satellite count and lists.
void advancePositionHistory(const position_image_t& previous, position_image_t& predicted,
                            const position_image_t& current);

// Writes the type 54 form of a plain record 11 and advances the history. The stream
// cursor is process-wide, so this must not run in two threads at once. False when the
// record does not parse or the output does not fit; the history then stays.
[[nodiscard]] bool compressPositionDelta(position_history_t& history, const std::uint8_t* plain,
                                         std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity);

// Writes the type 55 form and sets both images to the record.
[[nodiscard]] bool compressPositionReference(position_history_t& history, const std::uint8_t* plain,
                                             std::size_t inputCapacity, std::uint8_t* out,
                                             std::size_t outputCapacity);

// Expand a type 54 or 55 record into the plain record 11. With `verify` a rebuilt record
// whose checksum differs from the carried one is refused (status 4); without, the
// checksum is recomputed. Statuses: 1 start byte, 2 type, 4 checksum, 5 end byte, 6 nibble
// code, 7 satellite count or change index, 8 the record does not fit its input or output.
// Returns the status, also written to `status`.
std::uint8_t expandPositionDelta(position_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                 std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify);
std::uint8_t expandPositionReference(position_history_t& history, const std::uint8_t* compact,
                                     std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity,
                                     std::uint8_t& status, bool verify);

// Front ends: expand the frame buffer into the plain frame buffer, whose length is then
// byte 1 of the rebuilt record. `framed` is the verify flag. Return the status.
std::uint8_t processType54(nvb_expand_t& state, std::uint8_t& status, bool framed);
std::uint8_t processType55(nvb_expand_t& state, std::uint8_t& status, bool framed);

}  // namespace nvb

#endif
