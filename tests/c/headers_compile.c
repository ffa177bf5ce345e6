/* The public headers compile as C11, and their layout is the one a C host sees: every
 * field where the DAT form puts it, checked by the C compiler. The DAT form is the 4-byte
 * header followed by the structure, so a DAT length is 4 plus where the last field ends. The
 * headers' own size assertions (frame buffer, records 27 and 17) are checked here as C. */
#include <nvbdll/nvbdll.h>

#include <stddef.h>
#include <stdio.h>
#include <string.h>

#define AT(type, member, offset) _Static_assert(offsetof(type, member) == (offset), #type "." #member)
#define DAT_END(what, end, length) _Static_assert(4 + (end) == (length), what)
#define SECTION (1 + NVB_REC30_SECTION_BYTES)

/* Record 21: the stream carries svId at offset 3 and no second byte; the structure adds
 * that byte, so every later field sits at its stream offset minus 2. */
AT(Rec21, words[0], 2);
AT(Rec21, bytes[0], 6);
AT(Rec21, dwords[0], 8);
AT(Rec21, doubles[0], 20);
AT(Rec21, dword4, 172);
AT(Rec21, moreBytes[0], 176);
AT(Rec21, lastByte, 185);
DAT_END("record 21", sizeof(Rec21), 190);

/* Record 28: the subtype byte, then the subtype's body. The Galileo short form is the
 * long one without its two tail words, behind a head of svId, u16, u32, u16, u32, 15
 * doubles, byte, u16, byte. */
DAT_END("record 28 subtype 1", 1 + sizeof(Rec28Sub1), 102);
DAT_END("record 28 subtype 2", 1 + sizeof(Rec28Sub2), 139);
DAT_END("record 28 subtype 3", 1 + sizeof(Rec28Sub3), 218);
DAT_END("record 28 subtype 4", 1 + sizeof(Rec28Sub4), 188);
DAT_END("record 28 common body", offsetof(Rec28, common.moreBytes), 181);
DAT_END("record 28 subtype 8", 1 + sizeof(Rec28Sub8), 68);
DAT_END("record 28 subtype 10", 1 + sizeof(Rec28Sub10), 100);
AT(Rec28, common.svId, 1);
AT(Rec28, sub3.tailWord1, 1 + 137);
AT(Rec28, sub3.tailWord2, 1 + 137 + 2 + 4 + 32);
AT(Rec28, sub4.double1, 1 + 183 - 9);
_Static_assert(7 + sizeof(Rec28Sub3) - 2 * sizeof(uint16_t) == 216, "record 28 Galileo short form");

DAT_END("record 25 subtype 0 data in place of the flags", offsetof(Rec25, sub0.data) + NVB_SBAS_DATA_BYTES, 39);
DAT_END("record 25 subtype 2 without check", offsetof(Rec25, sub2.preamble), 40);
DAT_END("record 25 subtype 2 with a 24-bit check", offsetof(Rec25, sub2.crc) + 3, 44);
AT(Rec25, sub0.data, 7);
AT(Rec25, sub2.flags, 7);

/* Record 26: the data follow a head of 13 bytes (two-byte subtypes) or 14. */
AT(Rec26, rawByte, 7);
AT(Rec26, plain.rawWord, 8);
AT(Rec26, plain.length, 12);
AT(Rec26, plain.data, 13);
AT(Rec26, page.flags, 8);
AT(Rec26, page.payloadIndex, 11);
AT(Rec26, page.data, 13);
AT(Rec26, extended.extraByte, 12);
AT(Rec26, extended.length, 13);
AT(Rec26, extended.data, 14);
_Static_assert(offsetof(Rec26, extended.data) + 125 == sizeof(Rec26), "record 26 extended data");

/* Record 5 keeps its stream offsets less four. */
AT(Rec5, sub7.pairs[0][0], 12);
AT(Rec5, sub2.presenceMark, 6 * 2 + 12 + 12 + 4);
AT(Rec5, sub2.double1, 6 * 2 + 12 + 12 + 8);
AT(Rec5, sub0.textLength, 42);
AT(Rec5, sub0.text, 43);
AT(Rec5, sub3.dwords[1], 102);

/* Record 12: stream offsets 3 to 18 keep their place less 3; each scaled 32-bit field
 * becomes a double and pushes what follows 4 bytes further. */
AT(Rec12, word3, 11 - 3);
AT(Rec12, word4, 17 - 3);
AT(Rec12, unsignedValue, 19 - 3);
AT(Rec12, dword1, 31 - 3 + 4);
AT(Rec12, word5, 39 - 3 + 4);
AT(Rec12, signedValue, 55 - 3 + 4);
DAT_END("record 12 header alone", offsetof(Rec12, pairs), 68);
DAT_END("record 12 with 47 pairs", offsetof(Rec12, pairs) + NVB_REC12_MAX_PAIRS * sizeof(Rec12Pair),
        68 + 16 * NVB_REC12_MAX_PAIRS);

