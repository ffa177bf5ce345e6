/* Native records of the Avro-coded subtypes of record 35: what a host reads after a
 * record is decoded (through rec35_content_t.records), and what it fills to have the
 * library encode one. They keep natural alignment: they hold pointers and never stand in
 * a DAT form. Every native record opens with `version`, the schema version under which it
 * was read or written. The records of the 40 subtypes stand in rec35_subtypes.h, written
 * at build time from the library's catalogue of their fields. */
#ifndef NVBDLL_REC35_RECORDS_H
#define NVBDLL_REC35_RECORDS_H

#include "nvbdll_platform.h"

/* A variable array: capacity and count in elements, the elements allocated with malloc.
 * Arrays only grow; a record and its arrays are freed by the library with free(). */
typedef struct rec35_array_t {
    int64_t capacity;
    int64_t count;
    void* elements;
} rec35_array_t;

#include <nvbdll/rec35_subtypes.h>

#endif
