// Ledrad::UnixSocket: the few socket operations ledrad and ledra-ctl share.
//
// listenUnixSocket(path) binds a non-blocking, close-on-exec stream socket at `path` and listens.
// A socket file left at the path by a process that is gone (a connect is refused) is removed
// first; a path where something still accepts, a path that is not a socket, a path too long for
// a socket address, or a failure to bind throws std::runtime_error
// "cannot listen on <path>: <reason>". connectUnixSocket(path) connects a blocking,
// close-on-exec stream socket, throwing std::runtime_error "cannot connect to <path>: <reason>".
// The caller owns the returned descriptor. Thread-safe (no shared state).
#pragma once

#include <string>

namespace Ledrad {

int listenUnixSocket(std::string const& path);
int connectUnixSocket(std::string const& path);

}  // namespace Ledrad
