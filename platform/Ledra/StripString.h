// Ledra::stripString: `text` without any of the characters in `chars` (by default blanks and
// tabs), wherever they occur; the other characters keep their order. stripString("w D B", "DB")
// is "w  ". Pure function.
#pragma once

#include "Qel/Core/Api.h"
#include "Qel/Core/Types.h"

namespace Ledra {

QEL_API Qel::String stripString(Qel::String const& text, Qel::String const& chars = " \t");

}  // namespace Ledra
