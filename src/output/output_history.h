#ifndef NVB_OUTPUT_OUTPUT_HISTORY_H
#define NVB_OUTPUT_OUTPUT_HISTORY_H

// What the observation writers remember from one epoch to the next, behind the output
// control's `history` pointer: per satellite row and observation the Compact RINEX
// levels and flags and the last slip count, the Compact RINEX epoch line and clock, and
// the phase alignment of each BINEX signal. Rows are those of the epoch written last;
// two tables alternate, the previous epoch's and the one being written.

#include "output/observation_tables.h"

#include <cstddef>
#include <cstdint>

namespace nvb {

inline constexpr std::size_t kOutputSatellites = 116;
inline constexpr std::size_t kOutputSignals = 6;
inline constexpr std::size_t kEpochLineCapacity = 512;

struct CellHistory {
    std::int64_t level[4];   // value, then its differences of order 1 to 3
    std::int16_t slipCount;  // -1: none seen
    std::int8_t order;       // -1: the next value starts an arc
    char flags[2];           // loss of lock and strength digits as last written
};

struct BinexArc {
    std::int64_t cycles;  // whole cycles added to the phase since the arc began
    std::uint8_t band;
    std::uint8_t code;
    std::uint8_t valid;
};

struct OutputHistory {
    CellHistory cells[2][kOutputSatellites][kObservationRows];
    std::uint8_t saved;  // which table holds the previous epoch
    char epochLine[kEpochLineCapacity];
    std::size_t epochLineLength;
    CellHistory clock;
    BinexArc arcs[2][kOutputSatellites][kOutputSignals];
    std::uint8_t arcSats[2][kOutputSatellites][2];  // svId, system; system 0xFF for none
    std::uint8_t arcSaved;
};

// Forgets the Compact RINEX text history (cell levels and flags, epoch line, clock).
void resetCompactHistory(OutputHistory& history);

}  // namespace nvb

#endif
