#include "external/su/predicted_epoch.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"

#include <array>
#include <cmath>
#include <cstring>

namespace nvb {

namespace {

// Code byte of the record
constexpr std::uint8_t kTimeRaw = 0x80;

double readPhaseCycles(const std::uint8_t* bytes) {
    std::int64_t value = (bytes[0] & 0x80) != 0 ? -1 : 0;
    for (std::size_t i = 0; i < 6; ++i) value = static_cast<std::int64_t>(static_cast<std::uint64_t>(value) << 8 | bytes[i]);
    return std::ldexp(static_cast<double>(value), -15);
}

bool rolledOver(const epoch_sig_row_t& signal) { return (signal.measFlags2 & kRangeRolledOver) != 0; }
bool threeBytes(const epoch_sig_row_t& signal) { return (signal.measFlags2 & kRangeThreeBytes) != 0; }

std::uint8_t compareSatellites(const epoch_image_t& image, const epoch_image_t& predicted) {
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        const epoch_sat_row_t& row = image.sats[sat];
        const epoch_sat_row_t& reference = predicted.sats[sat];
        if (row.svId != reference.svId || row.rt_sattype != reference.rt_sattype ||
            row.antennaNumber != reference.antennaNumber || row.channel != reference.channel ||
            row.nMeas != reference.nMeas || row.svFlags != reference.svFlags || row.svFlags2 != reference.svFlags2 ||
            std::memcmp(row.svSlipCounts, reference.svSlipCounts, 3) != 0) {
            return kPredictedSatelliteRow;
        }
    }
    return kPredictedWritten;
}

// The time field: a step of whole 10 ms from the prediction in one byte, or the raw week
// and time. The step drops the millisecond digit; receivers log on whole 10 ms.
void writeTime(const epoch_image_t& image, const epoch_image_t& predicted, std::uint8_t& code, ByteWriter& out) {
    const std::uint32_t step = readBigEndian32(image.receiveTime) / 10 - readBigEndian32(predicted.receiveTime) / 10;
    if (std::memcmp(image.weekNum, predicted.weekNum, 2) == 0 && step < 256) {
        writeByte(out, static_cast<std::uint8_t>(step));
        return;
    }
    code |= kTimeRaw;
    writeBytes(out, image.weekNum, 2);
    writeBytes(out, image.receiveTime, 4);
}

}  // namespace

bool predictRange(const epoch_image_t& previous, std::uint16_t satIndex, epoch_image_t& image,
                  std::uint16_t signalIndex) {
    const epoch_sat_row_t& before = previous.sats[satIndex];
    epoch_sat_row_t& row = image.sats[satIndex];
    const epoch_sig_row_t& oldSignal = before.signals[signalIndex];
    epoch_sig_row_t& signal = row.signals[signalIndex];
    const bool later = signalIndex > 0;
    const bool wide = threeBytes(oldSignal);

    std::uint16_t position = 0;
    double range = readRange(oldSignal.range, position, before.rt_sattype, signalIndex, wide, rolledOver(oldSignal));
    if (later) {
        position = 0;
        range += readRange(before.signals[0].range, position, before.rt_sattype, 0, false, rolledOver(before.signals[0]));
    }
    const double phaseChange = readPhaseCycles(signal.phase) - readPhaseCycles(oldSignal.phase);
    const double wavelength =
        bandWavelength(row.rt_sattype, signal.blockType, static_cast<std::int8_t>(row.channel));
    range -= wavelength * phaseChange;

    if (later) {
        position = 0;
        range -= readRange(row.signals[0].range, position, row.rt_sattype, 0, false, rolledOver(row.signals[0]));
    } else if (row.rt_sattype != 1 && row.rt_sattype != 4) {
        const bool flagged = rolledOver(row.signals[0]);
        if (range > kRangeRollover) {
            if (!flagged) return false;
            range -= kRangeRollover;
        } else if (flagged) {
            return false;
        }
    }
    std::array<std::uint8_t, 4> field{};
    ByteWriter out = makeByteWriter(field.data(), field.size());
    writeRange(row.rt_sattype, out, signalIndex, range, wide);
    std::memcpy(signal.range, field.data(), static_cast<std::size_t>(out.pos - field.data()));
    return true;
}

