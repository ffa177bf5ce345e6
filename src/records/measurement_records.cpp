#include "records/measurement_records.h"

#include "common/diagnostics.h"
#include "records/opaque_records.h"
#include "records/system_tables.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kType27 = 27;
constexpr std::uint8_t kType17 = 17;
constexpr std::uint8_t kSbasFirst = 120;
constexpr std::uint8_t kSbasLast = 158;

// measFlags1 bits
constexpr std::uint8_t kDopplerPresent = 0x04;
constexpr std::uint8_t kSlipMark = 0x08;
constexpr std::uint8_t kHalfCycleKnown = 0x20;
constexpr std::uint8_t kHalfCycleSubtracted = 0x40;
constexpr std::uint8_t kFlags2Follows = 0x80;
// measFlags2 bits
constexpr std::uint8_t kWideDifference = 0x01;
constexpr std::uint8_t kRolledOver = 0x02;

int firstRangeExponent(std::uint8_t satType) {
    if (satType == 1 || satType == 4) return -6;
    if (satType == 8) return -10;
    return -7;
}

// The format level 0 codes a first range in four bytes at 2^-7 m, so one above the
// rollover (BeiDou GEO and IGSO satellites) loses its high bits. That is the format's
// rule, but a host that left fileFormat at 0 would not know: say it once per process.
void warnRangeWrapsOnce() {
    static std::atomic<bool> warned{false};
    if (!warned.exchange(true, std::memory_order_relaxed)) {
        logMessage("Warning: a first range above 33554431 m wraps at format level 0; set fileFormat to keep it\n");
    }
}

[[noreturn]] void invalidDopplerControl(std::uint8_t value) {
    logFatal("The dopplerControl in nvb_expand_t is set to an invalid value %d\n", value);
    std::exit(2);
}

std::size_t readMeasurement(ByteView bytes, std::size_t pos, std::size_t index, std::uint8_t satType, Rec27Meas& meas) {
    meas.measBlockLen = 27;
    meas.blockType = getByte(bytes, pos + 1);
    meas.trackType = getByte(bytes, pos + 2);
    meas.snr = static_cast<std::uint16_t>(getUint(bytes, pos + 3, 2));
    std::uint32_t lowDifference = 0;
    if (index == 0) {
        meas.range = getScaled(bytes, pos + 5, 4, firstRangeExponent(satType), false);
        pos += 9;
    } else {
        lowDifference = getUint(bytes, pos + 5, 2);
        pos += 7;
    }
    meas.phase = getScaled(bytes, pos, 6, -15, true);
    pos += 6;
    meas.slipCount = getByte(bytes, pos++);
    meas.measFlags1 = getByte(bytes, pos++);
    if ((meas.measFlags1 & kFlags2Follows) != 0) {
        meas.measFlags2 = getByte(bytes, pos++);
        ++meas.measBlockLen;
        if ((meas.measFlags2 & 0x80) != 0) {
            meas.measFlags3 = getByte(bytes, pos++);
            ++meas.measBlockLen;
            // Flag bytes of later receivers are counted and dropped; past the buffer
            // zeros end the run.
            std::uint8_t further = meas.measFlags3;
            while ((further & 0x80) != 0) {
                further = getByte(bytes, pos++);
                ++meas.measBlockLen;
            }
        }
    }
    if ((meas.measFlags1 & kDopplerPresent) != 0) {
        meas.doppler = static_cast<float>(getScaled(bytes, pos, 3, -8, true));
        pos += 3;
    }
    // A first range is absolute: a top byte behind it is passed over and not used.
    std::uint8_t topByte = 0;
    if ((meas.measFlags2 & kWideDifference) != 0) topByte = getByte(bytes, pos++);
    if (index > 0) {
        if ((meas.measFlags2 & kWideDifference) != 0) {
            std::int32_t wide = static_cast<std::int32_t>((std::uint32_t{topByte} << 16) | lowDifference);
            if ((wide & 0x800000) != 0) wide -= 0x1000000;
            meas.range = wide / 256.0;
        } else {
            meas.range = static_cast<std::int16_t>(lowDifference) / 256.0;
        }
    }
    if ((meas.measFlags2 & kRolledOver) != 0) meas.range += kRangeRollover;
    return pos;
}

int findSatellite(const Rec27& epoch, const Rec27Sv& sv, int index) {
    const int count = std::min<int>(epoch.nSv, NVB_MAX_SV);
    auto same = [&](int k) { return epoch.sv[k].svId == sv.svId && epoch.sv[k].rt_sattype == sv.rt_sattype; };
    if (index < count && same(index)) return index;
    for (int k = 0; k < count; ++k) {
        if (same(k)) return k;
    }
    return -1;
}

