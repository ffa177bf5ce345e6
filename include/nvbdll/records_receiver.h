/* Decoded receiver and configuration records: Rec5, Rec12, Rec15, Rec19, Rec22, Rec24, Rec30. */
#ifndef NVBDLL_RECORDS_RECEIVER_H
#define NVBDLL_RECORDS_RECEIVER_H

#include "nvbdll_platform.h"

#define NVB_REC5_TEXT_BYTES 63
#define NVB_REC5_MAX_PAIRS 47
#define NVB_REC12_MAX_PAIRS 47
#define NVB_REC22_MAX_ENTRIES 8
#define NVB_REC30_SECTION_BYTES 32
#define NVB_REC30_SECTION_COUNT 9
#define NVB_REC30_FREE_BYTES 44

#pragma pack(push, 1)

typedef struct Rec5Sub0 {
    uint16_t word1;
    uint8_t bytes1[5];
    uint8_t byte1;
    double doubles[4];
    uint8_t bytes2[2];
    uint8_t textLength;
    char text[NVB_REC5_TEXT_BYTES];
} Rec5Sub0;

typedef struct Rec5Sub1 {
    uint16_t word1;
    uint8_t bytes1[5];
    uint8_t byte1;
    uint16_t words[9];
    uint8_t bytes2[10];
    uint8_t bytes3[4];
    double double1;
    uint32_t dwords[3];
    uint8_t byte2;
} Rec5Sub1;

typedef struct Rec5Sub2 {
    uint16_t words[6];
    uint8_t bytes1[12];
    uint8_t bytes2[12];
    uint8_t bytes3[4];
    uint8_t presenceMark; /* 0: the writer ends the record here */
    uint8_t bytes4[3];
    double double1;
    uint32_t dword1;
    uint16_t word7;
    uint8_t bytes5[2];
} Rec5Sub2;

typedef struct Rec5Sub3 {
    uint16_t word1;
    double doubles[12];
    uint32_t dwords[2];
} Rec5Sub3;

typedef struct Rec5Sub4 {
    uint16_t word1;
    uint8_t bytes[4];
    uint32_t dwords[4];
} Rec5Sub4;

typedef struct Rec5Sub5 {
    uint16_t word1;
    uint8_t bytes[2];
    uint32_t dwords[6];
} Rec5Sub5;

typedef struct Rec5Sub6 {
    uint16_t words[2];
    uint32_t dwords[4];
} Rec5Sub6;

typedef struct Rec5Sub7 {
    uint16_t word1;
    double double1;
    uint16_t count;
    uint8_t pairs[NVB_REC5_MAX_PAIRS][2];
} Rec5Sub7;

/* Receiver and antenna information; the subtype travels in the DAT header. */
typedef struct Rec5 {
    union {
        Rec5Sub0 sub0;
        Rec5Sub1 sub1;
        Rec5Sub2 sub2;
        Rec5Sub3 sub3;
        Rec5Sub4 sub4;
        Rec5Sub5 sub5;
        Rec5Sub6 sub6;
        Rec5Sub7 sub7;
    };
} Rec5;

typedef struct Rec12Pair {
    double first;  /* signed 16 bits of 2^-11 on the wire */
    double second; /* signed 16 bits of 2^-21 on the wire */
} Rec12Pair;

/* Table of paired corrections behind a header. */
typedef struct Rec12 {
    uint8_t count; /* n: the header and n - 1 pairs */
    uint8_t byte1;
    uint16_t word1;
    uint16_t word2;
    uint8_t byte2;
    uint8_t byte3;
    uint16_t word3;
    uint8_t bytes1[4];
    uint16_t word4;
    double unsignedValue; /* unsigned 32 bits on the wire */
    uint8_t bytes2[8];
    uint32_t dword1;
    uint32_t dword2;
    uint16_t word5; /* a 0 on the wire takes byte2's value */
    uint8_t bytes3[14];
    double signedValue; /* signed 32 bits of 2^-22 on the wire */
    Rec12Pair pairs[NVB_REC12_MAX_PAIRS];
    uint8_t reserved[16]; /* unused room of the allocated structure */
} Rec12;

