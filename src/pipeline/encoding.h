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

// Carries one DAT record into the output stream. Returns the bytes written out by this
// call, 0 when none or when the record was dropped or refused (see `status`).
std::uint32_t processDatRecord(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t& status);

// Writes what is pending and returns the bytes written; a failure is not reported.
std::uint32_t finalizeDatProcessing(nvb_encode_t& state);

}  // namespace nvb

#endif
