#include "tools/Converge.h"

#include <algorithm>
#include <cstdlib>
#include <iostream>
#include <map>
#include <random>
#include <regex>
#include <sstream>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"

namespace Converge {

using namespace SrTePolicy;

namespace {

// ---- the generator

class Gen {
 public:
   // One seed in four each leans towards one kind of trouble: one-unit slices with partial
   // runs and restarts, congestion, or configuration churn (static policies and flags).
   explicit Gen(uint64_t seed) : rng_(seed), profile_(seed % 4) {}

   std::vector<std::string> lines() {
      std::vector<std::string> out;
      // Most sequences start from a working router; the rest start from nothing at all.
      if (chance(85)) {
         out.push_back("config enabled on");
         out.push_back("label-range srlb base 15000 size 1000");
         out.push_back("input-table bgp");
         if (chance(50)) out.push_back("input-table static");
         // Routes and adjacencies that resolve most segment labels.
         for (size_t i = 0; i < 5; ++i) {
            out.push_back("lfib route " + segLabels_[i] + " adjacency " +
                          std::to_string(1 + i % 3));
         }
         for (size_t i = 1; i <= 3; ++i) {
            out.push_back("adjacency " + std::to_string(i) + " via 10.1.0." + std::to_string(i) +
                          " Ethernet" + std::to_string(i) + " action swap label " + segLabels_[i]);
         }
      }
      if (profile_ == 1) out.push_back("scheduler slice 1");
      const size_t n = out.size() + 20 + pick(60);
      while (out.size() < n) out.push_back(event());
      return out;
   }

 private:
   size_t pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(rng_); }
   bool chance(size_t percent) { return pick(100) < percent; }
   template <class T>
   const T& one(const std::vector<T>& v) {
      return v[pick(v.size())];
   }
   std::string num(size_t lo, size_t hi) { return std::to_string(lo + pick(hi - lo + 1)); }

   // The universe: four endpoints of both families, two colors, three discriminators, eight
   // segment labels and four binding SIDs (two inside a narrow SRLB, one beyond it, one far away).
   const std::vector<std::string> endpoints_{"10.0.0.1", "10.0.0.2", "2001:db8::1", "2001:db8::2"};
   const std::vector<std::string> colors_{"100", "200"};
   const std::vector<std::string> protocols_{"bgp", "static"};
   const std::vector<std::string> segLabels_{"16001", "16002", "16003", "16004",
                                             "16005", "16006", "16007", "16008"};
   const std::vector<std::string> bsids_{"15001", "15002", "15010", "900001"};

   std::string key() { return one(endpoints_) + " color " + one(colors_); }

   std::string labels(size_t max) {
      std::string out = " labels";
      const size_t n = pick(max + 1);
      for (size_t i = 0; i < n; ++i) {
         // The first label mostly one that the usual routes resolve.
         out += " " + (chance(5)              ? one(bsids_)
                       : i == 0 && chance(70) ? segLabels_[pick(5)]
                                              : one(segLabels_));
      }
      return out;
   }

   std::string via() {
      static const std::vector<std::string> hops{"10.1.0.2", "10.1.0.3", "2001:db8:1::2",
                                                 "0.0.0.0"};
      static const std::vector<std::string> intfs{"Ethernet1",     "Ethernet2", "Vlan10",
                                                  "Ethernet1",     "Ethernet2", "NexthopGroup7",
                                                  "DynamicTunnel3"};
      static const std::vector<std::string> actions{"swap", "swap", "push",
                                                    "pop",  "none", "forward"};
      std::string out = " via " + one(hops) + " " + one(intfs) + " action " + one(actions);
      if (chance(75)) out += " label " + (chance(80) ? one(segLabels_) : std::string("3"));
      return out;
   }

   std::string inputRecord() {
      std::string out = "input " + one(protocols_) + " " + key() + " discriminator " + num(1, 3);
      if (chance(40))
         out += chance(50) ? " originator 65000 192.0.2.1" : " originator 65001 2001:db8::100";
      if (chance(50)) out += " preference " + (chance(50) ? std::string("100") : "200");
      if (chance(85)) out += " bsid " + (chance(70) ? bsids_[pick(2)] : one(bsids_));
      const size_t lists = chance(15) ? 0 : 1 + pick(3);
      for (size_t i = 0; i < lists; ++i) {
         out += " segment-list";
         if (chance(40)) out += " weight " + num(1, 3);
         // Now and then deeper than a label stack may be: the host refuses it.
         out += labels(chance(3) ? 9 : 4);
      }
      return out;
   }

   std::string lfibRoute() {
      static const std::vector<std::string> adjTypes{"nexthop", "nexthop", "externalFec",
                                                     "invalid"};
      static const std::vector<std::string> routeTypes{"unknown", "unknown", "unknown",
                                                       "pseudowire"};
      static const std::vector<std::string> sources{"unknown", "unknown", "5", "srTePolicy"};
      const std::string label = chance(75) ? one(segLabels_) : one(bsids_);
      if (chance(20)) return "no lfib route " + label;
      std::string out = "lfib route " + label + " adjacency " + num(1, 3);
      if (chance(60)) out += " adjacency-type " + one(adjTypes);
      if (chance(40)) out += " route-type " + one(routeTypes);
      if (chance(40)) out += " source " + one(sources);
      return out;
   }

