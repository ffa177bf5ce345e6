/* Record 35 envelope state: the growable buffer, the fragment assembly and the decoded
 * content. The per-subtype slots and, on the read path, the native records are owned by
 * the library.
 *
 * DAT form of a record 35: the header 0x74, length low, length high, 35; then the
 * subtype (u64), the subsubtype (u64) and the payload length (u32), little-endian; then
 * the payload as the stream carries it (a schema text with its terminating zero, or the
 * Avro bytes of a reference or delta record, or the bytes of an area). Its length is 24
 * plus the payload length; the header holds the low 16 bits of it. */
#ifndef NVBDLL_REC35_STATE_H
#define NVBDLL_REC35_STATE_H

#include "nvbdll_platform.h"
#include "rec35_records.h"

#define NVB_REC35_SUBTYPES 40

#define NVB_REC35_RAW_AREA_SUBTYPE 0u          /* schema-less raw area */
#define NVB_REC35_RESET_MARKER_SUBTYPE 1u      /* encode path: every chain starts again */
#define NVB_REC35_TEST_AREA_SUBTYPE 12345678u  /* schema-less test area */
#define NVB_REC35_RAW_AREA_BYTES 80000u
#define NVB_REC35_TEST_AREA_BYTES 800u
#define NVB_REC35_DAT_HEADER_BYTES 24u         /* DAT header, subtype, subsubtype, payload length */

/* Bits of the encode state's rec35Mode. 0: the library writes its own schema texts and
 * encodes Avro subtypes from the native records in rec35_content_t; DAT payloads are
 * taken only for subtypes 0 and 12345678.
 * PASSTHROUGH: the host's subsubtypes stand; a schema record (subsubtype 0) offers the
 * stream's schema text, refused with status 21 when newer than the library's; a record
 * with a payload goes out as it is, one without is encoded from its native record under
 * the offered schema.
 * COPY, with PASSTHROUGH: records the library can't check go out as they are too: any
 * subtype, and schema texts newer than the library's. A log read and written back keeps
 * every record 35. */
#define NVB_REC35_PASSTHROUGH 0x01u
#define NVB_REC35_COPY 0x02u

#pragma pack(push, 1)

typedef struct io_buffer_t {
    uint32_t capacity;
    uint32_t used;
    uint8_t* data;
} io_buffer_t;

struct rec35_slot_t;

typedef struct rec35_assembly_t {
    io_buffer_t payload;
    uint8_t in_progress;
    uint8_t pending;
    struct rec35_slot_t* slots[NVB_REC35_SUBTYPES];
    uint8_t schema_swallow;
    uint8_t skip_debug_260;
} rec35_assembly_t;

typedef struct rec35_content_t {
    uint64_t subtype;
    uint64_t subsubtype;
    io_buffer_t schema_text;
    uint8_t* raw_area;                 /* subtype 0, 80000 bytes on first use */
    void* records[NVB_REC35_SUBTYPES]; /* native record of each Avro subtype */
    uint8_t* test_area;                /* subtype 12345678, 800 bytes on first use */
} rec35_content_t;

#pragma pack(pop)

/* Two 64-bit numbers, a buffer and 42 pointers: 196 bytes where pointers have 4 bytes. */
NVB_STATIC_ASSERT(sizeof(rec35_content_t) == 24 + 43 * sizeof(void*), "rec35_content_t layout");

#endif
