// Policy input gathering in the host: shows what the core's input machine computed:
// `candidates`, `selection-input`, `segments`, `segment-lists`, `exported-segment-lists` and
// `bsid-users`.
#include <algorithm>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/TextTable.h"
#include "input/SrTePolicyInputSm.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

// Map values in key order (hash collections iterate in no useful order).
template <class M>
std::vector<typename M::const_iterator> sortedByKey(const M& map) {
   std::vector<typename M::const_iterator> out;
   out.reserve(map.size());
   for (auto it = map.begin(); it != map.end(); ++it) out.push_back(it);
   std::sort(out.begin(), out.end(), [](auto a, auto b) { return a->first < b->first; });
   return out;
}

std::string seconds(double t) { return Json::Value::number(t).text(); }

std::string policyIdText(const PolicyId& id) {
   return id.key.endpoint.stringValue() + " color " + std::to_string(id.key.color.value) + " " +
          CandidateId(id).stringValue();
}

Json::Value candidateIdJson(const CandidateId& c) {
   Json::Value row = Json::Value::row();
   Show::enumIs(row, "protocol", c.protocol, protocolEnumToString(c.protocol));
   row.set("discriminator", c.discriminator.value);
   return row;
}

Json::Value policyIdJson(const PolicyId& id) {
   Json::Value row = Json::Value::row();
   row.set("endpoint", Json::Value::address(id.key.endpoint)).set("color", id.key.color.value);
   Show::enumIs(row, "protocol", id.protocol, protocolEnumToString(id.protocol));
   row.set("discriminator", id.discriminator.value);
   return row;
}

std::vector<PolicyId> sortedPolicyIds(const PolicyIdSet& ids) {
   std::vector<PolicyId> out(ids.begin(), ids.end());
   std::sort(out.begin(), out.end());
   return out;
}

// ---- candidates

void candidatesText(Host& host, std::string& out) {
   const auto& policies = host.core().entities().policyKeyToIdMap->policy();
   Mox::appendf(out, "Candidate paths of %s\n", Show::count(policies.size(), "policy key").c_str());
   Show::TextTable t({"Endpoint", "Color", "Candidate", "Reason", "Last change", "BSID"});
   for (auto it : sortedByKey(policies)) {
      bool first = true;
      for (const auto& [cid, info] : it->second->candidate()) {
         std::vector<std::string> cells{first ? it->first.endpoint.stringValue() : "",
                                        first ? std::to_string(it->first.color.value) : "",
                                        cid.stringValue(),
                                        policyInvalidReasonName(info.reason),
                                        seconds(info.lastModified),
                                        Show::labelText(info.bindingSid)};
         first ? t.rowIs(std::move(cells)) : t.continuationIs(std::move(cells));
         first = false;
      }
   }
   t.render(out, 2);
}

Json::Value candidatesJson(Host& host) {
   Json::Value rows = Json::Value::array();
   for (auto it : sortedByKey(host.core().entities().policyKeyToIdMap->policy())) {
      for (const auto& [cid, info] : it->second->candidate()) {
         Json::Value row = Json::Value::row();
         row.set("endpoint", Json::Value::address(it->first.endpoint))
             .set("color", it->first.color.value)
             .set("candidateId", candidateIdJson(cid));
         Show::enumIs(row, "reason", info.reason, policyInvalidReasonName(info.reason));
         row.set("lastModified", Json::Value::number(info.lastModified))
             .set("bindingSid", Json::Value::label(info.bindingSid));
         rows.push(std::move(row));
      }
   }
   return rows;
}

// ---- selection input

void selectionInputText(Host& host, std::string& out) {
   const auto& entries = host.core().published().policySelectionInput->policyIdEntry();
   Mox::appendf(out, "Selection input: %s\n",
                Show::count(entries.size(), "candidate path").c_str());
   Show::TextTable t({"Endpoint", "Color", "Candidate", "Preference", "Originator", "BSID",
                      "Version", "Weight", "Segment list", "Tunnel"});
   for (auto it : sortedByKey(entries)) {
      const PolicyIdEntry& e = *it->second;
      std::vector<std::string> cells{
          e.id().key.endpoint.stringValue(), std::to_string(e.id().key.color.value),
          CandidateId(e.id()).stringValue(), std::to_string(e.preference().value),
          e.originator().stringValue(),      Show::labelText(e.bindingSid()),
          std::to_string(e.version())};
      if (e.wSegmentList().empty()) t.rowIs(std::move(cells));
      bool first = true;
      for (const auto& [index, w] : e.wSegmentList()) {
         if (!first) cells.assign(7, std::string());
         cells.push_back(std::to_string(w.weight.value));
         cells.push_back(w.segmentListId.stringValue());
         cells.push_back(Show::tunnelText(w.tunnelId));
         first ? t.rowIs(std::move(cells)) : t.continuationIs(std::move(cells));
         first = false;
      }
   }
   t.render(out, 2);
}

