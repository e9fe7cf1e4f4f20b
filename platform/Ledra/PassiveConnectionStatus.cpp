#include "Ledra/PassiveConnectionStatus.h"

#include "Qel/TypeBuilder.h"

namespace Ledra {

Qel::QelType const* PassiveConnectionStatus::staticType() {
  using S = PassiveConnectionStatus;
  static Qel::QelType const* t =
      Qel::TypeBuilder<S>("Ledra::PassiveConnectionStatus")
          .value<Qel::Name>(
              "agentName", [](S const& s) { return s.agentName(); },
              [](S& s, Qel::Name const& v) { s.agentNameIs(v); })
          .value<Qel::String>(
              "agentString", [](S const& s) { return s.agentString(); },
              [](S& s, Qel::String const& v) { s.agentStringIs(v); })
          .value<bool>(
              "whiteList", [](S const& s) { return s.whiteList(); },
              [](S& s, bool v) { s.whiteListIs(v); })
          .value<bool>(
              "established", [](S const& s) { return s.established(); },
              [](S& s, bool v) { s.establishedIs(v); })
          .value<Qel::U32>(
              "state", [](S const& s) { return s.state(); }, [](S& s, Qel::U32 v) { s.stateIs(v); })
          .value<bool>(
              "connected", [](S const& s) { return s.connected(); },
              [](S& s, bool v) { s.connectedIs(v); })
          .factory(
              [](Qel::Name const& n) { return Qel::Entity::Ptr(passiveConnectionStatusNew(n)); })
          .done();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = PassiveConnectionStatus::staticType();
}

}  // namespace Ledra
