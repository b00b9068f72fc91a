// The debugger output of the process.
#pragma once

namespace kestrel {
namespace platform {

// True when a debugger is attached to the process.
bool IsDebuggerPresent();

// Shows text to an attached debugger; does nothing when none is attached.
// On POSIX the text goes to standard error while a debugger (or any tracer)
// is attached, since that is where a debugger session shows program output.
void OutputDebugStringW(const wchar_t* text);

}  // namespace platform
}  // namespace kestrel
