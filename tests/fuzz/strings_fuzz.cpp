// caselessCompare and truncate: the comparison is antisymmetric, agrees with
// comparing the lower-cased texts up to their first zero byte, and reads no
// further than the zero; truncate keeps min(n, length) characters.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "kestrel/strings.h"

using namespace kestrel;

// Input: n for truncate, then two texts separated by the first 0xFF byte.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto sign = [](int value) { return (value > 0) - (value < 0); };
    const std::size_t n = size > 0 ? data[0] : 0;
    const auto [a, b] = kestrel_fuzz::splitAt(std::string(data + (size > 0), data + size), '\xff');
    const int ab = caselessCompare(a, b);
    FUZZ_CHECK(caselessCompare(a, kestrel_fuzz::exactCopy(b).get()) == ab);
    FUZZ_CHECK(sign(caselessCompare(b, a)) == -sign(ab));
    FUZZ_CHECK(sign(std::strcmp(toLower(a).c_str(), toLower(b).c_str())) == sign(ab));
    FUZZ_CHECK(caselessIsLessThan(a, b) == (ab < 0));
    FUZZ_CHECK(caselessCompare(a, toUpper(a)) == 0);
    std::string cut = a;
    FUZZ_CHECK(truncate(cut, n) == (n < a.size()) && cut.size() == std::min(n, a.size()));
    FUZZ_CHECK(a.compare(0, cut.size(), cut) == 0);
    return 0;
}