int findMeasurement(const Rec27Sv& sv, const Rec27Meas& meas, int index) {
    const int count = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
    auto same = [&](int k) { return sv.meas[k].blockType == meas.blockType && sv.meas[k].trackType == meas.trackType; };
    if (index < count && same(index)) return index;
    for (int k = 0; k < count; ++k) {
        if (same(k)) return k;
    }
    return -1;
}

// previous := rec, by the rows in use. An epoch is read into a cleared structure and the
// previous one is only ever such a copy, so both are zero past their counts: the rows past
// rec's need clearing only as far as previous used them.
void keepAsPrevious(Rec27& previous, const Rec27& rec) {
    const std::size_t rows = std::min<std::size_t>(rec.nSv, NVB_MAX_SV);
    const std::size_t former = std::min<std::size_t>(previous.nSv, NVB_MAX_SV);
    std::memcpy(&previous, &rec, offsetof(Rec27, sv) + rows * sizeof(Rec27Sv));
    if (former > rows) std::memset(&previous.sv[rows], 0, (former - rows) * sizeof(Rec27Sv));
}

struct OldPrediction {
    float doppler;
    bool valid;
};

// Doppler from carrier phase between this epoch and the last, for measurements whose
// Doppler the dopplerControl asks to rebuild; predictions carry it across slips.
void rebuildDoppler27(Rec27& rec, Rec27& previous, Rec27& prediction, std::uint8_t dopplerControl) {
    const double dt = rec.receiveTime - previous.receiveTime;
    const double clockStep = static_cast<double>(rec.clkOffset) - static_cast<double>(previous.clkOffset);
    const int jump = clockStep > 0.5 ? 1 : (clockStep < -0.5 ? -1 : 0);

    // New predictions are stored at the current entry while old ones are read at the
    // predecessor's, so the old ones are taken as they were on entry.
    const int previousCount = std::min<int>(previous.nSv, NVB_MAX_SV);
    std::array<std::array<OldPrediction, NVB_MAX_MEAS>, NVB_MAX_SV> old;
    for (int i = 0; i < previousCount; ++i) {
        for (int j = 0; j < NVB_MAX_MEAS; ++j) {
            const Rec27Meas& p = prediction.sv[i].meas[j];
            old[i][j] = {p.doppler, (p.measFlags1 & kDopplerPresent) != 0};
        }
    }

    for (int i = 0; i < rec.nSv; ++i) {
        Rec27Sv& sv = rec.sv[i];
        const int pi = findSatellite(previous, sv, i);
        for (int j = 0; j < sv.nMeas; ++j) {
            Rec27Meas& meas = sv.meas[j];
            const int pj = pi >= 0 ? findMeasurement(previous.sv[pi], meas, j) : -1;
            const Rec27Meas* before = pj >= 0 ? &previous.sv[pi].meas[pj] : nullptr;
            double d = 0.0;
            if (before != nullptr) {
                d = meas.phase - before->phase;
                // A half cycle resolved since the last epoch is not motion.
                const bool halfCycleNow = (meas.measFlags1 & (kHalfCycleKnown | kHalfCycleSubtracted)) ==
                                          (kHalfCycleKnown | kHalfCycleSubtracted);
                if (halfCycleNow && (before->measFlags1 & kHalfCycleKnown) == 0) d -= 0.5;
            }
            const bool rebuild =
                dopplerControl == 2 || (dopplerControl == 3 && (meas.measFlags1 & kDopplerPresent) == 0);
            if (!rebuild) continue;

            Rec27Meas& predicted = prediction.sv[i].meas[j];
            if (before == nullptr) {
                meas.doppler = 0.0f;
                meas.measFlags1 &= static_cast<std::uint8_t>(~kDopplerPresent);
                predicted.doppler = 0.0f;
                predicted.measFlags1 &= static_cast<std::uint8_t>(~kDopplerPresent);
                continue;
            }
            if (meas.slipCount != before->slipCount || (meas.measFlags1 & kSlipMark) != 0) {
                const OldPrediction& carried = old[pi][pj];
                meas.doppler = carried.valid ? carried.doppler : 0.0f;
                if (carried.valid) {
                    meas.measFlags1 |= kDopplerPresent;
                } else {
                    meas.measFlags1 &= static_cast<std::uint8_t>(~kDopplerPresent);
                }
            } else {
                // A receiver clock steered by a millisecond moves the phase by a
                // millisecond of carrier; only a large step is taken for such a jump.
                if (jump != 0 && std::fabs(d) > 1000000.0) {
                    d += jump * carrierFreqHz(sv.rt_sattype, meas.blockType, static_cast<std::int8_t>(sv.channel)) *
                         0.001;
                }
                meas.doppler = static_cast<float>(d / ((dt - jump) / 1000.0));
                meas.measFlags1 |= kDopplerPresent;
            }
            if ((meas.measFlags1 & kDopplerPresent) != 0) {
                const bool trend = (before->measFlags1 & kDopplerPresent) != 0;
                predicted.doppler = trend ? static_cast<float>(2.0 * meas.doppler - before->doppler) : meas.doppler;
                predicted.measFlags1 |= kDopplerPresent;
            } else {
                predicted.doppler = 0.0f;
                predicted.measFlags1 &= static_cast<std::uint8_t>(~kDopplerPresent);
            }
        }
    }
    keepAsPrevious(previous, rec);
}

