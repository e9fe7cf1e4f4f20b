// The one copy of every member of the reactor family, for each constant type.
#include "Orn/ConditionalReactor.h"

namespace Orn {

#define ORN_INSTANTIATE_REACTOR(T) template class ConditionalReactor<T>;
ORN_FOR_EACH_CONSTANT_TYPE(ORN_INSTANTIATE_REACTOR)
#undef ORN_INSTANTIATE_REACTOR

}  // namespace Orn
