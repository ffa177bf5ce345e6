/* The two state objects. A host that shares this declaration sets options by writing
 * their fields directly, so the field order is part of the interface. */
#ifndef NVBDLL_STATE_H
#define NVBDLL_STATE_H

#include "codec_state.h"
#include "output_control.h"
#include "rclean_state.h"
#include "rec35_state.h"
#include "records_measurement.h"

#define NVB_FRAME_CAPACITY 5120u
#define NVB_BLOCK_CAPACITY 530134u
#define NVB_ENCODE_OUTPUT_CAPACITY 530156u
#define NVB_FILLING_BLOCK_CAPACITY 524288u
/* Huffman decoding can deliver up to 7 bytes more than a full frame in one input byte. */
#define NVB_ASSEMBLY_SLACK 8u

#pragma pack(push, 1)

struct RecGeneric;
struct Rec5;
struct Rec11;
struct Rec12;
struct Rec15;
struct Rec16;
struct Rec19;
struct Rec21;
struct Rec22;
struct Rec24;
struct Rec25;
struct Rec26;
struct Rec28;
struct Rec29;
struct Rec30;
struct Rec31;
struct Rec32;
struct Rec33;
struct Rec34;
struct Rec40;
struct Rec98;
struct Rec99;
struct Rec101;
struct Rec102;

/* One structure per record type, overwritten by each record of that type. The slot
 * numbers are fixed; spare slots are allocated and freed with the rest. */
typedef struct nvb_record_table_t {
    uint8_t* datHeader;          /* slot 0: 0x74, length low, length high or subtype, type */
    struct RecGeneric* generic;  /* slot 1 */
    uint8_t* spare2;
    uint8_t* spare3;
    uint8_t* spare4;
    uint8_t* spare5;
    struct Rec5* rec5;           /* slot 6 */
    uint8_t* spare7;
    uint8_t* spare8;
    uint8_t* spare9;
    uint8_t* spare10;
    uint8_t* spare11;
    struct Rec11* rec11;         /* slot 12 */
    struct Rec12* rec12;
    struct Rec15* rec15;
    struct Rec16* rec16;
    Rec17* rec17;                /* slot 16 */
    struct Rec19* rec19;
    uint8_t* spare18;
    struct Rec21* rec21;         /* slot 19 */
    struct Rec22* rec22;
    struct Rec24* rec24;
    struct Rec25* rec25;
    struct Rec26* rec26;
    Rec27* rec27;                /* slot 24 */
    struct Rec28* rec28;
    struct Rec29* rec29;
    struct Rec30* rec30;
    struct Rec31* rec31;
    struct Rec32* rec32;
    struct Rec33* rec33;         /* slot 30 */
    struct Rec34* rec34;         /* slot 31, the 1254-byte series area */
    rec35_content_t* rec35;      /* slot 32 */
    struct Rec40* rec40;
    struct Rec98* rec98;
    struct Rec99* rec99;
    struct Rec101* rec101;       /* slot 36: records 101 and 102 exist in DAT form only */
    struct Rec102* rec102;
} nvb_record_table_t;

/* A frame: 5120 bytes of data and a 16-bit length, cleared whole before each fill. */
typedef struct nvb_frame_t {
    uint8_t data[NVB_FRAME_CAPACITY];
    uint16_t length;
} nvb_frame_t;

/* The byte-by-byte frame assembler: bytes waiting, the Huffman decoder's position and
 * the bytes decoded from one input byte. */
typedef struct nvb_frame_assembly_t {
    uint8_t bytes[NVB_FRAME_CAPACITY + NVB_ASSEMBLY_SLACK];
    uint16_t fill;
    const void* huffmanPosition;
    uint8_t decoded[8];
} nvb_frame_assembly_t;

typedef struct nvb_huffman_encoder_t {
    uint8_t bitCount; /* bits in the partial byte, 0 to 7 */
    uint8_t partial;
} nvb_huffman_encoder_t;

/* Receives each written unit (header and block, or Huffman bytes) of the encoder. */
typedef void (*nvb_write_callback_t)(const uint8_t* buffer, uint32_t length, void* writeContext);

