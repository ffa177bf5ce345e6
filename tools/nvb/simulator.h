#ifndef NVB_TOOL_SIMULATOR_H
#define NVB_TOOL_SIMULATOR_H

#include <nvbdll/records.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace nvbtool {

struct SimulationOptions {
    double durationSeconds = 3600.0;
    double intervalSeconds = 1.0;  // down to 0.05
    std::string systems = "GREC";  // G GPS, R GLONASS, E Galileo, C BeiDou
    std::uint32_t seed = 1;
    double elevationMaskDegrees = 10.0;
};

// The antenna: a fixed site, WGS 84 ellipsoidal coordinates.
inline constexpr double kSimulatedSiteLatitudeDeg = 47.3769;
inline constexpr double kSimulatedSiteLongitudeDeg = 8.5417;
inline constexpr double kSimulatedSiteHeight = 470.0;

// BeiDou satellites carry the system number a reader gives them under its default
// mapping, so that a simulated log reads back as it was simulated.
inline constexpr std::uint8_t kSimulatedBeiDouSatType = 10;

// What the simulator knew of the epoch it filled last, without noise; satellites in the
// order of the record 27.
struct SignalTruth {
    double wavelength = 0.0;    // metres
    double carrierRange = 0.0;  // geometric range + troposphere + receiver clock bias x c, metres
    double rangeRate = 0.0;     // its rate in m/s, clock drift included
    // Whole cycles of the phase: phase = ambiguity - carrierRange / wavelength + noise.
    std::int64_t ambiguity = 0;
    bool newLock = false;  // first epoch of this lock
    bool slipped = false;  // a cycle slip at this epoch
};

struct SatelliteTruth {
    double elevationDeg = 0.0;
    double azimuthDeg = 0.0;
    double geometricRange = 0.0;  // metres
    std::uint8_t receiverChannel = 0;  // the tracking channel; a record 27 names GLONASS by frequency channel
    std::array<SignalTruth, NVB_MAX_MEAS> signals{};
};

struct EpochTruth {
    double timeSeconds = 0.0;  // true time since the start of the run
    double clockBias = 0.0;    // receiver clock minus true time, seconds, after steering
    double clockDriftPpm = 0.0;
    int steeringMs = 0;  // the receiver clock's step at this epoch in ms: -1, 0 or +1 at usual intervals
    int satelliteCount = 0;
    std::array<SatelliteTruth, NVB_MAX_SV> satellites{};
};

// A static receiver watching GPS, GLONASS, Galileo and BeiDou satellites on simplified
// orbits: per epoch a measurement record 27 and a position record 29, deterministic for
// a seed. Ranges, phases and Doppler agree with the geometry and each carrier's
// wavelength; the receiver clock drifts and is steered by whole milliseconds; cycle
// slips happen now and then.
//
// Phase counts the other way from range, as the receiver accumulates Doppler: phase =
// ambiguity - range / wavelength, and Doppler = phase rate = -range rate / wavelength.
class ReceiverSimulator {
public:
    // Throws std::invalid_argument for an interval below 0.05 s (intervals are taken in
    // whole milliseconds), a negative or absurd duration, a mask outside 0 to 60 degrees,
    // or systems that are empty or hold a letter other than G, R, E, C.
    explicit ReceiverSimulator(const SimulationOptions& options);
    ~ReceiverSimulator();
    ReceiverSimulator(const ReceiverSimulator&) = delete;
    ReceiverSimulator& operator=(const ReceiverSimulator&) = delete;

    // Epochs in the simulated span.
    [[nodiscard]] std::uint64_t epochCount() const;

    // Fills the next epoch's records as a reader would leave them (system numbers, block
    // lengths and flag bytes consistent with the values). False when the span is over.
    bool next(Rec27& measurements, Rec29& position);

    // The epoch that next() filled last.
    [[nodiscard]] const EpochTruth& truth() const;

private:
    struct Model;
    std::unique_ptr<Model> model_;
};

}  // namespace nvbtool

#endif
