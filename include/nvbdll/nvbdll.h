/* nvbdll: reads and writes the raw log streams of a GNSS receiver.
 *
 * Reading: nvbdll_initNVBLib once, nvbdll_GetNVBStateHandle, then per record a getter
 * (nvbdll_getNVBRecord, or by byte following `more`), nvbdll_processNVBRecord and
 * nvbdll_retrieveDATRecord; at status 1 free the handle and the library.
 * All state lives in the object behind the handle; options are fields of that object. */
#ifndef NVBDLL_H
#define NVBDLL_H

#include "compact_steps.h"
#include "encode.h"
#include "nvbdll_platform.h"
#include "records.h"
#include "state.h"
#include "status.h"

NVB_EXTERN_C_BEGIN

/*! nvbdll_getNVBLibVersion() :
 *  Writes the version as "8.97 " (major, minor, one blank) into `text`.
 *  @return : the length written, 5. The caller provides at least 6 bytes. */
NVBDLL_API int nvbdll_getNVBLibVersion(char* text);

/*! nvbdll_initNVBLib() :
 *  Builds the process-wide Huffman tree, freeing any earlier one first. Call once before
 *  any other function, and never beside anything else.
 *  @return : 0. */
NVBDLL_API int nvbdll_initNVBLib(void);

/*! nvbdll_freeNVBLib() :
 *  Frees the Huffman tree. No state may be reading a Huffman stream afterwards.
 *  @return : 0. */
NVBDLL_API int nvbdll_freeNVBLib(void);

/*! nvbdll_GetNVBStateHandle() :
 *  Allocates an expand state with its record structures, set to the defaults.
 *  Does not build the Huffman tree (see nvbdll_initNVBLib).
 *  @return : the state, or NULL when it can't be allocated. */
NVBDLL_API nvb_expand_t* nvbdll_GetNVBStateHandle(void);

/*! nvbdll_FreeNVBStateHandle() :
 *  Frees an expand state and everything it owns. NULL is allowed.
 *  @return : NULL. */
NVBDLL_API nvb_expand_t* nvbdll_FreeNVBStateHandle(nvb_expand_t* state);

/*! nvbdll_newExpandState() :
 *  Rebuilds the Huffman tree, then as nvbdll_GetNVBStateHandle. Rebuilding leaves any
 *  state already reading a Huffman stream on freed nodes.
 *  @return : the state, or NULL. */
NVBDLL_API nvb_expand_t* nvbdll_newExpandState(void);

/*! nvbdll_freeExpandState() :
 *  Frees only the 19 record structures that a host builds itself (DAT header, 5, 11, 12,
 *  15, 16, 17, 19, 21, 25, 26, 27, 28, 29, 30, 31, 40, 98, 99) and the state. NULL is
 *  allowed. Use it only for a state whose structures the host allocated with C++ scalar
 *  new (`new Rec27`, `operator new(4)` for the DAT header); it reaches nothing else. */
NVBDLL_API void nvbdll_freeExpandState(nvb_expand_t* state);

/*! nvbdll_initNVBExpandState() :
 *  Returns a state to its defaults, stream detection included. This also clears the table
 *  of record structures, which the host must then fill again.
 *  @return : true on success. */
NVBDLL_API bool nvbdll_initNVBExpandState(nvb_expand_t* state);

/*! nvbdll_resetNVBExpandState() :
 *  Clears the delta histories of the compact codecs, for use after a jump in the input;
 *  a record 35 in progress is dropped and every record 35 subtype waits for a reference
 *  record, its schema still known. Buffers, stream mode and flags stay. */
NVBDLL_API void nvbdll_resetNVBExpandState(nvb_expand_t* state);

/*! nvbdll_getNVBRecord() :
 *  Reads the next record of `file`, Huffman decoding on.
 *  @return : the record type (>0) when a record stands in the frame buffer (status 0 or 18),
 *            0 when none, -1 on a failure that *status tells (1 at the end of the file).
 *            A record 35, joined from its fragments in block streams only, is announced as
 *            57 (subtype 2) or 38 (subtypes 9, 19) where convertRec35Sub2/9/19 are set.
 *            Record 35 statuses: 7 no payload, 17 no content object, 18 fragments out of
 *            order or cut by another record (which comes with it). */
NVBDLL_API int32_t nvbdll_getNVBRecord(nvb_expand_t* state, FILE* file, uint8_t* status);

/*! nvbdll_getNVARecord() :
 *  As nvbdll_getNVBRecord, Huffman decoding off. A block stream is still recognised. */
NVBDLL_API int32_t nvbdll_getNVARecord(nvb_expand_t* state, FILE* file, uint8_t* status);

