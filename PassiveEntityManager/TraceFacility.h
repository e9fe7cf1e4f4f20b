// The trace facility of the passive entity manager, "PassiveEntityManager". Handlers trace their
// entry at kTraceEntry, decisions at the finer kTraceDecision.
#pragma once

#include "Trace/Trace.h"

TRACE_FACILITY(PassiveEntityManager);

namespace Ledra {
inline constexpr int kTraceEntry = 5;
inline constexpr int kTraceDecision = 6;
}  // namespace Ledra
