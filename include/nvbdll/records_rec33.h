/* Decoded record 33: auxiliary solutions and states, one layout per subtype behind the subtype byte. */
#ifndef NVBDLL_RECORDS_REC33_H
#define NVBDLL_RECORDS_REC33_H

#include "nvbdll_platform.h"

#define NVB_REC33_MAX_TRIPLES 82
#define NVB_REC33_MAX_DOUBLES 31
#define NVB_REC33_SUB13_MAX_ENTRIES 28
#define NVB_REC33_SUB16_MAX_DOUBLES 30
#define NVB_REC33_SUB17_MAX_ENTRIES 25
#define NVB_REC33_SUB18_MAX_ENTRIES 32
#define NVB_REC33_SUB29_MAX_PAIRS 24
#define NVB_REC33_RAW_BYTES 248

#pragma pack(push, 1)

typedef struct Rec33Sub1 {
    uint8_t bytes1[2];
    uint8_t flags;
    uint8_t bytes2[3];
    uint16_t word1;
    double double1;
    float single1; /* with bit 2 of flags */
    float single2; /* with bit 3 of flags */
    uint16_t word2;
} Rec33Sub1;

typedef struct Rec33Sub2 {
    double doubles[3];
    uint8_t byte1;
    uint16_t words[2];
} Rec33Sub2;

/* Triples stored as three parallel arrays; the wire interleaves them. */
typedef struct Rec33Sub3 {
    uint8_t count;
    uint8_t system[NVB_REC33_MAX_TRIPLES];
    uint8_t second[NVB_REC33_MAX_TRIPLES];
    uint8_t third[NVB_REC33_MAX_TRIPLES];
} Rec33Sub3;

typedef struct Rec33Sub4 {
    uint32_t dword1;
    uint8_t bytes[5];
    uint8_t zeroByte; /* not on the wire */
    float single1;
    uint16_t word1;
    float singles[3];
    uint32_t dwords[6];
    uint8_t byte1;
    double double1;
} Rec33Sub4;

/* Subtypes 5 to 12: as many doubles as the record holds. */
typedef struct Rec33Doubles {
    uint8_t count;
    double values[NVB_REC33_MAX_DOUBLES];
} Rec33Doubles;

typedef struct Rec33Sub13Entry {
    uint32_t dword1;
    uint16_t words[6];
} Rec33Sub13Entry;

typedef struct Rec33Sub13 {
    uint8_t count;
    uint16_t word1;
    Rec33Sub13Entry entries[NVB_REC33_SUB13_MAX_ENTRIES];
} Rec33Sub13;

/* Position solution; also what a converted record 35 fills. */
typedef struct Rec33Sub14 {
    double time;      /* s */
    double latitude;  /* rad */
    double longitude; /* rad */
    double height;
    float positionSigma[3]; /* north, east, up */
    float velocity[3];
    float velocitySigma[3];
    float dop[3]; /* north, east, vertical */
    uint8_t valid;
    uint8_t fixClass;
    float correctionAge;
    float spare;
    uint8_t flag1;
    uint8_t flag2;
} Rec33Sub14;

typedef struct Rec33Sub15 {
    double doubles1[2];
    float single1;
    double double1;
    float single2;
    double doubles2[3];
    double doubles3[3];
    float singles[6];
    uint8_t byte1;
} Rec33Sub15;

typedef struct Rec33Sub16 {
    uint8_t byte1;
    uint8_t byte2; /* above 18: the doubles are dropped */
    uint8_t count;
    double values[NVB_REC33_SUB16_MAX_DOUBLES];
} Rec33Sub16;

typedef struct Rec33Sub17Entry {
    uint16_t word1;
    float singles[4];
} Rec33Sub17Entry;

typedef struct Rec33Sub17 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t byte1; /* bit 7: tailBytes present */
    uint8_t byte2;
    uint8_t count;
    Rec33Sub17Entry entries[NVB_REC33_SUB17_MAX_ENTRIES];
    uint8_t tailBytes[4];
} Rec33Sub17;

typedef struct Rec33Sub18Entry {
    uint16_t word1;
    float singles[3];
} Rec33Sub18Entry;

typedef struct Rec33Sub18 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t count;
    Rec33Sub18Entry entries[NVB_REC33_SUB18_MAX_ENTRIES];
} Rec33Sub18;

/* The older form ends after singles; the newer adds tailBytes and tailDoubles. */
typedef struct Rec33Sub19 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t bytes[4];
    double doubles[3];
    float singles[15];
    uint8_t tailBytes[2];
    double tailDoubles[3];
} Rec33Sub19;

typedef struct Rec33Sub20 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t bytes[2];
    float singles[5];
} Rec33Sub20;

/* One group of subtype 21. The leading singles: kind 1 fills lead[0] only, and only with
 * bit 7 of the group's last head byte; other kinds fill all four. */
typedef struct Rec33Sub21Group {
    uint8_t bytes[2];
    float lead[4];
    float singles3[3];
    float singles9[9];
} Rec33Sub21Group;

typedef struct Rec33Sub21GroupC {
    uint8_t bytes[3];
    float lead[4];
    float singles3[3];
    float singles9[9];
    float singles5[5];
} Rec33Sub21GroupC;

