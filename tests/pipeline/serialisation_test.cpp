#include "pipeline/encoding.h"
#include "pipeline/serialisation.h"
#include "records/dat_parser.h"
#include "records/opaque_records.h"
#include "records/position_records.h"
#include "support/epochs.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

namespace {

using nvbtest::addSatellite;
using nvbtest::addSignal;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint8_t kUnwritten = 0xEE;
// DAT offsets of an epoch without optional fields: the satellite count, then the first
// satellite behind the 17 bytes of the epoch header.
constexpr std::size_t kDatCount = 4 + 15;
constexpr std::size_t kDatFirstSatellite = 4 + 17;

// An expand state that DAT forms are retrieved from, and a host's encode state that
// parses them back into its structures.
class DatForm : public ::testing::Test {
protected:
    // Puts a structure into the expand state as a reader would, with a DAT header of
    // `length`, and retrieves its DAT form into a buffer of `length` bytes and a margin.
    template <class Record>
    Bytes retrieve(Record* slot, const Record& record, std::uint8_t type, std::uint16_t length) {
        std::memcpy(slot, &record, sizeof record);
        nvb::setDatHeader(handle->records.datHeader, static_cast<std::uint8_t>(length),
                          static_cast<std::uint8_t>(length >> 8), type);
        Bytes out(length + 64u, kUnwritten);
        EXPECT_TRUE(nvb::retrieveDATRecord(*handle.get(), type, out.data()));
        for (std::size_t i = length; i < out.size(); ++i) {
            if (out[i] != kUnwritten) {
                ADD_FAILURE() << "written past the DAT length at " << i;
                break;
            }
        }
        out.resize(length);
        return out;
    }
    Bytes retrieve27(const Rec27& epoch) {
        return retrieve(handle->records.rec27, epoch, 27, nvb::rec27DatLength(epoch));
    }

    std::uint16_t parse(const Bytes& dat, std::uint8_t dropMask = 0) {
        return nvb::parseDATRecord(*encoder.get(), dat.data(), dropMask);
    }

    // Retrieved, parsed and retrieved again, a structure comes back whole and its DAT form
    // byte for byte.
    template <class Record>
    void expectRoundTrip(Record* slot, const Record* parsed, const Record& record, std::uint8_t type,
                         std::uint16_t length) {
        const Bytes dat = retrieve(slot, record, type, length);
        ASSERT_EQ(parse(dat), length);
        EXPECT_EQ(std::memcmp(parsed, &record, sizeof record), 0) << "structure";
        EXPECT_EQ(retrieve(slot, *parsed, type, length), dat);
    }

