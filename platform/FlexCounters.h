// FlexCounters::CounterTable: the platform's per-tunnel traffic counters. A tunnel that still has a
// counter is still being counted, so whatever maps the tunnel to its owner must stay until the
// counter is gone.
#pragma once

#include <cstdint>

#include "platform/Mox.h"
#include "platform/Tunnel.h"

namespace FlexCounters {

struct Counter {
   uint64_t packets = 0;
   uint64_t bytes = 0;
   friend bool operator==(const Counter&, const Counter&) = default;
};

class CounterTable : public Mox::Entity {
 public:
   using TunnelId = Tunnel::TunnelTable::TunnelId;

   class Notifiee : public Mox::NotifieeOf<CounterTable> {
    public:
      virtual void onCounter(const TunnelId&) {}
   };

   explicit CounterTable(Mox::Name name = "tunnelCounters") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   bool counterHas(TunnelId id) const noexcept { return counter_.find(id) != counter_.end(); }
   // Null when the tunnel has no counter.
   const Counter* counter(TunnelId id) const noexcept {
      auto it = counter_.find(id);
      return it == counter_.end() ? nullptr : &it->second;
   }
   const Mox::HashMap2018<TunnelId, Counter>& counter() const noexcept { return counter_; }
   void counterIs(TunnelId id, Counter c = {}) { collIs(counter_, id, c, &Notifiee::onCounter); }
   void counterDel(TunnelId id) { collDel(counter_, id, &Notifiee::onCounter); }
   void counterDelAll() { collDelAll(counter_, &Notifiee::onCounter); }

 private:
   Mox::Name name_;
   Mox::HashMap2018<TunnelId, Counter> counter_;
};

} // namespace FlexCounters
