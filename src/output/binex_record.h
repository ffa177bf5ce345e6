#ifndef NVB_OUTPUT_BINEX_RECORD_H
#define NVB_OUTPUT_BINEX_RECORD_H

// The BINEX record 0x7F, subrecord 0x05 of one measurement epoch (mode 2).

#include "output/output_history.h"
#include "output/text_sink.h"

#include <nvbdll/output_control.h>

#include <cstddef>
#include <cstdint>
#include <span>

namespace nvb {

// Bytes a record of `satellites` satellites can take at most.
[[nodiscard]] std::size_t binexEpochBound(std::size_t satellites);

// Appends the record of `image`; nothing for an epoch without satellites.
void binexWriteEpoch(TextSink& sink, const epoch_image_t& image, const std::uint8_t (*slipMarks)[6],
                     rinex_control_t& control, OutputHistory& history);

// CRC-16 with polynomial 0x1021 and start value 0, as BINEX checks its longer records.
[[nodiscard]] std::uint16_t binexCrc16(std::span<const std::uint8_t> bytes);

}  // namespace nvb

#endif
