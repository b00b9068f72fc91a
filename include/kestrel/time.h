// Time values and stopwatches. A Timestamp is seconds held as a double: a
// point in time (seconds since 1970-01-01 00:00:00 UTC) or a duration. The
// current time comes from a process-wide clock that reads the wall clock once,
// then advances with a monotonic stopwatch whose rate is kept in line with the
// wall clock; an adjustment of the wall clock is blended in over 60 seconds
// instead of appearing as a step. ElapsedTimer is a plain monotonic stopwatch.
#pragma once

#include <memory>
#include <vector>

#include "kestrel/export.h"

namespace kestrel {

// A point in time or a duration, in seconds.
//
// Thread safety: a Timestamp is a plain value and is not locked; taking the
//   current time (Timestamp(), now()) is safe from any thread.
// Lifetime: value type, copyable.
// Errors: never throws.
class KESTREL_API Timestamp {
  public:
    // The current time.
    Timestamp();
    // The given seconds.
    Timestamp(double t);  // NOLINT(google-explicit-constructor): a time is its seconds
    // Copies the seconds.
    Timestamp(const Timestamp& other);
    Timestamp& operator=(const Timestamp& other);
    virtual ~Timestamp();

    // Time := the current time.
    void now();
    // The seconds.
    double getTime() const;

    // Fills v with the local calendar time: year, month (1-12), day (1-31),
    // hour, minute and seconds with fraction. Leaves v empty for a time that
    // is not greater than 0, a NaN, or a value the local-time conversion
    // rejects.
    void getTimeVector(std::vector<double>& v) const;

    // True when |this - other| is strictly below tolerance (so never for a
    // tolerance of 0).
    bool isEquivalent(const Timestamp& other, double tolerance) const;

    // Smallest observable step of the current time. Spins until the time
    // changes.
    static double getGranularity();
    // Size of one step of the wall clock, measured at calibration; calibrates
    // the process clock first if needed.
    static double getSystemClockGranularity();

    // Comparisons of the seconds; every comparison involving a NaN is false
    // (and != is true).
    bool operator==(const Timestamp& other) const;
    bool operator!=(const Timestamp& other) const;
    bool operator<(const Timestamp& other) const;
    bool operator<=(const Timestamp& other) const;
    bool operator>(const Timestamp& other) const;
    bool operator>=(const Timestamp& other) const;

    // A time d seconds later (+) or earlier (-); += and -= move this one.
    Timestamp operator+(const double& d) const;
    Timestamp operator-(const double& d) const;
    // This time minus the other, in seconds.
    double operator-(const Timestamp& other) const;
    Timestamp& operator+=(const double& d);
    Timestamp& operator-=(const double& d);

  private:
    double _time;
};

// A stopwatch on the monotonic clock, unaffected by wall-clock changes.
//
// Thread safety: concurrent getElapsedTime() calls are safe; start() must not
//   race with other calls on the same timer.
// Lifetime: not copyable.
// Errors: never throws (except std::bad_alloc from the constructor).
class KESTREL_API ElapsedTimer {
  public:
    // Starts at once unless startNow is false.
    ElapsedTimer(bool startNow = true);
    virtual ~ElapsedTimer();
    ElapsedTimer(const ElapsedTimer&) = delete;
    ElapsedTimer& operator=(const ElapsedTimer&) = delete;

    // (Re)starts the measurement now.
    void start();
    // Seconds since the last start; exactly 0.0 if never started.
    double getElapsedTime() const;

  protected:
    // True once start() has been called (or the timer started at once).
    bool isStarted() const;

  private:
    struct StartInstant;
    std::unique_ptr<StartInstant> _start;
};

namespace fcns {
namespace time {

// The current time in seconds, as Timestamp() would hold it.
KESTREL_API double getCurrentTimestamp();
// Same as Timestamp(t).getTimeVector(v).
KESTREL_API void createTimeVector(double t, std::vector<double>& v);

}  // namespace time
}  // namespace fcns

}  // namespace kestrel
