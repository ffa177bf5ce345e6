#include "output/rinex_text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace nvb {

void putFormatted(TextSink& sink, const char* format, ...) {
    char line[160];
    va_list arguments;
    va_start(arguments, format);
    const int count = std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    if (count < 0 || static_cast<std::size_t>(count) >= sizeof line) {
        sink.failed = true;
        return;
    }
    put(sink, line, static_cast<std::size_t>(count));
}

namespace {

constexpr std::int64_t kSecondsOf1985 = 0x9620D00;
constexpr int kSecondsPerDay = 86400;
constexpr std::array<int, 12> kMonthDays = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
constexpr int kWeekdayOf1985 = 2;  // a Tuesday
constexpr double kWeekSeconds = 604800.0;

constexpr std::size_t kTypesPerLine2 = 9;
constexpr std::size_t kTypesPerLine3 = 13;
constexpr std::size_t kSatellitesPerLine2 = 12;
constexpr std::size_t kValuesPerLine2 = 5;
constexpr std::size_t kClockColumn2 = 68;
constexpr std::size_t kContinuationIndent2 = 32;
constexpr std::size_t kGlonassSlots = 24;
constexpr std::size_t kChannelsPerLine = 8;

bool isRinex3(const rinex_control_t& control) { return control.rinexVersion >= 300; }
std::size_t systemRows(const rinex_control_t& control) { return isRinex3(control) ? kSystemRows : 1; }

// Time of the epoch: the calendar of its whole second, and the seconds within the minute.
struct EpochTime {
    CalendarTime calendar;
    double seconds;
};

EpochTime epochTime(const epoch_rinex_t& epoch) {
    const double ms = epoch.receiveTime;
    const auto wholeSeconds = static_cast<std::int64_t>(std::floor(ms / 1000.0));
    EpochTime time{};
    time.calendar = rinexCalendar(static_cast<std::int64_t>(epoch.weekNum * kWeekSeconds) + wholeSeconds);
    time.seconds = (ms - 60000.0 * std::floor(ms / 60000.0)) / 1000.0;
    return time;
}

int shortYear(int year) { return year % 100; }

// The clock offset rounded to the nanosecond, in whole nanoseconds.
std::int64_t clockNanoseconds(const epoch_rinex_t& epoch) {
    return std::llround(static_cast<double>(epoch.clkOffset) / 1000.0 / 1e-9);
}

// "%12.9f" of the rounded clock; a leading "-0." loses its zero.
std::array<char, 24> clockText(const epoch_rinex_t& epoch) {
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "%12.9f", static_cast<double>(clockNanoseconds(epoch)) * 1e-9);
    if (std::strncmp(text.data(), "-0.", 3) == 0) {
        text[0] = ' ';
        text[1] = '-';
    }
    return text;
}

void putSatellite(TextSink& sink, const epoch_rinex_t& epoch, std::size_t sat, bool zeroPadded) {
    put(sink, systemLetter(epoch.sats[sat][1]));
    putFormatted(sink, zeroPadded ? "%02d" : "%2d", epoch.sats[sat][0]);
}

void putValue(TextSink& sink, double value) {
    char text[15];
    rinexFormatValue(value, text);
    put(sink, text, 14);
}

// A strength in 0.1 dB-Hz as the value column prints it: tens, units, point, tenths, "00".
void putStrength(TextSink& sink, std::uint16_t strength) {
    putFormatted(sink, "%10u.%u00", strength / 10u, strength % 10u);
}

// The observation list of each system row, as the epoch's (or the frozen) table marks it.
struct ObservationLists {
    std::uint8_t entries[kSystemRows][kObservationRows];
    std::size_t counts[kSystemRows];
    std::size_t total;
};

ObservationLists listsOf(const std::uint8_t (&used)[kSystemRows][kObservationRows], std::size_t rows) {
    ObservationLists lists{};
    for (std::size_t row = 0; row < rows; ++row) {
        for (std::size_t obs = 0; obs < kObservationRows; ++obs) {
            if (used[row][obs] != 0) lists.entries[row][lists.counts[row]++] = static_cast<std::uint8_t>(obs);
        }
        lists.total += lists.counts[row];
    }
    return lists;
}

std::size_t storedCount(const std::uint8_t (&list)[kObservationRows]) {
    std::size_t count = 0;
    while (count < kObservationRows && list[count] != 0xFF) ++count;
    return count;
}

