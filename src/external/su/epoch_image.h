#ifndef NVB_EXTERNAL_SU_EPOCH_IMAGE_H
#define NVB_EXTERNAL_SU_EPOCH_IMAGE_H

// The epoch image shared by every form of a measurement epoch (the plain record 27, the
// reference form 38 and the compact forms 36, 37 and 39): one record 27 at a fixed layout,
// each field the big-endian bytes of the wire, so that a field is found by satellite and
// signal index alone and every delta is byte-string arithmetic. Also the two-image history
// step, the range and band rules, the system tables, and the output seam of the epoch
// expanders.

#include "external/su/su_compr_common.h"

#include "records/system_tables.h"

#include <nvbdll/codec_state.h>
#include <nvbdll/output_control.h>
#include <nvbdll/state.h>

#include <algorithm>
#include <cstring>
#include <cstddef>
#include <cstdint>
#include <memory>

#pragma pack(push, 1)
// Work buffer of the observation output modes, taken from the heap once per expanded
// epoch: the epoch's time and clock, the satellites in observation numbering, which
// observation types occur, and one row of cells per satellite. It carries the name the
// output control's sink declares, so it stands outside the namespace. A cell holds one
// observation of one satellite, written by the collector.
struct epoch_rinex_cell_t {
    double value;            // range in metres or phase in cycles
    std::uint16_t strength;  // 0.1 dB-Hz
    std::uint8_t strengthDigit;
    std::uint8_t tracking;   // code of the signal that filled the cell
    std::uint8_t lossOfLock;
    std::uint8_t strengthFlag;  // 1: the cell holds a strength, not a value
    std::uint8_t filled;
    std::uint8_t slipCount;
};

struct epoch_rinex_t {
    std::uint8_t satCount;
    float clkOffset;
    double receiveTime;
    std::uint32_t weekNum;
    std::uint8_t sats[116][3]; // svId shifted, rinexSystemIndex, antennaNumber
    std::uint8_t obsUsed[10][87];
    epoch_rinex_cell_t cells[116][87];
};
#pragma pack(pop)