   std::string adjacency(bool ext) {
      const std::string index = num(1, 3);
      if (chance(15)) return std::string(ext ? "no adjacency-ext " : "no adjacency ") + index;
      // An external FEC id: the adjacency type (3) in the top 8 bits, the index below.
      std::string out = ext ? "adjacency-ext " + index + " fec " +
                                  std::to_string((uint64_t{3} << 56) + std::stoul(index))
                            : "adjacency " + index;
      const size_t vias = pick(4);
      for (size_t i = 0; i < vias; ++i) out += via();
      return out;
   }

   std::string staticConfig() {
      const std::string k = key();
      const std::string pref = " preference " + (chance(50) ? std::string("100") : "200");
      switch (pick(6)) {
      case 0:
         return "static policy " + k + (chance(70) ? " bsid " + one(bsids_) : "");
      case 1:
         return "static path " + k + pref;
      case 2:
      case 3:
         return "static segment-list " + k + pref + labels(3) +
                (chance(30) ? " weight " + num(1, 3) : "") +
                (chance(30) ? " index " + num(0, 3) : "");
      case 4:
         return "no static path " + k + pref;
      default:
         return "no static policy " + k;
      }
   }

   std::string event() {
      if (profile_ == 1 && chance(30)) {
         return chance(60) ? "run " + num(1, 3) : chance(70) ? "restart" : "input-table bgp";
      }
      if (profile_ == 2 && chance(25)) {
         return chance(50) ? std::string("attrlog congested ") + (chance(60) ? "on" : "off")
                           : "advance " + std::string(chance(50) ? "0.1" : "0.05");
      }
      if (profile_ == 3 && chance(30)) {
         if (chance(25)) {
            return std::string("config discriminator-tie-break ") + (chance(50) ? "on" : "off");
         }
         return chance(30) ? "input-table static" : staticConfig();
      }
      const size_t r = pick(100);
      if (r < 30) return inputRecord();
      if (r < 33) {
         return "no input " + one(protocols_) + " " + key() + " discriminator " + num(1, 3);
      }
      if (r < 37) return staticConfig();
      if (r < 45) return lfibRoute();
      if (r < 52) return adjacency(false);
      if (r < 55) return adjacency(true);
      if (r < 59) {
         static const std::vector<std::string> flags{
             "enabled", "specified-bsid-only", "segment-list-sharing", "discriminator-tie-break"};
         return "config " + one(flags) + (chance(50) ? " on" : " off");
      }
      if (r < 63) {
         // The SRLB moves (the narrow one leaves 15010 outside), or disappears.
         static const std::vector<std::string> srlbs{
             "label-range srlb base 15000 size 1000",   "label-range srlb base 15000 size 1000",
             "label-range srlb base 15000 size 1000",   "label-range srlb base 15000 size 5",
             "label-range srlb base 900000 size 10",    "no label-range srlb",
             "label-range dynamic base 100000 size 100"};
         return one(srlbs);
      }
      if (r < 65)
         return chance(70) ? "platform max-label-depth " + num(1, 4)
                           : "no platform max-label-depth";
      if (r < 67) {
         const std::string list = num(1, 6);
         return chance(70) ? "counter tunnel segment-list " + list + " packets " + num(0, 9)
                           : "no counter tunnel segment-list " + list;
      }
      if (r < 70) {
         // Tables come more often than they go: most sequences keep some input.
         if (chance(15)) return "input-table " + one(protocols_) + " remount";
         return std::string(chance(75) ? "input-table " : "no input-table ") + one(protocols_);
      }
      if (r < 76) {
         static const std::vector<std::string> times{"0.05", "0.1", "0.3", "1"};
         return "advance " + one(times);
      }
      if (r < 84) return chance(50) ? "run" : "run " + num(1, 4);
      if (r < 89) return std::string("attrlog congested ") + (chance(50) ? "on" : "off");
      if (r < 96) {
         static const std::vector<std::string> slices{"1", "1", "2", "7", "0"};
         return "scheduler slice " + one(slices);
      }
      return "restart";
   }

   std::mt19937_64 rng_;
   uint64_t profile_;
};

// ---- canonical forms

std::string labelText(Ipkit::MplsLabel l) { return ::Show::labelText(l); }

std::string stackText(const SegmentList& l) {
   std::string out = "[";
   for (uint8_t i = 0; i < l.size(); ++i) {
      if (i) out += " ";
      out += l.segmentLabel(i).stringValue();
   }
   return out + "]";
}

std::string stackText(const Export::SegmentList& l) {
   std::string out = "[";
   for (const Export::Segment& s : l.segment()) {
      if (out.size() > 1) out += " ";
      out += s.mplsLabel.stringValue();
   }
   return out + "]";
}

// Segment lists and tunnels named by their label stacks: the ids depend on history.
struct Names {
   std::map<uint32_t, std::string> list;

