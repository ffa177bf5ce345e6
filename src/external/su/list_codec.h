#ifndef NVB_EXTERNAL_SU_LIST_CODEC_H
#define NVB_EXTERNAL_SU_LIST_CODEC_H

// Type 41 carries a record 40, a time-tagged list of 16-bit values with small identifiers,
// as a sparse patch against a table of the last 128 values: the week as 0, +1 or raw, the
// time as its difference from a linear prediction or raw, then only the entries that
// changed, by a signed byte or raw. There is no reference form. The compressor addresses
// its table by list position, the expander by identifier, and the expander lists every
// identifier it has seen: the two agree for lists of rising identifiers that only grow.

#include <nvbdll/codec_state.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kTypeList = 40;
inline constexpr std::uint8_t kTypeListCompact = 41;

// Writes the type 41 form of the plain record 40 of `size` bytes into `out` and advances
// the state. False, with nothing written and the state unchanged, when the record is shorter
// than its head and trailer, its length byte passes `size`, or its compact form could pass
// `capacity` or one length byte (a damaged record whose entries run into its trailer).
[[nodiscard]] bool compressListRecord(list_state_t& state, const std::uint8_t* plain, std::size_t size,
                                      std::uint8_t* out, std::size_t capacity);

// Rebuilds the plain record 40 of a type 41 record of `size` bytes into `out` and advances
// the state. Returns the status: 0; 1 start byte; 2 type; 8 a record shorter than its code
// byte, raw fields and patches say, or a rebuilt list longer than `capacity` or its one
// length byte. On any status the state is unchanged.
std::uint8_t expandListRecord(list_state_t& state, const std::uint8_t* compact, std::size_t size, std::uint8_t* out,
                              std::size_t capacity);

// Front end of type 41: expands the frame buffer into the plain frame buffer, whose length
// is then byte 1 of the rebuilt record. Returns the status, also written to `status`.
std::uint8_t processType41(nvb_expand_t& state, std::uint8_t& status);

// The record 40 writer's hook: the compact form when the expander, from the state it
// holds, rebuilds the record byte for byte; otherwise the plain record, with the state as
// it was. Returns the frame length.
std::uint16_t compressRec40Frame(nvb_encode_t& state, const nvb_frame_t& plain, nvb_frame_t& out);

}  // namespace nvb

#endif
