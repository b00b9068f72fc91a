// Umbrella header: everything the library offers.
#pragma once

#include "kestrel/debug_log.h"
#include "kestrel/events.h"
#include "kestrel/exception.h"
#include "kestrel/export.h"
#include "kestrel/formatting.h"
#include "kestrel/lock.h"
#include "kestrel/plugins.h"
#include "kestrel/strings.h"
#include "kestrel/threads.h"
#include "kestrel/time.h"
#include "kestrel/ustring.h"
