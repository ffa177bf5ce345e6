#include "records/position_records.h"

#include "records/measurement_records.h"
#include "records/opaque_records.h"
#include "records/system_tables.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

namespace nvb {

namespace {

constexpr std::uint8_t kType29 = 29;
constexpr std::uint8_t kType11 = 11;
constexpr std::uint8_t kBlock4Present = 0x02;
constexpr std::uint8_t kClockBlockPresent = 0x10;

static_assert(offsetof(Rec11, lists) + kRec11ListBytes == sizeof(Rec11), "Rec11 lists end the structure");

bool hasCorrectionBlock(const Rec29& rec) {
    return rec.fixType >= 3 && rec.fixType <= 6;
}

// The sigmas and rms go out as unsigned 16-bit values: anything else is pinned to the
// field, a value that is not a number to its top.
double clampTo(double value, double top) {
    if (!std::isfinite(value)) return top;
    return std::clamp(value, 0.0, top);
}

constexpr double kSigmaTop = 31.99951171875;
constexpr double kRmsTop = 3.99993896484375;

}  // namespace

std::uint8_t* rec11Lists(Rec11& rec) {
    return reinterpret_cast<std::uint8_t*>(&rec) + offsetof(Rec11, lists);
}

const std::uint8_t* rec11Lists(const Rec11& rec) {
    return reinterpret_cast<const std::uint8_t*>(&rec) + offsetof(Rec11, lists);
}

std::uint16_t rec29DatLength(const Rec29& rec) {
    // The one-byte list length wraps above 84 satellites; the DAT form holds the whole list.
    const bool wholeList = rec.block2Len != 0 && rec.numSVs <= NVB_MAX_SV &&
                           rec.svListLen == static_cast<std::uint8_t>(1 + 3 * rec.numSVs);
    const std::uint32_t list = wholeList ? 1u + 3u * rec.numSVs : rec.svListLen;
    return static_cast<std::uint16_t>(rec.block1Len + rec.block2Len + rec.block3Len + rec.block4Len + list +
                                      rec.clock.blockLength + 4u);
}

std::uint16_t readRec29(const nvb_frame_t& frame, nvb_expand_t& state, bool mapSystem5To7, bool mapSystem7To10) {
    Rec29* target = state.records.rec29;
    std::uint8_t* header = state.records.datHeader;
    if (target == nullptr || header == nullptr) return 0;
    Rec29& rec = *target;
    std::memset(&rec, 0, sizeof rec);
    const ByteView bytes = frameBytes(frame);

    rec.block1Len = 15;
    rec.week = static_cast<std::uint16_t>(getUint(bytes, 5, 2));
    rec.time = getUint(bytes, 7, 4);
    rec.positionValid = getByte(bytes, 11);
    rec.numSVs = getByte(bytes, 12);
    rec.numSVsUsed = getByte(bytes, 13);
    rec.raimInfo = getByte(bytes, 14);
    rec.posFlags = getByte(bytes, 15);
    rec.fixMode = getByte(bytes, 16);
    rec.fixType = getByte(bytes, 17);
    rec.fixInfo = getByte(bytes, 18);

    if (rec.numSVs <= NVB_MAX_SV && rec.numSVsUsed <= NVB_MAX_SV) {
        rec.block2Len = 93;
        rec.latPos = getScaled(bytes, 20, 6, -40, true);
        rec.lonPos = getScaled(bytes, 26, 6, -39, true);
        rec.hgtPos = getScaled(bytes, 32, 4, -12, true);
        rec.latVel = getScaled(bytes, 36, 4, -21, true);
        rec.lonVel = getScaled(bytes, 40, 4, -21, true);
        rec.hgtVel = getScaled(bytes, 44, 4, -21, true);
        rec.clkOffset = static_cast<float>(getScaled(bytes, 48, 4, -26, true));
        rec.clkDrift = static_cast<float>(getScaled(bytes, 52, 4, -17, true));
        rec.hdop = static_cast<float>(getScaled(bytes, 56, 2, -4, false));
        rec.vdop = static_cast<float>(getScaled(bytes, 58, 2, -4, false));
        rec.tdop = static_cast<float>(getScaled(bytes, 60, 2, -4, false));
        rec.sigmaN = static_cast<float>(getScaled(bytes, 62, 2, -11, false));
        rec.sigmaE = static_cast<float>(getScaled(bytes, 64, 2, -11, false));
        rec.sigmaU = static_cast<float>(getScaled(bytes, 66, 2, -11, false));
        rec.rms = static_cast<float>(getScaled(bytes, 68, 2, -14, false));
        const double standardDeviation = getScaled(bytes, 70, 2, -11, false);
        rec.unitVariance = static_cast<float>(standardDeviation * standardDeviation);
        rec.pdop = std::sqrt(rec.hdop * rec.hdop + rec.vdop * rec.vdop);

        std::size_t pos = 72;
        if (hasCorrectionBlock(rec)) {
            rec.block3Len = 7;
            rec.corrInfo = getByte(bytes, pos + 1);
            rec.corrAge = static_cast<float>(getScaled(bytes, pos + 2, 2, -6, false));
            rec.corrFlags = getByte(bytes, pos + 4);
            // The optional correction fields that corrFlags announces are not taken: the
            // next block is looked for five bytes on, as receivers have always read it.
            pos += 5;
        }
        if ((rec.posFlags & kBlock4Present) != 0) {
            const std::uint8_t length = getByte(bytes, pos);
            rec.block4Len = 10;
            rec.auxValueA = static_cast<float>(getScaled(bytes, pos + 1, 4, -16, true));
            rec.auxValueB = static_cast<float>(getScaled(bytes, pos + 5, 4, -16, true));
            // The older form of this block ends before the status byte.
            if (length == 9) {
                pos += 9;
            } else {
                rec.auxStatus = getByte(bytes, pos + 9);
                pos += 10;
            }
        }
        if ((rec.posFlags & kClockBlockPresent) != 0) pos = readClockBlock(bytes, pos, rec.clock);
        pos += 1;
        for (int k = 0; k < rec.numSVs; ++k, pos += 3) {
            rec.sv[k].svId = getByte(bytes, pos);
            rec.sv[k].rt_sattype = getByte(bytes, pos + 1);
            rec.sv[k].flags = getByte(bytes, pos + 2);
        }
        rec.svListLen = static_cast<std::uint8_t>(1 + 3 * rec.numSVs);
        if (mapSystem5To7 || mapSystem7To10) {
            for (int k = 0; k < rec.numSVs; ++k) {
                Rec29SvEntry& entry = rec.sv[k];
                if (mapSystem5To7 && entry.rt_sattype == 5) {
                    entry.svId = remapSystem5Sv(entry.svId);
                    entry.rt_sattype = 7;
                }
                if (mapSystem7To10 && entry.rt_sattype == 7) entry.rt_sattype = 10;
            }
        }
    }
    const std::uint16_t length = rec29DatLength(rec);
    setDatHeader(header, static_cast<std::uint8_t>(length), static_cast<std::uint8_t>(length >> 8), kType29);
    return length;
}

std::uint16_t readRec11(const nvb_frame_t& frame, nvb_expand_t& state) {
    Rec11* target = state.records.rec11;
    std::uint8_t* header = state.records.datHeader;
    if (target == nullptr || header == nullptr) return 0;
    Rec11& rec = *target;
    std::memset(&rec, 0, sizeof rec);
    const ByteView bytes = frameBytes(frame);

    rec.latitude = getScaled(bytes, 3, 4, -31, true);
    rec.longitude = getScaled(bytes, 7, 4, -30, true);
    rec.height = getScaled(bytes, 11, 4, -12, true);
    rec.clockOffset = getScaled(bytes, 15, 4, -9, true);
    rec.clockDrift = getScaled(bytes, 19, 4, -17, true);
    rec.pdop = getUint(bytes, 23, 2) * 0.125;
    rec.velocity1 = getScaled(bytes, 25, 4, -44, true);
    rec.velocity2 = getScaled(bytes, 29, 4, -32, true);
    rec.velocity3 = getScaled(bytes, 33, 4, -21, true);
    rec.time = getUint(bytes, 37, 4);
    rec.fixStatus = getByte(bytes, 41);
    rec.nSv = getByte(bytes, 42);
    const std::size_t n = rec.nSv;
    // Channel bytes at 43, satellite bytes at 43 + n: both land in the list area as they stand.
    getBytes(rec11Lists(rec), bytes, 43, std::min(2 * n, kRec11ListBytes));
    // Only the length tells the newer form, with its residual bytes, from the older one.
    if (frame.length > 2 * n + 46) {
        rec.latitude += getScaled(bytes, 43 + 2 * n, 1, -39, true);
        rec.longitude += getScaled(bytes, 44 + 2 * n, 1, -38, true);
    }
    const auto length = static_cast<std::uint16_t>(2 * n + 82);
    setDatHeader(header, static_cast<std::uint8_t>(length), 0, kType11);
    return length;
}

std::uint16_t writeRec29(const Rec29& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, kType29, true);

