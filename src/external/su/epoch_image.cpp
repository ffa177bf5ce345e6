#include "external/su/epoch_image.h"

#include "common/diagnostics.h"

#include <array>
#include <cmath>
#include <cstring>
#include <new>

namespace nvb {

namespace {

// The fixed part of the epoch header, start byte to epochFlags, lies in the image in wire
// order, so it moves as one block.
constexpr std::size_t kFixedHeaderBytes = 16;
static_assert(offsetof(epoch_image_t, clkDrift) == kFixedHeaderBytes);

std::size_t offsetIn(const ByteReader& in, const std::uint8_t* start) {
    return static_cast<std::size_t>(in.pos - start);
}

void parseClockBlock(epoch_clock_block_t& block, ByteReader& in) {
    (void)readByte(in, block.blockLength);
    (void)readByte(in, block.blockFlags);
    for (std::size_t term = 0; term < clockTermCount(block); ++term) {
        std::uint8_t& id = block.clockTypes[term];
        (void)readByte(in, id);
        const std::size_t width = (id >> 4) & 7u;
        std::uint8_t* value = block.clockValues[term];
        // Sign extension looks at the byte after the id, which for a width of 0 is already
        // the next term's id: such a value becomes all ones or all zeros by that byte.
        const bool negative = bytesLeft(in) > 0 && *in.pos >= 0x80;
        std::memset(value, negative ? 0xFF : 0x00, 7 - width);
        (void)readBytes(in, value + 7 - width, width);
    }
}

void parseSatelliteRow(epoch_sat_row_t& row, ByteReader& in, const std::uint8_t* start) {
    const std::size_t rowEnd = offsetIn(in, start) + (bytesLeft(in) > 0 ? *in.pos : 0);
    std::uint8_t systemByte = 0;
    (void)readByte(in, row.svBlockLen);
    (void)readByte(in, row.svId);
    (void)readByte(in, systemByte);
    unpackSystemByte(systemByte, row.rt_sattype, row.antennaNumber);
    (void)readByte(in, row.channel);
    (void)readByte(in, row.nMeas);
    (void)readByte(in, row.elevation);
    (void)readByte(in, row.azimuth);
    (void)readByte(in, row.svFlags);
    if ((row.svFlags & kFlagByteFollows) == 0) return;

    std::uint8_t last = 0;
    (void)readByte(in, last);
    row.svFlags2 = last & 0x7F;
    while ((last & kFlagByteFollows) != 0 && offsetIn(in, start) < rowEnd) {
        if (!readByte(in, last)) break;
    }
    const std::size_t position = offsetIn(in, start);
    const bool roomForSlips = position < rowEnd && rowEnd - position >= 3;
    const bool slips = roomForSlips && (row.svFlags2 & kSvHasSlipCounts) != 0;
    if (slips) (void)readBytes(in, row.svSlipCounts, 3);
    // The row length is what this layout occupies, whatever the wire said.
    row.svBlockLen = slips ? 12 : 9;
}

// The wire's leading fields of a signal stand in the row's own order: the block length
// to the SNR, the range (4 bytes first, else 2), then the phase to measFlags1.
constexpr std::size_t kSignalHeadBytes = offsetof(epoch_sig_row_t, range);
constexpr std::size_t kSignalTailBytes = offsetof(epoch_sig_row_t, measFlags2) - offsetof(epoch_sig_row_t, phase);

void parseSignalRow(epoch_sig_row_t& signal, bool first, ByteReader& in) {
    const std::size_t rangeBytes = first ? 4 : 2;
    if (bytesLeft(in) >= kSignalHeadBytes + 4 + kSignalTailBytes) {
        // Copies of fixed sizes, which the compiler makes moves; a size known only at run
        // time would be a call.
        std::memcpy(&signal, in.pos, kSignalHeadBytes);
        if (first) {
            std::memcpy(signal.range, in.pos + kSignalHeadBytes, 4);
        } else {
            std::memcpy(signal.range, in.pos + kSignalHeadBytes, 2);
        }
        std::memcpy(signal.phase, in.pos + kSignalHeadBytes + rangeBytes, kSignalTailBytes);
        in.pos += kSignalHeadBytes + rangeBytes + kSignalTailBytes;
    } else {
        // Near the end, field by field: a short record keeps every field that fits.
        (void)readByte(in, signal.measBlockLen);
        (void)readByte(in, signal.blockType);
        (void)readByte(in, signal.trackType);
        (void)readBytes(in, signal.snr, 2);
        (void)readBytes(in, signal.range, rangeBytes);
        (void)readBytes(in, signal.phase, 6);
        (void)readByte(in, signal.slipCount);
        (void)readByte(in, signal.measFlags1);
    }
    if ((signal.measFlags1 & kFlagByteFollows) != 0) (void)readByte(in, signal.measFlags2);
    if ((signal.measFlags2 & kFlagByteFollows) != 0) (void)readByte(in, signal.measFlags3);
    if ((signal.measFlags3 & kFlagByteFollows) != 0) {
        // Further flag bytes are not kept; the bound keeps a run of set top bits from
        // eating the record.
        for (std::size_t skipped = 0; skipped < signal.measBlockLen + 1u; ++skipped) {
            std::uint8_t flags = 0;
            if (!readByte(in, flags) || (flags & kFlagByteFollows) == 0) break;
        }
    }
    if ((signal.measFlags1 & kMeasHasDoppler) != 0) (void)readBytes(in, signal.doppler, 3);
    if ((signal.measFlags2 & kRangeThreeBytes) != 0) {
        std::uint8_t top = 0;
        (void)readByte(in, top);
        // A first signal never carries a three-byte range; its extra byte is dropped.
        if (!first) {
            signal.range[2] = signal.range[1];
            signal.range[1] = signal.range[0];
            signal.range[0] = top;
        }
    }
}

void writeClockBlock(const epoch_clock_block_t& block, ByteWriter& out) {
    writeByte(out, block.blockLength);
    writeByte(out, block.blockFlags);
    for (std::size_t term = 0; term < clockTermCount(block); ++term) {
        const std::uint8_t id = block.clockTypes[term];
        const std::size_t width = (id >> 4) & 7u;
        writeByte(out, id);
        writeBytes(out, block.clockValues[term] + 7 - width, width);
    }
}

void writeSatelliteRow(const epoch_sat_row_t& row, ByteWriter& out) {
    writeByte(out, row.svBlockLen);
    writeByte(out, row.svId);
    writeByte(out, packSystemByte(row.rt_sattype, row.antennaNumber));
    writeByte(out, row.channel);
    writeByte(out, row.nMeas);
    writeByte(out, row.elevation);
    writeByte(out, row.azimuth);
    writeByte(out, row.svFlags);
    if ((row.svFlags & kFlagByteFollows) == 0) return;
    writeByte(out, row.svFlags2);
    if ((row.svFlags2 & kSvHasSlipCounts) != 0) writeBytes(out, row.svSlipCounts, 3);
}

void writeSignalRow(const epoch_sig_row_t& signal, bool first, ByteWriter& out) {
    const std::uint8_t flags2 = (signal.measFlags1 & kFlagByteFollows) != 0 ? signal.measFlags2 : 0;
    const bool threeBytes = (flags2 & kRangeThreeBytes) != 0;
    writeByte(out, signal.measBlockLen);
    writeByte(out, signal.blockType);
    writeByte(out, signal.trackType);
    writeBytes(out, signal.snr, 2);
    if (first) {
        writeBytes(out, signal.range, 4);
    } else {
        writeBytes(out, signal.range + (threeBytes ? 1 : 0), 2);
    }
    writeBytes(out, signal.phase, 6);
    writeByte(out, signal.slipCount);
    writeByte(out, signal.measFlags1);
    if ((signal.measFlags1 & kFlagByteFollows) != 0) {
        writeByte(out, flags2);
        if ((flags2 & kFlagByteFollows) != 0) writeByte(out, signal.measFlags3);
    }
    if ((signal.measFlags1 & kMeasHasDoppler) != 0) writeBytes(out, signal.doppler, 3);
    // The top byte of a three-byte range stands last, where older readers skip it.
    if (threeBytes) writeByte(out, signal.range[0]);
}

// A scaled field as the record writers make it: scale by the power of two, round half away
// from zero, keep the low `width` bytes of the two's complement.
std::uint32_t scaledField(double value, int power, std::size_t width) {
    const double rounded = std::round(std::ldexp(value, power));
    if (!std::isfinite(rounded)) return 0;
    const double wrapped = std::fmod(rounded, std::ldexp(1.0, static_cast<int>(8 * width)));
    const auto bits = static_cast<std::uint64_t>(static_cast<std::int64_t>(wrapped));
    return static_cast<std::uint32_t>(bits & ((std::uint64_t{1} << (8 * width)) - 1));
}

struct BandEntry {
    bool known;
    double metres;
};

// Carrier wavelengths by band, in metres, as published. Band 9 has no entry of its own
// outside GLONASS, and band 11 has no frequency: both gaps are kept.
constexpr std::array<BandEntry, 12> kBandWavelength = {{
    {true, 0.19029367279836487},
    {true, 0.24421021342456825},
    {true, 0.25482804879085386},
    {true, 0.2483493695843067},
    {true, 0.251547000952345},
    {true, 0.23444180488758554},
    {true, 0.19203948631027648},
    {true, 0.2363324646044209},
    {true, 0.188579315385767},
    {false, 0.0},
    {true, 0.03074163843314192},
    {true, 0.12030059774609274},
}};

constexpr double kSpeedOfLight = 299792458.0;

constexpr std::array<std::uint8_t, 256> makeSystemTable(std::array<std::uint8_t, 11> known) {
    std::array<std::uint8_t, 256> table{};
    for (std::size_t system = 0; system < known.size(); ++system) table[system] = known[system];
    return table;
}

// Index of each rt_sattype in observation output (and the slip tables), and in the raw
// parse of the encode path; 0 for every system not listed.
constexpr std::array<std::uint8_t, 256> kRinexSystemIndex = makeSystemTable({0, 1, 2, 3, 4, 5, 7, 5, 8, 6, 5});
constexpr std::array<std::uint8_t, 256> kRawSystemIndex = makeSystemTable({0, 1, 2, 3, 4, 5, 0, 0, 6, 3, 0});

}  // namespace

std::uint32_t readBigEndian32(const std::uint8_t* bytes) {
    return (std::uint32_t{bytes[0]} << 24) | (std::uint32_t{bytes[1]} << 16) | (std::uint32_t{bytes[2]} << 8) |
           bytes[3];
}

void writeBigEndian32(std::uint8_t* bytes, std::uint32_t value) {
    bytes[0] = static_cast<std::uint8_t>(value >> 24);
    bytes[1] = static_cast<std::uint8_t>(value >> 16);
    bytes[2] = static_cast<std::uint8_t>(value >> 8);
    bytes[3] = static_cast<std::uint8_t>(value);
}

void clearEpochHeader(epoch_image_t& image) {
    std::memset(&image, 0, offsetof(epoch_image_t, sats));
    std::memset(image.checksum, 0, sizeof image.checksum);
    image.etx = 0;
}

void clearEpochRows(epoch_image_t& image) {
    std::memset(image.sats, 0, satelliteCount(image) * sizeof(epoch_sat_row_t));
}

EpochParse parseEpochImage(epoch_image_t& image, const std::uint8_t* record, std::size_t capacity) {
    clearEpochHeader(image);
    EpochParse result;
    ByteReader in = makeByteReader(record, capacity);
    (void)readBytes(in, &image.stx, kFixedHeaderBytes);
    clearEpochRows(image);
    if ((image.epochFlags & kEpochHasDrift) != 0) (void)readBytes(in, image.clkDrift, 3);
    if ((image.epochFlags & kEpochHasRaimFault) != 0) (void)readByte(in, image.raimFault);
    if ((image.epochFlags & kEpochHasClockBlock) != 0) parseClockBlock(image.clockBlock, in);

    if (image.nSv > kEpochMaxSatellites) result.status = kStatusTooManySatellites;
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        epoch_sat_row_t& row = image.sats[sat];
        parseSatelliteRow(row, in, record);
        if (row.nMeas > kEpochMaxSignals && result.status == 0) result.status = kStatusBadEpochCode;
        for (std::size_t signal = 0; signal < signalCount(row); ++signal) {
            parseSignalRow(row.signals[signal], signal == 0, in);
        }
    }
    (void)readBytes(in, image.checksum, 2);
    (void)readByte(in, image.etx);

