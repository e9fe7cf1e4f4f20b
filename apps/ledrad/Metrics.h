// Ledrad::Metrics: what ledrad counts of serving agents, and its OpenMetrics text.
//
// Counters: connections registered, connections closed by reason, mount requests sent and
// answered (complete or failed), agents served to "All mounts complete for ". Histograms (in
// seconds, buckets kBuckets): the time from an agent's connection to its completion, and the time
// an engine spends on each group it takes from its ready queue (until it takes the next one or
// completes). text() renders them as OpenMetrics, ending in "# EOF", for a node exporter's
// textfile collector or a scrape.
//
// Close reasons are texts of the database's own, but one may quote what an agent sent: at most
// kMaxReasons distinct reasons are kept, the rest count under reason="other", so an agent cannot
// grow the table. Label values are escaped as the format asks (\\, \" and \n). A plain value;
// single-threaded.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

namespace Ledrad {

class Metrics {
 public:
  static constexpr std::array<double, 11> kBuckets = {0.001, 0.01, 0.1, 0.5, 1,  2,
                                                      5,     10,   30,  60,  300};
  static constexpr std::size_t kMaxReasons = 32;

  class Histogram {
   public:
    void observe(double seconds);
    std::uint64_t count() const { return count_; }
    double sum() const { return sum_; }
    // Observations at or below kBuckets[i].
    std::uint64_t atOrBelow(std::size_t i) const { return buckets_[i]; }

   private:
    std::array<std::uint64_t, kBuckets.size()> buckets_{};
    std::uint64_t count_ = 0;
    double sum_ = 0;
  };

  void connected() { ++connections_; }
  void closed(std::string const& reason);
  void requestSent() { ++requestsSent_; }
  void requestAnswered(bool failed) { ++(failed ? requestsFailed_ : requestsComplete_); }
  void completed(double secondsSinceConnect);
  void groupTaken(double seconds) { groupTime_.observe(seconds); }

  std::uint64_t connections() const { return connections_; }
  std::map<std::string, std::uint64_t> const& closes() const { return closes_; }
  std::uint64_t requestsSent() const { return requestsSent_; }
  std::uint64_t requestsComplete() const { return requestsComplete_; }
  std::uint64_t requestsFailed() const { return requestsFailed_; }
  std::uint64_t completions() const { return serveTime_.count(); }
  Histogram const& serveTime() const { return serveTime_; }
  Histogram const& groupTime() const { return groupTime_; }

  std::string text() const;

 private:
  std::uint64_t connections_ = 0;
  std::map<std::string, std::uint64_t> closes_;  // by reason
  std::uint64_t requestsSent_ = 0;
  std::uint64_t requestsComplete_ = 0;
  std::uint64_t requestsFailed_ = 0;
  Histogram serveTime_;
  Histogram groupTime_;
};

}  // namespace Ledrad
