// Shared by the fuzz targets: a property check that stops the run, and
// inputs copied to exact-size heap blocks.
#pragma once

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <utility>

// Reports a property that does not hold; libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                     \
    ((condition)                                                                                  \
         ? void()                                                                                 \
         : (std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition), \
            std::abort()))

namespace kestrel_fuzz {

// The text and one zero byte in a heap block of exactly that size, so that
// AddressSanitizer catches a read past the zero.
inline std::unique_ptr<char[]> exactCopy(const std::string& text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.data(), text.size());
    return copy;
}

// The parts of text before and after the first separator (the second empty
// without one).
inline std::pair<std::string, std::string> splitAt(const std::string& text, char separator) {
    const std::size_t split = std::min(text.find(separator), text.size());
    return {text.substr(0, split), split < text.size() ? text.substr(split + 1) : ""};
}

}  // namespace kestrel_fuzz