AT(Rec15, unsignedValue, 88 + 16);
AT(Rec15, bytes, 88 + 24);
DAT_END("record 15", sizeof(Rec15), 124);
DAT_END("record 19 subtype 1", sizeof(Rec19Sub1), 14);
DAT_END("record 19 subtype 2", sizeof(Rec19Sub2), 14);
DAT_END("record 19 subtype 6", sizeof(Rec19Sub6), 14);
DAT_END("record 19 subtype 7", sizeof(Rec19Sub7), 15);
AT(Rec19, sub7.value, 3);
AT(Rec19, sub3.text, 2);
AT(Rec19, sub8.text, 3);
DAT_END("record 24", sizeof(Rec24), 108);

/* Record 22 holds tables of eight entries each. */
AT(Rec22, byteTable1, 1 + 32 + 8);
AT(Rec22, bytes2, 1 + 32 + 8 + 8);
AT(Rec22, byteTable2, 1 + 32 + 8 + 8 + 6);
AT(Rec22, dwordTables[1][0], 71 + 32);
AT(Rec22, word5, 213 - 14);

/* Record 30 keeps one grid of sections across subtypes. */
AT(Rec30, sub1.a, 1);
AT(Rec30, sub1.d, 1 + 3 * SECTION);
AT(Rec30, sub1.d.words[1], 1 + 3 * SECTION + 3);
AT(Rec30, sub1.g, 1 + 6 * SECTION);
AT(Rec30, sub1.i.byte1, 1 + 8 * SECTION + 1);
AT(Rec30, sub2.e, 1 + 4 * SECTION);
AT(Rec30, sub3.c.dwords[1], 1 + 2 * SECTION + 5);
AT(Rec30, sections.section[8], 1 + 8 * SECTION);
AT(Rec30, freeLength, 1 + 9 * SECTION);

DAT_END("record 32 subtype 2", 1, 5);
DAT_END("record 32 subtype 3", 1 + sizeof(Rec32Sub3), 88);
DAT_END("record 32 subtype 4", 1 + sizeof(Rec32Sub4), 91);
DAT_END("record 32 subtype 5", 1 + sizeof(Rec32Sub5), 103);
DAT_END("record 32 subtype 6", 1 + sizeof(Rec32Sub6), 80);
AT(Rec32, sub4.set, 4);

/* Record 33: parallel arrays, the raw subtype and the 3 x 3 matrices (row after row) where
 * the reader puts them. */
AT(Rec33, sub3.count, 1);
AT(Rec33, sub3.system, 2);
AT(Rec33, sub3.second, 84);
AT(Rec33, sub3.third, 166);
AT(Rec33, sub5to12.count, 1);
AT(Rec33, sub5to12.values, 2);
AT(Rec33, raw.data, 1);
AT(Rec33, raw.originalSubtype, 249);
AT(Rec33, sub19.tailDoubles[2], 116 - 3);
AT(Rec33, sub17.tailBytes, 464 - 4);
DAT_END("record 33 converted subtype 14", sizeof(Rec33), 468);
_Static_assert(sizeof(((Rec33Sub16*)0)->values) == 240, "record 33 subtype 16 values");
AT(Rec33, sub22.vector, 13);
AT(Rec33, sub22.matrix, 37);
AT(Rec33, sub23.vector, 49);
AT(Rec33, sub23.matrix, 73);
AT(Rec33, sub23.bytes, 145);
AT(Rec33, sub21.groupFlags, 46);
AT(Rec33, sub21.groupA, 47);
AT(Rec33, sub21.groupB, 47 + 66);
AT(Rec33, sub21.groupC, 47 + 2 * 66);
AT(Rec33, sub21.groupC.singles5, 47 + 2 * 66 + 3 + 16 + 12 + 36);

/* The auxiliary records end where their DAT lengths say, here for 7 entries. */
DAT_END("record 31", offsetof(Rec31, data) + 7, 7 + 8);
DAT_END("record 34 kind 1", offsetof(Rec34, kind1.entries) + 7 * 12, 8 + 7 * 12);
DAT_END("record 34 kind 2", offsetof(Rec34, kind2.entries) + 7 * 25, 8 + 7 * 25);
DAT_END("record 34 other kinds", offsetof(Rec34, raw) + 7, 7 + 5);
DAT_END("record 40", offsetof(Rec40, entries) + 7 * sizeof(Rec40Entry), 9 * 7 + 11);
DAT_END("record 99", offsetof(Rec99, payload) + 7, 7 + 11);
AT(Rec98, payload, 8);
AT(Rec102, entries[1], 2 * 8 + 1 + 34);
_Static_assert(sizeof(((Rec34*)0)->kind2) == sizeof(Rec34) - 1, "record 34 kind 2 fills the structure");

int main(void) {
    char version[8] = {0};
    if (nvbdll_getNVBLibVersion(version) != 5 || strcmp(version, "8.97 ") != 0) {
        fprintf(stderr, "version text wrong: '%s'\n", version);
        return 1;
    }
    return 0;
}
