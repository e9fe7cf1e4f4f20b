// Ledrad::ControlProtocol: the messages between ledra-ctl and ledrad's control socket.
//
// One exchange per connection. The client sends one request line: the command and its arguments
// separated by tab characters, ended by a newline (an argument can therefore hold blanks but no
// tab or newline). Every word arrives as given, empty ones included: n words are joined by n-1
// tabs (only a request of one empty word reads as the empty line, which is no request). The
// server answers with a reply and closes the connection: a first line "ok" or "error", then the
// reply's text (a status table, JSON, or a message). A request line longer than kMaxRequest bytes
// is refused.
//
// Pure functions; encodeRequest throws std::invalid_argument for an argument that cannot be sent
// and decodeReply std::runtime_error for a reply that is not one.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Ledrad {

struct ControlReply {
  bool ok = false;
  std::string text;
};

inline constexpr std::size_t kMaxRequest = 64 * 1024;

std::string encodeRequest(std::vector<std::string> const& words);
// The words of one request line (without its newline).
std::vector<std::string> decodeRequest(std::string_view line);

std::string encodeReply(ControlReply const& reply);
ControlReply decodeReply(std::string_view text);

}  // namespace Ledrad
