// Text formatting for display and process-wide identifier counters.
// formatText turns a raw message into a tidy block: trimmed at both ends,
// indented with a hanging indent, optionally closed with a full stop and a
// line break. getUniqueID and getSequentialID hand out integer identifiers.
#pragma once

#include <string>

#include "kestrel/export.h"

namespace kestrel {
namespace fcns {

// Replaces result with the formatted form of text; does nothing at all
// (result keeps its content) when text is null. A null indent means none.
//  1. Bytes below 32 (line feeds, carriage returns, tabs and the other
//     control characters) are trimmed from both ends; the blank is kept.
//     Bytes 0x80 to 0xFF count as text and are kept, so UTF-8 text that
//     starts or ends with a non-ASCII character stays intact.
//  2. The indent is put in front, and every line feed (in the indent or the
//     text) is followed by as many blanks as the indent has characters: a
//     hanging indent. Empty lines inside the text receive the blanks too.
//  3. With endWithPeriod, trailing control characters are trimmed again and
//     a full stop is appended unless the text already ends with one; an
//     empty text becomes ".".
//  4. With endWithNewline, exactly one line feed ends the result.
// Keeps no state; any thread may call it. Throws only std::bad_alloc, and
// then leaves result unchanged.
KESTREL_API void formatText(std::string& result, const char* text, const char* indent,
                            bool endWithPeriod, bool endWithNewline);

// Identifiers from two process-wide 32-bit series. Neither function locks
// or uses atomic operations: callers that draw identifiers from several
// threads serialise their calls themselves. Neither throws.
//
// getUniqueID: the first call returns the current time (Timestamp) in whole
// seconds since 1970-01-01 00:00:00 UTC, each later call one more than the
// call before, whatever the time is then. From 2038-01-19 03:14:08 UTC on,
// the time in seconds no longer fits in 32 bits; the seed then wraps modulo
// 2^32 like the series itself, which wraps from 2147483647 to -2147483648.
KESTREL_API long getUniqueID();
// getSequentialID: 1 at the first call in the process, then 2, 3, ...
KESTREL_API long getSequentialID();

}  // namespace fcns
}  // namespace kestrel
