/* Decoded measurement epochs: Rec27 (current epoch record) and Rec17 (older epoch). */
#ifndef NVBDLL_RECORDS_MEASUREMENT_H
#define NVBDLL_RECORDS_MEASUREMENT_H

#include "nvbdll_platform.h"

#define NVB_MAX_SV 116
#define NVB_MAX_MEAS 6
#define NVB_MAX_CLOCK_TERMS 8
#define NVB_REC17_MAX_SV 24

#pragma pack(push, 1)

/* Offsets of each satellite system's clock from the receiver clock; shared by Rec27 and Rec29. */
typedef struct ClockSystemBlock {
    uint8_t blockLength;     /* 3 + 9 x count */
    uint8_t referenceSystem; /* 4 bits on the wire */
    uint8_t count;           /* entries in use, at most 7 from the wire */
    uint8_t rt_clktype[NVB_MAX_CLOCK_TERMS];
    double systemClockOffset[NVB_MAX_CLOCK_TERMS];
} ClockSystemBlock;

typedef struct Rec27Meas {
    uint8_t measBlockLen; /* 27, 28 with measFlags2, 29 with measFlags3, plus dropped flag bytes */
    uint8_t blockType;    /* carrier band */
    uint8_t trackType;
    uint16_t snr;         /* 0.1 dB-Hz steps */
    double range;         /* metres, absolute */
    double phase;         /* cycles */
    float doppler;        /* Hz, meaningful with measFlags1 bit 2 */
    uint8_t slipCount;
    uint8_t measFlags1;
    uint8_t measFlags2;
    uint8_t measFlags3;
} Rec27Meas;

typedef struct Rec27Sv {
    uint8_t svBlockLen; /* 10, 11 with svFlags2, 14 with the slip counts */
    uint8_t svId;
    uint8_t rt_sattype;
    uint8_t antennaNumber;
    uint8_t channel; /* FDMA channel for GLONASS, else the receiver channel */
    uint8_t nMeas;
    int16_t elevation;
    uint16_t azimuth;
    uint8_t svFlags;
    uint8_t svFlags2;
    uint8_t geomSlipCount;
    uint8_t ionoSlipCount;
    uint8_t spare;
    Rec27Meas meas[NVB_MAX_MEAS];
} Rec27Sv;

typedef struct Rec27 {
    uint8_t epochHeaderLen; /* 17, +4 with clkDrift, +1 with raimFault */
    uint16_t weekNum;
    double receiveTime; /* ms of the week */
    float clkOffset;    /* ms */
    uint8_t nSv;
    uint8_t epochFlags; /* bit 1 clkDrift, bit 4 raimFault, bit 5 clock block */
    float clkDrift;
    uint8_t raimFault;
    ClockSystemBlock clock;
    Rec27Sv sv[NVB_MAX_SV];
} Rec27;

typedef struct Rec17Sv {
    uint8_t svId;
    uint8_t svFlags;  /* bit 0 second frequency, bit 1 slip, bit 4 phase usable, bit 5 wide coding */
    uint8_t svFlags2; /* low nibble from the wire; bit 5 last double present; bit 7 Doppler invalid */
    uint8_t svFlags3; /* constant 3 from the reader */
    uint16_t elevation;
    uint16_t azimuth;
    double snr;
    double range;
    double phase;
    double doppler;
    double reserved;
    double snr2;
    double phase2;
    double rangeDiff2;
    double last;
} Rec17Sv;

typedef struct Rec17 {
    double receiveTime; /* ms of the week */
    double clkOffset;   /* ms */
    uint8_t nSv;
    Rec17Sv sv[NVB_REC17_MAX_SV];
} Rec17;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(ClockSystemBlock) == 75, "ClockSystemBlock layout");
NVB_STATIC_ASSERT(sizeof(Rec27Meas) == 29, "Rec27Meas layout");
NVB_STATIC_ASSERT(sizeof(Rec27Sv) == 189, "Rec27Sv layout");
NVB_STATIC_ASSERT(sizeof(Rec27) == 22021, "Rec27 layout");
NVB_STATIC_ASSERT(sizeof(Rec17Sv) == 80, "Rec17Sv layout");
NVB_STATIC_ASSERT(sizeof(Rec17) == 1937, "Rec17 layout");

#endif
