#include "kestrel/formatting.h"

#include <cmath>
#include <cstdint>
#include <cstring>

#include "kestrel/time.h"

namespace kestrel {
namespace fcns {

namespace {

// Control characters are trimmed from the ends of a text. Bytes 0x80 to
// 0xFF are text (parts of UTF-8 characters), not control characters.
bool isTrimmed(char c) {
    return static_cast<unsigned char>(c) < 32;
}

void trimBack(std::string& s) {
    std::size_t end = s.size();
    while (end > 0 && isTrimmed(s[end - 1])) {
        --end;
    }
    s.erase(end);
}

// Reduces v modulo 2^32 into the 32-bit signed range (two's complement).
std::int32_t wrapToInt32(std::int64_t v) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(v));
}

// The two series. 0 in the unique counter means "not seeded yet". Not
// synchronised: see the header.
std::int32_t uniqueCounter = 0;
std::int32_t sequentialCounter = 1;

}  // namespace

void formatText(std::string& result, const char* text, const char* indent, bool endWithPeriod,
                bool endWithNewline) {
    if (text == nullptr) {
        return;
    }
    const std::size_t indentLength = indent == nullptr ? 0 : std::strlen(indent);

    const char* first = text;
    const char* last = text + std::strlen(text);
    while (first != last && isTrimmed(*first)) {
        ++first;
    }
    while (last != first && isTrimmed(*(last - 1))) {
        --last;
    }

    // Built aside, so that result stays as it was if memory runs out.
    std::string out;
    out.reserve(indentLength + static_cast<std::size_t>(last - first) + 2);
    auto put = [&](char c) {
        out += c;
        if (c == '\n') {
            out.append(indentLength, ' ');
        }
    };
    for (std::size_t i = 0; i < indentLength; ++i) {
        put(indent[i]);
    }
    for (const char* p = first; p != last; ++p) {
        put(*p);
    }

    if (endWithPeriod) {
        trimBack(out);
        if (out.empty() || out.back() != '.') {
            out += '.';
        }
    }
    if (endWithNewline) {
        out += '\n';
    }
    result.swap(out);
}

long getUniqueID() {
    std::int32_t value = uniqueCounter;
    if (value == 0) {
        const double seconds = std::trunc(time::getCurrentTimestamp());
        // Anything a 64-bit integer cannot hold (or a NaN) seeds with 0.
        const bool representable = std::fabs(seconds) < 9.2e18;
        value = representable ? wrapToInt32(static_cast<std::int64_t>(seconds)) : 0;
    }
    uniqueCounter = wrapToInt32(std::int64_t{value} + 1);
    return value;
}

long getSequentialID() {
    const std::int32_t value = sequentialCounter;
    sequentialCounter = wrapToInt32(std::int64_t{value} + 1);
    return value;
}

}  // namespace fcns
}  // namespace kestrel