// Satellites whose first signal reports a tracking state other than 0, 4 or 5 are not
// delivered.
void removeUntrackedSatellites(Rec27& rec) {
    int kept = 0;
    for (int i = 0; i < rec.nSv; ++i) {
        const std::uint8_t code = (rec.sv[i].meas[0].measFlags2 >> 2) & 0x07;
        if (code != 0 && code != 4 && code != 5) continue;
        if (kept != i) std::memcpy(&rec.sv[kept], &rec.sv[i], sizeof rec.sv[i]);
        ++kept;
    }
    if (kept != rec.nSv) std::memset(&rec.sv[kept], 0, sizeof(Rec27Sv) * static_cast<std::size_t>(rec.nSv - kept));
    rec.nSv = static_cast<std::uint8_t>(kept);
}

// False when a limit ends the read, with the structure as far as it got.
bool readRec27Epoch(ByteView bytes, Rec27& rec, Rec27* previous, const Rec27ReadOptions& options) {
    std::memset(&rec, 0, sizeof rec);
    rec.epochHeaderLen = 17;
    rec.weekNum = static_cast<std::uint16_t>(getUint(bytes, 1, 2));
    rec.receiveTime = getScaled(bytes, 3, 4, 0, false);
    rec.clkOffset = static_cast<float>(getScaled(bytes, 7, 3, -19, true));
    rec.nSv = getByte(bytes, 10);
    rec.epochFlags = getByte(bytes, 11);
    if (rec.nSv > NVB_MAX_SV) return false;
    std::size_t pos = 12;
    if ((rec.epochFlags & 0x02) != 0) {
        rec.clkDrift = static_cast<float>(getScaled(bytes, pos, 3, -22, true));
        pos += 3;
        rec.epochHeaderLen += 4;
    }
    if ((rec.epochFlags & 0x10) != 0) {
        rec.raimFault = getByte(bytes, pos++);
        rec.epochHeaderLen += 1;
    }
    const bool hadClockBlock = (rec.epochFlags & 0x20) != 0;
    if (hadClockBlock) pos = readClockBlock(bytes, pos, rec.clock);

    for (int i = 0; i < rec.nSv; ++i) {
        Rec27Sv& sv = rec.sv[i];
        sv.svBlockLen = 10;
        sv.svId = getByte(bytes, pos + 1);
        const std::uint8_t system = getByte(bytes, pos + 2);
        sv.rt_sattype = system & 0x3F;
        sv.antennaNumber = system >> 6;
        sv.channel = getByte(bytes, pos + 3);
        sv.nMeas = getByte(bytes, pos + 4);
        sv.elevation = static_cast<std::int8_t>(getByte(bytes, pos + 5));
        sv.azimuth = static_cast<std::uint16_t>(getByte(bytes, pos + 6) * 2);
        sv.svFlags = getByte(bytes, pos + 7);
        pos += 8;
        if (options.mapSystem5To7 && sv.rt_sattype == 5) {
            sv.svId = remapSystem5Sv(sv.svId);
            sv.rt_sattype = 7;
        }
        if ((sv.svFlags & 0x80) != 0) {
            sv.svFlags2 = getByte(bytes, pos++) & 0x7F;
            ++sv.svBlockLen;
            if ((sv.svFlags2 & 0x01) != 0) {
                sv.geomSlipCount = getByte(bytes, pos);
                sv.ionoSlipCount = getByte(bytes, pos + 1);
                sv.spare = getByte(bytes, pos + 2);
                pos += 3;
                sv.svBlockLen += 3;
            }
        }
        if (sv.nMeas > NVB_MAX_MEAS) return false;
        if (options.dopplerControl == 0 || options.dopplerControl > 3) invalidDopplerControl(options.dopplerControl);

        double firstRange = 0.0;
        for (int j = 0; j < sv.nMeas; ++j) {
            Rec27Meas& meas = sv.meas[j];
            pos = readMeasurement(bytes, pos, static_cast<std::size_t>(j), sv.rt_sattype, meas);
            if (options.mapSystem7To10 && sv.rt_sattype == 7) {
                // The later carrier convention of BeiDou shifts the B1 phase of the first
                // five satellites by half a cycle.
                if (meas.blockType == 6 && meas.trackType == 26 && sv.svId >= 1 && sv.svId <= 5) {
                    const bool wasSet = (meas.measFlags1 & kHalfCycleSubtracted) != 0;
                    meas.measFlags1 ^= kHalfCycleSubtracted;
                    meas.phase += wasSet ? -0.5 : 0.5;
                }
                sv.rt_sattype = 10;
            }
            // Old receivers wrapped this one difference at 256 m; the repair must stay.
            if (!hadClockBlock && sv.svId == 1 && sv.rt_sattype == 0 && meas.blockType == 2 && meas.trackType == 7 &&
                meas.range < -30.0) {
                meas.range += 256.0;
            }
            if (j == 0) {
                firstRange = meas.range;
            } else {
                meas.range += firstRange;
            }
        }
    }

    rebuildDoppler27(rec, previous[0], previous[1], options.dopplerControl);
    if (!options.keepAllSvBlocks) removeUntrackedSatellites(rec);
    return true;
}