bool listChanged(const ObservationLists& lists, const rinex_control_t& control, std::size_t rows) {
    if (lists.total != 0 && lists.total != control.obsCount) return true;
    for (std::size_t row = 0; row < rows; ++row) {
        if (storedCount(control.obsList[row]) != lists.counts[row]) return true;
        if (!std::equal(lists.entries[row], lists.entries[row] + lists.counts[row], control.obsList[row])) return true;
    }
    return false;
}

std::size_t typeLineCount(const rinex_control_t& control) {
    const std::size_t perLine = isRinex3(control) ? kTypesPerLine3 : kTypesPerLine2;
    std::size_t lines = 0;
    for (std::size_t row = 0; row < systemRows(control); ++row) {
        lines += (storedCount(control.obsList[row]) + perLine - 1) / perLine;
    }
    return lines;
}

void writeTypeLines(TextSink& sink, const rinex_control_t& control) {
    const bool rinex3 = isRinex3(control);
    const std::size_t perLine = rinex3 ? kTypesPerLine3 : kTypesPerLine2;
    const char* label = rinex3 ? "SYS / # / OBS TYPES\n" : "# / TYPES OF OBSERV\n";
    for (std::size_t row = 0; row < systemRows(control); ++row) {
        const std::size_t count = storedCount(control.obsList[row]);
        if (count == 0) continue;
        if (rinex3) {
            put(sink, systemLetter(static_cast<std::uint8_t>(row)));
            putFormatted(sink, "%5zu", count);
        } else {
            putFormatted(sink, "%6zu", count);
        }
        for (std::size_t i = 0; i < count; ++i) {
            if (i != 0 && i % perLine == 0) {
                put(sink, rinex3 ? "  " : "");
                put(sink, label);
                putBlanks(sink, 6);
            }
            const std::string_view name = observationName(control.rinexVersion, control.obsList[row][i]);
            putFormatted(sink, rinex3 ? " %3.*s" : "    %2.*s", static_cast<int>(name.size()), name.data());
        }
        const std::size_t inLine = (count - 1) % perLine + 1;
        if (inLine == perLine) {
            put(sink, rinex3 ? "  " : "");
        } else {
            putBlanks(sink, rinex3 ? 54 - 4 * inLine : (kTypesPerLine2 - inLine) * 6);
        }
        put(sink, label);
    }
}

// The event line that announces new type lines within the data.
void writeEventLine(TextSink& sink, const epoch_rinex_t& epoch, const rinex_control_t& control) {
    const EpochTime time = epochTime(epoch);
    const CalendarTime& c = time.calendar;
    if (isRinex3(control)) {
        putFormatted(sink, "> %4d", c.year);
    } else {
        putFormatted(sink, "%c%02d", control.mode == 3 ? '&' : ' ', shortYear(c.year));
    }
    putFormatted(sink, " %2d %2d %2d %2d%11.7f  4%3zu\n", c.month, c.day, c.hour, c.minute, time.seconds,
                 typeLineCount(control));
}

constexpr std::array<std::string_view, 3> kPhaseComments211 = {
    "L2C CARRIER PHASE MEASUREMENTS: PHASE SHIFTS REMOVED        COMMENT             \n",
    "L2C PHASE MATCHES L2 P PHASE                                COMMENT             \n",
    "GLONASS C/A & P PHASE MATCH: PHASE SHIFTS REMOVED           COMMENT             \n",
};
constexpr std::array<std::string_view, 4> kPhaseShifts212 = {
    "G LC  -0.25000                                              SYS / PHASE SHIFT   \n",
    "R L1   0.25000                                              SYS / PHASE SHIFT   \n",
    "R LD  -0.25000                                              SYS / PHASE SHIFT   \n",
    "J LC  -0.25000                                              SYS / PHASE SHIFT   \n",
};
constexpr std::array<std::string_view, 4> kPhaseShifts3 = {
    "G L2X -0.25000                                              SYS / PHASE SHIFT   \n",
    "R L1P  0.25000                                              SYS / PHASE SHIFT   \n",
    "R L2C -0.25000                                              SYS / PHASE SHIFT   \n",
    "J L2X -0.25000                                              SYS / PHASE SHIFT   \n",
};
constexpr std::array<std::string_view, 2> kGioveComments = {
    "GIOVE-A if present is mapped to satellite ID 51             COMMENT             \n",
    "GIOVE-B if present is mapped to satellite ID 52             COMMENT             \n",
};

