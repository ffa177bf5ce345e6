#ifndef NVB_OUTPUT_RINEX_TEXT_H
#define NVB_OUTPUT_RINEX_TEXT_H

// RINEX observation text (mode 1) and its Compact RINEX form (mode 3): the value column,
// the calendar, the epoch line, the observation lines, and the header lines that follow
// from the data.

#include "external/su/epoch_image.h"
#include "output/output_history.h"
#include "output/text_sink.h"

#include <nvbdll/output_control.h>

#include <cstddef>
#include <cstdint>

namespace nvb {

struct CalendarTime {
    int year;
    int month;
    int day;
    int hour;
    int minute;
    int second;
    int weekday;  // 0 Sunday
};

// Calendar of a count of GPS seconds since 1980-01-06; counted from 1985, whose first
// second is 0x9620D00, and every fourth year a leap year. Earlier times give 1980-01-06
// 00:00:00. `leapSecond` takes the time one second earlier and prints the second one
// higher, so that a positive leap second reads 60.
[[nodiscard]] CalendarTime rinexCalendar(std::int64_t gpsSeconds, bool leapSecond = false);

// The 14-character value column with three decimals, by hand up to 2147483647 in
// magnitude; `text` gets a terminating zero.
void rinexFormatValue(double value, char (&text)[15]);

// Decimal digits with a leading minus sign; returns the count written (at most 11 / 20).
std::size_t rinexPutInt(std::int32_t value, char* text);
std::size_t rinexPutInt64(std::int64_t value, char* text);

// Bytes an epoch of `satellites` satellites can take at most, type and header lines
// included.
[[nodiscard]] std::size_t rinexEpochBound(std::size_t satellites);

// The epoch line (mode 1: with its clock; mode 3: differenced, then the clock line).
void rinexWriteEpochLine(TextSink& sink, const epoch_rinex_t& epoch, const rinex_control_t& control,
                         OutputHistory& history);

// The whole epoch: type lines (and the library's header lines while `headerOpen`) when
// the observation list changed, the epoch line and one observation line per satellite.
void rinexWriteEpoch(TextSink& sink, const epoch_rinex_t& epoch, rinex_control_t& control, OutputHistory& history);

}  // namespace nvb

#endif