Json::Value selectionInputJson(Host& host) {
   Json::Value rows = Json::Value::array();
   for (auto it : sortedByKey(host.core().published().policySelectionInput->policyIdEntry())) {
      const PolicyIdEntry& e = *it->second;
      Json::Value lists = Json::Value::inlineArray();
      for (const auto& [index, w] : e.wSegmentList()) {
         lists.push(Json::Value::row()
                        .set("index", uint32_t{index})
                        .set("weight", w.weight.value)
                        .set("segmentListId", w.segmentListId.value)
                        .set("tunnelId", w.tunnelId.value));
      }
      Json::Value row = policyIdJson(e.id());
      row.set("preference", e.preference().value)
          .set("originator", Show::originatorJson(e.originator()))
          .set("bindingSid", Json::Value::label(e.bindingSid()))
          .set("version", e.version())
          .set("wSegmentList", std::move(lists));
      rows.push(std::move(row));
   }
   return rows;
}

// ---- segments and segment lists

Json::Value adjKeyJson(const Mpls::AdjacencyKey& k) {
   Json::Value row = Json::Value::row();
   row.set("index", uint64_t{k.index()});
   const char* name = k.type() == Mpls::AdjacencyType::nexthop       ? "nexthop"
                      : k.type() == Mpls::AdjacencyType::externalFec ? "externalFec"
                                                                     : "";
   Show::enumIs(row, "type", k.type(), name);
   return row;
}

std::vector<const SegmentMplsLabel*> segmentsById(const ProcessEntities& core) {
   std::vector<const SegmentMplsLabel*> out;
   for (const auto& n : core.coreDedupTables->notifyingSegmentCollection()->segmentNotifier()) {
      out.push_back(static_cast<const SegmentMplsLabel*>(n->segmentRawPtr()));
   }
   std::sort(out.begin(), out.end(),
             [](auto* a, auto* b) { return a->segmentId() < b->segmentId(); });
   return out;
}

size_t listsUsing(const ProcessEntities& core, SegmentId id) {
   const SegmentListCollection* c = core.segmentMap->segmentList(id);
   return c ? c->segmentListPtr().size() : 0;
}

void segmentsText(Host& host, std::string& out) {
   const ProcessEntities& core = host.core().entities();
   auto segments = segmentsById(core);
   Mox::appendf(out, "Segments: %s (next id %u)\n", Show::count(segments.size(), "segment").c_str(),
                core.coreDedupTables->notifyingSegmentCollection()->uniqueId().value + 1);
   Show::TextTable t({"Id", "Type", "Label", "Segment lists", "Resolution"});
   for (const SegmentMplsLabel* s : segments) {
      const SegmentResolve* r = core.segmentStatus->status(s->segmentId());
      t.rowIs({s->segmentId().stringValue(), segmentTypeName(s->type()), s->label().stringValue(),
               std::to_string(listsUsing(core, s->segmentId())),
               r ? "adjacency " + r->adjKey().stringValue() : "unresolved"});
   }
   t.render(out, 2);
}

Json::Value segmentsJson(Host& host) {
   const ProcessEntities& core = host.core().entities();
   Json::Value rows = Json::Value::array();
   for (const SegmentMplsLabel* s : segmentsById(core)) {
      Json::Value row = Json::Value::row();
      row.set("segmentId", s->segmentId().value);
      Show::enumIs(row, "type", s->type(), segmentTypeName(s->type()));
      row.set("label", Json::Value::label(s->label()))
          .set("segmentLists", uint64_t{listsUsing(core, s->segmentId())});
      const SegmentResolve* r = core.segmentStatus->status(s->segmentId());
      row.set("adjKey", r ? adjKeyJson(r->adjKey()) : Json::Value::null());
      rows.push(std::move(row));
   }
   return rows;
}

