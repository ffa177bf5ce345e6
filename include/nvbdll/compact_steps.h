/* Single expansion steps, for a host with a dispatch of its own. Each works on the frame
 * buffer and the plain frame buffer of the state: it expands the compact frame standing
 * in `frame` into `plainFrame`. A host that uses nvbdll_processNVBRecord needs none of them. */
#ifndef NVBDLL_COMPACT_STEPS_H
#define NVBDLL_COMPACT_STEPS_H

#include "state.h"

NVB_EXTERN_C_BEGIN

NVB_EXTERN_C_END

#endif