std::uint8_t compressPredictedEpoch(const std::uint8_t* plain, std::size_t plainCapacity, std::uint8_t* out,
                                    std::size_t outCapacity, epoch_history_t& history) {
    const std::uint16_t plainLength = plainCapacity >= 4 ? epochFrameLength(plain) : 0;
    if (plainLength > plainCapacity) return kPredictedUnusable;
    epoch_image_t incoming;
    if (parseEpochImage(incoming, plain, plainLength).status != 0) return kPredictedUnusable;
    const epoch_image_t& predicted = history.predicted;
    const epoch_image_t& previous = history.previous;

    if (incoming.nSv != predicted.nSv) return kPredictedSatelliteCount;
    epoch_image_t image;
    std::memcpy(&image, &predicted, sizeof image);
    std::memcpy(image.weekNum, incoming.weekNum, 2);
    std::memcpy(image.receiveTime, incoming.receiveTime, 4);
    std::memcpy(image.clkOffset, incoming.clkOffset, 3);
    // The flags stay the prediction's; a drift they leave out is not carried, and stays the
    // prediction's on both sides.
    if ((image.epochFlags & kEpochHasDrift) != 0) std::memcpy(image.clkDrift, incoming.clkDrift, 3);

    const epoch_clock_block_t& clock = incoming.clockBlock;
    if (clock.blockLength != predicted.clockBlock.blockLength || clock.blockFlags != predicted.clockBlock.blockFlags) {
        return kPredictedClockHeader;
    }
    for (std::size_t term = 0; term < clockTermCount(clock); ++term) {
        if (clock.clockTypes[term] != predicted.clockBlock.clockTypes[term] ||
            std::memcmp(clock.clockValues[term], predicted.clockBlock.clockValues[term], 7) != 0) {
            return kPredictedClockTerm;
        }
    }
    if (const std::uint8_t refusal = compareSatellites(incoming, predicted); refusal != kPredictedWritten) return refusal;

    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        for (std::size_t index = 0; index < signalCount(image.sats[sat]); ++index) {
            const epoch_sig_row_t& signal = incoming.sats[sat].signals[index];
            epoch_sig_row_t& rebuilt = image.sats[sat].signals[index];
            if (signal.slipCount != rebuilt.slipCount || signal.measFlags1 != rebuilt.measFlags1 ||
                signal.measFlags2 != rebuilt.measFlags2 || signal.measFlags3 != rebuilt.measFlags3) {
                return kPredictedSignalFlags;
            }
            if ((signal.measFlags1 & 0x03) == 0x03 && (signal.measFlags1 & 0x20) == 0) return kPredictedNoHalfCycle;
            std::memcpy(rebuilt.phase, signal.phase, 6);
            // An uncarried doppler stays the prediction's, as the expander keeps it.
            if ((signal.measFlags1 & kMeasHasDoppler) != 0) std::memcpy(rebuilt.doppler, signal.doppler, 3);
            if (!predictRange(previous, static_cast<std::uint16_t>(sat), image, static_cast<std::uint16_t>(index))) {
                return kPredictedRollover;
            }
        }
    }

    // The trailer is the checksum of the epoch as the expander will rebuild it.
    const std::uint32_t rebuiltLength = epochRecordLength(image);
    if (rebuiltLength > outCapacity || rebuiltLength > 0xFFFF) return kPredictedUnusable;
    image.lengthLow = static_cast<std::uint8_t>(rebuiltLength);
    image.lengthHigh = static_cast<std::uint8_t>(rebuiltLength >> 8);
    image.recordType = kPlainEpochType;
    image.etx = 0x03;
    const std::uint16_t written = writeEpochImage(out, outCapacity, image);
    if (written < 3) return kPredictedUnusable;
    const std::uint16_t trailer = byteSum(out, written - 3u);

    ByteWriter writer = makeByteWriter(out, outCapacity);
    writeBytes(writer, plain, 4);
    writeByte(writer, 0);
    std::uint8_t code = 0;
    writeTime(image, predicted, code, writer);
    code = static_cast<std::uint8_t>(code | codeWideDelta(image.clkOffset, predicted.clkOffset, 3, 3, writer) << 5);
    if ((image.epochFlags & kEpochHasDrift) != 0) {
        code = static_cast<std::uint8_t>(code | codeWideDelta(image.clkDrift, predicted.clkDrift, 3, 3, writer) << 3);
    }
    out[4] = code;
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        for (std::size_t index = 0; index < signalCount(image.sats[sat]); ++index) {
            const epoch_sig_row_t& signal = image.sats[sat].signals[index];
            const epoch_sig_row_t& reference = predicted.sats[sat].signals[index];
            std::uint8_t* codeAt = writer.pos;
            writeByte(writer, 0);
            if (writer.failed) break;
            std::uint8_t signalCode = static_cast<std::uint8_t>(codeWideDelta(signal.phase, reference.phase, 6, 6, writer) << 5);
            if ((signal.measFlags1 & kMeasHasDoppler) != 0) {
                signalCode = static_cast<std::uint8_t>(signalCode | codeWideDelta(signal.doppler, reference.doppler, 3, 3, writer) << 3);
            }
            *codeAt = signalCode;
        }
    }
    std::array<std::uint8_t, 2> trailerBytes{};
    writeU16BigEndian(trailerBytes.data(), trailer);
    writeBytes(writer, trailerBytes.data(), 2);
    compactAssert(!writer.failed);
    if (writer.failed) return kPredictedUnusable;
    storeEpochFrameLength(out, static_cast<std::uint16_t>(writer.pos - out));
    out[2] = kPredictedEpochType;

    std::memcpy(image.checksum, trailerBytes.data(), 2);
    advanceEpochHistory(history.previous, history.predicted, image);
    return kPredictedWritten;
}

