/* A plain C host of nvbdll: reads a log file and prints one line per record.
 *
 *   read_log FILE
 *
 * It follows the library's calling order: init, handle, then getter, process and
 * retrieve for each record until the end of the file. */
#include <nvbdll/nvbdll.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    FILE* file = fopen(argv[1], "rb");
    if (file == NULL) {
        perror(argv[1]);
        return 2;
    }

    nvbdll_initNVBLib();
    nvb_expand_t* state = nvbdll_GetNVBStateHandle();
    if (state == NULL) {
        fprintf(stderr, "out of memory\n");
        fclose(file);
        return 2;
    }
    /* 64 KiB holds any DAT form but that of a long record 35, for which it grows. */
    size_t capacity = 65536;
    uint8_t* dat = malloc(capacity);
    unsigned records = 0;
    unsigned damaged = 0;

    for (;;) {
        uint8_t status = 0;
        int32_t result = nvbdll_getNVBRecord(state, file, &status);
        if (status == NVB_STATUS_END_OF_FILE) break;
        if (result <= 0 || (status != NVB_STATUS_OK && status != NVB_STATUS_RESYNCHRONISED)) {
            /* An end symbol is where a Huffman stream may be picked up, not damage. */
            if (status != NVB_STATUS_OK && status != NVB_STATUS_HUFFMAN_END) {
                printf("damage status %u\n", (unsigned)status);
                ++damaged;
            }
            continue;
        }
        uint16_t type = 0;
        uint32_t length = nvbdll_processNVBRecord(state, 0, &type, &status);
        if (length > capacity) {
            uint8_t* grown = realloc(dat, length);
            if (grown == NULL) break;
            dat = grown;
            capacity = length;
        }
        if (length > 0 && status == NVB_STATUS_OK) {
            nvbdll_retrieveDATRecord(state, (int16_t)type, dat);
            ++records;
        }
        printf("type %u length %u status %u\n", (unsigned)type, (unsigned)length, (unsigned)status);
    }
    printf("records %u damaged %u\n", records, damaged);

    free(dat);
    nvbdll_FreeNVBStateHandle(state);
    nvbdll_freeNVBLib();
    fclose(file);
    return 0;
}
