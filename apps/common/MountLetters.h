// LedraApps::explainedMountLetters: what the flag letters of a mount request mean to the agent
// that receives it, as "w: writable; np: ..." ("none" for no letter it knows). The agent prints
// it for what it received, and ledrad for what an agent will receive. A pure function.
#pragma once

#include <string>

namespace LedraApps {

std::string explainedMountLetters(std::string const& letters);

}  // namespace LedraApps
