// Windows: the C runtime's 64-bit local-time conversion, which applies the
// TZ variable when it is set and the system's time zone otherwise.
#include <ctime>

#include "platform/local_time.h"

namespace kestrel {
namespace platform {

bool toLocalCalendarTime(std::int64_t seconds, CalendarTime& out) {
    // Pick up a TZ set or changed since the last conversion.
    _tzset();
    const __time64_t t = seconds;
    std::tm local{};
    if (_localtime64_s(&local, &t) != 0) {
        return false;  // negative, or beyond the year 3000
    }
    out = fromCalendarFields(local);
    return true;
}

}  // namespace platform
}  // namespace kestrel
