// Local calendar time: the process's time zone and daylight-saving rules.
#pragma once

#include <cstdint>

namespace kestrel {
namespace platform {

struct CalendarTime {
    std::int64_t year;  // such as 2026
    int month;          // 1 to 12
    int day;            // 1 to 31
    int hour;           // 0 to 23
    int minute;         // 0 to 59
    int second;         // 0 to 60 (60 only for a leap second)
};

// Converts seconds since 1970-01-01 00:00:00 UTC to the local calendar time,
// applying the process's current time-zone setting. False when the value
// cannot be represented (out stays unspecified).
bool toLocalCalendarTime(std::int64_t seconds, CalendarTime& out);

}  // namespace platform
}  // namespace kestrel
