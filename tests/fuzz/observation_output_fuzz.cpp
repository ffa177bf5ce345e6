// Property: any bytes expanded as a measurement epoch under an output control of any mode,
// version and interval never read or write outside a buffer, and the writer holds whole
// epochs only, never past its capacity.
#include "output/observation_output.h"
#include "pipeline/expansion.h"
#include "support/host.h"

#include <nvbdll/nvbdll.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::uint8_t kEpochTypes[] = {27, 36, 37, 38, 39};
constexpr std::uint16_t kVersions[] = {211, 212, 302, 303};

struct Session {
    Session() {
        for (std::uint8_t mode = 1; mode <= 3; ++mode) {
            for (std::size_t v = 0; v < 4; ++v) {
                if (!nvb::startObservationOutput(controls[mode][v], mode, kVersions[v], writer)) std::abort();
            }
        }
    }
    ~Session() {
        for (auto& row : controls) {
            for (rinex_control_t& control : row) {
                if (control.history != nullptr) nvb::endObservationOutput(control);
            }
        }
    }
    nvbtest::Handle handle;
    std::vector<std::uint8_t> buffer = std::vector<std::uint8_t>(1 << 19);
    rinex_writer_t writer{buffer.data(), static_cast<std::uint32_t>(buffer.size()), 0, 0};
    rinex_control_t controls[4][4] = {};
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Session s;
    if (size < 2) return 0;
    // The first byte picks the type, the mode, the version and the interval; the state and
    // the controls carry their histories from one input to the next.
    const std::uint8_t type = kEpochTypes[(data[0] & 7) % sizeof kEpochTypes];
    rinex_control_t& control = s.controls[1 + (data[0] >> 3) % 3][(data[0] >> 5) & 3];
    control.interval = (data[0] & 0x80) != 0 ? 2000 : 0;
    nvb_expand_t* state = s.handle.get();
    nvbtest::Bytes frame(data + 1, data + 1 + std::min(size - 1, sizeof state->frame.data));
    if (frame.size() > 2) frame[2] = type;
    nvbtest::standFrame(state, frame);
    state->currentType = type;
    state->blockLevel = 1;
    std::uint16_t recordType = 0;
    std::uint8_t status = 0;
    s.writer.length = 0;
    (void)nvb::processRecordWithOutput(*state, control, recordType, status);
    if (s.writer.length > s.writer.capacity) std::abort();
    if (control.mode != nvb::kOutputBinex && s.writer.length != 0 && s.buffer[s.writer.length - 1] != '\n') std::abort();
    return 0;
}
