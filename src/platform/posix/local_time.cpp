#include <ctime>
#include <limits>

#include "platform/local_time.h"

namespace kestrel {
namespace platform {

bool toLocalCalendarTime(std::int64_t seconds, CalendarTime& out) {
    if (seconds > std::numeric_limits<std::time_t>::max() ||
        seconds < std::numeric_limits<std::time_t>::min()) {
        return false;
    }
    const auto t = static_cast<std::time_t>(seconds);
    // localtime_r, unlike localtime, need not pick up a changed TZ by itself.
    tzset();
    std::tm local{};
    if (localtime_r(&t, &local) == nullptr) {
        return false;
    }
    out = fromCalendarFields(local);
    return true;
}

}  // namespace platform
}  // namespace kestrel
