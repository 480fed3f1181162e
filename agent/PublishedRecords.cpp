#include "agent/PublishedRecords.h"

#include <algorithm>

namespace Agent::Published {

using namespace SrTePolicy;
using Tunnel::TunnelTable::TunnelId;

namespace {

// A value out of its range in a record: the segment's writer wrote something no entity holds.
[[noreturn]] void corrupt(const char* table, const std::string& what) {
   throw Vault::Corruption(std::string("published table ") + table + ": " + what);
}

// Runs `f`, turning a range error of a value read back into Corruption.
template <class F>
void checked(const char* table, F&& f) {
   try {
      f();
   } catch (const Mox::RangeError& e) {
      corrupt(table, e.what());
   }
}

LabelStack encodeStack(const Ipkit::MplsLabelOperation& op) {
   LabelStack s{};
   s.action = static_cast<uint32_t>(op.action());
   s.size = op.stackSize();
   for (uint32_t i = 0; i < s.size && i < Ipkit::MplsLabelOperation::capacity; ++i) {
      s.label[i] = op.label(Ipkit::MplsStackEntryIndex(i)).value();
   }
   return s;
}

Ipkit::MplsLabelOperation decodeStack(const LabelStack& s) {
   Ipkit::MplsLabelOperation op;
   op.actionIs(static_cast<Ipkit::MplsLabelAction>(s.action));
   op.stackSizeIs(s.size); // range checked
   for (uint32_t i = 0; i < s.size; ++i) {
      op.labelIs(Ipkit::MplsStackEntryIndex(i), Ipkit::MplsLabel(s.label[i]));
   }
   return op;
}

} // namespace

// ---- selection input

SelectionInputRecord SelectionInputCodec::encode(const PolicyIdEntry& e) {
   Record r;
   r.id = e.id();
   r.preference = e.preference().value;
   r.bindingSid = e.bindingSid().value();
   r.originator = e.originator();
   for (const auto& [index, row] : e.wSegmentList()) {
      if (r.rowCount == Record::rowCapacity) break; // a path has at most 16 segment lists
      Record::Row& out = r.row[r.rowCount++];
      out.index = index;
      out.segmentListId = row.segmentListId.value;
      out.weight = row.weight.value;
      out.tunnelId = row.tunnelId.value;
   }
   return r;
}

void SelectionInputCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      const Preference preference(r.preference);
      const Ipkit::MplsLabel bindingSid(r.bindingSid);
      uint32_t present = 0;
      for (uint32_t i = 0; i < r.rowCount; ++i) {
         if (r.row[i].index >= 32) corrupt(table, "row index " + std::to_string(r.row[i].index));
         Weight(r.row[i].weight); // range check before anything changes
         present |= 1u << r.row[i].index;
      }
      Mox::Ptr<PolicyIdEntry> e = t.policyIdEntryIs(r.id, preference, r.originator);
      e->bindingSidIs(bindingSid);
      for (uint32_t i = 0; i < r.rowCount; ++i) {
         const Record::Row& row = r.row[i];
         e->wSegmentListIs(static_cast<uint8_t>(row.index),
                           WeightedSegmentListId(Weight(row.weight),
                                                 SegmentListId(row.segmentListId),
                                                 TunnelId(row.tunnelId)));
      }
      for (uint32_t i = 0; i < 32; ++i) {
         if (!(present & (1u << i)) && e->wSegmentListHas(static_cast<uint8_t>(i))) {
            e->wSegmentListDel(static_cast<uint8_t>(i));
         }
      }
      // A path taken in or changed is one update, as the input stage's own writes are.
      e->versionInc();
   });
}

// ---- exported segment lists

ExportedSegmentListRecord ExportedSegmentListCodec::encode(const Export::SegmentList& l) {
   Record r;
   r.id = l.name();
   r.size = l.size();
   for (const Export::Segment& s : l.segment()) {
      if (r.labelCount == Record::labelCapacity) break;
      r.label[r.labelCount++] = s.mplsLabel.value();
   }
   return r;
}

void ExportedSegmentListCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      if (r.size > 255) corrupt(table, "size " + std::to_string(r.size));
      for (uint32_t i = 0; i < r.labelCount; ++i) Ipkit::MplsLabel{r.label[i]};
      Mox::Ptr<Export::SegmentList> l = t.segmentListIs(r.id);
      l->sizeIs(static_cast<uint8_t>(r.size));
      for (uint32_t i = 0; i < r.labelCount; ++i) {
         l->segmentIs(i, Export::Segment(Ipkit::MplsLabel(r.label[i])));
      }
      while (l->segment().size() > r.labelCount) l->segmentDel(l->segment().size() - 1);
   });
}

// ---- segment-list status

void SegmentListStatusCodec::apply(Entity& t, const Record& r) {
   if (r.error < 1 || r.error > 3) corrupt(table, "status " + std::to_string(r.error));
   t.statusIs(r.id, static_cast<SegmentListResolveError>(r.error));
}

// ---- tunnels

TunnelRecord TunnelCodec::encode(const Tunnel::TunnelTable::SrTeSegmentListTunnelEntry& e) {
   Record r;
   r.id = e.tunnelId();
   for (const auto& [index, via] : e.via()) {
      if (r.viaCount == Record::viaCapacity) break;
      Record::Via& out = r.via[r.viaCount++];
      out.index = index;
      out.intfId = via.intfId.value();
      out.nexthop = via.nexthop;
      out.labelOp = encodeStack(via.labelOp);
   }
   return r;
}

void TunnelCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      Tunnel::TunnelTable::SrTeSegmentListTunnelEntry e(r.id);
      for (uint32_t i = 0; i < r.viaCount; ++i) {
         const Record::Via& in = r.via[i];
         Tunnel::TunnelTable::MplsVia via;
         via.nexthop = in.nexthop;
         via.intfId = Ipkit::IntfId(static_cast<Ipkit::IntfId::Kind>(in.intfId >> 24),
                                    in.intfId & Ipkit::IntfId::maxNumber);
         via.labelOp = decodeStack(in.labelOp);
         e.viaIs(Tunnel::TunnelTable::ViaIndex(in.index), via);
      }
      t.entryIs(e);
   });
}

// ---- policies

EcPolicyRecord EcPolicyCodec::encode(const Policy& p, const PolicyEntry& e) {
   Record r;
   const Priority& priority = e.priority();
   r.id = PolicyId(p.key(), priority.protocol, priority.discriminator);
   r.flags = p.active().get() == &e ? Record::flagActive : 0;
   r.preference = priority.preference.value;
   r.originator = priority.originator;
   r.bindingSid = e.bindingSid().value();
   for (const auto& [index, row] : e.wTunnelId()) {
      if (r.rowCount == Record::rowCapacity) break;
      Record::Row& out = r.row[r.rowCount++];
      out.index = index;
      out.weight = row.weight.value;
      out.tunnelId = row.tunnelId.value;
   }
   return r;
}

EcPolicyRecord EcPolicyCodec::encodeEmpty(const PolicyKey& key) {
   Record r;
   r.id = PolicyId(key, Protocol::unknown, Discriminator(0));
   r.flags = Record::flagEmpty;
   return r;
}

namespace {

// The candidate of `policy` with the identity of `id`; null when there is none.
Mox::Ptr<PolicyEntry> candidateOf(const Policy& policy, const PolicyId& id) {
   for (const auto& [priority, entry] : policy.candidate()) {
      if (priority.protocol == id.protocol && priority.discriminator == id.discriminator) {
         return entry;
      }
   }
   return nullptr;
}

} // namespace

bool EcPolicyCodec::has(const Entity& t, const Key& k) {
   const Mox::Ptr<Policy> policy = t.policy(k.key);
   if (!policy) return false;
   if (k.protocol == Protocol::unknown && k.discriminator.value == 0 &&
       policy->candidate().empty()) {
      return true;
   }
   return candidateOf(*policy, k) != nullptr;
}

void EcPolicyCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      if (r.flags & Record::flagEmpty) {
         t.policyIs(r.id.key);
         return;
      }
      const Priority priority(Preference(r.preference), r.id.protocol, r.originator,
                              r.id.discriminator);
      const Ipkit::MplsLabel bindingSid(r.bindingSid);
      uint32_t present = 0;
      for (uint32_t i = 0; i < r.rowCount; ++i) {
         if (r.row[i].index >= 32) corrupt(table, "row index " + std::to_string(r.row[i].index));
         Weight(r.row[i].weight);
         present |= 1u << r.row[i].index;
      }
      Mox::Ptr<Policy> policy = t.policyIs(r.id.key);
      // The same candidate under another priority (its preference or originator changed).
      if (Mox::Ptr<PolicyEntry> old = candidateOf(*policy, r.id);
          old && !(old->priority() == priority)) {
         policy->candidateDel(old->priority());
      }
      Mox::Ptr<PolicyEntry> e = policy->candidateIs(priority);
      e->bindingSidIs(bindingSid);
      for (uint32_t i = 0; i < r.rowCount; ++i) {
         const Record::Row& row = r.row[i];
         e->wTunnelIdIs(static_cast<uint8_t>(row.index),
                        WeightedTunnelId(TunnelId(row.tunnelId), Weight(row.weight)));
      }
      for (uint32_t i = 0; i < 32; ++i) {
         if (!(present & (1u << i)) && e->wTunnelIdHas(static_cast<uint8_t>(i))) {
            e->wTunnelIdDel(static_cast<uint8_t>(i));
         }
      }
      if (r.flags & Record::flagActive) {
         policy->activeIs(e);
      } else if (policy->active() == e) {
         policy->activeIs(nullptr);
      }
   });
}

void EcPolicyCodec::remove(Entity& t, const Key& k) {
   const Mox::Ptr<Policy> policy = t.policy(k.key);
   if (!policy) return;
   if (Mox::Ptr<PolicyEntry> e = candidateOf(*policy, k)) policy->candidateDel(e->priority());
   // A policy stays without candidates only while its empty record says so; that record, when
   // there is one, comes back through apply.
   if (policy->candidate().empty()) t.policyDel(k.key);
}

// ---- policy status

PolicyStatusRecord PolicyStatusCodec::encode(const PolicyStatusEntry& e) {
   Record r;
   r.key_ = e.key();
   r.candidateId = e.candidateId();
   r.originator = e.originator();
   r.lastModified = e.lastModified();
   r.bindingSid = e.bindingSid().value();
   r.fecId = e.fecId().value();
   r.nullLabelFecId = e.nullLabelFecId().value();
   return r;
}

void PolicyStatusCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      const Ipkit::MplsLabel bindingSid(r.bindingSid);
      const Vault::Fib::FecId fecId(r.fecId), nullLabelFecId(r.nullLabelFecId);
      const Mox::Ptr<PolicyStatusEntry> held = t.status(r.key_);
      if (held && (held->fecId() != fecId || held->nullLabelFecId() != nullLabelFecId)) {
         remove(t, r.key_);
      }
      if (const Mox::Ptr<PolicyStatusEntry> e = t.status(r.key_)) {
         // FEC ids are fixed for an entry's life: the rest is set in place.
         e->candidateIdIs(r.candidateId);
         e->originatorIs(r.originator);
         e->lastModifiedIs(r.lastModified);
         e->bindingSidIs(bindingSid);
      } else {
         t.statusIs(r.key_, r.candidateId, r.originator, r.lastModified, bindingSid, fecId,
                    nullLabelFecId);
      }
      t.fecIdToPolicyKeyIs(fecId, r.key_);
      t.fecIdToPolicyKeyIs(nullLabelFecId, r.key_);
   });
}

void PolicyStatusCodec::remove(Entity& t, const Key& k) {
   const Mox::Ptr<PolicyStatusEntry> e = t.status(k);
   if (!e) return;
   for (const Vault::Fib::FecId id : {e->fecId(), e->nullLabelFecId()}) {
      const PolicyKey* owner = t.fecIdToPolicyKey(id);
      if (owner && *owner == k) t.fecIdToPolicyKeyDel(id);
   }
   t.statusDel(k);
}

// ---- FECs

