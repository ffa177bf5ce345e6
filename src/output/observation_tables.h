#ifndef NVB_OUTPUT_OBSERVATION_TABLES_H
#define NVB_OUTPUT_OBSERVATION_TABLES_H

// The tables behind observation output: the observation types of RINEX 2 and 3 with the
// band and tracking code that fill each, the system letters and which version may carry
// a system, the signal strength digit, and the signal codes and wavelengths of BINEX.

#include <nvbdll/output_control.h>

#include <cstdint>
#include <span>
#include <string_view>

namespace nvb {

inline constexpr std::size_t kObservationRows = 87;
inline constexpr std::size_t kSystemRows = 10;

// Kind bits of an observation table entry.
inline constexpr std::uint8_t kKindPhase = 1;
inline constexpr std::uint8_t kKindRange = 2;
inline constexpr std::uint8_t kKindStrength = 4;
inline constexpr std::uint8_t kKindAlternate = 0x80;

struct ObservationEntry {
    std::uint8_t row;   // observation row index
    std::uint8_t kind;  // kind bits, 0x80 for an alternate
    std::uint8_t band;
    std::uint8_t code;  // tracking code
};

// The entries of a version's table (two-letter types below 300, three-letter ones from
// it; 3.02 names BeiDou B1 "1I", 3.03 "2I"), empty for a version without one.
[[nodiscard]] std::span<const ObservationEntry> observationEntries(std::uint16_t version);
// The type of an observation row in that version, "CA" or "C1C"; empty beyond the table.
[[nodiscard]] std::string_view observationName(std::uint16_t version, std::uint8_t row);

// Copies the version's table into the control (`obsTable`, `obsRowCount`); false for a
// version that has none.
[[nodiscard]] bool loadObservationTable(rinex_control_t& control, std::uint16_t version);

// The letter of a `rinexSystemIndex` and whether a version carries that system.
[[nodiscard]] char systemLetter(std::uint8_t systemIndex);
[[nodiscard]] bool systemAllowed(std::uint8_t systemIndex, std::uint16_t version);

// RINEX signal strength digit 1 to 9 of a strength in 0.1 dB-Hz: by threshold table
// below version 300 (GLONASS with its own column), strength / 60 from it.
[[nodiscard]] std::uint8_t rinexSignalStrengthDigit(std::uint8_t band, std::uint16_t strength,
                                                    std::uint8_t systemIndex, std::uint16_t version);

// BINEX system code of a `rinexSystemIndex` (15 for none).
[[nodiscard]] std::uint8_t binexSystemCode(std::uint8_t systemIndex);

struct BinexSignal {
    std::uint8_t code;
    bool pilot;
};
[[nodiscard]] BinexSignal binexSignalCode(std::uint8_t systemIndex, std::uint8_t band, std::uint8_t trackCode);

// Carrier wavelength in metres by `rinexSystemIndex`, band and GLONASS channel; 1.0 for a
// pair without one.
[[nodiscard]] double signalWavelength(std::uint8_t systemIndex, std::uint8_t band, std::int8_t channel);

}  // namespace nvb

#endif
