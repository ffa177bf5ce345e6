#ifndef NVB_OUTPUT_OBSERVATION_OUTPUT_H
#define NVB_OUTPUT_OBSERVATION_OUTPUT_H

// Setting up an output control for observation text or BINEX, and the sink through
// which the epoch expanders hand it their kept epochs. The expanders know the sink only
// as the function pointer in the control, so the dependency runs from this layer down.

#include "external/su/epoch_image.h"

#include <nvbdll/output_control.h>

#include <cstdint>

namespace nvb {

inline constexpr std::uint8_t kOutputPlain = 0;
inline constexpr std::uint8_t kOutputRinex = 1;
inline constexpr std::uint8_t kOutputBinex = 2;
inline constexpr std::uint8_t kOutputCompactRinex = 3;

// Clears `control` and makes it ready for `mode` and `version` (211, 212, 302, 303; any
// for BINEX), writing through `writer`: the version's observation table, the histories,
// the sink, `headerOpen` set, no GLONASS channel known. False (and nothing held) for an
// unknown mode or version or when the histories can't be allocated.
[[nodiscard]] bool startObservationOutput(rinex_control_t& control, std::uint8_t mode, std::uint16_t version,
                                          rinex_writer_t& writer);
// Releases what the start took; the control is then mode 0 without a sink.
void endObservationOutput(rinex_control_t& control);

// The sink itself: collects the kept epoch's signals and writes its text or record. An
// epoch whose worst case does not fit the writer's free room is counted in `refused`
// and changes nothing.
void writeObservationEpoch(rinex_control_t* control, const epoch_image_t* image, const std::uint8_t* plainRecord,
                           std::uint16_t plainLength, const std::uint8_t (*slipMarks)[6], epoch_rinex_t* work);

// Puts one signal of satellite row `sat` of the work buffer into its observation cells
// (range in metres, phase in cycles as the receiver counts it) and marks the types used.
void rinexCollectSignal(rinex_control_t& control, epoch_rinex_t& work, std::size_t sat, std::uint8_t systemIndex,
                        std::uint8_t band, std::uint8_t trackCode, bool slip, std::uint8_t slipCount, double range,
                        double phase, std::uint16_t snr);

// Owns a started control for its lifetime.
class ObservationOutput {
public:
    ObservationOutput(rinex_control_t& control, std::uint8_t mode, std::uint16_t version, rinex_writer_t& writer)
        : control_(control), started_(startObservationOutput(control, mode, version, writer)) {}
    ~ObservationOutput() {
        if (started_) endObservationOutput(control_);
    }
    ObservationOutput(const ObservationOutput&) = delete;
    ObservationOutput& operator=(const ObservationOutput&) = delete;
    [[nodiscard]] bool started() const { return started_; }

private:
    rinex_control_t& control_;
    bool started_;
};

}  // namespace nvb

#endif
