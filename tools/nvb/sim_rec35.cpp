#include "nvb/sim_rec35.h"

#include "nvb/sim_orbits.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <new>

namespace nvbtool {

namespace {

// Signal flags of the flattened measurement record: measured, Doppler valid, a slip at
// this epoch; and the mark of a range coded whole rather than as a difference from the
// satellite's first, which keeps the converted epoch's flag bytes those of the plain one.
constexpr std::uint32_t kSignalMeasured = 0x400;
constexpr std::uint32_t kSignalRangeWhole = 0x200;
constexpr std::uint32_t kSignalDoppler = 0x002;
constexpr std::uint32_t kSignalSlip = 0x100;
constexpr std::uint8_t kPlainSlip = 0x08;

// Position flags: the element used for the fix, and a valid fix; `valid` 2 for velocity.
constexpr std::uint32_t kPositionUsed = 0x01;
constexpr std::uint32_t kPositionValid = 0x02;
constexpr std::uint32_t kVelocityValid = 0x02;

// An array of `count` elements, grown (never shrunk) with malloc'd storage as the
// library's native records keep theirs.
template <class T>
T* sized(rec35_array_t& array, std::size_t count) {
    if (static_cast<std::int64_t>(count) > array.capacity) {
        void* grown = std::realloc(array.elements, std::max<std::size_t>(count, 1) * sizeof(T));
        if (grown == nullptr) throw std::bad_alloc();
        array.elements = grown;
        array.capacity = static_cast<std::int64_t>(count);
    }
    array.count = static_cast<std::int64_t>(count);
    auto* elements = static_cast<T*>(array.elements);
    std::fill(elements, elements + count, T{});
    return elements;
}

void release(rec35_array_t& array) {
    std::free(array.elements);
    array = rec35_array_t{};
}

constexpr rec35_array_t rec35_sub19_t::*kEpochArrays[] = {
    &rec35_sub19_t::clock__system__rt_clktype,
    &rec35_sub19_t::clock__system__systemClockOffset,
    &rec35_sub19_t::sv__svId,
    &rec35_sub19_t::sv__rt_sattype,
    &rec35_sub19_t::sv__antennaNumber,
    &rec35_sub19_t::sv__fdmaChannel,
    &rec35_sub19_t::sv__receiverChannel,
    &rec35_sub19_t::sv__svFlags,
    &rec35_sub19_t::sv__geomSlipCount,
    &rec35_sub19_t::sv__ionoSlipCount,
    &rec35_sub19_t::sv__azimuth,
    &rec35_sub19_t::sv__elevation,
    &rec35_sub19_t::_Nb_Na,
    &rec35_sub19_t::sv__meas__blockType,
    &rec35_sub19_t::sv__meas__trackType,
    &rec35_sub19_t::sv__meas__trackingStatus,
    &rec35_sub19_t::sv__meas__measFlags,
    &rec35_sub19_t::sv__meas__slipCount,
    &rec35_sub19_t::sv__meas__snr,
    &rec35_sub19_t::sv__meas__range,
    &rec35_sub19_t::sv__meas__phase,
    &rec35_sub19_t::sv__meas__doppler,
};

void fillEpoch(rec35_sub19_t& out, const Rec27& epoch, const EpochTruth& truth) {
    out.epoch__receiveTime = static_cast<std::uint32_t>(epoch.receiveTime);
    out.epoch__weekNum = epoch.weekNum;
    out.epoch__raimFault = 0;
    out.epoch__flags = 0;
    out.clock__referenceSystem = 0;
    out.clock__clkOffset = epoch.clkOffset;
    out._Na = 0;
    sized<std::uint32_t>(out.clock__system__rt_clktype, 0);
    sized<double>(out.clock__system__systemClockOffset, 0);
    out.clock__steerClkOffsetM = truth.clockBias * sim::kSpeedOfLight;
    out.clock__steerClkDriftMpS = truth.clockDriftPpm * 1e-6 * sim::kSpeedOfLight;

    const std::size_t satellites = std::min<std::size_t>(epoch.nSv, NVB_MAX_SV);
    std::size_t signals = 0;
    for (std::size_t i = 0; i < satellites; ++i) signals += std::min<std::size_t>(epoch.sv[i].nMeas, NVB_MAX_MEAS);
    out._Nb = static_cast<std::uint32_t>(satellites);
    auto* svId = sized<std::uint32_t>(out.sv__svId, satellites);
    auto* satType = sized<std::uint32_t>(out.sv__rt_sattype, satellites);
    sized<std::uint32_t>(out.sv__antennaNumber, satellites);
    auto* fdma = sized<std::int32_t>(out.sv__fdmaChannel, satellites);
    auto* channel = sized<std::uint32_t>(out.sv__receiverChannel, satellites);
    sized<std::uint32_t>(out.sv__svFlags, satellites);
    sized<std::uint32_t>(out.sv__geomSlipCount, satellites);
    sized<std::uint32_t>(out.sv__ionoSlipCount, satellites);
    auto* azimuth = sized<double>(out.sv__azimuth, satellites);
    auto* elevation = sized<double>(out.sv__elevation, satellites);
    auto* perSatellite = sized<std::uint32_t>(out._Nb_Na, satellites);
    auto* block = sized<std::uint32_t>(out.sv__meas__blockType, signals);
    auto* track = sized<std::uint32_t>(out.sv__meas__trackType, signals);
    sized<std::int32_t>(out.sv__meas__trackingStatus, signals);
    auto* flags = sized<std::uint32_t>(out.sv__meas__measFlags, signals);
    auto* slips = sized<std::uint32_t>(out.sv__meas__slipCount, signals);
    auto* snr = sized<std::uint32_t>(out.sv__meas__snr, signals);
    auto* range = sized<double>(out.sv__meas__range, signals);
    auto* phase = sized<double>(out.sv__meas__phase, signals);
    auto* doppler = sized<double>(out.sv__meas__doppler, signals);

    std::size_t k = 0;
    for (std::size_t i = 0; i < satellites; ++i) {
        const Rec27Sv& sv = epoch.sv[i];
        const bool glonass = sv.rt_sattype == 2;
        svId[i] = sv.svId;
        satType[i] = sv.rt_sattype;
        fdma[i] = glonass ? static_cast<std::int8_t>(sv.channel) : 0;
        channel[i] = truth.satellites[i].receiverChannel;
        azimuth[i] = truth.satellites[i].azimuthDeg;
        elevation[i] = truth.satellites[i].elevationDeg;
        const std::size_t count = std::min<std::size_t>(sv.nMeas, NVB_MAX_MEAS);
        perSatellite[i] = static_cast<std::uint32_t>(count);
        for (std::size_t j = 0; j < count; ++j, ++k) {
            const Rec27Meas& meas = sv.meas[j];
            block[k] = meas.blockType;
            track[k] = meas.trackType;
            flags[k] = kSignalMeasured | kSignalRangeWhole | kSignalDoppler;
            if ((meas.measFlags1 & kPlainSlip) != 0) flags[k] |= kSignalSlip;
            slips[k] = meas.slipCount;
            snr[k] = meas.snr;
            range[k] = meas.range;
            phase[k] = meas.phase;
            doppler[k] = meas.doppler;
        }
    }
}

void releasePositionElements(rec35_array_t& positions) {
    auto* elements = static_cast<rec35_sub2_pos_t*>(positions.elements);
    for (std::int64_t i = 0; i < positions.capacity; ++i) {
        release(elements[i].velcov);
        release(elements[i].svs);
        release(elements[i].att);
    }
    release(positions);
}

void fillPosition(rec35_sub2_t& out, const Rec29& position) {
    out.hdr.week = position.week;
    out.hdr.time = position.time;
    out.clk.referenceSystem = 0;
    out.clk.clkOffset = position.clkOffset;
    out.clk.clkDrift = position.clkDrift;
    sized<rec35_sub2_system_t>(out.clk.system, 0);
    // One fix element; its own arrays are kept across epochs, so it is reused in place.
    if (out.pos.capacity < 1) {
        releasePositionElements(out.pos);
        sized<rec35_sub2_pos_t>(out.pos, 1);
    }
    out.pos.count = 1;
    rec35_sub2_pos_t& fix = *static_cast<rec35_sub2_pos_t*>(out.pos.elements);
    const rec35_array_t velcov = fix.velcov;
    const rec35_array_t svArray = fix.svs;
    const rec35_array_t att = fix.att;
    fix = rec35_sub2_pos_t{};
    fix.velcov = velcov;
    fix.svs = svArray;
    fix.att = att;
    fix.velcov.count = 0;
    fix.att.count = 0;

    fix.valid = kVelocityValid | (position.positionValid != 0 ? 1u : 0u);
    fix.flags = kPositionUsed | (position.positionValid != 0 ? kPositionValid : 0u);
    fix.fixType = position.fixType;
    fix.fixMode = position.fixMode;
    fix.fixInfo = position.fixInfo;
    fix.raimInfo = position.raimInfo;
    fix.latPos = position.latPos;
    fix.lonPos = position.lonPos;
    fix.hgtPos = position.hgtPos;
    fix.poscov.sigmaN = position.sigmaN;
    fix.poscov.sigmaE = position.sigmaE;
    fix.poscov.sigmaU = position.sigmaU;
    fix.latVel = position.latVel;
    fix.lonVel = position.lonVel;
    fix.hgtVel = position.hgtVel;
    fix.hdop = position.hdop;
    fix.vdop = position.vdop;
    fix.tdop = position.tdop;
    fix.rms = position.rms;
    fix.unitStandardDeviation = std::sqrt(static_cast<double>(position.unitVariance));
    fix.numSVsUsed = position.numSVsUsed;
    const std::size_t satellites = std::min<std::size_t>(position.numSVs, NVB_MAX_SV);
    auto* svs = sized<rec35_sub2_svs_t>(fix.svs, satellites);
    for (std::size_t i = 0; i < satellites; ++i) {
        svs[i].svId = position.sv[i].svId;
        svs[i].rt_sattype = position.sv[i].rt_sattype;
        svs[i].flags = position.sv[i].flags;
    }
    sized<rec35_sub2_insData_t>(out.insData, 0);
    sized<rec35_sub2_insData2_t>(out.insData2, 0);
}

}  // namespace

NewerReceiverRecords::~NewerReceiverRecords() {
    for (const auto member : kEpochArrays) release(epoch_.*member);
    release(position_.clk.system);
    releasePositionElements(position_.pos);
    release(position_.insData);
    release(position_.insData2);
}

void NewerReceiverRecords::fill(const Rec27& epoch, const Rec29& position, const EpochTruth& truth) {
    fillEpoch(epoch_, epoch, truth);
    fillPosition(position_, position);
}

}  // namespace nvbtool