   explicit Names(const PolicyCore& core) {
      for (const auto& [id, l] : core.published().exportedSegmentListColl->segmentList()) {
         list[id.value] = stackText(*l);
      }
      for (const auto& n : core.entities()
                               .coreDedupTables->notifyingSegmentListCollection()
                               ->segmentListNotifier()) {
         const SegmentList* l = n->segmentListRawPtr();
         list[l->segmentListId().value] = stackText(*l);
      }
   }
   std::string of(SegmentListId id) const {
      auto it = list.find(id.value);
      return it == list.end() ? "[unknown list]" : it->second;
   }
   std::string ofTunnel(Tunnel::TunnelTable::TunnelId t) const {
      std::string out = of(SegmentListId(t.index()));
      if (SegmentListId(t.index()).getTunnelId() != t) out += "(not a segment-list tunnel)";
      return out;
   }
};

std::string policyIdText(const PolicyId& id) {
   return id.key.endpoint.stringValue() + " color " + std::to_string(id.key.color.value) + " " +
          protocolEnumToString(id.protocol) + ":" + std::to_string(id.discriminator.value);
}

// An unusable candidate a removed input table left behind (kept until restart by design).
bool leftover(const PolicyCore& core, const History& h, const PolicyId& id) {
   if (!h.removedTables.count(id.protocol)) return false;
   const Mox::Ptr<PolicyInput> table = core.router().input->policyInput(id.protocol);
   return !table || !table->policyInputEntryFind(id);
}

using Rows = std::vector<std::string>;

Rows candidates(PolicyCore& core, const History& h) {
   Rows rows;
   for (const auto& [key, info] : core.entities().policyKeyToIdMap->policy()) {
      for (const auto& [cid, c] : info->candidate()) {
         const PolicyId id(key, cid.protocol, cid.discriminator);
         if (c.reason != PolicyInvalidReason::usable && leftover(core, h, id)) continue;
         rows.push_back(policyIdText(id) + " " + policyInvalidReasonName(c.reason) + " bsid " +
                        labelText(c.bindingSid));
      }
   }
   return rows;
}

Rows bsidUsers(PolicyCore& core, const History& h) {
   Rows rows;
   for (const auto& [label, user] : core.policyInputSm()->bsidUser()) {
      std::string row;
      for (const PolicyId& id : Mox::sortedKeys(user->policyId())) {
         if (!leftover(core, h, id)) row += " " + policyIdText(id);
      }
      if (row.empty()) continue;
      rows.push_back(label.stringValue() + (user->available() ? " available" : " taken") + row);
   }
   return rows;
}

Rows selectionInput(PolicyCore& core, const History&) {
   const Names names(core);
   Rows rows;
   for (const auto& [id, e] : core.published().policySelectionInput->policyIdEntry()) {
      std::string row = policyIdText(id) + " preference " + std::to_string(e->preference().value) +
                        " originator " + e->originator().stringValue() + " bsid " +
                        labelText(e->bindingSid());
      for (const auto& [index, w] : e->wSegmentList()) {
         row += " " + std::to_string(index) + ":w" + std::to_string(w.weight.value) +
                names.of(w.segmentListId);
         if (w.tunnelId != w.segmentListId.getTunnelId())
            row += "(tunnel " + w.tunnelId.stringValue() + ")";
      }
      rows.push_back(row);
   }
   return rows;
}

Rows segments(PolicyCore& core, const History&) {
   const ProcessEntities& e = core.entities();
   Rows rows;
   for (const auto& n : e.coreDedupTables->notifyingSegmentCollection()->segmentNotifier()) {
      const auto* s = static_cast<const SegmentMplsLabel*>(n->segmentRawPtr());
      const SegmentListsOfSegment* users = e.segmentMap->segmentList(s->segmentId());
      const SegmentResolve* r = e.segmentStatus->status(s->segmentId());
      rows.push_back(s->label().stringValue() + " lists " +
                     std::to_string(users ? users->segmentListPtr().size() : 0) + " " +
                     (r ? "adjacency " + r->adjKey().stringValue() : "unresolved"));
   }
   return rows;
}

std::string viasText(const PolicyCore& core, SegmentListId id) {
   std::string out;
   if (const auto* entry = core.published().tunnelTable->entry(id.getTunnelId())) {
      for (const auto& [index, v] : entry->via()) {
         out += " {" + v.nexthop.stringValue() + " " + v.intfId.stringValue() + " " +
                ::Show::impositionText(v.labelOp) + "}";
      }
   }
   return out;
}

Rows segmentLists(PolicyCore& core, const History&) {
   const ProcessEntities& e = core.entities();
   Rows rows;
   for (const auto& n :
        e.coreDedupTables->notifyingSegmentListCollection()->segmentListNotifier()) {
      const SegmentList* l = n->segmentListRawPtr();
      const SegmentListId id = l->segmentListId();
      std::string row = stackText(*l) + " users";
      if (const SegmentListUser* u = e.segListMap->segmentListUser(id)) {
         for (const PolicyId& p : Mox::sortedKeys(u->policyId())) row += " " + policyIdText(p);
      }
      const SegmentListResolveError* s = core.published().segmentListStatus->status(id);
      row += std::string(" status ") + (s ? segmentListResolveErrorName(*s) : "unresolved");
      rows.push_back(row + viasText(core, id));
   }
   return rows;
}

Rows segmentListStatus(PolicyCore& core, const History&) {
   const Names names(core);
   Rows rows;
   for (const auto& [id, s] : core.published().segmentListStatus->status()) {
      rows.push_back(names.of(id) + " " + segmentListResolveErrorName(s));
   }
   return rows;
}

Rows tunnelTable(PolicyCore& core, const History&) {
   const Names names(core);
   Rows rows;
   for (const auto& [id, entry] : core.published().tunnelTable->entry()) {
      for (const auto& [index, v] : entry.via()) {
         rows.push_back(names.ofTunnel(id) + " via " + std::to_string(index) + " " +
                        v.nexthop.stringValue() + " " + v.intfId.stringValue() + " " +
                        ::Show::impositionText(v.labelOp));
      }
   }
   return rows;
}

// The sticky tie-break may keep any candidate that differs from the best only by
// discriminator, depending on which came first: only the group of the active one is content.
std::string activeGroup(const Priority& p, bool tieBreak) {
   if (tieBreak) return p.stringValue();
   return "preference " + std::to_string(p.preference.value) + " protocol " +
          protocolEnumToString(p.protocol) + " originator " + p.originator.stringValue();
}

Rows ecPolicy(PolicyCore& core, const History&) {
   const Names names(core);
   const bool tieBreak = core.router().config->useDiscriminatorInTieBreaking();
   Rows rows;
   for (const auto& [key, policy] : core.published().ecPolicy->policy()) {
      const std::string k = key.stringValue();
      for (const auto& [priority, entry] : policy->candidate()) {
         std::string row =
             k + " " + priority.stringValue() + " bsid " + labelText(entry->bindingSid());
         for (const auto& [index, w] : entry->wTunnelId()) {
            row += " " + std::to_string(index) + ":w" + std::to_string(w.weight.value) +
                   names.ofTunnel(w.tunnelId);
         }
         rows.push_back(row);
      }
      rows.push_back(k + " active " +
                     (policy->active() ? activeGroup(policy->active()->priority(), tieBreak)
                                       : std::string("none")));
   }
   return rows;
}

Rows exportedLists(PolicyCore& core, const History&) {
   Rows rows;
   for (const auto& [id, l] : core.published().exportedSegmentListColl->segmentList()) {
      rows.push_back(stackText(*l));
   }
   return rows;
}

// ---- publishing. Which of several policies asking for one binding SID holds it is first come,
// first served, so only the group is content: its claimants, and that exactly one of them is
// published (checked in ruleViolations). The rest is compared whole.

// Keys whose active candidate the sticky tie-break may have chosen among several (candidates
// that differ from the best only by discriminator), and every binding SID their candidates name:
// what is published for them, and who wins those binding SIDs, follows that choice. Both sets
// are content (the candidates are compared in `policies`); the cores' own consistency is checked
// in ruleViolations.
struct Sticky {
   std::set<PolicyKey> keys;
   std::set<Ipkit::MplsLabel> bsids;