    const std::size_t block1 = out.frame.length;
    putByte(out, 0);
    putU16(out, rec.week);
    putU32(out, rec.time);
    putBytes(out, &rec.positionValid, 7);
    putByte(out, rec.fixInfo);
    patchByte(out, block1, static_cast<std::uint8_t>(out.frame.length - block1));

    const std::size_t block2 = out.frame.length;
    putByte(out, 0);
    putScaled6(out, rec.latPos, 40);
    putScaled6(out, rec.lonPos, 39);
    putScaled4(out, rec.hgtPos, 12);
    putScaled4(out, rec.latVel, 21);
    putScaled4(out, rec.lonVel, 21);
    putScaled4(out, rec.hgtVel, 21);
    putScaled4(out, rec.clkOffset, 26);
    putScaled4(out, rec.clkDrift, 17);
    putScaled2(out, rec.hdop, 4);
    putScaled2(out, rec.vdop, 4);
    putScaled2(out, rec.tdop, 4);
    putScaled2(out, clampTo(rec.sigmaN, kSigmaTop), 11);
    putScaled2(out, clampTo(rec.sigmaE, kSigmaTop), 11);
    putScaled2(out, clampTo(rec.sigmaU, kSigmaTop), 11);
    putScaled2(out, clampTo(rec.rms, kRmsTop), 14);
    putScaled2(out, clampTo(std::sqrt(static_cast<double>(rec.unitVariance)), kSigmaTop), 11);
    patchByte(out, block2, static_cast<std::uint8_t>(out.frame.length - block2));

