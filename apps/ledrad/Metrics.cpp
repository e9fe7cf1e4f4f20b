#include "apps/ledrad/Metrics.h"

#include <charconv>

namespace Ledrad {

namespace {

// The shortest text that reads back as `v`, always with a fraction or exponent ("1.0").
std::string number(double v) {
  char text[32];
  auto const end = std::to_chars(text, text + sizeof text, v).ptr;
  std::string out(text, end);
  if (out.find_first_of(".e") == std::string::npos) out += ".0";
  return out;
}

// A label value as OpenMetrics quotes it.
std::string labelValue(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (c == '\\' || c == '"') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  return out;
}

void family(std::string& out, char const* name, char const* type, char const* help) {
  out += std::string("# TYPE ") + name + " " + type + "\n# HELP " + name + " " + help + "\n";
}

void histogram(std::string& out, char const* name, char const* help, Metrics::Histogram const& h) {
  family(out, name, "histogram", help);
  for (std::size_t i = 0; i < Metrics::kBuckets.size(); ++i) {
    out += std::string(name) + "_bucket{le=\"" + number(Metrics::kBuckets[i]) + "\"} " +
           std::to_string(h.atOrBelow(i)) + "\n";
  }
  out += std::string(name) + "_bucket{le=\"+Inf\"} " + std::to_string(h.count()) + "\n";
  out += std::string(name) + "_sum " + number(h.sum()) + "\n";
  out += std::string(name) + "_count " + std::to_string(h.count()) + "\n";
}

}  // namespace

void Metrics::Histogram::observe(double seconds) {
  for (std::size_t i = 0; i < kBuckets.size(); ++i) {
    if (seconds <= kBuckets[i]) ++buckets_[i];
  }
  ++count_;
  sum_ += seconds;
}

void Metrics::closed(std::string const& reason) {
  auto it = closes_.find(reason);
  if (it == closes_.end() && closes_.size() >= kMaxReasons) it = closes_.try_emplace("other").first;
  if (it == closes_.end()) it = closes_.emplace(reason, 0).first;
  ++it->second;
}

void Metrics::completed(double secondsSinceConnect) {
  serveTime_.observe(secondsSinceConnect);
}

std::string Metrics::text() const {
  std::string out;
  family(out, "ledrad_agent_connections", "counter", "Agent connections registered.");
  out += "ledrad_agent_connections_total " + std::to_string(connections_) + "\n";
  family(out, "ledrad_agent_closes", "counter", "Agent connections closed, by reason.");
  for (auto const& [reason, n] : closes_)
    out += "ledrad_agent_closes_total{reason=\"" + labelValue(reason) + "\"} " + std::to_string(n) +
           "\n";
  family(out, "ledrad_mount_requests", "counter", "Mount requests sent to agents.");
  out += "ledrad_mount_requests_total " + std::to_string(requestsSent_) + "\n";
  family(out, "ledrad_mount_answers", "counter", "Answers to mount requests, by result.");
  out +=
      "ledrad_mount_answers_total{result=\"complete\"} " + std::to_string(requestsComplete_) + "\n";
  out += "ledrad_mount_answers_total{result=\"failed\"} " + std::to_string(requestsFailed_) + "\n";
  family(out, "ledrad_agents_complete", "counter", "Agents served every mount of their profile.");
  out += "ledrad_agents_complete_total " + std::to_string(completions()) + "\n";
  histogram(out, "ledrad_agent_serve_seconds", "Time from an agent's connection to its completion.",
            serveTime_);
  histogram(out, "ledrad_group_seconds",
            "Time an engine spends on a group, until it takes the next or completes.", groupTime_);
  out += "# EOF\n";
  return out;
}

}  // namespace Ledrad
