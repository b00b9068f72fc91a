// Seams of KSDebugLog for tests (internal).
#pragma once

#include <cstdio>

#include "kestrel/export.h"

namespace kestrel {
namespace detail {

using DebuggerOutputFcn = void (*)(const wchar_t* text);
using FileOpenFcn = std::FILE* (*)(const char* name, const char* mode);

// Sends the debugger records of every KSDebugLog to fcn instead of the
// platform's debugger output; null restores it.
KESTREL_API void setDebuggerOutputForTesting(DebuggerOutputFcn fcn);

// Opens the debug-output files with fcn instead of std::fopen; null
// restores it.
KESTREL_API void setFileOpenForTesting(FileOpenFcn fcn);

}  // namespace detail
}  // namespace kestrel
