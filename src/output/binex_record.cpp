#include "output/binex_record.h"

#include "common/byte_sum.h"
#include "external/su/epoch_image.h"
#include "output/observation_tables.h"
#include "records/system_tables.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kSync = 0xE2;
constexpr std::uint8_t kRecordId = 0x7F;
constexpr std::uint8_t kSubrecord = 0x05;
constexpr std::size_t kMaxSatellites = 64;  // the count byte has six bits
constexpr std::int32_t kNoClock = 0x7FFFFFFF;
constexpr std::int32_t kClockJump = 500000;
constexpr std::int32_t kClockMax = 0x1FFFFF;
constexpr std::int32_t kClockMin = -2097152;
constexpr std::uint8_t kSystem5 = 5;

// Flag byte 0 of a signal: 0x04 Doppler follows, 0x08 a one-byte slip count follows,
// 0x20 phase in 0.0001 m, 0x40 the wide range and phase forms; 0x80 another flag follows.
constexpr std::uint8_t kFlagDoppler = 0x04;
constexpr std::uint8_t kFlagSlipCount = 0x08;
constexpr std::uint8_t kFlagCoarsePhase = 0x20;
constexpr std::uint8_t kFlagWideForms = 0x40;
constexpr std::uint8_t kFlagMore = 0x80;
constexpr std::uint8_t kFlagKindPilot = 1;
constexpr std::uint8_t kFlagKindChannel = 2;
constexpr double kPhaseStep = 0.0001;
constexpr std::int64_t kPhaseFieldMax = (1 << 23) - 1;
constexpr std::int64_t kRangeDeltaMax = (1 << 19) - 1;

std::int64_t halfAway(double value) { return static_cast<std::int64_t>(std::round(value)); }

std::int64_t signExtended(const std::uint8_t* bytes, std::size_t width) {
    std::uint64_t value = 0;
    for (std::size_t i = 0; i < width; ++i) value = value << 8 | bytes[i];
    const unsigned shift = static_cast<unsigned>(64 - 8 * width);
    return static_cast<std::int64_t>(value << shift) >> shift;
}

void putBigEndian(TextSink& sink, std::uint64_t value, std::size_t width) {
    for (std::size_t i = width; i-- > 0;) putByte(sink, static_cast<std::uint8_t>(value >> (8 * i)));
}

struct ClockEntry {
    std::uint8_t code;
    double value;
};

void writeClock(TextSink& sink, const epoch_image_t& image, rinex_control_t& control) {
    const double seconds = static_cast<double>(signExtended(image.clkOffset, 3)) * std::ldexp(1.0, -19) / 1000.0;
    const auto micro = static_cast<std::int32_t>(std::clamp<std::int64_t>(halfAway(seconds * 1e6), INT32_MIN + 1, INT32_MAX - 1));
    std::uint8_t jump = 0;
    if (control.binexClock != kNoClock) {
        const std::int64_t step = static_cast<std::int64_t>(micro) - control.binexClock;
        if (step > kClockJump) jump = 1;
        if (step < -kClockJump) jump = 255;
    }
    control.binexClock = micro;
    const auto field = static_cast<std::uint32_t>(std::clamp(micro, kClockMin, kClockMax)) & 0x3FFFFFu;
    std::uint8_t top = static_cast<std::uint8_t>((field >> 16) & 0x3Fu);
    if (jump == 1) top |= 0x40;
    if (jump == 255) top |= 0xC0;
    putByte(sink, top);
    putBigEndian(sink, field & 0xFFFFu, 2);
}

std::size_t clockEntries(const epoch_image_t& image, ClockEntry (&entries)[9], std::uint8_t& reference) {
    std::size_t count = 0;
    reference = 0;
    if ((image.epochFlags & kEpochHasClockBlock) != 0) {
        reference = binexSystemCode(rinexSystemIndex(image.clockBlock.blockFlags & 0x0F));
        for (std::size_t term = 0; term < clockTermCount(image.clockBlock); ++term) {
            const std::uint8_t system = image.clockBlock.clockTypes[term] & 0x0F;
            if (system == 4 || system > 6) continue;
            const double value = static_cast<double>(signExtended(image.clockBlock.clockValues[term], 7)) * std::ldexp(1.0, -28);
            entries[count++] = ClockEntry{binexSystemCode(rinexSystemIndex(system)), value};
        }
    }
    if ((image.epochFlags & kEpochHasDrift) != 0) {
        const std::uint8_t glonass = binexSystemCode(2);
        const bool present = std::any_of(entries, entries + count, [&](const ClockEntry& e) { return e.code == glonass; });
        if (!present) entries[count++] = ClockEntry{glonass, static_cast<double>(signExtended(image.clkDrift, 3)) * std::ldexp(1.0, -22)};
    }
    return count;
}