FecRecord FecCodec::encode(const Vault::Fib::Fec& fec) {
   Record r;
   r.id = fec.fecId();
   for (const Vault::Fib::Via& via : fec.via()) {
      if (r.viaCount == Record::viaCapacity) break;
      Record::Via& out = r.via[r.viaCount++];
      out.intfId = via.intfId().value();
      out.label = via.mplsLabel().value();
      out.labelAction = static_cast<uint32_t>(via.labelAction());
      out.tunnelId = via.tunnelId().value;
   }
   return r;
}

void FecCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      Vault::Fib::Fec fec(r.id);
      fec.viaReserve(r.viaCount);
      for (uint32_t i = 0; i < r.viaCount; ++i) {
         const Record::Via& in = r.via[i];
         Vault::Fib::Via via;
         via.intfIdIs(Ipkit::IntfId(static_cast<Ipkit::IntfId::Kind>(in.intfId >> 24),
                                    in.intfId & Ipkit::IntfId::maxNumber));
         via.mplsLabelIs(Ipkit::MplsLabel(in.label));
         via.labelActionIs(static_cast<Ipkit::MplsLabelAction>(in.labelAction));
         via.tunnelIdIs(TunnelId(in.tunnelId));
         fec.viaIs(i, via);
      }
      t.fecCommit(std::move(fec));
   });
}

// ---- tunnel map

void TunnelMapCodec::apply(Entity& t, const Record& r) {
   t.tunnelEntryCommit(TunnelIdToPolicyKeyEntry(r.id, r.policyKey));
}

// ---- binding-SID LFIB

LfibRecord LfibCodec::encode(const Mpls::LFib::ProtocolRoute& route) {
   Record r;
   r.id.kind = LfibKey::route;
   r.id.metric = route.key.metric();
   r.id.value = route.key.routeKey().topLabel().value();
   r.source = static_cast<uint32_t>(route.source);
   r.adjType = static_cast<uint32_t>(route.via.type());
   r.adjIndex = route.via.index();
   return r;
}

LfibRecord LfibCodec::encode(const Mpls::ProtocolLfib::ExtFecAdjacency& a) {
   Record r;
   r.id.kind = LfibKey::extFecAdjacency;
   r.id.value = a.index;
   r.fecId = a.fecId.value();
   r.labelAction = static_cast<uint32_t>(a.labelAction);
   return r;
}

namespace {

Mpls::RouteKeyAndMetric routeKeyOf(const LfibKey& k) {
   return Mpls::RouteKeyAndMetric(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(k.value)), k.metric);
}

} // namespace

bool LfibCodec::has(const Entity& t, const Key& k) {
   if (!t.lfib()) return false;
   if (k.kind == LfibKey::extFecAdjacency) return t.lfib()->lfibExtFecAdjacency(k.value);
   if (k.kind != LfibKey::route || k.value > Ipkit::MplsLabel::luWithdraw) return false;
   return t.lfib()->lfibRoute(routeKeyOf(k)) != nullptr;
}

void LfibCodec::apply(Entity& t, const Record& r) {
   checked(table, [&] {
      const Mox::Ptr<Mpls::ProtocolLfib>& lfib =
          t.lfib() ? t.lfib() : t.lfibIs(PublishedTables::lfibName);
      if (r.id.kind == LfibKey::route) {
         lfib->lfibRouteIs(Mpls::LFib::ProtocolRoute(
             routeKeyOf(r.id), static_cast<Mpls::LFib::Source>(r.source),
             Mpls::AdjacencyKey(r.adjIndex, static_cast<Mpls::AdjacencyType>(r.adjType))));
      } else {
         lfib->lfibExtFecAdjacencyIs(r.id.value, Vault::Fib::FecId(r.fecId),
                                     static_cast<Ipkit::MplsLabelAction>(r.labelAction));
      }
   });
}

void LfibCodec::remove(Entity& t, const Key& k) {
   if (!t.lfib()) return;
   if (k.kind == LfibKey::extFecAdjacency) {
      t.lfib()->lfibExtFecAdjacencyDel(k.value);
   } else if (k.kind == LfibKey::route && k.value <= Ipkit::MplsLabel::luWithdraw) {
      t.lfib()->lfibRouteDel(routeKeyOf(k));
   }
}

} // namespace Agent::Published
