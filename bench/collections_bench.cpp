// Steady-state enqueue plus dequeue of the Qel queues, beside the standard containers they
// replace. Each iteration adds one member and removes one, so the queue keeps the depth given as
// the first argument.
#include <benchmark/benchmark.h>

#include <deque>
#include <functional>
#include <queue>
#include <utility>
#include <vector>

#include "Qel/Containers/BucketQueue.h"
#include "Qel/Containers/LinkQueue.h"

namespace {

using Qel::U32;
using Qel::U64;

void BM_LinkQueueEnqueueDequeue(benchmark::State& state) {
  Qel::LinkQueue<U64> q;
  auto const depth = static_cast<U64>(state.range(0));
  for (U64 i = 0; i < depth; ++i)
    q.enqueue(i);
  U64 n = depth;
  for (auto _ : state) {
    benchmark::DoNotOptimize(q.enqueue(n++));
    benchmark::DoNotOptimize(q.dequeue());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LinkQueueEnqueueDequeue)->Arg(1)->Arg(64)->Arg(4096)->Arg(262144);

// The same traffic on a plain std::deque, for scale.
void BM_StdDequeEnqueueDequeue(benchmark::State& state) {
  std::deque<U64> q;
  auto const depth = static_cast<U64>(state.range(0));
  for (U64 i = 0; i < depth; ++i)
    q.push_back(i);
  U64 n = depth;
  for (auto _ : state) {
    q.push_back(n++);
    benchmark::DoNotOptimize(q.front());
    q.pop_front();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdDequeEnqueueDequeue)->Arg(1)->Arg(64)->Arg(4096)->Arg(262144);

// Lookup by index in a queue of the given depth with a hole at every third entry.
void BM_LinkQueueAt(benchmark::State& state) {
  Qel::LinkQueue<U64> q;
  auto const depth = static_cast<U32>(state.range(0));
  for (U32 i = 0; i < depth; ++i)
    q.enqueue(i);
  for (U32 i = 1; i + 1 < depth; i += 3)
    q.erase(i);
  U32 probe = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(q.at(probe));
    probe = (probe + 7919) % depth;
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LinkQueueAt)->Arg(64)->Arg(4096)->Arg(262144);

// Members spread round-robin over the given number of priorities (second argument).
void BM_BucketQueueEnqueueDequeue(benchmark::State& state) {
  Qel::BucketQueue<int, U64> q;
  auto const depth = static_cast<U64>(state.range(0));
  auto const priorities = static_cast<int>(state.range(1));
  int p = 0;
  auto nextPriority = [&] {
    p = (p + 1) % priorities;
    return p;
  };
  for (U64 i = 0; i < depth; ++i)
    q.enqueue(nextPriority(), i);
  U64 n = depth;
  for (auto _ : state) {
    benchmark::DoNotOptimize(q.enqueue(nextPriority(), n++));
    benchmark::DoNotOptimize(q.dequeue());
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_BucketQueueEnqueueDequeue)
    ->Args({64, 1})
    ->Args({4096, 1})
    ->Args({4096, 8})
    ->Args({4096, 256})
    ->Args({262144, 8});

// The same traffic on a binary heap ordered by (priority, arrival), for scale.
void BM_StdPriorityQueueEnqueueDequeue(benchmark::State& state) {
  using Item = std::pair<std::pair<int, U64>, U64>;
  std::priority_queue<Item, std::vector<Item>, std::greater<>> q;
  auto const depth = static_cast<U64>(state.range(0));
  auto const priorities = static_cast<int>(state.range(1));
  int p = 0;
  auto nextPriority = [&] {
    p = (p + 1) % priorities;
    return p;
  };
  U64 seq = 0;
  for (U64 i = 0; i < depth; ++i)
    q.push({{nextPriority(), seq++}, i});
  U64 n = depth;
  for (auto _ : state) {
    q.push({{nextPriority(), seq++}, n++});
    benchmark::DoNotOptimize(q.top());
    q.pop();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_StdPriorityQueueEnqueueDequeue)
    ->Args({64, 1})
    ->Args({4096, 1})
    ->Args({4096, 8})
    ->Args({4096, 256})
    ->Args({262144, 8});

}  // namespace
