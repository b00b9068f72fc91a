// Placeholder until the event thread lands.
#include <memory>

#include "kestrel/events.h"

namespace kestrel {

void IEvent::postOrCoalesceEvent(EventThread&, const IMatchEventFcn*, const IMergeEventInfoFcn*) {
    delete this;
}

void IEvent::flushEvents(EventThread&, const IMatchEventFcn&) {}

}  // namespace kestrel
