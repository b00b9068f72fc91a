#include <cmath>
#include <cstdint>
#include <ctime>

#include "kestrel/time.h"
#include "time/process_clock.h"

namespace kestrel {

Timestamp::Timestamp() : _time(detail::processClockNow()) {}
Timestamp::Timestamp(double t) : _time(t) {}
Timestamp::Timestamp(const Timestamp& other) = default;
Timestamp& Timestamp::operator=(const Timestamp& other) = default;
Timestamp::~Timestamp() = default;

void Timestamp::now() {
    _time = detail::processClockNow();
}

double Timestamp::getTime() const {
    return _time;
}

void Timestamp::getTimeVector(std::vector<double>& v) const {
    v.clear();
    if (!(_time > 0.0)) {
        return;  // also rejects NaN
    }
    const double whole = std::floor(_time);
    // Beyond the range of a 64-bit calendar value the conversion cannot work.
    if (whole >= 9.2e18) {
        return;
    }
    const std::time_t seconds = static_cast<std::time_t>(static_cast<std::int64_t>(whole));
    std::tm local{};
    if (localtime_r(&seconds, &local) == nullptr) {
        return;
    }
    v.push_back(static_cast<double>(local.tm_year) + 1900.0);
    v.push_back(static_cast<double>(local.tm_mon) + 1.0);
    v.push_back(static_cast<double>(local.tm_mday));
    v.push_back(static_cast<double>(local.tm_hour));
    v.push_back(static_cast<double>(local.tm_min));
    v.push_back(static_cast<double>(local.tm_sec) + (_time - whole));
}

bool Timestamp::isEquivalent(const Timestamp& other, double tolerance) const {
    return std::fabs(_time - other._time) < tolerance;
}

double Timestamp::getGranularity() {
    const double a = detail::processClockNow();
    double b = detail::processClockNow();
    while (b == a) {
        b = detail::processClockNow();
    }
    return b - a;
}

double Timestamp::getSystemClockGranularity() {
    return detail::processClockSystemGranularity();
}

bool Timestamp::operator==(const Timestamp& other) const {
    return _time == other._time;
}
bool Timestamp::operator!=(const Timestamp& other) const {
    return !(*this == other);
}
bool Timestamp::operator<(const Timestamp& other) const {
    return _time < other._time;
}
bool Timestamp::operator<=(const Timestamp& other) const {
    return _time <= other._time;
}
bool Timestamp::operator>(const Timestamp& other) const {
    return _time > other._time;
}
bool Timestamp::operator>=(const Timestamp& other) const {
    return _time >= other._time;
}

Timestamp Timestamp::operator+(const double& d) const {
    return Timestamp(_time + d);
}
Timestamp Timestamp::operator-(const double& d) const {
    return Timestamp(_time - d);
}
double Timestamp::operator-(const Timestamp& other) const {
    return _time - other._time;
}

Timestamp& Timestamp::operator+=(const double& d) {
    _time += d;
    return *this;
}

Timestamp& Timestamp::operator-=(const double& d) {
    _time -= d;
    return *this;
}

namespace fcns {
namespace time {

double getCurrentTimestamp() {
    return detail::processClockNow();
}

void createTimeVector(double t, std::vector<double>& v) {
    Timestamp(t).getTimeVector(v);
}

}  // namespace time
}  // namespace fcns

}  // namespace kestrel
