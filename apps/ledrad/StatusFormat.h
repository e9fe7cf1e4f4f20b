// Ledrad::StatusFormat: the two renderings of a StatusReport for the control program.
//
// table(): a summary line, one row per agent (agent, profile, state, groups, complete mounts,
// what it waits for), then one block per agent with every detail; every text in it is in its
// printable form (Qel::NboAttrLog::printableText), so a row or detail is always one line, and
// columns are as wide as their texts' code points. json(): the same content as a JSON document
// (strict JSON whatever bytes the texts hold); its shape is described in docs/ledrad.md. Pure
// functions.
#pragma once

#include <string>
#include <vector>

#include "apps/ledrad/StatusReport.h"

namespace Ledrad {

std::string statusTable(StatusReport const& report);
std::string statusJson(StatusReport const& report);

// One line for each thing the agent waits for (none when it waits for nothing), as the table's
// details show them: unanswered and failed requests, pending mounts, directory mounters, each
// waiting condition (followed by "  then CONDITION" for the conditions after it), blocking
// conditions.
std::vector<std::string> waitLines(AgentReport const& agent);

// One line saying what the agent waits for first ("-" when nothing), as the table shows it.
std::string waitSummary(AgentReport const& agent);

}  // namespace Ledrad
