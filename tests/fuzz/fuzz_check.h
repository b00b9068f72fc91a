// Shared by the fuzz targets: a property check that stops the run, and
// inputs copied to exact-size heap blocks.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

// Reports a property that does not hold; libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                                                     \
    do {                                                                                          \
        if (!(condition)) {                                                                       \
            std::fprintf(stderr, "%s:%d: property failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                         \
        }                                                                                         \
    } while (0)

namespace kestrel_fuzz {

// The text and one zero byte in a heap block of exactly that size, so that
// AddressSanitizer catches a read past the zero.
inline std::unique_ptr<char[]> exactCopy(const std::string& text) {
    auto copy = std::make_unique<char[]>(text.size() + 1);
    std::memcpy(copy.get(), text.data(), text.size());
    return copy;
}

inline int sign(int value) {
    return (value > 0) - (value < 0);
}

}  // namespace kestrel_fuzz