bool validChannel(std::int8_t channel) { return channel > -8 && channel < 25; }

void writeGlonassChannels(TextSink& sink, const rinex_control_t& control) {
    std::size_t valid = 0;
    for (const std::int8_t channel : control.gloChannels) valid += validChannel(channel) ? 1 : 0;
    if (valid == 0) return;
    putFormatted(sink, "%3zu", valid);
    std::size_t inLine = 0;
    for (std::size_t slot = 0; slot < kGlonassSlots; ++slot) {
        if (!validChannel(control.gloChannels[slot])) continue;
        if (inLine == kChannelsPerLine) {
            put(sink, " GLONASS SLOT / FRQ #\n   ");
            inLine = 0;
        }
        putFormatted(sink, " R%02zu%3d", slot + 1, control.gloChannels[slot]);
        ++inLine;
    }
    putBlanks(sink, (kChannelsPerLine - inLine) * 7);
    put(sink, " GLONASS SLOT / FRQ #\n");
    put(sink, "                                                            GLONASS COD/PHS/BIS \n");
}

void writeHeaderLines(TextSink& sink, const epoch_rinex_t& epoch, const rinex_control_t& control) {
    if (control.obsIntervalSeconds != 0.0) {
        putFormatted(sink, "%10.3f                                                  INTERVAL\n",
                     control.obsIntervalSeconds);
    }
    const EpochTime time = epochTime(epoch);
    const CalendarTime& c = time.calendar;
    putFormatted(sink, "  %3d %5d %5d %5d %5d  %11.7f     GPS         TIME OF FIRST OBS\n", c.year, c.month, c.day,
                 c.hour, c.minute, time.seconds);
    if (control.rinexVersion == 211) {
        for (const std::string_view line : kPhaseComments211) put(sink, line);
    } else if (control.rinexVersion == 212) {
        for (const std::string_view line : kPhaseShifts212) put(sink, line);
    } else {
        for (const std::string_view line : kPhaseShifts3) put(sink, line);
    }
    for (const std::string_view line : kGioveComments) put(sink, line);
    if (isRinex3(control)) put(sink, "DBHZ                                                        SIGNAL STRENGTH UNIT\n");
    if (control.rinexVersion >= 302) writeGlonassChannels(sink, control);
    put(sink, "                                                            END OF HEADER       \n");
}

// The previous epoch's row of a satellite: the same row first, then a search.
std::size_t previousRow(const rinex_control_t& control, const epoch_rinex_t& epoch, std::size_t sat) {
    const auto same = [&](std::size_t row) {
        return control.previousEpoch[row][0] == epoch.sats[sat][0] && control.previousEpoch[row][1] == epoch.sats[sat][1];
    };
    if (same(sat)) return sat;
    for (std::size_t row = 0; row < kOutputSatellites; ++row) {
        if (same(row)) return row;
    }
    return kOutputSatellites;
}

const CellHistory kNoHistory = {{0, 0, 0, 0}, -1, -1, {' ', ' '}};

// Loss of lock of a filled phase cell: its slip mark, and a slip count that moved since
// the satellite's last epoch. Range and strength cells carry none.
std::uint8_t lossOfLock(const epoch_rinex_cell_t& cell, bool phase, const CellHistory& before) {
    if (!phase) return 0;
    std::uint8_t lli = cell.lossOfLock;
    if (before.slipCount >= 0 && before.slipCount != cell.slipCount) lli = static_cast<std::uint8_t>(lli | 1u);
    return lli;
}

// Rows of every table come in triples: range, phase, strength.
bool isPhaseRow(std::uint8_t obs) { return obs % 3 == 1; }

char digitChar(std::uint8_t digit) { return digit == 0 ? ' ' : static_cast<char>('0' + digit); }

