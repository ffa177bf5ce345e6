#ifndef NVB_EXTERNAL_SU_SOLUTION_CODEC_H
#define NVB_EXTERNAL_SU_SOLUTION_CODEC_H

// Compact solutions: type 57 is a record 29 without its end byte, type 56 codes a record
// 29 block by block as the difference from a prediction. Every block of the delta form
// opens with a length byte that counts itself, so each block is bounds-checked by itself.

#include <nvbdll/codec_state.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kTypeSolutionDelta = 56;
inline constexpr std::uint8_t kTypeSolutionReference = 57;
inline constexpr std::uint8_t kTypeSolution = 29;

// Fills `image` (cleared first) from a plain record 29 or a type 57 of `length` bytes.
// Blocks 1 to 4 advance by their length bytes; bytes past the end read as zero.
void parseSolutionImage(solution_image_t& image, const std::uint8_t* record, std::size_t length);

// Writes the plain record that the image describes. Returns its length, 0 when it does
// not fit `capacity`.
std::size_t writeSolutionImage(const solution_image_t& image, std::uint8_t* record, std::size_t capacity);

// predicted := current with week, time, the predicted fields of block 2 and the values of
// block 4 extrapolated from previous and current; then previous := current.
void advanceSolutionHistory(const solution_image_t& current, solution_image_t& previous,
                            solution_image_t& predicted);

// Writes the type 56 form of a plain record 29 and advances the history. False when the
// output does not fit; the history then stays.
[[nodiscard]] bool compressSolutionDelta(solution_history_t& history, const std::uint8_t* plain,
                                         std::size_t plainLength, std::uint8_t* out, std::size_t outputCapacity);

// Writes the type 57 form and sets both images to the record.
[[nodiscard]] bool compressSolutionReference(solution_history_t& history, const std::uint8_t* plain,
                                             std::size_t plainLength, std::uint8_t* out,
                                             std::size_t outputCapacity);

// Expands a type 56 record of at most `inputCapacity` bytes into `image`. Statuses: 7
// block 6 too long for the satellite count, a count above 116 or a change index beyond
// the list; 8 a block that uses more bytes than its length byte says (block 5: other
// than it says) or a record that ends early. On a status the history stays.
std::uint8_t expandSolutionDelta(solution_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                 solution_image_t& image, std::uint8_t& status);
// The same against the history's prediction, leaving the history as it is: the writer's
// check that a delta reads back.
std::uint8_t expandSolutionImage(const solution_history_t& history, const std::uint8_t* compact,
                                 std::size_t inputCapacity, solution_image_t& image, std::uint8_t& status);

// Expands a type 57 record and sets both images to it. Status 8 when the record does
// not fit its input or output, else 0.
std::uint8_t expandSolutionReference(solution_history_t& history, const std::uint8_t* compact,
                                     std::size_t inputCapacity, std::uint8_t* out, std::size_t outputCapacity,
                                     std::uint8_t& status);

// Front ends. The type 56 front end writes the plain record from the image whatever the
// status; the plain frame's length is bytes 1 and 3 of what was written. Return the status.
std::uint8_t processType56(nvb_expand_t& state, std::uint8_t& status);
std::uint8_t processType57(nvb_expand_t& state, std::uint8_t& status);

}  // namespace nvb

#endif
