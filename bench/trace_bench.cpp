// Cost of one trace: a ring record at an enabled and at a disabled level, next to the same line
// through spdlog's synchronous and asynchronous loggers writing to a null sink.
//
// Every benchmark traces "request {} from {:x} took {}" with an int, an address and a double.
// The disabled benchmarks put a compiler barrier in the loop so that the facility's level is
// loaded again on every iteration, as at a real call site surrounded by other code.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Trace/Trace.h"

#if LEDRA_HAVE_SPDLOG
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/logger.h>
#include <spdlog/sinks/null_sink.h>
#endif

TRACE_FACILITY(TraceBench);

namespace {

int gTarget = 0;

// Enables the facility, routes text to nowhere and restores both afterwards.
class TraceSetup {
 public:
  explicit TraceSetup(int level) : previousSink_(Trace::textSinkIs(nullptr)) {
    LEDRA_TRACE_FACILITY(TraceBench).levelIs(level);
    Trace::Ringlog::global().capacityIs(Trace::Ringlog::kDefaultCapacity);
  }
  ~TraceSetup() {
    LEDRA_TRACE_FACILITY(TraceBench).levelIs(0);
    Trace::textSinkIs(previousSink_);
  }
  TraceSetup(TraceSetup const&) = delete;
  TraceSetup& operator=(TraceSetup const&) = delete;

 private:
  Trace::TextSink* previousSink_;
};

void BM_RinglogEnabled(benchmark::State& state) {
  TraceSetup const setup(9);
  int i = 0;
  for (auto _ : state) {
    RINGLOG(TraceBench, 5, "request {} from {:x} took {}", i, &gTarget, 1.5);
    ++i;
  }
  state.counters["laps"] = static_cast<double>(Trace::Ringlog::global().laps());
}
BENCHMARK(BM_RinglogEnabled);

void BM_RinglogEnabledWithString(benchmark::State& state) {
  TraceSetup const setup(9);
  std::string const peer = "agent-17";
  int i = 0;
  for (auto _ : state) {
    RINGLOG(TraceBench, 5, "request {} from {} took {}", i, peer, 1.5);
    ++i;
  }
}
BENCHMARK(BM_RinglogEnabledWithString);

// TRACE with no text sink installed: the Duolog path down to the record.
void BM_TraceEnabledRecordOnly(benchmark::State& state) {
  TraceSetup const setup(9);
  int i = 0;
  for (auto _ : state) {
    TRACE(TraceBench, 5, "request {} from {:x} took {}", i, &gTarget, 1.5);
    ++i;
  }
}
BENCHMARK(BM_TraceEnabledRecordOnly);

void BM_RinglogDisabled(benchmark::State& state) {
  TraceSetup const setup(4);
  int i = 0;
  for (auto _ : state) {
    RINGLOG(TraceBench, 5, "request {} from {:x} took {}", i, &gTarget, 1.5);
    ++i;
    benchmark::ClobberMemory();
  }
  if (Trace::Ringlog::global().written() != 0) state.SkipWithError("a disabled trace wrote");
}
BENCHMARK(BM_RinglogDisabled);

void BM_TraceDisabled(benchmark::State& state) {
  TraceSetup const setup(4);
  int i = 0;
  for (auto _ : state) {
    TRACE(TraceBench, 5, "request {} from {:x} took {}", i, &gTarget, 1.5);
    ++i;
    benchmark::ClobberMemory();
  }
  if (Trace::Ringlog::global().written() != 0) state.SkipWithError("a disabled trace wrote");
}
BENCHMARK(BM_TraceDisabled);

#if LEDRA_HAVE_SPDLOG

auto address() {
  return reinterpret_cast<std::uintptr_t>(&gTarget);
}

void BM_SpdlogSyncNullSink(benchmark::State& state) {
  auto const sink = std::make_shared<spdlog::sinks::null_sink_st>();
  spdlog::logger logger("sync", sink);
  logger.set_level(spdlog::level::info);
  int i = 0;
  for (auto _ : state) {
    logger.info("request {} from {:x} took {}", i, address(), 1.5);
    ++i;
  }
}
BENCHMARK(BM_SpdlogSyncNullSink);

void BM_SpdlogAsyncNullSink(benchmark::State& state) {
  auto const pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
  auto const sink = std::make_shared<spdlog::sinks::null_sink_mt>();
  auto const logger = std::make_shared<spdlog::async_logger>("async", sink, pool,
                                                             spdlog::async_overflow_policy::block);
  logger->set_level(spdlog::level::info);
  int i = 0;
  for (auto _ : state) {
    logger->info("request {} from {:x} took {}", i, address(), 1.5);
    ++i;
  }
}
BENCHMARK(BM_SpdlogAsyncNullSink);

#endif

}  // namespace
