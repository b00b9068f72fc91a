// A test seam of Event (internal): a call at the very end of signal().
#pragma once

#include "core/test_seam.h"

namespace kestrel {
namespace detail {

// Tests only: called at the very end of every Event::signal(), on the
// signalling thread; nullptr (the default) for none.
using SignalHook = void (*)();
KESTREL_TEST_SEAM void setSignalHookForTesting(SignalHook hook);

}  // namespace detail
}  // namespace kestrel
