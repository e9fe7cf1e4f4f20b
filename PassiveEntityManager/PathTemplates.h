// Path templates: words beginning with "%" in mount paths and template conditions, replaced by
// their values for one agent.
//
// A key's value comes from the agent's own dictionary (PassiveAgentStatus::templateValueDict),
// else from the process-wide reserved keys (globalReservedTemplateKeyDict: "%cellId",
// "%cellPath", "%peerCellId", "%peerCellPath", "%sysname"), else it is empty. Substituted paths
// are cached per agent (PassiveAgentStatus::templateCache) and never invalidated: a value is
// assumed not to change while the agent is connected. Single-threaded.
#pragma once

#include <map>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "Qel/Types.h"

namespace Ledra {

using ReservedTemplateKeyDict = std::map<Qel::String, Qel::String>;

// The process-wide reserved template values, filled by the root state machine.
LEDRA_PEM_EXPORT ReservedTemplateKeyDict& globalReservedTemplateKeyDict();

// The value of one key for the agent of `status`.
LEDRA_PEM_EXPORT Qel::String templateValue(Qel::String const& key,
                                           PassiveAgentStatus::Ptr const& status);

// `path` with every key replaced by its value; a path without "%" is returned as it is, uncached.
// A key runs from its "%" to the next "%", "-" or "/" (the "-" or "/" is kept) or the end.
LEDRA_PEM_EXPORT Qel::String canonicalizePath(Qel::String const& path,
                                              PassiveAgentStatus::Ptr const& status);

// A template condition "template operator value" (blank-separated, read in that order): the
// template and the value are substituted, "NULL" stands for the empty text, and the operator must
// be equality or inequality ("==", "!=", "in", "notin"; anything else is a fatal assertion).
struct TemplateConditionParts {
  Qel::String templ;
  Qel::String op;
  Qel::String value;
  Qel::String rest;  // whatever follows the value, without the blanks before it
};
// The words of a template condition as evaluateTemplateCondition reads them: separated by blanks
// and tabs, missing ones empty.
LEDRA_PEM_EXPORT TemplateConditionParts templateConditionParts(Qel::String const& condition);

LEDRA_PEM_EXPORT bool evaluateTemplateCondition(Qel::String const& condition,
                                                PassiveAgentStatus::Ptr const& status);

}  // namespace Ledra
