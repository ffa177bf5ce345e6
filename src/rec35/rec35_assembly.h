#ifndef NVB_REC35_ASSEMBLY_H
#define NVB_REC35_ASSEMBLY_H

#include <nvbdll/state.h>

#include <cstdint>

namespace nvb {

// Back to "no record in progress", every slot cleared to no schema and a reference needed,
// a schema record swallowed until the host says otherwise. Buffers, slots and caches stay.
void resetRec35Assembly(rec35_assembly_t& assembly);
// After a jump in the input: the record in progress is dropped and every chain waits for
// a reference; the schemas stay known.
void restartRec35Assembly(rec35_assembly_t& assembly);
// Frees the payload buffer and every slot the assembly owns.
void freeRec35Assembly(rec35_assembly_t& assembly);
// Frees what the decoded content owns (native records, areas, schema copy), then the
// content itself.
void freeRec35Content(rec35_content_t* content);

// Marks every slot as needing a new reference record, in both directions.
void resetRec35Chains(rec35_assembly_t& assembly);

// Runs every frame that a block getter returned through the fragment assembly.
// `result` is the getter's result, taken as a 16-bit type (0 nothing complete, 65535 a
// framing failure). Returns what the pipeline goes on with: 35 when a record is complete,
// 0 while fragments are outstanding, the given result for a foreign record, -1 on failure.
// After any status every chain needs a reference.
std::int32_t assembleRec35(nvb_frame_t& frame, rec35_content_t* content, rec35_assembly_t& assembly,
                           std::int32_t result, std::uint8_t& status);

// The fragment state machine over the frame in the frame buffer: stores its piece behind
// the record in progress or starts a new one, and empties the frame buffer's length.
void acceptRec35Fragment(nvb_frame_t& frame, rec35_content_t& content, rec35_assembly_t& assembly,
                         std::uint8_t& status);

}  // namespace nvb

#endif
