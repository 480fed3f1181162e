// The meaning of a router's published tables, for comparing two cores' outputs across processes.
#pragma once

#include <map>
#include <set>
#include <string>

#include "core/SrTePolicyMachines.h"

namespace TestSupport {

// What forwarding can tell of the published tables, each row by its meaning: ids the core
// allocates (segment lists and the tunnels named after them, FECs, adjacency indexes) stand for
// what they name, and the times of changes are left out. Two agents that made the same decisions
// from the same inputs, in whatever order and over whatever restarts, give the same.
using Meaning = std::map<std::string, std::multiset<std::string>>;

inline Meaning meaningOf(const SrTePolicy::PublishedTables& t) {
   using namespace SrTePolicy;
   auto labels = [&](SegmentListId id) {
      const auto list = t.exportedSegmentListColl->segmentList(id);
      if (!list) return "list?" + std::to_string(id.value);
      std::string s = "[";
      for (const Export::Segment& seg : list->segment()) s += seg.mplsLabel.stringValue() + " ";
      return s + "]";
   };
   auto tunnel = [&](Tunnel::TunnelTable::TunnelId id) {
      return "tunnel" + labels(SegmentListId(id.index()));
   };
   auto fec = [&](Vault::Fib::FecId id) -> std::string {
      const PolicyKey* key = t.policyStatus->fecIdToPolicyKey(id);
      if (!key) return "fec?" + id.stringValue();
      const auto entry = t.policyStatus->status(*key);
      return key->stringValue() + (entry && entry->fecId() == id ? "/fec" : "/nullLabelFec");
   };
   Meaning m;
   for (const auto& [id, e] : t.policySelectionInput->policyIdEntry()) {
      std::string s = id.stringValue() + " " + std::to_string(e->preference().value) + " " +
                      e->originator().stringValue() + " " + e->bindingSid().stringValue();
      for (const auto& [i, row] : e->wSegmentList()) {
         s += " " + std::to_string(i) + ":" + labels(row.segmentListId) + "/" +
              std::to_string(row.weight.value) + "/" + tunnel(row.tunnelId);
      }
      m["policySelectionInput"].insert(s);
   }
   for (const auto& [id, list] : t.exportedSegmentListColl->segmentList()) {
      m["exportedSegmentLists"].insert(labels(id) + " size " + std::to_string(list->size()));
   }
   for (const auto& [id, error] : t.segmentListStatus->status()) {
      m["segmentListStatus"].insert(labels(id) + " " + segmentListResolveErrorName(error));
   }
   for (const auto& [id, entry] : t.tunnelTable->entry()) {
      std::string s = tunnel(id);
      for (const auto& [i, via] : entry.via())
         s += " " + std::to_string(i) + ":" + via.stringValue();
      m["srTeSegmentListTunnelTable"].insert(s);
   }
   for (const auto& [key, policy] : t.ecPolicy->policy()) {
      if (policy->candidate().empty()) m["ecPolicy"].insert(key.stringValue() + " empty");
      for (const auto& [priority, e] : policy->candidate()) {
         std::string s = key.stringValue() + " " + priority.stringValue() +
                         (policy->active() == e ? " active " : " ") + e->bindingSid().stringValue();
         for (const auto& [i, row] : e->wTunnelId()) {
            s += " " + std::to_string(i) + ":" + tunnel(row.tunnelId) + "/" +
                 std::to_string(row.weight.value);
         }
         m["ecPolicy"].insert(s);
      }
   }
   for (const auto& [key, e] : t.policyStatus->status()) {
      m["policyStatus"].insert(key.stringValue() + " " + e->candidateId().stringValue() + " " +
                               e->originator().stringValue() + " " + e->bindingSid().stringValue());
   }
   for (const auto& [id, f] : t.srteFwdStatus->fec()) {
      std::string s = fec(id);
      for (const Vault::Fib::Via& via : f->via()) {
         s += " (" + via.intfId().stringValue() + " " + via.mplsLabel().stringValue() + " " +
              std::to_string(static_cast<uint32_t>(via.labelAction())) + " " +
              tunnel(via.tunnelId()) + ")";
      }
      m["srteFwdStatus"].insert(s);
   }
   for (const auto& [id, row] : t.tunnelIdToPolicyKey->tunnelEntry()) {
      m["tunnelIdToPolicyKey"].insert(tunnel(id) + " " + row.policyKey.stringValue());
   }
   if (const auto& lfib = t.lfibStatus->lfib()) {
      for (const auto& [key, route] : lfib->lfibRoute()) {
         std::string s = key.stringValue() + " source " +
                         std::to_string(static_cast<uint32_t>(route.source)) + " via ";
         const auto* adj = route.via.type() == Mpls::AdjacencyType::externalFec
                               ? lfib->lfibExtFecAdjacency(route.via.index())
                               : nullptr;
         s += adj ? fec(adj->fecId) : route.via.stringValue();
         m["srTePolicyLfibStatus"].insert(s);
      }
      for (const auto& [index, adj] : lfib->lfibExtFecAdjacency()) {
         m["srTePolicyLfibStatus"].insert("adjacency " + fec(adj.fecId) + " " +
                                          std::to_string(static_cast<uint32_t>(adj.labelAction)));
      }
   }
   return m;
}

// A tunnel that several policies share is mapped to one of them: which one depends on the order
// the paths came in and let go (a row passes to another key that still maps the tunnel), so two
// agents with the same inputs, or one killed and started again, may differ there and both be
// right. Such a row reads "one of the N policies" when its policy is among those that forward over
// the tunnel (srteFwdStatus), and stays as it was otherwise.
inline void sharedTunnelsAsOneOf(Meaning& m) {
   std::map<std::string, std::set<std::string>> users; // "tunnel[...]" -> policy keys
   for (const std::string& row : m["srteFwdStatus"]) {
      const std::string key = row.substr(0, row.find('/'));
      for (size_t at = row.find("tunnel["); at != std::string::npos;
           at = row.find("tunnel[", at + 1)) {
         users[row.substr(at, row.find(']', at) + 1 - at)].insert(key);
      }
   }
   std::multiset<std::string> rows;
   for (const std::string& row : m["tunnelIdToPolicyKey"]) {
      const size_t space = row.rfind(' ');
      const std::string tunnel = row.substr(0, space), key = row.substr(space + 1);
      auto it = users.find(tunnel);
      if (it != users.end() && it->second.size() > 1 && it->second.contains(key)) {
         rows.insert(tunnel + " one of the " + std::to_string(it->second.size()) + " policies");
      } else {
         rows.insert(row);
      }
   }
   m["tunnelIdToPolicyKey"] = std::move(rows);
}

} // namespace TestSupport
