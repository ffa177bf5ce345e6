#include "pipeline/conversions.h"

#include "records/position_records.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>

namespace nvb {

namespace {

constexpr double kSpeedOfLight = 299792458.0;
constexpr double kSpeedOfLightPerMs = 299792.458;
constexpr double kL1Wavelength = 0.19029367279836487;
constexpr double kL2ToL1 = 1227.6 / 1575.42;

// Slip counters of the conversion from record 17, for the first and second frequency.
// They belong to the process: set to zero at load, never reset, shared by all hosts, and
// atomic, so that conversions in different threads never race on them.
constexpr std::size_t kSlipCounters = 71;
using SlipCounters = std::array<std::atomic<std::uint8_t>, kSlipCounters>;
SlipCounters firstFrequencySlips{};
SlipCounters secondFrequencySlips{};

void fillHeader(std::uint8_t* datHeader, std::uint16_t length, std::uint8_t type) {
    if (datHeader == nullptr) return;
    datHeader[0] = 0x74;
    datHeader[1] = static_cast<std::uint8_t>(length);
    datHeader[2] = static_cast<std::uint8_t>(length >> 8);
    datHeader[3] = type;
}

// An index past the counters (SBAS numbers that do not fold below 71) raises nothing.
std::uint8_t raiseSlip(SlipCounters& counters, std::uint8_t index) {
    if (index >= counters.size()) return 0;
    return static_cast<std::uint8_t>(counters[index].fetch_add(1, std::memory_order_relaxed) + 1);
}

std::uint16_t snrTenths(double snr) {
    const double whole = std::trunc(snr);
    const std::int64_t value = std::fabs(whole) < 9.0e18 ? static_cast<std::int64_t>(whole) : 0;
    return static_cast<std::uint16_t>(static_cast<std::uint16_t>(value) * 10u);
}

std::uint8_t fixStatusOf(const Rec29& in) {
    std::uint8_t status = 0;
    switch (in.fixMode) {
        case 3:
            status = 2;
            break;
        case 4:
            status = 3;
            break;
        case 5:
            status = (in.fixType == 5 || in.fixType == 6) ? 5 : 4;
            break;
        default:
            break;
    }
    if (in.fixType == 1) status |= 0x10;
    if (in.fixType == 2) status |= 0x50;
    if (in.fixType == 7) status |= 0x30;
    if (in.fixInfo == 3) status |= 0x20;
    if (in.fixType >= 3 && in.fixType <= 6) {
        status |= 0x40;
        if (in.fixType == 4 || in.fixType == 6) status |= 0x08;
        if (in.positionValid == 1) status |= 0x80;
    }
    return status;
}

struct SecondFrequency {
    bool filled = false;
    std::uint8_t flags1 = 0;
    std::uint8_t flags2 = 0;
    double snr = 0.0;
    double rangeDifference = 0.0;
    double phase = 0.0;
};

const SecondFrequency* chooseSecondFrequency(const SecondFrequency (&slots)[2], std::uint8_t mode) {
    const SecondFrequency* first = slots[0].filled ? &slots[0] : nullptr;
    const SecondFrequency* other = slots[1].filled ? &slots[1] : nullptr;
    switch (mode) {
        case 0:
            return first;
        case 1:
            return other;
        case 2:
            return first != nullptr ? first : other;
        case 3:
            return other != nullptr ? other : first;
        default:
            return nullptr;
    }
}

std::uint8_t secondFrequencyFlags2(std::uint8_t flags2, std::uint8_t trackType) {
    switch (trackType) {
        case 0:
            return flags2 & static_cast<std::uint8_t>(~0x02);
        case 1:
            return flags2 | 0x02;
        case 2:
            return static_cast<std::uint8_t>((flags2 & ~0x02) | 0x04);
        case 9:
            return flags2 | 0x06;
        case 3:
        case 4:
        case 5:
            return flags2 & static_cast<std::uint8_t>(~0x04);
        default:
            return flags2;
    }
}

}  // namespace

std::uint16_t convertRec29toRec11(std::uint8_t* datHeader, const Rec29* in, Rec11* out) {
    if (in == nullptr || out == nullptr) return 0;
    std::memset(out, 0, sizeof *out);
    out->latitude = in->latPos / 180.0;
    out->longitude = in->lonPos / 180.0;
    out->height = in->hgtPos;
    out->clockOffset = in->clkOffset * kSpeedOfLightPerMs;
    out->clockDrift = in->clkDrift / 1e6 * kSpeedOfLight / kL1Wavelength;
    out->pdop = in->pdop;
    out->velocity1 = in->latVel;
    out->velocity2 = in->lonVel;
    out->velocity3 = in->hgtVel;
    out->time = in->time;
    // The lists of Rec11 hold 32 satellites.
    const std::uint8_t count = std::min<std::uint8_t>(in->numSVsUsed, NVB_REC11_MAX_SV);
    out->nSv = count;
    out->fixStatus = fixStatusOf(*in);

    std::uint8_t* lists = rec11Lists(*out);
    const int entries = std::min<int>(in->numSVs, NVB_MAX_SV);
    std::uint8_t taken = 0;
    for (int k = 0; k < entries && taken < count; ++k) {
        const Rec29SvEntry& entry = in->sv[k];
        if ((entry.flags & 0x02) == 0) continue;
        lists[taken] = taken;
        lists[count + taken] = static_cast<std::uint8_t>(entry.rt_sattype == 2 ? entry.svId + 51 : entry.svId);
        ++taken;
    }
    const auto length = static_cast<std::uint16_t>(2 * (count + 41));
    fillHeader(datHeader, length, 11);
    return length;
}

std::uint16_t convertRec27toRec17(std::uint8_t* datHeader, const Rec27* in, Rec17* out, std::uint8_t mode) {
    if (in == nullptr || out == nullptr) return 0;
    std::memset(out, 0, sizeof *out);
    out->receiveTime = in->receiveTime;
    out->clkOffset = in->clkOffset;
    std::uint32_t length = 21;
    const int svCount = std::min<int>(in->nSv, NVB_MAX_SV);
    for (int i = 0; i < svCount; ++i) {
        const Rec27Sv& sv = in->sv[i];
        if (sv.rt_sattype != 0) continue;
        // Record 17 holds 24 satellites; later GPS satellites are not taken.
        if (out->nSv >= NVB_REC17_MAX_SV) break;
        Rec17Sv& entry = out->sv[out->nSv];
        entry.svId = sv.svId;
        entry.elevation = static_cast<std::uint16_t>(sv.elevation);
        entry.azimuth = sv.azimuth;
        length += 8;

        SecondFrequency slots[2];
        const int measCount = std::min<int>(sv.nMeas, NVB_MAX_MEAS);
        for (int j = 0; j < measCount; ++j) {
            const Rec27Meas& meas = sv.meas[j];
            if (meas.blockType == 0) {
                entry.snr = meas.snr / 10.0;
                entry.range = meas.range;
                entry.phase = meas.phase;
                entry.svFlags = 0xC0;
                entry.rangeDiff2 = 0.0;
                if ((meas.measFlags1 & 0x08) != 0) entry.svFlags |= 0x02;
                if ((meas.measFlags1 & 0x40) != 0) entry.svFlags |= 0x08;
                if ((meas.measFlags1 & 0x20) != 0) entry.svFlags |= 0x10;
                if ((sv.svFlags & 0x04) != 0) entry.svFlags2 |= 0x08;
                if (meas.trackType == 0) entry.svFlags2 &= static_cast<std::uint8_t>(~0x01);
                if (meas.trackType == 1) entry.svFlags2 |= 0x01;
                if ((meas.measFlags1 & 0x04) == 0) {
                    entry.svFlags2 |= 0x80;
                    entry.doppler = 0.0;
                } else {
                    entry.doppler = meas.doppler;
                }
                length += 40;
            } else if (meas.blockType == 1 && (entry.svFlags & 0x40) != 0) {
                SecondFrequency& slot = slots[meas.trackType == 2 ? 0 : 1];
                slot.filled = true;
                slot.flags1 = entry.svFlags | 0x21;
                if ((meas.measFlags1 & 0x08) != 0) slot.flags1 |= 0x04;
                slot.snr = meas.snr / 10.0;
                slot.rangeDifference = meas.range - entry.range;
                slot.phase = meas.phase;
                slot.flags2 = secondFrequencyFlags2(entry.svFlags2, meas.trackType);
            }
        }
        if (const SecondFrequency* chosen = chooseSecondFrequency(slots, mode); chosen != nullptr) {
            entry.snr2 = chosen->snr;
            entry.phase2 = chosen->phase;
            entry.rangeDiff2 = chosen->rangeDifference;
            entry.svFlags = chosen->flags1;
            entry.svFlags2 = chosen->flags2;
            length += 24;
        }
        entry.svFlags3 = 0x03;
        entry.last = 0.0;
        ++out->nSv;
    }
    fillHeader(datHeader, static_cast<std::uint16_t>(length), 17);
    return static_cast<std::uint16_t>(length);
}

std::uint16_t convertRec17toRec27(std::uint16_t week, std::uint8_t* datHeader, const Rec17* in, Rec27* out) {
    if (in == nullptr || out == nullptr) return 0;
    std::memset(out, 0, sizeof *out);
    out->weekNum = week;
    out->receiveTime = in->receiveTime;
    out->clkOffset = static_cast<float>(in->clkOffset);
    const std::uint8_t count = std::min<std::uint8_t>(in->nSv, NVB_REC17_MAX_SV);
    out->nSv = count;
    out->epochHeaderLen = 17;
    std::uint32_t length = 21;
    for (int i = 0; i < count; ++i) {
        const Rec17Sv& entry = in->sv[i];
        Rec27Sv& sv = out->sv[i];
        sv.svBlockLen = 10;
        sv.svId = entry.svId;
        std::uint8_t slipIndex = entry.svId;
        if (entry.svId > 32) {
            sv.rt_sattype = 1;
            slipIndex = static_cast<std::uint8_t>(entry.svId + 104);
        }
        sv.elevation = static_cast<std::int16_t>(entry.elevation);
        sv.azimuth = entry.azimuth;
        sv.svFlags = static_cast<std::uint8_t>(((entry.svFlags2 & 0x08) | 0x04) >> 1);

        Rec27Meas& first = sv.meas[0];
        first.measBlockLen = 27;
        first.snr = snrTenths(entry.snr);
        first.range = entry.range;
        first.phase = entry.phase;
        first.doppler = static_cast<float>(entry.doppler);
        first.measFlags1 = entry.svFlags2 < 128 ? 7 : 3;
        if ((entry.svFlags & 0x02) != 0) {
            first.slipCount = raiseSlip(firstFrequencySlips, slipIndex);
            first.measFlags1 |= 0x08;
        }
        if ((entry.svFlags & 0x10) != 0) first.measFlags1 |= 0x20;
        length += 37;

        if ((entry.svFlags & 0x01) != 0) {
            Rec27Meas& second = sv.meas[1];
            second.measBlockLen = 27;
            second.blockType = 1;
            second.trackType = 2;
            second.snr = snrTenths(entry.snr2);
            second.range = entry.rangeDiff2 + entry.range;
            second.phase = entry.phase2;
            second.measFlags1 = 7;
            second.doppler = static_cast<float>(first.doppler * kL2ToL1);
            if ((entry.svFlags & 0x04) != 0) {
                second.slipCount = raiseSlip(secondFrequencySlips, slipIndex);
                second.measFlags1 |= 0x08;
            }
            if ((entry.svFlags & 0x10) != 0) second.measFlags1 |= 0x20;
            sv.nMeas = 2;
            length += 27;
        } else {
            sv.nMeas = 1;
        }
    }
    fillHeader(datHeader, static_cast<std::uint16_t>(length), 27);
    return static_cast<std::uint16_t>(length);
}

}  // namespace nvb
