// Ledrad::controlRequest: one exchange with ledrad's control socket, for ledra-ctl and tests.
//
// Connects to `socketPath`, sends the request (ControlProtocol) and reads the reply until the
// server closes the connection, waiting at most `timeoutMs` milliseconds for each read or write.
// A server that refuses the client (at a limit, or because it took too long) answers with an
// error reply and may close before the request is sent whole: that reply is still returned.
// Throws std::runtime_error with a clear text when ledrad cannot be reached, does not answer in
// time, or answers with something that is no reply; std::invalid_argument for an argument that
// cannot be sent. Blocking; thread-safe.
#pragma once

#include <string>
#include <vector>

#include "apps/ledrad/ControlProtocol.h"

namespace Ledrad {

ControlReply controlRequest(std::string const& socketPath, std::vector<std::string> const& words,
                            int timeoutMs);

}  // namespace Ledrad