    if (in.failed && result.status == 0) result.status = kStatusBadDeltaLength;
    compactAssert(!in.failed);
    result.length = static_cast<std::uint16_t>(offsetIn(in, record));
    return result;
}

std::uint16_t writeEpochImage(std::uint8_t* record, std::size_t capacity, const epoch_image_t& image) {
    ByteWriter out = makeByteWriter(record, std::min<std::size_t>(capacity, 0xFFFF));
    writeBytes(out, &image.stx, kFixedHeaderBytes);
    if ((image.epochFlags & kEpochHasDrift) != 0) writeBytes(out, image.clkDrift, 3);
    if ((image.epochFlags & kEpochHasRaimFault) != 0) writeByte(out, image.raimFault);
    if ((image.epochFlags & kEpochHasClockBlock) != 0) writeClockBlock(image.clockBlock, out);
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        const epoch_sat_row_t& row = image.sats[sat];
        writeSatelliteRow(row, out);
        for (std::size_t signal = 0; signal < signalCount(row); ++signal) {
            writeSignalRow(row.signals[signal], signal == 0, out);
        }
    }
    writeBytes(out, image.checksum, 2);
    writeByte(out, image.etx);
    compactAssert(!out.failed);
    if (out.failed) return 0;
    return static_cast<std::uint16_t>(out.pos - record);
}

