#include "PassiveEntityManager/Mount.h"

#include "Qel/Reflection/TypeBuilder.h"

namespace Ledra {

Qel::String Mount::text() const {
  return Qel::String(path_.str() + " (" + type_.str() + ") " + flags_.letters());
}

Qel::String mountRequestLetters(UserFlags const& userFlags, UserFlags const& rootFlags,
                                bool writeMountsGranted) {
  return mountRequestFlags(userFlags, rootFlags.has('N'), writeMountsGranted).text();
}

Qel::MountFlags mountRequestFlags(UserFlags const& userFlags, bool rootFlagN,
                                  bool writeMountsGranted) {
  using F = Qel::MountFlags;
  bool const write = writeMountsGranted ? userFlags.has('w') : userFlags.has('f');
  Qel::U32 bits = write ? F::kWrite : F::kConvertible;
  if (userFlags.has('i')) bits |= F::kLetterI;
  if (userFlags.has('S')) bits |= F::kLetterS;
  bits |= rootFlagN ? F::kSuffixP : F::kSuffixN | F::kSuffixP;
  return F(bits);
}

Qel::QelType const* Mount::staticType() {
  using Boxed = Qel::BoxedValue<Mount>;
  static Qel::QelType const* t = [] {
    Qel::TypeBuilder<Boxed> b("Ledra::Mount", Qel::QelType::Kind::value);
    b.value<Qel::String>("path", [](Boxed const& m) { return m.value().path(); })
        .value<Qel::String>("type", [](Boxed const& m) { return m.value().type(); })
        .value<Qel::String>("flags", [](Boxed const& m) { return m.value().flags(); });
    b.type().boxerIs([](void const* native) {
      return Qel::GenericIf::PtrConst(Boxed::make(*static_cast<Mount const*>(native)));
    });
    return b.done();
  }();
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = Mount::staticType();
}

}  // namespace Ledra