typedef struct Rec15 {
    double doubles[11];
    double signedValue1;  /* signed 16 bits on the wire */
    double signedValue2;  /* signed 16 bits on the wire */
    double unsignedValue; /* unsigned 32 bits on the wire */
    uint8_t bytes[7];
    uint8_t byte1;
} Rec15;

typedef struct Rec19Sub1 {
    double value; /* unsigned 32 bits on the wire */
    uint16_t word;
} Rec19Sub1;

/* Subtypes 2, 4 and 5. */
typedef struct Rec19Sub2 {
    uint16_t word;
    double value; /* unsigned 32 bits on the wire */
} Rec19Sub2;

typedef struct Rec19Sub3 {
    uint16_t word;
    char text[257];
} Rec19Sub3;

typedef struct Rec19Sub6 {
    uint16_t word;
    double value;
} Rec19Sub6;

/* Subtype 7, and 9 to 12, which are reported as 7. */
typedef struct Rec19Sub7 {
    uint8_t slot;
    uint16_t word;
    double value;
} Rec19Sub7;

typedef struct Rec19Sub8 {
    uint8_t slot;
    uint16_t word; /* its high byte is slot */
    char text[256];
} Rec19Sub8;

/* Tagged values; the subtype travels in the DAT header. */
typedef struct Rec19 {
    union {
        Rec19Sub1 sub1;
        Rec19Sub2 sub2;
        Rec19Sub3 sub3;
        Rec19Sub6 sub6;
        Rec19Sub7 sub7;
        Rec19Sub8 sub8;
    };
} Rec19;

/* Per-index tables: each table has count + 1 entries in use. */
typedef struct Rec22 {
    uint8_t count;
    double doubles[4];
    uint8_t bytes1[8];
    uint8_t byteTable1[NVB_REC22_MAX_ENTRIES];
    uint8_t bytes2[6];
    uint8_t byteTable2[NVB_REC22_MAX_ENTRIES];
    uint16_t words[4];
    uint32_t dwordTables[4][NVB_REC22_MAX_ENTRIES];
    uint16_t word5;
    uint32_t dword1;
    uint32_t dword2;
    uint16_t word6;
    uint16_t word7;
} Rec22;

typedef struct Rec24 {
    double values[12];
    uint32_t counters[2];
} Rec24;

/* One section of a record 30 description: length is the receiver's L, of which the
 * structure keeps up to NVB_REC30_SECTION_BYTES bytes at a fixed place. */
typedef struct Rec30Section {
    uint8_t length;
    uint8_t bytes[NVB_REC30_SECTION_BYTES];
} Rec30Section;

typedef struct Rec30Sub0 {
    uint32_t dword1;
    uint16_t words[2];
} Rec30Sub0;

typedef struct Rec30Sub1A {
    uint8_t length;
    uint32_t dword1;
    uint16_t word1;
    uint8_t more[26];
} Rec30Sub1A;

/* Sections B and C of subtype 1. */
typedef struct Rec30Text {
    uint8_t length;
    char text[NVB_REC30_SECTION_BYTES];
} Rec30Text;

typedef struct Rec30Sub1D {
    uint8_t length;
    uint16_t words[3];
    uint8_t more[26];
} Rec30Sub1D;

/* Sections E and I of subtype 1. */
typedef struct Rec30Sub1E {
    uint8_t length;
    uint8_t byte1;
    uint8_t more[31];
} Rec30Sub1E;

typedef struct Rec30Sub1F {
    uint8_t length;
    uint32_t dword1;
    uint8_t bytes[2];
    uint8_t more[26];
} Rec30Sub1F;

typedef struct Rec30Sub1G {
    uint8_t length;
    uint8_t bytes[4];
    uint8_t more[28];
} Rec30Sub1G;

typedef struct Rec30Sub1H {
    uint8_t length;
    uint8_t bytes[2];
    uint8_t more[30];
} Rec30Sub1H;

