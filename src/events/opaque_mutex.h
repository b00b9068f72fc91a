// The recursive mutex behind the events subsystem's public classes (internal).
#pragma once

#include <boost/thread/lock_guard.hpp>
#include <boost/thread/recursive_mutex.hpp>

#include "kestrel/events.h"

namespace kestrel {
namespace detail {

class OpaqueMutex {
  public:
    boost::recursive_mutex mutex;
};

using OpaqueGuard = boost::lock_guard<boost::recursive_mutex>;

}  // namespace detail
}  // namespace kestrel
