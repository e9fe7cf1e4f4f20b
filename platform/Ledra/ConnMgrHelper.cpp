#include "Ledra/ConnMgrHelper.h"

namespace Ledra {

ConnectionConfigDir::Ptr const& ConnMgrHelper::connectionConfigDir() {
  static ConnectionConfigDir::Ptr const dir =
      ConnectionConfigDir::connectionConfigDirNew("connectionConfigDir");
  return dir;
}

ConnectionStatusDir::Ptr const& ConnMgrHelper::connectionStatusDir() {
  static ConnectionStatusDir::Ptr const dir =
      ConnectionStatusDir::connectionStatusDirNew("connectionStatusDir");
  return dir;
}

namespace {
// Created when the library loads, so that they exist before anything counts live objects.
[[maybe_unused]] void const* const kConfigDir = ConnMgrHelper::connectionConfigDir().ptr();
[[maybe_unused]] void const* const kStatusDir = ConnMgrHelper::connectionStatusDir().ptr();
}  // namespace

}  // namespace Ledra
