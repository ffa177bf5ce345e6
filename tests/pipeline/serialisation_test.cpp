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

// A host's encode state, parsing DAT records into its structures.
struct EncodeState : nvbtest::Encoder {
    EncodeState() : Encoder(1) {}
    std::uint16_t parse(const Bytes& dat, std::uint8_t dropMask = 0) {
        return nvb::parseDATRecord(*get(), dat.data(), dropMask);
    }
    Rec27* const rec27 = get()->records.rec27;
    Rec29* const rec29 = get()->records.rec29;
    Rec17* const rec17 = get()->records.rec17;
    std::uint8_t* const header = get()->records.datHeader;
};

// Puts a structure into an expand state as a reader would, with a DAT header of `length`,
// and retrieves its DAT form into a buffer of `length` bytes and a margin.
template <class Record>
Bytes retrieve(nvbtest::Handle& handle, Record* slot, const Record& record, std::uint8_t type, std::uint16_t length) {
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

Bytes retrieve27(nvbtest::Handle& handle, const Rec27& epoch) {
    return retrieve(handle, handle->records.rec27, epoch, 27, nvb::rec27DatLength(epoch));
}

TEST(Retrieve27, ThePackedSystemByteIsStoredBackSoASecondRetrievalDiffers) {
    auto epoch = nvbtest::newEpoch(1000.0);
    addSignal(addSatellite(*epoch, 5, 1), 0, 0, 2e7, 0.0);
    addSignal(addSatellite(*epoch, 6, 0), 0, 0, 2e7, 0.0);
    nvbtest::Handle handle;
    const Bytes first = retrieve27(handle, *epoch);
    constexpr std::size_t kSystemByte = kDatFirstSatellite + 2;
    EXPECT_EQ(first[kSystemByte], 65);
    EXPECT_EQ(handle->records.rec27->sv[0].rt_sattype, 65);
    Bytes second(first.size());
    ASSERT_TRUE(nvb::retrieveDATRecord(*handle.get(), 27, second.data()));
    EXPECT_EQ(second[kSystemByte], 129);
    EXPECT_EQ(second[kSystemByte + 37], 0) << "system 0 stays 0 however often";
}

TEST(Retrieve27, SlipCountsOfAReaderMadeEpochStayOutOfTheDatFormThoughItsLengthCountsThem) {
    auto epoch = nvbtest::newEpoch(1000.0);
    Rec27Sv& sv = addSatellite(*epoch, 5, 0, 0x80);
    sv.svFlags2 = 0x01;
    sv.svBlockLen = 14;
    sv.geomSlipCount = 7;
    addSignal(sv, 0, 0, 2e7, 0.0);
    nvbtest::Handle handle;
    const Bytes dat = retrieve27(handle, *epoch);
    ASSERT_EQ(dat.size(), kDatFirstSatellite + 14 + 27);
    EXPECT_EQ(Bytes(dat.end() - 3, dat.end()), Bytes(3, kUnwritten));

    EncodeState parsed;
    ASSERT_EQ(parsed.parse(dat), dat.size());
    EXPECT_EQ(parsed.rec27->sv[0].geomSlipCount, dat[kDatFirstSatellite + 11])
        << "the measurement is taken for slip counts";
}

// Epochs as a reader leaves them, of the systems whose packed byte is themselves, on the
// first antenna and without the slip counts that the DAT form leaves out.
TEST(DatRoundTrip, EpochsOfSystemsThatPackAsThemselvesComeBackByteForByte) {
    nvbtest::EpochSequenceOptions options;
    options.epochs = 600;
    options.maxSignals = 6;
    const auto frames = nvbtest::makeEpochSequence(options);
    nvbtest::Handle handle;
    EncodeState parsed;
    for (std::size_t round = 0; round < frames.size(); round += 10) {
        const auto epoch = nvbtest::readEpoch(frames[round]);
        for (int i = 0; i < epoch->nSv; ++i) {
            Rec27Sv& sv = epoch->sv[i];
            sv.rt_sattype = static_cast<std::uint8_t>(4 * (i % 3));
            sv.antennaNumber = 0;
            sv.svFlags2 &= 0x7E;
            sv.svBlockLen = (sv.svFlags & 0x80) != 0 ? 11 : 10;
            sv.geomSlipCount = sv.ionoSlipCount = sv.spare = 0;
        }
        const Bytes dat = retrieve27(handle, *epoch);
        ASSERT_EQ(parsed.parse(dat), dat.size()) << round;
        ASSERT_EQ(std::memcmp(parsed.rec27, epoch.get(), sizeof(Rec27)), 0) << "structure, round " << round;
        ASSERT_EQ(retrieve27(handle, *parsed.rec27), dat) << "round " << round;
    }
}

TEST(DatRoundTrip, OtherSystemsComeBackWithTheirLowBitsAsAntenna) {
    auto epoch = nvbtest::newEpoch(1000.0);
    addSignal(addSatellite(*epoch, 5, 10), 0, 0, 2e7, 0.0);
    nvbtest::Handle handle;
    EncodeState parsed;
    ASSERT_EQ(parsed.parse(retrieve27(handle, *epoch)), kDatFirstSatellite + 37);
    EXPECT_EQ(parsed.rec27->nSv, 1);
    EXPECT_EQ(parsed.rec27->sv[0].rt_sattype, 10);
    EXPECT_EQ(parsed.rec27->sv[0].antennaNumber, 2);
    EXPECT_EQ(retrieve27(handle, *parsed.rec27)[kDatCount], 0) << "no satellite of the first antenna is left to count";
}

TEST(DatParser, ADropMaskLeavesSystemsAndTheirClockEntriesOut) {
    auto epoch = nvbtest::newEpoch(1000.0);
    epoch->epochFlags = 0x20;
    epoch->clock = ClockSystemBlock{21, 0, 2, {2, 0}, {1.5, 2.5}};
    for (std::uint8_t system : {0, 2, 3}) addSignal(addSatellite(*epoch, 5, system), 0, 0, 2e7, 0.0);
    nvbtest::Handle handle;
    const Bytes dat = retrieve27(handle, *epoch);
    EncodeState parsed;
    EXPECT_EQ(parsed.parse(dat, 1u << 2), dat.size());
    const Rec27& kept = *parsed.rec27;
    ASSERT_EQ(kept.nSv, 2);
    EXPECT_EQ(kept.sv[1].rt_sattype, 3);
    EXPECT_EQ(kept.clock.count, 1);
    EXPECT_EQ(+kept.clock.systemClockOffset[0], 2.5);
    EXPECT_EQ(kept.epochFlags, 0x20);
    EXPECT_EQ(parsed.header[1] | (parsed.header[2] << 8), 17 + 4 + 2 * 37) << "the clock block is not counted";

    EXPECT_EQ(parsed.parse(dat, 1u << 0 | 1u << 2), dat.size());
    EXPECT_EQ(parsed.rec27->epochFlags, 0x00) << "no clock entry remains";
    EXPECT_EQ(parsed.rec27->nSv, 1);
}

TEST(DatParser, ASatelliteBlockLongerThanItsFieldsIsTakenUpToItsLength) {
    auto epoch = nvbtest::newEpoch(1000.0);
    Rec27Sv& sv = addSatellite(*epoch, 5, 0, 0x80);
    sv.svFlags2 = 0x00;
    sv.svBlockLen = 11;
    addSignal(sv, 0, 0, 2e7, 0.0);
    nvbtest::Handle handle;
    Bytes dat = retrieve27(handle, *epoch);
    // A later writer's block: svFlags2 with bit 7 and a further flag byte, then two spare bytes.
    dat[kDatFirstSatellite] = 15;
    dat[kDatFirstSatellite + 10] = 0x81;
    dat.insert(dat.begin() + kDatFirstSatellite + 11, {0x05, 0xAA, 0xBB, 0xCC});
    const auto length = static_cast<std::uint16_t>(dat.size());
    dat[1] = static_cast<std::uint8_t>(length);
    dat[2] = static_cast<std::uint8_t>(length >> 8);
    EncodeState parsed;
    ASSERT_EQ(parsed.parse(dat), length);
    EXPECT_EQ(parsed.rec27->sv[0].svFlags2, 0x01);
    EXPECT_EQ(parsed.rec27->sv[0].svBlockLen, 14);
    EXPECT_EQ(parsed.rec27->sv[0].geomSlipCount, 0xAA);
    EXPECT_EQ(+parsed.rec27->sv[0].meas[0].range, 2e7) << "the measurement is found behind the block";
}

TEST(Retrieve17, SatellitesWriteTheirSecondFrequencyAndLastDoubleByTheirFlags) {
    auto epoch = std::make_unique<Rec17>();
    nvbtest::Handle handle;
    EXPECT_EQ(retrieve(handle, handle->records.rec17, *epoch, 17, 21).size(), 21u) << "17 bytes behind the header";

    epoch->receiveTime = 1000.0;
    epoch->nSv = 2;
    epoch->sv[0] = Rec17Sv{7, 0x11, 0x23, 3, 40, 250, 44.25, 2e7, 1e8, 12.5, 0.0, 38.5, 8e7, 2.5, 99.0};
    epoch->sv[1] = Rec17Sv{9, 0x10, 0x03, 3, 41, 252, 45.0, 2e7, 1e8, 13.5, 0.0, 0.0, 0.0, 0.0, 0.0};
    const std::uint16_t length = nvb::rec17DatLength(*epoch) + 8;  // the last double is not counted
    const Bytes dat = retrieve(handle, handle->records.rec17, *epoch, 17, length);
    EncodeState parsed;
    ASSERT_EQ(parsed.parse(dat), length);
    EXPECT_EQ(+parsed.rec17->sv[0].last, 99.0);
    EXPECT_EQ(std::memcmp(parsed.rec17, epoch.get(), sizeof(Rec17)), 0);
    EXPECT_EQ(retrieve(handle, handle->records.rec17, *parsed.rec17, 17, length), dat);
}

std::unique_ptr<Rec29> fullPosition() {
    return std::make_unique<Rec29>(Rec29{.block1Len = 15, .week = 2345, .time = 302400000, .numSVs = 2, .posFlags = 0x02,
                                         .fixType = 4, .block2Len = 93, .latPos = 12.5, .unitVariance = 2.0f,
                                         .block3Len = 7, .corrAge = 3.5f, .corrFlags = 0x07, .corrExtra = 0x5A,
                                         .corrVector = {0, 0, -1.25f}, .corrCount = 77, .block4Len = 10,
                                         .auxValueB = 4.0f, .auxStatus = 0x02, .svListLen = 7,
                                         .sv = {{3, 0, 2}, {4, 2, 0}}});
}

TEST(DatRoundTrip, PositionsWithTheirCorrectionFieldsComeBackByteForByte) {
    auto rec = fullPosition();
    const std::uint16_t length = 4 + 108 + 7 + 1 + 12 + 4 + 10 + 7;
    nvbtest::Handle handle;
    const Bytes dat = retrieve(handle, handle->records.rec29, *rec, 29, length);
    EncodeState parsed;
    ASSERT_EQ(parsed.parse(dat), length);
    EXPECT_EQ(std::memcmp(parsed.rec29, rec.get(), sizeof(Rec29)), 0);
    EXPECT_EQ(retrieve(handle, handle->records.rec29, *parsed.rec29, 29, length), dat);
}

TEST(DatRoundTrip, APositionsAuxExtraAndClockBlockDoNotComeBack) {
    auto rec = fullPosition();
    rec->auxStatus = 0x01;
    rec->auxExtra = 0x01020304;
    nvbtest::Handle handle;
    EncodeState parsed;
    const std::uint16_t length = 4 + 108 + 7 + 1 + 12 + 4 + 10 + 4 + 7;
    const Bytes withExtra = retrieve(handle, handle->records.rec29, *rec, 29, length);
    parsed.parse(withExtra);
    EXPECT_EQ(+parsed.rec29->auxExtra, 0u) << "the parser does not read it";
    EXPECT_EQ(parsed.rec29->svListLen, 4) << "the list is looked for at auxExtra";

    rec = fullPosition();
    rec->posFlags = 0x12;
    rec->clock = ClockSystemBlock{12, 1, 1, {0}, {0.5}};
    const Bytes withoutClock = retrieve(handle, handle->records.rec29, *rec, 29, nvb::rec29DatLength(*rec));
    parsed.parse(withoutClock);
    EXPECT_EQ(parsed.rec29->clock.blockLength, 7) << "the list length byte is taken for the clock block";
    EXPECT_NE(std::memcmp(parsed.rec29->sv, rec->sv, 6), 0);
}

TEST(Retrieve29, NothingIsWrittenPastTheLengthAReaderReported) {
    auto rec = fullPosition();
    rec->numSVs = 117;
    auto frame = std::make_unique<nvb_frame_t>();
    ASSERT_GT(nvb::writeRec29(*rec, *frame), 0);
    nvbtest::Handle handle;
    ASSERT_EQ(nvb::readRec29(*frame, *handle.get(), false, false), 19);
    Bytes out(200, kUnwritten);
    EXPECT_TRUE(nvb::retrieveDATRecord(*handle.get(), 29, out.data()));
    EXPECT_NE(out[18], kUnwritten);
    EXPECT_EQ(out[19], kUnwritten);
}

TEST(DatParser, RefusesMissingStructuresAndCountsBeyondTheArrays) {
    EncodeState parsed;
    EXPECT_EQ(parsed.parse({0x74, 8, 0, 22, 1, 2, 3, 4}), 8);
    EXPECT_EQ(Bytes(parsed->records.generic->data, parsed->records.generic->data + 4), (Bytes{1, 2, 3, 4}));
    EXPECT_EQ(parsed.parse({0x74, 4, 0, 14}), 4) << "an empty body is accepted";

    auto withCount = [](std::uint8_t type, std::size_t countAt, std::uint8_t count) {
        Bytes dat(300, 0);
        dat[0] = 0x74;
        dat[1] = 200;
        dat[3] = type;
        dat[4 + countAt] = count;
        return dat;
    };
    EXPECT_EQ(parsed.parse(withCount(27, 15, 117)), 0);
    EXPECT_EQ(parsed.parse(withCount(27, 15, 116)), 200);
    EXPECT_EQ(parsed.parse(withCount(17, 16, 25)), 0);
    EXPECT_EQ(parsed.parse(withCount(29, 8, 117)), 0);
    EXPECT_EQ(parsed.parse(withCount(11, 77, 33)), 0);
    EXPECT_EQ(parsed.parse(withCount(11, 77, 32)), 200);

    parsed->records.rec27 = nullptr;
    EXPECT_EQ(parsed.parse(withCount(27, 15, 1)), 0);
    parsed->records.datHeader = nullptr;
    EXPECT_EQ(parsed.parse(withCount(11, 77, 1)), 0);
    parsed->records.rec27 = parsed.rec27;
    parsed->records.datHeader = parsed.header;
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
