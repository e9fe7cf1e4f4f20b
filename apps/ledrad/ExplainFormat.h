// Ledrad::ExplainFormat: the two renderings of an Explanation for the control program.
//
// explainTable(): the agent's profile and why, its agent string, template values (each with where
// it came from), the reserved values and what it waits for; then one row per group (taken groups
// in the order the engine takes them, then the groups left out) with its status and what holds it
// back; then one block per group with its template conditions, its attribute conditions and their
// present values, and its mounts with their letters explained. Every text is in its printable
// form (Qel::NboAttrLog::printableText), so each row or detail is one line. explainJson(): the same
// content as a JSON document (strict JSON whatever bytes the texts hold); its shape is described in
// docs/ledrad.md. Pure functions.
#pragma once

#include <string>

#include "apps/ledrad/Explain.h"

namespace Ledrad {

std::string explainTable(Explanation const& e);
std::string explainJson(Explanation const& e);

}  // namespace Ledrad