namespace nvb {

inline constexpr std::uint8_t kPlainEpochType = 27;
inline constexpr std::uint8_t kLongDeltaEpochType = 36;
inline constexpr std::uint8_t kShortDeltaEpochType = 37;
inline constexpr std::uint8_t kReferenceEpochType = 38;
inline constexpr std::uint8_t kPredictedEpochType = 39;

inline constexpr std::size_t kEpochMaxSatellites = 116;
inline constexpr std::size_t kEpochMaxSignals = 6;

// Statuses of the epoch expanders besides the shared ones of su_compr_common (4 the
// checksum, 8 a bad length code or a record that runs past its end).
inline constexpr std::uint8_t kStatusTooManySatellites = 6;
inline constexpr std::uint8_t kStatusBadEpochCode = 7;
inline constexpr std::uint8_t kStatusNoWorkBuffer = 9;

// epochFlags
inline constexpr std::uint8_t kEpochHasDrift = 0x02;
inline constexpr std::uint8_t kEpochHasRaimFault = 0x10;
inline constexpr std::uint8_t kEpochHasClockBlock = 0x20;
// svFlags, measFlags1, measFlags2, measFlags3: another flag byte follows.
inline constexpr std::uint8_t kFlagByteFollows = 0x80;
// svFlags2
inline constexpr std::uint8_t kSvHasSlipCounts = 0x01;
// measFlags1
inline constexpr std::uint8_t kMeasHasDoppler = 0x04;
// measFlags2
inline constexpr std::uint8_t kRangeThreeBytes = 0x01;
inline constexpr std::uint8_t kRangeRolledOver = 0x02;

// Loop bounds over an image. Images from the parser and the expanders never exceed the
// limits; the clamp keeps a host-written history from taking a loop outside the arrays.
[[nodiscard]] inline std::size_t satelliteCount(const epoch_image_t& image) {
    return std::min<std::size_t>(image.nSv, kEpochMaxSatellites);
}
[[nodiscard]] inline std::size_t signalCount(const epoch_sat_row_t& row) {
    return std::min<std::size_t>(row.nMeas, kEpochMaxSignals);
}
[[nodiscard]] inline std::size_t clockTermCount(const epoch_clock_block_t& block) {
    return (block.blockFlags >> 4) & 7u;
}

// The record length that a frame's bytes 1 and 3 give (types 27 and 36 to 39).
[[nodiscard]] inline std::uint16_t epochFrameLength(const std::uint8_t* record) {
    return static_cast<std::uint16_t>(record[1] | (record[3] << 8));
}
inline void storeEpochFrameLength(std::uint8_t* record, std::uint16_t length) {
    record[1] = static_cast<std::uint8_t>(length);
    record[3] = static_cast<std::uint8_t>(length >> 8);
}

struct EpochParse {
    std::uint16_t length = 0; // bytes consumed
    std::uint8_t status = 0;  // 0; 6 nSv above 116; 7 nMeas above 6; 8 runs past the capacity
};

// An image is cleared in two steps: everything but the satellite rows, then, once its
// satellite count is known, the rows up to it. An epoch's rows past its count are never
// read, so nobody pays for clearing all 116.
void clearEpochHeader(epoch_image_t& image);
void clearEpochRows(epoch_image_t& image);

// Fills `image` from a wire record 27 or type 38 of at most `capacity` bytes, cleared
// first as far as the record's satellite count reaches; rows past it keep what they held.
// Optional fields that the record leaves out are zero. A record beyond the limits
// is read only as far as the image holds it and gets a status; the image then stays
// within its arrays but is not the record.
[[nodiscard]] EpochParse parseEpochImage(epoch_image_t& image, const std::uint8_t* record,
                                         std::size_t capacity);

// Writes the wire form of `image`. Returns its length, 0 (and an assertion) when it does
// not fit `capacity`; the bytes written so far are then not a record.
[[nodiscard]] std::uint16_t writeEpochImage(std::uint8_t* record, std::size_t capacity,
                                            const epoch_image_t& image);

// The record length that the image's own block lengths add up to: header, clock block,
// rows, signals and the three trailer bytes.
[[nodiscard]] std::uint32_t epochRecordLength(const epoch_image_t& image);

// `to` := `from`, reading only the rows up to `from`'s satellite count. A history image
// keeps its rows past its count zero: the rows `to` used before and `from` does not are
// cleared, and those beyond were zero already.
void copyEpochImage(epoch_image_t& to, const epoch_image_t& from);

// After an epoch, coded or expanded: `predicted` becomes the epoch that follows `current`
// at a constant rate of change (time, clock offset, range, phase, doppler), and `previous`
// becomes `current`. Rows pair by index only. `current` must not alias either image.
void advanceEpochHistory(epoch_image_t& previous, epoch_image_t& predicted,
                         const epoch_image_t& current);

// Pseudorange of a signal's range field at `position` (advanced): the first signal of a
// satellite absolute, unsigned 4 bytes at 2^-6 (systems 1 and 4), 2^-10 (8) or 2^-7; a later
// signal its signed difference from the first, 2 or 3 bytes at 2^-8. `rollover` adds
// 33554431 m.
[[nodiscard]] double readRange(const std::uint8_t* bytes, std::uint16_t& position,
                               std::uint8_t system, std::uint16_t signalIndex, bool threeBytes,
                               bool rollover);

// The inverse, appending 4, 2 or 3 bytes; it knows only systems 1 and 4 at 2^-6 and writes
// every other first signal at 2^-7, system 8 included. Rounds half away from zero and keeps
// the low bytes.
void writeRange(std::uint8_t system, ByteWriter& out, std::uint16_t signalIndex, double metres,
                bool threeBytes);

// Carrier wavelength in metres of a band; GLONASS (system 2) from its channel. A band
// outside the table asserts and gives band 0's wavelength.
[[nodiscard]] double bandWavelength(std::uint8_t system, std::uint8_t band, std::int8_t channel);

// Index of a system in observation output and slip tables, and in the raw parse of the
// encode path; 0 for systems without one.
[[nodiscard]] std::uint8_t rinexSystemIndex(std::uint8_t system);
[[nodiscard]] std::uint8_t rawSystemIndex(std::uint8_t system);

// Big-endian helpers for the image's fields.
[[nodiscard]] std::uint32_t readBigEndian32(const std::uint8_t* bytes);
void writeBigEndian32(std::uint8_t* bytes, std::uint32_t value);


struct EpochWorkDeleter {
    void operator()(::epoch_rinex_t* work) const;
};
using EpochWorkBuffer = std::unique_ptr<epoch_rinex_t, EpochWorkDeleter>;

// Null when the heap has no room (status 9 for the expander).
[[nodiscard]] EpochWorkBuffer allocateEpochWork();

// What an expander does with an epoch once its plain record stands in `out`. Mode 0
// delivers that record: the result is its length. With an interval, an epoch off its grid
// gives 0, and slip tracking carries the slips of dropped epochs to the next kept one: in
// mode 0 as `measFlags1` bit 3 of the delivered record (its checksum made anew), in the
// other modes as the slip marks handed to `control.sink`. Modes 1 and 3 deliver text
// instead of the record (result 0); mode 2 delivers the record and a BINEX copy.
[[nodiscard]] std::uint16_t finishEpochOutput(const epoch_image_t& image, std::uint8_t* out, std::uint16_t plainLength,
                                              rinex_control_t& control, epoch_rinex_t& work);

// The slip marks of one epoch by satellite row and signal, from the two slip tables of
// `control` (which it advances): a new satellite, a changed `slipCount` or `measFlags1`
// bit 3 sets a pending mark, which a kept epoch reports and clears.
void trackEpochSlips(const epoch_image_t& image, rinex_control_t& control, bool kept,
                     std::uint8_t (*marks)[kEpochMaxSignals]);

// Where an expanded epoch lies, for the caller.
struct ExpandedEpoch {
    std::uint16_t length = 0; // out length; 0 on any status
    std::uint16_t weekNum = 0;
    std::uint32_t receiveTime = 0;
};

// What every epoch expander does first: clears the result, takes the work buffer and the
// record's own length, which must lie between `shortest` and the record's capacity. Any
// status but 0 ends the expansion with the history untouched.
struct EpochExpansion {
    EpochWorkBuffer work;
    std::uint16_t length = 0;
    std::uint8_t status = 0;
};
[[nodiscard]] EpochExpansion beginEpochExpansion(const std::uint8_t* record, std::size_t recordCapacity,
                                                 std::size_t shortest, ExpandedEpoch& result);

// Delivers an expanded epoch whose plain record stands in `out`: its output, week and
// time go into `result`.
void deliverEpoch(const epoch_image_t& image, std::uint8_t* out, std::uint16_t plainLength, rinex_control_t& control,
                  epoch_rinex_t& work, ExpandedEpoch& result);

// Ends an expanded epoch: reads the carried checksum, sets the end byte, the length and
// the type, and writes the plain record. Returns its length; 0 when the input runs out or
// the record does not fit.
[[nodiscard]] std::uint16_t closeExpandedEpoch(epoch_image_t& image, ByteReader& in, std::uint32_t lengthSum,
                                               std::uint8_t* out, std::size_t outCapacity);

// What every epoch front end does around its expander: output mode 0 without decimation,
// the state's frame in, its plain frame out, the plain length from the record written.
template <typename Expand>
std::uint8_t runEpochFrontEnd(nvb_expand_t& state, std::uint8_t& status, Expand expand) {
    std::memset(&state.plainFrame, 0, sizeof state.plainFrame);
    state.outputControl.mode = 0;
    state.outputControl.interval = 0;
    ExpandedEpoch result;
    status = expand(state.frame.data, sizeof state.frame.data, state.plainFrame.data, sizeof state.plainFrame.data,
                    state.epochHistory, result, state.outputControl);
    state.plainFrame.length = result.length != 0 ? epochFrameLength(state.plainFrame.data) : 0;
    return status;
}

}  // namespace nvb

#endif
