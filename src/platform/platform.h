// The platform layer: the few operating-system services the library needs,
// behind one interface. Each area has its own header, included here; one
// implementation folder per operating system (posix/, win32/) is chosen by
// the build.
#pragma once

#include "platform/debug_output.h"
#include "platform/dynamic_library.h"
#include "platform/files.h"
#include "platform/local_time.h"
#include "platform/system_error.h"
#include "platform/thread_name.h"
#include "platform/thread_priority.h"
#include "platform/timed_waits.h"
