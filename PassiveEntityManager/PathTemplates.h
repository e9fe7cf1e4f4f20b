// Path templates: words beginning with "%" in mount paths and template conditions, replaced by
// their values for one agent.
//
// A key's value comes from the agent's own dictionary (PassiveAgentStatus::templateValueDict),
// else from the process-wide reserved keys (globalReservedTemplateKeyDict: "%cellId",
// "%cellPath", "%peerCellId", "%peerCellPath", "%sysname"), else it is empty. Substituted paths
// are cached per agent (PassiveAgentStatus::templateCache) and never invalidated: a value is
// assumed not to change while the agent is connected. Single-threaded.
//
// The computations themselves (agentTemplateValues, substituteTemplates) are pure and take the
// values through callbacks, so that the engine, which keeps them in the agent's status record, and
// a read-only report of what an agent gets, which keeps them aside, compute the same.
#pragma once

#include <cstddef>
#include <functional>
#include <map>

#include "PassiveEntityManager/Export.h"
#include "PassiveEntityManager/PassiveAgentProfile.h"
#include "PassiveEntityManager/PassiveAgentStatus.h"
#include "Qel/Core/Types.h"

namespace Ledra {

using ReservedTemplateKeyDict = std::map<Qel::String, Qel::String>;

// The process-wide reserved template values, filled by the root state machine.
LEDRA_PEM_EXPORT ReservedTemplateKeyDict& globalReservedTemplateKeyDict();

// The value of one key for the agent of `status`.
LEDRA_PEM_EXPORT Qel::String templateValue(Qel::String const& key,
                                           PassiveAgentStatus::Ptr const& status);

using TemplateValueLookup = std::function<Qel::String(Qel::String const& key)>;

// One value of an agent's template dictionary as agentTemplateValues decides it.
struct TemplateValueSetting {
  enum class Source {
    field,    // the agent string's field (or, till the end, fields) for the key: never empty
    empty,    // the key's field is missing or empty: the key is set to the empty text
    missing,  // the agent string has no field at all: nothing is set, the agent cannot be served
    alias,    // an alias key: the value of the key it names
  };
  Source source = Source::field;
  Qel::String key;  // as stored: a profile key without its trailing "$", an alias stripped
  Qel::String value;
  bool tillEnd = false;   // the profile's key ends in "$": its value runs to the string's end
  std::size_t field = 0;  // but for aliases: the key's field (1 is the one after the first "-")
  Qel::String aliasOf;    // alias: the key whose value it takes, stripped
};
using TemplateValueSink = std::function<void(TemplateValueSetting const& setting)>;

// The template values of an agent of `profile` whose agent string is `agentString`
// ("<name>-<field 1>-<field 2>..."): each of the profile's template keys, in the order of their
// positions, takes the next field (a key ending in "$" the rest of the string from its field on,
// "-" included); then each alias key takes the value of the key it names, read with `valueOf`.
// Every value is told to `sink` as soon as it is decided, so `valueOf` must see the values told
// before. A profile without template keys sets nothing (its alias keys neither). An agent string
// without any "-" cannot serve a profile with template keys: `sink` is told of the first key as
// missing, and the result is "No template value found for KEY"; otherwise the result is empty.
LEDRA_PEM_EXPORT Qel::String agentTemplateValues(Qel::String const& agentString,
                                                 PassiveAgentProfile const& profile,
                                                 TemplateValueLookup const& valueOf,
                                                 TemplateValueSink const& sink);

// `path` with every key replaced by `valueOf(key)`, without caching or tracing anything: the
// substitution canonicalizePath makes.
LEDRA_PEM_EXPORT Qel::String substituteTemplates(Qel::String const& path,
                                                 TemplateValueLookup const& valueOf);

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