std::uint32_t epochRecordLength(const epoch_image_t& image) {
    std::uint32_t length = image.epochHeaderLen + 4u + 3u;
    if ((image.epochFlags & kEpochHasClockBlock) != 0) length += image.clockBlock.blockLength;
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        const epoch_sat_row_t& row = image.sats[sat];
        length += row.svBlockLen;
        for (std::size_t signal = 0; signal < signalCount(row); ++signal) length += row.signals[signal].measBlockLen;
    }
    return length;
}

void copyEpochImage(epoch_image_t& to, const epoch_image_t& from) {
    const std::size_t rows = satelliteCount(from);
    const std::size_t formerRows = satelliteCount(to);
    std::memcpy(&to, &from, offsetof(epoch_image_t, sats) + rows * sizeof(epoch_sat_row_t));
    if (formerRows > rows) std::memset(&to.sats[rows], 0, (formerRows - rows) * sizeof(epoch_sat_row_t));
    std::memcpy(to.checksum, from.checksum, sizeof to.checksum);
    to.etx = from.etx;
}

void advanceEpochHistory(epoch_image_t& previous, epoch_image_t& predicted, const epoch_image_t& current) {
    copyEpochImage(predicted, current);
    bigExtrapolate(previous.receiveTime, current.receiveTime, predicted.receiveTime, 4);
    bigExtrapolate(previous.clkOffset, current.clkOffset, predicted.clkOffset, 3);
    for (std::size_t sat = 0; sat < satelliteCount(current); ++sat) {
        for (std::size_t signal = 0; signal < signalCount(current.sats[sat]); ++signal) {
            const epoch_sig_row_t& older = previous.sats[sat].signals[signal];
            const epoch_sig_row_t& newer = current.sats[sat].signals[signal];
            epoch_sig_row_t& next = predicted.sats[sat].signals[signal];
            bigExtrapolate(older.range, newer.range, next.range, 4);
            bigExtrapolate(older.phase, newer.phase, next.phase, 6);
            bigExtrapolate(older.doppler, newer.doppler, next.doppler, 3);
        }
    }
    copyEpochImage(previous, current);
}

