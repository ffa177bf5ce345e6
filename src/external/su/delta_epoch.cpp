#include "external/su/delta_epoch.h"

#include "common/byte_sum.h"
#include "common/diagnostics.h"

#include <cstring>

namespace nvb {

namespace {

// Header code byte
constexpr std::uint8_t kHeaderBlockFollows = 0x80;
// Satellite flag byte
constexpr std::uint8_t kBlockAFollows = 0x80;
constexpr std::uint8_t kBlockBFollows = 0x01;
// First signal code byte
constexpr std::uint8_t kSignalBlockFollows = 0x80;
// Clock flag byte
constexpr std::uint8_t kClockHeaderFollows = 0x80;

constexpr std::uint8_t kMaxRangeCode = 4;
constexpr std::uint8_t kMaxPhaseCode = 6;

// Room for code bytes that are known only after the fields behind them, and that every
// caller patches; null (and the writer failed) when there is none.
std::uint8_t* reserve(ByteWriter& out, std::size_t count) {
    if (spaceLeft(out) < count) {
        out.failed = true;
        return nullptr;
    }
    std::uint8_t* at = out.pos;
    out.pos += count;
    return at;
}

void patch(std::uint8_t* at, std::uint8_t value) {
    if (at != nullptr) *at = value;
}

bool differ(const std::uint8_t* a, const std::uint8_t* b, std::size_t width) { return std::memcmp(a, b, width) != 0; }

std::size_t rangeWidth(const epoch_sig_row_t& signal, std::size_t index) {
    if (index == 0) return 4;
    return (signal.measFlags2 & kRangeThreeBytes) != 0 ? 3 : 2;
}

bool headerDiffers(const epoch_image_t& image, const epoch_image_t& reference) {
    // clkDrift and raimFault count even where the flags leave them out: both are zero then.
    return image.epochHeaderLen != reference.epochHeaderLen || differ(image.weekNum, reference.weekNum, 2) ||
           image.epochFlags != reference.epochFlags || differ(image.clkDrift, reference.clkDrift, 3) ||
           image.raimFault != reference.raimFault;
}

void compressSignal(epoch_sig_row_t& signal, const epoch_sig_row_t& predicted, std::size_t index, bool longForm,
                    ByteWriter& out) {
    // The short form has no place for the second flag byte; what it cannot carry is not
    // kept in the history either.
    if (!longForm && (signal.measFlags1 & kFlagByteFollows) != 0) signal.measFlags2 = 0;
    std::uint8_t* codesAt = reserve(out, longForm ? 3 : 2);
    const bool block = signal.measBlockLen != predicted.measBlockLen || signal.blockType != predicted.blockType ||
                       signal.trackType != predicted.trackType || signal.measFlags1 != predicted.measFlags1 ||
                       signal.measFlags2 != predicted.measFlags2 || signal.measFlags3 != predicted.measFlags3;
    if (block) {
        writeByte(out, signal.measBlockLen);
        writeByte(out, signal.blockType);
        writeByte(out, signal.trackType);
        writeByte(out, signal.measFlags1);
        if (longForm && (signal.measFlags1 & kFlagByteFollows) != 0) {
            writeByte(out, signal.measFlags2);
            if ((signal.measFlags2 & kFlagByteFollows) != 0) writeByte(out, signal.measFlags3);
        }
    }
    const std::uint8_t slip = codeSmallDelta(-1, 1, 2, &signal.slipCount, &predicted.slipCount, 1, out) & 3u;
    const std::uint8_t snr = codeSmallDelta(-15, 15, 16, signal.snr, predicted.snr, 2, out) & 31u;
    // Each width its own call, so that every field load is one of a known size.
    const std::uint8_t range = index == 0 ? codeWideDelta(signal.range, predicted.range, 4, 4, out)
                               : rangeWidth(signal, index) == 3 ? codeWideDelta(signal.range, predicted.range, 3, 3, out)
                                                                : codeWideDelta(signal.range, predicted.range, 2, 2, out);
    const std::uint8_t phase = codeWideDelta(signal.phase, predicted.phase, 6, 6, out);
    const bool carriesDoppler = longForm && (signal.measFlags1 & kMeasHasDoppler) != 0;
    const std::uint8_t doppler = carriesDoppler ? codeWideDelta(signal.doppler, predicted.doppler, 3, 3, out) : 0;
    // The expander takes an uncarried doppler from its prediction, stale or not; the
    // history here keeps the same bytes, or a doppler that comes back later would be coded
    // against a prediction the reader does not have.
    if (!carriesDoppler) std::memcpy(signal.doppler, predicted.doppler, 3);
    if (codesAt == nullptr) return;
    codesAt[0] = static_cast<std::uint8_t>((block ? kSignalBlockFollows : 0) | snr << 2 | slip);
    codesAt[1] = static_cast<std::uint8_t>(range << 4 | phase);
    if (longForm) codesAt[2] = static_cast<std::uint8_t>(doppler << 6);
}

void compressSatellite(epoch_sat_row_t& row, const epoch_sat_row_t& reference, bool longForm, ByteWriter& out) {
    std::uint8_t* flagAt = reserve(out, 1);
    const bool blockA = row.svBlockLen != reference.svBlockLen || row.svFlags != reference.svFlags ||
                        row.svFlags2 != reference.svFlags2 || differ(row.svSlipCounts, reference.svSlipCounts, 3);
    if (blockA) {
        writeByte(out, row.svBlockLen);
        writeByte(out, row.svFlags);
        if (longForm && (row.svFlags & kFlagByteFollows) != 0) {
            writeByte(out, row.svFlags2);
            if ((row.svFlags2 & kSvHasSlipCounts) != 0) writeBytes(out, row.svSlipCounts, 3);
        }
    }
    const bool blockB = row.svId != reference.svId || row.rt_sattype != reference.rt_sattype ||
                        row.antennaNumber != reference.antennaNumber || row.channel != reference.channel ||
                        row.nMeas != reference.nMeas;
    if (blockB) {
        writeByte(out, row.svId);
        writeByte(out, packSystemByte(row.rt_sattype, row.antennaNumber));
        writeByte(out, row.channel);
        writeByte(out, row.nMeas);
    }
    const std::uint8_t elevation = codeSmallDelta(-3, 3, 4, &row.elevation, &reference.elevation, 1, out) & 7u;
    const std::uint8_t azimuth = codeSmallDelta(-3, 3, 4, &row.azimuth, &reference.azimuth, 1, out) & 7u;
    patch(flagAt, static_cast<std::uint8_t>((blockA ? kBlockAFollows : 0) | elevation << 4 | azimuth << 1 |
                                            (blockB ? kBlockBFollows : 0)));

    for (std::size_t index = 0; index < signalCount(row); ++index) {
        compressSignal(row.signals[index], reference.signals[index], index, longForm, out);
    }
}

std::uint8_t expandSignal(epoch_sig_row_t& signal, const epoch_sig_row_t& predicted, std::size_t index, bool longForm,
                          ByteReader& in, std::uint32_t& lengthSum) {
    std::uint8_t codes[3] = {};
    // Two or three code bytes, each read at a known size.
    if (bytesLeft(in) < (longForm ? 3u : 2u)) {
        in.failed = true;
        return kStatusBadDeltaLength;
    }
    codes[0] = in.pos[0];
    codes[1] = in.pos[1];
    if (longForm) codes[2] = in.pos[2];
    in.pos += longForm ? 3 : 2;
    const std::uint8_t rangeCode = codes[1] >> 4;
    const std::uint8_t phaseCode = codes[1] & 0x0F;
    if (rangeCode > kMaxRangeCode || phaseCode > kMaxPhaseCode) return kStatusBadEpochCode;

    if ((codes[0] & kSignalBlockFollows) != 0) {
        if (!readByte(in, signal.measBlockLen) || !readByte(in, signal.blockType) || !readByte(in, signal.trackType) ||
            !readByte(in, signal.measFlags1)) {
            return kStatusBadDeltaLength;
        }
        signal.measFlags2 = 0;
        signal.measFlags3 = 0;
        if ((signal.measFlags1 & kFlagByteFollows) != 0) {
            if (!longForm) return kStatusBadEpochCode;
            if (!readByte(in, signal.measFlags2)) return kStatusBadDeltaLength;
            if ((signal.measFlags2 & kFlagByteFollows) != 0) {
                if (!readByte(in, signal.measFlags3)) return kStatusBadDeltaLength;
                if ((signal.measFlags3 & kFlagByteFollows) != 0) {
                    for (std::size_t skipped = 0; skipped < signal.measBlockLen + 1u; ++skipped) {
                        std::uint8_t flags = 0;
                        if (!readByte(in, flags)) return kStatusBadDeltaLength;
                        if ((flags & kFlagByteFollows) == 0) break;
                    }
                }
            }
        }
    } else {
        signal.measBlockLen = predicted.measBlockLen;
        signal.blockType = predicted.blockType;
        signal.trackType = predicted.trackType;
        signal.measFlags1 = predicted.measFlags1;
        signal.measFlags2 = predicted.measFlags2;
        signal.measFlags3 = predicted.measFlags3;
    }
    if (!expandSmallDelta(&signal.slipCount, 2, codes[0] & 3u, in, &predicted.slipCount, 1) ||
        !expandSmallDelta(signal.snr, 16, (codes[0] >> 2) & 31u, in, predicted.snr, 2)) {
        return kStatusBadDeltaLength;
    }
    std::uint8_t status = index == 0 ? expandWideDelta(signal.range, 4, rangeCode, 4, in, predicted.range)
                          : rangeWidth(signal, index) == 3
                              ? expandWideDelta(signal.range, 3, rangeCode, 3, in, predicted.range)
                              : expandWideDelta(signal.range, 2, rangeCode, 2, in, predicted.range);
    if (status == 0) status = expandWideDelta(signal.phase, 6, phaseCode, 6, in, predicted.phase);
    if (status != 0) return status;
    // Doppler comes from the prediction whenever it is not carried, whatever measFlags1 says.
    if (codes[2] > 63) {
        status = expandWideDelta(signal.doppler, 3, codes[2] >> 6, 3, in, predicted.doppler);
        if (status != 0) return status;
    } else {
        std::memcpy(signal.doppler, predicted.doppler, 3);
    }
    lengthSum += signal.measBlockLen;
    return 0;
}

std::uint8_t expandSatellite(epoch_sat_row_t& row, const epoch_sat_row_t& predicted, bool longForm, ByteReader& in,
                             std::uint32_t& lengthSum) {
    std::uint8_t flag = 0;
    if (!readByte(in, flag)) return kStatusBadDeltaLength;
    const bool blockA = (flag & kBlockAFollows) != 0;
    if (blockA) {
        if (!readByte(in, row.svBlockLen) || !readByte(in, row.svFlags)) return kStatusBadDeltaLength;
    } else {
        row.svBlockLen = predicted.svBlockLen;
        row.svFlags = predicted.svFlags;
    }
    if ((row.svFlags & kFlagByteFollows) != 0) {
        // A short record cannot hold svFlags2, wherever svFlags came from.
        if (!longForm) return kStatusBadEpochCode;
        if (blockA) {
            if (!readByte(in, row.svFlags2)) return kStatusBadDeltaLength;
            if ((row.svFlags2 & kSvHasSlipCounts) != 0 && !readBytes(in, row.svSlipCounts, 3)) {
                return kStatusBadDeltaLength;
            }
        } else {
            row.svFlags2 = predicted.svFlags2;
            if ((row.svFlags2 & kSvHasSlipCounts) != 0) std::memcpy(row.svSlipCounts, predicted.svSlipCounts, 3);
        }
    }
    if ((flag & kBlockBFollows) != 0) {
        std::uint8_t systemByte = 0;
        if (!readByte(in, row.svId) || !readByte(in, systemByte) || !readByte(in, row.channel) ||
            !readByte(in, row.nMeas)) {
            return kStatusBadDeltaLength;
        }
        unpackSystemByte(systemByte, row.rt_sattype, row.antennaNumber);
    } else {
        row.svId = predicted.svId;
        row.rt_sattype = predicted.rt_sattype;
        row.antennaNumber = predicted.antennaNumber;
        row.channel = predicted.channel;
        row.nMeas = predicted.nMeas;
    }
    if (!expandSmallDelta(&row.elevation, 4, (flag >> 4) & 7u, in, &predicted.elevation, 1) ||
        !expandSmallDelta(&row.azimuth, 4, (flag >> 1) & 7u, in, &predicted.azimuth, 1)) {
        return kStatusBadDeltaLength;
    }
    lengthSum += row.svBlockLen;
    if (row.nMeas > kEpochMaxSignals) return kStatusBadEpochCode;
    for (std::size_t index = 0; index < row.nMeas; ++index) {
        const std::uint8_t status = expandSignal(row.signals[index], predicted.signals[index], index, longForm, in, lengthSum);
        if (status != 0) return status;
    }
    return 0;
}

bool expandHeader(epoch_image_t& image, const epoch_image_t& predicted, std::uint8_t code, ByteReader& in) {
    if ((code & kHeaderBlockFollows) == 0) {
        image.epochHeaderLen = predicted.epochHeaderLen;
        std::memcpy(image.weekNum, predicted.weekNum, 2);
        image.epochFlags = predicted.epochFlags;
        if ((image.epochFlags & kEpochHasDrift) != 0) std::memcpy(image.clkDrift, predicted.clkDrift, 3);
        if ((image.epochFlags & kEpochHasRaimFault) != 0) image.raimFault = predicted.raimFault;
        return true;
    }
    if (!readByte(in, image.epochHeaderLen) || !readBytes(in, image.weekNum, 2) || !readByte(in, image.epochFlags)) {
        return false;
    }
    if ((image.epochFlags & kEpochHasDrift) != 0 && !readBytes(in, image.clkDrift, 3)) return false;
    if ((image.epochFlags & kEpochHasRaimFault) != 0 && !readByte(in, image.raimFault)) return false;
    return true;
}

}  // namespace

void compressClockBlock(const epoch_clock_block_t& block, const epoch_clock_block_t& reference, ByteWriter& out) {
    const std::size_t terms = clockTermCount(block);
    bool header = block.blockLength != reference.blockLength || block.blockFlags != reference.blockFlags;
    for (std::size_t term = 0; term < terms; ++term) header = header || block.clockTypes[term] != reference.clockTypes[term];
    const std::uint8_t headerBit = header ? kClockHeaderFollows : 0;

    std::uint8_t* flagAt = reserve(out, 1);
    std::uint8_t flag = headerBit;
    if (header) {
        writeByte(out, block.blockLength);
        writeByte(out, block.blockFlags);
    }
    for (std::size_t term = 0; term < terms; ++term) {
        const bool even = term % 2 == 0;
        if (even && term > 0) {
            patch(flagAt, flag);
            flagAt = reserve(out, 1);
            flag = headerBit;
        }
        // The expander works the byte length out from the value.
        if (header) writeByte(out, block.clockTypes[term] & 0x8F);
        const std::uint8_t code = codeWideDelta(block.clockValues[term], reference.clockValues[term], 7, 7, out);
        flag = static_cast<std::uint8_t>(flag | (even ? code << 4 : code << 1));
    }
    patch(flagAt, flag);
}

std::uint8_t expandClockBlock(epoch_clock_block_t& block, const epoch_clock_block_t& reference, ByteReader& in,
                              std::uint32_t& lengthSum) {
    std::uint8_t flag = 0;
    if (!readByte(in, flag)) return kStatusBadDeltaLength;
    if ((flag & kClockHeaderFollows) != 0) {
        if (!readByte(in, block.blockLength) || !readByte(in, block.blockFlags)) return kStatusBadDeltaLength;
    } else {
        block.blockLength = reference.blockLength;
        block.blockFlags = reference.blockFlags;
    }
    for (std::size_t term = 0; term < clockTermCount(block); ++term) {
        const bool even = term % 2 == 0;
        if (even && term > 0 && !readByte(in, flag)) return kStatusBadDeltaLength;
        std::uint8_t& id = block.clockTypes[term];
        if ((flag & kClockHeaderFollows) != 0) {
            if (!readByte(in, id)) return kStatusBadDeltaLength;
        } else {
            id = reference.clockTypes[term];
        }
        const std::uint8_t code = even ? (flag >> 4) & 7u : (flag >> 1) & 7u;
        std::uint8_t* value = block.clockValues[term];
        const std::uint8_t status = expandWideDelta(value, 7, code, 7, in, reference.clockValues[term]);
        if (status != 0) return status;
        // A leading byte is redundant when it only repeats the sign of the byte after it.
        std::size_t skipped = 0;
        while (skipped < 6 && ((value[skipped] == 0x00 && value[skipped + 1] < 0x80) ||
                               (value[skipped] == 0xFF && value[skipped + 1] >= 0x80))) {
            ++skipped;
        }
        id = static_cast<std::uint8_t>((id & 0x8F) | (7 - skipped) << 4);
    }
    lengthSum += block.blockLength;
    return 0;
}

bool compressDeltaEpoch(const std::uint8_t* plain, std::size_t plainCapacity, std::uint8_t* out,
                        std::size_t outCapacity, epoch_history_t& history, bool longForm) {
    const std::uint16_t plainLength = plainCapacity >= 4 ? epochFrameLength(plain) : 0;
    if (plainLength > plainCapacity || outCapacity < 5) return false;
    epoch_image_t image;
    if (parseEpochImage(image, plain, plainLength).status != 0) return false;
    const epoch_image_t& predicted = history.predicted;

    ByteWriter writer = makeByteWriter(out, outCapacity);
    writeBytes(writer, plain, 4);
    std::uint8_t* codeAt = reserve(writer, 1);
    std::uint8_t code = 0;
    if (headerDiffers(image, predicted)) {
        code |= kHeaderBlockFollows;
        writeByte(writer, image.epochHeaderLen);
        writeBytes(writer, image.weekNum, 2);
        writeByte(writer, image.epochFlags);
        if ((image.epochFlags & kEpochHasDrift) != 0) writeBytes(writer, image.clkDrift, 3);
        if ((image.epochFlags & kEpochHasRaimFault) != 0) writeByte(writer, image.raimFault);
    }
    code = static_cast<std::uint8_t>(code | codeWideDelta(image.receiveTime, predicted.receiveTime, 4, 3, writer) << 5);
    code = static_cast<std::uint8_t>(code | codeWideDelta(image.clkOffset, predicted.clkOffset, 3, 3, writer) << 3);
    code = static_cast<std::uint8_t>(code | (codeSmallDelta(-3, 3, 4, &image.nSv, &predicted.nSv, 1, writer) & 7u));
    patch(codeAt, code);
    if ((image.epochFlags & kEpochHasClockBlock) != 0) compressClockBlock(image.clockBlock, predicted.clockBlock, writer);
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        compressSatellite(image.sats[sat], predicted.sats[sat], longForm, writer);
    }
    writeBytes(writer, image.checksum, 2);
    compactAssert(!writer.failed);
    if (writer.failed) return false;

