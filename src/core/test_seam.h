// KESTREL_TEST_SEAM marks the internal functions through which the project's
// own tests and benchmarks replace system calls or read internal counters.
// They are exported only from a library built with the CMake option
// KESTREL_TEST_SEAMS (on whenever the tests or benchmarks are built); in any
// other build they stay hidden like the rest of the internals, so a release
// library offers hosts nothing they could come to depend on.
#pragma once

#include "kestrel/export.h"

#if defined(KESTREL_TEST_SEAMS)
#define KESTREL_TEST_SEAM KESTREL_API
#else
#define KESTREL_TEST_SEAM
#endif
