// The platform's segment-list tunnel table: one entry per resolved segment list, keyed by the
// list's tunnel id, holding the MPLS vias (next hop, interface, label operation) the tunnel
// forwards over, numbered by via index. The policy core is its only writer; forwarding reads it.
//
// Guarantees:
//  - `entryIs` replaces the whole entry of its tunnel id and notifies only when it differs;
//  - `entryDel` of an absent tunnel id notifies nobody;
//  - via indexes are range checked (0..511) when an entry is built, so an entry never holds more
//    vias than a FEC can.
#pragma once

#include <cstdint>
#include <string>

#include "platform/Mox.h"
#include "platform/Tunnel.h"
#include "platform/VaultFib.h"

namespace Tunnel::TunnelTable {

using ViaIndex = Vault::Fib::ViaIndex;

class SrTeSegmentListTunnelEntry {
 public:
   using ViaMap = Mox::RbTreeMap<uint32_t, MplsVia>;

   SrTeSegmentListTunnelEntry() = default;
   explicit SrTeSegmentListTunnelEntry(TunnelId id) : tunnelId_(id) {}

   TunnelId tunnelId() const noexcept { return tunnelId_; }
   const ViaMap& via() const noexcept { return via_; }
   const MplsVia* via(ViaIndex index) const {
      auto it = via_.find(index.value);
      return it == via_.end() ? nullptr : &it->second;
   }
   void viaIs(ViaIndex index, const MplsVia& v) { via_[index.value] = v; }
   void viaDel(ViaIndex index) { via_.erase(index.value); }
   size_t viaCount() const noexcept { return via_.size(); }

   std::string stringValue() const {
      std::string s =
          "tunnelId " + tunnelId_.stringValue() + " vias " + std::to_string(via_.size());
      for (const auto& [i, v] : via_) s += " [" + std::to_string(i) + ": " + v.stringValue() + "]";
      return s;
   }
   friend bool operator==(const SrTeSegmentListTunnelEntry&,
                          const SrTeSegmentListTunnelEntry&) = default;

 private:
   TunnelId tunnelId_;
   ViaMap via_;
};

class SrTeSegmentListTunnelTable : public Mox::Entity {
 public:
   using Map = Mox::RbTreeMap<TunnelId, SrTeSegmentListTunnelEntry>;
   class Notifiee : public Mox::NotifieeOf<SrTeSegmentListTunnelTable> {
    public:
      virtual void onEntry(const TunnelId&) {}
   };

   explicit SrTeSegmentListTunnelTable(Mox::Name name = "srTeSegmentListTunnelTable")
       : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   const Map& entry() const noexcept { return entry_; }
   // Null when absent.
   const SrTeSegmentListTunnelEntry* entry(TunnelId id) const {
      auto it = entry_.find(id);
      return it == entry_.end() ? nullptr : &it->second;
   }
   void entryIs(const SrTeSegmentListTunnelEntry& e) {
      collIs(entry_, e.tunnelId(), e, &Notifiee::onEntry);
   }
   void entryDel(TunnelId id) { collDel(entry_, id, &Notifiee::onEntry); }
   void entryDelAll() { collDelAll(entry_, &Notifiee::onEntry); }

 private:
   Mox::Name name_;
   Map entry_;
};

} // namespace Tunnel::TunnelTable
