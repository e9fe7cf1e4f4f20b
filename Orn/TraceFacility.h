// The trace facility of the condition reactors: "Orn". Every trace line of the reactors carries
// the file tag "Orn/GenericConditionalReactor" at the start of its message.
#pragma once

#include "Trace/Trace.h"

TRACE_FACILITY(Orn);
