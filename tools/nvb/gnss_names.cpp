#include "nvb/gnss_names.h"

#include <fmt/format.h>

#include <array>
#include <cmath>

namespace nvbtool {

namespace {

// The system numbers a receiver gives, each with its name and the letter of its
// satellites; BeiDou has three.
struct SystemName {
    const char* name;
    char letter;
};
constexpr std::array<SystemName, 11> kSystems = {{{"GPS", 'G'},
                                                  {"SBAS", 'S'},
                                                  {"GLONASS", 'R'},
                                                  {"Galileo", 'E'},
                                                  {"QZSS", 'J'},
                                                  {"BeiDou", 'C'},
                                                  {nullptr, 0},
                                                  {"BeiDou", 'C'},
                                                  {nullptr, 0},
                                                  {"IRNSS", 'I'},
                                                  {"BeiDou", 'C'}}};

constexpr std::array<const char*, 8> kBlockLevels = {
    "no content block",       "frames as they are",      "Huffman coded frames",     "zlib over bare records",
    "bzip2 over frames",      "bzip2 over bare records", "brotli over bare records", "zstd over bare records"};

bool isNamed(std::uint8_t system) { return system < kSystems.size() && kSystems[system].name != nullptr; }

}  // namespace

std::string systemName(std::uint8_t system) {
    return isNamed(system) ? kSystems[system].name : fmt::format("system {}", system);
}

std::string satelliteName(std::uint8_t system, std::uint8_t svId) {
    if (!isNamed(system)) return fmt::format("{}:{}", system, svId);
    return fmt::format("{}{:02}", kSystems[system].letter, svId);
}

std::string blockLevelText(std::uint8_t level) {
    return level < kBlockLevels.size() ? kBlockLevels[level] : fmt::format("level {}", level);
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
