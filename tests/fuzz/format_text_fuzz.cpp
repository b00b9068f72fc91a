// fcns::formatText: trimmed ends, the hanging indent, one closing full stop
// and line feed, and idempotence without an indent.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "kestrel/formatting.h"

using kestrel::fcns::formatText;

// Input: a flags byte, then the text, a zero byte and the indent.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const bool period = size > 0 && (data[0] & 1) != 0, newline = size > 0 && (data[0] & 2) != 0;
    const auto parts = kestrel_fuzz::splitAt(std::string(data + (size > 0), data + size), '\0');
    const auto text = kestrel_fuzz::exactCopy(parts.first);
    const auto indent = kestrel_fuzz::exactCopy(parts.second);

    std::string plain, again, bare, indented, expected;
    formatText(plain, text.get(), nullptr, period, newline);
    formatText(again, plain.c_str(), nullptr, period, newline);
    FUZZ_CHECK(again == plain);
    FUZZ_CHECK(!newline || (!plain.empty() && plain.back() == '\n'));
    const std::string body = plain.substr(0, plain.size() - (newline ? 1 : 0));
    FUZZ_CHECK(!period || (!body.empty() && body.back() == '.'));
    FUZZ_CHECK(body.size() <= std::strlen(text.get()) + (period ? 1 : 0));
    FUZZ_CHECK(body.empty() || (static_cast<unsigned char>(body.front()) >= 32 &&
                                static_cast<unsigned char>(body.back()) >= 32));

    // The indent leads, and every line feed is followed by as many blanks.
    formatText(bare, text.get(), nullptr, false, false);
    formatText(indented, text.get(), indent.get(), false, false);
    for (const char c : std::string(indent.get()) + bare) {
        expected.append(1, c).append(c == '\n' ? std::strlen(indent.get()) : 0, ' ');
    }
    FUZZ_CHECK(indented == expected);
    return 0;
}