std::uint8_t expandPredictedEpoch(const std::uint8_t* record, std::size_t recordCapacity, std::uint8_t* out,
                                  std::size_t outCapacity, epoch_history_t& history, ExpandedEpoch& result,
                                  rinex_control_t& control) {
    const EpochExpansion expansion = beginEpochExpansion(record, recordCapacity, 5, result);
    if (expansion.status != 0) return expansion.status;
    const std::uint16_t length = expansion.length;

    const epoch_image_t& predicted = history.predicted;
    epoch_image_t image;
    std::memcpy(&image, &predicted, sizeof image);
    std::memcpy(&image.stx, record, 4);
    const std::uint8_t code = record[4];
    ByteReader in = makeByteReader(record + 5, length - 5u);

    if ((code & kTimeRaw) != 0) {
        if (!readBytes(in, image.weekNum, 2) || !readBytes(in, image.receiveTime, 4)) return kStatusBadDeltaLength;
    } else {
        std::uint8_t step = 0;
        if (!readByte(in, step)) return kStatusBadDeltaLength;
        writeBigEndian32(image.receiveTime, readBigEndian32(predicted.receiveTime) + 10u * step);
    }
    // Each delta read overwrites the status and the expansion goes on: only the last coded
    // field's failure is reported. Running out of record is the one thing that stops it.
    std::uint8_t status = expandWideDelta(image.clkOffset, 3, (code >> 5) & 3u, 3, in, predicted.clkOffset);
    if ((image.epochFlags & kEpochHasDrift) != 0) {
        status = expandWideDelta(image.clkDrift, 3, (code >> 3) & 3u, 3, in, predicted.clkDrift);
    }
    if (in.failed) return kStatusBadDeltaLength;

    std::uint32_t lengthSum = image.epochHeaderLen + 4u;
    if ((image.epochFlags & kEpochHasClockBlock) != 0) lengthSum += image.clockBlock.blockLength;
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        lengthSum += image.sats[sat].svBlockLen;
        for (std::size_t index = 0; index < signalCount(image.sats[sat]); ++index) {
            epoch_sig_row_t& signal = image.sats[sat].signals[index];
            const epoch_sig_row_t& reference = predicted.sats[sat].signals[index];
            lengthSum += signal.measBlockLen;
            std::uint8_t signalCode = 0;
            if (!readByte(in, signalCode)) return kStatusBadDeltaLength;
            status = expandWideDelta(signal.phase, 6, (signalCode >> 5) & 7u, 6, in, reference.phase);
            // A range that contradicts its rollover bit stays the prediction's.
            (void)predictRange(history.previous, static_cast<std::uint16_t>(sat), image, static_cast<std::uint16_t>(index));
            if ((signal.measFlags1 & kMeasHasDoppler) != 0) {
                status = expandWideDelta(signal.doppler, 3, (signalCode >> 3) & 3u, 3, in, reference.doppler);
            }
            if (in.failed) return kStatusBadDeltaLength;
        }
    }
    const std::uint16_t written = closeExpandedEpoch(image, in, lengthSum, out, outCapacity);
    if (written == 0) return kStatusBadDeltaLength;
    deliverEpoch(image, out, written, control, *expansion.work, result);
    advanceEpochHistory(history.previous, history.predicted, image);
    return status;
}

std::uint8_t processType39(nvb_expand_t& state, std::uint8_t& status) {
    return runEpochFrontEnd(state, status, expandPredictedEpoch);
}

}  // namespace nvb
