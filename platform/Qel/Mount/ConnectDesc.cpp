#include "Qel/Mount/ConnectDesc.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

QelType const* ConnectDesc::staticType() {
  using Boxed = BoxedValue<ConnectDesc>;
  static QelType const* t = [] {
    TypeBuilder<Boxed> b("Qel::ConnectDesc", QelType::Kind::value);
    b.value<String>("path", [](Boxed const& cd) { return cd.value().path(); });
    b.type().boxerIs([](void const* native) {
      return GenericIf::PtrConst(Boxed::make(*static_cast<ConnectDesc const*>(native)));
    });
    return b.done();
  }();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = ConnectDesc::staticType();
}

}  // namespace Qel
