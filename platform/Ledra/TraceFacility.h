// The trace facility of the database platform's connection and mount helpers (the loopback agent
// peer, the directory mounter): LEDRA_TRACE="LedraPlatform=5" shows their operational events.
#pragma once

#include "Trace/Trace.h"

TRACE_FACILITY(LedraPlatform);
