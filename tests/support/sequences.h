#ifndef NVB_TESTS_SEQUENCES_H
#define NVB_TESTS_SEQUENCES_H

// Long realistic sequences, as receivers log them, for the tests and the benchmarks:
// plain records 11, 29 and 17 in wire units, measurement epochs as plain record 27 frames,
// and whole logs of DAT records. Each is the same for the same options.

#include "support/wire.h"

#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <vector>

namespace nvbtest {

// A second apart, with the time set back by `backStepMs` at record `backAt` (none when
// negative).
struct SequenceShape {
    std::size_t count = 200;
    long backAt = -1;
    std::uint32_t backStepMs = 0;
    std::uint32_t seed = 1;
};

// A moving receiver whose satellites come and go. Solutions cycle through the optional
// blocks: block 3 by fix type, block 4 in both lengths, the clock block, and the flag that
// predicts sigmaU; positions are the same fixes, with a stretch of the older form.
std::vector<Rec29Wire> solutionSequence(const SequenceShape& shape);
std::vector<Rec11Wire> positionSequence(const SequenceShape& shape);
// The sky of the epoch sequences: `dualShare` (0 to 1) of the satellites with a second
// signal carry the second block, and `maxSats` caps the sky so that long records stay
// within 511 bytes.
std::vector<Rec17Wire> measurementSequence(const SequenceShape& shape, double dualShare = 0.7,
                                           std::size_t maxSats = 14);

template <typename Wire>
std::vector<Bytes> buildAll(const std::vector<Wire>& records) {
    std::vector<Bytes> frames;
    for (const Wire& record : records) frames.push_back(build(record));
    return frames;
}

// What a receiver's log of measurement epochs holds. Satellites rise and set (and rise in
// the middle of the list), rows swap places now and then, carriers slip, the receiver
// steers its clock by a millisecond, signals lose their doppler for a while, the clock
// block grows and shrinks between 0 and 7 terms whose values cross byte widths.
struct EpochSequenceOptions {
    std::uint32_t seed = 1;
    std::size_t epochs = 3000;
    std::uint32_t intervalMs = 1000;
    std::uint32_t startTimeMs = 302400000;  // time of week of the first epoch, in week 2210
    std::size_t satellites = 30;            // in view at a time
    std::size_t maxSignals = 3;             // per satellite, 1 to 6
    // Signals carry doppler (measFlags1 bit 2), as a writer with epochKeepDoppler makes them.
    bool doppler = true;
    // What only the long form carries: svFlags2 and slip counts, measFlags2 and 3,
    // three-byte range differences, ranges above the rollover. Without it, epochs are what a
    // writer at format level 0 makes.
    bool longFlags = true;
    bool clockBlock = true;
    // Slips, steering jumps, reordering, doppler gaps, satellites rising and setting.
    bool events = true;
    // Off: the same satellites stay in view throughout, all on the first antenna, each with
    // maxSignals signals.
    bool riseAndSet = true;
    // The systems of the satellites, in turn; when empty, a sky of seven systems.
    std::vector<std::uint8_t> systems{};
};

// The plain record 27 frames of such a log, each written by writeEpochImage and carrying
// its checksum and end byte. Throws when a frame would exceed 5120 bytes.
std::vector<Bytes> makeEpochSequence(const EpochSequenceOptions& options);

// A big-endian two's complement field of `width` (1 to 8) bytes, and `amount` added to one
// with the wrap of its width.
std::int64_t signedField(const std::uint8_t* field, std::size_t width);
void addToField(std::uint8_t* field, std::size_t width, std::int64_t amount);

// Recomputes what a record writer derives from the flags: epochHeaderLen, the clock
// block's length and term widths (minimal, at least 1 byte), svBlockLen and measBlockLen.
void settleEpochLengths(epoch_image_t& image);
// Writes `image` as a plain record 27 with its length, checksum and end byte set (in the
// image too). `limit` bounds the record; the default is the frame limit.
Bytes writePlainEpoch(epoch_image_t& image, std::size_t limit = 5120);
// Reads a plain record back into an image; throws when it does not parse.
void readPlainEpoch(const Bytes& frame, epoch_image_t& image);
// The plain record 27 `frame` with `edit` applied to its image and the lengths settled.
Bytes editedEpoch(const Bytes& frame, const std::function<void(epoch_image_t&)>& edit);

// The epochs' sky is that of the epoch sequences, steady and on the first antenna: the
// `satellites` of each of `systems` with `signals` each, without doppler, long flags, clock
// block or events. Positions are the solutions' fixes through every optional block, and the
// older records those of the position and measurement sequences, each timed with its epoch.
struct LogShape {
    int epochs = 300;
    std::uint32_t intervalMs = 1000;
    std::uint32_t firstTimeMs = 345600000;
    int satellites = 12;        // per system
    int signals = 2;            // per satellite
    bool positions = true;      // a record 29 behind every epoch
    bool olderRecords = true;   // records 11 and 17 every tenth epoch
    bool opaqueRecords = true;  // records 14 and 23 now and then
    std::vector<std::uint8_t> systems{0, 2, 3};
    std::uint32_t seed = 1;
};

// The DAT records of a receiver log, each as the library's reader delivers it (every
// satellite of an epoch kept): epochs, positions, older records and opaque ones, in log order.
std::vector<Bytes> mixedDatLog(const LogShape& shape);

}  // namespace nvbtest

#endif
