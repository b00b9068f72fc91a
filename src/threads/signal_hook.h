// A test seam of Event (internal): a call at the very end of signal().
#pragma once

#include "kestrel/export.h"

namespace kestrel {
namespace detail {

// Tests only: called at the very end of every Event::signal(), on the
// signalling thread; nullptr (the default) for none.
using SignalHook = void (*)();
KESTREL_API void setSignalHookForTesting(SignalHook hook);

}  // namespace detail
}  // namespace kestrel
