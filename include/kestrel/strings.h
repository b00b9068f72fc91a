// Narrow-string helpers: appending the text of a number or truth value
// with + and +=, case-insensitive comparison, case conversion and shortening
// in place. They save callers from setting up streams or locales of their own.
//
// The operators take std::string, so argument-dependent lookup searches only
// namespace std and does not find them. Bring them into scope where they are
// used:
//
//     using namespace kestrel;           // everything, or only the operators:
//     using kestrel::operator+=;
//     using kestrel::operator+;
//
//     std::string line = "count ";
//     line += 42;                        // "count 42"
//     line = line + ", ratio " + 0.25;   // "count 42, ratio 0.25"
//
// The standard string operators stay available beside them: appending a
// char or a text still goes to std::string's own operators.
//
// None of the functions keeps state; any thread may call them. They report
// no errors; only std::bad_alloc can escape when a string cannot grow.
#pragma once

#include <cstddef>
#include <string>

#include "kestrel/export.h"

namespace kestrel {

// Append the text of v to s and return s. The text is what a fresh
// std::ostringstream in the classic locale writes: integers in plain decimal
// (a minus sign, no grouping, no plus sign); doubles with precision 16 in
// general notation (0.1, 0.3333333333333333, 100, 1e+20, 1e-07, inf, nan);
// truth values as "true" and "false". The result does not depend on the
// process's locale.
KESTREL_API std::string& operator+=(std::string& s, short v);
KESTREL_API std::string& operator+=(std::string& s, int v);
KESTREL_API std::string& operator+=(std::string& s, long v);
KESTREL_API std::string& operator+=(std::string& s, double v);
KESTREL_API std::string& operator+=(std::string& s, bool v);

// A new string: s followed by the text of v, as operator+= writes it.
KESTREL_API std::string operator+(const std::string& s, short v);
KESTREL_API std::string operator+(const std::string& s, int v);
KESTREL_API std::string operator+(const std::string& s, long v);
KESTREL_API std::string operator+(const std::string& s, double v);
KESTREL_API std::string operator+(const std::string& s, bool v);

// Negative, zero or positive as a sorts before, equal to or after b,
// ignoring case, as the C runtime's strcasecmp does: both texts are mapped
// to lower case through the current C locale (in the default locale only A
// to Z change), compared as unsigned bytes, and only up to the first zero
// byte. Because the mapping is to lower case, '_' sorts before every letter.
// b must not be null; pass "" instead.
KESTREL_API int caselessCompare(const std::string& a, const std::string& b);
KESTREL_API int caselessCompare(const std::string& a, const char* b);
// caselessCompare(a, b) < 0.
KESTREL_API bool caselessIsLessThan(const std::string& a, const std::string& b);

// Copies of s with every character converted by the current C locale's
// tolower/toupper (in the default locale only letters A to Z change). The
// length never changes.
KESTREL_API std::string toLower(const std::string& s);
KESTREL_API std::string toUpper(const std::string& s);

// If n is less than s.size(), cuts s to its first n characters and returns
// true; otherwise leaves s unchanged and returns false.
KESTREL_API bool truncate(std::string& s, std::size_t n);

}  // namespace kestrel
