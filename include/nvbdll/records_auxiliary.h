/* Decoded auxiliary and opaque records: the generic area, Rec16, and the typed records 31 to 102. */
#ifndef NVBDLL_RECORDS_AUXILIARY_H
#define NVBDLL_RECORDS_AUXILIARY_H

#include "nvbdll_platform.h"

#define NVB_REC31_MAX_DATA 256
#define NVB_REC34_MAX_KIND1 104
#define NVB_REC34_MAX_KIND2 50
#define NVB_REC40_MAX_ENTRIES 20
#define NVB_REC98_MAX_PAYLOAD 1024
#define NVB_REC99_MAX_PAYLOAD 4096
#define NVB_REC102_MAX_ENTRIES 24

#pragma pack(push, 1)

/* Bodies of the opaque records 14 and 23. */
typedef struct RecGeneric {
    uint8_t data[252];
} RecGeneric;

/* Body of the opaque record 16; its subtype travels in the DAT header. */
typedef struct Rec16 {
    uint8_t data[250];
} Rec16;

/* Short tagged text or data. */
typedef struct Rec31 {
    uint16_t tag;
    uint8_t tagByte;
    uint8_t count;
    uint8_t data[NVB_REC31_MAX_DATA];
} Rec31;

typedef struct Rec32Sub3 {
    uint16_t word1;
    uint32_t dword1;
    double doubles1[3];
    uint8_t byte1;
    double doubles2[2];
    uint16_t word2;
    uint32_t dword2;
    uint16_t words[4];
    double doubles3[2];
    uint32_t dword3;
    uint16_t word7;
} Rec32Sub3;

/* Subtype 4: three bytes ahead of the subtype 3 set. */
typedef struct Rec32Sub4 {
    uint8_t bytes[3];
    Rec32Sub3 set;
} Rec32Sub4;

typedef struct Rec32Sub5 {
    double doubles[11];
    uint16_t words[5];
} Rec32Sub5;

typedef struct Rec32Sub6 {
    uint8_t bytes[2];
    uint16_t words[2];
    float single1;
    uint8_t byte1;
    double doubles[8];
} Rec32Sub6;

/* Parameter sets; the subtype stands in the structure, the DAT header's subtype byte is 0.
 * Subtype 2 has nothing behind the subtype. */
typedef struct Rec32 {
    uint8_t subtype;
    union {
        Rec32Sub3 sub3;
        Rec32Sub4 sub4;
        Rec32Sub5 sub5;
        Rec32Sub6 sub6;
    };
} Rec32;

typedef struct Rec34Kind1Entry {
    double time;
    float value;
} Rec34Kind1Entry;

typedef struct Rec34Kind2Entry {
    double time;
    float values[4];
    uint8_t byte1;
} Rec34Kind2Entry;

typedef struct Rec34Kind1 {
    uint16_t word1;
    uint8_t count;
    Rec34Kind1Entry entries[NVB_REC34_MAX_KIND1];
} Rec34Kind1;

typedef struct Rec34Kind2 {
    uint16_t word1;
    uint8_t count;
    Rec34Kind2Entry entries[NVB_REC34_MAX_KIND2];
} Rec34Kind2;

/* Timed series. A kind other than 1 and 2 keeps its bytes as they came in raw. */
typedef struct Rec34 {
    uint8_t kind;
    union {
        Rec34Kind1 kind1;
        Rec34Kind2 kind2;
        uint8_t raw[1253];
    };
} Rec34;

typedef struct Rec40Entry {
    uint8_t id;
    double value; /* ids 6, 7 and 8 as they stand; any other id the wire value / 100 */
} Rec40Entry;

/* Identified sensor values; the subtype travels in the DAT header. */
typedef struct Rec40 {
    uint16_t week;
    uint32_t time; /* ms of the week */
    uint8_t count;
    Rec40Entry entries[NVB_REC40_MAX_ENTRIES];
} Rec40;

/* Tagged payload. The payload keeps its place whether the extra byte came or not. */
typedef struct Rec98 {
    uint8_t flags; /* bit 7: extraByte present */
    uint16_t word1;
    uint32_t dword1;
    uint8_t extraByte;
    uint8_t payload[NVB_REC98_MAX_PAYLOAD];
} Rec98;

/* Tagged payload, optionally deflated on the wire; held inflated. */
typedef struct Rec99 {
    uint8_t flags; /* 1: zlib data on the wire */
    uint16_t word1;
    uint32_t dword1;
    uint8_t payload[NVB_REC99_MAX_PAYLOAD];
} Rec99;

/* Record that exists only in DAT form. */
typedef struct Rec101 {
    double values[5];
    uint8_t bytes[2];
} Rec101;

typedef struct Rec102Entry {
    uint8_t bytes[2];
    double values[4];
} Rec102Entry;

/* Record that exists only in DAT form; entries beyond NVB_REC102_MAX_ENTRIES do not fit. */
typedef struct Rec102 {
    double values[2];
    uint8_t count;
    Rec102Entry entries[NVB_REC102_MAX_ENTRIES];
} Rec102;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(RecGeneric) == 252, "RecGeneric layout");
NVB_STATIC_ASSERT(sizeof(Rec16) == 250, "Rec16 layout");
NVB_STATIC_ASSERT(sizeof(Rec31) == 260, "Rec31 layout");
NVB_STATIC_ASSERT(sizeof(Rec32Sub3) == 83, "Rec32Sub3 layout");
NVB_STATIC_ASSERT(sizeof(Rec32Sub4) == 86, "Rec32Sub4 layout");
NVB_STATIC_ASSERT(sizeof(Rec32Sub5) == 98, "Rec32Sub5 layout");
NVB_STATIC_ASSERT(sizeof(Rec32Sub6) == 75, "Rec32Sub6 layout");
NVB_STATIC_ASSERT(sizeof(Rec32) == 99, "Rec32 layout");
NVB_STATIC_ASSERT(sizeof(Rec34Kind1Entry) == 12, "Rec34Kind1Entry layout");
NVB_STATIC_ASSERT(sizeof(Rec34Kind2Entry) == 25, "Rec34Kind2Entry layout");
NVB_STATIC_ASSERT(sizeof(Rec34) == 1254, "Rec34 layout");
NVB_STATIC_ASSERT(sizeof(Rec40Entry) == 9, "Rec40Entry layout");
NVB_STATIC_ASSERT(sizeof(Rec40) == 187, "Rec40 layout");
NVB_STATIC_ASSERT(sizeof(Rec98) == 1032, "Rec98 layout");
NVB_STATIC_ASSERT(sizeof(Rec99) == 4103, "Rec99 layout");
NVB_STATIC_ASSERT(sizeof(Rec101) == 42, "Rec101 layout");
NVB_STATIC_ASSERT(sizeof(Rec102Entry) == 34, "Rec102Entry layout");
NVB_STATIC_ASSERT(sizeof(Rec102) == 833, "Rec102 layout");

#endif
