#ifndef NVB_HOST_HOST_ENCODER_H
#define NVB_HOST_HOST_ENCODER_H

#include <nvbdll/nvbdll.h>

#include <cstdint>
#include <functional>
#include <span>

namespace nvbtool {

// An encode state as a host builds it: the state and all 38 record structures allocated
// and cleared, each written unit handed to `sink`. Freeing the state frees the host-owned
// structures; this frees the others. The nvb tool, the tests and the benchmarks write
// through it.
class HostEncoder {
public:
    using Sink = std::function<void(std::span<const std::uint8_t>)>;

    HostEncoder(std::uint8_t method, std::uint8_t level, Sink sink);
    ~HostEncoder();
    HostEncoder(const HostEncoder&) = delete;
    HostEncoder& operator=(const HostEncoder&) = delete;

    nvb_encode_t& state() const { return *state_; }
    // One DAT record holding as many bytes as its header announces; returns what
    // nvbdll_processDATRecord returned.
    std::uint32_t put(std::uint8_t* dat, std::uint8_t& status) { return nvbdll_processDATRecord(state_, dat, &status); }
    std::uint32_t finish() { return nvbdll_finalizeDATProcessing(state_); }

private:
    static void written(const std::uint8_t* buffer, std::uint32_t length, void* context);
    nvb_encode_t* state_;
    Sink sink_;
};

}  // namespace nvbtool

#endif
