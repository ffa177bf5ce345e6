#ifndef NVB_TOOL_SIMULATOR_H
#define NVB_TOOL_SIMULATOR_H

#include <nvbdll/records.h>

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

// A static receiver watching GPS, GLONASS, Galileo and BeiDou satellites on simplified
// orbits: per epoch a measurement record 27 and a position record 29, deterministic for
// a seed. Ranges, phases and Doppler agree with the geometry and each carrier's
// wavelength; the receiver clock drifts and is steered by whole milliseconds; cycle
// slips happen now and then.
class ReceiverSimulator {
public:
    explicit ReceiverSimulator(const SimulationOptions& options);
    ~ReceiverSimulator();
    ReceiverSimulator(const ReceiverSimulator&) = delete;
    ReceiverSimulator& operator=(const ReceiverSimulator&) = delete;

    // Epochs in the simulated span.
    [[nodiscard]] std::uint64_t epochCount() const;

    // Fills the next epoch's records as a reader would leave them (system numbers, block
    // lengths and flag bytes consistent with the values). False when the span is over.
    bool next(Rec27& measurements, Rec29& position);

private:
    struct Model;
    std::unique_ptr<Model> model_;
};

}  // namespace nvbtool

#endif