// One differenced number of Compact RINEX: an arc start prints "3&" and the value, else
// the difference of the order reached. The history may alias neither side.
void putDifferenced(TextSink& sink, const CellHistory& before, CellHistory& after, std::int64_t value, bool restart,
                    bool strength) {
    char digits[24];
    if (restart || before.order < 0) {
        after.order = 0;
        after.level[0] = value;
        put(sink, "3&");
        put(sink, digits, rinexPutInt64(value, digits));
        put(sink, ' ');
        return;
    }
    const std::int8_t order = static_cast<std::int8_t>(std::min<int>(before.order + 1, 3));
    std::int64_t levels[4] = {value, 0, 0, 0};
    for (int k = 1; k <= order; ++k) levels[k] = levels[k - 1] - before.level[k - 1];
    std::copy(levels, levels + 4, after.level);
    after.order = order;
    const std::int64_t printed = levels[order];
    if (strength && printed >= INT32_MIN && printed <= INT32_MAX) {
        put(sink, digits, rinexPutInt(static_cast<std::int32_t>(printed), digits));
    } else {
        put(sink, digits, rinexPutInt64(printed, digits));
    }
    put(sink, ' ');
}

std::int64_t thousandths(const epoch_rinex_cell_t& cell) {
    if (cell.strengthFlag != 0) return static_cast<std::int64_t>(cell.strength) * 100;
    return std::llround(cell.value * 1000.0);
}

void writeObservationLine(TextSink& sink, const epoch_rinex_t& epoch, std::size_t sat, const rinex_control_t& control,
                          OutputHistory& history) {
    const bool rinex3 = isRinex3(control);
    const bool compact = control.mode == 3;
    const std::uint8_t(&list)[kObservationRows] = control.obsList[rinex3 ? epoch.sats[sat][1] : 0];
    const std::size_t count = storedCount(list);
    const std::size_t found = previousRow(control, epoch, sat);
    const auto& savedRow = history.cells[history.saved][found < kOutputSatellites ? found : 0];
    auto& currentRow = history.cells[history.saved ^ 1][sat];
    char flags[2 * kObservationRows];

    std::size_t lineStart = sink.length;
    if (rinex3 && !compact) putSatellite(sink, epoch, sat, true);
    for (std::size_t i = 0; i < count; ++i) {
        const std::uint8_t obs = list[i];
        const epoch_rinex_cell_t& cell = epoch.cells[sat][obs];
        const CellHistory& before = found < kOutputSatellites ? savedRow[obs] : kNoHistory;
        CellHistory& after = currentRow[obs];
        after = kNoHistory;
        if (!compact && !rinex3 && i != 0 && i % kValuesPerLine2 == 0) {
            endLine(sink, lineStart);
            lineStart = sink.length;
        }
        char lli = ' ';
        char ssi = ' ';
        if (cell.filled == 0) {
            put(sink, compact ? " " : "                ");
        } else {
            const bool phase = isPhaseRow(obs);
            const std::uint8_t lossBits = lossOfLock(cell, phase, before);
            after.slipCount = phase ? cell.slipCount : -1;
            if (cell.strengthFlag == 0) {
                lli = digitChar(lossBits);
                ssi = digitChar(cell.strengthDigit);
            }
            if (compact) {
                putDifferenced(sink, before, after, thousandths(cell), (lossBits & 1u) != 0, cell.strengthFlag != 0);
            } else if (cell.strengthFlag != 0) {
                putStrength(sink, cell.strength);
                put(sink, "  ");
            } else {
                putValue(sink, cell.value);
                put(sink, lli);
                put(sink, ssi);
            }
        }
        after.flags[0] = lli;
        after.flags[1] = ssi;
        for (std::size_t k = 0; k < 2; ++k) {
            const char now = after.flags[k];
            flags[2 * i + k] = now == before.flags[k] ? ' ' : (now == ' ' ? '&' : now);
        }
    }
    if (compact) {
        const std::size_t flagsStart = sink.length;
        put(sink, flags, 2 * count);
        endLine(sink, flagsStart);
    } else {
        endLine(sink, lineStart);
    }
}

}  // namespace

