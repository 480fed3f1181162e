// Policy input gathering in the host: shows what the core's input machine computed:
// `candidates`, `selection-input`, `segments`, `segment-lists`, `exported-segment-lists` and
// `bsid-users`.
#include <algorithm>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"
#include "input/SrTePolicyInputSm.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

using Show::Cell;
using Show::ColumnKind;

std::string policyIdText(const PolicyId& id) {
   return id.key.endpoint.stringValue() + " color " + std::to_string(id.key.color.value) + " " +
          CandidateId(id).stringValue();
}

// The protocol and discriminator of a candidate: its text, and a row of its members.
Cell candidateIdCell(const CandidateId& c) {
   Json::Value row = Json::Value::row();
   Show::enumIs(row, "protocol", c.protocol, protocolEnumToString(c.protocol));
   row.set("discriminator", c.discriminator.value);
   return Show::cell(c.stringValue(), std::move(row));
}

Json::Value policyIdJson(const PolicyId& id) {
   Json::Value row = Json::Value::row();
   row.set("endpoint", Json::Value::address(id.key.endpoint)).set("color", id.key.color.value);
   Show::enumIs(row, "protocol", id.protocol, protocolEnumToString(id.protocol));
   row.set("discriminator", id.discriminator.value);
   return row;
}

Cell policyIdCell(const PolicyId& id) { return Show::cell(policyIdText(id), policyIdJson(id)); }

// ---- candidates

Show::View candidates(Host& host) {
   const auto& policies = host.coreEntities().policyKeyToIdMap->policy();
   Show::Table t({{"Endpoint", "endpoint"}, {"Color", "color"}},
                 {Show::Level{{{"Candidate", "candidateId"},
                               {"Reason", "reason", ColumnKind::enumeration},
                               {"Last change", "lastModified"},
                               {"BSID", "bindingSid"}}}});
   for (const PolicyKey& key : Mox::sortedKeys(policies)) {
      auto& row = t.rowIs({Show::address(key.endpoint), Show::number(key.color.value)});
      for (const auto& [cid, info] : policies.get(key)->candidate()) {
         row.lineIs({candidateIdCell(cid),
                     Show::enumerated(info.reason, policyInvalidReasonName(info.reason)),
                     Show::seconds(info.lastModified), Show::label(info.bindingSid)});
      }
   }
   return Show::View()
       .lineIs("Candidate paths of " + Show::count(policies.size(), "policy key"))
       .tableIs("", std::move(t));
}

// ---- selection input

