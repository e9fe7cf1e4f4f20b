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
// A subscription keeps the connection open instead: the reply "ok" and its text are followed by
// records the server pushes as they come, one or more whole lines each, until the client closes
// its end (what it sends meanwhile is read and ignored). A `watch [AGENT...]` request is answered
// "ok", the current record of every agent watched (all, or those named, whether ledrad knows them
// yet or not), the line "synced", then the record of each agent whose record changes, at most one
// per agent per turn of ledrad's loop (WatchRecord has the lines).
//
// Pure functions; encodeRequest throws std::invalid_argument for an argument that cannot be sent
// and decodeReply std::runtime_error for a reply that is not one.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Ledrad {

struct ControlReply {
  bool ok = false;
  std::string text;
  // Set on an ok reply that opens a subscription: the keys of the records the connection carries
  // after the text (every key when the list is empty).
  std::optional<std::vector<std::string>> subscription{};
};

inline constexpr std::size_t kMaxRequest = 64 * 1024;

std::string encodeRequest(std::vector<std::string> const& words);
// The words of one request line (without its newline).
std::vector<std::string> decodeRequest(std::string_view line);

std::string encodeReply(ControlReply const& reply);
ControlReply decodeReply(std::string_view text);

}  // namespace Ledrad
