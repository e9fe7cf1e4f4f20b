#include <string>

#include "Qel/Containers/LinkQueue.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace Qel {

String LinkQueueMetadata::text() const {
  return String("head " + std::to_string(head) + " next " + std::to_string(next));
}

QelType const* LinkQueueMetadata::staticType() {
  using Boxed = BoxedValue<LinkQueueMetadata>;
  static QelType const* t = TypeBuilder<Boxed>("Qel::LinkQueueMetadata", QelType::Kind::value)
                                .value<U32>("head", [](Boxed const& b) { return b.value().head; })
                                .value<U32>("next", [](Boxed const& b) { return b.value().next; })
                                .done();
  return t;
}

namespace {
[[maybe_unused]] QelType const* const kRegistered = LinkQueueMetadata::staticType();
}

}  // namespace Qel
