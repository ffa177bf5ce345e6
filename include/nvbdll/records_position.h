/* Decoded position records: Rec29 (position solution) and Rec11 (older short position). */
#ifndef NVBDLL_RECORDS_POSITION_H
#define NVBDLL_RECORDS_POSITION_H

#include "records_measurement.h"

#define NVB_REC11_MAX_SV 32

#pragma pack(push, 1)

typedef struct Rec29SvEntry {
    uint8_t svId;
    uint8_t rt_sattype;
    uint8_t flags; /* bit 1: used in the fix */
} Rec29SvEntry;

typedef struct Rec29 {
    /* block 1 */
    uint8_t block1Len; /* 15 */
    uint16_t week;
    uint32_t time; /* ms of the week */
    uint8_t positionValid;
    uint8_t numSVs;
    uint8_t numSVsUsed;
    uint8_t raimInfo;
    uint8_t posFlags; /* bit 1 block 4, bit 2 set by the encoder, bit 4 clock block */
    uint8_t fixMode;
    uint8_t fixType; /* 3 to 6 brings block 3 */
    uint8_t fixInfo;
    /* block 2 */
    uint8_t block2Len; /* 93 */
    double latPos;
    double lonPos;
    double hgtPos;
    double latVel;
    double lonVel;
    double hgtVel;
    float clkOffset;
    float clkDrift;
    float pdop;
    float hdop;
    float vdop;
    float tdop;
    float sigmaN;
    float sigmaE;
    float sigmaU;
    float rms;
    float unitVariance;
    /* block 3 */
    uint8_t block3Len; /* 7, or 0 when absent */
    uint8_t corrInfo;
    float corrAge;
    uint8_t corrFlags;
    uint8_t corrExtra;
    float corrVector[3];
    uint32_t corrCount;
    /* block 4 */
    uint8_t block4Len; /* 10, or 0 when absent */
    float auxValueA;
    float auxValueB;
    uint8_t auxStatus;
    uint32_t auxExtra;
    /* block 5 */
    ClockSystemBlock clock;
    /* satellite list */
    uint8_t svListLen; /* 1 + 3 x numSVs */
    Rec29SvEntry sv[NVB_MAX_SV];
    uint8_t reserved; /* pads the structure to its allocated size */
} Rec29;

typedef struct Rec11 {
    double latitude;  /* semicircles */
    double longitude; /* semicircles */
    double height;    /* m */
    double clockOffset;
    double clockDrift;
    double pdop;
    double velocity1;
    double velocity2;
    double velocity3;
    uint32_t time;
    uint8_t fixStatus;
    uint8_t nSv;
    /* nSv channel bytes, then nSv satellite bytes right behind them: the DAT form is the
     * structure as it stands, 2 x nSv + 82 bytes long. */
    uint8_t lists[2 * NVB_REC11_MAX_SV];
} Rec11;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(Rec29) == 571, "Rec29 layout");
NVB_STATIC_ASSERT(sizeof(Rec11) == 142, "Rec11 layout");

#endif