std::uint16_t readRec17Epoch(const nvb_frame_t& frame, Rec17& rec, Rec17* work) {
    std::memset(&rec, 0, sizeof rec);
    const ByteView bytes = frameBytes(frame);
    rec.receiveTime = getScaled(bytes, 3, 4, 0, false);
    rec.clkOffset = getScaled(bytes, 7, 3, -19, true);
    const std::size_t end = frame.length >= 3 ? frame.length - 3u : 0u;
    std::size_t pos = 10;
    // The structure holds 24 satellites; a longer record (or a length that lies) stops there.
    while (pos < end && rec.nSv < NVB_REC17_MAX_SV) {
        Rec17Sv& sv = rec.sv[rec.nSv++];
        sv.svId = getByte(bytes, pos);
        sv.svFlags = getByte(bytes, pos + 1);
        sv.svFlags2 = getByte(bytes, pos + 2) & 0x0F;
        sv.svFlags3 = 3;
        sv.elevation = getByte(bytes, pos + 3);
        sv.azimuth = static_cast<std::uint16_t>(getByte(bytes, pos + 4) * 2);
        sv.snr = getByte(bytes, pos + 5) * 0.25;
        sv.range = getScaled(bytes, pos + 6, 4, -7, false);
        if (sv.svId >= kSbasFirst && sv.svId <= kSbasLast) sv.range *= 2.0;
        sv.phase = getScaled(bytes, pos + 10, 6, -15, true);
        sv.doppler = getScaled(bytes, pos + 16, 3, -6, true);
        pos += 20;
        if ((sv.svFlags & 0x01) != 0) {
            sv.snr2 = getByte(bytes, pos) * 0.25;
            sv.phase2 = getScaled(bytes, pos + 1, 6, -15, true);
            sv.rangeDiff2 = getScaled(bytes, pos + 7, 2, -8, true);
            pos += 9;
        }
    }

    Rec17& previous = work[0];
    Rec17& prediction = work[1];
    const double dt = rec.receiveTime - previous.receiveTime;
    std::array<double, NVB_REC17_MAX_SV> oldPrediction{};
    for (int k = 0; k < NVB_REC17_MAX_SV; ++k) oldPrediction[k] = prediction.sv[k].doppler;
    const int previousCount = std::min<int>(previous.nSv, NVB_REC17_MAX_SV);
    for (int i = 0; i < rec.nSv; ++i) {
        Rec17Sv& sv = rec.sv[i];
        int k = -1;
        if (i < previousCount && previous.sv[i].svId == sv.svId) {
            k = i;
        } else {
            for (int n = 0; n < previousCount && k < 0; ++n) {
                if (previous.sv[n].svId == sv.svId) k = n;
            }
        }
        if (k >= 0 && (sv.svFlags & 0x10) != 0 && (previous.sv[k].svFlags & 0x10) != 0) {
            if ((sv.svFlags & 0x02) != 0) {
                sv.doppler = oldPrediction[k];
                sv.svFlags2 |= 0x80;
            } else {
                sv.doppler = (sv.phase - previous.sv[k].phase) / (dt / 1000.0);
            }
            prediction.sv[i].doppler = 2.0 * sv.doppler - previous.sv[k].doppler;
        } else {
            prediction.sv[i].doppler = 0.0;
            sv.svFlags2 |= 0x80;
        }
    }
    std::memcpy(&previous, &rec, sizeof rec);
    return rec17DatLength(rec);
}

}  // namespace

