/* Thinning tables: the slip memory that carries cycle slips of dropped epochs onto the
 * next kept one. One rcleanState sits in each expand and encode state. */
#ifndef NVBDLL_RCLEAN_STATE_H
#define NVBDLL_RCLEAN_STATE_H

#include "nvbdll_platform.h"

#define NVB_RCLEAN_REC17_SVS 36
#define NVB_RCLEAN_DROPPED_MAX 12
/* Record 27 tables are indexed ((blockType * 18) + trackType) * N + svId per system. */
#define NVB_RCLEAN_BANDS 6
#define NVB_RCLEAN_TRACKS 18
#define NVB_RCLEAN_GPS_SVS 40
#define NVB_RCLEAN_SBAS_SVS 25
#define NVB_RCLEAN_GLONASS_SVS 30
#define NVB_RCLEAN_GALILEO_SVS 60

#pragma pack(push, 1)

/* Filled for a host after a dropped record 17 epoch: the slips it held. */
typedef struct droppedSlipList_t {
    uint16_t reserved;
    double time;
    uint16_t count;
    uint8_t entries[NVB_RCLEAN_DROPPED_MAX][2]; /* satellite number, flags byte */
} droppedSlipList_t;

typedef struct rclean_slip_t {
    int32_t last;    /* last cycle count, -1 for none */
    int32_t pending; /* slip waiting for a kept epoch */
} rclean_slip_t;

typedef struct rcleanState {
    uint8_t keep;
    int32_t interval; /* ms, -1 after init */
    double time;      /* ms of the last epoch seen */
    void* record;     /* record 17 being worked on */
    void* item;
    droppedSlipList_t* list;
    uint32_t listCount;
    uint8_t svSeen[NVB_RCLEAN_REC17_SVS];
    uint16_t slipSeenCount[3][NVB_RCLEAN_REC17_SVS];   /* kinds A, B, C seen */
    uint16_t slipPassedCount[2][NVB_RCLEAN_REC17_SVS]; /* kinds A, B passed on */
    uint8_t keptSlip[NVB_RCLEAN_REC17_SVS];
    int32_t lastCycleGps[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_GPS_SVS];
    int32_t lastCycleSbas[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_SBAS_SVS];
    int32_t lastCycleGlonass[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_GLONASS_SVS];
    int32_t lastCycleGalileo[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_GALILEO_SVS];
    int32_t slipFlagGps[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_GPS_SVS];
    int32_t slipFlagSbas[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_SBAS_SVS];
    int32_t slipFlagGlonass[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_GLONASS_SVS];
    int32_t slipFlagGalileo[NVB_RCLEAN_BANDS * NVB_RCLEAN_TRACKS * NVB_RCLEAN_GALILEO_SVS];
    uint8_t rec17Pending[NVB_RCLEAN_REC17_SVS][3]; /* pending slips of kinds A, B, C */
    int32_t slipDims[4];   /* system, satellite, band, track */
    rclean_slip_t**** slip; /* record 35 table, grown on demand */
    droppedSlipList_t droppedSlipList;
} rcleanState;

#pragma pack(pop)

#endif
