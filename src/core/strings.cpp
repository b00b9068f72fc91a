#include "kestrel/strings.h"

#include <cctype>
#include <charconv>

namespace kestrel {

namespace {

// Room for the longest text of a long or of a double at precision 16
// ("-2.225073858507201e-308").
constexpr std::size_t kNumberTextSize = 32;

// std::to_chars writes exactly what the classic locale's stream output
// writes (for doubles: printf's "%.16g"), without consulting any locale.
template <typename T>
std::string& appendNumber(std::string& s, T v) {
    char text[kNumberTextSize];
    const std::to_chars_result r = std::to_chars(text, text + kNumberTextSize, v);
    s.append(text, r.ptr);
    return s;
}

int lowerByte(char c) {
    return std::tolower(static_cast<unsigned char>(c));
}

}  // namespace

std::string& operator+=(std::string& s, short v) {
    return appendNumber(s, v);
}

std::string& operator+=(std::string& s, int v) {
    return appendNumber(s, v);
}

std::string& operator+=(std::string& s, long v) {
    return appendNumber(s, v);
}

std::string& operator+=(std::string& s, double v) {
    constexpr int kPrecision = 16;
    char text[kNumberTextSize];
    const std::to_chars_result r =
        std::to_chars(text, text + kNumberTextSize, v, std::chars_format::general, kPrecision);
    s.append(text, r.ptr);
    return s;
}

std::string& operator+=(std::string& s, bool v) {
    return s.append(v ? "true" : "false");
}

std::string operator+(const std::string& s, short v) {
    std::string r(s);
    r += v;
    return r;
}

std::string operator+(const std::string& s, int v) {
    std::string r(s);
    r += v;
    return r;
}

std::string operator+(const std::string& s, long v) {
    std::string r(s);
    r += v;
    return r;
}

std::string operator+(const std::string& s, double v) {
    std::string r(s);
    r += v;
    return r;
}

std::string operator+(const std::string& s, bool v) {
    std::string r(s);
    r += v;
    return r;
}

int caselessCompare(const std::string& a, const std::string& b) {
    return caselessCompare(a, b.c_str());
}

int caselessCompare(const std::string& a, const char* b) {
    const char* p = a.c_str();
    for (;; ++p, ++b) {
        const int ca = lowerByte(*p);
        const int cb = lowerByte(*b);
        if (ca != cb || ca == 0) {
            return ca - cb;
        }
    }
}

bool caselessIsLessThan(const std::string& a, const std::string& b) {
    return caselessCompare(a, b) < 0;
}

std::string toLower(const std::string& s) {
    std::string r(s);
    for (char& c : r) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return r;
}

std::string toUpper(const std::string& s) {
    std::string r(s);
    for (char& c : r) {
        c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
    return r;
}

bool truncate(std::string& s, std::size_t n) {
    if (n >= s.size()) {
        return false;
    }
    s.resize(n);
    return true;
}

}  // namespace kestrel
