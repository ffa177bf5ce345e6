#include "rec35/rec35_measurement.h"

#include <nvbdll/status.h>

#include "external/su/epoch_image.h"
#include "rec35/rec35_flat.h"
#include "rec35_sub19.h"
#include "rec35_sub260.h"

#include <algorithm>

namespace nvb {

bool parallelArrays(std::initializer_list<const rec35_array_t*> arrays, std::int64_t count) {
    for (const rec35_array_t* array : arrays) {
        if (array->count != count || count < 0 || count > array->capacity) return false;
    }
    return true;
}

std::int64_t signalTotal(const rec35_array_t& perSatellite) {
    if (perSatellite.count < 0 || perSatellite.count > perSatellite.capacity) return -1;
    std::int64_t total = 0;
    for (std::int64_t i = 0; i < perSatellite.count; ++i) total += flatAt<std::uint32_t>(perSatellite, i);
    return total;
}

bool sub19Consistent(const rec35_sub19_t& r) {
    const std::int64_t signals = signalTotal(r._Nb_Na);
    return r._Na == r.clock__system__rt_clktype.count && r._Nb == r.sv__svId.count &&
           parallelArrays({&r.clock__system__rt_clktype, &r.clock__system__systemClockOffset}, r._Na) &&
           parallelArrays({&r.sv__svId, &r.sv__rt_sattype, &r.sv__antennaNumber, &r.sv__fdmaChannel,
                           &r.sv__receiverChannel, &r.sv__svFlags, &r.sv__geomSlipCount, &r.sv__ionoSlipCount,
                           &r.sv__azimuth, &r.sv__elevation, &r._Nb_Na},
                          r._Nb) &&
           parallelArrays({&r.sv__meas__blockType, &r.sv__meas__trackType, &r.sv__meas__trackingStatus,
                           &r.sv__meas__measFlags, &r.sv__meas__slipCount, &r.sv__meas__snr, &r.sv__meas__range,
                           &r.sv__meas__phase, &r.sv__meas__doppler},
                          signals);
}

bool sub260Consistent(const rec35_sub260_t& r) {
    return r._Na == r._Na_Na.count && signalTotal(r._Na_Na) >= 0 &&
           parallelArrays({&r.sv__meas__flags, &r.sv__meas__MPHat, &r.sv__meas__CCFiltCount, &r.sv__meas__CCDiff},
                          signalTotal(r._Na_Na));
}

double carrierWavelength(std::uint32_t system, std::uint32_t band, std::int32_t channel) {
    // Only bands the table knows: an unknown one would end the process there.
    const bool glonassBand = system == 2 && (band == 0 || band == 1 || band == 9);
    const bool known = glonassBand || (band < 12 && band != 9);
    if (system > 255 || !known || (glonassBand && (channel < -128 || channel > 127))) return 0.0;
    return bandWavelength(static_cast<std::uint8_t>(system), static_cast<std::uint8_t>(band),
                          static_cast<std::int8_t>(channel));
}

namespace {

// Range plus (or, with sign -1, minus) the carrier part of each signal.
void foldRangeWithPhase(rec35_sub19_t& r, double sign) {
    std::int64_t signal = 0;
    for (std::int64_t sv = 0; sv < r._Nb; ++sv) {
        const std::uint32_t system = flatAt<std::uint32_t>(r.sv__rt_sattype, sv);
        const std::int32_t channel = flatAt<std::int32_t>(r.sv__fdmaChannel, sv);
        const std::int64_t end = signal + flatAt<std::uint32_t>(r._Nb_Na, sv);
        for (; signal < end; ++signal) {
            const double w = carrierWavelength(system, flatAt<std::uint32_t>(r.sv__meas__blockType, signal), channel);
            flatAt<double>(r.sv__meas__range, signal) += sign * w * flatAt<double>(r.sv__meas__phase, signal);
        }
    }
}

void sub19Out(void* native, std::uint8_t& status) {
    auto& r = *static_cast<rec35_sub19_t*>(native);
    r._Na = static_cast<std::uint32_t>(r.clock__system__rt_clktype.count);
    r._Nb = static_cast<std::uint32_t>(r.sv__svId.count);
    if (!sub19Consistent(r)) {
        status = NVB_STATUS_CAPACITY;
        return;
    }
    foldRangeWithPhase(r, 1.0);
}

void sub19In(void* native, std::uint8_t& status) {
    auto& r = *static_cast<rec35_sub19_t*>(native);
    if (!sub19Consistent(r)) {
        status = NVB_STATUS_CAPACITY;
        return;
    }
    foldRangeWithPhase(r, -1.0);
}

// Off the 100 ms grid a value close to its prediction goes as the prediction itself.
void holdNear(rec35_array_t& values, const rec35_array_t& predicted, std::uint64_t band) {
    const std::int64_t count = std::min(values.count, predicted.count);
    for (std::int64_t i = 0; i < count; ++i) {
        std::int64_t& n = flatAt<std::int64_t>(values, i);
        const std::int64_t p = flatAt<std::int64_t>(predicted, i);
        const std::uint64_t distance = n >= p ? static_cast<std::uint64_t>(n) - static_cast<std::uint64_t>(p)
                                              : static_cast<std::uint64_t>(p) - static_cast<std::uint64_t>(n);
        if (distance <= band) n = p;
    }
}

void sub19DeadBand(rec35_slot_t& slot) {
    if (slot.history_pred == nullptr) return;
    auto& wire = *static_cast<rec35_sub19_wire_t*>(slot.wire);
    if (wire.epoch__receiveTime % 100 == 0) return;
    const auto& pred = *static_cast<const rec35_sub19_wire_t*>(slot.history_pred);
    holdNear(wire.clock__system__systemClockOffset, pred.clock__system__systemClockOffset, 27);
    holdNear(wire.sv__meas__snr, pred.sv__meas__snr, 5);
    holdNear(wire.sv__meas__range, pred.sv__meas__range, 26);
    holdNear(wire.sv__meas__doppler, pred.sv__meas__doppler, 128);
}

void sub260Out(void* native, std::uint8_t& status) {
    auto& r = *static_cast<rec35_sub260_t*>(native);
    r._Na = static_cast<std::uint32_t>(r._Na_Na.count);
    if (!sub260Consistent(r)) status = NVB_STATUS_CAPACITY;
}

void sub260In(void* native, std::uint8_t& status) {
    if (!sub260Consistent(*static_cast<const rec35_sub260_t*>(native))) status = NVB_STATUS_CAPACITY;
}

Rec35Codec withHooks(const Rec35Codec& generated, void (*out)(void*, std::uint8_t&), void (*wireOut)(rec35_slot_t&),
                     void (*in)(void*, std::uint8_t&)) {
    Rec35Codec codec = generated;
    codec.adjustNativeOut = out;
    codec.adjustWireOut = wireOut;
    codec.adjustNativeIn = in;
    return codec;
}

}  // namespace

const Rec35Codec& rec35Sub19Codec() {
    static const Rec35Codec codec = withHooks(kRec35Sub19, sub19Out, sub19DeadBand, sub19In);
    return codec;
}

const Rec35Codec& rec35Sub260Codec() {
    static const Rec35Codec codec = withHooks(kRec35Sub260, sub260Out, nullptr, sub260In);
    return codec;
}

}  // namespace nvb