std::vector<const SegmentList*> segmentListsById(const ProcessEntities& core) {
   std::vector<const SegmentList*> out;
   for (const auto& n :
        core.coreDedupTables->notifyingSegmentListCollection()->segmentListNotifier()) {
      out.push_back(n->segmentListRawPtr());
   }
   std::sort(out.begin(), out.end(),
             [](auto* a, auto* b) { return a->segmentListId() < b->segmentListId(); });
   return out;
}

std::vector<PolicyId> usersOf(const ProcessEntities& core, SegmentListId id) {
   const SegmentListUser* user = core.segListMap->segmentListUser(id);
   return user ? sortedPolicyIds(user->policyId()) : std::vector<PolicyId>{};
}

// A list's resolution status name, or "unresolved" when it has none.
std::string listStatusText(const PublishedTables& published, SegmentListId id) {
   const SegmentListResolveError* e = published.segmentListStatus->status(id);
   return e ? segmentListResolveErrorName(*e) : "unresolved";
}

// The tunnel entry's vias as "10.0.0.2 Ethernet1 push 16001 900", top label first.
std::vector<std::string> listViasText(const PublishedTables& published, SegmentListId id) {
   std::vector<std::string> out;
   if (const auto* entry = published.tunnelTable->entry(id.getTunnelId())) {
      for (const auto& [index, v] : entry->via()) {
         out.push_back(v.nexthop.stringValue() + " " + v.intfId.stringValue() + " " +
                       Show::impositionText(v.labelOp));
      }
   }
   return out;
}

void segmentListsText(Host& host, std::string& out) {
   const ProcessEntities& core = host.core().entities();
   const PublishedTables& published = host.core().published();
   auto lists = segmentListsById(core);
   Mox::appendf(out, "Segment lists: %s (next id %u)\n",
                Show::count(lists.size(), "segment list").c_str(),
                core.coreDedupTables->notifyingSegmentListCollection()->uniqueId().value + 1);
   Show::TextTable t({"Id", "Labels", "Tunnel", "Used by", "Status", "Vias (top label first)"});
   for (const SegmentList* l : lists) {
      const SegmentListId id = l->segmentListId();
      auto users = usersOf(core, id);
      auto vias = listViasText(published, id);
      const size_t rows = std::max<size_t>({1, users.size(), vias.size()});
      for (size_t i = 0; i < rows; ++i) {
         std::vector<std::string> cells{i ? "" : id.stringValue(),
                                        i ? "" : Show::labelStackText(l->labelStack()),
                                        i ? "" : Show::tunnelText(id.getTunnelId()),
                                        i < users.size() ? policyIdText(users[i]) : "",
                                        i ? "" : listStatusText(published, id),
                                        i < vias.size() ? vias[i] : ""};
         i ? t.continuationIs(std::move(cells)) : t.rowIs(std::move(cells));
      }
   }
   t.render(out, 2);
}

Json::Value segmentListsJson(Host& host) {
   const ProcessEntities& core = host.core().entities();
   const PublishedTables& published = host.core().published();
   Json::Value rows = Json::Value::array();
   for (const SegmentList* l : segmentListsById(core)) {
      Json::Value segments = Json::Value::inlineArray();
      for (uint32_t i = 0; i < l->size(); ++i)
         segments.push(Json::Value::number(uint64_t{l->getSegmentId(i).value}));
      Json::Value users = Json::Value::inlineArray();
      for (const PolicyId& id : usersOf(core, l->segmentListId())) users.push(policyIdJson(id));
      const SegmentListId id = l->segmentListId();
      Json::Value row = Json::Value::row();
      row.set("segmentListId", id.value)
          .set("labels", Show::labelStackJson(l->labelStack()))
          .set("segmentIds", std::move(segments))
          .set("tunnelId", id.getTunnelId().value)
          .set("policyIds", std::move(users));
      if (const SegmentListResolveError* e = published.segmentListStatus->status(id)) {
         Show::enumIs(row, "status", *e, segmentListResolveErrorName(*e));
      } else {
         row.set("status", Json::Value::null());
      }
      Json::Value vias = Json::Value::inlineArray();
      if (const auto* entry = published.tunnelTable->entry(id.getTunnelId())) {
         for (const auto& [index, v] : entry->via()) {
            vias.push(Json::Value::row()
                          .set("nexthop", Json::Value::address(v.nexthop))
                          .set("intfId", v.intfId.stringValue())
                          .set("labels", Show::impositionJson(v.labelOp)));
         }
      }
      row.set("vias", std::move(vias));
      rows.push(std::move(row));
   }
   return rows;
}