CalendarTime rinexCalendar(std::int64_t gpsSeconds, bool leapSecond) {
    CalendarTime time{1980, 1, 6, 0, 0, 0, 0};
    if (leapSecond) --gpsSeconds;
    if (gpsSeconds < kSecondsOf1985) return time;
    std::int64_t rest = gpsSeconds - kSecondsOf1985;
    const std::int64_t days = rest / kSecondsPerDay;
    time.weekday = static_cast<int>((days + kWeekdayOf1985) % 7);
    time.year = 1985;
    for (;;) {
        const std::int64_t yearSeconds = static_cast<std::int64_t>((time.year & 3) == 0 ? 366 : 365) * kSecondsPerDay;
        if (rest < yearSeconds) break;
        rest -= yearSeconds;
        ++time.year;
    }
    time.month = 1;
    for (std::size_t month = 0; month < kMonthDays.size(); ++month) {
        const int length = kMonthDays[month] + (month == 1 && (time.year & 3) == 0 ? 1 : 0);
        const std::int64_t monthSeconds = static_cast<std::int64_t>(length) * kSecondsPerDay;
        if (rest < monthSeconds) break;
        rest -= monthSeconds;
        ++time.month;
    }
    time.day = static_cast<int>(rest / kSecondsPerDay) + 1;
    rest %= kSecondsPerDay;
    time.hour = static_cast<int>(rest / 3600);
    time.minute = static_cast<int>(rest / 60 % 60);
    time.second = static_cast<int>(rest % 60) + (leapSecond ? 1 : 0);
    return time;
}

void rinexFormatValue(double value, char (&text)[15]) {
    const double magnitude = std::fabs(value);
    if (!(magnitude <= 2147483647.0)) {
        char wide[64];
        std::snprintf(wide, sizeof wide, "%14.3f", value);
        std::memcpy(text, wide, 14);
        text[14] = '\0';
        return;
    }
    auto whole = static_cast<std::uint32_t>(magnitude);
    const double fraction = magnitude - whole;
    auto milli = static_cast<std::uint32_t>(fraction * 1000.0);
    if (fraction * 1000.0 - milli >= 0.5) ++milli;
    if (milli >= 1000) {
        milli -= 1000;
        ++whole;
    }
    const bool roundsToZero = whole == 0 && milli == 0;
    std::memset(text, ' ', 14);
    text[14] = '\0';
    text[10] = '.';
    for (int column = 13; column >= 11; --column) {
        text[column] = static_cast<char>('0' + milli % 10);
        milli /= 10;
    }
    int column = 9;
    do {
        text[column--] = static_cast<char>('0' + whole % 10);
        whole /= 10;
    } while (whole != 0 && column >= 0);
    // A value that rounds to zero prints without its sign: the differenced form, whose
    // integers have no negative zero, could not give the sign back.
    if (value < 0 && !roundsToZero && column >= 0) text[column] = '-';
}

std::size_t rinexPutInt(std::int32_t value, char* text) {
    return static_cast<std::size_t>(std::to_chars(text, text + 11, value).ptr - text);
}

std::size_t rinexPutInt64(std::int64_t value, char* text) {
    return static_cast<std::size_t>(std::to_chars(text, text + 20, value).ptr - text);
}

std::size_t rinexEpochBound(std::size_t satellites) {
    // Header and type lines, the epoch and clock lines, and per satellite its widest
    // line: 26 characters an observation in the Compact form, plus line ends.
    return 16384 + satellites * (64 + kObservationRows * 26);
}

