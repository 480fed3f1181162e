// Policy selection in the host: `show policies` (every policy key) and `show policy <endpoint>
// color <color>` (one). Each candidate path of a key is listed, the ones selection holds first
// (best first), then those it does not hold; the active one is marked, and every other one says
// why it is not active:
//   invalid       the input stage refused it (its reason);
//   unresolved    none of its segment lists resolves (per list: its status, or why it has none);
//   notPreferred  the active one beats it, by the first criterion that differs (preference,
//                 protocol, originator, discriminator), or it is better but the active one was
//                 kept by the sticky tie-break ("sticky");
//   pending       usable, but selection (or the input stage) has not run since it changed.
// All of it is read from the tables when shown; selection itself keeps nothing for it.
#include <algorithm>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;

namespace {

// One list of an unresolved candidate and why it does not resolve.
struct ListReason {
   SegmentListId id;
   std::string why; // a status name, "noRoute", "noAdjacency" or "withdrawn"
   std::optional<Ipkit::MplsLabel> firstLabel;
};

struct CandidateView {
   CandidateId id;
   const PolicyEntry* entry = nullptr;   // selection's candidate, if any
   const PolicyIdEntry* input = nullptr; // the selection input, if any
   bool active = false;
   std::string reason; // empty when active
   std::string criterion;
   std::optional<PolicyInvalidReason> invalid;
   std::vector<ListReason> lists;
};

struct PolicyView {
   PolicyKey key;
   std::vector<CandidateView> candidates;
};

// The deciding criterion when `active` beats `other`; "sticky" when `other` is better only by
// discriminator (the active one was kept); empty when `other` is better otherwise, which lasts
// only until selection runs.
const char* criterionName(const Priority& active, const Priority& other) {
   switch (active.compare(other)) {
   case PriorityCompareResult::isHigherPreference:
      return "preference";
   case PriorityCompareResult::isBetterProtocol:
      return "protocol";
   case PriorityCompareResult::isLowerOrigin:
      return "originator";
   case PriorityCompareResult::isHigherDiscriminator:
      return "discriminator";
   default:
      return active.sameExceptDiscriminator(other) ? "sticky" : "";
   }
}

std::vector<ListReason> listReasons(Host& host, const PolicyIdEntry& input) {
   const auto& core = host.core();
   std::vector<ListReason> out;
   for (const auto& [index, w] : input.wSegmentList()) {
      ListReason r{w.segmentListId, "", std::nullopt};
      if (const SegmentListResolveError* s = core.published().segmentListStatus->status(r.id)) {
         r.why = segmentListResolveErrorName(*s);
      } else if (const SegmentListUser* user =
                     host.coreEntities().segListMap->segmentListUser(r.id);
                 user && user->segmentList() && user->segmentList()->size() > 0) {
         const SegmentList& list = *user->segmentList();
         r.firstLabel = list.segmentLabel(0);
         r.why = host.coreEntities().segmentStatus->status(list.getSegmentId(0)) ? "noAdjacency"
                                                                                 : "noRoute";
      } else {
         r.why = "withdrawn";
      }
      out.push_back(std::move(r));
   }
   return out;
}

PolicyView policyView(Host& host, const PolicyKey& key) {
   const auto& core = host.core();
   PolicyView view{key, {}};
   std::set<CandidateId> seen;
   const Mox::Ptr<Policy> policy = core.published().ecPolicy->policy(key);
   const PolicyInfo* info = host.coreEntities().policyKeyToIdMap->policy(key);
   auto inputOf = [&](const CandidateId& c) {
      return core.published().policySelectionInput->policyIdEntry(
          PolicyId(key, c.protocol, c.discriminator));
   };
   if (policy) {
      for (const auto& [priority, entry] : policy->candidate()) {
         CandidateView c;
         c.id = entry->candidateId();
         c.entry = entry.get();
         c.input = inputOf(c.id).get();
         c.active = policy->active() == entry;
         if (!c.active && policy->active()) {
            c.criterion = criterionName(policy->active()->priority(), priority);
            c.reason = c.criterion.empty() ? "pending" : "notPreferred";
         } else if (!c.active) {
            c.reason = "pending";
         }
         seen.insert(c.id);
         view.candidates.push_back(std::move(c));
      }
   }
   // Candidates selection does not hold, in candidate-id order.
   std::set<CandidateId> rest;
   if (info) {
      for (const auto& [cid, ci] : info->candidate()) rest.insert(cid);
   }
   for (const auto& [id, entry] : core.published().policySelectionInput->policyIdEntry()) {
      if (id.key == key) rest.insert(CandidateId(id));
   }
   for (const CandidateId& cid : rest) {
      if (seen.count(cid)) continue;
      CandidateView c;
      c.id = cid;
      c.input = inputOf(cid).get();
      const PolicyCandidateInfo* ci = info ? info->candidate(cid) : nullptr;
      if (ci && ci->reason != PolicyInvalidReason::usable) {
         c.reason = "invalid";
         c.invalid = ci->reason;
      } else if (c.input) {
         c.lists = listReasons(host, *c.input);
         const bool anyResolved = std::any_of(c.lists.begin(), c.lists.end(), [](const auto& l) {
            return l.why == segmentListResolveErrorName(SegmentListResolveError::success);
         });
         c.reason = anyResolved ? "pending" : "unresolved";
         if (anyResolved) c.lists.clear();
      } else {
         c.reason = "pending";
      }
      view.candidates.push_back(std::move(c));
   }
   return view;
}

std::vector<PolicyKey> allKeys(Host& host) {
   const auto& core = host.core();
   std::set<PolicyKey> keys;
   for (const auto& [key, p] : core.published().ecPolicy->policy()) keys.insert(key);
   for (const auto& [key, p] : host.coreEntities().policyKeyToIdMap->policy()) keys.insert(key);
   for (const auto& [id, e] : core.published().policySelectionInput->policyIdEntry()) {
      keys.insert(id.key);
   }
   return {keys.begin(), keys.end()};
}

std::string detailText(const CandidateView& c) {
   if (c.invalid) return policyInvalidReasonName(*c.invalid);
   if (!c.criterion.empty()) return c.criterion;
   std::string out;
   for (const ListReason& l : c.lists) {
      if (!out.empty()) out += ", ";
      out += "list " + l.id.stringValue() + " " + l.why;
      if (l.firstLabel) out += " (" + l.firstLabel->stringValue() + ")";
   }
   if (c.reason == "unresolved" && c.lists.empty()) out = "no segment lists";
   return out;
}

// The policy a candidate's binding SID is held by, when the candidate is active but publishing
// refused it the binding SID; null otherwise.
const PolicyKey* bsidHolder(Host& host, const PolicyKey& key, const CandidateView& c) {
   if (!c.active || !c.entry || c.entry->bindingSid().isNull() || !host.agentRunning()) {
      return nullptr;
   }
   const ConflictingPolicies* conflict =
       host.core().policyPublishSm()->conflictingPolicies(c.entry->bindingSid());
   if (!conflict || !conflict->hasHolder() || !conflict->competitorHas(key)) return nullptr;
   return &conflict->chosen();
}

// Whether an active path is programmed (has its policy status: FECs, LFIB route), and if not,
// why. Selection choosing a path and publishing programming it are two facts: a path refused its
// binding SID stays selection's choice but forwards nothing.
struct Programmed {
   std::string word;  // yes, no, pending; empty for a path that is not active
   std::string why;   // readable detail, when not programmed
   std::string cause; // its JSON word
};

Programmed programmed(Host& host, const PolicyKey& key, const CandidateView& c) {
   if (!c.active) return {};
   const auto status = host.core().published().policyStatus->status(key);
   if (status && status->candidateId() == c.id) return {"yes", "", ""};
   if (const PolicyKey* holder = bsidHolder(host, key, c)) {
      // The BSID column shows which binding SID.
      return {"no", "bsid held by " + holder->stringValue(), "bsidHeldBy"};
   }
   return {"pending", "not published yet", "pending"};
}

// One line per segment list of a path, usable or not, from the selection input (selection's own
// entry holds only the lists that resolved).
void listLines(Host& host, const CandidateView& c, Show::Table::Row& row) {
   if (!c.input) {
      if (!c.entry) return;
      for (const auto& [index, w] : c.entry->wTunnelId()) {
         row.lineIs(
             {Show::number(index), Show::text(std::to_string(w.tunnelId.index())),
              Show::cell("", Json::Value::number(uint64_t{w.tunnelId.index()})),
              Show::number(w.weight.value),
              Show::cell(Show::tunnelText(w.tunnelId), Json::Value::number(w.tunnelId.value)),
              Show::flag(true, "yes", "no"), Show::cell("", Json::Value::null()),
              Show::cell("", Json::Value::null())});
      }
      return;
   }
   const std::vector<ListReason> reasons = listReasons(host, *c.input);
   size_t k = 0;
   for (const auto& [index, w] : c.input->wSegmentList()) {
      const ListReason& r = reasons[k++];
      const bool usable = r.why == segmentListResolveErrorName(SegmentListResolveError::success);
      const auto tunnel = Tunnel::TunnelTable::TunnelId::make(
          Tunnel::TunnelTable::TunnelId::Type::srTeSegmentList, w.segmentListId.value);
      std::string status = usable ? "yes" : "no, " + r.why;
      if (!usable && r.firstLabel) status += " (" + r.firstLabel->stringValue() + ")";
      row.lineIs(
          {Show::number(index), Show::text(w.segmentListId.stringValue()),
           Show::cell("", Json::Value::number(uint64_t{w.segmentListId.value})),
           Show::number(w.weight.value), Show::cell("", Json::Value::number(tunnel.value)),
           Show::cell(std::move(status), Json::Value::boolean(usable)),
           Show::cell("", Json::Value::string(r.why)),
           Show::cell("", r.firstLabel ? Json::Value::label(*r.firstLabel) : Json::Value::null())});
   }
}

// One row per candidate path, its segment lists as lines; readable and JSON from the same rows.
// The readable form is narrow enough for a 120-column terminal with common keys; `detail` (one
// policy) adds the originator. The JSON has everything in both.
Show::View policiesView(Host& host, const std::vector<PolicyKey>& keys, bool detail) {
   using Show::ColumnKind;
   size_t paths = 0;
   std::vector<PolicyView> views;
   for (const PolicyKey& key : keys) {
      views.push_back(policyView(host, key));
      paths += views.back().candidates.size();
   }
   // Without an SRLB every binding SID is out of range: say so where that is the reason.
   const bool noSrlb = !host.mplsConfig()->labelRange(Mpls::srlbRangeName);
   std::vector<Show::Column> columns{
       {"Policy", ""}, {"", "", ColumnKind::members}, // endpoint, color
       {"Path", ""},   {"", "", ColumnKind::members}, // protocol, discriminator
       {"", "active"}, {"Pref", ""}};
   if (detail) columns.push_back({"Originator", ""});
   for (Show::Column c : std::vector<Show::Column>{
            {"BSID", ""},
            {"", "", ColumnKind::members}, // preference, originator, binding SID when known
            {"Selection", ""},
            {"", "notActive"},
            {"Programmed", "programmed"},
            {"Why", ""},
            {"", "", ColumnKind::members}}) { // the details of why
      columns.push_back(std::move(c));
   }
   Show::Table t(std::move(columns), {Show::Level{{{"", "index"},
                                                   {"List", ""},
                                                   {"", "segmentListId"},
                                                   {"Weight", "weight"},
                                                   {"", "tunnelId"},
                                                   {"Usable", "usable"},
                                                   {"", "status"},
                                                   {"", "firstLabel"}},
                                                  "segmentLists"}});
   for (const PolicyView& v : views) {
      for (const CandidateView& c : v.candidates) {
         std::optional<Preference> preference;
         std::optional<Originator> originator;
         std::optional<Ipkit::MplsLabel> bsid;
         if (c.entry) {
            preference = c.entry->priority().preference;
            originator = c.entry->priority().originator;
            bsid = c.entry->bindingSid();
         } else if (c.input) {
            preference = c.input->preference();
            originator = c.input->originator();
            bsid = c.input->bindingSid();
         }
         Json::Value known = Json::Value::row();
         if (preference) {
            known.set("preference", preference->value)
                .set("originator", Show::originatorJson(*originator))
                .set("bindingSid", Json::Value::label(*bsid));
         }
         std::string why = detailText(c);
         if (c.reason == "unresolved" && !c.lists.empty()) why = "no list resolves";
         Json::Value details = Json::Value::row();
         if (!c.criterion.empty()) details.set("criterion", c.criterion);
         if (c.invalid) {
            Show::enumIs(details, "invalidReason", *c.invalid, policyInvalidReasonName(*c.invalid));
            if (*c.invalid == PolicyInvalidReason::bsidOutOfRange && noSrlb) {
               why += " (no SRLB configured)";
               details.set("srlbConfigured", Json::Value::boolean(false));
            }
         }
         const Programmed prog = programmed(host, v.key, c);
         if (!prog.why.empty()) why = prog.why;
         if (!prog.cause.empty()) details.set("notProgrammed", prog.cause);
         if (const PolicyKey* holder = bsidHolder(host, v.key, c)) {
            details.set("bsidHeldBy", Json::Value::row()
                                          .set("endpoint", Json::Value::address(holder->endpoint))
                                          .set("color", holder->color.value));
         }
         Json::Value keyJson = Json::Value::row()
                                   .set("endpoint", Json::Value::address(v.key.endpoint))
                                   .set("color", v.key.color.value);
         Json::Value pathJson = Json::Value::row();
         Show::enumIs(pathJson, "protocol", c.id.protocol, protocolEnumToString(c.id.protocol));
         pathJson.set("discriminator", c.id.discriminator.value);
         std::vector<Show::Cell> cells{
             Show::text(v.key.stringValue()),
             Show::cell("", std::move(keyJson)),
             Show::text(c.id.stringValue()),
             Show::cell("", std::move(pathJson)),
             Show::flag(c.active, "yes", "no"),
             Show::text(preference ? std::to_string(preference->value) : "")};
         if (detail) cells.push_back(Show::text(originator ? originator->stringValue() : ""));
         for (Show::Cell& cell : std::vector<Show::Cell>{
                  Show::text(bsid ? Show::labelText(*bsid) : ""), Show::cell("", std::move(known)),
                  Show::text(c.active ? "active" : c.reason),
                  Show::cell("", c.reason.empty() ? Json::Value::null()
                                                  : Json::Value::string(c.reason)),
                  Show::cell(prog.word, prog.word.empty()
                                            ? Json::Value::null()
                                            : Json::Value::boolean(prog.word == "yes")),
                  Show::text(why), Show::cell("", std::move(details))}) {
            cells.push_back(std::move(cell));
         }
         auto& row = t.rowIs(std::move(cells));
         listLines(host, c, row);
      }
   }
   std::string heading = "Policies: " + Show::count(keys.size(), "policy key") + ", " +
                         Show::count(paths, "candidate path");
   if (noSrlb) heading += "; no SRLB configured: every binding SID is out of range";
   return Show::View().lineIs(std::move(heading)).tableIs("", std::move(t));
}

} // namespace

