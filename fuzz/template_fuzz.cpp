// Template paths, template conditions and attribute condition texts, as a profile file carries
// them. The input is up to three texts separated by NUL bytes:
//   - a path is substituted for an agent with template values (never fails; the second
//     substitution comes from the cache and equals the first);
//   - a template condition that the file loader accepts never stops the engine, and evaluates;
//   - an attribute condition that the file loader accepts is split by the engine into the same
//     parts the loader read.
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "PassiveEntityManager/ConditionalMountGroupSm.h"
#include "PassiveEntityManager/ModelFactories.h"
#include "PassiveEntityManager/PathTemplates.h"
#include "apps/ledrad/ConditionText.h"

namespace {

std::string_view nextText(std::string_view& rest) {
  std::size_t const end = rest.find('\0');
  std::string_view const text = rest.substr(0, end);
  rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
  return text;
}

Ledra::PassiveAgentStatus::Ptr agentStatus() {
  auto status = Ledra::passiveAgentStatusFactory(Qel::Name("fan-3-left"));
  status->agentStringIs("fan-3-left");
  status->templateValueDictIs("%slot", "3");
  status->templateValueDictIs("%side", "left");
  return status;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  std::string_view rest(reinterpret_cast<char const*>(data), size);
  Qel::String const path(nextText(rest));
  Qel::String const templateCondition(nextText(rest));
  Qel::String const condition(nextText(rest));
  auto const status = agentStatus();

  Qel::String const real = Ledra::canonicalizePath(path, status);
  FUZZ_CHECK(Ledra::canonicalizePath(path, status) == real);

  std::string reason;
  if (Ledrad::TemplateConditionText::parse(templateCondition, reason))
    (void)Ledra::evaluateTemplateCondition(templateCondition, status);

  if (auto const read = Ledrad::ConditionText::parse(condition, reason)) {
    auto const parts = Ledra::ConditionalMountGroupSm::conditionParts(condition);
    FUZZ_CHECK(parts.constant == read->constant);
    FUZZ_CHECK(parts.op == read->op);
    FUZZ_CHECK(parts.len == read->len);
    FUZZ_CHECK(parts.path == read->path);
    FUZZ_CHECK(parts.attribute == read->attribute);
  }
  return 0;
}
