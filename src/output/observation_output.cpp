#include "output/observation_output.h"

#include "common/byte_sum.h"
#include "output/binex_record.h"
#include "output/observation_tables.h"
#include "output/output_history.h"
#include "output/rinex_text.h"
#include "records/system_tables.h"

#include <cmath>
#include <cstring>
#include <new>

namespace nvb {

namespace {

constexpr std::int32_t kNoBinexClock = 0x7FFFFFFF;
constexpr std::uint8_t kNoSystem = 0xFF;

OutputHistory* historyOf(const rinex_control_t& control) { return static_cast<OutputHistory*>(control.history); }

// Satellite numbers of the observation files: QZSS from 193 to J01, SBAS from 120 to S20.
std::uint8_t observationNumber(std::uint8_t svId, std::uint8_t systemIndex) {
    if (systemIndex == 4) return static_cast<std::uint8_t>(svId + 64);
    if (systemIndex == 1) return static_cast<std::uint8_t>(svId - 100);
    return svId;
}

void collectEpoch(rinex_control_t& control, const epoch_image_t& image, const std::uint8_t (*slipMarks)[6],
                  epoch_rinex_t& work) {
    work.satCount = 0;
    const auto clockBits = static_cast<std::int32_t>(static_cast<std::uint32_t>(image.clkOffset[0]) << 24 |
                                                     static_cast<std::uint32_t>(image.clkOffset[1]) << 16 |
                                                     static_cast<std::uint32_t>(image.clkOffset[2]) << 8);
    work.clkOffset = static_cast<float>(static_cast<double>(clockBits >> 8) * std::ldexp(1.0, -19));
    work.receiveTime = static_cast<double>(readBigEndian32(image.receiveTime));
    work.weekNum = readU16BigEndian(image.weekNum);
    std::memset(work.obsUsed, 0, sizeof work.obsUsed);
    for (std::size_t sat = 0; sat < satelliteCount(image); ++sat) {
        const epoch_sat_row_t& row = image.sats[sat];
        const std::uint8_t system = rinexSystemIndex(row.rt_sattype);
        if (row.antennaNumber != 0 || !systemAllowed(system, control.rinexVersion)) continue;
        const std::size_t slot = work.satCount++;
        std::memset(work.cells[slot], 0, sizeof work.cells[slot]);
        work.sats[slot][0] = observationNumber(row.svId, system);
        work.sats[slot][1] = system;
        work.sats[slot][2] = row.antennaNumber;
        const epoch_sig_row_t& first = row.signals[0];
        const double base = static_cast<double>(readBigEndian32(first.range)) * std::ldexp(1.0, system == 1 || system == 4 ? -6 : -7) +
                            ((first.measFlags2 & kRangeRolledOver) != 0 ? kRangeRollover : 0.0);
        for (std::size_t index = 0; index < signalCount(row); ++index) {
            const epoch_sig_row_t& signal = row.signals[index];
            double range = base;
            if (index != 0) {
                std::uint16_t position = 0;
                range += readRange(signal.range, position, row.rt_sattype, 1, (signal.measFlags2 & kRangeThreeBytes) != 0, false);
            }
            std::int64_t phase = 0;
            for (const std::uint8_t byte : signal.phase) phase = phase << 8 | byte;
            phase = static_cast<std::int64_t>(static_cast<std::uint64_t>(phase) << 16) >> 16;
            rinexCollectSignal(control, work, slot, system, signal.blockType, signal.trackType, slipMarks[sat][index] != 0,
                               signal.slipCount, range, static_cast<double>(phase) * std::ldexp(1.0, -15),
                               readU16BigEndian(signal.snr));
        }
    }
}

}  // namespace

void rinexCollectSignal(rinex_control_t& control, epoch_rinex_t& work, std::size_t sat, std::uint8_t systemIndex,
                        std::uint8_t band, std::uint8_t trackCode, bool slip, std::uint8_t slipCount, double range,
                        double phase, std::uint16_t snr) {
    const std::size_t systemRow = control.rinexVersion >= 300 ? systemIndex : 0;
    const std::uint8_t digit = rinexSignalStrengthDigit(band, snr, systemIndex, control.rinexVersion);
    for (std::size_t entry = 0; entry < control.obsRowCount; ++entry) {
        const std::uint8_t* table = control.obsTable[entry];
        if (table[2] != band || table[3] != trackCode || table[0] >= kObservationRows) continue;
        epoch_rinex_cell_t& cell = work.cells[sat][table[0]];
        // An alternate code fills a row only while the row's own code has not.
        if ((table[1] & kKindAlternate) != 0 && cell.filled != 0) continue;
        const std::uint8_t kind = table[1] & 0x7F;
        cell = epoch_rinex_cell_t{};
        cell.strength = snr;
        cell.tracking = trackCode;
        cell.slipCount = slipCount;
        cell.filled = 1;
        if (kind == kKindStrength) {
            cell.strengthFlag = 1;
        } else {
            cell.value = kind == kKindPhase ? -phase : range;
            cell.strengthDigit = digit;
            cell.lossOfLock = kind == kKindPhase && slip ? 1 : 0;
        }
        if (control.skipCollect == 0) {
            work.obsUsed[systemRow][table[0]] = 1;
            control.obsUsedFrozen[systemRow][table[0]] = 1;
        }
    }
}

void writeObservationEpoch(rinex_control_t* control, const epoch_image_t* image, const std::uint8_t*, std::uint16_t,
                           const std::uint8_t (*slipMarks)[6], epoch_rinex_t* work) {
    OutputHistory* history = historyOf(*control);
    rinex_writer_t* writer = control->writer;
    if (history == nullptr || writer == nullptr || writer->length > writer->capacity) return;
    const std::size_t satellites = satelliteCount(*image);
    const std::size_t bound = control->mode == kOutputBinex ? binexEpochBound(satellites) : rinexEpochBound(satellites);
    if (writer->capacity - writer->length < bound) {
        ++writer->refused;
        return;
    }
    TextSink sink{writer->data, writer->capacity, writer->length};
    if (control->mode == kOutputBinex) {
        binexWriteEpoch(sink, *image, slipMarks, *control, *history);
    } else {
        collectEpoch(*control, *image, slipMarks, *work);
        rinexWriteEpoch(sink, *work, *control, *history);
    }
    if (sink.failed) {
        ++writer->refused;
        return;
    }
    writer->length = static_cast<std::uint32_t>(sink.length);
}

bool startObservationOutput(rinex_control_t& control, std::uint8_t mode, std::uint16_t version, rinex_writer_t& writer) {
    std::memset(&control, 0, sizeof control);
    if (mode == kOutputPlain || mode > kOutputCompactRinex) return false;
    if (mode != kOutputBinex && !loadObservationTable(control, version)) return false;
    auto* history = new (std::nothrow) OutputHistory;
    if (history == nullptr) return false;
    std::memset(history, 0, sizeof *history);
    resetCompactHistory(*history);
    for (auto& table : history->cells) {
        for (auto& row : table) {
            for (CellHistory& cell : row) cell.slipCount = -1;
        }
    }
    for (auto& table : history->arcSats) {
        for (auto& row : table) row[1] = kNoSystem;
    }
    for (auto& row : control.previousEpoch) row[1] = kNoSystem;
    std::memset(control.obsList, 0xFF, sizeof control.obsList);
    std::memset(control.gloChannels, 0x80, sizeof control.gloChannels);
    control.mode = mode;
    control.rinexVersion = version;
    control.history = history;
    control.writer = &writer;
    control.sink = writeObservationEpoch;
    control.headerOpen = 1;
    control.obsCount = mode == kOutputCompactRinex ? 0xFF : 0;
    control.binexClock = kNoBinexClock;
    return true;
}

void endObservationOutput(rinex_control_t& control) {
    delete historyOf(control);
    control.history = nullptr;
    control.sink = nullptr;
    control.writer = nullptr;
    control.mode = kOutputPlain;
}

}  // namespace nvb
