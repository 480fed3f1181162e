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

// One row per candidate path, its tunnels as lines; readable and JSON from the same rows.
Show::View policiesView(Host& host, const std::vector<PolicyKey>& keys) {
   using Show::ColumnKind;
   size_t paths = 0;
   std::vector<PolicyView> views;
   for (const PolicyKey& key : keys) {
      views.push_back(policyView(host, key));
      paths += views.back().candidates.size();
   }
   Show::Table t(
       {{"Endpoint", "endpoint"},
        {"Color", "color"},
        {"Active", ""},
        {"Protocol", "protocol", ColumnKind::enumeration},
        {"Discriminator", "discriminator"},
        {"", "active"},
        {"Preference", ""},
        {"Originator", ""},
        {"BSID", ""},
        {"", "", ColumnKind::members}, // preference, originator, binding SID when known
        {"Not active", "notActive"},
        {"Why", ""},
        {"", "", ColumnKind::members}}, // the details of why
       {Show::Level{{{"", "index"}, {"Weight", "weight"}, {"Tunnel", "tunnelId"}}, "wTunnelId"}});
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
         Json::Value details = Json::Value::row();
         if (!c.criterion.empty()) details.set("criterion", c.criterion);
         if (c.invalid) {
            Show::enumIs(details, "invalidReason", *c.invalid, policyInvalidReasonName(*c.invalid));
         }
         if (c.reason == "unresolved") {
            Json::Value lists = Json::Value::inlineArray();
            for (const ListReason& l : c.lists) {
               Json::Value lr = Json::Value::row();
               lr.set("segmentListId", l.id.value).set("why", l.why);
               if (l.firstLabel) lr.set("firstLabel", Json::Value::label(*l.firstLabel));
               lists.push(std::move(lr));
            }
            details.set("segmentLists", std::move(lists));
         }
         if (const PolicyKey* holder = bsidHolder(host, v.key, c)) {
            why = "bsid held by " + holder->stringValue();
            details.set("bsidHeldBy", Json::Value::row()
                                          .set("endpoint", Json::Value::address(holder->endpoint))
                                          .set("color", holder->color.value));
         }
         auto& row = t.rowIs(
             {Show::address(v.key.endpoint), Show::number(v.key.color.value),
              Show::text(c.active ? "*" : ""),
              Show::enumerated(c.id.protocol, protocolEnumToString(c.id.protocol)),
              Show::number(c.id.discriminator.value), Show::flag(c.active, "yes", "no"),
              Show::text(preference ? std::to_string(preference->value) : ""),
              Show::text(originator ? originator->stringValue() : ""),
              Show::text(bsid ? Show::labelText(*bsid) : ""), Show::cell("", std::move(known)),
              Show::cell(c.reason,
                         c.reason.empty() ? Json::Value::null() : Json::Value::string(c.reason)),
              Show::text(why), Show::cell("", std::move(details))});
         if (!c.entry) continue;
         for (const auto& [index, w] : c.entry->wTunnelId()) {
            row.lineIs(
                {Show::number(index), Show::number(w.weight.value),
                 Show::cell(Show::tunnelText(w.tunnelId), Json::Value::number(w.tunnelId.value))});
         }
      }
   }
   return Show::View()
       .lineIs("Policies: " + Show::count(keys.size(), "policy key") + ", " +
               Show::count(paths, "candidate path"))
       .tableIs("", std::move(t));
}

} // namespace

void registerSelection(Host& host) {
   host.showIs("policies",
               "per policy key: candidates best first, the active one, why others are not",
               [&host] { return policiesView(host, allKeys(host)); });

   host.verbIs("show policy", "show policy <endpoint> color <color> [json]",
               "one policy key: its candidates, the active one, why the others are not",
               [&host](Args& a) -> Host::Apply {
                  const Ipkit::IpGenAddr endpoint = a.address("endpoint");
                  a.expect("color");
                  const Color color = a.bounded<Color>("color");
                  const bool json = a.accept("json");
                  a.end();
                  return [&host, key = PolicyKey(endpoint, color), json] {
                     const Show::View view = policiesView(host, {key});
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
}

} // namespace Agent
