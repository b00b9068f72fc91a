// Umbrella header: everything the library offers.
#pragma once

#include "kestrel/debug_log.h"
#include "kestrel/exception.h"
#include "kestrel/export.h"
#include "kestrel/plugins.h"
#include "kestrel/time.h"
#include "kestrel/ustring.h"
