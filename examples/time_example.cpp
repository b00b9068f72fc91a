// Time: Timestamp is seconds as a double, a point in time (since 1970-01-01
// 00:00:00 UTC) or a duration. The current time comes from a process-wide
// clock that follows the wall clock but never jumps: adjustments of the
// system clock are blended in. ElapsedTimer is a plain monotonic stopwatch.
#include <kestrel/kestrel.h>

#include <cstdio>
#include <vector>

int main() {
    const kestrel::Timestamp start;  // now
    std::vector<double> v;
    start.getTimeVector(v);  // local calendar time: year, month, day, hour, minute, seconds
    if (v.size() != 6) {
        std::fprintf(stderr, "cannot convert %f to local time\n", start.getTime());
        return 1;
    }
    std::printf("now: %.6f s since 1970, local time %04.0f-%02.0f-%02.0f %02.0f:%02.0f:%06.3f\n",
                start.getTime(), v[0], v[1], v[2], v[3], v[4], v[5]);

    // A Timestamp plus seconds is a Timestamp: wait until a point in time.
    const kestrel::ElapsedTimer stopwatch;  // starts at once
    const kestrel::Timestamp deadline = start + 0.050;
    while (kestrel::Timestamp() < deadline) {
        kestrel::Thread::sleep(0.005);
    }
    const double elapsed = stopwatch.getElapsedTime();
    const kestrel::Timestamp end;

    // The difference of two Timestamps is seconds.
    std::printf(
        "waited for a deadline 50 ms ahead: the clock moved %.2f ms, the stopwatch "
        "measured %.2f ms\n",
        (end - start) * 1000.0, elapsed * 1000.0);
    std::printf("the clock's steps are about %.3g s\n", kestrel::Timestamp::getGranularity());

    // Compare times with a tolerance rather than for equality.
    return end.isEquivalent(deadline, 0.5) && elapsed > 0.0 ? 0 : 1;
}