std::uint16_t rec27DatLength(const Rec27& rec) {
    if (rec.nSv == 0) return 0;
    std::uint32_t length = rec.clock.blockLength + rec.epochHeaderLen + 4u;
    const int count = std::min<int>(rec.nSv, NVB_MAX_SV);
    for (int i = 0; i < count; ++i) {
        const Rec27Sv& sv = rec.sv[i];
        length += sv.svBlockLen;
        const int measCount = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
        for (int j = 0; j < measCount; ++j) length += sv.meas[j].measBlockLen;
    }
    return static_cast<std::uint16_t>(length);
}

std::uint16_t rec17DatLength(const Rec17& rec) {
    std::uint32_t length = 21;
    const int count = std::min<int>(rec.nSv, NVB_REC17_MAX_SV);
    for (int i = 0; i < count; ++i) length += (rec.sv[i].svFlags & 0x01) != 0 ? 72u : 48u;
    return static_cast<std::uint16_t>(length);
}

std::size_t readClockBlock(ByteView bytes, std::size_t offset, ClockSystemBlock& clock) {
    const std::uint8_t head = getByte(bytes, offset + 1);
    clock.referenceSystem = head & 0x0F;
    // Three count bits, although the writer packs four.
    clock.count = (head >> 4) & 0x07;
    clock.blockLength = static_cast<std::uint8_t>(3 + 9 * clock.count);
    std::size_t pos = offset + 2;
    for (int i = 0; i < clock.count; ++i) {
        const std::uint8_t entry = getByte(bytes, pos);
        const unsigned width = (entry >> 4) & 0x07;
        clock.rt_clktype[i] = entry & 0x0F;
        clock.systemClockOffset[i] = getScaled(bytes, pos + 1, width, -28, true);
        pos += 1 + width;
    }
    return pos;
}

void writeClockBlock(WriteBuffer& out, const ClockSystemBlock& clock) {
    const std::size_t start = out.frame.length;
    putByte(out, 0);
    putByte(out, static_cast<std::uint8_t>((clock.referenceSystem & 0x0F) | ((clock.count & 0x0F) << 4)));
    const int count = std::min<int>(clock.count, NVB_MAX_CLOCK_TERMS);
    for (int i = 0; i < count; ++i) {
        const std::size_t entry = out.frame.length;
        putByte(out, clock.rt_clktype[i] & 0x0F);
        // A clock term carries at most seven bytes: a value beyond them (or not a number)
        // can't be written, and the record is refused rather than the writer's check
        // ending the process.
        const double scaled = std::ldexp(clock.systemClockOffset[i], 28);
        if (!(std::fabs(scaled) < 0x1p55 - 1.0)) {
            out.overflow = true;
            return;
        }
        const unsigned width = putScaledVar(out, clock.systemClockOffset[i], 28, 1, 7);
        patchByte(out, entry, static_cast<std::uint8_t>((clock.rt_clktype[i] & 0x0F) | (width << 4)));
    }
    patchByte(out, start, static_cast<std::uint8_t>(out.frame.length - start));
}

std::uint16_t readRec27(ByteView body, nvb_expand_t& state, Rec27* previous, const Rec27ReadOptions& options) {
    Rec27* rec = state.records.rec27;
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr || previous == nullptr) return 0;
    if (!readRec27Epoch(body, *rec, previous, options)) return 0;
    const std::uint16_t length = rec27DatLength(*rec);
    setDatHeader(header, static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8), kType27);
    return length;
}

std::uint16_t readRec17(const nvb_frame_t& frame, nvb_expand_t& state, Rec17* work) {
    Rec17* rec = state.records.rec17;
    std::uint8_t* header = state.records.datHeader;
    if (rec == nullptr || header == nullptr || work == nullptr) return 0;
    const std::uint16_t length = readRec17Epoch(frame, *rec, work);
    setDatHeader(header, static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8), kType17);
    return length;
}