typedef struct nvb_expand_t {
    nvb_record_table_t records;
    nvb_frame_t plainFrame; /* frame after expansion */
    nvb_frame_t frame;      /* frame as found */
    rec35_assembly_t rec35Assembly;
    nvb_frame_assembly_t frameAssembly;
    obs_history_t firstGenHistory;  /* pairs 66/74, 67/75 */
    position_history_t positionHistory;
    obs_history_t secondGenHistory; /* pairs 68/76, 69/77 */
    subframe_cache_t subframeCache;
    epoch_history_t epochHistory;
    solution_history_t solutionHistory;
    list_state_t listState;
    uint8_t trackingSlots[44];
    Rec17 rec17Work[2];    /* previous epoch, Doppler prediction */
    Rec27 previousEpochs[2]; /* previous epoch, Doppler prediction */
    float positionInterval;    /* s; above 0 thins positions */
    float measurementInterval; /* s; above 0 thins measurements */
    uint32_t positionCount;
    uint32_t measurementCount;
    rcleanState rclean;
    uint8_t blockInput[NVB_BLOCK_CAPACITY]; /* in byte streams a queue */
    uint8_t blockOutput[NVB_BLOCK_CAPACITY];
    uint32_t blockBytes;
    uint32_t blockReadPos;
    uint32_t inputFill;
    uint32_t bzip2LevelSeen;
    uint32_t inputReplayPos;
    uint8_t byteMode;   /* 1 byte stream, 0 block stream */
    uint8_t blockLevel; /* 0 until the first block, then 1-7 */
    uint8_t detectPending;
    uint8_t headerAccepted;
    uint8_t headerSeen;
    uint8_t minReaderMajor;
    uint8_t minReaderMinor;
    uint8_t writerMajor;
    uint8_t writerMinor;
    uint8_t headerByte12; /* low 7 bits */
    uint8_t headerByte13;
    uint8_t headerFlagBit;
    uint8_t headerTag;
    uint8_t dopplerControl; /* 1-3 */
    uint8_t firstRec30;
    uint8_t descramble; /* bit 0: undo scrambling */
    uint8_t mapSystem5To7;
    uint8_t mapSystem7To10;
    uint32_t recordOffset;
    uint32_t nextRecordOffset;
    uint8_t convertRec35Sub2;
    uint8_t convertRec35Sub9;
    uint8_t convertRec35Sub16;
    uint8_t convertRec35Sub19;
    uint8_t convertAllObservables;
    uint8_t keepAllSvBlocks;
    uint16_t currentType;
    uint8_t searching;
    uint8_t moreRecords;
    uint32_t headerCount;
    rinex_control_t outputControl;
    uint8_t resyncPending; /* the search handed reading a partial block: its decoding reports 18 */
} nvb_expand_t;

typedef struct nvb_encode_t {
    nvb_record_table_t records;
    nvb_frame_t plainFrame;
    nvb_frame_t frame;
    rec35_assembly_t rec35Assembly;
    uint8_t output[NVB_ENCODE_OUTPUT_CAPACITY];
    uint32_t outputLength;
    uint8_t block[NVB_FILLING_BLOCK_CAPACITY];
    uint32_t blockFill;
    uint32_t blockTarget;
    uint32_t bzip2BlockSize;
    /* Format level of what is written: 0 (the default) is the oldest byte stream form,
     * in which a first range above 33554431 m (BeiDou GEO and IGSO satellites) loses its
     * high bits and the library logs a "Warning: " line the first time; a host writing
     * a block stream sets 5, the form every current reader takes. */
    uint32_t fileFormat;
    uint8_t compressionMethod; /* 0 Huffman byte stream, 1-7 block methods */
    uint8_t compressionLevel;
    uint8_t explicitLevel;
    uint8_t headerPending;
    uint8_t headerTag;
    uint8_t epochForceReference;
    uint8_t forcePositionReference;
    uint8_t flushBlock;
    uint8_t dropMask;
    uint16_t scrambleBlocks;
    uint8_t rec35Mode; /* NVB_REC35_PASSTHROUGH, NVB_REC35_COPY (rec35_state.h) */
    nvb_huffman_encoder_t huffmanEncoder;
    position_history_t positionHistory;
    obs_history_t secondGenHistory;
    subframe_cache_t subframeCache;
    epoch_history_t epochHistory;
    solution_history_t solutionHistory;
    list_state_t listState;
    uint32_t lastEpochReferenceTime;
    uint32_t lastPositionReferenceTime;
    uint32_t lastSolutionReferenceTime;
    uint32_t lastObsReferenceTime;
    uint32_t lastSubframeReferenceTime;
    float positionInterval;
    float measurementInterval;
    uint32_t positionCount;
    uint32_t measurementCount;
    uint8_t epochKeepDoppler;
    uint8_t epochUsePredicted;
    uint8_t epochForceLong;
    uint8_t rec29BitSeen;
    uint8_t legacyMode;
    nvb_write_callback_t writeCallback;
    void* writeContext;
    uint32_t writeReserved;
    rcleanState rclean;
    uint32_t recordCount;
    uint8_t restartHeader;
} nvb_encode_t;

#pragma pack(pop)

NVB_STATIC_ASSERT(sizeof(nvb_record_table_t) == 38 * sizeof(void*), "38 structure slots");
NVB_STATIC_ASSERT(sizeof(nvb_frame_t) == 5122, "frame buffer layout");
NVB_STATIC_ASSERT(sizeof(((nvb_expand_t*)0)->blockInput) == 530134, "block input buffer");
NVB_STATIC_ASSERT(sizeof(((nvb_expand_t*)0)->blockOutput) == 530134, "block output buffer");
NVB_STATIC_ASSERT(sizeof(((nvb_expand_t*)0)->previousEpochs) == 44042, "previous epochs");
NVB_STATIC_ASSERT(sizeof(((nvb_expand_t*)0)->rec17Work) == 3874, "record 17 work");

#endif