double readRange(const std::uint8_t* bytes, std::uint16_t& position, std::uint8_t system,
                 std::uint16_t signalIndex, bool threeBytes, bool rollover) {
    const std::uint8_t* field = bytes + position;
    double metres = 0.0;
    if (signalIndex == 0) {
        const int power = system == 1 || system == 4 ? 6 : system == 8 ? 10 : 7;
        metres = std::ldexp(static_cast<double>(readBigEndian32(field)), -power);
        position = static_cast<std::uint16_t>(position + 4);
    } else {
        const std::size_t width = threeBytes ? 3 : 2;
        std::int32_t value = (field[0] & 0x80) != 0 ? -1 : 0;
        for (std::size_t i = 0; i < width; ++i) value = static_cast<std::int32_t>(static_cast<std::uint32_t>(value) << 8 | field[i]);
        metres = std::ldexp(static_cast<double>(value), -8);
        position = static_cast<std::uint16_t>(position + width);
    }
    return rollover ? metres + kRangeRollover : metres;
}

void writeRange(std::uint8_t system, ByteWriter& out, std::uint16_t signalIndex, double metres, bool threeBytes) {
    std::array<std::uint8_t, 4> bytes{};
    if (signalIndex == 0) {
        writeBigEndian32(bytes.data(), scaledField(metres, system == 1 || system == 4 ? 6 : 7, 4));
        writeBytes(out, bytes.data(), 4);
        return;
    }
    const std::size_t width = threeBytes ? 3 : 2;
    writeBigEndian32(bytes.data(), scaledField(metres, 8, width));
    writeBytes(out, bytes.data() + 4 - width, width);
}