typedef struct Rec30Sub1 {
    uint8_t sectionCount;
    Rec30Sub1A a;
    Rec30Text b;
    Rec30Text c;
    Rec30Sub1D d;
    Rec30Sub1E e;
    Rec30Sub1F f;
    Rec30Sub1G g;
    Rec30Sub1H h;
    Rec30Sub1E i;
} Rec30Sub1;

/* Subtype 2: sections of bytes only (A, B, C, E up to 3, D up to 8). */
typedef struct Rec30Sub2 {
    uint8_t sectionCount;
    Rec30Section a;
    Rec30Section b;
    Rec30Section c;
    Rec30Section d;
    Rec30Section e;
} Rec30Sub2;

/* Sections A and C of subtype 3. */
typedef struct Rec30Sub3Pair {
    uint8_t length;
    uint32_t dwords[2];
    uint8_t more[24];
} Rec30Sub3Pair;

typedef struct Rec30Sub3 {
    uint8_t sectionCount;
    Rec30Sub3Pair a;
    Rec30Section b; /* up to 3 bytes */
    Rec30Sub3Pair c;
} Rec30Sub3;

/* The section grid shared by subtypes 1 to 3. */
typedef struct Rec30Sections {
    uint8_t sectionCount;
    Rec30Section section[NVB_REC30_SECTION_COUNT];
} Rec30Sections;

/* Sectioned receiver description; the subtype travels in the DAT header. Every section
 * keeps its place whatever the lengths say, and sections beyond the known ones go to the
 * free area. */
typedef struct Rec30 {
    union {
        Rec30Sub0 sub0;
        Rec30Sub1 sub1;
        Rec30Sub2 sub2;
        Rec30Sub3 sub3;
        Rec30Sections sections;
    };
    uint8_t freeLength;
    uint8_t freeArea[NVB_REC30_FREE_BYTES];
} Rec30;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(Rec5Sub0) == 106, "Rec5Sub0 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub1) == 61, "Rec5Sub1 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub2) == 60, "Rec5Sub2 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub3) == 106, "Rec5Sub3 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub4) == 22, "Rec5Sub4 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub5) == 28, "Rec5Sub5 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub6) == 20, "Rec5Sub6 layout");
NVB_STATIC_ASSERT(sizeof(Rec5Sub7) == 106, "Rec5Sub7 layout");
NVB_STATIC_ASSERT(sizeof(Rec5) == 106, "Rec5 layout");
NVB_STATIC_ASSERT(sizeof(Rec12Pair) == 16, "Rec12Pair layout");
NVB_STATIC_ASSERT(sizeof(Rec12) == 832, "Rec12 layout");
NVB_STATIC_ASSERT(sizeof(Rec15) == 120, "Rec15 layout");
NVB_STATIC_ASSERT(sizeof(Rec19Sub3) == 259, "Rec19Sub3 layout");
NVB_STATIC_ASSERT(sizeof(Rec19Sub8) == 259, "Rec19Sub8 layout");
NVB_STATIC_ASSERT(sizeof(Rec19) == 259, "Rec19 layout");
NVB_STATIC_ASSERT(sizeof(Rec22) == 213, "Rec22 layout");
NVB_STATIC_ASSERT(sizeof(Rec24) == 104, "Rec24 layout");
NVB_STATIC_ASSERT(sizeof(Rec30Section) == 33, "Rec30Section layout");
NVB_STATIC_ASSERT(sizeof(Rec30Sub1A) == 33 && sizeof(Rec30Text) == 33 && sizeof(Rec30Sub1D) == 33 &&
                      sizeof(Rec30Sub1E) == 33 && sizeof(Rec30Sub1F) == 33 && sizeof(Rec30Sub1G) == 33 &&
                      sizeof(Rec30Sub1H) == 33 && sizeof(Rec30Sub3Pair) == 33,
                  "Rec30 sections share one size");
NVB_STATIC_ASSERT(sizeof(Rec30Sub1) == sizeof(Rec30Sections), "Rec30Sub1 layout");
NVB_STATIC_ASSERT(sizeof(Rec30) == 343, "Rec30 layout");

#endif