void registerSelection(Host& host) {
   host.showIs("policies",
               "per policy key: candidates best first, the active one, why others are not",
               [&host] { return policiesView(host, allKeys(host), false); });

   host.verbIs("show policy", "show policy <endpoint> color <color> [json]",
               "one policy key: its candidates, the active one, why the others are not",
               [&host](Args& a) -> Host::Apply {
                  const Ipkit::IpGenAddr endpoint = a.address("endpoint");
                  a.expect("color");
                  const Color color = a.bounded<Color>("color");
                  const bool json = a.accept("json");
                  a.end();
                  return [&host, key = PolicyKey(endpoint, color), json] {
                     if (policyView(host, key).candidates.empty()) {
                        // An unknown key is not an empty policy: say so in both forms.
                        if (json) {
                           Json::Value top = Json::Value::object();
                           top.set("policy", Json::Value::null());
                           host.out() << top.render();
                        } else {
                           host.out() << "No policy " << key.endpoint.stringValue() << " color "
                                      << key.color.value
                                      << ": no candidate path has this endpoint and color\n";
                        }
                        return;
                     }
                     const Show::View view = policiesView(host, {key}, true);
                     if (json) {
                        Json::Value top = Json::Value::object();
                        top.set("policy", view.json());
                        host.out() << top.render();
                     } else {
                        std::string text;
                        view.render(text);
                        host.out() << text << "\n";
                     }
                  };
               });
   host.verbAsksAgent("show policy");
}

} // namespace Agent
