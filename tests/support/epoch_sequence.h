#ifndef NVB_TESTS_EPOCH_SEQUENCE_H
#define NVB_TESTS_EPOCH_SEQUENCE_H

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace nvbtest {

using Bytes = std::vector<std::uint8_t>;

// What a receiver's log of measurement epochs holds. Satellites rise and set (and rise in
// the middle of the list), rows swap places now and then, carriers slip, the receiver
// steers its clock by a millisecond, signals lose their doppler for a while, the clock
// block grows and shrinks between 0 and 7 terms whose values cross byte widths.
struct EpochSequenceOptions {
    std::uint32_t seed = 1;
    std::size_t epochs = 3000;
    std::uint32_t intervalMs = 1000;
    std::uint16_t week = 2210;
    std::uint32_t startTimeMs = 302400000; // time of week of the first epoch
    std::size_t satellites = 30;           // in view at a time
    std::size_t maxSignals = 3;            // per satellite, 1 to 6
    // Signals carry doppler (measFlags1 bit 2), as a writer with epochKeepDoppler makes them.
    bool doppler = true;
    // What only the long form carries: svFlags2 and slip counts, measFlags2 and 3,
    // three-byte range differences, ranges above the rollover. Without it, epochs are what a
    // writer at format level 0 makes.
    bool longFlags = true;
    bool clockBlock = true;
    // Slips, steering jumps, reordering, doppler gaps, satellites rising and setting.
    bool events = true;
    // Off: the same satellites stay in view throughout, each with maxSignals signals.
    bool riseAndSet = true;
};

// The plain record 27 frames of such a log, each written by writeEpochImage and carrying
// its checksum and end byte. Throws when a frame would exceed 5120 bytes.
std::vector<Bytes> makeEpochSequence(const EpochSequenceOptions& options);

// Recomputes what a record writer derives from the flags: epochHeaderLen, the clock
// block's length and term widths (minimal, at least 1 byte), svBlockLen and measBlockLen.
void settleEpochLengths(epoch_image_t& image);

// Writes `image` as a plain record 27 with its length, checksum and end byte set (in the
// image too). `limit` bounds the record; the default is the frame limit.
Bytes writePlainEpoch(epoch_image_t& image, std::size_t limit = 5120);

// Reads a plain record back into an image; throws when it does not parse.
void readPlainEpoch(const Bytes& frame, epoch_image_t& image);

// Both ends of the epoch codec as a host meets them: an encode state whose options a test
// sets, and an expand state read through the single expansion steps.
class EpochLink {
public:
    EpochLink();
    ~EpochLink();
    EpochLink(const EpochLink&) = delete;
    EpochLink& operator=(const EpochLink&) = delete;

    nvb_encode_t& encoder() { return *encoder_; }
    nvb_expand_t& expander() { return *expander_; }

    // The compact frame that the encode step makes of a plain record 27 frame.
    Bytes compress(const Bytes& plain);
    // Stands a compact frame in the frame buffer and runs the step of its type; the plain
    // frame it left (empty when none) goes to `plain`. Returns the step's status.
    std::uint8_t expand(const Bytes& compact, Bytes& plain, bool framed = true);

private:
    std::unique_ptr<nvb_encode_t> encoder_;
    nvb_expand_t* expander_;
};

}  // namespace nvbtest

#endif
