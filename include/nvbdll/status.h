/* Status values: the 8-bit out-argument of the getters, processors and writers. */
#ifndef NVBDLL_STATUS_H
#define NVBDLL_STATUS_H

/* 0: no condition. A status does not always mean that no record came: 18 and 6 come
 * with results of their own. */
enum nvb_status {
    NVB_STATUS_OK = 0,
    NVB_STATUS_END_OF_FILE = 1,        /* end of the input file */
    NVB_STATUS_CHECKSUM = 2,           /* frame checksum wrong */
    NVB_STATUS_FRAME_LENGTH = 3,       /* frame length zero, above 5120, or input exhausted */
    NVB_STATUS_END_BYTE = 5,           /* end byte of a frame is not 0x03 */
    NVB_STATUS_HUFFMAN_END = 6,        /* Huffman end symbol met in the stream */
    NVB_STATUS_EXPANSION = 7,          /* block type above 8, compact expansion failed, record 35 without payload */
    NVB_STATUS_BZIP2 = 8,              /* block too long, or bzip2 failed */
    NVB_STATUS_READER_TOO_OLD = 9,     /* the header block asks for a newer reader */
    NVB_STATUS_ZLIB = 10,              /* zlib failed */
    NVB_STATUS_UNKNOWN_METHOD = 13,    /* compressionMethod not known to the encoder */
    NVB_STATUS_SCRAMBLED = 14,         /* scrambled block while descrambling is off */
    NVB_STATUS_NOT_WRITABLE = 15,      /* a record the writer can't take */
    NVB_STATUS_NO_POSITION = 15,       /* record 35 position record without a usable position (the same value) */
    NVB_STATUS_NO_CALLBACK = 16,       /* encode state without a write callback */
    NVB_STATUS_REC35_CONTENT = 17,     /* record 35: no content object, or allocation failed */
    NVB_STATUS_RESYNCHRONISED = 18,    /* reading found its footing again; a good record comes with it */
    NVB_STATUS_AVRO = 19,              /* record 35: Avro failure */
    NVB_STATUS_CAPACITY = 20,          /* record 35: element count above capacity */
    NVB_STATUS_SCHEMA = 21,            /* record 35: schema conflict or newer than the library */
    NVB_STATUS_NEED_REFERENCE = 23,    /* record 35: delta record while a reference is needed */
    NVB_STATUS_BROTLI = 24,            /* brotli failed */
    NVB_STATUS_ZSTD = 25               /* zstd failed */
};

/* Record type reported when there is nothing to deliver. */
#define NVB_NO_RECORD_TYPE 65535u

#endif
