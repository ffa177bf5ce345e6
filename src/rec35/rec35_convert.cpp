#include "rec35/rec35_convert.h"

#include <nvbdll/status.h>

#include "rec35/rec35_codecs.h"
#include "rec35/rec35_family.h"
#include "rec35/rec35_flat.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

namespace nvb {

namespace {

constexpr std::uint16_t kNoRecord = 65535;

// A value that does not fit its plain field takes the nearest one it has.
template <class T>
T clampTo(double value) {
    if (!(value >= static_cast<double>(std::numeric_limits<T>::min()))) return std::numeric_limits<T>::min();
    if (value >= static_cast<double>(std::numeric_limits<T>::max())) return std::numeric_limits<T>::max();
    return static_cast<T>(value);
}

std::uint8_t bitIf(bool condition, std::uint8_t bit) { return condition ? bit : 0; }

// The tracking status code of a record 27 signal.
std::uint8_t trackingCode(std::int32_t status) {
    switch (status) {
        case 10: case 11: return 1;
        case 13: return 2;
        case 12: case 22: return 3;
        case 16: return 4;
        case 20: return 5;
        default: return 0;
    }
}

// What the two measurement subtypes share once their bits are known.
struct SignalIn {
    std::uint32_t blockType, trackType, slipCount, snr;
    double range, phase, doppler;
    std::uint8_t flags2, flags3;
    std::uint8_t flags1;  // without bit 7
    bool extended;
};

void putSignal(const SignalIn& in, Rec27Meas& out) {
    out.blockType = static_cast<std::uint8_t>(in.blockType);
    out.trackType = static_cast<std::uint8_t>(in.trackType);
    out.snr = static_cast<std::uint16_t>(in.snr);
    out.range = in.range;
    out.phase = in.phase;
    out.doppler = static_cast<float>(in.doppler);
    out.slipCount = static_cast<std::uint8_t>(in.slipCount);
    out.measFlags1 = in.flags1;
    out.measFlags2 = in.flags2;
    out.measFlags3 = in.flags3;
    out.measBlockLen = 27;
    if (in.flags3 != 0 || in.extended) {
        out.measFlags1 |= 0x80;
        out.measFlags2 |= 0x80;
        out.measBlockLen = 29;
    } else if (in.flags2 != 0) {
        out.measFlags1 |= 0x80;
        out.measBlockLen = 28;
    }
}

struct SatelliteIn {
    std::uint32_t svId, system, antenna, channel, svFlags, geomSlips, ionoSlips;
    double elevation, azimuth;
    bool firstSlipBit;  // the slip value of the first signal's flags
};

void putSatellite(const SatelliteIn& in, Rec27Sv& out) {
    const bool slips = in.geomSlips != 0 || in.ionoSlips != 0;
    out.svBlockLen = slips ? 14 : 10;
    out.svId = static_cast<std::uint8_t>(in.svId);
    out.rt_sattype = static_cast<std::uint8_t>(in.system);
    out.antennaNumber = static_cast<std::uint8_t>(in.antenna);
    out.channel = static_cast<std::uint8_t>(in.channel);
    out.elevation = clampTo<std::int16_t>(std::round(in.elevation));
    out.azimuth = clampTo<std::uint16_t>(std::round(in.azimuth));
    out.svFlags = bitIf(in.firstSlipBit, 0x02) | bitIf(in.svFlags & 16, 0x04) | bitIf(in.svFlags & 8, 0x08) |
                  bitIf(in.svFlags & 2, 0x10) | bitIf(in.svFlags & 4, 0x20) | bitIf(slips, 0x80);
    out.svFlags2 = slips ? 1 : 0;
    out.geomSlipCount = static_cast<std::uint8_t>(in.geomSlips);
    out.ionoSlipCount = static_cast<std::uint8_t>(in.ionoSlips);
    out.spare = 0;
}

bool wideRange(std::uint32_t system, double range) { return system != 1 && system != 4 && range > 33554431.0; }

// Header and clock block of both measurement subtypes. The clock block takes at most 8
// systems; its length counts `lengthCount` of them.
template <class System>
void putEpochHead(Rec27& out, std::uint32_t week, std::uint32_t time, double clkOffset, std::uint32_t raimFault,
                  bool firstSvFlag32, std::uint32_t referenceSystem, std::size_t systems, std::size_t lengthCount,
                  System system) {
    out.epochHeaderLen = 18;
    out.weekNum = static_cast<std::uint16_t>(week);
    out.receiveTime = static_cast<double>(time);
    out.clkOffset = static_cast<float>(clkOffset);
    out.epochFlags = firstSvFlag32 ? 0x70 : 0x30;
    out.clkDrift = 0.0f;
    out.raimFault = static_cast<std::uint8_t>(raimFault);
    ClockSystemBlock& clock = out.clock;
    clock.referenceSystem = static_cast<std::uint8_t>(referenceSystem);
    clock.count = static_cast<std::uint8_t>(std::min<std::size_t>(systems, NVB_MAX_CLOCK_TERMS));
    clock.blockLength = static_cast<std::uint8_t>(std::min<std::size_t>(lengthCount, 28) * 9 + 3);
    // The block is packed: its doubles take values, never references.
    for (std::size_t i = 0; i < clock.count; ++i) {
        std::uint8_t type = 0;
        double offset = 0;
        system(i, type, offset);
        clock.rt_clktype[i] = type;
        clock.systemClockOffset[i] = offset;
    }
}

std::uint16_t rec27Length(const Rec27& rec) {
    std::uint32_t length = 4u + rec.epochHeaderLen + rec.clock.blockLength;
    for (int i = 0; i < rec.nSv; ++i) {
        length += rec.sv[i].svBlockLen;
        for (int j = 0; j < rec.sv[i].nMeas; ++j) length += rec.sv[i].meas[j].measBlockLen;
    }
    return static_cast<std::uint16_t>(length);
}

void putLength(std::uint8_t* header, std::uint8_t type, std::uint16_t length) {
    if (header == nullptr) return;
    header[0] = 0x74;
    header[1] = static_cast<std::uint8_t>(length);
    header[2] = static_cast<std::uint8_t>(length >> 8);
    header[3] = type;
}

template <class T>
const T* elementsAt(const rec35_array_t& array) {
    return array.count > 0 ? static_cast<const T*>(array.elements) : nullptr;
}

}  // namespace

std::uint16_t convertSub9ToRec27(const rec35_sub9_t& in, Rec27& out, bool allObservables) {
    std::memset(&out, 0, sizeof out);
    const auto* systems = elementsAt<rec35_sub9_system_t>(in.clock.system);
    const auto* svs = elementsAt<rec35_sub9_sv_t>(in.sv);
    const auto systemCount = static_cast<std::size_t>(std::max<std::int64_t>(in.clock.system.count, 0));
    putEpochHead(out, in.epoch.weekNum, in.epoch.receiveTime, in.clock.clkOffset, in.epoch.raimFault,
                 svs != nullptr && (svs[0].svFlags & 32) != 0, in.clock.referenceSystem, systemCount, systemCount,
                 [&](std::size_t i, std::uint8_t& type, double& offset) {
                     type = static_cast<std::uint8_t>(systems[i].rt_clktype);
                     offset = systems[i].systemClockOffset;
                 });
    for (std::int64_t s = 0; s < in.sv.count && out.nSv < NVB_MAX_SV; ++s) {
        const rec35_sub9_sv_t& sv = svs[s];
        const auto* meas = elementsAt<rec35_sub9_meas_t>(sv.meas);
        if (meas == nullptr) continue;
        const std::uint32_t first = meas[0].measFlags;
        if ((first & 0x1000) == 0 && !(allObservables && (first & 0x400) != 0)) continue;
        Rec27Sv& target = out.sv[out.nSv++];
        putSatellite({sv.svId, sv.rt_sattype, sv.antennaNumber,
                      sv.rt_sattype == 2 ? static_cast<std::uint32_t>(sv.fdmaChannel) : sv.receiverChannel,
                      sv.svFlags, sv.geomSlipCount, sv.ionoSlipCount, sv.elevation, sv.azimuth, (first & 0x100) != 0},
                     target);
        for (std::int64_t m = 0; m < sv.meas.count && target.nMeas < NVB_MAX_MEAS; ++m) {
            const rec35_sub9_meas_t& signal = meas[m];
            const std::uint32_t f = signal.measFlags;
            const bool full = (f & 0x400) != 0;
            if ((f & 0x1000) == 0 && !(allObservables && full)) continue;
            const bool extended = allObservables && full;
            std::uint8_t flags2 = full ? bitIf(wideRange(sv.rt_sattype, signal.range), 0x02)
                                       : bitIf(std::fabs(signal.range - meas[0].range) < 100.0, 0x01);
            if (extended) {
                flags2 |= static_cast<std::uint8_t>(trackingCode(signal.trackingStatus) << 2) | bitIf(f & 1, 0x20) |
                          bitIf(f & 2, 0x40);
            }
            const std::uint8_t flags3 = bitIf(f & 0x80, 0x04) | bitIf(f & 0x2000, 0x08) | bitIf(f & 0x4000, 0x10) |
                                        bitIf(f & 0x8000, 0x20) | bitIf(f & 0x10000, 0x40) |
                                        bitIf(extended && (f & 4), 0x01) | bitIf(extended && (f & 64), 0x02);
            const std::uint8_t flags1 = 3 | bitIf(full, 0x04) | bitIf(f & 0x200, 0x08) | bitIf(f & 16, 0x20) |
                                        bitIf(f & 32, 0x40);
            putSignal({signal.blockType, signal.trackType, signal.slipCount, signal.snr, signal.range, signal.phase,
                       signal.doppler, flags2, flags3, flags1, extended},
                      target.meas[target.nMeas++]);
        }
    }
    return rec27Length(out);
}

std::uint16_t convertSub19ToRec27(const rec35_sub19_t& in, Rec27& out, bool allObservables) {
    std::memset(&out, 0, sizeof out);
    const bool whole = sub19Consistent(in);
    const std::int64_t svCount = whole ? in._Nb : 0;
    const auto systemCount = static_cast<std::size_t>(whole ? in._Na : 0);
    putEpochHead(out, in.epoch__weekNum, in.epoch__receiveTime, in.clock__clkOffset, in.epoch__raimFault,
                 svCount > 0 && (flatAt<std::uint32_t>(in.sv__svFlags, 0) & 32) != 0,
                 in.clock__referenceSystem > 15 ? 0 : in.clock__referenceSystem, systemCount,
                 std::min<std::size_t>(systemCount, NVB_MAX_CLOCK_TERMS),
                 [&](std::size_t i, std::uint8_t& type, double& offset) {
                     type = static_cast<std::uint8_t>(flatAt<std::uint32_t>(in.clock__system__rt_clktype, i));
                     offset = flatAt<double>(in.clock__system__systemClockOffset, i);
                 });
    std::int64_t firstSignal = 0;
    for (std::int64_t s = 0; s < svCount && out.nSv < NVB_MAX_SV; ++s) {
        const std::int64_t signals = flatAt<std::uint32_t>(in._Nb_Na, s);
        const std::int64_t begin = firstSignal;
        firstSignal += signals;
        if (signals == 0) continue;
        const auto flagsAt = [&](std::int64_t i) { return flatAt<std::uint32_t>(in.sv__meas__measFlags, i); };
        const auto rangeAt = [&](std::int64_t i) { return flatAt<double>(in.sv__meas__range, i); };
        if (!allObservables && (flagsAt(begin) & 0x400) == 0) continue;
        const std::uint32_t system = flatAt<std::uint32_t>(in.sv__rt_sattype, s);
        const std::int32_t fdma = flatAt<std::int32_t>(in.sv__fdmaChannel, s);
        Rec27Sv& target = out.sv[out.nSv++];
        putSatellite({flatAt<std::uint32_t>(in.sv__svId, s), system, flatAt<std::uint32_t>(in.sv__antennaNumber, s),
                      system == 2 ? static_cast<std::uint32_t>(fdma) : flatAt<std::uint32_t>(in.sv__receiverChannel, s),
                      flatAt<std::uint32_t>(in.sv__svFlags, s), flatAt<std::uint32_t>(in.sv__geomSlipCount, s),
                      flatAt<std::uint32_t>(in.sv__ionoSlipCount, s), flatAt<double>(in.sv__elevation, s),
                      flatAt<double>(in.sv__azimuth, s), (flagsAt(begin) & 0x80) != 0},
                     target);
        for (std::int64_t m = begin; m < firstSignal && target.nMeas < NVB_MAX_MEAS; ++m) {
            const std::uint32_t f = flagsAt(m);
            const bool full = (f & 0x400) != 0;
            if (!allObservables && !full) continue;
            const bool wide = (f & 0x200) != 0;
            std::uint8_t flags2 = wide ? bitIf(wideRange(system, rangeAt(m)), 0x02)
                                       : bitIf(std::fabs(rangeAt(m) - rangeAt(begin)) < 100.0, 0x01);
            if (allObservables) {
                const std::int32_t tracking = flatAt<std::int32_t>(in.sv__meas__trackingStatus, m);
                const std::uint8_t narrowCode = tracking == 10 ? 2 : tracking == 11 ? 4 : tracking == 12 ? 3 : 0;
                flags2 |= static_cast<std::uint8_t>((wide ? trackingCode(tracking) : narrowCode) << 2) |
                          bitIf(f & 1, 0x20) | bitIf(f & 2, 0x40);
            }
            const std::uint8_t flags3 = bitIf(f & 64, 0x04) | bitIf(f & 0x800, 0x08) | bitIf(f & 0x1000, 0x10) |
                                        bitIf(f & 0x2000, 0x20) | bitIf(f & 0x4000, 0x40) |
                                        bitIf(allObservables && (f & 4), 0x01) |
                                        bitIf(allObservables && (f & 32), 0x02);
            const std::uint8_t flags1 =
                3 | bitIf(f & 2, 0x04) | bitIf(f & 0x100, 0x08) | bitIf(f & 8, 0x20) | bitIf(f & 16, 0x40);
            putSignal({flatAt<std::uint32_t>(in.sv__meas__blockType, m),
                       flatAt<std::uint32_t>(in.sv__meas__trackType, m),
                       flatAt<std::uint32_t>(in.sv__meas__slipCount, m), flatAt<std::uint32_t>(in.sv__meas__snr, m),
                       rangeAt(m), flatAt<double>(in.sv__meas__phase, m), flatAt<double>(in.sv__meas__doppler, m),
                       flags2, flags3, flags1, allObservables && full},
                      target.meas[target.nMeas++]);
        }
    }
    return rec27Length(out);
}

bool convertSub2ToRec29(const rec35_sub2_t& in, Rec29& out, std::uint16_t& length) {
    const auto* positions = elementsAt<rec35_sub2_pos_t>(in.pos);
    const rec35_sub2_pos_t* used = nullptr;
    for (std::int64_t i = 0; i < in.pos.count && used == nullptr; ++i) {
        if ((positions[i].flags & 1) != 0) used = &positions[i];
    }
    if (used == nullptr) return false;
    const rec35_sub2_pos_t& p = *used;
    std::memset(&out, 0, sizeof out);
    const auto svCount = std::min<std::int64_t>(std::max<std::int64_t>(p.svs.count, 0), NVB_MAX_SV);
    out.block1Len = 15;
    out.week = static_cast<std::uint16_t>(in.hdr.week);
    out.time = in.hdr.time;
    out.positionValid = (p.flags >> 1) & 1;
    out.numSVs = static_cast<std::uint8_t>(svCount);
    out.numSVsUsed = static_cast<std::uint8_t>(p.numSVsUsed);
    out.raimInfo = static_cast<std::uint8_t>(p.raimInfo);
    out.posFlags = (p.flags & 4) != 0 ? 52 : 20;
    out.fixMode = static_cast<std::uint8_t>(p.fixMode);
    out.fixType = static_cast<std::uint8_t>(p.fixType);
    out.fixInfo = static_cast<std::uint8_t>(p.fixInfo);
    out.block2Len = 93;
    out.latPos = p.latPos;
    out.lonPos = p.lonPos;
    out.hgtPos = p.hgtPos;
    if (p.valid & 2) {
        out.latVel = p.latVel;
        out.lonVel = p.lonVel;
        out.hgtVel = p.hgtVel;
    }
    out.clkOffset = static_cast<float>(in.clk.clkOffset);
    out.clkDrift = static_cast<float>(in.clk.clkDrift);
    out.pdop = static_cast<float>(std::sqrt(p.hdop * p.hdop + p.vdop * p.vdop));
    out.hdop = static_cast<float>(p.hdop);
    out.vdop = static_cast<float>(p.vdop);
    out.tdop = static_cast<float>(p.tdop);
    out.sigmaN = static_cast<float>(p.poscov.sigmaN);
    out.sigmaE = static_cast<float>(p.poscov.sigmaE);
    out.sigmaU = static_cast<float>(p.poscov.sigmaU);
    out.rms = static_cast<float>(p.rms);
    out.unitVariance = static_cast<float>(p.unitStandardDeviation * p.unitStandardDeviation);
    if (p.fixType >= 3 && p.fixType <= 6) {
        out.block3Len = 7;
        out.corrInfo = static_cast<std::uint8_t>(bitIf(p.flags & 16, 1) | bitIf(p.flags & 32, 2));
        out.corrAge = static_cast<float>(p.corrAge);
    }
    const auto* systems = elementsAt<rec35_sub2_system_t>(in.clk.system);
    ClockSystemBlock& clock = out.clock;
    clock.referenceSystem = static_cast<std::uint8_t>(in.clk.referenceSystem);
    clock.count = static_cast<std::uint8_t>(std::clamp<std::int64_t>(in.clk.system.count, 0, NVB_MAX_CLOCK_TERMS));
    clock.blockLength = static_cast<std::uint8_t>(clock.count * 9 + 3);
    for (int i = 0; i < clock.count; ++i) {
        clock.rt_clktype[i] = static_cast<std::uint8_t>(systems[i].rt_clktype);
        clock.systemClockOffset[i] = systems[i].systemClockOffset;
    }
    out.svListLen = static_cast<std::uint8_t>(svCount * 3 + 1);
    const auto* svs = elementsAt<rec35_sub2_svs_t>(p.svs);
    for (std::int64_t i = 0; i < svCount; ++i) {
        out.sv[i] = {static_cast<std::uint8_t>(svs[i].svId), static_cast<std::uint8_t>(svs[i].rt_sattype),
                     static_cast<std::uint8_t>(svs[i].flags)};
    }
    length = static_cast<std::uint16_t>(4 + out.block1Len + out.block2Len + out.block3Len + clock.blockLength +
                                        1 + 3 * svCount);
    return true;
}

bool convertSub16ToRec33(const rec35_sub16_t& in, Rec33& out) {
    const auto* positions = elementsAt<rec35_sub16_pos_t>(in.pos);
    if (positions == nullptr) return false;
    const rec35_sub16_pos_t& p = positions[0];
    std::memset(&out, 0, sizeof out);
    out.subtype = 14;
    Rec33Sub14& fix = out.sub14;
    constexpr double kRadiansPerDegree = 0.017453292519943295;
    fix.time = in.hdr.time * 0.001;
    fix.latitude = p.latPos * kRadiansPerDegree;
    fix.longitude = p.lonPos * kRadiansPerDegree;
    fix.height = p.hgtPos;
    const float sigmas[3] = {static_cast<float>(p.poscov.sigmaN), static_cast<float>(p.poscov.sigmaE),
                             static_cast<float>(p.poscov.sigmaU)};
    const float velocity[3] = {static_cast<float>(p.latVel), static_cast<float>(p.lonVel),
                               static_cast<float>(p.hgtVel)};
    const float velocitySigmas[3] = {static_cast<float>(p.velCov.sigmaN), static_cast<float>(p.velCov.sigmaE),
                                     static_cast<float>(p.velCov.sigmaU)};
    const auto horizontal = static_cast<float>(std::sqrt(p.hdop * p.hdop * 0.5));
    const float dop[3] = {horizontal, horizontal, static_cast<float>(p.vdop)};
    std::memcpy(fix.positionSigma, sigmas, sizeof sigmas);
    std::memcpy(fix.velocity, velocity, sizeof velocity);
    std::memcpy(fix.velocitySigma, velocitySigmas, sizeof velocitySigmas);
    std::memcpy(fix.dop, dop, sizeof dop);
    fix.valid = 1;
    const std::uint32_t type = p.fixType;
    std::uint8_t flags = 1;
    if (type == 0 || type == 9) {
        fix.fixClass = p.fixMode < 5 ? 9 : 8;
    } else if (type == 1 || type == 2 || type == 10 || type == 11 || type == 13 || type == 14 || type == 26) {
        fix.fixClass = 5;
    } else {
        fix.fixClass = 10;
        flags = 0;
    }
    fix.correctionAge = static_cast<float>(p.corrAge);
    fix.flag1 = flags;
    fix.flag2 = flags;
    return true;
}

void* rec35NativeOf(const rec35_content_t& content, std::uint64_t subtype) {
    const auto slot = rec35SlotOf(subtype);
    if (!slot) return nullptr;
    void* const* records = content.records;
    void* native = nullptr;
    std::memcpy(&native, records + *slot, sizeof native);
    return native;
}

void normalizeRec35(rec35_content_t& content) {
    const std::uint64_t subtype = content.subtype;
    if (subtype == 2) {
        auto* record = static_cast<rec35_sub2_t*>(rec35NativeOf(content, 2));
        if (record == nullptr) return;
        for (std::int64_t i = 0; i < record->pos.count; ++i) {
            rec35_sub2_pos_t& p = elementsOf<rec35_sub2_pos_t>(record->pos)[i];
            for (std::int64_t j = 0; j < p.svs.count; ++j) {
                rec35_sub2_svs_t& sv = elementsOf<rec35_sub2_svs_t>(p.svs)[j];
                if (sv.rt_sattype == 7) sv.rt_sattype = 10;
            }
        }
    } else if (subtype == 9) {
        auto* record = static_cast<rec35_sub9_t*>(rec35NativeOf(content, 9));
        if (record == nullptr) return;
        for (std::int64_t i = 0; i < record->sv.count; ++i) {
            rec35_sub9_sv_t& sv = elementsOf<rec35_sub9_sv_t>(record->sv)[i];
            if (sv.rt_sattype != 7) continue;
            for (std::int64_t j = 0; j < sv.meas.count; ++j) {
                rec35_sub9_meas_t& m = elementsOf<rec35_sub9_meas_t>(sv.meas)[j];
                if (m.blockType != 6 || m.trackType != 26 || sv.svId < 1 || sv.svId > 5) continue;
                // These satellites count that signal's carrier the other way round: half a cycle apart.
                m.phase += (m.measFlags & 32) != 0 ? -0.5 : 0.5;
                m.measFlags ^= 32;
            }
            sv.rt_sattype = 10;
        }
    }
}

std::uint32_t convertRec35Result(nvb_expand_t& state, std::uint16_t& recordType, std::uint32_t length,
                                 std::uint8_t& status) {
    rec35_content_t* content = state.records.rec35;
    if (length == 0 || state.currentType != 35 || content == nullptr) return length;
    const std::uint64_t subtype = content->subtype;
    const bool sub2 = subtype == 2 && state.convertRec35Sub2 != 0;
    const bool sub9 = subtype == 9 && state.convertRec35Sub9 != 0;
    const bool sub16 = subtype == 16 && state.convertRec35Sub16 != 0;
    const bool sub19 = subtype == 19 && state.convertRec35Sub19 != 0;
    if (!sub2 && !sub9 && !sub16 && !sub19) return length;
    const std::uint64_t subsubtype = content->subsubtype;
    void* native = rec35NativeOf(*content, subtype);
    if (subsubtype != 1 && subsubtype != 2) {
        recordType = kNoRecord;
        return 0;
    }
    const nvb_record_table_t& records = state.records;
    if (native == nullptr || (sub2 && records.rec29 == nullptr) || ((sub9 || sub19) && records.rec27 == nullptr) ||
        (sub16 && records.rec33 == nullptr)) {
        status = NVB_STATUS_REC35_CONTENT;
        recordType = kNoRecord;
        return 0;
    }
    const bool all = state.convertAllObservables != 0;
    std::uint16_t converted = 0;
    if (sub2) {
        if (!convertSub2ToRec29(*static_cast<const rec35_sub2_t*>(native), *records.rec29, converted)) {
            status = NVB_STATUS_NO_POSITION;
            recordType = kNoRecord;
            return 0;
        }
        recordType = 29;
    } else if (sub16) {
        if (!convertSub16ToRec33(*static_cast<const rec35_sub16_t*>(native), *records.rec33)) {
            recordType = kNoRecord;
            return 0;
        }
        // The header says 0x0ED4 and the length is 468: readers of this form take both as they are.
        putLength(records.datHeader, 33, 0x0ED4);
        recordType = 33;
        return 468;
    } else {
        converted = sub9 ? convertSub9ToRec27(*static_cast<const rec35_sub9_t*>(native), *records.rec27, all)
                         : convertSub19ToRec27(*static_cast<const rec35_sub19_t*>(native), *records.rec27, all);
        recordType = 27;
    }
    putLength(records.datHeader, static_cast<std::uint8_t>(recordType), converted);
    return converted;
}

}  // namespace nvb