/*! nvbdll_getNVBRecordByByte() :
 *  One step of the reader with one new byte (haveByte 1) or none (haveByte 0).
 *  *more is 1 when another record can be taken without a new byte: call again with
 *  haveByte 0 until it is 0.
 *  @return : as nvbdll_getNVBRecord; status 3 when called without a byte and none is queued. */
NVBDLL_API int32_t nvbdll_getNVBRecordByByte(nvb_expand_t* state, uint8_t byte, uint8_t* status,
                                             uint8_t haveByte, uint8_t* more);

/*! nvbdll_getNVARecordByByte() :
 *  One step with one new byte, no Huffman and no stream detection: bytes go straight to
 *  the frame assembler. */
NVBDLL_API int32_t nvbdll_getNVARecordByByte(nvb_expand_t* state, uint8_t byte, uint8_t* status);

/*! nvbdll_processNVBRecord() :
 *  Expands and decodes the record that the last getter left in the frame buffer.
 *  `unused` is not read. *recordType receives the plain type, 65535 for none.
 *  A record 35 reports 35, or 0 for a schema record while rec35Assembly.schema_swallow
 *  is set (every record of subsubtype 0 is then kept from the host).
 *  @return : length of the DAT form, 0 when nothing is delivered; a record 35's may pass
 *            65535 (see rec35_state.h).
 *  Statuses: 2 checksum (a record 35 outside the bare block levels), 5 end byte, 7
 *  expansion failed; record 35: 17 no memory, 19 Avro or schema failure, 20 count above
 *  capacity, 23 delta record while a reference is needed. */
NVBDLL_API uint32_t nvbdll_processNVBRecord(nvb_expand_t* state, uint32_t unused,
                                            uint16_t* recordType, uint8_t* status);

/*! nvbdll_retrieveDATRecord() :
 *  Writes the DAT form of the record just decoded into `out`, which must hold the length
 *  that nvbdll_processNVBRecord returned. `recordType` must be the type it reported.
 *  The DAT length is taken from the header's low byte for records 98 and 99, so one
 *  longer than 255 bytes is written only that far; a host keeping them whole reads the
 *  rest from the state's structure. Record 34 comes from the generic area.
 *  @return : true when written in a form its type defines; false for a wrong type or a
 *            NULL `out` (nothing written) and for types carried as generic bodies. */
NVBDLL_API bool nvbdll_retrieveDATRecord(nvb_expand_t* state, int16_t recordType, uint8_t* out);

/*! nvbdll_convertRecNN() :
 *  Twelve names of one function: nvbdll_processNVBRecord with the type thrown away.
 *  @return : the DAT length, 0 when nothing is delivered. */