void rinexWriteEpochLine(TextSink& sink, const epoch_rinex_t& epoch, const rinex_control_t& control,
                         OutputHistory& history) {
    const bool rinex3 = isRinex3(control);
    const EpochTime time = epochTime(epoch);
    const CalendarTime& c = time.calendar;
    if (control.mode != 3) {
        const std::array<char, 24> clock = clockText(epoch);
        std::size_t lineStart = sink.length;
        if (rinex3) {
            putFormatted(sink, "> %4d ", c.year);
        } else {
            putFormatted(sink, " %02d ", shortYear(c.year));
        }
        putFormatted(sink, "%2d %2d %2d %2d%11.7f  %1d%3d", c.month, c.day, c.hour, c.minute, time.seconds, 0,
                     epoch.satCount);
        if (rinex3) {
            putFormatted(sink, "      %s000", clock.data());
            endLine(sink, lineStart);
            return;
        }
        for (std::size_t sat = 0; sat < epoch.satCount; ++sat) {
            if (sat != 0 && sat % kSatellitesPerLine2 == 0) {
                if (sat == kSatellitesPerLine2) {
                    putBlanks(sink, lineStart + kClockColumn2 - std::min(sink.length, lineStart + kClockColumn2));
                    put(sink, clock.data());
                }
                endLine(sink, lineStart);
                lineStart = sink.length;
                putBlanks(sink, kContinuationIndent2);
            }
            putSatellite(sink, epoch, sat, false);
        }
        if (epoch.satCount <= kSatellitesPerLine2) {
            putBlanks(sink, lineStart + kClockColumn2 - std::min(sink.length, lineStart + kClockColumn2));
            put(sink, clock.data());
        }
        endLine(sink, lineStart);
        return;
    }

    char line[kEpochLineCapacity];
    TextSink text{reinterpret_cast<std::uint8_t*>(line), sizeof line, 0};
    if (rinex3) {
        putFormatted(text, "> %4d", c.year);
    } else {
        putFormatted(text, "&%02d", shortYear(c.year));
    }
    putFormatted(text, " %2d %2d %2d %2d%11.7f  0%3d", c.month, c.day, c.hour, c.minute, time.seconds, epoch.satCount);
    if (rinex3) putBlanks(text, 6);
    for (std::size_t sat = 0; sat < epoch.satCount; ++sat) putSatellite(text, epoch, sat, rinex3);
    if (text.failed) {
        sink.failed = true;
        return;
    }

    char* stored = history.epochLine;
    const std::size_t storedLength = history.epochLineLength;
    std::size_t lastChanged = 0;
    bool changed = false;
    for (std::size_t i = 0; i < text.length; ++i) {
        const char now = line[i];
        if (now != stored[i]) {
            lastChanged = i;
            changed = true;
        }
        line[i] = now == stored[i] ? ' ' : (now == ' ' ? '&' : now);
        stored[i] = now;
    }
    if (text.length >= storedLength) {
        put(sink, line, changed ? lastChanged + 1 : 0);
    } else {
        put(sink, line, text.length);
        for (std::size_t i = text.length; i < storedLength; ++i) {
            stored[i] = ' ';
            put(sink, '&');
        }
    }
    history.epochLineLength = text.length;
    put(sink, '\n');

    const std::int64_t clock = clockNanoseconds(epoch) * (rinex3 ? 1000 : 1);
    CellHistory next = history.clock;
    putDifferenced(sink, history.clock, next, clock, false, false);
    history.clock = next;
    endLine(sink, sink.length - 1);
}

void rinexWriteEpoch(TextSink& sink, const epoch_rinex_t& epoch, rinex_control_t& control, OutputHistory& history) {
    if (epoch.satCount == 0) return;
    const std::size_t rows = systemRows(control);
    const ObservationLists lists = listsOf(control.keepObsList != 0 ? control.obsUsedFrozen : epoch.obsUsed, rows);
    if (listChanged(lists, control, rows)) {
        std::memset(control.obsList, 0xFF, sizeof control.obsList);
        for (std::size_t row = 0; row < rows; ++row) {
            std::copy(lists.entries[row], lists.entries[row] + lists.counts[row], control.obsList[row]);
        }
        if (control.headerOpen == 0) {
            writeEventLine(sink, epoch, control);
            if (control.mode == 3) resetCompactHistory(history);
        }
        control.obsCount = static_cast<std::uint8_t>(lists.total);
        writeTypeLines(sink, control);
        if (control.headerOpen != 0) {
            writeHeaderLines(sink, epoch, control);
            control.headerOpen = 0;
        }
    }
    rinexWriteEpochLine(sink, epoch, control, history);
    for (std::size_t sat = 0; sat < epoch.satCount; ++sat) writeObservationLine(sink, epoch, sat, control, history);

    for (std::size_t row = 0; row < kOutputSatellites; ++row) {
        const bool used = row < epoch.satCount;
        control.previousEpoch[row][0] = used ? epoch.sats[row][0] : 0;
        control.previousEpoch[row][1] = used ? epoch.sats[row][1] : 0xFF;
        control.previousEpoch[row][2] = used ? epoch.sats[row][2] : 0;
    }
    history.saved ^= 1;
}

void resetCompactHistory(OutputHistory& history) {
    for (auto& table : history.cells) {
        for (auto& row : table) {
            for (CellHistory& cell : row) {
                cell.order = -1;
                cell.flags[0] = ' ';
                cell.flags[1] = ' ';
            }
        }
    }
    std::memset(history.epochLine, ' ', sizeof history.epochLine);
    history.epochLineLength = 0;
    history.clock = kNoHistory;
}

}  // namespace nvb