// ---- exported segment lists

Ipkit::MplsLabelOperation exportedLabels(const Export::SegmentList& l) {
   Ipkit::MplsLabelOperation op;
   for (const Export::Segment& s : l.segment()) op.push(s.mplsLabel);
   return op;
}

void exportedText(Host& host, std::string& out) {
   const auto& lists = host.core().published().exportedSegmentListColl->segmentList();
   Mox::appendf(out, "Exported segment lists: %s\n",
                Show::count(lists.size(), "segment list").c_str());
   Show::TextTable t({"Id", "Size", "Labels"});
   for (auto it : sortedByKey(lists)) {
      t.rowIs({it->first.stringValue(), std::to_string(it->second->size()),
               Show::labelStackText(exportedLabels(*it->second))});
   }
   t.render(out, 2);
}

Json::Value exportedJson(Host& host) {
   Json::Value rows = Json::Value::array();
   for (auto it : sortedByKey(host.core().published().exportedSegmentListColl->segmentList())) {
      rows.push(Json::Value::row()
                    .set("segmentListId", it->first.value)
                    .set("size", uint32_t{it->second->size()})
                    .set("segment", Show::labelStackJson(exportedLabels(*it->second))));
   }
   return rows;
}

// ---- binding-SID users

void bsidUsersText(Host& host, std::string& out) {
   const PolicyInputSm& sm = *host.core().policyInputSm();
   Mox::appendf(out, "SRLB: %s\n", sm.srlbConfigRange().stringValue().c_str());
   Mox::appendf(out, "Binding SID users: %s\n", Show::count(sm.bsidUser().size(), "label").c_str());
   Show::TextTable t({"BSID", "Available", "Candidate paths"});
   for (auto it : sortedByKey(sm.bsidUser())) {
      auto ids = sortedPolicyIds(it->second->policyId());
      for (size_t i = 0; i < ids.size(); ++i) {
         std::vector<std::string> cells{i ? "" : it->first.stringValue(),
                                        i ? "" : (it->second->available() ? "yes" : "no"),
                                        policyIdText(ids[i])};
         i ? t.continuationIs(std::move(cells)) : t.rowIs(std::move(cells));
      }
   }
   t.render(out, 2);
}

Json::Value bsidUsersJson(Host& host) {
   Json::Value rows = Json::Value::array();
   for (auto it : sortedByKey(host.core().policyInputSm()->bsidUser())) {
      Json::Value ids = Json::Value::inlineArray();
      for (const PolicyId& id : sortedPolicyIds(it->second->policyId())) ids.push(policyIdJson(id));
      rows.push(Json::Value::row()
                    .set("bindingSid", Json::Value::label(it->first))
                    .set("available", it->second->available())
                    .set("policyIds", std::move(ids)));
   }
   return rows;
}

} // namespace

void registerInput(Host& host) {
   host.showIs(
       "candidates", "per policy key, every candidate with its invalid reason, last change, BSID",
       [&host](std::string& out) { candidatesText(host, out); },
       [&host] { return candidatesJson(host); });
   host.showIs(
       "selection-input", "PolicyIdEntry rows with version and weighted segment-list ids",
       [&host](std::string& out) { selectionInputText(host, out); },
       [&host] { return selectionInputJson(host); });
   host.showIs(
       "bsid-users", "binding SID users and availability",
       [&host](std::string& out) { bsidUsersText(host, out); },
       [&host] { return bsidUsersJson(host); });
   host.showIs(
       "segments", "canonical segments with ids and their resolution",
       [&host](std::string& out) { segmentsText(host, out); },
       [&host] { return segmentsJson(host); });
   host.showIs(
       "segment-lists", "canonical segment lists: id, labels, tunnel, users, status, vias",
       [&host](std::string& out) { segmentListsText(host, out); },
       [&host] { return segmentListsJson(host); });
   host.showIs(
       "exported-segment-lists", "the exported segment lists (label stack by id)",
       [&host](std::string& out) { exportedText(host, out); },
       [&host] { return exportedJson(host); });
}

} // namespace Agent
