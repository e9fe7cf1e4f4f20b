// Ledrad::Json: the JSON documents ledrad writes (status, explain), as nlohmann's ordered JSON so
// that members stay in the order they are written.
#pragma once

#include <nlohmann/json.hpp>
#include <string>

namespace Ledrad {

using Json = nlohmann::ordered_json;

// `doc` indented by two blanks per level and ended by a newline, in ASCII: every other character
// is written \uXXXX (so no text an agent chose can reach a terminal as a control sequence), and
// each byte that is not valid UTF-8 becomes \ufffd, so the document is strict JSON whatever bytes
// the texts held.
inline std::string jsonText(Json const& doc) {
  return doc.dump(2, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace Ledrad