   explicit Sticky(const PolicyCore& core) {
      if (core.router().config->useDiscriminatorInTieBreaking()) return;
      for (const auto& [key, policy] : core.published().ecPolicy->policy()) {
         const auto& c = policy->candidate();
         if (c.size() < 2) continue;
         const Priority& best = c.begin()->first;
         size_t group = 0;
         for (const auto& [p, e] : c) group += best.sameExceptDiscriminator(p) ? 1 : 0;
         if (group < 2) continue;
         keys.insert(key);
         for (const auto& [p, e] : c) {
            if (!e->bindingSid().isNull()) bsids.insert(e->bindingSid());
         }
      }
   }
   bool masks(const PolicyKey& key, Ipkit::MplsLabel activeBsid) const {
      return keys.count(key) || (!activeBsid.isNull() && bsids.count(activeBsid));
   }
};

// Per binding SID, the policy keys whose active path asks for it.
std::map<Ipkit::MplsLabel, std::set<PolicyKey>> claimants(const PolicyCore& core) {
   std::map<Ipkit::MplsLabel, std::set<PolicyKey>> out;
   for (const auto& [key, policy] : core.published().ecPolicy->policy()) {
      if (policy->active() && !policy->active()->bindingSid().isNull()) {
         out[policy->active()->bindingSid()].insert(key);
      }
   }
   return out;
}

// The binding SID `key` shares with other claimants, if any.
std::optional<Ipkit::MplsLabel> conflictOf(const std::map<Ipkit::MplsLabel, std::set<PolicyKey>>& c,
                                           const PolicyKey& key) {
   for (const auto& [label, keys] : c) {
      if (keys.size() > 1 && keys.count(key)) return label;
   }
   return std::nullopt;
}

std::string keysText(const std::set<PolicyKey>& keys) {
   std::string out;
   for (const PolicyKey& k : keys) out += " " + k.stringValue();
   return out;
}

std::string fecText(const PolicyCore& core, const Names& names, Vault::Fib::FecId id) {
   const Vault::Fib::Fec* fec = core.published().srteFwdStatus->fec(id);
   if (!fec) return " missing";
   std::string out;
   for (const Vault::Fib::Via& v : fec->via()) {
      out += " {" + labelText(v.mplsLabel()) + " " + Ipkit::mplsLabelActionName(v.labelAction()) +
             " " + names.ofTunnel(v.tunnelId()) + "}";
   }
   return out;
}

Rows policyStatus(PolicyCore& core, const History&) {
   const Names names(core);
   const bool tieBreak = core.router().config->useDiscriminatorInTieBreaking();
   const auto claims = claimants(core);
   const Sticky sticky(core);
   const PolicyStatus& status = *core.published().policyStatus;
   Rows rows;
   for (const auto& [key, policy] : core.published().ecPolicy->policy()) {
      const auto& active = policy->active();
      if (!active) continue;
      if (sticky.masks(key, active->bindingSid())) {
         rows.push_back(key.stringValue() + " follows a sticky choice");
         continue;
      }
      if (conflictOf(claims, key)) continue; // in bsid-conflicts
      const Mox::Ptr<PolicyStatusEntry> e = status.status(key);
      if (!e) {
         rows.push_back(key.stringValue() + " not published");
         continue;
      }
      rows.push_back(key.stringValue() + " candidate " +
                     (e->candidateId() == active->candidateId()
                          ? activeGroup(active->priority(), tieBreak)
                          : "not the active one " + e->candidateId().stringValue()) +
                     " originator " + e->originator().stringValue() + " bsid " +
                     labelText(e->bindingSid()) + " fec" + fecText(core, names, e->fecId()) +
                     " null-label fec" + fecText(core, names, e->nullLabelFecId()));
   }
   for (const auto& [key, e] : status.status()) {
      const Mox::Ptr<Policy> policy = core.published().ecPolicy->policy(key);
      if (!policy || !policy->active()) {
         rows.push_back(key.stringValue() + " published without an active path");
      }
   }
   return rows;
}

// Every FEC of the FIB table: whose it is and what it holds (a binding-SID holder's only by
// its group). A FEC no status entry names is a leftover.
Rows fecs(PolicyCore& core, const History&) {
   const Names names(core);
   const auto claims = claimants(core);
   const Sticky sticky(core);
   const PolicyStatus& status = *core.published().policyStatus;
   Rows rows;
   for (const auto& [id, fec] : core.published().srteFwdStatus->fec()) {
      const PolicyKey* key = status.fecIdToPolicyKey(id);
      const Mox::Ptr<PolicyStatusEntry> e = key ? status.status(*key) : nullptr;
      const char* kind = !e                          ? "stray fec"
                         : e->fecId() == id          ? "fec"
                         : e->nullLabelFecId() == id ? "null-label fec"
                                                     : "stray fec";
      const Mox::Ptr<Policy> policy = key ? core.published().ecPolicy->policy(*key) : nullptr;
      const bool masked =
          e && policy && policy->active() &&
          (conflictOf(claims, *key) || sticky.masks(*key, policy->active()->bindingSid()));
      if (masked) continue; // its FECs are checked against its active path in ruleViolations
      {
         rows.push_back((key ? key->stringValue() : "unmapped") + " " + kind +
                        fecText(core, names, id));
      }
   }
   for (const auto& [id, key] : status.fecIdToPolicyKey()) {
      if (!core.published().srteFwdStatus->fec(id)) {
         rows.push_back("map to " + key.stringValue() + " names a missing FEC");
      }
   }
   return rows;
}

// ConflictingPolicies: per binding SID asked for, the policies that asked.
Rows bsidConflicts(PolicyCore& core, const History&) {
   const Sticky sticky(core);
   Rows rows;
   for (const auto& [label, keys] : claimants(core)) {
      if (sticky.bsids.count(label)) continue;
      rows.push_back("bsid " + label.stringValue() + " claimed by" + keysText(keys));
   }
   for (const auto& [label, c] : core.policyPublishSm()->bindingSidPolicyMap()) {
      if (sticky.bsids.count(label)) continue;
      std::set<PolicyKey> asked(c->competitor().begin(), c->competitor().end());
      if (c->hasHolder()) asked.insert(c->chosen());
      rows.push_back("bsid " + label.stringValue() + " asked by" + keysText(asked) +
                     (c->hasHolder() ? "" : ", held by none"));
   }
   return rows;
}

// ---- the tunnel map. Every tunnel a path names has a row naming a key whose path names it. A
// tunnel that paths of several policy keys share maps to one of them, which one following history,
// so its row is content only as its group; a row whose tunnel no path names any more stays while
// the platform still counts it, which follows history too: it is left out here and checked in
// ruleViolations (it must be waiting for its counter).

// Per tunnel, the policy keys whose selection-input paths name it.
std::map<Tunnel::TunnelTable::TunnelId, std::set<PolicyKey>> tunnelUsers(const PolicyCore& core) {
   std::map<Tunnel::TunnelTable::TunnelId, std::set<PolicyKey>> out;
   for (const auto& [id, e] : core.published().policySelectionInput->policyIdEntry()) {
      for (const auto& [index, w] : e->wSegmentList()) out[w.tunnelId].insert(id.key);
   }
   return out;
}

Rows tunnelMap(PolicyCore& core, const History&) {
   const Names names(core);
   const auto users = tunnelUsers(core);
   const TunnelIdToPolicyKey& map = *core.published().tunnelIdToPolicyKey;
   Rows rows;
   for (const auto& [tunnel, entry] : map.tunnelEntry()) {
      auto it = users.find(tunnel);
      if (it == users.end()) {
         if (core.router().counterTable->counter(tunnel)) continue;
         rows.push_back(names.ofTunnel(tunnel) + " stale row " + entry.policyKey.stringValue());
      } else if (it->second.size() > 1) {
         rows.push_back(
             names.ofTunnel(tunnel) + " one of" + keysText(it->second) +
             (it->second.count(entry.policyKey) ? "" : ", not " + entry.policyKey.stringValue()));
      } else {
         rows.push_back(names.ofTunnel(tunnel) + " " + entry.policyKey.stringValue());
      }
   }
   for (const auto& [tunnel, keys] : users) {
      if (!map.tunnelEntry(tunnel)) {
         rows.push_back(names.ofTunnel(tunnel) + " unmapped");
      }
   }
   return rows;
}

// The unusable-path messages: per candidate path that is unusable now (and logged for its
// reason), the last message about it. Earlier messages tell the path's history.
Rows unusableMessages(PolicyCore& core, const History& h) {
   static const std::regex pathOf(
       "^Endpoint (\\S+), color (\\d+), protocol (\\S+), originator .*, discriminator (\\d+) "
       "is unusable");
   std::map<std::string, std::string> last;
   for (const Syslog::Record& r : core.syslogCapture().records()) {
      if (r.tag.rfind("SRTE_POLICY_INVALID_", 0) != 0) continue;
      std::smatch m;
      if (!std::regex_search(r.text, m, pathOf)) {
         last["unparsed " + r.text] = r.tag;
         continue;
      }
      last[m[1].str() + " color " + m[2].str() + " " + m[3].str() + ":" + m[4].str()] =
          r.tag + " " + r.text;
   }
   Rows rows;
   for (const auto& [key, info] : core.entities().policyKeyToIdMap->policy()) {
      for (const auto& [cid, c] : info->candidate()) {
         const PolicyId id(key, cid.protocol, cid.discriminator);
         if (c.reason == PolicyInvalidReason::usable || leftover(core, h, id)) continue;
         // A static path without segment lists is not logged.
         if (c.reason == PolicyInvalidReason::noSegmentLists &&
             cid.protocol == Protocol::staticConfig) {
            continue;
         }
         auto it = last.find(policyIdText(id));
         rows.push_back(it == last.end() ? policyIdText(id) + " never logged" : it->second);
      }
   }
   return rows;
}

// Two sorted row lists: the first row one has that the other has not (with multiplicity).
std::optional<std::string> firstDifference(const Rows& agent, const Rows& fresh) {
   size_t i = 0, j = 0;
   while (i < agent.size() || j < fresh.size()) {
      if (j == fresh.size() || (i < agent.size() && agent[i] < fresh[j])) {
         return "agent: " + agent[i];
      }
      if (i == agent.size() || fresh[j] < agent[i]) return "fresh: " + fresh[j];
      ++i;
      ++j;
   }
   return std::nullopt;
}

// Runs to convergence: no congestion, no ready task, no timer. False if it does not settle.
} // namespace