namespace {

// The block of one measurement, its length byte left 0 for the caller to patch: `j` is its
// index in the satellite, `firstRange` the first signal's range.
template <class Out>
void putMeasurement(Out& out, const Rec27Meas& meas, int j, double firstRange, std::uint8_t system,
                    std::uint32_t formatLevel, bool epochKeepDoppler) {
    std::uint8_t flags1 = meas.measFlags1;
    std::uint8_t flags2 = meas.measFlags2;
    std::uint8_t flags3 = meas.measFlags3;
    if (formatLevel == 0) {
        flags1 &= static_cast<std::uint8_t>(~kFlags2Follows);
        flags2 = 0;
        flags3 = 0;
    }
    putBigEndian<5>(out, packBigEndian(0, meas.blockType, meas.trackType, meas.snr >> 8, meas.snr));
    std::uint8_t topByte = 0;
    if (j == 0) {
        const int exponent = firstRangeExponent(system);
        double range = meas.range;
        if (exponent == -7 && formatLevel > 0 &&
            (((flags1 & kFlags2Follows) != 0 && (flags2 & kRolledOver) != 0) || range > kRangeRollover)) {
            range -= kRangeRollover;
            flags1 |= kFlags2Follows;
            flags2 |= kRolledOver;
        } else if (exponent == -7 && formatLevel == 0 && range > kRangeRollover) {
            warnRangeWrapsOnce();
        }
        putScaled<4>(out, range, -exponent);
    } else {
        const double difference = meas.range - firstRange;
        if (formatLevel > 0 && ((flags2 & kWideDifference) != 0 || std::fabs(difference) > 100.0)) {
            flags1 |= kFlags2Follows;
            flags2 |= kWideDifference;
        }
        if ((flags2 & kWideDifference) != 0) {
            // The top byte of a three-byte difference goes to the end of the block.
            const auto wide = static_cast<std::uint32_t>(roundScaled(difference, 8));
            putBigEndian<2>(out, static_cast<std::uint16_t>(wide));
            topByte = static_cast<std::uint8_t>(wide >> 16);
        } else {
            putScaled<2>(out, difference, 8);
        }
    }
    putScaled<6>(out, meas.phase, 15);
    if (!epochKeepDoppler) flags1 &= static_cast<std::uint8_t>(~kDopplerPresent);
    putBigEndian<2>(out, static_cast<std::uint16_t>(meas.slipCount << 8 | flags1));
    if ((flags1 & kFlags2Follows) != 0) {
        putBigEndian<1>(out, flags2);
        if ((flags2 & 0x80) != 0) putBigEndian<1>(out, flags3);
    }
    if (epochKeepDoppler && (flags1 & kDopplerPresent) != 0) putScaled<3>(out, meas.doppler, 8);
    if ((flags2 & kWideDifference) != 0) putBigEndian<1>(out, topByte);
}

// The longest measurement block: fixed fields, a four-byte range, both flag bytes, Doppler.
constexpr std::size_t kLongestMeasurement = 24;

}  // namespace

std::uint16_t writeRec27(const Rec27& rec, nvb_frame_t& frame, std::uint32_t formatLevel, bool epochKeepDoppler) {
    WriteBuffer out = openFrame(frame, kType27, true);
    const std::size_t headerStart = out.frame.length;
    putByte(out, 0);
    putU16(out, rec.weekNum);
    putScaled4(out, rec.receiveTime, 0);
    putScaled3(out, rec.clkOffset, 19);
    putByte(out, rec.nSv);
    putByte(out, rec.epochFlags);
    if ((rec.epochFlags & 0x02) != 0) putScaled3(out, rec.clkDrift, 22);
    if ((rec.epochFlags & 0x10) != 0) putByte(out, rec.raimFault);
    patchByte(out, headerStart, static_cast<std::uint8_t>(out.frame.length - headerStart));
    if ((rec.epochFlags & 0x20) != 0) writeClockBlock(out, rec.clock);

    const int svCount = std::min<int>(rec.nSv, NVB_MAX_SV);
    for (int i = 0; i < svCount && !out.overflow; ++i) {
        const Rec27Sv& sv = rec.sv[i];
        const std::size_t svStart = out.frame.length;
        // The eight fixed bytes of the block, its length byte (patched below) first.
        putBigEndian<8>(out, packBigEndian(0, sv.svId, sv.antennaNumber * 64 + sv.rt_sattype, sv.channel, sv.nMeas,
                                           sv.elevation, sv.azimuth / 2, sv.svFlags));
        if ((sv.svFlags & 0x80) != 0) {
            putByte(out, sv.svFlags2 % 128);
            if ((sv.svFlags2 & 0x01) != 0) {
                putByte(out, sv.geomSlipCount);
                putByte(out, sv.ionoSlipCount);
                putByte(out, sv.spare);
            }
        }
        patchByte(out, svStart, static_cast<std::uint8_t>(out.frame.length - svStart));

        const double firstRange = sv.meas[0].range;
        const int measCount = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
        for (int j = 0; j < measCount; ++j) {
            const std::size_t measStart = out.frame.length;
            if (measStart + kLongestMeasurement <= sizeof out.frame.data) {
                FrameCursor cursor{out.frame.data + measStart};
                putMeasurement(cursor, sv.meas[j], j, firstRange, sv.rt_sattype, formatLevel, epochKeepDoppler);
                out.frame.length = static_cast<std::uint16_t>(cursor.at - out.frame.data);
            } else {
                putMeasurement(out, sv.meas[j], j, firstRange, sv.rt_sattype, formatLevel, epochKeepDoppler);
            }
            patchByte(out, measStart, static_cast<std::uint8_t>(out.frame.length - measStart));
        }
    }
    return closeFrame(out, true);
}

