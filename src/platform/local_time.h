// Local calendar time: the process's time zone and daylight-saving rules.
#pragma once

#include <cstdint>
#include <ctime>

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

// The fields of a C runtime calendar time, as CalendarTime counts them.
inline CalendarTime fromCalendarFields(const std::tm& local) {
    return CalendarTime{std::int64_t{local.tm_year} + 1900,
                        local.tm_mon + 1,
                        local.tm_mday,
                        local.tm_hour,
                        local.tm_min,
                        local.tm_sec};
}

// Converts seconds since 1970-01-01 00:00:00 UTC to the local calendar time,
// applying the process's current time-zone setting. False when the value
// cannot be represented (out stays unspecified).
bool toLocalCalendarTime(std::int64_t seconds, CalendarTime& out);

}  // namespace platform
}  // namespace kestrel