bool settle(Kiln::TaskScheduler& scheduler, Kiln::AttrLogSm& attrLog, const PolicyCore* core) {
   attrLog.attrLogOutCloggedIs(false);
   for (int i = 0; i < 30; ++i) {
      scheduler.runUntilIdle();
      if (scheduler.timerCount() == 0) return true;
      scheduler.advance(Kiln::Duration(std::chrono::seconds(10)));
   }
   // The one timer that may last: the tunnel map retries every second while a tunnel it let go
   // of is still counted (the counter belongs to the platform, not to the inputs' history).
   const bool waitingForCounters =
       core && core->started() && !core->tunnelMapExportSm()->pendingTunnel().empty();
   return scheduler.readyTaskCount() == 0 && (scheduler.timerCount() == 0 || waitingForCounters);
}

namespace {

std::vector<std::string> wordsOf(const std::string& line) {
   std::istringstream in(line);
   std::vector<std::string> out;
   for (std::string w; in >> w;) out.push_back(w);
   return out;
}

// What the agent's history leaves behind, from the lines it ran.
void track(History& h, const std::string& line) {
   const auto w = wordsOf(line);
   if (w.size() == 1 && w[0] == "restart") h.removedTables.clear();
   if (w.size() == 3 && w[0] == "no" && w[1] == "input-table") {
      if (auto p = sequenceToValue(w[2])) h.removedTables.insert(*p);
   }
}

const char* const settleLines = "config enabled on\nattrlog congested off\nrun\nadvance 10\n";

} // namespace

