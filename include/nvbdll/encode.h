/* Writing a log: DAT records in, a compressed log stream out through writeCallback.
 *
 * nvbdll_initNVBLib; the host allocates an nvb_encode_t and the record structures of the
 * types it writes; nvbdll_initDATEncodeState; fill state->records; set compressionMethod,
 * compressionLevel, writeCallback/writeContext and the filters; nvbdll_processDATRecord
 * for each record; nvbdll_finalizeDATProcessing; nvbdll_freeEncodeState. */
#ifndef NVBDLL_ENCODE_H
#define NVBDLL_ENCODE_H

#include "state.h"

NVB_EXTERN_C_BEGIN

/*! nvbdll_newEncodeState() :
 *  A stub kept for hosts that call it: the host allocates the encode state itself.
 *  @return : NULL. */
NVBDLL_API nvb_encode_t* nvbdll_newEncodeState(void);

/*! nvbdll_initDATEncodeState() :
 *  Resets an encode state to its defaults: the next block carries a header block, every
 *  compact family starts with a reference, method 0, level 0, writeToFile as callback.
 *  Also clears the table of record structures, which the host fills afterwards.
 *  @return : 0. */
NVBDLL_API int nvbdll_initDATEncodeState(nvb_encode_t* state);

/*! nvbdll_resetDATEncodeState() :
 *  Clears the delta histories of the compact codecs, and makes the next record of each
 *  record 35 subtype a reference; the filling block stays. */
NVBDLL_API void nvbdll_resetDATEncodeState(nvb_encode_t* state);

/*! nvbdll_processDATRecord() :
 *  Parses one DAT record, filters and thins it, writes its stream form (compact where the
 *  type has a compact carrier) and passes it to the Huffman stream or the filling block.
 *  `datRecord` must hold as many bytes as its header announces; the parser reads no further.
 *  @return : bytes handed to writeCallback by this call, 0 if none or if the record was
 *            dropped or could not be written.
 *  Statuses: 16 no writeCallback; 8, 10, 13, 24, 25 a block failed to compress (it stays
 *  and is tried again with the next record); 15 a record the writer can't take (longer
 *  than a frame, a count beyond its structure, a record 25 of a subtype other than 0 and
 *  2, a record 26 or 28 of a subtype without a layout, a record 26 of subtype 14, a
 *  record 35 in methods 0, 1, 2, 4, or whose header rec35Mode refuses); record 35: 17 no
 *  native record or area, or no memory, 19 Avro failure, 20 count above capacity, 21
 *  schema newer than the library's or rejected. The DAT form of record 35 is in
 *  rec35_state.h. dropMask drops records 26 and 28 of the systems it names, legacyMode
 *  records 25 of a subtype other than 0 and records 26 other than subtype 0: both
 *  without a status. */
NVBDLL_API uint32_t nvbdll_processDATRecord(nvb_encode_t* state, uint8_t* datRecord, uint8_t* status);

/*! nvbdll_finalizeDATProcessing() :
 *  Writes what is pending: the last block (even an empty one), or the closing end symbol
 *  of a Huffman stream. A failure here is not reported.
 *  @return : bytes handed to writeCallback. */
NVBDLL_API uint32_t nvbdll_finalizeDATProcessing(nvb_encode_t* state);

/*! nvbdll_freeEncodeState() :
 *  Deletes the 19 record structures a host builds (DAT header, 5, 11, 12, 15, 16, 17, 19,
 *  21, 25, 26, 27, 28, 29, 30, 31, 40, 98, 99) with scalar delete, and the state. NULL is
 *  allowed. */
NVBDLL_API void nvbdll_freeEncodeState(nvb_encode_t* state);

NVB_EXTERN_C_END

#endif
