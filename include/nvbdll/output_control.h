/* Output control of the epoch expanders: mode 0 writes the plain record; the other
 * modes (observation text, BINEX) and decimation with slip tracking plug in here. */
#ifndef NVBDLL_OUTPUT_CONTROL_H
#define NVBDLL_OUTPUT_CONTROL_H

#include "nvbdll_platform.h"

#pragma pack(push, 1)

typedef struct epoch_slip_row_t {
    uint16_t slipCount;
    uint8_t pending;
    uint8_t blockType;
    uint8_t trackType;
} epoch_slip_row_t;

typedef struct epoch_slip_sat_t {
    uint8_t svId;
    uint8_t rinexSystemIndex;
    uint8_t antennaNumber;
} epoch_slip_sat_t;

typedef struct epoch_slip_table_t {
    epoch_slip_row_t rows[116][6];
    epoch_slip_sat_t sats[116];
} epoch_slip_table_t;

typedef struct rinex_control_t {
    uint8_t mode;      /* 0 plain record, 1 RINEX text, 2 BINEX, 3 Compact RINEX text */
    uint32_t interval; /* decimation interval in ms, 0 for none */
    uint8_t verify;    /* 1: test the checksum of an expanded epoch */
    uint8_t obsRowCount;
    uint8_t obsUsedFrozen[10][87];
    uint8_t headerOpen;
    uint8_t skipCollect;
    uint8_t keepObsList;
    uint16_t rinexVersion; /* 211, 212, 302 or 303 */
    uint8_t obsTable[87][8];
    uint8_t previousEpoch[116][3];
    void* compactHistory; /* Compact RINEX history, allocated when that mode starts */
    uint8_t obsList[10][87];
    uint8_t obsCount;
    double obsIntervalSeconds;
    int8_t gloChannels[24];
    epoch_slip_table_t slipCurrent;
    epoch_slip_table_t slipPrevious;
} rinex_control_t;

#pragma pack(pop)

#endif
