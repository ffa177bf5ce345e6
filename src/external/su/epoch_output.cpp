#include "external/su/epoch_image.h"

#include "common/byte_sum.h"

#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kMeasSlipMark = 0x08;
constexpr std::size_t kNoRow = kEpochMaxSatellites;

bool sameSatellite(const epoch_slip_sat_t& entry, std::uint8_t svId, std::uint8_t system, std::uint8_t antenna) {
    return entry.svId == svId && entry.rinexSystemIndex == system && entry.antennaNumber == antenna;
}

std::size_t findPreviousRow(const epoch_slip_table_t& previous, std::size_t row, std::uint8_t svId,
                            std::uint8_t system, std::uint8_t antenna) {
    if (sameSatellite(previous.sats[row], svId, system, antenna)) return row;
    for (std::size_t candidate = 0; candidate < kEpochMaxSatellites; ++candidate) {
        if (sameSatellite(previous.sats[candidate], svId, system, antenna)) return candidate;
    }
    return kNoRow;
}

// The signal of the found row to compare with: the same index unless it holds another
// signal, then the last of the row's six that matches.
std::size_t comparedSignal(const epoch_slip_row_t (&row)[kEpochMaxSignals], std::size_t index,
                           const epoch_sig_row_t& signal) {
    const auto matches = [&](const epoch_slip_row_t& entry) {
        return entry.blockType == signal.blockType && entry.trackType == signal.trackType;
    };
    if (matches(row[index])) return index;
    std::size_t compared = index;
    for (std::size_t candidate = 0; candidate < kEpochMaxSignals; ++candidate) {
        if (matches(row[candidate])) compared = candidate;
    }
    return compared;
}

// Mode 0 with decimation: the carried slips go into the delivered record itself, whose
// checksum then has to be made anew.
std::uint16_t markSlipsInRecord(const epoch_image_t& image, std::uint8_t* out, std::uint16_t plainLength,
                                const std::uint8_t (*marks)[kEpochMaxSignals]) {
    epoch_image_t marked;
    std::memcpy(&marked, &image, sizeof marked);
    bool any = false;
    for (std::size_t sat = 0; sat < satelliteCount(marked); ++sat) {
        for (std::size_t index = 0; index < signalCount(marked.sats[sat]); ++index) {
            std::uint8_t& flags = marked.sats[sat].signals[index].measFlags1;
            if (marks[sat][index] == 0 || (flags & kMeasSlipMark) != 0) continue;
            flags = static_cast<std::uint8_t>(flags | kMeasSlipMark);
            any = true;
        }
    }
    if (!any) return plainLength;
    const std::uint16_t length = writeEpochImage(out, plainLength, marked);
    if (length != plainLength) return 0;
    writeU16BigEndian(out + length - 3, byteSum(out, length - 3u));
    return length;
}

}  // namespace

void trackEpochSlips(const epoch_image_t& image, rinex_control_t& control, bool kept,
                     std::uint8_t (*marks)[kEpochMaxSignals]) {
    epoch_slip_table_t& current = control.slipCurrent;
    const epoch_slip_table_t& previous = control.slipPrevious;
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        const epoch_sat_row_t& row = image.sats[sat];
        const std::uint8_t system = rinexSystemIndex(row.rt_sattype);
        const std::size_t found = findPreviousRow(previous, sat, row.svId, system, row.antennaNumber);
        for (std::size_t index = 0; index < signalCount(row); ++index) {
            const epoch_sig_row_t& signal = row.signals[index];
            epoch_slip_row_t& entry = current.rows[sat][index];
            if (found == kNoRow) {
                entry.pending = 1;
            } else {
                const std::size_t compared = comparedSignal(previous.rows[found], index, signal);
                const epoch_slip_row_t& before = previous.rows[found][compared];
                if (before.slipCount != signal.slipCount || (signal.measFlags1 & kMeasSlipMark) != 0) {
                    entry.pending = 1;
                } else {
                    // At the compared signal's place, not this satellite's: a satellite
                    // that moved rows leaves its carried mark in its old row.
                    current.rows[found][compared].pending |= before.pending;
                }
            }
            entry.slipCount = signal.slipCount;
            entry.blockType = signal.blockType;
            entry.trackType = signal.trackType;
            if (kept && entry.pending != 0) {
                marks[sat][index] = 1;
                entry.pending = 0;
            }
        }
        current.sats[sat] = epoch_slip_sat_t{row.svId, system, row.antennaNumber};
    }
    std::memcpy(&control.slipPrevious, &control.slipCurrent, sizeof control.slipPrevious);
}

std::uint16_t finishEpochOutput(const epoch_image_t& image, std::uint8_t* out, std::uint16_t plainLength,
                                rinex_control_t& control, epoch_rinex_t& work) {
    const bool kept = control.interval == 0 || readBigEndian32(image.receiveTime) % control.interval == 0;
    std::uint8_t marks[kEpochMaxSatellites][kEpochMaxSignals] = {};
    if (control.interval != 0) {
        trackEpochSlips(image, control, kept, marks);
    } else if (control.mode != 0) {
        for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
            for (std::size_t index = 0; index < signalCount(image.sats[sat]); ++index) {
                marks[sat][index] = (image.sats[sat].signals[index].measFlags1 & kMeasSlipMark) != 0 ? 1 : 0;
            }
        }
    }
    if (!kept) return 0;
    if (control.mode == 0) return control.interval != 0 ? markSlipsInRecord(image, out, plainLength, marks) : plainLength;
    if (control.sink != nullptr) control.sink(&control, &image, out, plainLength, marks, &work);
    return control.mode == 2 ? plainLength : 0;
}

}  // namespace nvb