std::vector<std::string> generate(uint64_t seed) { return Gen(seed).lines(); }

const std::vector<Table>& tables() {
   static const std::vector<Table> all{
       {"candidates", candidates},
       {"bsid-users", bsidUsers},
       {"selection-input", selectionInput},
       {"segments", segments},
       {"segment-lists", segmentLists},
       {"segment-list-status", segmentListStatus},
       {"tunnel-table", tunnelTable},
       {"policies", ecPolicy},
       {"exported-segment-lists", exportedLists},
       {"policy-status", policyStatus},
       {"fecs", fecs},
       {"bsid-conflicts", bsidConflicts},
       {"tunnel-map", tunnelMap},
       {"syslog", unusableMessages},
   };
   return all;
}

std::vector<std::string> ruleViolations(PolicyCore& core, double now) {
   std::vector<std::string> out;
   for (const auto& [key, info] : core.entities().policyKeyToIdMap->policy()) {
      for (const auto& [cid, c] : info->candidate()) {
         if (c.lastModified > now || c.lastModified < 0) {
            out.push_back(key.stringValue() + " " + cid.stringValue() + " lastModified " +
                          std::to_string(c.lastModified) + " not in [0, now " +
                          std::to_string(now) + "]");
         }
      }
   }
   for (const auto& [key, policy] : core.published().ecPolicy->policy()) {
      if (policy->candidate().empty()) out.push_back(key.stringValue() + " has no candidate");
      const auto& active = policy->active();
      if (!policy->candidate().empty() && !active) {
         out.push_back(key.stringValue() + " has candidates but no active one");
      }
      if (active) {
         auto it = policy->candidate().find(active->priority());
         if (it == policy->candidate().end() || it->second != active) {
            out.push_back(key.stringValue() + " active " + active->priority().stringValue() +
                          " is not one of its candidates");
         }
      }
   }
   // Exactly one holder per claimed binding SID, a policy that asks for it, and published.
   const PolicyStatus& status = *core.published().policyStatus;
   for (const auto& [label, keys] : claimants(core)) {
      std::set<PolicyKey> published;
      for (const PolicyKey& k : keys) {
         if (status.status(k)) published.insert(k);
      }
      const ConflictingPolicies* c = core.policyPublishSm()->conflictingPolicies(label);
      if (published.size() != 1 || !c || !c->hasHolder() || !published.count(c->chosen())) {
         out.push_back("bsid " + label.stringValue() + " claimed by" + keysText(keys) +
                       ": published" + keysText(published) + ", holder " +
                       (c && c->hasHolder() ? c->chosen().stringValue() : "none"));
      }
   }
   const Names names(core);
   for (const auto& [key, e] : status.status()) {
      // What is published is the active path's.
      const Mox::Ptr<Policy> policy = core.published().ecPolicy->policy(key);
      if (policy && policy->active()) {
         const PolicyEntry& a = *policy->active();
         std::string want;
         for (const auto& [index, w] : a.wTunnelId())
            want += " {none none " + names.ofTunnel(w.tunnelId) + "}";
         const std::string explicitNull =
             key.endpoint.af() == Ipkit::IpGenAddr::Family::ipv6 ? "2" : "0";
         std::string wantNull;
         for (const auto& [index, w] : a.wTunnelId()) {
            wantNull += " {" + explicitNull + " push " + names.ofTunnel(w.tunnelId) + "}";
         }
         if (!(e->candidateId() == a.candidateId()) ||
             !(e->originator() == a.priority().originator) || e->bindingSid() != a.bindingSid() ||
             fecText(core, names, e->fecId()) != want ||
             fecText(core, names, e->nullLabelFecId()) != wantNull) {
            out.push_back("status " + key.stringValue() + " is not its active path " +
                          a.priority().stringValue());
         }
         const PolicyKey* fecKey = status.fecIdToPolicyKey(e->fecId());
         const PolicyKey* nullKey = status.fecIdToPolicyKey(e->nullLabelFecId());
         if (!fecKey || !(*fecKey == key) || !nullKey || !(*nullKey == key)) {
            out.push_back("status " + key.stringValue() + " FECs not mapped back to it");
         }
      }
      if (e->lastModified() > now || e->lastModified() < 0) {
         out.push_back("status " + key.stringValue() + " lastModified " +
                       std::to_string(e->lastModified()) + " not in [0, now]");
      }
      if (!e->bindingSid().isNull()) {
         const ConflictingPolicies* c =
             core.policyPublishSm()->conflictingPolicies(e->bindingSid());
         if (!c || !(c->chosen() == key)) {
            out.push_back("status " + key.stringValue() + " published with bsid " +
                          e->bindingSid().stringValue() + " it does not hold");
         }
      }
   }
   // A row no path names any more waits for its counter to go.
   const auto users = tunnelUsers(core);
   for (const auto& [tunnel, entry] : core.published().tunnelIdToPolicyKey->tunnelEntry()) {
      if (!users.count(tunnel) && !core.tunnelMapExportSm()->pendingTunnel().count(tunnel)) {
         out.push_back("tunnel map row " + tunnel.stringValue() +
                       " that no path names is not waiting for its counter");
      }
   }
   // An exported id names the same labels as the list of that id.
   for (const auto& n :
        core.entities().coreDedupTables->notifyingSegmentListCollection()->segmentListNotifier()) {
      const SegmentList* l = n->segmentListRawPtr();
      const auto& exported = core.published().exportedSegmentListColl->segmentList();
      auto it = exported.find(l->segmentListId());
      if (it != exported.end() && stackText(*it->second) != stackText(*l)) {
         out.push_back("exported list " + l->segmentListId().stringValue() + " is " +
                       stackText(*it->second) + ", the list is " + stackText(*l));
      }
   }
   return out;
}