    nvbtest::Handle handle;
    nvbtest::Encoder encoder{1};
    Rec27* const rec27 = encoder->records.rec27;
    Rec29* const rec29 = encoder->records.rec29;
    Rec17* const rec17 = encoder->records.rec17;
    std::uint8_t* const header = encoder->records.datHeader;
};

TEST_F(DatForm, ThePackedSystemByteIsStoredBackSoASecondRetrievalDiffers) {
    auto epoch = nvbtest::newEpoch(1000.0);
    addSignal(addSatellite(*epoch, 5, 1), 0, 0, 2e7, 0.0);
    addSignal(addSatellite(*epoch, 6, 0), 0, 0, 2e7, 0.0);
    const Bytes first = retrieve27(*epoch);
    constexpr std::size_t kSystemByte = kDatFirstSatellite + 2;
    EXPECT_EQ(first[kSystemByte], 65);
    EXPECT_EQ(handle->records.rec27->sv[0].rt_sattype, 65);
    Bytes second(first.size());
    ASSERT_TRUE(nvb::retrieveDATRecord(*handle.get(), 27, second.data()));
    EXPECT_EQ(second[kSystemByte], 129);
    EXPECT_EQ(second[kSystemByte + 37], 0) << "system 0 stays 0 however often";
}

TEST_F(DatForm, SlipCountsOfAReaderMadeEpochStayOutThoughItsLengthCountsThem) {
    auto epoch = nvbtest::newEpoch(1000.0);
    Rec27Sv& sv = addSatellite(*epoch, 5, 0, 0x80);
    sv.svFlags2 = 0x01;
    sv.svBlockLen = 14;
    sv.geomSlipCount = 7;
    addSignal(sv, 0, 0, 2e7, 0.0);
    const Bytes dat = retrieve27(*epoch);
    ASSERT_EQ(dat.size(), kDatFirstSatellite + 14 + 27);
    EXPECT_EQ(Bytes(dat.end() - 3, dat.end()), Bytes(3, kUnwritten));
    ASSERT_EQ(parse(dat), dat.size());
    EXPECT_EQ(rec27->sv[0].geomSlipCount, dat[kDatFirstSatellite + 11]) << "the measurement is taken for slip counts";
}

// Epochs as a reader leaves them, of the systems whose packed byte is themselves, on the
// first antenna and without the slip counts that the DAT form leaves out.
TEST_F(DatForm, EpochsOfSystemsThatPackAsThemselvesComeBackByteForByte) {
    nvbtest::EpochSequenceOptions options;
    options.epochs = 600;
    options.maxSignals = 6;
    const auto frames = nvbtest::makeEpochSequence(options);
    for (std::size_t round = 0; round < frames.size() && !HasFailure(); round += 10) {
        const auto epoch = nvbtest::readEpoch(frames[round]);
        for (int i = 0; i < epoch->nSv; ++i) {
            Rec27Sv& sv = epoch->sv[i];
            sv.rt_sattype = static_cast<std::uint8_t>(4 * (i % 3));
            sv.antennaNumber = 0;
            sv.svFlags2 &= 0x7E;
            sv.svBlockLen = (sv.svFlags & 0x80) != 0 ? 11 : 10;
            sv.geomSlipCount = sv.ionoSlipCount = sv.spare = 0;
        }
        SCOPED_TRACE("round " + std::to_string(round));
        expectRoundTrip(handle->records.rec27, rec27, *epoch, 27, nvb::rec27DatLength(*epoch));
    }
}

TEST_F(DatForm, OtherSystemsComeBackWithTheirLowBitsAsAntenna) {
    auto epoch = nvbtest::newEpoch(1000.0);
    addSignal(addSatellite(*epoch, 5, 10), 0, 0, 2e7, 0.0);
    ASSERT_EQ(parse(retrieve27(*epoch)), kDatFirstSatellite + 37);
    EXPECT_EQ(rec27->nSv, 1);
    EXPECT_EQ(rec27->sv[0].rt_sattype, 10);
    EXPECT_EQ(rec27->sv[0].antennaNumber, 2);
    EXPECT_EQ(retrieve27(*rec27)[kDatCount], 0) << "no satellite of the first antenna is left to count";
}

TEST_F(DatForm, ADropMaskLeavesSystemsAndTheirClockEntriesOut) {
    auto epoch = nvbtest::newEpoch(1000.0);
    epoch->epochFlags = 0x20;
    epoch->clock = ClockSystemBlock{21, 0, 2, {2, 0}, {1.5, 2.5}};
    for (std::uint8_t system : {0, 2, 3}) addSignal(addSatellite(*epoch, 5, system), 0, 0, 2e7, 0.0);
    const Bytes dat = retrieve27(*epoch);
    EXPECT_EQ(parse(dat, 1u << 2), dat.size());
    ASSERT_EQ(rec27->nSv, 2);
    EXPECT_EQ(rec27->sv[1].rt_sattype, 3);
    EXPECT_EQ(rec27->clock.count, 1);
    EXPECT_EQ(+rec27->clock.systemClockOffset[0], 2.5);
    EXPECT_EQ(rec27->epochFlags, 0x20);
    EXPECT_EQ(header[1] | (header[2] << 8), 17 + 4 + 2 * 37) << "the clock block is not counted";

    EXPECT_EQ(parse(dat, 1u << 0 | 1u << 2), dat.size());
    EXPECT_EQ(rec27->epochFlags, 0x00) << "no clock entry remains";
    EXPECT_EQ(rec27->nSv, 1);
}

TEST_F(DatForm, ASatelliteBlockLongerThanItsFieldsIsTakenUpToItsLength) {
    auto epoch = nvbtest::newEpoch(1000.0);
    Rec27Sv& sv = addSatellite(*epoch, 5, 0, 0x80);
    sv.svFlags2 = 0x00;
    sv.svBlockLen = 11;
    addSignal(sv, 0, 0, 2e7, 0.0);
    Bytes dat = retrieve27(*epoch);
    // A later writer's block: svFlags2 with bit 7 and a further flag byte, then two spare bytes.
    dat[kDatFirstSatellite] = 15;
    dat[kDatFirstSatellite + 10] = 0x81;
    dat.insert(dat.begin() + kDatFirstSatellite + 11, {0x05, 0xAA, 0xBB, 0xCC});
    const auto length = static_cast<std::uint16_t>(dat.size());
    dat[1] = static_cast<std::uint8_t>(length);
    dat[2] = static_cast<std::uint8_t>(length >> 8);
    ASSERT_EQ(parse(dat), length);
    EXPECT_EQ(rec27->sv[0].svFlags2, 0x01);
    EXPECT_EQ(rec27->sv[0].svBlockLen, 14);
    EXPECT_EQ(rec27->sv[0].geomSlipCount, 0xAA);
    EXPECT_EQ(+rec27->sv[0].meas[0].range, 2e7) << "the measurement is found behind the block";
}

TEST_F(DatForm, OlderEpochSatellitesWriteTheirSecondFrequencyAndLastDoubleByTheirFlags) {
    auto epoch = std::make_unique<Rec17>();
    EXPECT_EQ(retrieve(handle->records.rec17, *epoch, 17, 21).size(), 21u) << "17 bytes behind the header";

    epoch->receiveTime = 1000.0;
    epoch->nSv = 2;
    epoch->sv[0] = Rec17Sv{7, 0x11, 0x23, 3, 40, 250, 44.25, 2e7, 1e8, 12.5, 0.0, 38.5, 8e7, 2.5, 99.0};
    epoch->sv[1] = Rec17Sv{9, 0x10, 0x03, 3, 41, 252, 45.0, 2e7, 1e8, 13.5, 0.0, 0.0, 0.0, 0.0, 0.0};
    const std::uint16_t length = nvb::rec17DatLength(*epoch) + 8;  // the last double is not counted
    expectRoundTrip(handle->records.rec17, rec17, *epoch, 17, length);
}

std::unique_ptr<Rec29> fullPosition() {
    return std::make_unique<Rec29>(Rec29{.block1Len = 15, .week = 2345, .time = 302400000, .numSVs = 2, .posFlags = 0x02,
                                         .fixType = 4, .block2Len = 93, .latPos = 12.5, .unitVariance = 2.0f,
                                         .block3Len = 7, .corrAge = 3.5f, .corrFlags = 0x07, .corrExtra = 0x5A,
                                         .corrVector = {0, 0, -1.25f}, .corrCount = 77, .block4Len = 10,
                                         .auxValueB = 4.0f, .auxStatus = 0x02, .svListLen = 7,
                                         .sv = {{3, 0, 2}, {4, 2, 0}}});
}

TEST_F(DatForm, PositionsWithTheirCorrectionFieldsComeBackByteForByte) {
    expectRoundTrip(handle->records.rec29, rec29, *fullPosition(), 29, 4 + 108 + 7 + 1 + 12 + 4 + 10 + 7);
}

TEST_F(DatForm, APositionsAuxExtraAndClockBlockDoNotComeBack) {
    auto rec = fullPosition();
    rec->auxStatus = 0x01;
    rec->auxExtra = 0x01020304;
    parse(retrieve(handle->records.rec29, *rec, 29, 4 + 108 + 7 + 1 + 12 + 4 + 10 + 4 + 7));
    EXPECT_EQ(+rec29->auxExtra, 0u) << "the parser does not read it";
    EXPECT_EQ(rec29->svListLen, 4) << "the list is looked for at auxExtra";

    rec = fullPosition();
    rec->posFlags = 0x12;
    rec->clock = ClockSystemBlock{12, 1, 1, {0}, {0.5}};
    parse(retrieve(handle->records.rec29, *rec, 29, nvb::rec29DatLength(*rec)));
    EXPECT_EQ(rec29->clock.blockLength, 7) << "the list length byte is taken for the clock block";
    EXPECT_NE(std::memcmp(rec29->sv, rec->sv, 6), 0);
}

TEST_F(DatForm, NothingOfAPositionIsWrittenPastTheLengthAReaderReported) {
    auto rec = fullPosition();
    rec->numSVs = 117;
    auto frame = std::make_unique<nvb_frame_t>();
    ASSERT_GT(nvb::writeRec29(*rec, *frame), 0);
    ASSERT_EQ(nvb::readRec29(*frame, *handle.get(), false, false), 19);
    Bytes out(200, kUnwritten);
    EXPECT_TRUE(nvb::retrieveDATRecord(*handle.get(), 29, out.data()));
    EXPECT_NE(out[18], kUnwritten);
    EXPECT_EQ(out[19], kUnwritten);
}

TEST_F(DatForm, TheParserRefusesMissingStructuresAndCountsBeyondTheArrays) {
    EXPECT_EQ(parse({0x74, 8, 0, 22, 1, 2, 3, 4}), 8);
    EXPECT_EQ(Bytes(encoder->records.generic->data, encoder->records.generic->data + 4), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(parse({0x74, 4, 0, 14}), 4) << "an empty body is accepted";

    auto withCount = [](std::uint8_t type, std::size_t countAt, std::uint8_t count) {
        Bytes dat(300, 0);
        dat[0] = 0x74;
        dat[1] = 200;
        dat[3] = type;
        dat[4 + countAt] = count;
        return dat;
    };
    EXPECT_EQ(parse(withCount(27, 15, 117)), 0);
    EXPECT_EQ(parse(withCount(27, 15, 116)), 200);
    EXPECT_EQ(parse(withCount(17, 16, 25)), 0);
    EXPECT_EQ(parse(withCount(29, 8, 117)), 0);
    EXPECT_EQ(parse(withCount(11, 77, 33)), 0);
    EXPECT_EQ(parse(withCount(11, 77, 32)), 200);

    encoder->records.rec27 = nullptr;
    EXPECT_EQ(parse(withCount(27, 15, 1)), 0);
    encoder->records.datHeader = nullptr;
    EXPECT_EQ(parse(withCount(11, 77, 1)), 0);
    encoder->records.rec27 = rec27;
    encoder->records.datHeader = header;
}

TEST(DatLengthRules, ParsingRetrievingAndTheWholeFormReadTheHeaderEachByItsOwnRule) {
    struct Case {
        std::uint8_t type;
        std::uint16_t parse, retrieve, whole;
    };
    const Case cases[] = {{0, 0x34, 0x12, 0x12},       {1, 0x34, 0x12, 0x12},       {12, 0x1234, 0x1234, 0x1234},
                          {17, 0x1234, 0x1234, 0x1234}, {27, 0x1234, 0x1234, 0x1234}, {29, 0x1234, 0x1234, 0x1234},
                          {34, 0x1234, 0x34, 0x1234},   {98, 0x1234, 0x34, 0x1234},   {99, 0x1234, 0x34, 0x1234},
                          {101, 0x34, 0x1234, 0x1234},  {5, 0x34, 0x34, 0x34},       {35, 0x34, 0x34, 0x1234}};
    for (const Case& c : cases) {
        const std::uint8_t header[4] = {0x74, 0x34, 0x12, c.type};
        EXPECT_EQ(nvb::parseDatLengthOf(header), c.parse) << int(c.type);
        EXPECT_EQ(nvb::retrieveLengthOf(header), c.retrieve) << int(c.type);
        EXPECT_EQ(nvb::wholeLengthOf(header), c.whole) << int(c.type);
    }
}

}  // namespace
