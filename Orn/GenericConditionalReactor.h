// The attribute condition reactors: everything a user of Orn needs.
//
//   Orn::LogicalOp, logicalOpToStr, strToLogicalOp     comparison operators and their texts
//   Orn::attrCompare, enumToGif, getColLength          one comparison and its helpers
//   Orn::ConditionalReactor<T>                         the reactor family (one hook:
//   handleAttribute) Orn::CountedNotifiee                               what owners hold reactors
//   through
//
// Trace lines of all of them go to facility "Orn" and begin with "Orn/GenericConditionalReactor".
#pragma once

#include "Orn/AttrCompare.h"
#include "Orn/ConditionalReactor.h"
#include "Orn/ConstantTypes.h"
#include "Orn/CountedNotifiee.h"
#include "Orn/LogicalOp.h"
#include "Orn/TraceFacility.h"
