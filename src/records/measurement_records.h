#ifndef NVB_RECORDS_MEASUREMENT_RECORDS_H
#define NVB_RECORDS_MEASUREMENT_RECORDS_H

#include "records/field_codec.h"
#include "records/system_tables.h"

#include <nvbdll/records_measurement.h>
#include <nvbdll/state.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

struct Rec27ReadOptions {
    std::uint8_t dopplerControl = 3;  // 1 wire Doppler only, 2 always rebuilt, 3 rebuilt where absent
    bool mapSystem5To7 = true;
    bool mapSystem7To10 = true;
    bool keepAllSvBlocks = false;
};

// Reads a record 27 whose body (from its epochHeaderLen byte) is `body` into the state's
// Rec27 and DAT header, rebuilds Doppler against `previous` (two Rec27 areas: the
// previous epoch and the predictions) and returns the DAT length. 0 without the
// structures, with more than 116 satellites or 6 measurements, or without satellites.
// An invalid dopplerControl ends the process with exit code 2.
std::uint16_t readRec27(ByteView body, nvb_expand_t& state, Rec27* previous, const Rec27ReadOptions& options);

// Reads a record 17 from a frame into the state's Rec17 and DAT header, rebuilds Doppler
// against `work` (two Rec17 areas: previous epoch and predictions) and returns the DAT
// length, 0 without the structures.
std::uint16_t readRec17(const nvb_frame_t& frame, nvb_expand_t& state, Rec17* work);

// DAT lengths as the readers report them.
[[nodiscard]] std::uint16_t rec27DatLength(const Rec27& rec);
[[nodiscard]] std::uint16_t rec17DatLength(const Rec17& rec);

// The clock block of records 27 and 29 on the wire: reads from its length byte at
// `offset` and returns the offset behind it; writes it with the values in their fewest bytes.
std::size_t readClockBlock(ByteView bytes, std::size_t offset, ClockSystemBlock& clock);
void writeClockBlock(WriteBuffer& out, const ClockSystemBlock& clock);

// Stream-form writers: build the plain frame (start byte to end byte) in `frame` and
// return its length, 0 when it does not fit 5120 bytes. The encode pipeline hands the
// frame on to the compact coders. formatLevel 0 is the byte-stream form, which carries
// no measFlags2 and measFlags3; above 0 the range rollover and three-byte differences
// are used. Without epochKeepDoppler no Doppler is written, since readers rebuild it.
std::uint16_t writeRec27(const Rec27& rec, nvb_frame_t& frame, std::uint32_t formatLevel, bool epochKeepDoppler);
// A record 17 of more than 255 bytes gets the type byte 'u' for the compact coder.
std::uint16_t writeRec17(const Rec17& rec, nvb_frame_t& frame);

// DAT parsers: fill the structure from the DAT form behind its header. They return -1
// when the structure is missing and -2 for a record whose counts pass the structure's
// arrays; 0 otherwise. The record 27 parser leaves out the systems of dropMask and then
// writes the new DAT length into the header.
int parseRec27Dat(DatReader& in, Rec27* rec, std::uint8_t dropMask, std::uint8_t* datHeader);
int parseRec17Dat(DatReader& in, Rec17* rec);

}  // namespace nvb

#endif
