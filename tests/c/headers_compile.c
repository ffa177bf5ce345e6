/* The public headers compile as C11, and their layout is the one a C host sees, checked by
 * the C compiler: each field offset of tests/data/c/layout.txt and each structure's end of
 * tests/data/c/dat_lengths.txt (the build writes them into layout_asserts.h and
 * dat_length_asserts.h). The headers' own size assertions (frame buffer, records 27 and 17)
 * are checked here as C. */
#include <nvbdll/nvbdll.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#define SECTION (1 + NVB_REC30_SECTION_BYTES) /* a record 30 section and its leading byte */
#define AT(type, member, offset) _Static_assert(offsetof(type, member) == (offset), #type "." #member)
#include "layout_asserts.h"

#define DAT_END(length, end, what) _Static_assert(4 + (end) == (length), what)
#include "dat_length_asserts.h"

/* Record 28: the Galileo short form is the long one without its two tail words. */
_Static_assert(7 + sizeof(Rec28Sub3) - 2 * sizeof(uint16_t) == 216, "record 28 Galileo short form");
_Static_assert(offsetof(Rec26, extended.data) + 125 == sizeof(Rec26), "record 26 extended data");
_Static_assert(sizeof(((Rec33Sub16*)0)->values) == 240, "record 33 subtype 16 values");
_Static_assert(sizeof(((Rec34*)0)->kind2) == sizeof(Rec34) - 1, "record 34 kind 2 fills the structure");

int main(void) {
    char version[8] = {0};
    if (nvbdll_getNVBLibVersion(version) != 5 || strcmp(version, "8.97 ") != 0) {
        fprintf(stderr, "version text wrong: '%s'\n", version);
        return 1;
    }
    return 0;
}
