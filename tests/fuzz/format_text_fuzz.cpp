// fcns::formatText: trimmed ends, the hanging indent, one closing full stop
// and line feed, and idempotence without an indent.
#include <cstddef>
#include <cstdint>

#include "fuzz_check.h"
#include "kestrel/formatting.h"

// Input: a flags byte, then the text, a zero byte and the indent.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const bool period = (data[0] & 1) != 0;
    const bool newline = (data[0] & 2) != 0;
    const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
    const std::size_t split = std::min(rest.find('\0'), rest.size());
    const auto text = kestrel_fuzz::exactCopy(rest.substr(0, split));
    const auto indent = kestrel_fuzz::exactCopy(split < rest.size() ? rest.substr(split + 1) : "");
    const std::size_t textLength = std::strlen(text.get());
    const std::size_t indentLength = std::strlen(indent.get());

    std::string plain;
    kestrel::fcns::formatText(plain, text.get(), nullptr, period, newline);
    std::string body = plain;
    FUZZ_CHECK(!newline || (!body.empty() && body.back() == '\n'));
    if (newline) {
        body.pop_back();
    }
    FUZZ_CHECK(!period || (!body.empty() && body.back() == '.'));
    FUZZ_CHECK(body.size() <= textLength + (period ? 1 : 0));
    FUZZ_CHECK(body.empty() || (static_cast<unsigned char>(body.front()) >= 32 &&
                                static_cast<unsigned char>(body.back()) >= 32));
    std::string again;
    kestrel::fcns::formatText(again, plain.c_str(), nullptr, period, newline);
    FUZZ_CHECK(again == plain);

    // The indent leads, and every line feed is followed by as many blanks.
    std::string bare, indented, expected;
    kestrel::fcns::formatText(bare, text.get(), nullptr, false, false);
    kestrel::fcns::formatText(indented, text.get(), indent.get(), false, false);
    for (const char c : std::string(indent.get()) + bare) {
        expected += c;
        expected.append(c == '\n' ? indentLength : 0, ' ');
    }
    FUZZ_CHECK(indented == expected);
    return 0;
}
