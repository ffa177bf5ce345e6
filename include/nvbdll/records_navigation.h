/* Decoded navigation records: ephemerides Rec21 and Rec28, SBAS messages Rec25, raw navigation data Rec26. */
#ifndef NVBDLL_RECORDS_NAVIGATION_H
#define NVBDLL_RECORDS_NAVIGATION_H

#include "nvbdll_platform.h"

#define NVB_SBAS_DATA_BYTES 28

#pragma pack(push, 1)

/* GPS ephemeris. The same layout, behind a subtype byte, is the common body of Rec28. */
typedef struct Rec21 {
    uint8_t svId;
    uint8_t secondByte; /* 0 in record 21, which does not carry it; on the wire in record 28 */
    uint16_t words[2];
    uint8_t bytes[2];
    uint32_t dwords[3];
    double doubles[19];
    uint32_t dword4;
    uint8_t moreBytes[9]; /* this and lastByte: zero and not carried in record 28 */
    uint8_t lastByte;
} Rec21;

/* SBAS message of subtype 0: no flags byte, the data stand in its place. */
typedef struct Rec25Sub0 {
    uint8_t data[NVB_SBAS_DATA_BYTES];
} Rec25Sub0;

typedef struct Rec25Sub2 {
    uint8_t flags; /* bit 6: preamble and check came on the wire */
    uint8_t data[NVB_SBAS_DATA_BYTES]; /* 218 bits: only the top two bits of the last byte count */
    uint8_t preamble;
    uint32_t crc; /* 24 bits */
} Rec25Sub2;

/* SBAS message; the subtype travels in the DAT header. */
typedef struct Rec25 {
    uint32_t time; /* s */
    uint16_t week;
    uint8_t svId;
    union {
        Rec25Sub0 sub0;
        Rec25Sub2 sub2;
    };
    uint8_t reserved[163]; /* unused room of the allocated structure */
} Rec25;

/* Raw navigation data of subtypes 0, 6, 8 to 11 and 13. */
typedef struct Rec26Plain {
    uint32_t rawWord;
    uint8_t length;
    uint8_t data[126];
} Rec26Plain;

/* Galileo pages, subtypes 2 to 5 and 14: the raw word is four single bytes. */
typedef struct Rec26Page {
    uint8_t flags;
    uint8_t extraByte; /* on the wire only with bit 7 of flags */
    uint8_t flagsLow;  /* low nibble of flags */
    uint8_t payloadIndex; /* 0 to 4 for subtypes 2, 3, 4, 5, 14 */
    uint8_t length;
    uint8_t data[126];
} Rec26Page;

/* Subtypes 1, 7 and 12: one more byte ahead of the length, so the data start a byte later. */
typedef struct Rec26Extended {
    uint32_t rawWord;
    uint8_t extraByte;
    uint8_t length;
    uint8_t data[125];
} Rec26Extended;

/* Raw navigation data of all systems; the subtype travels in the DAT header. */
typedef struct Rec26 {
    uint32_t time; /* s */
    uint16_t week;
    uint8_t svId;
    uint8_t rawByte;
    union {
        Rec26Plain plain;
        Rec26Page page;
        Rec26Extended extended;
    };
} Rec26;

/* SBAS ephemeris. */
typedef struct Rec28Sub1 {
    uint8_t svId;
    uint16_t word1;
    uint32_t dword1;
    uint8_t bytes[2];
    double doubles[11];
} Rec28Sub1;

/* GLONASS ephemeris. */
typedef struct Rec28Sub2 {
    uint8_t svId;
    uint16_t word1;
    uint32_t dword1;
    uint16_t word2;
    uint8_t bytes1[3];
    uint32_t dword2;
    uint8_t bytes2[6];
    double doubles[14];
} Rec28Sub2;

/* Galileo ephemeris, kept in its longer (220-byte record) form. */
typedef struct Rec28Sub3 {
    uint8_t svId;
    uint16_t word1;
    uint32_t dword1;
    uint16_t word2;
    uint32_t dword2;
    double doubles1[15];
    uint8_t byte1;
    uint16_t word3;
    uint8_t byte2;
    uint16_t tailWord1; /* 0xFFFF from the shorter form, which lacks it */
    uint32_t tailDword1;
    double tailDoubles1[4];
    uint16_t tailWord2; /* 0xFFFF from the shorter form, which lacks it */
    uint32_t tailDword2;
    double tailDoubles2[4];
} Rec28Sub3;

/* Galileo ephemeris, second form. */
typedef struct Rec28Sub4 {
    uint8_t svId;
    uint8_t byte1;
    uint16_t word1;
    uint32_t dword1;
    uint16_t word2;
    uint32_t dword2;
    double doubles1[15];
    uint8_t byte2;
    uint16_t word3;
    uint32_t dword3;
    double doubles2[4];
    uint8_t byte3;
    double double1;
    uint8_t byte4;
} Rec28Sub4;

typedef struct Rec28Sub8 {
    uint8_t svId;
    uint16_t word1;
    uint32_t dwords1[2];
    uint8_t bytes[2];
    double doubles[3];
    uint8_t byte1;
    uint32_t dword3;
    uint8_t byte2;
    uint16_t words[4];
    uint32_t dwords2[2];
    uint32_t dword6;
} Rec28Sub8;

/* BeiDou ephemeris; the wire carries the doubles in the order 0, 1, 4, 3, 6, 8, 5, 7, 2, 9, 10. */
typedef struct Rec28Sub10 {
    uint8_t svId;
    uint8_t bytes[4];
    uint16_t word1;
    double doubles[11];
} Rec28Sub10;

/* Ephemerides of all systems; the subtype stands in the structure, the DAT header's subtype byte is 0. */
typedef struct Rec28 {
    uint8_t subtype;
    union {
        Rec28Sub1 sub1;
        Rec28Sub2 sub2;
        Rec28Sub3 sub3;
        Rec28Sub4 sub4;
        Rec21 common; /* subtypes 5, 6, 7, 9, 11, 13 */
        Rec28Sub8 sub8;
        Rec28Sub10 sub10;
    };
} Rec28;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(Rec21) == 186, "Rec21 layout");
NVB_STATIC_ASSERT(sizeof(Rec25Sub2) == 34, "Rec25Sub2 layout");
NVB_STATIC_ASSERT(sizeof(Rec25) == 204, "Rec25 layout");
NVB_STATIC_ASSERT(sizeof(Rec26Plain) == 131, "Rec26Plain layout");
NVB_STATIC_ASSERT(sizeof(Rec26Page) == 131, "Rec26Page layout");
NVB_STATIC_ASSERT(sizeof(Rec26Extended) == 131, "Rec26Extended layout");
NVB_STATIC_ASSERT(sizeof(Rec26) == 139, "Rec26 layout");
NVB_STATIC_ASSERT(sizeof(Rec28Sub1) == 97, "Rec28Sub1 layout");
NVB_STATIC_ASSERT(sizeof(Rec28Sub2) == 134, "Rec28Sub2 layout");
NVB_STATIC_ASSERT(sizeof(Rec28Sub3) == 213, "Rec28Sub3 layout");
NVB_STATIC_ASSERT(sizeof(Rec28Sub4) == 183, "Rec28Sub4 layout");
NVB_STATIC_ASSERT(sizeof(Rec28Sub8) == 63, "Rec28Sub8 layout");
NVB_STATIC_ASSERT(sizeof(Rec28Sub10) == 95, "Rec28Sub10 layout");
NVB_STATIC_ASSERT(sizeof(Rec28) == 214, "Rec28 layout");

#endif
