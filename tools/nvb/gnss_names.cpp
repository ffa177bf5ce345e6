#include "nvb/gnss_names.h"

#include <fmt/format.h>

#include <cmath>

namespace nvbtool {

std::string systemName(std::uint8_t system) {
    switch (system) {
        case 0:
            return "GPS";
        case 1:
            return "SBAS";
        case 2:
            return "GLONASS";
        case 3:
            return "Galileo";
        case 4:
            return "QZSS";
        case 5:
        case 7:
        case 10:
            return "BeiDou";
        case 9:
            return "IRNSS";
        default:
            return fmt::format("system {}", system);
    }
}

std::string satelliteName(std::uint8_t system, std::uint8_t svId) {
    char letter = '?';
    switch (system) {
        case 0:
            letter = 'G';
            break;
        case 1:
            letter = 'S';
            break;
        case 2:
            letter = 'R';
            break;
        case 3:
            letter = 'E';
            break;
        case 4:
            letter = 'J';
            break;
        case 5:
        case 7:
        case 10:
            letter = 'C';
            break;
        case 9:
            letter = 'I';
            break;
        default:
            return fmt::format("{}:{}", system, svId);
    }
    return fmt::format("{}{:02}", letter, svId);
}

std::string blockLevelText(std::uint8_t level) {
    switch (level) {
        case 0:
            return "no content block";
        case 1:
            return "frames as they are";
        case 2:
            return "Huffman coded frames";
        case 3:
            return "zlib over bare records";
        case 4:
            return "bzip2 over frames";
        case 5:
            return "bzip2 over bare records";
        case 6:
            return "brotli over bare records";
        case 7:
            return "zstd over bare records";
        default:
            return fmt::format("level {}", level);
    }
}

namespace {

// Days from 1970-01-01 to a civil date, proleptic Gregorian.
void civilFromDays(std::int64_t days, int& year, unsigned& month, unsigned& day) {
    days += 719468;
    const std::int64_t era = (days >= 0 ? days : days - 146096) / 146097;
    const auto dayOfEra = static_cast<unsigned>(days - era * 146097);
    const unsigned yearOfEra = (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const unsigned dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const unsigned shifted = (5 * dayOfYear + 2) / 153;
    day = dayOfYear - (153 * shifted + 2) / 5 + 1;
    month = shifted < 10 ? shifted + 3 : shifted - 9;
    year = static_cast<int>(yearOfEra + era * 400 + (month <= 2 ? 1 : 0));
}

}  // namespace

std::string gpsCalendarTime(std::uint16_t week, double towMs) {
    // GPS time began on 1980-01-06, day 3657 of the Unix count; leap seconds don't apply.
    constexpr std::int64_t kGpsEpochDay = 3657;
    const auto totalMs = static_cast<std::int64_t>(std::llround(towMs)) + static_cast<std::int64_t>(week) * 604800000LL;
    const std::int64_t dayMs = 86400000LL;
    const std::int64_t days = totalMs / dayMs;
    const std::int64_t msOfDay = totalMs % dayMs;
    int year = 0;
    unsigned month = 0;
    unsigned day = 0;
    civilFromDays(kGpsEpochDay + days, year, month, day);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02}.{:03}", year, month, day, msOfDay / 3600000,
                       msOfDay / 60000 % 60, msOfDay / 1000 % 60, msOfDay % 1000);
}

}  // namespace nvbtool
