/* Record 35 envelope state: the growable buffer, the fragment assembly and the decoded
 * content. The per-subtype slots and native records are owned by the library. */
#ifndef NVBDLL_REC35_STATE_H
#define NVBDLL_REC35_STATE_H

#include "nvbdll_platform.h"

#define NVB_REC35_SUBTYPES 40

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