std::optional<Divergence> compare(PolicyCore& agent, double agentNow, PolicyCore& fresh,
                                  double freshNow, const History& history,
                                  std::map<std::string, size_t>* rowCount) {
   for (const Table& t : tables()) {
      Rows agentRows = t.rows(agent, history);
      Rows freshRows = t.rows(fresh, history);
      std::sort(agentRows.begin(), agentRows.end());
      std::sort(freshRows.begin(), freshRows.end());
      if (getenv("CONVERGE_DUMP")) {
         for (const auto& r : agentRows) std::cerr << t.name << " agent: " << r << "\n";
         for (const auto& r : freshRows) std::cerr << t.name << " fresh: " << r << "\n";
      }
      if (rowCount) (*rowCount)[t.name] = agentRows.size();
      if (auto d = firstDifference(agentRows, freshRows)) return Divergence{t.name, *d};
   }
   auto agentRules = ruleViolations(agent, agentNow);
   if (!agentRules.empty()) return Divergence{"rules", "agent: " + agentRules.front()};
   auto freshRules = ruleViolations(fresh, freshNow);
   if (!freshRules.empty()) return Divergence{"rules", "fresh: " + freshRules.front()};
   return std::nullopt;
}

Outcome check(const std::vector<std::string>& lines) {
   Outcome o;
   std::ostringstream sink;
   Agent::Host host(sink);
   Agent::registerModules(host);
   host.start();
   History history;
   for (const std::string& line : lines) {
      Agent::Host::Apply apply;
      try {
         apply = host.parse(line);
      } catch (const std::exception&) {
         continue; // refused: changes nothing, and the printed script leaves it out
      }
      o.accepted.push_back(line);
      try {
         if (apply) apply();
      } catch (const std::exception& e) {
         o.divergence = Divergence{"exception", "agent: '" + line + "' threw " + e.what()};
         return o;
      }
      track(history, line);
   }
   // A sequence that ends with SR-TE off is compared once it is on again: a stopped agent has
   // withdrawn everything, and turning it on must bring back what a fresh one computes.
   host.router().config->enabledIs(true);
   if (!settle(host.scheduler(), host.attrLog(), &host.core())) {
      o.divergence = Divergence{"quiescence", "agent: work left after 300 s"};
      return o;
   }

   // A fresh agent on the same router tables, with its own clock and published tables.
   Kiln::TaskScheduler freshScheduler;
   RouterTables freshTables = host.router().tables(freshScheduler);
   freshTables.attrLog = Mox::make<Kiln::AttrLogSm>();
   PolicyCore fresh(freshTables);
   fresh.start();
   if (!settle(freshScheduler, *freshTables.attrLog, &fresh)) {
      o.divergence = Divergence{"quiescence", "fresh: work left after 300 s"};
      return o;
   }

   o.divergence = compare(host.core(), host.scheduler().now(), fresh, freshScheduler.now(), history,
                          &o.rowCount);
   return o;
}

