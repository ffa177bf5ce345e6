#include "output/observation_tables.h"

#include "external/su/epoch_image.h"
#include "external/su/su_compr_common.h"

#include <algorithm>
#include <array>

namespace nvb {

namespace {

// One signal of a table: the first of its three observation rows (range, phase,
// strength), its band and tracking code, and whether it only stands in for the row's own.
struct SignalRows {
    std::uint8_t row;
    std::uint8_t band;
    std::uint8_t code;
    bool alternate;
};

// Two-letter types by observation row, as published for the RINEX 2 output.
constexpr std::array<std::string_view, 33> kTwoLetterNames = {
    "CA", "LA", "SA", "P1", "L1", "S1", "CB", "LB", "SB", "P2", "L2", "S2", "CC", "LC", "SC", "CD", "LD",
    "SD", "C2", "L2", "S2", "C5", "L5", "S5", "C6", "L6", "S6", "C7", "L7", "S7", "C8", "L8", "S8",
};

// The signals of the two-letter table, in its order; alternates follow their row.
constexpr std::array<SignalRows, 34> kTwoLetterSignals = {{
    {0, 0, 0, false},   {3, 0, 1, false},   {6, 0, 23, false},  {6, 0, 24, true},   {6, 0, 25, true},
    {6, 0, 20, true},   {6, 0, 21, true},   {6, 0, 23, true},   {9, 1, 1, false},   {9, 1, 2, true},
    {12, 1, 5, false},  {12, 1, 3, true},   {12, 1, 4, true},   {15, 1, 0, false},  {18, 6, 26, false},
    {21, 2, 8, false},  {21, 2, 6, true},   {21, 2, 7, true},   {21, 2, 11, true},  {21, 2, 12, true},
    {21, 2, 13, true},  {21, 3, 11, true},  {21, 3, 12, true},  {21, 3, 13, true},  {24, 5, 31, false},
    {24, 7, 29, true},  {24, 5, 36, true},  {24, 5, 37, true},  {24, 5, 38, true},  {27, 3, 28, false},
    {30, 4, 17, false}, {30, 4, 14, true},  {30, 4, 15, true},  {30, 4, 16, true},
}};

// Band and attribute of the three-letter rows, three rows (C, L, S) to a signal; the
// 3.03 table, whose rows 63 to 65 3.02 names "1I".
constexpr std::array<std::string_view, 29> kThreeLetterSuffixes = {
    "1C", "1P", "2C", "2P", "1B", "1X", "1Z", "2W", "2S", "2L", "2X", "5I", "5Q", "5X", "7I",
    "7Q", "7X", "8I", "8Q", "8X", "6X", "2I", "7I", "6I", "6B", "6C", "6X", "5A", "9A",
};
constexpr std::size_t kBeiDouB1Signal = 21;
constexpr std::size_t kSignalsOf302 = 27;

constexpr std::array<SignalRows, 37> kThreeLetterSignals = {{
    {0, 0, 0, false},   {0, 0, 21, true},   {0, 0, 24, true},   {3, 0, 1, false},   {6, 1, 0, false},
    {9, 1, 1, false},   {12, 0, 22, false}, {12, 0, 25, true},  {15, 0, 20, false}, {15, 0, 23, true},
    {18, 0, 30, false}, {21, 1, 2, false},  {24, 1, 3, false},  {27, 1, 4, false},  {30, 1, 5, false},
    {33, 2, 6, false},  {33, 2, 13, true},  {36, 2, 7, false},  {36, 2, 12, true},  {39, 2, 8, false},
    {39, 2, 11, true},  {42, 3, 13, false}, {45, 3, 12, false}, {48, 3, 11, false}, {51, 4, 16, false},
    {54, 4, 15, false}, {57, 4, 14, false}, {57, 4, 17, true},  {60, 5, 31, false}, {63, 6, 26, false},
    {66, 3, 28, false}, {69, 7, 29, false}, {72, 5, 38, false}, {75, 5, 37, false}, {78, 5, 36, false},
    {81, 2, 0, false},  {84, 11, 0, false},
}};
constexpr std::size_t kSignalsOf302Entries = 35;  // 3.02 stops before "5A" and "9A"

template <std::size_t Signals>
constexpr std::array<ObservationEntry, Signals * 3> expand(const std::array<SignalRows, Signals>& signals) {
    std::array<ObservationEntry, Signals * 3> entries{};
    constexpr std::array<std::uint8_t, 3> kinds = {kKindRange, kKindPhase, kKindStrength};
    for (std::size_t i = 0; i < Signals; ++i) {
        for (std::size_t k = 0; k < 3; ++k) {
            const SignalRows& signal = signals[i];
            entries[i * 3 + k] = ObservationEntry{static_cast<std::uint8_t>(signal.row + k),
                                                  static_cast<std::uint8_t>(kinds[k] | (signal.alternate ? kKindAlternate : 0)),
                                                  signal.band, signal.code};
        }
    }
    return entries;
}

constexpr auto kTwoLetterEntries = expand(kTwoLetterSignals);
constexpr auto kThreeLetterEntries = expand(kThreeLetterSignals);

struct ThreeLetterNames {
    std::array<std::array<char, 4>, kObservationRows> names{};
};

constexpr ThreeLetterNames makeThreeLetterNames(bool rinex302) {
    ThreeLetterNames table;
    constexpr std::array<char, 3> letters = {'C', 'L', 'S'};
    for (std::size_t signal = 0; signal < kThreeLetterSuffixes.size(); ++signal) {
        const std::string_view suffix = signal == kBeiDouB1Signal && rinex302 ? "1I" : kThreeLetterSuffixes[signal];
        for (std::size_t k = 0; k < 3; ++k) table.names[signal * 3 + k] = {letters[k], suffix[0], suffix[1], '\0'};
    }
    return table;
}

constexpr ThreeLetterNames kNames302 = makeThreeLetterNames(true);
constexpr ThreeLetterNames kNames303 = makeThreeLetterNames(false);

// Thresholds of the signal strength digits 2 to 9 below version 300, in 0.1 dB-Hz: other
// systems, then GLONASS.
constexpr std::array<std::uint16_t, 8> kStrengthThresholds = {310, 320, 340, 350, 380, 410, 450, 480};
constexpr std::array<std::uint16_t, 8> kGlonassStrengthThresholds = {120, 130, 140, 150, 200, 250, 300, 340};

constexpr std::array<char, 7> kSystemLetters = {'G', 'S', 'R', 'E', 'J', 'C', 'I'};
constexpr std::array<std::uint8_t, 7> kBinexSystemCodes = {0, 2, 1, 3, 5, 4, 6};

constexpr std::uint8_t kGps = 0;
constexpr std::uint8_t kSbas = 1;
constexpr std::uint8_t kGlonass = 2;
constexpr std::uint8_t kGalileo = 3;
constexpr std::uint8_t kQzss = 4;
constexpr std::uint8_t kBeiDou = 5;
constexpr std::uint8_t kIrnss = 6;

}  // namespace

std::span<const ObservationEntry> observationEntries(std::uint16_t version) {
    switch (version) {
        case 211:
        case 212:
            return kTwoLetterEntries;
        case 302:
            return std::span<const ObservationEntry>(kThreeLetterEntries).first(kSignalsOf302Entries * 3);
        case 303:
            return kThreeLetterEntries;
        default:
            return {};
    }
}

std::string_view observationName(std::uint16_t version, std::uint8_t row) {
    if (version < 300) return row < kTwoLetterNames.size() ? kTwoLetterNames[row] : std::string_view{};
    const std::size_t rows = version == 302 ? kSignalsOf302 * 3 : kObservationRows;
    if (row >= rows) return {};
    return std::string_view((version == 302 ? kNames302 : kNames303).names[row].data(), 3);
}

bool loadObservationTable(rinex_control_t& control, std::uint16_t version) {
    const std::span<const ObservationEntry> entries = observationEntries(version);
    if (entries.empty() || entries.size() > std::size(control.obsTable)) return false;
    for (std::size_t i = 0; i < entries.size(); ++i) {
        control.obsTable[i][0] = entries[i].row;
        control.obsTable[i][1] = entries[i].kind;
        control.obsTable[i][2] = entries[i].band;
        control.obsTable[i][3] = entries[i].code;
    }
    control.obsRowCount = static_cast<std::uint8_t>(entries.size());
    control.rinexVersion = version;
    return true;
}

char systemLetter(std::uint8_t systemIndex) {
    return systemIndex < kSystemLetters.size() ? kSystemLetters[systemIndex] : 'X';
}

bool systemAllowed(std::uint8_t systemIndex, std::uint16_t version) {
    switch (systemIndex) {
        case kGps:
        case kSbas:
        case kGlonass:
        case kGalileo:
            return true;
        case kQzss:
            return version == 212 || version == 302 || version == 303;
        case kBeiDou:
            return version > 211;
        case kIrnss:
            return version == 303;
        default:
            return false;
    }
}

std::uint8_t rinexSignalStrengthDigit(std::uint8_t, std::uint16_t strength, std::uint8_t systemIndex,
                                      std::uint16_t version) {
    if (version >= 300) return static_cast<std::uint8_t>(std::clamp(strength / 60, 1, 9));
    const auto& thresholds = systemIndex == kGlonass ? kGlonassStrengthThresholds : kStrengthThresholds;
    std::uint8_t digit = 1;
    for (std::size_t i = 0; i < thresholds.size(); ++i) {
        if (strength >= thresholds[i]) digit = static_cast<std::uint8_t>(i + 2);
    }
    return digit;
}

std::uint8_t binexSystemCode(std::uint8_t systemIndex) {
    return systemIndex < kBinexSystemCodes.size() ? kBinexSystemCodes[systemIndex] : 15;
}

BinexSignal binexSignalCode(std::uint8_t systemIndex, std::uint8_t band, std::uint8_t trackCode) {
    const auto pick = [trackCode](std::initializer_list<BinexSignal> byCode, std::initializer_list<std::uint8_t> codes,
                                  BinexSignal otherwise) {
        auto code = codes.begin();
        for (const BinexSignal& signal : byCode) {
            if (*code++ == trackCode) return signal;
        }
        return otherwise;
    };
    switch (systemIndex) {
        case kGps:
        case kQzss:
            if (band == 0) {
                if (trackCode >= 20 && trackCode <= 25) return {6, true};
                return pick({{0, false}, {2, false}, {3, false}}, {0, 1, 19}, {0, false});
            }
            if (band == 1) {
                return pick({{17, false}, {17, false}, {13, true}, {14, true}, {15, true}}, {2, 18, 3, 4, 5},
                            {10, false});
            }
            if (band == 2) return pick({{24, false}, {25, false}, {26, false}}, {6, 7, 8}, {23, false});
            break;
        case kSbas:
            if (band == 2) return pick({{7, false}, {8, false}, {9, false}}, {6, 7, 8}, {6, false});
            break;
        case kGlonass:
            if (band == 0) return pick({{2, false}}, {1}, {0, false});
            if (band == 1) return pick({{11, true}, {12, false}}, {0, 1}, {10, false});
            if (band == 9) return pick({{14, false}, {15, false}, {16, false}}, {34, 33, 32}, {13, false});
            break;
        case kGalileo:
            if (band == 0) {
                return pick({{2, true}, {2, true}, {3, true}, {3, true}, {4, false}, {4, false}, {5, false}},
                            {22, 25, 21, 24, 20, 23, 30}, {0, false});
            }
            if (band == 2) return pick({{7, false}, {8, false}, {9, false}}, {13, 12, 11}, {6, false});
            if (band == 3) return pick({{11, false}, {12, false}, {13, false}}, {13, 12, 11}, {10, false});
            if (band == 4) return pick({{15, false}, {16, false}, {17, false}}, {16, 15, 14}, {14, false});
            if (band == 5) return pick({{20, false}, {21, false}, {22, false}}, {38, 37, 36}, {18, false});
            break;
        case kBeiDou:
            if (band == 6) return {0, false};
            if (band == 3) return {10, false};
            if (band == 7) return {20, false};
            if (band == 8) return {24, false};
            break;
        case kIrnss:
            if (band == 2) return {0, false};
            if (band == 11) return {10, false};
            break;
        default:
            break;
    }
    return {0, false};
}

double signalWavelength(std::uint8_t systemIndex, std::uint8_t band, std::int8_t channel) {
    constexpr std::uint8_t kGlonassSystem = 2;
    switch (systemIndex) {
        case kGps:
        case kSbas:
        case kGalileo:
        case kQzss:
            if (band <= 5) return bandWavelength(kGps, band, 0);
            break;
        case kGlonass:
            if (band == 0 || band == 1) return bandWavelength(kGlonassSystem, band, channel);
            if (band == 9) return 0.24940617541232504;
            break;
        case kBeiDou:
            if (band == 6 || band == 3 || band == 7 || band == 8) return bandWavelength(kGps, band, 0);
            break;
        case kIrnss:
            if (band == 2 || band == 11) return bandWavelength(kGps, band, 0);
            break;
        default:
            break;
    }
    return 1.0;
}

}  // namespace nvb
