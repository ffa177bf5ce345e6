#ifndef NVB_TESTS_EPOCHS_H
#define NVB_TESTS_EPOCHS_H

// Builders of measurement epochs as a reader leaves them, for the record tests.

#include "records/measurement_records.h"
#include "support/host.h"

#include <gtest/gtest.h>

#include <memory>

namespace nvbtest {

inline std::unique_ptr<Rec27> newEpoch(double timeMs, float clockMs = 0.0f) {
    auto epoch = std::make_unique<Rec27>();
    epoch->epochHeaderLen = 17;
    epoch->weekNum = 2345;
    epoch->receiveTime = timeMs;
    epoch->clkOffset = clockMs;
    return epoch;
}

inline Rec27Sv& addSatellite(Rec27& epoch, std::uint8_t svId, std::uint8_t system, std::uint8_t svFlags = 0) {
    Rec27Sv& sv = epoch.sv[epoch.nSv++];
    sv = Rec27Sv{.svBlockLen = 10, .svId = svId, .rt_sattype = system, .svFlags = svFlags};
    return sv;
}

inline Rec27Meas& addSignal(Rec27Sv& sv, std::uint8_t band, std::uint8_t track, double range, double phase,
                            std::uint8_t flags1 = 0x03) {
    Rec27Meas& meas = sv.meas[sv.nMeas++];
    meas = Rec27Meas{
        .measBlockLen = 27, .blockType = band, .trackType = track, .range = range, .phase = phase, .measFlags1 = flags1};
    return meas;
}

// Gives a signal its second flag byte, as a reader counts it.
inline void addFlags2(Rec27Meas& meas, std::uint8_t flags2) {
    meas.measFlags1 |= 0x80;
    meas.measFlags2 = flags2;
    meas.measBlockLen = 28;
}

// Writes epochs in the stream form and reads them back into one expand state, whose
// previous-epoch areas carry the Doppler history from one read to the next.
class EpochReader {
public:
    EpochReader() : frame_(std::make_unique<nvb_frame_t>()) {}

    std::uint16_t read(const Rec27& epoch, const nvb::Rec27ReadOptions& options, std::uint32_t formatLevel = 1,
                       bool keepDoppler = true) {
        written_ = nvb::writeRec27(epoch, *frame_, formatLevel, keepDoppler);
        EXPECT_NE(written_, 0) << "the epoch does not fit a frame";
        return readFrame(options);
    }

    std::uint16_t readFrame(const nvb::Rec27ReadOptions& options) {
        return nvb::readRec27(nvb::frameBytes(*frame_).subspan(4), *handle_.get(), handle_->previousEpochs, options);
    }

    const Rec27& epoch() const { return *handle_->records.rec27; }
    nvb_expand_t* state() const { return handle_.get(); }
    nvb_frame_t& frame() { return *frame_; }
    std::uint16_t written() const { return written_; }

private:
    Handle handle_;
    std::unique_ptr<nvb_frame_t> frame_;
    std::uint16_t written_ = 0;
};

// Wire Doppler only, no system maps, every satellite kept: what was written comes back.
inline constexpr nvb::Rec27ReadOptions kPlainOptions{1, false, false, true};

// The epoch a reader with those options makes of a plain record 27 frame.
inline std::unique_ptr<Rec27> readEpoch(const Bytes& frame) {
    Handle handle;
    EXPECT_GT(nvb::readRec27(nvb::ByteView(frame).subspan(4), *handle.get(), handle->previousEpochs, kPlainOptions), 0);
    return std::make_unique<Rec27>(*handle->records.rec27);
}

}  // namespace nvbtest

#endif