    if (hasCorrectionBlock(rec)) {
        const std::size_t block3 = out.frame.length;
        putByte(out, 0);
        putByte(out, rec.corrInfo);
        putScaled2(out, rec.corrAge, 6);
        putByte(out, rec.corrFlags);
        if ((rec.corrFlags & 0x01) != 0) putByte(out, rec.corrExtra);
        if ((rec.corrFlags & 0x02) != 0) {
            for (int k = 0; k < 3; ++k) putF32(out, rec.corrVector[k]);
        }
        if ((rec.corrFlags & 0x04) != 0) putU32(out, rec.corrCount);
        patchByte(out, block3, static_cast<std::uint8_t>(out.frame.length - block3));
    }
    if ((rec.posFlags & kBlock4Present) != 0) {
        const std::size_t block4 = out.frame.length;
        putByte(out, 0);
        putScaled4(out, rec.auxValueA, 16);
        putScaled4(out, rec.auxValueB, 16);
        putByte(out, rec.auxStatus);
        patchByte(out, block4, static_cast<std::uint8_t>(out.frame.length - block4));
    }
    if ((rec.posFlags & kClockBlockPresent) != 0) writeClockBlock(out, rec.clock);

    const std::size_t list = out.frame.length;
    putByte(out, 0);
    const int count = std::min<int>(rec.numSVs, NVB_MAX_SV);
    for (int k = 0; k < count; ++k) putBigEndian<3>(out, packBigEndian(rec.sv[k].svId, rec.sv[k].rt_sattype, rec.sv[k].flags));
    patchByte(out, list, static_cast<std::uint8_t>(out.frame.length - list));
    return closeFrame(out, true);
}

