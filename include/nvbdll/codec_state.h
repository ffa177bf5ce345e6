/* Working images and histories of the compact codecs. Every multi-byte field of an
 * image holds the big-endian bytes of the plain record, so that deltas and predictions
 * are byte-string arithmetic and reconstruction is exact. */
#ifndef NVBDLL_CODEC_STATE_H
#define NVBDLL_CODEC_STATE_H

#include "nvbdll_platform.h"

#pragma pack(push, 1)

/* Measurement epochs (types 36 to 39 against record 27). */
typedef struct epoch_sig_row_t {
    uint8_t measBlockLen;
    uint8_t blockType;
    uint8_t trackType;
    uint8_t snr[2];
    uint8_t range[4]; /* later signals use the first 2 or 3 bytes */
    uint8_t phase[6];
    uint8_t slipCount;
    uint8_t measFlags1;
    uint8_t measFlags2;
    uint8_t measFlags3;
    uint8_t doppler[3];
} epoch_sig_row_t;

typedef struct epoch_sat_row_t {
    uint8_t svBlockLen;
    uint8_t svId;
    uint8_t rt_sattype;
    uint8_t antennaNumber;
    uint8_t channel;
    uint8_t nMeas;
    uint8_t elevation;
    uint8_t azimuth;
    uint8_t svFlags;
    uint8_t svFlags2;
    uint8_t svSlipCounts[3];
    epoch_sig_row_t signals[6];
} epoch_sat_row_t;

typedef struct epoch_clock_block_t {
    uint8_t blockLength;
    uint8_t blockFlags;      /* bits 4-6: number of clock terms */
    uint8_t clockTypes[8];   /* bits 4-6: the term's byte length on the wire */
    uint8_t clockValues[8][7]; /* right-aligned, sign-extended */
} epoch_clock_block_t;

typedef struct epoch_image_t {
    uint8_t stx;
    uint8_t lengthLow;
    uint8_t recordType;
    uint8_t lengthHigh;
    uint8_t epochHeaderLen;
    uint8_t weekNum[2];
    uint8_t receiveTime[4];
    uint8_t clkOffset[3];
    uint8_t nSv;
    uint8_t epochFlags;
    uint8_t clkDrift[3];
    uint8_t raimFault;
    epoch_clock_block_t clockBlock;
    epoch_sat_row_t sats[116];
    uint8_t checksum[2];
    uint8_t etx;
} epoch_image_t;

typedef struct epoch_history_t {
    epoch_image_t previous;
    epoch_image_t predicted;
} epoch_history_t;

/* Compact positions (types 54 and 55 against record 11). */
typedef struct position_image_t {
    uint8_t stx;
    uint8_t length;
    uint8_t recordType;
    uint8_t head[38];
    uint8_t solutionByte;
    uint8_t svCount;
    uint8_t svIndex[116];
    uint8_t svStatus[116];
    uint8_t residual[2];
    uint16_t checksum;
    uint8_t etx;
} position_image_t;

typedef struct position_history_t {
    position_image_t previous;
    position_image_t predicted;
} position_history_t;

/* Compact solutions (types 56 and 57 against record 29). */
typedef struct solution_image_t {
    uint8_t head[4];
    uint8_t block1[15];
    uint8_t block2[53];
    uint8_t block3[5];
    uint8_t block4[12];
    epoch_clock_block_t block5;
    uint8_t block6Length;
    uint8_t block6[116][3];
    uint8_t checksum[2];
    uint8_t etx;
} solution_image_t;

typedef struct solution_history_t {
    solution_image_t previous;
    solution_image_t predicted;
} solution_history_t;

/* Compact measurement records 17 (types 66 to 69 and 74 to 77). */
typedef struct obs_row_t {
    uint8_t svNumber;
    uint8_t flagsA;
    uint8_t flagsB;
    uint8_t flagsC;
    uint8_t fieldD;
    uint8_t fieldE;
    uint8_t fieldF;
    uint8_t range[4];
    uint8_t carrier[6];
    uint8_t doppler[3];
    uint8_t tail;
    uint8_t fieldG;
    uint8_t carrier2[6];
    uint8_t range2[2];
    uint8_t extra;
    uint8_t accel2[6];
    uint8_t older2[6];
    uint8_t slope[4];
    uint8_t accel[6];
    uint8_t older[6];
} obs_row_t;

typedef struct obs_image_t {
    uint8_t stx;
    uint8_t length;
    uint8_t recordType;
    uint8_t timeMs[4];
    uint8_t clockOffset[2];
    uint8_t svTotal;
    obs_row_t rows[116];
    uint16_t checksum;
    uint8_t etx;
    uint8_t rowCount;
} obs_image_t;

typedef struct obs_history_t {
    obs_image_t previous;
    obs_image_t predicted;
} obs_history_t;

/* Subframe cache (types 84 to 86 against record 25): a ring of 20 blocks per slot. */
typedef struct subframe_slot_t {
    uint8_t entries[20][32];
    uint8_t lengths[20];
    uint8_t head;
    uint8_t tail;
} subframe_slot_t;

typedef struct subframe_cache_t {
    subframe_slot_t slots[64];
    uint16_t week;
    uint32_t time;
    uint8_t first;
} subframe_cache_t;

/* Compact list records (type 41 against record 40). */
typedef struct list_row_t {
    uint8_t id;
    uint16_t value;
} list_row_t;

typedef struct list_state_t {
    uint16_t week;
    uint32_t lastTime;
    list_row_t rows[128];
    uint32_t predictedTime;
} list_state_t;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(epoch_sig_row_t) == 22, "epoch_sig_row_t layout");
NVB_STATIC_ASSERT(sizeof(epoch_sat_row_t) == 145, "epoch_sat_row_t layout");
NVB_STATIC_ASSERT(sizeof(epoch_clock_block_t) == 66, "epoch_clock_block_t layout");
NVB_STATIC_ASSERT(sizeof(epoch_image_t) == 16909, "epoch_image_t layout");
NVB_STATIC_ASSERT(sizeof(position_image_t) == 280, "position_image_t layout");
NVB_STATIC_ASSERT(sizeof(subframe_slot_t) == 662, "subframe_slot_t layout");
NVB_STATIC_ASSERT(sizeof(list_state_t) == 394, "list_state_t layout");

#endif
