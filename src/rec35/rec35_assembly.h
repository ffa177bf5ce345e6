#ifndef NVB_REC35_ASSEMBLY_H
#define NVB_REC35_ASSEMBLY_H

#include <nvbdll/rec35_state.h>

namespace nvb {

// Back to "no record in progress"; a schema record is swallowed until one is decoded.
void resetRec35Assembly(rec35_assembly_t& assembly);
// Frees the payload buffer and every slot the assembly owns.
void freeRec35Assembly(rec35_assembly_t& assembly);
// Frees what the decoded content owns, then the content itself.
void freeRec35Content(rec35_content_t* content);

}  // namespace nvb

#endif
