/* Output control of the epoch expanders: mode 0 writes the plain record; the other
 * modes (observation text, BINEX) and decimation with slip tracking plug in here. The
 * exported front ends always run mode 0 without an interval; a host that owns a control
 * sets it up with the core's output routines. */
#ifndef NVBDLL_OUTPUT_CONTROL_H
#define NVBDLL_OUTPUT_CONTROL_H

#include "codec_state.h"
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

/* Where observation text and BINEX records go: a buffer of fixed capacity that the host
 * drains. An epoch that would not fit whole is not written at all and counted in
 * `refused`; nothing is ever written past `capacity`. */
typedef struct rinex_writer_t {
    uint8_t* data;
    uint32_t capacity;
    uint32_t length;
    uint32_t refused;
} rinex_writer_t;

struct rinex_control_t;
struct epoch_rinex_t;

/* Called by an epoch expander for a kept epoch in modes 1 to 3: the epoch's image, its
 * plain record, the slip mark of each satellite row and signal, and the work buffer. */
typedef void (*rinex_epoch_sink_t)(struct rinex_control_t* control, const epoch_image_t* image,
                                   const uint8_t* plainRecord, uint16_t plainLength,
                                   const uint8_t (*slipMarks)[6], struct epoch_rinex_t* work);

typedef struct rinex_control_t {
    uint8_t mode;      /* 0 plain record, 1 RINEX text, 2 BINEX, 3 Compact RINEX text */
    uint32_t interval; /* decimation interval in ms, 0 for none */
    uint8_t verify;    /* 1: test the checksum of an expanded epoch */
    uint8_t obsRowCount;
    uint8_t obsUsedFrozen[10][87];
    uint8_t headerOpen;
    uint8_t skipCollect;
    uint8_t keepObsList;
    uint16_t rinexVersion;    /* 211, 212, 302 or 303 */
    uint8_t obsTable[120][4]; /* observation row, kind bits, band, tracking code */
    uint8_t previousEpoch[116][3];
    void* history; /* per-satellite histories of the text and BINEX writers */
    uint8_t obsList[10][87];
    uint8_t obsCount;
    double obsIntervalSeconds;
    int8_t gloChannels[24];
    epoch_slip_table_t slipCurrent;
    epoch_slip_table_t slipPrevious;
    rinex_writer_t* writer;
    rinex_epoch_sink_t sink;
    int32_t binexClock; /* last receiver clock of the BINEX record, us; 0x7FFFFFFF none */
} rinex_control_t;

#pragma pack(pop)

#endif
