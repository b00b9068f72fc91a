// Seams of KSDebugLog for tests (internal).
#pragma once

#include <cstddef>
#include <cstdio>
#include <string>

#include "core/test_seam.h"

namespace kestrel {
namespace detail {

using DebuggerOutputFcn = void (*)(const wchar_t* text);
using FileOpenFcn = std::FILE* (*)(const char* name, const char* mode);

// Sends the debugger records of every KSDebugLog to fcn instead of the
// platform's debugger output; null restores it.
KESTREL_TEST_SEAM void setDebuggerOutputForTesting(DebuggerOutputFcn fcn);

// Opens the debug-output files with fcn instead of std::fopen; null
// restores it.
KESTREL_TEST_SEAM void setFileOpenForTesting(FileOpenFcn fcn);

// The system's text (UTF-16 on Windows, UTF-32 elsewhere) as UTF-8, cut to
// fit a buffer of size characters with its terminator, at a character's
// boundary. Empty for null.
KESTREL_TEST_SEAM std::string narrowSystemText(const wchar_t* text, std::size_t size);

}  // namespace detail
}  // namespace kestrel