std::size_t previousArcRow(const OutputHistory& history, std::size_t sat, std::uint8_t svId, std::uint8_t system) {
    const auto& sats = history.arcSats[history.arcSaved];
    const auto same = [&](std::size_t row) { return sats[row][0] == svId && sats[row][1] == system; };
    if (same(sat)) return sat;
    for (std::size_t row = 0; row < kOutputSatellites; ++row) {
        if (same(row)) return row;
    }
    return kOutputSatellites;
}

void writeSignal(TextSink& sink, const epoch_sat_row_t& row, std::size_t index, std::uint8_t system, double firstRange,
                 double range, bool slip, const BinexArc* before, BinexArc& after) {
    const epoch_sig_row_t& signal = row.signals[index];
    const BinexSignal code = binexSignalCode(system, signal.blockType, signal.trackType);
    const double wavelength = signalWavelength(system, signal.blockType, static_cast<std::int8_t>(row.channel));
    // The receiver's phase runs against the range; the exchange formats count it with it.
    const double carrier = -static_cast<double>(signExtended(signal.phase, 6)) * std::ldexp(1.0, -15);

    // Phase is sent as its distance from the range, so each arc is aligned to the range by
    // whole cycles where it starts; a realignment is a new arc and carries the slip bit.
    after = BinexArc{0, signal.blockType, signal.trackType, 1};
    bool aligned = before != nullptr && !slip;
    if (aligned) {
        after.cycles = before->cycles;
        aligned = std::fabs(((carrier + static_cast<double>(after.cycles)) * wavelength - range) / kPhaseStep) <=
                  static_cast<double>(kPhaseFieldMax);
    }
    if (!aligned) {
        after.cycles = halfAway(range / wavelength - carrier);
        slip = true;
    }
    const std::int64_t phaseField = std::clamp<std::int64_t>(
        halfAway(((carrier + static_cast<double>(after.cycles)) * wavelength - range) / kPhaseStep), -kPhaseFieldMax,
        kPhaseFieldMax);

    const bool doppler = (signal.measFlags1 & kMeasHasDoppler) != 0;
    const bool glonass = system == 2;
    putByte(sink, static_cast<std::uint8_t>(kFlagMore | (slip ? 0x20 : 0) | (code.code & 0x1F)));
    const bool moreFlags = code.pilot || glonass;
    putByte(sink, static_cast<std::uint8_t>(kFlagWideForms | kFlagCoarsePhase | kFlagSlipCount |
                                            (doppler ? kFlagDoppler : 0) | (moreFlags ? kFlagMore : 0)));
    if (code.pilot) putByte(sink, static_cast<std::uint8_t>(kFlagKindPilot | 0x04 | (glonass ? kFlagMore : 0)));
    if (glonass) putByte(sink, static_cast<std::uint8_t>(kFlagKindChannel | ((row.channel & 0x0Fu) << 2)));

    const std::uint16_t snr = readU16BigEndian(signal.snr);
    const auto strength = static_cast<std::uint8_t>(std::min(snr / 4, 255));
    const auto fraction = static_cast<std::uint64_t>(std::min(snr - 4 * strength, 3));
    putByte(sink, strength);
    if (index == 0) {
        const auto mm = static_cast<std::uint64_t>(std::clamp<std::int64_t>(halfAway(range * 1000.0), 0, (std::int64_t{1} << 38) - 1));
        putBigEndian(sink, fraction << 38 | (mm >> 6) << 6 | (mm & 0x3F), 5);
    } else {
        const std::int64_t delta = std::clamp<std::int64_t>(halfAway((range - firstRange) * 1000.0), -kRangeDeltaMax, kRangeDeltaMax);
        putBigEndian(sink, fraction << 22 | (static_cast<std::uint64_t>(delta) & 0xFFFFFu), 3);
    }
    putBigEndian(sink, static_cast<std::uint64_t>(phaseField) & 0xFFFFFFu, 3);
    if (doppler) put(sink, signal.doppler, 3);
    putByte(sink, signal.slipCount);
}

}  // namespace

std::size_t binexEpochBound(std::size_t satellites) {
    return 64 + std::min(satellites, kMaxSatellites) * (2 + kOutputSignals * 20);
}

std::uint16_t binexCrc16(std::span<const std::uint8_t> bytes) {
    std::uint16_t crc = 0;
    for (const std::uint8_t byte : bytes) {
        crc = static_cast<std::uint16_t>(crc ^ (byte << 8));
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<std::uint16_t>((crc & 0x8000u) != 0 ? (crc << 1) ^ 0x1021u : crc << 1);
        }
    }
    return crc;
}