std::uint16_t writeRec17(const Rec17& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, kType17, false);
    putScaled4(out, rec.receiveTime, 0);
    putScaled3(out, rec.clkOffset, 19);
    const int count = std::min<int>(rec.nSv, NVB_REC17_MAX_SV);
    for (int i = 0; i < count; ++i) {
        const Rec17Sv& sv = rec.sv[i];
        const bool wide = (sv.svFlags & 0x20) != 0;
        putByte(out, sv.svId);
        putByte(out, sv.svFlags);
        putByte(out, sv.svFlags2);
        putByte(out, static_cast<std::uint8_t>(sv.elevation));
        putByte(out, static_cast<std::uint8_t>(static_cast<std::int16_t>(sv.azimuth) / 2));
        putScaled1(out, sv.snr, 2);
        // Readers double the range of SBAS satellites; the writer has never halved it.
        putScaled4(out, sv.range, 7);
        putScaled6(out, sv.phase, 15);
        // Doppler is rebuilt from phase by every reader, so none is carried.
        putByte(out, 0);
        putU16(out, 0);
        putScaled1(out, sv.reserved, 7);
        if ((sv.svFlags & 0x01) != 0) {
            putScaled1(out, sv.snr2, wide ? 2 : 5);
            putScaled6(out, sv.phase2, 15);
            if (wide) {
                putScaled2(out, sv.rangeDiff2, 8);
            } else {
                putU16(out, 0);
            }
        }
    }
    // The compact coder takes a record longer than one length byte allows by this mark.
    if (out.frame.length + 3u > 255u) patchByte(out, 2, 'u');
    return closeFrame(out, false);
}

// Bytes of the fixed part of the DAT epoch header, satellite block and measurement block.
constexpr std::size_t kDatEpochFixed = 17;
constexpr std::size_t kDatSvFixed = 10;
constexpr std::size_t kDatMeasFixed = 27;

static_assert(offsetof(Rec27Meas, measFlags2) == kDatMeasFixed, "a measurement's fixed DAT fields lead its structure");

namespace {

void takeMeasurementFields(DatChecked fields, Rec27Meas& meas) {
    meas.measBlockLen = fields.read<std::uint8_t>();
    meas.blockType = fields.read<std::uint8_t>();
    meas.trackType = fields.read<std::uint8_t>();
    meas.snr = fields.read<std::uint16_t>();
    meas.range = fields.read<double>();
    meas.phase = fields.read<double>();
    meas.doppler = fields.read<float>();
    meas.slipCount = fields.read<std::uint8_t>();
    meas.measFlags1 = fields.read<std::uint8_t>();
}

}  // namespace

