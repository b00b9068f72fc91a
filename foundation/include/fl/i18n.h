// Text conversion of the foundation services: narrow text (UTF-8), ustring
// (UTF-16 code units) and wide text (wchar_t: UTF-16 on Windows, UTF-32
// elsewhere). Use these wherever a path or message crosses between the
// narrow world of messages and the 16-bit world of paths.
//
// Invalid input (a stray UTF-8 byte, an unpaired surrogate) is skipped: each
// bad unit is dropped on its own, nothing takes its place, and the valid text
// around it is kept. fl::filesystem::codecvt_ustring_to_narrow_string offers
// a strict conversion that throws instead.
#pragma once

#include <stdexcept>
#include <string>

#include "fl/export.h"

namespace fl {

// A string of UTF-16 code units, the type of every path at these services.
using ustring = std::u16string;

namespace i18n {

// UTF-16 to UTF-8.
FL_API std::string to_string(const ustring& text);
// UTF-8 to UTF-16.
FL_API ustring to_ustring(const std::string& text);
// UTF-16 to wide text.
FL_API std::wstring to_wstring(const ustring& text);
// Wide text to UTF-16.
FL_API ustring to_ustring(const std::wstring& text);

// Thrown by a strict converter for input that is not valid in its encoding.
class FL_API conversion_error : public std::runtime_error {
  public:
    // what() returns what.
    explicit conversion_error(const std::string& what);
    ~conversion_error() override;
};

// A reusable conversion from strings of From units to strings of To units.
// Concrete converters are made by the services that own an encoding (see
// fl::filesystem::codecvt_ustring_to_narrow_string).
//
// Thread safety: convert() is const and may be called from any thread.
// Lifetime: value object; no resources beyond itself.
// Errors: as the concrete converter documents.
template <typename To, typename From>
class FL_API converter {
  public:
    virtual ~converter() = default;
    // text converted to To units.
    virtual std::basic_string<To> convert(const std::basic_string<From>& text) const = 0;

  protected:
    converter() = default;
    converter(const converter&) = default;
    converter& operator=(const converter&) = default;
};

}  // namespace i18n
}  // namespace fl
