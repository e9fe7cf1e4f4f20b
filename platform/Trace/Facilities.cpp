#include "Trace/Facilities.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>

#include "Trace/Facility.h"

namespace Trace {

namespace {

struct Parsed {
  std::string name;
  int level;
};

std::string_view trimmed(std::string_view text) {
  auto const blank = [](char c) { return c == ' ' || c == '\t'; };
  while (!text.empty() && blank(text.front()))
    text.remove_prefix(1);
  while (!text.empty() && blank(text.back()))
    text.remove_suffix(1);
  return text;
}

std::string malformed(std::string_view entry) {
  return "ignoring \"" + std::string(entry) + "\" (expected <facility>=<level 0..9>)";
}

// Splits settings into entries; malformed ones go to errors.
std::vector<Parsed> parse(std::string_view settings, std::vector<std::string>& errors) {
  std::vector<Parsed> entries;
  while (!settings.empty()) {
    std::size_t const comma = settings.find(',');
    std::string_view const entry = trimmed(settings.substr(0, comma));
    settings = comma == std::string_view::npos ? std::string_view() : settings.substr(comma + 1);
    if (entry.empty()) continue;
    std::size_t const equals = entry.find('=');
    if (equals == std::string_view::npos) {
      errors.push_back(malformed(entry));
      continue;
    }
    std::string_view const name = trimmed(entry.substr(0, equals));
    std::string_view const value = trimmed(entry.substr(equals + 1));
    int level = -1;
    auto const [end, status] = std::from_chars(value.data(), value.data() + value.size(), level);
    bool const numeric = status == std::errc() && end == value.data() + value.size();
    if (name.empty() || value.empty() || !numeric || level < 0 || level > Facility::kMaxLevel) {
      errors.push_back(malformed(entry));
      continue;
    }
    entries.push_back({std::string(name), level});
  }
  return entries;
}

}  // namespace

Facilities& Facilities::instance() {
  static Facilities facilities;
  return facilities;
}

Facilities::Facilities() {
  char const* const value = std::getenv(kEnvironmentVariable);
  if (value == nullptr) return;
  startupSettings_ = value;
  startupReportPending_ = true;
  std::vector<std::string> ignored;
  for (Parsed& entry : parse(startupSettings_, ignored)) {
    settings_.push_back({std::move(entry.name), entry.level});
  }
}

Facility* Facilities::find(std::string_view name) const {
  auto const it = std::find_if(facilities_.begin(), facilities_.end(),
                               [name](Facility* f) { return f->name() == name; });
  return it == facilities_.end() ? nullptr : *it;
}

void Facilities::apply(Setting const& setting, Facility& facility) const {
  if (setting.name != "*" && setting.name != facility.name()) return;
  facility.levelIs(setting.level);
}

LevelSettingResult Facilities::levelsAre(std::string_view settings) {
  LevelSettingResult result;
  for (Parsed& entry : parse(settings, result.errors)) {
    Setting setting{std::move(entry.name), entry.level};
    for (Facility* facility : facilities_)
      apply(setting, *facility);
    bool const known = setting.name == "*" || find(setting.name) != nullptr;
    bool const listed = std::find(result.unknownNames.begin(), result.unknownNames.end(),
                                  setting.name) != result.unknownNames.end();
    if (!known && !listed) result.unknownNames.push_back(setting.name);
    settings_.push_back(std::move(setting));
  }
  return result;
}

void Facilities::reset() {
  settings_.clear();
  for (Facility* facility : facilities_)
    facility->levelIs(0);
}

void Facilities::readEnvironment(std::FILE* out) {
  char const* const value = std::getenv(kEnvironmentVariable);
  if (value == nullptr) return;
  report(levelsAre(value), out);
}

void Facilities::reportStartupProblems(std::FILE* out) {
  if (!startupReportPending_) return;
  startupReportPending_ = false;
  LevelSettingResult result;
  for (Parsed const& entry : parse(startupSettings_, result.errors)) {
    if (entry.name == "*" || find(entry.name) != nullptr) continue;
    result.unknownNames.push_back(entry.name);
  }
  report(result, out);
}

void Facilities::report(LevelSettingResult const& result, std::FILE* out) {
  for (std::string const& error : result.errors) {
    std::fprintf(out, "%s: %s\n", kEnvironmentVariable, error.c_str());
  }
  for (std::string const& name : result.unknownNames) {
    if (!reportedUnknown_.insert(name).second) continue;
    std::fprintf(out, "%s: unknown trace facility \"%s\"\n", kEnvironmentVariable, name.c_str());
  }
  std::fflush(out);
}

void Facilities::add(Facility& facility) {
  facilities_.push_back(&facility);
  for (Setting const& setting : settings_)
    apply(setting, facility);
}

void Facilities::remove(Facility& facility) {
  std::erase(facilities_, &facility);
}

}  // namespace Trace
