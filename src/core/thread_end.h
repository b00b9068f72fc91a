// Letting a thread's end pass through the library's catch-all handlers
// (internal).
//
// pthread_exit() and thread cancellation end a thread by unwinding its stack
// with a special exception. A handler that catches it and does not rethrow
// makes the C library abort the process ("exception not rethrown"). Every
// catch (...) that can see caller code (hooks, events) is therefore preceded
// by KESTREL_PASS_THREAD_END, which rethrows that exception; on runtimes
// without it the macro is empty.
//
// The runtime hands that handler a null reference (the exception has no
// object), which the undefined-behaviour sanitizer reports: functions with
// such a handler are marked KESTREL_CATCHES_THREAD_END.
#pragma once

#if defined(__GLIBCXX__)
#include <cxxabi.h>
#define KESTREL_PASS_THREAD_END     \
    catch (abi::__forced_unwind&) { \
        throw;                      \
    }
#define KESTREL_CATCHES_THREAD_END __attribute__((no_sanitize("null")))
#else
#define KESTREL_PASS_THREAD_END
#define KESTREL_CATCHES_THREAD_END
#endif
