#ifndef NVB_PIPELINE_ENCODING_H
#define NVB_PIPELINE_ENCODING_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Back to the defaults of a new stream: header block pending, every compact family
// starting with a reference, method 0, writeToFile as the callback.
void initEncodeState(nvb_encode_t& state);

// Clears the delta histories of the compact codecs; the filling block and the reference
// times stay.
void resetEncodeState(nvb_encode_t& state);

// Frees what the library allocated inside an encode state (thinning tables, record 35
// buffers); the structures and the state are the host's.
void releaseEncodeInternals(nvb_encode_t& state);

// Parses a DAT record (header and structure) into the encode state's structure of its
// type, after copying the header into the state's DAT header area. `systemMask` is the
// dropMask that record 27 applies. Reads never pass the length the header announces.
// Returns that length, 0 for a type without a parser, a missing structure, or counts
// beyond the structure's arrays.
[[nodiscard]] std::uint16_t parseDATRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t systemMask);

// Carries one DAT record into the output stream. Returns the bytes written out by this
// call, 0 when none or when the record was dropped or refused (see `status`).
std::uint32_t processDatRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t& status);

// Writes what is pending and returns the bytes written; a failure is not reported.
std::uint32_t finalizeDatProcessing(nvb_encode_t& state);

}  // namespace nvb

#endif
