#include "Orn/AttrCompare.h"

namespace Orn {

Qel::GenericIf::PtrConst getColLength(Qel::Ptr<Qel::GenericIf const> const& entity,
                                      Qel::AttributeId const& aid) {
  return entity->colLength(aid);
}

#define ORN_INSTANTIATE_COMPARISONS(T)                                                         \
  template bool attrCompare<T>(T const&, Qel::GenericIf::PtrConst const&, Qel::QelAttr const*, \
                               LogicalOp);                                                     \
  template void enumToGif<T>(Qel::GenericIf::PtrConst&, Qel::QelType const*, T const&);
ORN_FOR_EACH_CONSTANT_TYPE(ORN_INSTANTIATE_COMPARISONS)
#undef ORN_INSTANTIATE_COMPARISONS

}  // namespace Orn
