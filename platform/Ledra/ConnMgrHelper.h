// Ledra::ConnMgrHelper: access to the process's agent-connection management: its one connection
// configuration directory and its one connection status directory. Both are created when the
// library loads and live as long as the process. Single-threaded.
#pragma once

#include "Ledra/ConnectionConfigDir.h"
#include "Ledra/ConnectionStatusDir.h"
#include "Qel/Core/Api.h"

namespace Ledra {

class QEL_API ConnMgrHelper {
 public:
  ConnMgrHelper() = delete;

  static ConnectionConfigDir::Ptr const& connectionConfigDir();
  static ConnectionStatusDir::Ptr const& connectionStatusDir();
};

}  // namespace Ledra
