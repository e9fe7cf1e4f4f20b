#include "Qel/Core/Ptr.h"

namespace Qel {

long RefCounted::liveInstances_ = 0;

}  // namespace Qel
