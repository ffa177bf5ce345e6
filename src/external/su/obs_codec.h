#ifndef NVB_EXTERNAL_SU_OBS_CODEC_H
#define NVB_EXTERNAL_SU_OBS_CODEC_H

// Compact measurement records 17, two generations. Odd types are references (67 and 75
// the plain record with another type, 69 and 77 also without the end byte), even types
// are deltas against the `predicted` image. Types from 74 up carry records of 256 bytes
// or more: their length byte holds the length minus 256, and the plain record has the
// type byte 117. The first generation (66, 67, 74, 75) is only read; the second (68, 69,
// 76, 77) is read and written, with a smoothed slope of each range and a smoothed second
// difference of each carrier phase as its prediction.
//
// The first generation's stream cursor, the compressor's output cursor and the input copy
// of the expanders are process-wide, as the format's own codecs keep them: these paths are
// not re-entrant.

#include <nvbdll/codec_state.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kTypeObs = 17;
inline constexpr std::uint8_t kTypeObsLong = 117;
inline constexpr std::uint8_t kTypeObsFirstDelta = 66;
inline constexpr std::uint8_t kTypeObsFirstReference = 67;
inline constexpr std::uint8_t kTypeObsDelta = 68;
inline constexpr std::uint8_t kTypeObsReference = 69;
inline constexpr std::uint8_t kTypeObsFirstDeltaLong = 74;
inline constexpr std::uint8_t kTypeObsFirstReferenceLong = 75;
inline constexpr std::uint8_t kTypeObsDeltaLong = 76;
inline constexpr std::uint8_t kTypeObsReferenceLong = 77;

// Length of a plain record 17 or 117 from its length and type bytes.
[[nodiscard]] std::size_t plainObsLength(const std::uint8_t* record);

// Fills the cleared image from a plain record of `length` bytes: the header, then rows
// of 20 bytes, 29 with the second block, while at least 4 bytes are left and fewer than
// 116 rows are read; then checksum and end byte. Bytes past `length` read as zero.
void parseObsImage(const std::uint8_t* record, std::size_t length, obs_image_t& image);

// Writes the plain record of the image's `rowCount` rows. Returns its length, 0 when it
// does not fit `capacity`.
std::size_t writeObsImage(const obs_image_t& image, std::uint8_t* out, std::size_t capacity);

// Brings both images into the order of `list`: row i becomes the row of the i-th listed
// satellite, predictor state included; a satellite not held gets a cleared row with only
// its number, and the rows behind the list are cleared.
void reorderObsHistory(obs_image_t& previous, obs_image_t& predicted, const std::uint8_t* list, std::size_t count);

// A reference check of a plain record: without `verify` a fresh checksum is stored
// first. 1 start byte, 2 type neither 17 nor 117, 4 checksum; 0 when good.
std::uint8_t checkObsReference(std::uint8_t* record, std::size_t length, bool verify);

// Expanders. Statuses: 1 start byte, 2 type, 3 the bytes don't add up to the length, 4
// checksum (with `verify`), 5 end byte (first generation, with `verify`), 6 header delta,
// 7 list longer than 116, 8 field code or a record longer than its limit, 9 measurement
// delta, 10 second block, 11 flags. True when the status is 0; a status leaves the
// history, and the input when it is also the output.
bool expandFirstGenerationDelta(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify);
bool expandFirstGenerationReference(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                                    std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify);
bool expandObsDelta(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity, std::uint8_t* out,
                    std::size_t outputCapacity, std::uint8_t& status, bool verify);
bool expandObsReference(obs_history_t& history, const std::uint8_t* compact, std::size_t inputCapacity,
                        std::uint8_t* out, std::size_t outputCapacity, std::uint8_t& status, bool verify);

// Compressors of the second generation: a plain record 17 or 117 becomes a type 68 or 76
// (delta), or 69 or 77 (reference), by the compact record's length. False when the record
// is longer than the compact types can carry or the output does not fit; the history then
// stays.
[[nodiscard]] bool compressObsDelta(obs_history_t& history, const std::uint8_t* plain, std::size_t plainCapacity,
                                    std::uint8_t* out, std::size_t outputCapacity);
[[nodiscard]] bool compressObsReference(obs_history_t& history, const std::uint8_t* plain,
                                        std::size_t plainCapacity, std::uint8_t* out, std::size_t outputCapacity);

// Front ends of the pairs: expand the frame buffer into the plain frame buffer, whose
// length is then byte 1, plus 256 when the rebuilt type byte is 117. `framed` is the
// verify flag. Return the status.
std::uint8_t processType66_74(nvb_expand_t& state, std::uint8_t& status, bool framed);
std::uint8_t processType67_75(nvb_expand_t& state, std::uint8_t& status, bool framed);
std::uint8_t processType68_76(nvb_expand_t& state, std::uint8_t& status, bool framed);
std::uint8_t processType69_77(nvb_expand_t& state, std::uint8_t& status, bool framed);

// A record 30 of subtype 0 announces a new reference for the first generation: the first
// such record only clears `firstRec30`, every later one resets the pairs 66/74 and 67/75.
void applyRec30ToFirstGeneration(nvb_expand_t& state, std::uint8_t subtype);

}  // namespace nvb

#endif