int parseRec27Dat(DatReader& in, Rec27* rec, std::uint8_t dropMask, std::uint8_t* datHeader) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    datFixed(in, kDatEpochFixed, [rec](auto fields) {
        rec->epochHeaderLen = fields.template read<std::uint8_t>();
        rec->weekNum = fields.template read<std::uint16_t>();
        rec->receiveTime = fields.template read<double>();
        rec->clkOffset = fields.template read<float>();
        rec->nSv = fields.template read<std::uint8_t>();
        rec->epochFlags = fields.template read<std::uint8_t>();
    });
    if (rec->nSv > NVB_MAX_SV) return -2;
    if ((rec->epochFlags & 0x02) != 0) rec->clkDrift = datRead<float>(in);
    if ((rec->epochFlags & 0x10) != 0) rec->raimFault = datRead<std::uint8_t>(in);
    if ((rec->epochFlags & 0x20) != 0) {
        ClockSystemBlock& clock = rec->clock;
        clock.blockLength = datRead<std::uint8_t>(in);
        clock.referenceSystem = datRead<std::uint8_t>(in);
        clock.count = datRead<std::uint8_t>(in);
        if (clock.count > NVB_MAX_CLOCK_TERMS) return -2;
        datCopy(in, clock.rt_clktype, clock.count, 1);
        datCopy(in, clock.systemClockOffset, clock.count, 8);
    }
    for (int i = 0; i < rec->nSv; ++i) {
        Rec27Sv& sv = rec->sv[i];
        const std::size_t start = in.position;
        datFixed(in, kDatSvFixed, [&sv](auto fields) {
            sv.svBlockLen = fields.template read<std::uint8_t>();
            sv.svId = fields.template read<std::uint8_t>();
            const auto system = fields.template read<std::uint8_t>();
            sv.rt_sattype = system & 0x3F;
            sv.antennaNumber = system >> 6;
            sv.channel = fields.template read<std::uint8_t>();
            sv.nMeas = fields.template read<std::uint8_t>();
            sv.elevation = fields.template read<std::int16_t>();
            sv.azimuth = fields.template read<std::uint16_t>();
            sv.svFlags = fields.template read<std::uint8_t>();
        });
        if (sv.nMeas > NVB_MAX_MEAS) return -2;
        if ((sv.svFlags & 0x80) != 0) {
            // The satellite block's own length bounds what follows svFlags2, so blocks
            // of later writers with more bytes are taken up to it.
            const std::size_t end = start + sv.svBlockLen;
            std::uint8_t flags2 = datRead<std::uint8_t>(in);
            sv.svFlags2 = flags2;
            while ((flags2 & 0x80) != 0 && in.position < end) flags2 = datRead<std::uint8_t>(in);
            sv.svFlags2 &= 0x7F;
            bool slips = false;
            if ((sv.svFlags2 & 0x01) != 0 && in.position + 2 <= end) {
                sv.geomSlipCount = datRead<std::uint8_t>(in);
                sv.ionoSlipCount = datRead<std::uint8_t>(in);
                sv.spare = datRead<std::uint8_t>(in);
                slips = true;
            }
            while (in.position < end) (void)datRead<std::uint8_t>(in);
            sv.svBlockLen = slips ? 14 : 11;
        }
        for (int j = 0; j < sv.nMeas; ++j) {
            Rec27Meas& meas = sv.meas[j];
            // The fixed fields stand in the structure in their DAT order: one copy when
            // they lie whole in the record and need no swap.
            if (datLiesWhole(in, kDatMeasFixed)) {
                std::memcpy(&meas, in.data + in.position, kDatMeasFixed);
                in.position += kDatMeasFixed;
            } else {
                takeMeasurementFields(DatChecked{in}, meas);
            }
            if ((meas.measFlags1 & kFlags2Follows) != 0) {
                meas.measFlags2 = datRead<std::uint8_t>(in);
                if ((meas.measFlags2 & 0x80) != 0) meas.measFlags3 = datRead<std::uint8_t>(in);
            }
        }
    }

    if (dropMask == 0) return 0;
    auto dropped = [dropMask](std::uint8_t bit) { return ((dropMask >> bit) & 1u) != 0; };
    if ((rec->epochFlags & 0x20) != 0) {
        ClockSystemBlock& clock = rec->clock;
        int kept = 0;
        for (int i = 0; i < clock.count; ++i) {
            if (dropped(sysBitOfClkType(clock.rt_clktype[i]))) continue;
            clock.rt_clktype[kept] = clock.rt_clktype[i];
            clock.systemClockOffset[kept] = clock.systemClockOffset[i];
            ++kept;
        }
        clock.count = static_cast<std::uint8_t>(kept);
        clock.blockLength = kept > 0 ? static_cast<std::uint8_t>(3 + 9 * kept) : 0;
        if (kept == 0) rec->epochFlags &= static_cast<std::uint8_t>(~0x20);
    }
    int kept = 0;
    std::uint32_t length = rec->epochHeaderLen + 4u;
    for (int i = 0; i < rec->nSv; ++i) {
        if (dropped(sysBitOfSatType(rec->sv[i].rt_sattype))) continue;
        if (kept != i) std::memcpy(&rec->sv[kept], &rec->sv[i], sizeof rec->sv[i]);
        const Rec27Sv& sv = rec->sv[kept];
        length += sv.svBlockLen;
        for (int j = 0; j < sv.nMeas; ++j) length += sv.meas[j].measBlockLen;
        ++kept;
    }
    if (kept != rec->nSv) std::memset(&rec->sv[kept], 0, sizeof(Rec27Sv) * static_cast<std::size_t>(rec->nSv - kept));
    rec->nSv = static_cast<std::uint8_t>(kept);
    if (datHeader != nullptr) {
        datHeader[1] = static_cast<std::uint8_t>(length);
        datHeader[2] = static_cast<std::uint8_t>(length >> 8);
    }
    return 0;
}

int parseRec17Dat(DatReader& in, Rec17* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    rec->receiveTime = datRead<double>(in);
    rec->clkOffset = datRead<double>(in);
    rec->nSv = datRead<std::uint8_t>(in);
    if (rec->nSv > NVB_REC17_MAX_SV) return -2;
    for (int i = 0; i < rec->nSv; ++i) {
        Rec17Sv& sv = rec->sv[i];
        datCopy(in, &sv.svId, 4, 1);
        sv.elevation = datRead<std::uint16_t>(in);
        sv.azimuth = datRead<std::uint16_t>(in);
        datCopy(in, &sv.snr, 5, 8);
        if ((sv.svFlags & 0x01) != 0) {
            datCopy(in, &sv.snr2, 3, 8);
            if ((sv.svFlags2 & 0x20) != 0) sv.last = datRead<double>(in);
        }
    }
    return 0;
}

}  // namespace nvb
