// Costs of the platform's hot paths against plain-container baselines in the same run:
//  - an attribute set that notifies one reactor, against a field store plus one virtual call;
//  - keyed insert and delete with one reactor (a 32-byte key in a hash-ordered collection),
//    against the same operations on a plain std::unordered_map with the same hash;
//  - one task schedule-and-run cycle;
//  - number allocation and release over a million numbers.
#include <benchmark/benchmark.h>

#include <unordered_map>
#include <vector>

#include "platform/Kiln.h"
#include "platform/KilnNumAllocator.h"
#include "platform/Mox.h"
#include "types/SrTePolicyTypes.h"

namespace {

using SrTePolicy::PolicyId;
static_assert(sizeof(PolicyId) == 32);

class Bench : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Bench> {
    public:
      virtual void onValue() {}
      virtual void onPending(const PolicyId&) {}
   };
   void valueIs(uint64_t v) { attrIs(value_, v, &Notifiee::onValue); }
   void pendingIs(const PolicyId& id, bool changed) {
      collIs(pending_, id, changed, &Notifiee::onPending);
   }
   void pendingDel(const PolicyId& id) { collDel(pending_, id, &Notifiee::onPending); }
   void pendingDelAll() { collDelAll(pending_, &Notifiee::onPending); }
   size_t pendingCount() const { return pending_.size(); }

 private:
   uint64_t value_ = 0;
   Mox::HashMap2018<PolicyId, bool> pending_;
};

struct Counter : Bench::Notifiee {
   uint64_t calls = 0;
   void onValue() override { ++calls; }
   void onPending(const PolicyId&) override { ++calls; }
};

std::vector<PolicyId> makeKeys(size_t n) {
   std::vector<PolicyId> keys;
   keys.reserve(n);
   for (size_t i = 0; i < n; ++i) {
      SrTePolicy::PolicyKey key(Ipkit::IpGenAddr::v4(0x0a000000u + static_cast<uint32_t>(i / 8)),
                                SrTePolicy::Color(static_cast<uint32_t>(i % 8)));
      keys.emplace_back(key, SrTePolicy::Protocol::bgp, SrTePolicy::Discriminator(7));
   }
   return keys;
}

// ---- attribute set

void BM_AttrSetOneReactor(benchmark::State& state) {
   auto e = Mox::make<Bench>();
   Counter c;
   c.notifierIs(e);
   uint64_t v = 0;
   for (auto _ : state) e->valueIs(++v);
   benchmark::DoNotOptimize(c.calls);
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AttrSetOneReactor);

struct PlainObserver {
   virtual ~PlainObserver() = default;
   virtual void onValue() = 0;
};
struct PlainCounter : PlainObserver {
   uint64_t calls = 0;
   void onValue() override { ++calls; }
};

void BM_AttrSetPlainBaseline(benchmark::State& state) {
   PlainCounter counter;
   PlainObserver* observer = &counter;
   uint64_t field = 0, v = 0;
   for (auto _ : state) {
      benchmark::DoNotOptimize(observer); // an opaque reactor: the call stays virtual
      ++v;
      if (field != v) {
         field = v;
         observer->onValue();
      }
      benchmark::DoNotOptimize(field);
   }
   benchmark::DoNotOptimize(counter.calls);
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_AttrSetPlainBaseline);

// ---- keyed collection: insert (timed) then delete (untimed), and insert + delete

void BM_KeyedInsertOneReactor(benchmark::State& state) {
   const auto keys = makeKeys(static_cast<size_t>(state.range(0)));
   auto e = Mox::make<Bench>();
   Counter c;
   c.notifierIs(e);
   for (auto _ : state) {
      for (const PolicyId& k : keys) e->pendingIs(k, true);
      state.PauseTiming();
      e->pendingDelAll();
      state.ResumeTiming();
   }
   benchmark::DoNotOptimize(c.calls);
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_KeyedInsertOneReactor)->Arg(1000)->Arg(100000);

void BM_KeyedInsertPlainBaseline(benchmark::State& state) {
   const auto keys = makeKeys(static_cast<size_t>(state.range(0)));
   std::unordered_map<PolicyId, bool, Mox::Hash<PolicyId>> map;
   for (auto _ : state) {
      for (const PolicyId& k : keys) map.try_emplace(k, true);
      state.PauseTiming();
      map.clear();
      state.ResumeTiming();
   }
   benchmark::DoNotOptimize(map);
   state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_KeyedInsertPlainBaseline)->Arg(1000)->Arg(100000);

void BM_KeyedInsertDeleteOneReactor(benchmark::State& state) {
   const auto keys = makeKeys(static_cast<size_t>(state.range(0)));
   auto e = Mox::make<Bench>();
   Counter c;
   c.notifierIs(e);
   for (auto _ : state) {
      for (const PolicyId& k : keys) e->pendingIs(k, true);
      for (const PolicyId& k : keys) e->pendingDel(k);
   }
   benchmark::DoNotOptimize(c.calls);
   state.SetItemsProcessed(state.iterations() * state.range(0) * 2);
}
BENCHMARK(BM_KeyedInsertDeleteOneReactor)->Arg(1000)->Arg(100000);

void BM_KeyedInsertDeletePlainBaseline(benchmark::State& state) {
   const auto keys = makeKeys(static_cast<size_t>(state.range(0)));
   std::unordered_map<PolicyId, bool, Mox::Hash<PolicyId>> map;
   for (auto _ : state) {
      for (const PolicyId& k : keys) map.try_emplace(k, true);
      for (const PolicyId& k : keys) map.erase(k);
   }
   benchmark::DoNotOptimize(map);
   state.SetItemsProcessed(state.iterations() * state.range(0) * 2);
}
BENCHMARK(BM_KeyedInsertDeletePlainBaseline)->Arg(1000)->Arg(100000);

// ---- one task schedule-and-run cycle

struct RunCounter : Kiln::Task::Notifiee {
   uint64_t runs = 0;
   void onTaskRun() override { ++runs; }
};

void BM_TaskScheduleAndRun(benchmark::State& state) {
   Kiln::TaskScheduler scheduler;
   auto task = Mox::make<Kiln::Task>(scheduler, 2, "BenchTask");
   RunCounter r;
   r.notifierIs(task);
   for (auto _ : state) {
      task->scheduleTask();
      scheduler.runUntilIdle();
   }
   benchmark::DoNotOptimize(r.runs);
   state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_TaskScheduleAndRun);

// ---- number allocator: a million numbers out and back

void BM_NumAllocatorMillion(benchmark::State& state) {
   constexpr Kiln::Number million = 1000000;
   Kiln::TaskScheduler clock;
   for (auto _ : state) {
      auto config = Mox::make<Kiln::NumAllocatorConfig>(Kiln::NumRange(0, 4294967295));
      config->expiryTimeIs(300);
      Kiln::NumAllocator alloc(config, Mox::make<Kiln::NumAllocatorStatus>(), clock);
      for (Kiln::Number n = 0; n < million; ++n) benchmark::DoNotOptimize(alloc.getNumber());
      for (Kiln::Number n = 0; n < million; ++n) alloc.releaseNumber(n);
   }
   state.SetItemsProcessed(state.iterations() * million * 2);
}
BENCHMARK(BM_NumAllocatorMillion)->Unit(benchmark::kMillisecond);

} // namespace

BENCHMARK_MAIN();