void binexWriteEpoch(TextSink& sink, const epoch_image_t& image, const std::uint8_t (*slipMarks)[6],
                     rinex_control_t& control, OutputHistory& history) {
    if (image.nSv == 0) return;
    const std::size_t start = sink.length;
    for (const std::uint8_t byte : {kSync, kRecordId, std::uint8_t{0}, std::uint8_t{0}, kSubrecord}) putByte(sink, byte);
    const std::uint32_t ms = readBigEndian32(image.receiveTime);
    const std::uint32_t week = readU16BigEndian(image.weekNum);
    putBigEndian(sink, week * 10080u + ms / 60000u, 4);
    putBigEndian(sink, ms % 60000u, 2);
    const std::size_t countAt = sink.length;
    putByte(sink, 0);
    writeClock(sink, image, control);
    ClockEntry entries[9];
    std::uint8_t reference = 0;
    const std::size_t clocks = clockEntries(image, entries, reference);
    if (clocks != 0) {
        putByte(sink, static_cast<std::uint8_t>(clocks * 16 + (reference & 0x0F)));
        for (std::size_t i = 0; i < clocks; ++i) {
            const auto value = static_cast<std::uint32_t>(halfAway(entries[i].value * 1e6));
            putBigEndian(sink, (value & 0xFFFFFFu) << 8 | entries[i].code, 4);
        }
    }

    const std::uint8_t current = history.arcSaved ^ 1;
    std::size_t written = 0;
    for (std::size_t sat = 0; sat < satelliteCount(image) && written < kMaxSatellites; ++sat, ++written) {
        const epoch_sat_row_t& row = image.sats[sat];
        const std::uint8_t system = rinexSystemIndex(row.rt_sattype);
        const std::uint8_t svNumber = row.rt_sattype == kSystem5 ? remapSystem5Sv(row.svId) : row.svId;
        putByte(sink, svNumber);
        putByte(sink, static_cast<std::uint8_t>((signalCount(row) << 4) | ((row.svFlags & 0x10) != 0 ? 0x80 : 0) |
                                                (binexSystemCode(system) & 0x0F)));
        const std::size_t found = previousArcRow(history, sat, svNumber, system);
        history.arcSats[current][written][0] = svNumber;
        history.arcSats[current][written][1] = system;
        std::uint16_t position = 0;
        const double firstRange =
            static_cast<double>(readBigEndian32(row.signals[0].range)) * std::ldexp(1.0, system == 1 || system == 4 ? -6 : -7) +
            ((row.signals[0].measFlags2 & kRangeRolledOver) != 0 ? kRangeRollover : 0.0);
        for (std::size_t index = 0; index < signalCount(row); ++index) {
            const epoch_sig_row_t& signal = row.signals[index];
            double range = firstRange;
            if (index != 0) {
                position = 0;
                range += readRange(signal.range, position, row.rt_sattype, 1, (signal.measFlags2 & kRangeThreeBytes) != 0, false);
            }
            const BinexArc* before = nullptr;
            if (found < kOutputSatellites) {
                for (const BinexArc& arc : history.arcs[history.arcSaved][found]) {
                    if (arc.valid != 0 && arc.band == signal.blockType && arc.code == signal.trackType) before = &arc;
                }
            }
            writeSignal(sink, row, index, system, firstRange, range, slipMarks[sat][index] != 0, before,
                        history.arcs[current][written][index]);
        }
        for (std::size_t index = signalCount(row); index < kOutputSignals; ++index) history.arcs[current][written][index].valid = 0;
    }
    for (std::size_t row = written; row < kOutputSatellites; ++row) history.arcSats[current][row][1] = 0xFF;
    history.arcSaved = current;
    if (written == 0) {
        sink.length = start;
        return;
    }
    sink.data[countAt] = static_cast<std::uint8_t>((clocks != 0 ? 0xC0 : 0x80) | ((written - 1) & 0x3F));

    const std::size_t bodyLength = sink.length - (start + 4);
    if (bodyLength >= 127) {
        sink.data[start + 2] = static_cast<std::uint8_t>(0x80 | (bodyLength >> 7));
        sink.data[start + 3] = static_cast<std::uint8_t>(bodyLength & 0x7F);
    } else {
        std::memmove(sink.data + start + 3, sink.data + start + 4, bodyLength);
        --sink.length;
        sink.data[start + 2] = static_cast<std::uint8_t>(bodyLength);
    }
    const std::span<const std::uint8_t> checked(sink.data + start + 1, sink.length - start - 1);
    if (bodyLength < 126) {
        std::uint8_t sum = 0;
        for (const std::uint8_t byte : checked) sum ^= byte;
        putByte(sink, sum);
    } else {
        putBigEndian(sink, binexCrc16(checked), 2);
    }
}

}  // namespace nvb