NVBDLL_API uint32_t nvbdll_convertRec11(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec12(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec15(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec17(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec19(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec21(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec25(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec26(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec27(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec28(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec29(nvb_expand_t* state, uint8_t unused, uint8_t* status);
NVBDLL_API uint32_t nvbdll_convertRec40(nvb_expand_t* state, uint8_t unused, uint8_t* status);

/*! nvbdll_processTypeXX() :
 *  Single step for a host with a dispatch of its own: copies the frame buffer to the
 *  plain frame buffer.
 *  @return : false. */
NVBDLL_API bool nvbdll_processTypeXX(nvb_expand_t* state);

/*! nvbdll_readRec16Buffer() :
 *  Reads an opaque record 16 from `frame` (a frame buffer of the state's layout) into the
 *  state's Rec16 and DAT header.
 *  @return : the DAT length (frame length minus 3), 0 without a Rec16 structure. */
NVBDLL_API uint16_t nvbdll_readRec16Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec11Buffer() :
 *  Reads a plain record 11 from `frame` (a frame buffer of the state's layout: 5120 bytes
 *  then the 16-bit length) into the state's Rec11 and DAT header. The residual bytes of
 *  latitude and longitude are added when the length leaves room for them.
 *  @return : the DAT length, 2 x nSv + 82; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec11Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec17Buffer() :
 *  Reads a plain record 17 from `frame` into the state's Rec17 and DAT header, and
 *  rebuilds Doppler from carrier phase against `aux`: two Rec17 areas (the previous
 *  epoch and the predictions), normally the state's record 17 work.
 *  @return : the DAT length, 21 + 48 per satellite + 24 per second frequency; 0 without
 *            the structures or `aux`. */
NVBDLL_API uint16_t nvbdll_readRec17Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t* aux);

/*! nvbdll_readRec27Buffer() :
 *  Reads a plain record 27 from `frame` (its body starts four bytes in) into the state's
 *  Rec27 and DAT header. Doppler is rebuilt against `previous`, two Rec27 areas (the
 *  previous epoch and the predictions), as `dopplerControl` asks: 1 the wire's Doppler
 *  only, 2 always from phase, 3 from phase where the wire has none. System 5 becomes 7
 *  and 7 becomes 10 as the map flags ask; unless `keepAllSvBlocks`, satellites whose
 *  tracking state is not usable are removed. `recordType` is not read.
 *  @return : the DAT length; 0 without the structures or `previous`, with more than 116
 *            satellites or 6 measurements to a satellite, or with no satellites.
 *  A `dopplerControl` other than 1 to 3 prints a message and ends the process (exit 2). */
NVBDLL_API uint16_t nvbdll_readRec27Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t* previous,
                                           uint32_t recordType, uint8_t dopplerControl, uint8_t mapSystem5To7,
                                           uint8_t mapSystem7To10, uint8_t keepAllSvBlocks);

/*! nvbdll_readRec27Stream() :
 *  As nvbdll_readRec27Buffer, given the body alone (the bytes from offset 4 of a frame
 *  buffer; 5116 bytes are readable behind `body`). All satellites are kept. */
NVBDLL_API uint16_t nvbdll_readRec27Stream(uint8_t* body, nvb_expand_t* state, uint8_t* previous,
                                           uint32_t recordType, uint8_t dopplerControl, uint8_t mapSystem5To7,
                                           uint8_t mapSystem7To10);

/*! nvbdll_readRec29Buffer() :
 *  Reads a plain record 29 from `frame` into the state's Rec29 and DAT header, mapping
 *  the systems of its satellite list as the two flags ask. With more than 116 satellites
 *  only the first block is decoded.
 *  @return : the DAT length; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec29Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7,
                                           uint8_t mapSystem7To10);

/*! nvbdll_readRec21Buffer() :
 *  Reads a plain record 21 (GPS ephemeris) from `frame` into the state's Rec21 and DAT
 *  header. Every field is assigned; `secondByte`, which the wire does not carry, is 0.
 *  @return : the DAT length, 190; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec21Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec25Buffer() :
 *  Reads a plain record 25 (SBAS message) from `frame` into the state's Rec25 (cleared
 *  first) and DAT header, whose byte 2 takes the subtype. A subtype 2 message without
 *  flags bit 6 gets its preamble (by time modulo 3: 0x53, 0x9A, 0xC6) and its 24-bit
 *  check computed here.
 *  @return : the DAT length, 39 for subtype 0, 44 or 40 for subtype 2 with or without
 *            flags bit 6, 0 for any other subtype or without the structures. */
NVBDLL_API uint16_t nvbdll_readRec25Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec26Buffer() :
 *  Reads a plain record 26 (raw navigation data) from `frame` into the state's Rec26
 *  (cleared first) and DAT header. Byte 2 of the DAT header takes the subtype, with
 *  subtype 0 reported as 6, 1 as 7, and 8 as 11 when `mapSystem5To7` is set (its svId then
 *  renumbered).
 *  @return : the DAT length: 4, the structure bytes ahead of the data (13, or 14 for
 *            subtypes 1, 7, 12 and for a Galileo page with flags bit 7) and the data bytes;
 *            0 for a subtype without a layout or without the structures. */
NVBDLL_API uint16_t nvbdll_readRec26Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7);

/*! nvbdll_readRec28Buffer() :
 *  Reads a plain record 28 (ephemerides of all systems) from `frame` into the state's
 *  Rec28 and DAT header (byte 2 is 0: the subtype stands in the structure). The structure
 *  is not cleared: what the subtype does not write keeps the last record's values, so a
 *  subtype 3 record of neither 216 nor 220 bytes keeps the last tail. With
 *  `mapSystem5To7` a subtype 6 becomes 9 and its svId is renumbered.
 *  @return : the DAT length of the subtype (102 to 218); 0 for a subtype without a
 *            layout or without the structures. */
NVBDLL_API uint16_t nvbdll_readRec28Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7);

/*! nvbdll_readRec12Buffer() :
 *  Reads a plain record 12 from `frame` into the state's Rec12 (cleared first) and DAT
 *  header. A zero word at offset 39 takes the byte at offset 9. Of the n - 1 pairs at
 *  most 47 are decoded.
 *  @return : the DAT length, 68 + 16 (n - 1) (68 for n = 0), whatever the structure
 *            holds; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec12Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec15Buffer() :
 *  Reads a plain record 15 from `frame` into the state's Rec15 (cleared first) and DAT
 *  header.
 *  @return : the DAT length, 124; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec15Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec19Buffer() :
 *  Reads a plain record 19 from `frame` into the state's Rec19 (cleared first) and DAT
 *  header. `aux` is the 44 bytes of tracking slots, normally the state's `trackingSlots`:
 *  subtypes 9 to 12 are delivered as subtype 7 with `slot` 2 (9, 11) or 1 (10, 12), and
 *  11 and 12 carry only a signed byte that is added to the slot's prediction.
 *  @return : the DAT length: 14 or 15 for the value subtypes, the frame length less 5 or
 *            6 for the texts of 3 and 8, the frame length for other subtypes; 0 without
 *            the structures or `aux`. */
NVBDLL_API uint16_t nvbdll_readRec19Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t* aux);

/*! nvbdll_readRec30Buffer() :
 *  Reads a plain record 30 (sectioned receiver description) from `frame` into the
 *  state's Rec30 (cleared first) and DAT header. A section's fields are taken as far as
 *  its length byte reaches; what a longer section holds beyond them is not skipped.
 *  The reset that a subtype 0 brings to the record 17 history is the pipeline's, not
 *  this reader's.
 *  @return : the DAT length, the stream offset where reading ended; 0 without the
 *            structures. */
NVBDLL_API uint16_t nvbdll_readRec30Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec31Buffer() :
 *  Reads a record 31 (a tag, a byte and up to 255 counted bytes) from `frame` into the
 *  state's Rec31 and DAT header.
 *  @return : the DAT length, count + 8; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec31Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec32Buffer() :
 *  Reads a record 32 from `frame` into the state's Rec32 and DAT header, its subtype into
 *  the structure's first byte. The structure is not cleared first: what a shorter subtype
 *  does not reach keeps the previous record's values.
 *  @return : the DAT length by subtype, 5 (2), 88 (3), 91 (4), 103 (5), 80 (6); 0 for any
 *            other subtype and without the structures. */
NVBDLL_API uint16_t nvbdll_readRec32Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec33Buffer() :
 *  Reads a record 33 from `frame` into the state's Rec33 and DAT header. Subtypes 0, 24
 *  and above 30 are kept raw: subtype byte 0, the body behind it, the subtype at offset
 *  249. In a subtype 3, system 5 becomes 7 and 7 becomes 10 as the two flags ask.
 *  @return : the low byte of the frame length minus 2; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec33Buffer(uint8_t* frame, nvb_expand_t* state, uint8_t mapSystem5To7,
                                           uint8_t mapSystem7To10);

/*! nvbdll_readRec40Buffer() :
 *  Reads a record 40 from `frame` into the state's Rec40 and DAT header (whose byte 2
 *  keeps the subtype). Values of ids 6 (signed), 7 and 8 (unsigned) are taken as they
 *  stand, every other id's signed value divided by 100. At most 20 entries are kept.
 *  @return : the DAT length, 9 x count + 11; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec40Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec98Buffer() :
 *  Reads a record 98 from `frame` into the state's Rec98 and DAT header; the payload
 *  stands at structure offset 8 whether the extra byte came (bit 7 of flags) or not, and
 *  is cut to 1024 bytes.
 *  @return : the DAT length, payload + 11, or + 12 with the extra byte; 0 without the
 *            structures. */
NVBDLL_API uint16_t nvbdll_readRec98Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_readRec99Buffer() :
 *  Reads a record 99 from `frame` into the state's Rec99 and DAT header. With flags 1
 *  the payload is inflated into at most 4096 bytes, otherwise copied (at most 4096).
 *  @return : the DAT length, payload + 11; 4107 when inflating fails, the payload then
 *            holding what came out before the failure; 0 without the structures. */
NVBDLL_API uint16_t nvbdll_readRec99Buffer(uint8_t* frame, nvb_expand_t* state);

/*! nvbdll_convertRec29toRec11() :
 *  Fills `out` (cleared first) from the position record `in`; with a non-NULL `datHeader`
 *  also its DAT header (0x74, length low, length high, 11).
 *  @return : the DAT length, 2 x (nSv + 41); 0 when `in` or `out` is NULL. */
NVBDLL_API uint16_t nvbdll_convertRec29toRec11(uint8_t* datHeader, Rec29* in, Rec11* out);

/*! nvbdll_convertRec27toRec17() :
 *  Fills `out` (cleared first) with the GPS satellites of `in`, at most 24. `mode` picks
 *  the second frequency: 0 track 2, 1 another track, 2 track 2 else another, 3 another
 *  else track 2, others none. With a non-NULL `datHeader` also its DAT header.
 *  @return : the DAT length; 0 when `in` or `out` is NULL. */
NVBDLL_API uint16_t nvbdll_convertRec27toRec17(uint8_t* datHeader, Rec27* in, Rec17* out, uint8_t mode);

/*! nvbdll_convertRec17toRec27() :
 *  Fills `out` (cleared first) from `in`, with `week` as its week. Slips are numbered
 *  by two process-wide counter tables that are never reset, so converting the same
 *  record twice gives other slip counts. With a non-NULL `datHeader` also its DAT header.
 *  @return : the DAT length; 0 when `in` or `out` is NULL. */
NVBDLL_API uint16_t nvbdll_convertRec17toRec27(uint16_t week, uint8_t* datHeader, Rec17* in, Rec27* out);

NVB_EXTERN_C_END

#endif
