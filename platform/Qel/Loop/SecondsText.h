// Qel::secondsText: a duration as people write it in messages: whole seconds without a fraction
// ("10"), others with the digits they need ("0.5", "2.25"). Used by texts an outside party reads,
// such as "no hello within 10 seconds".
#pragma once

#include <string>

#include "Qel/Core/Api.h"
#include "Qel/Core/Types.h"

namespace Qel {

QEL_API std::string secondsText(Time seconds);

}  // namespace Qel
