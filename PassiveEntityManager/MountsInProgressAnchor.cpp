#include "PassiveEntityManager/MountsInProgressAnchor.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "PassiveEntityManager/PassiveEntityManagerSm.h"
#include "Qel/Core/Exception.h"

namespace Ledra {

MountsInProgressAnchor::MountsInProgressAnchor(PassiveEntityManagerSm* pEmSm)
    : pEmSm_(pEmSm), guarding_(true) {
  handleInit();
}

namespace {
PassiveEntityManagerSm* engineFromText(Qel::String const& text) {
  char* end = nullptr;
  unsigned long long const v = std::strtoull(text.c_str(), &end, 16);
  if (text.rfind("0x", 0) != 0 || end == text.c_str() + 2 || *end != '\0')
    throw Qel::ParseException("MountsInProgressAnchor: not an address: " + text);
  return reinterpret_cast<PassiveEntityManagerSm*>(static_cast<std::uintptr_t>(v));
}
}  // namespace

MountsInProgressAnchor::MountsInProgressAnchor(Qel::String const& text)
    : pEmSm_(engineFromText(text)), guarding_(false) {}

MountsInProgressAnchor::~MountsInProgressAnchor() {
  handleDestruct();
}

void MountsInProgressAnchor::handleInit() {
  if (pEmSm_) pEmSm_->mountsInProgressIs(true);
}

void MountsInProgressAnchor::handleDestruct() {
  if (guarding_ && pEmSm_) pEmSm_->mountsInProgressIs(false);
}

Qel::String MountsInProgressAnchor::text() const {
  char buf[32];
  std::snprintf(buf, sizeof buf, "0x%llx",
                static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pEmSm_)));
  return Qel::String(buf);
}

Qel::QelType const* MountsInProgressAnchor::staticType() {
  static Qel::QelType const* t =
      &Qel::QelType::typeNew("Ledra::MountsInProgressAnchor", Qel::QelType::Kind::value);
  return t;
}

namespace {
[[maybe_unused]] Qel::QelType const* const kRegistered = MountsInProgressAnchor::staticType();
}

}  // namespace Ledra
