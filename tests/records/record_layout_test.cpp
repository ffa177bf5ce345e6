#include <nvbdll/records_auxiliary.h>
#include <nvbdll/records_navigation.h>
#include <nvbdll/records_receiver.h>
#include <nvbdll/records_rec33.h>

#include <gtest/gtest.h>

#include <cstddef>

namespace {

// The DAT form is the 4-byte header followed by the structure, so a DAT length is
// 4 plus the structure offset where the record's last field ends.
constexpr std::size_t kDatHeader = 4;

struct Placement {
    const char* field;
    std::size_t actual;
    std::size_t expected;
};

void expectPlacements(std::initializer_list<Placement> placements) {
    for (const Placement& p : placements) {
        EXPECT_EQ(p.actual, p.expected) << p.field;
    }
}

#define AT(type, member, expected) Placement{#type "." #member, offsetof(type, member), expected}
#define DAT_END(what, endOffset, datLength) Placement{what, kDatHeader + (endOffset), datLength}

TEST(RecordLayout, Rec21FieldsStandTwoBytesBeforeTheirStreamOffsets) {
    // The stream carries svId at offset 3 and no second byte; the structure adds that
    // byte, so every later field sits at its stream offset minus 2.
    constexpr std::size_t shift = 2;
    expectPlacements({
        AT(Rec21, words[0], 4 - shift),
        AT(Rec21, words[1], 6 - shift),
        AT(Rec21, bytes[0], 8 - shift),
        AT(Rec21, dwords[0], 10 - shift),
        AT(Rec21, dwords[2], 18 - shift),
        AT(Rec21, doubles[0], 22 - shift),
        AT(Rec21, dword4, 174 - shift),
        AT(Rec21, moreBytes[0], 178 - shift),
        AT(Rec21, lastByte, 187 - shift),
    });
    EXPECT_EQ(kDatHeader + sizeof(Rec21), 190u);
}

TEST(RecordLayout, Rec28SubtypeBodiesEndAtTheirDatLengths) {
    // The subtype byte comes first, then the subtype's body.
    expectPlacements({
        DAT_END("subtype 1", 1 + sizeof(Rec28Sub1), 102),
        DAT_END("subtype 2", 1 + sizeof(Rec28Sub2), 139),
        DAT_END("subtype 3", 1 + sizeof(Rec28Sub3), 218),
        DAT_END("subtype 4", 1 + sizeof(Rec28Sub4), 188),
        DAT_END("common body", offsetof(Rec28, common.moreBytes), 181),
        DAT_END("subtype 8", 1 + sizeof(Rec28Sub8), 68),
        DAT_END("subtype 10", 1 + sizeof(Rec28Sub10), 100),
    });
    EXPECT_EQ(offsetof(Rec28, common.svId), 1u);
}

TEST(RecordLayout, Rec28GalileoShortFormIsTheLongFormWithoutItsTwoTailWords) {
    // Stream length: three frame bytes and the subtype, the body, checksum and end byte.
    constexpr std::size_t frame = 4 + 3;
    EXPECT_EQ(frame + sizeof(Rec28Sub3), 220u);
    EXPECT_EQ(frame + sizeof(Rec28Sub3) - sizeof(uint16_t) * 2, 216u);
    // The tail follows a head of svId, u16, u32, u16, u32, 15 doubles, byte, u16, byte.
    expectPlacements({
        AT(Rec28, sub3.tailWord1, 1 + 137),
        AT(Rec28, sub3.tailWord2, 1 + 137 + 2 + 4 + 32),
        AT(Rec28, sub4.double1, 1 + 183 - 9),
    });
}

TEST(RecordLayout, Rec25SubtypesEndAtTheirDatLengths) {
    expectPlacements({
        DAT_END("subtype 0 data in place of the flags", offsetof(Rec25, sub0.data) + NVB_SBAS_DATA_BYTES, 39),
        DAT_END("subtype 2 without check", offsetof(Rec25, sub2.preamble), 40),
        DAT_END("subtype 2 with a 24-bit check", offsetof(Rec25, sub2.crc) + 3, 44),
        AT(Rec25, sub0.data, 7),
        AT(Rec25, sub2.flags, 7),
    });
}

TEST(RecordLayout, Rec26DataFollowAHeadOfThirteenOrFourteenBytes) {
    // The reader's DAT length is that head plus the data count: 51 = 13 + 38 for the
    // two-byte subtypes, 25 = 14 + 11 and 139 = 14 + 125 for the three-byte ones.
    expectPlacements({
        AT(Rec26, rawByte, 7),
        AT(Rec26, plain.rawWord, 8),
        AT(Rec26, plain.length, 12),
        AT(Rec26, plain.data, 13),
        AT(Rec26, page.flags, 8),
        AT(Rec26, page.payloadIndex, 11),
        AT(Rec26, page.data, 13),
        AT(Rec26, extended.extraByte, 12),
        AT(Rec26, extended.length, 13),
        AT(Rec26, extended.data, 14),
    });
    EXPECT_EQ(offsetof(Rec26, extended.data) + 125, sizeof(Rec26));
}

TEST(RecordLayout, Rec5BodiesKeepStreamOffsetsLessFour) {
    expectPlacements({
        AT(Rec5, sub7.pairs[0][0], 12),
        AT(Rec5, sub7.pairs[0][1], 13),
        AT(Rec5, sub7.pairs[1][0], 14),
        AT(Rec5, sub2.presenceMark, 6 * 2 + 12 + 12 + 4),
        AT(Rec5, sub2.double1, 6 * 2 + 12 + 12 + 8),
        AT(Rec5, sub0.textLength, 42),
        AT(Rec5, sub0.text, 43),
        AT(Rec5, sub3.dwords[1], 102),
    });
}

TEST(RecordLayout, Rec12HeaderWidensItsScaledFieldsToDoubles) {
    // Stream offsets 3..18 keep their place less 3; each scaled 32-bit field becomes a
    // double and pushes what follows 4 bytes further.
    expectPlacements({
        AT(Rec12, word3, 11 - 3),
        AT(Rec12, word4, 17 - 3),
        AT(Rec12, unsignedValue, 19 - 3),
        AT(Rec12, dword1, 31 - 3 + 4),
        AT(Rec12, word5, 39 - 3 + 4),
        AT(Rec12, signedValue, 55 - 3 + 4),
        DAT_END("header alone", offsetof(Rec12, pairs), 68),
        DAT_END("a header and 47 pairs", offsetof(Rec12, pairs) + NVB_REC12_MAX_PAIRS * sizeof(Rec12Pair),
                68 + 16 * (NVB_REC12_MAX_PAIRS)),
    });
}

TEST(RecordLayout, Rec15And19And24EndAtTheirDatLengths) {
    expectPlacements({
        AT(Rec15, unsignedValue, 88 + 16),
        AT(Rec15, bytes, 88 + 24),
        DAT_END("record 15", sizeof(Rec15), 124),
        DAT_END("record 19 subtype 1", sizeof(Rec19Sub1), 14),
        DAT_END("record 19 subtype 2", sizeof(Rec19Sub2), 14),
        DAT_END("record 19 subtype 6", sizeof(Rec19Sub6), 14),
        DAT_END("record 19 subtype 7", sizeof(Rec19Sub7), 15),
        AT(Rec19, sub7.value, 3),
        AT(Rec19, sub3.text, 2),
        AT(Rec19, sub8.text, 3),
        DAT_END("record 24", sizeof(Rec24), 108),
    });
}

TEST(RecordLayout, Rec22TablesHoldEightEntriesEach) {
    expectPlacements({
        AT(Rec22, byteTable1, 1 + 32 + 8),
        AT(Rec22, bytes2, 1 + 32 + 8 + 8),
        AT(Rec22, byteTable2, 1 + 32 + 8 + 8 + 6),
        AT(Rec22, dwordTables[1][0], 71 + 32),
        AT(Rec22, word5, 213 - 14),
    });
}

TEST(RecordLayout, Rec30SectionsKeepOneGridAcrossSubtypes) {
    constexpr std::size_t section = 1 + NVB_REC30_SECTION_BYTES;
    expectPlacements({
        AT(Rec30, sub1.a, 1),
        AT(Rec30, sub1.d, 1 + 3 * section),
        AT(Rec30, sub1.d.words[1], 1 + 3 * section + 3),
        AT(Rec30, sub1.g, 1 + 6 * section),
        AT(Rec30, sub1.i.byte1, 1 + 8 * section + 1),
        AT(Rec30, sub2.e, 1 + 4 * section),
        AT(Rec30, sub3.c.dwords[1], 1 + 2 * section + 5),
        AT(Rec30, sections.section[8], 1 + 8 * section),
        AT(Rec30, freeLength, 1 + 9 * section),
    });
}

TEST(RecordLayout, Rec32SubtypeBodiesEndAtTheirDatLengths) {
    expectPlacements({
        DAT_END("subtype 2", 1, 5),
        DAT_END("subtype 3", 1 + sizeof(Rec32Sub3), 88),
        DAT_END("subtype 4", 1 + sizeof(Rec32Sub4), 91),
        DAT_END("subtype 5", 1 + sizeof(Rec32Sub5), 103),
        DAT_END("subtype 6", 1 + sizeof(Rec32Sub6), 80),
        AT(Rec32, sub4.set, 4),
    });
}

TEST(RecordLayout, Rec33ParallelArraysAndRawSubtypeStandWhereTheReaderPutsThem) {
    expectPlacements({
        AT(Rec33, sub3.count, 1),
        AT(Rec33, sub3.system, 2),
        AT(Rec33, sub3.second, 84),
        AT(Rec33, sub3.third, 166),
        AT(Rec33, sub5to12.count, 1),
        AT(Rec33, sub5to12.values, 2),
        AT(Rec33, raw.data, 1),
        AT(Rec33, raw.originalSubtype, 249),
        AT(Rec33, sub19.tailDoubles[2], 116 - 3),
        AT(Rec33, sub17.tailBytes, 464 - 4),
        DAT_END("converted subtype 14", sizeof(Rec33), 468),
    });
    EXPECT_EQ(sizeof(Rec33Sub16::values), 240u);
}

TEST(RecordLayout, Rec33CovarianceCopiesMirrorTheUpperTriangle) {
    // The reader fills each gap below the diagonal from the named original above it.
    struct Mirror {
        std::size_t row, column, copy, original;
    };
    const Mirror sub22[] = {{1, 0, 61, 45}, {2, 0, 85, 53}, {2, 1, 93, 77}};
    const Mirror sub23[] = {{1, 0, 97, 81}, {2, 0, 121, 89}, {2, 1, 129, 113}};
    constexpr std::size_t cell = sizeof(double);
    for (const Mirror& m : sub22) {
        EXPECT_EQ(offsetof(Rec33, sub22.matrix) + (m.row * 3 + m.column) * cell, m.copy);
        EXPECT_EQ(offsetof(Rec33, sub22.matrix) + (m.column * 3 + m.row) * cell, m.original);
    }
    for (const Mirror& m : sub23) {
        EXPECT_EQ(offsetof(Rec33, sub23.matrix) + (m.row * 3 + m.column) * cell, m.copy);
        EXPECT_EQ(offsetof(Rec33, sub23.matrix) + (m.column * 3 + m.row) * cell, m.original);
    }
    expectPlacements({
        AT(Rec33, sub22.vector, 13),
        AT(Rec33, sub22.matrix[2][2], 101),
        AT(Rec33, sub23.vector, 49),
        AT(Rec33, sub23.matrix[2][2], 137),
        AT(Rec33, sub23.bytes[0], 145),
        AT(Rec33, sub23.bytes[1], 146),
    });
}

TEST(RecordLayout, Rec33Subtype21GroupsKeepFixedPlaces) {
    expectPlacements({
        AT(Rec33, sub21.groupFlags, 46),
        AT(Rec33, sub21.groupA, 47),
        AT(Rec33, sub21.groupB, 47 + 66),
        AT(Rec33, sub21.groupC, 47 + 2 * 66),
        AT(Rec33, sub21.groupC.singles5, 47 + 2 * 66 + 3 + 16 + 12 + 36),
    });
}

TEST(RecordLayout, AuxiliaryRecordsEndAtTheirDatLengths) {
    constexpr std::size_t count = 7;
    expectPlacements({
        DAT_END("record 31", offsetof(Rec31, data) + count, count + 8),
        DAT_END("record 34 kind 1", offsetof(Rec34, kind1.entries) + count * 12, 8 + count * 12),
        DAT_END("record 34 kind 2", offsetof(Rec34, kind2.entries) + count * 25, 8 + count * 25),
        DAT_END("record 34 other kinds", offsetof(Rec34, raw) + count, count + 5),
        DAT_END("record 40", offsetof(Rec40, entries) + count * sizeof(Rec40Entry), 9 * count + 11),
        DAT_END("record 99", offsetof(Rec99, payload) + count, count + 11),
        AT(Rec98, payload, 8),
        AT(Rec102, entries[1], 2 * 8 + 1 + 34),
    });
    EXPECT_EQ(sizeof(Rec34::kind2), sizeof(Rec34) - 1);
}

}  // namespace
