#ifndef NVB_RECORDS_SYSTEM_TABLES_H
#define NVB_RECORDS_SYSTEM_TABLES_H

#include <array>
#include <cstdint>
#include <string_view>

namespace nvb {

// Ranges of record 27 above this many metres are stored with it taken off, and a flag.
inline constexpr double kRangeRollover = 33554431.0;

// The dropMask bit that leaves a satellite system out of what is encoded, by rt_sattype.
// Numbers without an entry map to bit 0.
[[nodiscard]] std::uint8_t sysBitOfSatType(std::uint8_t satType);
// The same for clock entries, by rt_clktype: the clock map has numbers of its own.
[[nodiscard]] std::uint8_t sysBitOfClkType(std::uint8_t clkType);

// Satellite number under system 7 of a satellite numbered under system 5; ids outside
// 1 to 11 become 0.
[[nodiscard]] std::uint8_t remapSystem5Sv(std::uint8_t svId);

// Carrier in Hz of a system, band (blockType) and frequency channel k, which only
// GLONASS uses. An unknown combination raises the codecs' assertion and gives 0.
[[nodiscard]] double carrierFreqHz(std::uint8_t satType, std::uint8_t band, int channel);

// Names of fix types, kept for display; no routine of the library looks them up.
inline constexpr std::array<std::string_view, 44> kFixTypeNames = {
    "Autonomous",              // 0
    "DGNSS",                   // 1
    "SBAS",                    // 2
    "RTK Float",               // 3
    "RTK Fixed",               // 4
    "Wide Area RTK Float",     // 5
    "Wide Area RTK Fixed",     // 6
    "OCB",                     // 7
    "OC1",                     // 8
    "OC2",                     // 9
    "OC1+OC2",                 // 10
    "OC1+OC3",                 // 11
    "OC3",                     // 12
    "",                        // 13
    "Autonomous-Kalman",       // 14
    "DGNSS-Kalman",            // 15
    "SBAS-Kalman",             // 16
    "",                        // 17
    "SBAS+-Kalman",            // 18
    "",                        // 19
    "OCB-Kalman",              // 20
    "CP KVC",                  // 21
    "Corvane QPS Coarse",      // 22
    "Corvane QPS Fine",        // 23
    "INS - Autonomous",        // 24
    "INS - DGNSS",             // 25
    "INS - RTK",               // 26
    "INS - SBAS",              // 27
    "INS - KVC-Carrier",       // 28
    "INS - KVC-Code",          // 29
    "INS - Orbicast-Precise",  // 30
    "INS - Dead-Reckoning",    // 31
    "GOCB",                    // 32
    "OC4",                     // 33
    "OC5",                     // 34
    "KVCFast",                 // 35
    "Tidegap",                 // 36
    "RP KVC",                  // 37
    "VP KVC",                  // 38
    "FP KVC",                  // 39
    "OC3+",                    // 40
    "OC5+",                    // 41
    "KVC-Fast (RAM)",          // 42
    "Unknown",                 // 43
};

// Names of inertial alignment states, kept for display like the fix type names.
inline constexpr std::array<std::string_view, 9> kAlignmentStatusNames = {
    "Full navigation accuracy",
    "Fine alignment active",
    "Ground Consistent Coarse Heading",
    "Platform Consistent Coarse Heading Init",
    "Ground Consistent with heading error > 45 deg",
    "Platform Consistent with heading error > 45 deg",
    "Coarse leveling active",
    "Initial Strap-Down-Navigator soln",
    "No valid Strap-Down-Navigator soln"};

}  // namespace nvb

#endif
