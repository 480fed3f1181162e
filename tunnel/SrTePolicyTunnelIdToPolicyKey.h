// TunnelIdToPolicyKey: the tunnel map, which policy key every segment-list tunnel belongs to.
// Its one writer is TunnelMapExportSm (tunnel/SrTePolicyTunnelMapExportSm.h, which says when a
// row comes and goes); readers are the counter and tunnel services of the router. It is a
// published table: it outlives the core's machines across a restart.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

#include "platform/Mox.h"
#include "platform/Tunnel.h"
#include "platform/Vault.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// One row: a tunnel and the policy key of the candidate paths that use it.
struct TunnelIdToPolicyKeyEntry {
   using TunnelId = Tunnel::TunnelTable::TunnelId;

   TunnelId tunnelId;
   PolicyKey policyKey;

   TunnelIdToPolicyKeyEntry() = default;
   TunnelIdToPolicyKeyEntry(TunnelId t, const PolicyKey& k) : tunnelId(t), policyKey(k) {}
   std::string stringValue() const; // "21474836481: 10.0.0.1|100"
   friend bool operator==(const TunnelIdToPolicyKeyEntry&,
                          const TunnelIdToPolicyKeyEntry&) = default;
};

// Written by TunnelMapExportSm alone, read by the counter and tunnel services.
//  - `tunnelEntryCommit` writes a whole row and notifies only when it differs from the row held;
//  - `tunnelEntryDel` of an absent tunnel notifies nobody; `tunnelEntryDelAll` notifies once per
//    row;
//  - like every shared table it can be found corrupt: with `corruptionInjectIs(true)` the next
//    write throws Vault::Corruption and changes nothing.
class TunnelIdToPolicyKey : public Mox::Entity {
 public:
   using TunnelId = Tunnel::TunnelTable::TunnelId;
   using Map = Mox::HashMap2018<TunnelId, TunnelIdToPolicyKeyEntry>;
   using const_iterator = Map::const_iterator;

   class Notifiee : public Mox::NotifieeOf<TunnelIdToPolicyKey> {
    public:
      virtual void onTunnelEntry(const TunnelId&) {}
   };

   explicit TunnelIdToPolicyKey(Mox::Name name = "tunnelIdToPolicyKey") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Rows in no useful order (Mox::sortedKeys for a stable one).
   const Map& tunnelEntry() const noexcept { return entry_; }
   // Null when the tunnel has no row.
   const TunnelIdToPolicyKeyEntry* tunnelEntry(TunnelId id) const noexcept {
      auto it = entry_.find(id);
      return it == entry_.end() ? nullptr : &it->second;
   }
   const_iterator begin() const noexcept { return entry_.begin(); }
   const_iterator end() const noexcept { return entry_.end(); }
   size_t size() const noexcept { return entry_.size(); }

   void tunnelEntryCommit(const TunnelIdToPolicyKeyEntry& entry);
   void tunnelEntryDel(TunnelId id);
   void tunnelEntryDelAll();

   void corruptionInjectIs(bool inject) noexcept { corruptionInject_ = inject; }
   // What the writer calls after catching Vault::Corruption; counted for tests and dumps.
   void handleCorruption() noexcept { ++corruptionCount_; }
   uint32_t corruptionCount() const noexcept { return corruptionCount_; }

 private:
   void corruptionCheck();

   Mox::Name name_;
   Map entry_;
   bool corruptionInject_ = false;
   uint32_t corruptionCount_ = 0;
};

inline Mox::Ptr<TunnelIdToPolicyKey> tunnelIdToPolicyKeyFactory(const Mox::Name& name) {
   return Mox::make<TunnelIdToPolicyKey>(name);
}

} // namespace SrTePolicy