std::vector<std::string> shrink(const std::vector<std::string>& lines, const std::string& table) {
   auto diverges = [&](const std::vector<std::string>& candidate, Outcome& o) {
      o = check(candidate);
      return o.divergence && o.divergence->table == table;
   };
   Outcome o = check(lines);
   std::vector<std::string> cur = o.accepted;
   size_t parts = 2;
   while (cur.size() >= 2) {
      const size_t chunk = (cur.size() + parts - 1) / parts;
      bool reduced = false;
      for (size_t start = 0; start < cur.size(); start += chunk) {
         std::vector<std::string> rest(cur.begin(), cur.begin() + start);
         rest.insert(rest.end(), cur.begin() + std::min(cur.size(), start + chunk), cur.end());
         if (diverges(rest, o)) {
            cur = o.accepted;
            parts = std::max<size_t>(parts - 1, 2);
            reduced = true;
            break;
         }
      }
      if (!reduced) {
         if (parts >= cur.size()) break;
         parts = std::min(cur.size(), parts * 2);
      }
   }
   return cur;
}

std::string script(const std::vector<std::string>& lines, const std::string& header) {
   std::string out;
   std::istringstream h(header);
   for (std::string l; std::getline(h, l);) out += "# " + l + "\n";
   for (const auto& l : lines) out += l + "\n";
   out += settleLines;
   out += "show all\n";
   return out;
}

std::string freshScript(const std::vector<std::string>& lines) {
   std::ostringstream config;
   Agent::Host host(config);
   Agent::registerModules(host);
   host.start();
   for (const std::string& line : lines) {
      try {
         host.execute(line);
      } catch (const std::exception&) {
      }
   }
   config.str("");
   host.execute("show running-config");
   return "# a fresh agent on the same inputs\n" + config.str() + settleLines + "show all\n";
}

} // namespace Converge
