// The trace facility of the passive entity manager, "PassiveEntityManager". Handlers trace their
// entry at kTraceEntry, decisions at the finer kTraceDecision; events of an agent's connection
// (its role, a connection closed) at the coarse kTraceEvent.
#pragma once

#include "Trace/Trace.h"

TRACE_FACILITY(PassiveEntityManager);

namespace Ledra {
inline constexpr int kTraceEvent = 2;
inline constexpr int kTraceEntry = 5;
inline constexpr int kTraceDecision = 6;
}  // namespace Ledra