Show::View selectionInput(Host& host) {
   const auto& entries = host.core().published().policySelectionInput->policyIdEntry();
   Show::Table t({{"Endpoint", "endpoint"},
                  {"Color", "color"},
                  {"Candidate", "", ColumnKind::members},
                  {"Preference", "preference"},
                  {"Originator", "originator"},
                  {"BSID", "bindingSid"},
                  {"Version", "version"}},
                 {Show::Level{{{"", "index"},
                               {"Weight", "weight"},
                               {"Segment list", "segmentListId"},
                               {"Tunnel", "tunnelId"}},
                              "wSegmentList"}});
   for (const PolicyId& id : Mox::sortedKeys(entries)) {
      const PolicyIdEntry& e = *entries.get(id);
      auto& row =
          t.rowIs({Show::address(e.id().key.endpoint), Show::number(e.id().key.color.value),
                   candidateIdCell(CandidateId(e.id())), Show::number(e.preference().value),
                   Show::cell(e.originator().stringValue(), Show::originatorJson(e.originator())),
                   Show::label(e.bindingSid()), Show::number(e.version())});
      for (const auto& [index, w] : e.wSegmentList()) {
         row.lineIs(
             {Show::number(index), Show::number(w.weight.value),
              Show::cell(w.segmentListId.stringValue(),
                         Json::Value::number(uint64_t{w.segmentListId.value})),
              Show::cell(Show::tunnelText(w.tunnelId), Json::Value::number(w.tunnelId.value))});
      }
   }
   return Show::View()
       .lineIs("Selection input: " + Show::count(entries.size(), "candidate path"))
       .tableIs("", std::move(t));
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

// Where a segment resolves: its adjacency, or "unresolved".
Cell resolutionCell(const ProcessEntities& core, SegmentId id) {
   const SegmentResolve* r = core.segmentStatus->status(id);
   if (!r) return Show::cell("unresolved", Json::Value::null());
   return Show::cell("adjacency " + r->adjKey().stringValue(), adjKeyJson(r->adjKey()));
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
   const SegmentListsOfSegment* c = core.segmentMap->segmentList(id);
   return c ? c->segmentListPtr().size() : 0;
}

Show::View segments(Host& host) {
   const ProcessEntities& core = host.coreEntities();
   auto segments = segmentsById(core);
   Show::Table t({{"Id", "segmentId"},
                  {"Type", "type", ColumnKind::enumeration},
                  {"Label", "label"},
                  {"Segment lists", "segmentLists"},
                  {"Resolution", "adjKey"}});
   for (const SegmentMplsLabel* s : segments) {
      t.rowIs({Show::number(s->segmentId().value),
               Show::enumerated(s->type(), segmentTypeName(s->type())),
               Show::cell(s->label().stringValue(), Json::Value::label(s->label())),
               Show::number(listsUsing(core, s->segmentId())),
               resolutionCell(core, s->segmentId())});
   }
   return Show::View()
       .lineIs(
           Mox::format("Segments: %s (next id %u)", Show::count(segments.size(), "segment").c_str(),
                       core.coreDedupTables->notifyingSegmentCollection()->uniqueId().value + 1))
       .tableIs("", std::move(t));
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
   return user ? Mox::sortedKeys(user->policyId()) : std::vector<PolicyId>{};
}

// A list's resolution status, or "unresolved" (JSON null) when it has none.
Cell listStatusCell(const PublishedTables& published, SegmentListId id) {
   const SegmentListResolveError* e = published.segmentListStatus->status(id);
   if (!e) return Show::cell("unresolved", Json::Value::null());
   return Show::enumerated(*e, segmentListResolveErrorName(*e));
}

// The tunnel entry's vias as "10.0.0.2 Ethernet1 push 16001 900", top label first.
Cell listViasCell(const PublishedTables& published, SegmentListId id) {
   std::vector<Cell> vias;
   if (const auto* entry = published.tunnelTable->entry(id.getTunnelId())) {
      for (const auto& [index, v] : entry->via()) {
         vias.push_back(Show::cell(v.nexthop.stringValue() + " " + v.intfId.stringValue() + " " +
                                       Show::impositionText(v.labelOp),
                                   Json::Value::row()
                                       .set("nexthop", Json::Value::address(v.nexthop))
                                       .set("intfId", v.intfId.stringValue())
                                       .set("labels", Show::impositionJson(v.labelOp))));
      }
   }
   return Show::list(std::move(vias));
}

Show::View segmentLists(Host& host) {
   const ProcessEntities& core = host.coreEntities();
   const PublishedTables& published = host.core().published();
   auto lists = segmentListsById(core);
   Show::Table t({{"Id", "segmentListId"},
                  {"Labels", "labels"},
                  {"", "segmentIds"},
                  {"Tunnel", "tunnelId"},
                  {"Used by", "policyIds", ColumnKind::list},
                  {"Status", "status", ColumnKind::enumeration},
                  {"Vias (top label first)", "vias", ColumnKind::list}});
   for (const SegmentList* l : lists) {
      Json::Value ids = Json::Value::inlineArray();
      for (uint32_t i = 0; i < l->size(); ++i)
         ids.push(Json::Value::number(uint64_t{l->getSegmentId(i).value}));
      const SegmentListId id = l->segmentListId();
      std::vector<Cell> users;
      for (const PolicyId& p : usersOf(core, id)) users.push_back(policyIdCell(p));
      t.rowIs({Show::cell(id.stringValue(), Json::Value::number(uint64_t{id.value})),
               Show::labelStack(l->labelStack()), Show::cell("", std::move(ids)),
               Show::cell(Show::tunnelText(id.getTunnelId()),
                          Json::Value::number(id.getTunnelId().value)),
               Show::list(std::move(users)), listStatusCell(published, id),
               listViasCell(published, id)});
   }
   return Show::View()
       .lineIs(Mox::format(
           "Segment lists: %s (next id %u)", Show::count(lists.size(), "segment list").c_str(),
           core.coreDedupTables->notifyingSegmentListCollection()->uniqueId().value + 1))
       .tableIs("", std::move(t));
}

// ---- exported segment lists

Ipkit::MplsLabelOperation exportedLabels(const Export::SegmentList& l) {
   Ipkit::MplsLabelOperation op;
   for (const Export::Segment& s : l.segment()) op.push(s.mplsLabel);
   return op;
}

Show::View exported(Host& host) {
   const auto& lists = host.core().published().exportedSegmentListColl->segmentList();
   Show::Table t({{"Id", "segmentListId"}, {"Size", "size"}, {"Labels", "segment"}});
   for (const auto* it : Mox::sortedMembers(lists)) {
      t.rowIs({Show::cell(it->first.stringValue(), Json::Value::number(uint64_t{it->first.value})),
               Show::number(it->second->size()), Show::labelStack(exportedLabels(*it->second))});
   }
   return Show::View()
       .lineIs("Exported segment lists: " + Show::count(lists.size(), "segment list"))
       .tableIs("", std::move(t));
}

// ---- binding-SID users

Show::View bsidUsers(Host& host) {
   Show::Table t({{"BSID", "bindingSid"}, {"Available", "available"}},
                 {Show::Level{{{"Candidate paths", "", ColumnKind::members}}, "policyIds"}});
   if (!host.agentRunning()) {
      return Show::View()
          .lineIs("SRLB: none (agent stopped: SR-TE disabled)")
          .lineIs("Binding SID users: " + Show::count(0, "label"))
          .tableIs("", std::move(t));
   }
   const PolicyInputSm& sm = *host.core().policyInputSm();
   for (const Ipkit::MplsLabel& label : Mox::sortedKeys(sm.bsidUser())) {
      const BindingSidUser& user = *sm.bsidUser().get(label);
      auto& row = t.rowIs({Show::cell(label.stringValue(), Json::Value::label(label)),
                           Show::flag(user.available(), "yes", "no")});
      for (const PolicyId& p : Mox::sortedKeys(user.policyId())) row.lineIs({policyIdCell(p)});
   }
   return Show::View()
       .lineIs("SRLB: " + sm.srlbConfigRange().stringValue())
       .lineIs("Binding SID users: " + Show::count(sm.bsidUser().size(), "label"))
       .tableIs("", std::move(t));
}

} // namespace

void registerInput(Host& host) {
   host.showIs("candidates",
               "per policy key, every candidate with its invalid reason, last change, BSID",
               [&host] { return candidates(host); });
   host.showIs(
       "selection-input", "PolicyIdEntry rows with version and weighted segment-list ids",
       [&host] { return selectionInput(host); }, Host::Reads::published);
   host.showIs("bsid-users", "binding SID users and availability",
               [&host] { return bsidUsers(host); });
   host.showIs("segments", "canonical segments with ids and their resolution",
               [&host] { return segments(host); });
   host.showIs("segment-lists", "canonical segment lists: id, labels, tunnel, users, status, vias",
               [&host] { return segmentLists(host); });
   host.showIs(
       "exported-segment-lists", "the exported segment lists (label stack by id)",
       [&host] { return exported(host); }, Host::Reads::published);
}

} // namespace Agent
