#ifndef NVB_REC35_REC35_WRITER_H
#define NVB_REC35_REC35_WRITER_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Carries one record 35 in DAT form into the filling block: the header checked for the
// mode, the subtype's schema record written first where the stream lacks it, the payload
// built (from the DAT form, an area, or a native record through Avro) and cut into
// frames. Only the bare block methods can carry record 35, since a reader finds no plain
// frame of it anywhere else. Counts the record in recordCount. Returns the bytes written
// out; 0 with status 15 (refused), 17, 19, 20, 21 or the block writer's on failure.
std::uint32_t writeRec35Record(nvb_encode_t& state, const std::uint8_t* dat, std::uint8_t& status);

}  // namespace nvb

#endif
