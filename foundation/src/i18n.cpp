#include "fl/i18n.h"

#include <boost/locale/encoding_utf.hpp>
#include <iterator>

#include "internal.h"

namespace fl {
namespace i18n {

namespace {

namespace conv = boost::locale::conv;

// The one place where the services convert between Unicode forms, with
// Boost.Locale's UTF machinery. Strict conversion throws on invalid input.
// Lenient conversion drops each invalid unit by itself: utf_to_utf's own
// skipping would also drop a valid unit that follows a broken sequence.
template <typename To, typename From>
std::basic_string<To> convertUtf(const std::basic_string<From>& text, bool strict) {
    if (strict) {
        try {
            return conv::utf_to_utf<To, From>(text, conv::stop);
        } catch (const conv::conversion_error&) {
            throw conversion_error("fl::i18n: invalid Unicode input");
        }
    }
    using boost::locale::utf::utf_traits;
    std::basic_string<To> result;
    result.reserve(text.size());
    auto out = std::back_inserter(result);
    const From* const end = text.data() + text.size();
    for (const From* current = text.data(); current != end;) {
        const From* const start = current;
        const boost::locale::utf::code_point c = utf_traits<From>::decode(current, end);
        if (c == boost::locale::utf::illegal || c == boost::locale::utf::incomplete) {
            current = start + 1;
        } else {
            out = utf_traits<To>::encode(c, out);
        }
    }
    return result;
}

}  // namespace

std::string to_string(const ustring& text) {
    return convertUtf<char>(text, false);
}

ustring to_ustring(const std::string& text) {
    return convertUtf<char16_t>(text, false);
}

std::wstring to_wstring(const ustring& text) {
    return convertUtf<wchar_t>(text, false);
}

ustring to_ustring(const std::wstring& text) {
    return convertUtf<char16_t>(text, false);
}

conversion_error::conversion_error(const std::string& what) : std::runtime_error(what) {}
conversion_error::~conversion_error() = default;

namespace detail {

std::string to_string(const ustring& text, bool strict) {
    return convertUtf<char>(text, strict);
}

}  // namespace detail

}  // namespace i18n
}  // namespace fl
