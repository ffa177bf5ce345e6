#include "external/su/epoch_image.h"

#include "su/pinned_rows.h"
#include "support/host.h"
#include "support/sequences.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>

namespace nvb {
namespace {

using nvbtest::Bytes;
using nvbtest::PinnedRow;
using nvbtest::pinnedRows;

std::unique_ptr<epoch_image_t> blankImage() { return std::make_unique<epoch_image_t>(); }

// Every field of every row in use: 116 satellites of 6 signals with all optional bytes.
std::unique_ptr<epoch_image_t> fullImage() {
    auto image = blankImage();
    image->stx = 2;
    image->recordType = 27;
    image->weekNum[1] = 9;
    image->receiveTime[2] = 0x40;
    image->epochFlags = kEpochHasDrift | kEpochHasRaimFault | kEpochHasClockBlock;
    image->clkDrift[2] = 7;
    image->raimFault = 0x5A;
    image->clockBlock.blockFlags = 7 << 4 | 3;
    for (std::size_t term = 0; term < 7; ++term) {
        image->clockBlock.clockTypes[term] = static_cast<std::uint8_t>(term | (term % 2 ? 0x80 : 0));
        // Widths 1 to 7, alternately negative.
        std::memset(image->clockBlock.clockValues[term], term % 2 ? 0xFF : 0x00, 7);
        image->clockBlock.clockValues[term][6 - term] = term % 2 ? 0x80 : 0x40;
    }
    image->nSv = 116;
    for (std::size_t sat = 0; sat < 116; ++sat) {
        epoch_sat_row_t& row = image->sats[sat];
        row.svId = static_cast<std::uint8_t>(sat + 1);
        row.rt_sattype = static_cast<std::uint8_t>(sat % 10);
        row.antennaNumber = static_cast<std::uint8_t>(sat % 4);
        row.channel = static_cast<std::uint8_t>(sat);
        row.nMeas = 6;
        row.svFlags = 0x80 | 0x12;
        row.svFlags2 = 0x41;
        row.svSlipCounts[0] = static_cast<std::uint8_t>(sat);
        row.svSlipCounts[2] = 3;
        for (std::size_t index = 0; index < 6; ++index) {
            epoch_sig_row_t& signal = row.signals[index];
            signal.blockType = static_cast<std::uint8_t>(index);
            signal.snr[1] = static_cast<std::uint8_t>(200 + index);
            signal.range[0] = static_cast<std::uint8_t>(sat);
            signal.range[1] = 0x11;
            signal.range[2] = index == 0 ? 0x22 : 0;
            signal.range[3] = index == 0 ? 0x33 : 0;
            signal.phase[5] = static_cast<std::uint8_t>(index);
            signal.measFlags1 = 0x80 | kMeasHasDoppler | 0x23;
            signal.measFlags2 = static_cast<std::uint8_t>(0x80 | (index == 0 ? kRangeRolledOver : kRangeThreeBytes));
            signal.measFlags3 = 0x15;
            signal.doppler[2] = 0x77;
        }
    }
    nvbtest::settleEpochLengths(*image);
    return image;
}

TEST(EpochImage, SixSignalsOf116SatellitesFillTheImageAndComeBackExactly) {
    auto image = fullImage();
    const Bytes record = nvbtest::writePlainEpoch(*image, 65535);
    auto parsed = blankImage();
    const EpochParse parse = parseEpochImage(*parsed, record.data(), record.size());
    EXPECT_EQ(parse.status, 0);
    EXPECT_EQ(parse.length, record.size());
    EXPECT_EQ(std::memcmp(parsed.get(), image.get(), sizeof(epoch_image_t)), 0);
}

TEST(EpochImage, LimitsOfTheImageAreStatusesAndTheParseStaysInsideTheRecord) {
    auto image = fullImage();
    Bytes record = nvbtest::writePlainEpoch(*image, 65535);
    auto parsed = blankImage();

    Bytes tooMany = record;
    tooMany[14] = 117; // nSv
    EXPECT_EQ(parseEpochImage(*parsed, tooMany.data(), tooMany.size()).status, kStatusTooManySatellites);

    image->nSv = 1;
    nvbtest::settleEpochLengths(*image);
    Bytes one = nvbtest::writePlainEpoch(*image);
    const std::size_t nMeasAt = 16 + 3 + 1 + image->clockBlock.blockLength + 4;
    ASSERT_EQ(one[nMeasAt], 6);
    one[nMeasAt] = 7;
    EXPECT_EQ(parseEpochImage(*parsed, one.data(), one.size()).status, kStatusBadEpochCode);

    for (std::size_t cut = 1; cut < record.size(); cut += 97) {
        const auto shortRecord = nvbtest::exactCopy(Bytes(record.begin(), record.end() - static_cast<long>(cut)));
        EXPECT_EQ(parseEpochImage(*parsed, shortRecord.get(), record.size() - cut).status, kStatusBadDeltaLength);
    }
}

// A record with one satellite whose row is built by hand after the fixed header.
Bytes oneSatelliteRecord(const Bytes& row) {
    Bytes record = {2, 0, 27, 0, 12, 0, 1, 0, 0, 0, 100, 0, 0, 0, 1, 0};
    record.insert(record.end(), row.begin(), row.end());
    record.insert(record.end(), {0, 0, 3});
    return record;
}

TEST(EpochImage, SecondSatelliteFlagsKeepSevenBitsAndTakeSlipCountsOnlyWhenTheRowHasRoom) {
    const Bytes signal = {17, 0, 0, 0, 40, 1, 2, 3, 4, 0, 0, 0, 0, 0, 0, 9, 0x03};
    for (const PinnedRow& row : pinnedRows("epoch_image.txt", "sv-row")) {
        Bytes bytes = row.bytes(0);
        bytes.insert(bytes.end(), signal.begin(), signal.end());
        const Bytes record = oneSatelliteRecord(bytes);
        auto image = blankImage();
        const EpochParse parse = parseEpochImage(*image, record.data(), record.size());
        EXPECT_EQ(parse.status, 0) << row;
        EXPECT_EQ(parse.length, record.size()) << row;
        EXPECT_EQ(image->sats[0].svFlags2, row.number(1)) << row;
        EXPECT_EQ(image->sats[0].svBlockLen, row.number(2)) << row;
        EXPECT_EQ(image->sats[0].svSlipCounts[0], row.number(3)) << row;
        EXPECT_EQ(image->sats[0].signals[0].slipCount, 9);
        EXPECT_EQ(image->etx, 3);
    }
}

TEST(EpochImage, ThreeByteRangeDifferenceHasItsTopByteLast) {
    auto image = blankImage();
    image->stx = 2;
    image->recordType = 27;
    image->nSv = 1;
    image->sats[0].nMeas = 2;
    epoch_sig_row_t& later = image->sats[0].signals[1];
    later.range[0] = 0x12;
    later.range[1] = 0x34;
    later.range[2] = 0x56;
    later.measFlags1 = 0x80 | kMeasHasDoppler;
    later.measFlags2 = kRangeThreeBytes;
    later.doppler[0] = 0xD0;
    nvbtest::settleEpochLengths(*image);
    const Bytes record = nvbtest::writePlainEpoch(*image);
    const std::size_t at = 16 + 8 + 17;
    EXPECT_EQ(Bytes(record.begin() + at + 5, record.begin() + at + 7), (Bytes{0x34, 0x56}));
    EXPECT_EQ(Bytes(record.end() - 7, record.end() - 3), (Bytes{0xD0, 0, 0, 0x12}));
    auto parsed = blankImage();
    ASSERT_EQ(parseEpochImage(*parsed, record.data(), record.size()).status, 0);
    EXPECT_EQ(std::memcmp(parsed->sats[0].signals[1].range, later.range, 4), 0);
}

TEST(EpochImage, ClockTermOfNoBytesTakesItsSignFromTheNextId) {
    // Count 2: a term of width 0, then a term whose id has the top bit set.
    Bytes record = {2, 0, 27, 0, 12, 0, 1, 0, 0, 0, 100, 0, 0, 0, 0, kEpochHasClockBlock, 6, 0x20, 0x02, 0x93, 0x85, 0, 0, 3};
    auto image = blankImage();
    ASSERT_EQ(parseEpochImage(*image, record.data(), record.size()).status, 0);
    const std::uint8_t ones[7] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    EXPECT_EQ(std::memcmp(image->clockBlock.clockValues[0], ones, 7), 0);
    const std::uint8_t negative[7] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x85};
    EXPECT_EQ(std::memcmp(image->clockBlock.clockValues[1], negative, 7), 0);
}

// Reads at the wire's scales; writes back what it read, except that the writer knows no
// 2^-10 and puts system 8 at 2^-7. Rounding is half away from zero, into the low bytes.
TEST(EpochRange, ScalesBySystemAndSignalAsTheWireHasThem) {
    for (const PinnedRow& row : pinnedRows("epoch_image.txt", "range")) {
        const Bytes field = row.bytes(2), written = row.bytes(6);
        const bool threeBytes = row.number(3) != 0, rolledOver = row.number(4) != 0;
        std::uint16_t position = 0;
        EXPECT_DOUBLE_EQ(readRange(field.data(), position, row.number<std::uint8_t>(0), row.number<std::uint16_t>(1),
                                   threeBytes, rolledOver),
                         row.real(5) + (rolledOver ? kRangeRollover : 0.0))
            << row;
        EXPECT_EQ(position, field.size()) << row;
        std::uint8_t out[4] = {};
        ByteWriter writer = makeByteWriter(out, sizeof out);
        writeRange(row.number<std::uint8_t>(0), writer, row.number<std::uint16_t>(1), row.real(5), threeBytes);
        EXPECT_EQ(Bytes(out, writer.pos), written.empty() ? field : written) << row;
    }
    for (const PinnedRow& row : pinnedRows("epoch_image.txt", "range-rounding")) {
        std::uint8_t out[2] = {};
        ByteWriter writer = makeByteWriter(out, sizeof out);
        writeRange(0, writer, 1, row.real(0) / 256, false);
        EXPECT_EQ(Bytes(out, out + 2), row.bytes(1)) << row;
    }
}

// The carriers themselves are the system tables' to check.
TEST(EpochBands, WavelengthsAreTheSpeedOfLightOverTheCarrierAndUnknownBandsFallBackToBandZero) {
    EXPECT_DOUBLE_EQ(bandWavelength(2, 1, 6), 299792458.0 / (1.246e9 + 6 * 437500.0));
    EXPECT_DOUBLE_EQ(bandWavelength(0, 9, 0), bandWavelength(0, 0, 0)) << "band 9 is GLONASS only";
    EXPECT_DOUBLE_EQ(bandWavelength(7, 12, 0), bandWavelength(0, 0, 0));
}

TEST(EpochHistory, PredictionContinuesTheRateOfChangeAndKeepsEverythingElse) {
    auto older = blankImage();
    auto current = blankImage();
    auto predicted = blankImage();
    older->receiveTime[3] = 1;     // 00 00 00 01, then 00 00 00 00: the next is FF FF FF FF
    current->clkOffset[2] = 0x10;  // from 0 to 0x10: next 0x20
    current->nSv = 1;
    current->sats[0].nMeas = 1;
    current->sats[0].svId = 9;
    current->sats[0].signals[0].snr[1] = 44;
    older->sats[0].signals[0].phase[5] = 0xFE;
    current->sats[0].signals[0].phase[5] = 0xFF; // next 01 00
    current->sats[0].signals[0].doppler[2] = 3;
    older->nSv = 2;                              // a row that current no longer has:
    older->sats[1].signals[0].range[3] = 50;     // not predicted, and cleared
    advanceEpochHistory(*older, *predicted, *current);

    EXPECT_EQ(readBigEndian32(predicted->receiveTime), 0xFFFFFFFFu);
    EXPECT_EQ(predicted->clkOffset[2], 0x20);
    const epoch_sig_row_t& signal = predicted->sats[0].signals[0];
    EXPECT_EQ(signal.phase[4], 1);
    EXPECT_EQ(signal.phase[5], 0);
    EXPECT_EQ(signal.doppler[2], 6);
    EXPECT_EQ(signal.snr[1], 44);
    EXPECT_EQ(predicted->sats[0].svId, 9);
    EXPECT_EQ(predicted->sats[1].signals[0].range[3], 0);
    EXPECT_EQ(std::memcmp(older.get(), current.get(), sizeof(epoch_image_t)), 0);
}

}  // namespace
}  // namespace nvb
