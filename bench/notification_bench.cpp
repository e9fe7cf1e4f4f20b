// Cost of one attribute notification, from the write of a changed value to the typed callback of
// each notifiee: Counter::valueIs() on a tiny compiled entity type with 0, 1 and 16 notifiees.
#include <benchmark/benchmark.h>

#include <memory>
#include <vector>

#include "Qel/Entity/Entity.h"
#include "Qel/Entity/Notifiee.h"
#include "Qel/Reflection/TypeBuilder.h"

namespace {

using Qel::AttributeId;
using Qel::NotifyKey;
using Qel::U32;

class Counter : public Qel::Entity {
 public:
  using Ptr = Qel::Ptr<Counter>;
  static constexpr AttributeId kValue = 1;

  template <class N>
  class NotifieeT : public Qel::BasicNotifiee<N> {
   public:
    virtual void onValue() {}
    void qelDispatch(AttributeId aid, NotifyKey const&) override {
      if (aid == kValue) onValue();
    }
  };

  static Ptr counterNew(Qel::Name const& name) { return Ptr(new Counter(name)); }

  U32 value() const { return value_; }
  void valueIs(U32 v) {
    if (v == value_) return;
    value_ = v;
    notify(kValue);
  }

  Qel::QelType const* fwkType() const override { return staticType(); }
  static Qel::QelType const* staticType() {
    static Qel::QelType const* t = Qel::TypeBuilder<Counter>("Bench::Counter")
                                       .value<U32>(
                                           "value", [](Counter const& c) { return c.value(); },
                                           [](Counter& c, U32 v) { c.valueIs(v); })
                                       .done();
    return t;
  }

 private:
  explicit Counter(Qel::Name name) : Entity(std::move(name)) {}
  ~Counter() override = default;

  U32 value_ = 0;
};

class Reactor : public Counter::NotifieeT<Counter const> {
 public:
  unsigned long calls = 0;
  void onValue() override { ++calls; }
};

void BM_Notification(benchmark::State& state) {
  Counter::Ptr counter = Counter::counterNew("counter");
  std::vector<std::unique_ptr<Reactor>> reactors;
  for (long i = 0; i < state.range(0); ++i) {
    reactors.push_back(std::make_unique<Reactor>());
    reactors.back()->notifierIs(counter);
  }
  U32 v = 0;
  for (auto _ : state) {
    counter->valueIs(++v);
    benchmark::ClobberMemory();
  }
  unsigned long calls = 0;
  for (auto& r : reactors)
    calls += r->calls;
  if (calls != static_cast<unsigned long>(state.iterations() * state.range(0))) {
    state.SkipWithError("lost notifications");
  }
  state.counters["per_notifiee"] = benchmark::Counter(
      static_cast<double>(std::max<long>(1, state.range(0))),
      benchmark::Counter::kIsIterationInvariantRate | benchmark::Counter::kInvert);
}
BENCHMARK(BM_Notification)->Arg(0)->Arg(1)->Arg(16);

}  // namespace