/* Groups keep their places, so a group or field that is absent stays 0. */
typedef struct Rec33Sub21 {
    uint32_t kind;
    uint16_t word1;
    uint32_t dword1;
    double doubles[3];
    float single1;
    uint16_t words[3];
    uint8_t byte1;
    uint8_t groupFlags; /* bit 0 group A, bit 1 group B, bit 2 group C */
    Rec33Sub21Group groupA;
    Rec33Sub21Group groupB; /* kind 1: lead[0], singles3, singles9; other kinds: lead only */
    Rec33Sub21GroupC groupC;
} Rec33Sub21;

/* matrix is symmetric: the wire carries its upper triangle and the reader mirrors it. */
typedef struct Rec33Sub22 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t bytes[2];
    float single1;
    double vector[3];
    double matrix[3][3];
} Rec33Sub22;

/* matrix is symmetric, as in subtype 22. */
typedef struct Rec33Sub23 {
    uint16_t word1;
    uint32_t dword1;
    uint16_t word2;
    float singles[10];
    double vector[3];
    double matrix[3][3];
    uint8_t bytes[2];
} Rec33Sub23;

typedef struct Rec33Sub25 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t bytes1[2];
    float singles[17];
    uint16_t words[2];
    uint8_t bytes2[3];
    uint16_t word4;
} Rec33Sub25;

typedef struct Rec33Sub26 {
    uint16_t word1;
    uint32_t dword1;
    uint16_t words[30];
    uint8_t bytes[2];
} Rec33Sub26;

typedef struct Rec33Sub27 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t bytes1[2];
    uint16_t word2;
    double doubles1[3];
    uint8_t bytes2[3];
    uint32_t dword2;
    uint16_t word3;
    uint32_t dword3;
    double doubles2[3];
    uint16_t word4;
    uint32_t dword4;
    double doubles3[3];
} Rec33Sub27;

typedef struct Rec33Sub28 {
    uint16_t word1;
    uint32_t dword1;
    uint8_t byte1;
    uint16_t word2;
    float singles1[3];
    double doubles[3];
    float singles2[3];
} Rec33Sub28;

typedef struct Rec33Sub29 {
    uint8_t count;
    uint8_t pairs[NVB_REC33_SUB29_MAX_PAIRS][2];
} Rec33Sub29;

typedef struct Rec33Sub30 {
    uint8_t bytes[10];
    uint32_t dwords[2];
    uint32_t dword3;
} Rec33Sub30;

/* Subtypes 0, 24 and above 30: the body as it came, with its subtype kept behind it. */
typedef struct Rec33Raw {
    uint8_t data[NVB_REC33_RAW_BYTES];
    uint8_t originalSubtype;
} Rec33Raw;

/* The subtype stands in the structure, the DAT header's subtype byte is 0. */
typedef struct Rec33 {
    uint8_t subtype; /* 0 when the body is kept raw */
    union {
        Rec33Sub1 sub1;
        Rec33Sub2 sub2;
        Rec33Sub3 sub3;
        Rec33Sub4 sub4;
        Rec33Doubles sub5to12;
        Rec33Sub13 sub13;
        Rec33Sub14 sub14;
        Rec33Sub15 sub15;
        Rec33Sub16 sub16;
        Rec33Sub17 sub17;
        Rec33Sub18 sub18;
        Rec33Sub19 sub19;
        Rec33Sub20 sub20;
        Rec33Sub21 sub21;
        Rec33Sub22 sub22;
        Rec33Sub23 sub23;
        Rec33Sub25 sub25;
        Rec33Sub26 sub26;
        Rec33Sub27 sub27;
        Rec33Sub28 sub28;
        Rec33Sub29 sub29;
        Rec33Sub30 sub30;
        Rec33Raw raw;
    };
} Rec33;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(Rec33Sub1) == 26, "Rec33Sub1 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub2) == 29, "Rec33Sub2 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub3) == 247, "Rec33Sub3 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub4) == 61, "Rec33Sub4 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Doubles) == 249, "Rec33Doubles layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub13) == 451, "Rec33Sub13 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub14) == 92, "Rec33Sub14 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub15) == 105, "Rec33Sub15 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub16) == 243, "Rec33Sub16 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub17) == 463, "Rec33Sub17 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub18) == 455, "Rec33Sub18 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub19) == 120, "Rec33Sub19 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub20) == 28, "Rec33Sub20 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub21) == 265, "Rec33Sub21 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub22) == 108, "Rec33Sub22 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub23) == 146, "Rec33Sub23 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub25) == 85, "Rec33Sub25 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub26) == 68, "Rec33Sub26 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub27) == 101, "Rec33Sub27 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub28) == 57, "Rec33Sub28 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub29) == 49, "Rec33Sub29 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Sub30) == 22, "Rec33Sub30 layout");
NVB_STATIC_ASSERT(sizeof(Rec33Raw) == 249, "Rec33Raw layout");
NVB_STATIC_ASSERT(sizeof(Rec33) == 464, "Rec33 layout");

#endif