double bandWavelength(std::uint8_t system, std::uint8_t band, std::int8_t channel) {
    if (system == 2) {
        if (band == 0) return kSpeedOfLight / (1.602e9 + channel * 562500.0);
        if (band == 1) return kSpeedOfLight / (1.246e9 + channel * 437500.0);
        if (band == 9) return kSpeedOfLight / 1.202025e9;
    }
    if (band >= kBandWavelength.size() || !kBandWavelength[band].known) {
        compactAssert(false);
        return kBandWavelength[0].metres;
    }
    return kBandWavelength[band].metres;
}

std::uint8_t rinexSystemIndex(std::uint8_t system) { return kRinexSystemIndex[system]; }

std::uint8_t rawSystemIndex(std::uint8_t system) { return kRawSystemIndex[system]; }

void EpochWorkDeleter::operator()(epoch_rinex_t* work) const { delete work; }

EpochWorkBuffer allocateEpochWork() { return EpochWorkBuffer(new (std::nothrow) epoch_rinex_t); }

EpochExpansion beginEpochExpansion(const std::uint8_t* record, std::size_t recordCapacity, std::size_t shortest,
                                   ExpandedEpoch& result) {
    result = ExpandedEpoch{};
    EpochExpansion expansion{allocateEpochWork(), 0, 0};
    if (!expansion.work) {
        expansion.status = kStatusNoWorkBuffer;
        return expansion;
    }
    expansion.length = recordCapacity >= 4 ? epochFrameLength(record) : 0;
    if (expansion.length < shortest || expansion.length > recordCapacity) expansion.status = kStatusBadDeltaLength;
    return expansion;
}

void deliverEpoch(const epoch_image_t& image, std::uint8_t* out, std::uint16_t plainLength, rinex_control_t& control,
                  epoch_rinex_t& work, ExpandedEpoch& result) {
    result.length = finishEpochOutput(image, out, plainLength, control, work);
    result.weekNum = static_cast<std::uint16_t>(image.weekNum[0] << 8 | image.weekNum[1]);
    result.receiveTime = readBigEndian32(image.receiveTime);
}

std::uint16_t closeExpandedEpoch(epoch_image_t& image, ByteReader& in, std::uint32_t lengthSum, std::uint8_t* out,
                                 std::size_t outCapacity) {
    if (!readBytes(in, image.checksum, 2)) return 0;
    image.etx = 0x03;
    lengthSum += 3;
    if (lengthSum > outCapacity || lengthSum > 0xFFFF) return 0;
    image.lengthLow = static_cast<std::uint8_t>(lengthSum);
    image.lengthHigh = static_cast<std::uint8_t>(lengthSum >> 8);
    image.recordType = kPlainEpochType;
    return writeEpochImage(out, outCapacity, image);
}

}  // namespace nvb
