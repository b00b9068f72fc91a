#include "time/process_clock.h"

#include <boost/chrono/system_clocks.hpp>

namespace kestrel {
namespace detail {

// Provisional: reads the wall clock directly.
double processClockNow() {
    const auto since = boost::chrono::system_clock::now().time_since_epoch();
    return boost::chrono::duration<double>(since).count();
}

double processClockSystemGranularity() {
    return 1e-7;
}

}  // namespace detail
}  // namespace kestrel
