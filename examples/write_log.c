/* A plain C host of nvbdll: writes a log from a file of DAT records, back to back.
 *
 *   write_log DATFILE LOGFILE
 *
 * It follows the library's calling order for writing: init, an encode state with its
 * record structures, the settings, one call per record, finalisation. */
#include <nvbdll/encode.h>
#include <nvbdll/nvbdll.h>
#include <nvbdll/records.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The record structures the encoder parses into, one per type. */
/* clang-format off */
#define RECORD_SLOTS(X)                                                                                    \
    X(generic) X(rec5) X(rec11) X(rec12) X(rec15) X(rec16) X(rec17) X(rec19) X(rec21) X(rec22) X(rec24) \
    X(rec25) X(rec26) X(rec27) X(rec28) X(rec29) X(rec30) X(rec31) X(rec32) X(rec33) X(rec34) X(rec40)  \
    X(rec98) X(rec99) X(rec101) X(rec102)
#define ALLOCATE(field) ok &= (state->records.field = calloc(1, sizeof *state->records.field)) != NULL;
#define RELEASE(field) free(state->records.field);
/* clang-format on */

/* nvbdll_freeEncodeState deletes with C++ delete, which memory from calloc must not meet:
 * this host frees everything it allocated itself. What the library allocates inside the
 * state (the thinning table, at initialisation; buffers of records 35, which this host
 * does not pass) only nvbdll_freeEncodeState releases, so the table stays to the end of
 * the process. */
static nvb_encode_t* newEncodeState(void) {
    nvb_encode_t* state = calloc(1, sizeof *state);
    if (state == NULL) return NULL;
    nvbdll_initDATEncodeState(state);
    int ok = (state->records.datHeader = calloc(4, 1)) != NULL;
    RECORD_SLOTS(ALLOCATE)
    if (ok) return state;
    free(state->records.datHeader);
    RECORD_SLOTS(RELEASE)
    free(state);
    return NULL;
}

static void freeEncodeState(nvb_encode_t* state) {
    free(state->records.datHeader);
    RECORD_SLOTS(RELEASE)
    free(state);
}

/* A DAT record's length from its header: byte 2 for types 0 to 2, bytes 1 and 2 for the
 * long types, byte 1 otherwise; a record 35 of 65535 bytes or more tells it behind its
 * subtypes. 0 when `have` bytes are too few to tell. */
static size_t datLength(const uint8_t* record, size_t have) {
    if (have < 4) return 0;
    switch (record[3]) {
        case 0:
        case 1:
        case 2:
            return record[2];
        case 35:
            if (record[1] == 0xFF && record[2] == 0xFF) {
                if (have < 24) return 0;
                return 24 + ((size_t)record[20] | (size_t)record[21] << 8 | (size_t)record[22] << 16 |
                             (size_t)record[23] << 24);
            }
            return (size_t)record[1] | (size_t)record[2] << 8;
        case 12:
        case 17:
        case 27:
        case 29:
        case 34:
        case 98:
        case 99:
        case 101:
        case 102:
            return (size_t)record[1] | (size_t)record[2] << 8;
        default:
            return record[1];
    }
}

/* Retrieval writes the first antenna's satellite count where the parser takes the count
 * of every satellite entry that follows, so the count is set from the entries. */
static void countSatellites(uint8_t* epoch, size_t length) {
    const size_t countAt = 19;
    if (length <= countAt + 1) return;
    const uint8_t flags = epoch[countAt + 1];
    size_t position = countAt + 2 + ((flags & 0x02) ? 4 : 0) + ((flags & 0x10) ? 1 : 0);
    if ((flags & 0x20) && position + 3 <= length) position += 3 + 9u * epoch[position + 2];
    unsigned satellites = 0;
    while (position + 10 <= length && epoch[position] != 0) {
        const unsigned measurements = epoch[position + 4];
        position += epoch[position];
        for (unsigned j = 0; j < measurements && position < length && epoch[position] != 0; ++j) {
            position += epoch[position];
        }
        ++satellites;
    }
    epoch[countAt] = (uint8_t)(satellites > 255 ? 255 : satellites);
}

static uint8_t* readWhole(FILE* file, size_t* size) {
    size_t capacity = 1 << 20;
    uint8_t* data = malloc(capacity);
    *size = 0;
    while (data != NULL) {
        *size += fread(data + *size, 1, capacity - *size, file);
        if (*size < capacity) break;
        uint8_t* grown = realloc(data, capacity * 2);
        if (grown == NULL) free(data);
        data = grown;
        capacity *= 2;
    }
    return data;
}

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: %s DATFILE LOGFILE\n", argv[0]);
        return 2;
    }
    FILE* in = fopen(argv[1], "rb");
    if (in == NULL) {
        perror(argv[1]);
        return 2;
    }
    size_t size = 0;
    uint8_t* dat = readWhole(in, &size);
    fclose(in);
    FILE* out = dat != NULL ? fopen(argv[2], "wb") : NULL;
    if (out == NULL) {
        perror(dat != NULL ? argv[2] : "out of memory");
        free(dat);
        return 2;
    }

    nvbdll_initNVBLib();
    nvb_encode_t* state = newEncodeState();
    if (state == NULL) {
        fprintf(stderr, "out of memory\n");
        fclose(out);
        free(dat);
        return 2;
    }
    /* The block-stream form: at level 0 (the byte-stream form) a first range above
     * 33554431 m, as every BeiDou GEO and IGSO satellite has, loses its high bits. */
    state->fileFormat = 5;
    state->compressionMethod = 7; /* zstd */
    state->compressionLevel = 0;
    /* Doppler on the wire, as the records give it; left at 0 the reader rebuilds it from
     * carrier phase instead. */
    state->epochKeepDoppler = 1;
    state->writeContext = out; /* the default callback writes to a FILE* */

    unsigned written = 0, skipped = 0, failed = 0;
    size_t at = 0;
    while (at < size) {
        size_t length = datLength(dat + at, size - at);
        if (dat[at] != 0x74 || length < 4 || length > size - at) {
            fprintf(stderr, "%s: byte %zu: not a whole DAT record\n", argv[1], at);
            ++failed;
            break;
        }
        if (dat[at + 3] == 35) {
            ++skipped;
        } else {
            if (dat[at + 3] == 27) countSatellites(dat + at, length);
            uint8_t status = 0;
            uint32_t before = state->recordCount;
            nvbdll_processDATRecord(state, dat + at, &status);
            if (status != NVB_STATUS_OK) ++failed;
            written += state->recordCount - before;
        }
        at += length;
    }
    nvbdll_finalizeDATProcessing(state);
    printf("records %u skipped %u failed %u\n", written, skipped, failed);
    if (skipped > 0)
        fprintf(stderr, "%s: %u records 35 left out: a C host can't release their buffers\n", argv[1], skipped);

    freeEncodeState(state);
    nvbdll_freeNVBLib();
    free(dat);
    return fclose(out) == 0 && failed == 0 && skipped == 0 ? 0 : 1;
}
