// caselessCompare and truncate: the comparison is antisymmetric, agrees with
// comparing the lower-cased texts up to their first zero byte, and reads no
// further than the zero; truncate keeps min(n, length) characters.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "kestrel/strings.h"

using kestrel_fuzz::sign;

// Input: n for truncate, then two texts separated by the first 0xFF byte.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t n = data[0];
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t split = std::min(rest.find('\xff'), rest.size());
    const std::string a = rest.substr(0, split);
    const std::string b = split < rest.size() ? rest.substr(split + 1) : "";
    const auto bText = kestrel_fuzz::exactCopy(b);

    const int ab = kestrel::caselessCompare(a, b);
    FUZZ_CHECK(kestrel::caselessCompare(a, bText.get()) == ab);
    FUZZ_CHECK(sign(kestrel::caselessCompare(b, a)) == -sign(ab));
    FUZZ_CHECK(sign(std::strcmp(kestrel::toLower(a).c_str(), kestrel::toLower(b).c_str())) ==
               sign(ab));
    FUZZ_CHECK(kestrel::caselessIsLessThan(a, b) == (ab < 0));
    FUZZ_CHECK(kestrel::caselessCompare(a, kestrel::toUpper(a)) == 0);

    std::string cut = a;
    FUZZ_CHECK(kestrel::truncate(cut, n) == (n < a.size()));
    FUZZ_CHECK(cut.size() == std::min(n, a.size()));
    FUZZ_CHECK(a.compare(0, cut.size(), cut) == 0);
    return 0;
}