std::uint16_t writeRec11(const Rec11& rec, nvb_frame_t& frame) {
    WriteBuffer out = openFrame(frame, kType11, false);
    const std::uint8_t latitudeResidual = putScaled4Split(out, rec.latitude, 31);
    const std::uint8_t longitudeResidual = putScaled4Split(out, rec.longitude, 30);
    putScaled4(out, rec.height, 12);
    putScaled4(out, rec.clockOffset, 9);
    putScaled4(out, rec.clockDrift, 17);
    putScaled2(out, rec.pdop, 3);
    putScaled4(out, rec.velocity1, 44);
    putScaled4(out, rec.velocity2, 32);
    putScaled4(out, rec.velocity3, 21);
    putU32(out, rec.time);
    putByte(out, rec.fixStatus);
    putByte(out, rec.nSv);
    const std::size_t listBytes = 2u * rec.nSv;
    const std::uint8_t* lists = rec11Lists(rec);
    for (std::size_t i = 0; i < listBytes; ++i) putByte(out, i < kRec11ListBytes ? lists[i] : std::uint8_t{0});
    putByte(out, latitudeResidual);
    putByte(out, longitudeResidual);
    return closeFrame(out, false);
}

int parseRec29Dat(DatReader& in, Rec29* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    rec->block1Len = datRead<std::uint8_t>(in);
    rec->week = datRead<std::uint16_t>(in);
    rec->time = datRead<std::uint32_t>(in);
    datCopy(in, &rec->positionValid, 8, 1);
    rec->block2Len = datRead<std::uint8_t>(in);
    datCopy(in, &rec->latPos, 6, 8);
    datCopy(in, &rec->clkOffset, 11, 4);
    if (rec->numSVs > NVB_MAX_SV) return -2;
    if (hasCorrectionBlock(*rec)) {
        rec->block3Len = datRead<std::uint8_t>(in);
        rec->corrInfo = datRead<std::uint8_t>(in);
        rec->corrAge = datRead<float>(in);
        rec->corrFlags = datRead<std::uint8_t>(in);
        if ((rec->corrFlags & 0x01) != 0) rec->corrExtra = datRead<std::uint8_t>(in);
        if ((rec->corrFlags & 0x02) != 0) datCopy(in, rec->corrVector, 3, 4);
        if ((rec->corrFlags & 0x04) != 0) rec->corrCount = datRead<std::uint32_t>(in);
    }
    if ((rec->posFlags & kBlock4Present) != 0) {
        rec->block4Len = datRead<std::uint8_t>(in);
        rec->auxValueA = datRead<float>(in);
        rec->auxValueB = datRead<float>(in);
        rec->auxStatus = datRead<std::uint8_t>(in);
    }
    if ((rec->posFlags & kClockBlockPresent) != 0) {
        ClockSystemBlock& clock = rec->clock;
        clock.blockLength = datRead<std::uint8_t>(in);
        clock.referenceSystem = datRead<std::uint8_t>(in);
        clock.count = datRead<std::uint8_t>(in);
        if (clock.count > NVB_MAX_CLOCK_TERMS) return -2;
        datCopy(in, clock.rt_clktype, clock.count, 1);
        datCopy(in, clock.systemClockOffset, clock.count, 8);
    }
    rec->svListLen = datRead<std::uint8_t>(in);
    datCopy(in, rec->sv, rec->numSVs, sizeof(Rec29SvEntry));
    return 0;
}

int parseRec11Dat(DatReader& in, Rec11* rec) {
    if (rec == nullptr) return -1;
    std::memset(rec, 0, sizeof *rec);
    datCopy(in, &rec->latitude, 9, 8);
    rec->time = datRead<std::uint32_t>(in);
    rec->fixStatus = datRead<std::uint8_t>(in);
    rec->nSv = datRead<std::uint8_t>(in);
    if (rec->nSv > NVB_REC11_MAX_SV) return -2;
    datCopy(in, rec11Lists(*rec), 2u * rec->nSv, 1);
    return 0;
}

}  // namespace nvb
