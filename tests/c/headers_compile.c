/* The public headers compile as C11, and their layout is the one a C host sees, checked by
 * the C compiler: each field offset of tests/data/c/layout.txt (the build writes them into
 * layout_asserts.h), and each structure ending where the DAT form says. The DAT form is
 * the 4-byte header followed by the structure, so a DAT length is 4 plus where the last
 * field ends. The headers' own size assertions (frame buffer, records 27 and 17) are
 * checked here as C. */
#include <nvbdll/nvbdll.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#define SECTION (1 + NVB_REC30_SECTION_BYTES) /* a record 30 section and its leading byte */
#define AT(type, member, offset) _Static_assert(offsetof(type, member) == (offset), #type "." #member)
#include "layout_asserts.h"

#define DAT_END(what, end, length) _Static_assert(4 + (end) == (length), what)

DAT_END("record 21", sizeof(Rec21), 190);

/* Record 28: the Galileo short form is the long one without its two tail words. */
DAT_END("record 28 subtype 1", 1 + sizeof(Rec28Sub1), 102);
DAT_END("record 28 subtype 2", 1 + sizeof(Rec28Sub2), 139);
DAT_END("record 28 subtype 3", 1 + sizeof(Rec28Sub3), 218);
DAT_END("record 28 subtype 4", 1 + sizeof(Rec28Sub4), 188);
DAT_END("record 28 common body", offsetof(Rec28, common.moreBytes), 181);
DAT_END("record 28 subtype 8", 1 + sizeof(Rec28Sub8), 68);
DAT_END("record 28 subtype 10", 1 + sizeof(Rec28Sub10), 100);
_Static_assert(7 + sizeof(Rec28Sub3) - 2 * sizeof(uint16_t) == 216, "record 28 Galileo short form");

DAT_END("record 25 subtype 0 data in place of the flags", offsetof(Rec25, sub0.data) + NVB_SBAS_DATA_BYTES, 39);
DAT_END("record 25 subtype 2 without check", offsetof(Rec25, sub2.preamble), 40);
DAT_END("record 25 subtype 2 with a 24-bit check", offsetof(Rec25, sub2.crc) + 3, 44);

_Static_assert(offsetof(Rec26, extended.data) + 125 == sizeof(Rec26), "record 26 extended data");

DAT_END("record 12 header alone", offsetof(Rec12, pairs), 68);
DAT_END("record 12 with 47 pairs", offsetof(Rec12, pairs) + NVB_REC12_MAX_PAIRS * sizeof(Rec12Pair),
        68 + 16 * NVB_REC12_MAX_PAIRS);

DAT_END("record 15", sizeof(Rec15), 124);
DAT_END("record 19 subtype 1", sizeof(Rec19Sub1), 14);
DAT_END("record 19 subtype 2", sizeof(Rec19Sub2), 14);
DAT_END("record 19 subtype 6", sizeof(Rec19Sub6), 14);
DAT_END("record 19 subtype 7", sizeof(Rec19Sub7), 15);
DAT_END("record 24", sizeof(Rec24), 108);

DAT_END("record 32 subtype 2", 1, 5);
DAT_END("record 32 subtype 3", 1 + sizeof(Rec32Sub3), 88);
DAT_END("record 32 subtype 4", 1 + sizeof(Rec32Sub4), 91);
DAT_END("record 32 subtype 5", 1 + sizeof(Rec32Sub5), 103);
DAT_END("record 32 subtype 6", 1 + sizeof(Rec32Sub6), 80);

DAT_END("record 33 converted subtype 14", sizeof(Rec33), 468);
_Static_assert(sizeof(((Rec33Sub16*)0)->values) == 240, "record 33 subtype 16 values");

/* The auxiliary records end where their DAT lengths say, here for 7 entries. */
DAT_END("record 31", offsetof(Rec31, data) + 7, 7 + 8);
DAT_END("record 34 kind 1", offsetof(Rec34, kind1.entries) + 7 * 12, 8 + 7 * 12);
DAT_END("record 34 kind 2", offsetof(Rec34, kind2.entries) + 7 * 25, 8 + 7 * 25);
DAT_END("record 34 other kinds", offsetof(Rec34, raw) + 7, 7 + 5);
DAT_END("record 40", offsetof(Rec40, entries) + 7 * sizeof(Rec40Entry), 9 * 7 + 11);
DAT_END("record 99", offsetof(Rec99, payload) + 7, 7 + 11);
_Static_assert(sizeof(((Rec34*)0)->kind2) == sizeof(Rec34) - 1, "record 34 kind 2 fills the structure");

int main(void) {
    char version[8] = {0};
    if (nvbdll_getNVBLibVersion(version) != 5 || strcmp(version, "8.97 ") != 0) {
        fprintf(stderr, "version text wrong: '%s'\n", version);
        return 1;
    }
    return 0;
}
