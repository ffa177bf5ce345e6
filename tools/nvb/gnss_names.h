#ifndef NVB_TOOL_GNSS_NAMES_H
#define NVB_TOOL_GNSS_NAMES_H

#include <cstdint>
#include <string>

namespace nvbtool {

// The name of a satellite system number of the records: 0 GPS, 1 SBAS, 2 GLONASS,
// 3 Galileo, 4 QZSS, 5, 7 and 10 BeiDou, 9 IRNSS; 6 and 8 have none.
std::string systemName(std::uint8_t system);
// The usual one-letter code and a two-digit number, "G05", "R12", "C30".
std::string satelliteName(std::uint8_t system, std::uint8_t svId);

// The content of a block level (the same numbers as the compression methods).
std::string blockLevelText(std::uint8_t level);

// A GPS week and milliseconds of the week as a calendar time, "2024-12-22 00:00:00.000".
std::string gpsCalendarTime(std::uint16_t week, double towMs);

}  // namespace nvbtool

#endif
