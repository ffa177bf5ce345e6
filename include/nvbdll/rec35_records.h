/* Native records of the Avro-coded subtypes of record 35: what a host reads after a
 * record is decoded (through rec35_content_t.records), and what it fills to have the
 * library encode one. They keep natural alignment: they hold pointers and never stand in
 * a DAT form. Every native record opens with `version`, the schema version under which it
 * was read or written. */
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

/* Subtype 24, "FFT Data". */
typedef struct rec35_sub24_t {
    int64_t version;
    uint32_t gps_msecs;
    double center_freq;
    float bin_size;
    double peak_freq;
    float peak_snr;
    int32_t mean_val;
    rec35_array_t FreqData; /* int32_t elements */
    uint32_t antenna_num;
} rec35_sub24_t;

#endif
