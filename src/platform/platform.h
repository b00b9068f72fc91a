// The platform layer: the few operating-system services the library needs,
// behind one interface. Each area has its own header, included here; one
// implementation folder per operating system (posix/, win32/) is chosen by
// the build.
#pragma once

#include "platform/thread_priority.h"
