/* Single expansion steps, for a host with a dispatch of its own. Each works on the frame
 * buffer and the plain frame buffer of the state: it expands the compact frame standing
 * in `frame` into `plainFrame`. A host that uses nvbdll_processNVBRecord needs none of them. */
#ifndef NVBDLL_COMPACT_STEPS_H
#define NVBDLL_COMPACT_STEPS_H

#include "state.h"

NVB_EXTERN_C_BEGIN

/*! nvbdll_processType37() :
 *  Expands the delta epoch in the frame buffer, type 36 when `isType36` is 1, else 37,
 *  into a plain record 27 in the plain frame buffer, against the state's epoch history,
 *  which it then advances. `framed` 1 also compares the expanded record with the checksum
 *  that the compact record carries (pass 1 in byte streams and framed block levels).
 *  @return : the status, also written to *status: 0; 4 checksum differs; 6 more than 116
 *            satellites; 7 more than 6 signals, a code out of range, or a flag byte that a
 *            type 37 cannot carry; 8 a length code too wide for its field, or a record that
 *            runs past its length; 9 no memory for the work buffer.
 *  On any status the plain frame length is 0 and the history is unchanged: every later
 *  delta epoch fails alike until the next reference epoch (type 38). */
NVBDLL_API uint8_t nvbdll_processType37(nvb_expand_t* state, uint8_t* status, uint8_t framed, uint8_t isType36);

/*! nvbdll_processType38() :
 *  Expands the reference epoch (type 38) in the frame buffer into a plain record 27 in
 *  the plain frame buffer, with its checksum and end byte rebuilt, and starts the epoch
 *  history over from it.
 *  @return : the status, also written to *status: 0; 6 more than 116 satellites; 7 more
 *            than 6 signals; 8 a record that runs past its length or is too long;
 *            9 no memory. On any status the plain frame length is 0 and the history is
 *            unchanged. */
NVBDLL_API uint8_t nvbdll_processType38(nvb_expand_t* state, uint8_t* status);

/*! nvbdll_processType41() :
 *  Expands the compact list record (type 41) in the frame buffer into a plain record 40 in
 *  the plain frame buffer, whose length is then its byte 1, against the state's list table:
 *  every identifier the table has seen is listed, in rising order. The checksum carried is
 *  not tested here: the frame check of the dispatch finds a list rebuilt from a table that
 *  missed a record.
 *  @return : the status, also written to *status: 0; 1 start byte; 2 type; 8 a record
 *            shorter than its code byte, raw fields and patches say, or a rebuilt list
 *            longer than one length byte tells.
 *  On any status the plain frame length is 0 and the table is unchanged. */
NVBDLL_API uint8_t nvbdll_processType41(nvb_expand_t* state, uint8_t* status);

/*! nvbdll_processType54(), nvbdll_processType55() :
 *  Expand a compact position in the frame buffer, the delta form (54) or the reference
 *  form (55), into a plain record 11 in the plain frame buffer, whose length is then its
 *  byte 1, against the state's position history. `framed` 1 refuses a rebuilt record whose
 *  checksum differs from the carried one; with 0 the checksum is recomputed (in the delta
 *  form stored low byte first), so a delta read after a lost record looks plausible but is
 *  wrong until the next type 55.
 *  @return : the status, also written to *status: 0; 1 start byte; 2 type; 4 checksum;
 *            5 end byte; 6 nibble code above 8; 7 satellite count above 116 or change index
 *            above 115; 8 a record that runs past its input or output.
 *  On any status the history is unchanged. */
NVBDLL_API uint8_t nvbdll_processType54(nvb_expand_t* state, uint8_t* status, uint8_t framed);
NVBDLL_API uint8_t nvbdll_processType55(nvb_expand_t* state, uint8_t* status, uint8_t framed);

/*! nvbdll_processType56(), nvbdll_processType57() :
 *  Expand a compact solution in the frame buffer, the delta form (56) or the reference
 *  form (57), into a plain record 29 in the plain frame buffer, whose length is then its
 *  bytes 1 and 3, against the state's solution history. No checksum is tested here: the
 *  record 29 reader's frame check does that. Type 56 writes the record even on a status.
 *  @return : the status, also written to *status: 0; 7 block 6 too long for the
 *            satellite count, a count above 116, or a change index above 115; 8 a block
 *            that uses more bytes than its length byte says, or a record that runs past
 *            its input or output.
 *  On any status the history is unchanged. */
NVBDLL_API uint8_t nvbdll_processType56(nvb_expand_t* state, uint8_t* status);
NVBDLL_API uint8_t nvbdll_processType57(nvb_expand_t* state, uint8_t* status);

/*! nvbdll_processType66_74(), nvbdll_processType67_75(), nvbdll_processType68_76(),
 *  nvbdll_processType69_77() :
 *  Expand a compact measurement record 17 of the pair in the name (first generation 66,
 *  67, 74, 75; second generation 68, 69, 76, 77; even numbers deltas, odd references)
 *  into a plain record 17, or 117 when 256 bytes or longer, in the plain frame buffer,
 *  whose length is then byte 1, plus 256 for type 117. `framed` 1 refuses a rebuilt record
 *  whose checksum differs from the carried one, and in the first generation an end byte
 *  other than 3; with 0 the checksum is recomputed.
 *  @return : the status, also written to *status: 0; 1 start byte; 2 type; 3 the bytes do
 *            not add up to the length; 4 checksum; 5 end byte; 6 header delta; 7 satellite
 *            list above 116; 8 field code, or a rebuilt record above 511 bytes; 9
 *            measurement delta; 10 second block; 11 flags.
 *  On any status the history of the generation is unchanged. The first generation's
 *  history is reset by the second and later record 30 of subtype 0. Not re-entrant. */
NVBDLL_API uint8_t nvbdll_processType66_74(nvb_expand_t* state, uint8_t* status, uint8_t framed);
NVBDLL_API uint8_t nvbdll_processType67_75(nvb_expand_t* state, uint8_t* status, uint8_t framed);
NVBDLL_API uint8_t nvbdll_processType68_76(nvb_expand_t* state, uint8_t* status, uint8_t framed);
NVBDLL_API uint8_t nvbdll_processType69_77(nvb_expand_t* state, uint8_t* status, uint8_t framed);

/*! nvbdll_processType84(), nvbdll_processType85() :
 *  Two names of one function. Expand a subframe record in the frame buffer, type 84, 85 or
 *  86, into a plain record 25 in the plain frame buffer, whose length is then its byte 1,
 *  against the state's subframe cache. A literal enters the cache (85 and 86 of subtype 0
 *  reset it first); a reference rebuilds the block from the cache with the checksum it
 *  carries, which the dispatch's frame check then tests.
 *  @return : the status, also written to *status: 0; 1 a form that is not known, a
 *            reference to a slot or ring position outside the cache, or a record shorter
 *            than its form.
 *  On any status the plain frame length is 0 and the cache is unchanged. */
NVBDLL_API uint8_t nvbdll_processType84(nvb_expand_t* state, uint8_t* status);
NVBDLL_API uint8_t nvbdll_processType85(nvb_expand_t* state, uint8_t* status);

NVB_EXTERN_C_END

#endif