    storeEpochFrameLength(out, static_cast<std::uint16_t>(writer.pos - out));
    out[2] = longForm ? kLongDeltaEpochType : kShortDeltaEpochType;
    advanceEpochHistory(history.previous, history.predicted, image);
    return true;
}

std::uint8_t expandDeltaEpoch(const std::uint8_t* record, std::size_t recordCapacity, std::uint8_t* out,
                              std::size_t outCapacity, epoch_history_t& history, bool longForm, ExpandedEpoch& result,
                              rinex_control_t& control) {
    const EpochExpansion expansion = beginEpochExpansion(record, recordCapacity, 5, result);
    if (expansion.status != 0) return expansion.status;
    const std::uint16_t length = expansion.length;

    const epoch_image_t& predicted = history.predicted;
    epoch_image_t image;
    clearEpochHeader(image);
    std::memcpy(&image.stx, record, 4);
    const std::uint8_t code = record[4];
    ByteReader in = makeByteReader(record + 5, length - 5u);

    if (!expandHeader(image, predicted, code, in)) return kStatusBadDeltaLength;
    std::uint8_t status = expandWideDelta(image.receiveTime, 4, (code >> 5) & 3u, 3, in, predicted.receiveTime);
    if (status == 0) status = expandWideDelta(image.clkOffset, 3, (code >> 3) & 3u, 3, in, predicted.clkOffset);
    if (status != 0) return status;
    if (!expandSmallDelta(&image.nSv, 4, code & 7u, in, &predicted.nSv, 1)) return kStatusBadDeltaLength;

    std::uint32_t lengthSum = image.epochHeaderLen + 4u;
    if (image.nSv > kEpochMaxSatellites) return kStatusTooManySatellites;
    clearEpochRows(image);
    if ((image.epochFlags & kEpochHasClockBlock) != 0) {
        status = expandClockBlock(image.clockBlock, predicted.clockBlock, in, lengthSum);
        if (status != 0) return status;
    }
    for (std::size_t sat = 0; sat < image.nSv; ++sat) {
        status = expandSatellite(image.sats[sat], predicted.sats[sat], longForm, in, lengthSum);
        if (status != 0) return status;
    }
    const std::uint16_t written = closeExpandedEpoch(image, in, lengthSum, out, outCapacity);
    if (written == 0) return kStatusBadDeltaLength;
    if (control.verify == 1 && byteSum(out, written - 3u) != readU16BigEndian(image.checksum)) {
        return kStatusChecksum;
    }
    deliverEpoch(image, out, written, control, *expansion.work, result);
    advanceEpochHistory(history.previous, history.predicted, image);
    return 0;
}

std::uint8_t processType37(nvb_expand_t& state, std::uint8_t& status, bool framed, bool isType36) {
    state.outputControl.verify = framed ? 1 : 0;
    return runEpochFrontEnd(state, status,
                            [isType36](const std::uint8_t* record, std::size_t recordCapacity, std::uint8_t* out,
                                       std::size_t outCapacity, epoch_history_t& history, ExpandedEpoch& result,
                                       rinex_control_t& control) {
                                return expandDeltaEpoch(record, recordCapacity, out, outCapacity, history, isType36,
                                                        result, control);
                            });
}

}  // namespace nvb
