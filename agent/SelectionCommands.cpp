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
#include "agent/TextTable.h"

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
      } else if (const SegmentListUser* user = core.entities().segListMap->segmentListUser(r.id);
                 user && user->segmentList() && user->segmentList()->size() > 0) {
         const SegmentList& list = *user->segmentList();
         r.firstLabel = list.segmentLabel(0);
         r.why = core.entities().segmentStatus->status(list.getSegmentId(0)) ? "noAdjacency"
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
   const PolicyInfo* info = core.entities().policyKeyToIdMap->policy(key);
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
   for (const auto& [key, p] : core.entities().policyKeyToIdMap->policy()) keys.insert(key);
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

void policiesText(Host& host, std::string& out, const std::vector<PolicyKey>& keys) {
   size_t paths = 0;
   std::vector<PolicyView> views;
   for (const PolicyKey& key : keys) {
      views.push_back(policyView(host, key));
      paths += views.back().candidates.size();
   }
   Mox::appendf(out, "Policies: %s, %s\n", Show::count(keys.size(), "policy key").c_str(),
                Show::count(paths, "candidate path").c_str());
   Show::TextTable t({"Endpoint", "Color", "Active", "Protocol", "Discriminator", "Preference",
                      "Originator", "BSID", "Weight", "Tunnel", "Not active", "Why"});
   for (const PolicyView& v : views) {
      for (const CandidateView& c : v.candidates) {
         const bool held = c.entry != nullptr;
         std::vector<std::string> cells{v.key.endpoint.stringValue(),
                                        std::to_string(v.key.color.value),
                                        c.active ? "*" : "",
                                        protocolEnumToString(c.id.protocol),
                                        std::to_string(c.id.discriminator.value),
                                        held ? std::to_string(c.entry->priority().preference.value)
                                        : c.input ? std::to_string(c.input->preference().value)
                                                  : "",
                                        held      ? c.entry->priority().originator.stringValue()
                                        : c.input ? c.input->originator().stringValue()
                                                  : "",
                                        held      ? Show::labelText(c.entry->bindingSid())
                                        : c.input ? Show::labelText(c.input->bindingSid())
                                                  : ""};
         const size_t head = cells.size();
         bool first = true;
         auto emit = [&](std::string weight, std::string tunnel) {
            if (!first) cells.assign(head, std::string());
            cells.push_back(std::move(weight));
            cells.push_back(std::move(tunnel));
            cells.push_back(first ? c.reason : "");
            cells.push_back(first ? detailText(c) : "");
            first ? t.rowIs(std::move(cells)) : t.continuationIs(std::move(cells));
            first = false;
         };
         if (held && !c.entry->wTunnelId().empty()) {
            for (const auto& [index, w] : c.entry->wTunnelId()) {
               emit(std::to_string(w.weight.value), Show::tunnelText(w.tunnelId));
            }
         } else {
            emit("", "");
         }
      }
   }
   t.render(out, 2);
}

Json::Value policiesJson(Host& host, const std::vector<PolicyKey>& keys) {
   Json::Value rows = Json::Value::array();
   for (const PolicyKey& key : keys) {
      for (const CandidateView& c : policyView(host, key).candidates) {
         Json::Value row = Json::Value::row();
         row.set("endpoint", Json::Value::address(key.endpoint)).set("color", key.color.value);
         Show::enumIs(row, "protocol", c.id.protocol, protocolEnumToString(c.id.protocol));
         row.set("discriminator", c.id.discriminator.value).set("active", c.active);
         if (c.entry) {
            row.set("preference", c.entry->priority().preference.value)
                .set("originator", Show::originatorJson(c.entry->priority().originator))
                .set("bindingSid", Json::Value::label(c.entry->bindingSid()));
         } else if (c.input) {
            row.set("preference", c.input->preference().value)
                .set("originator", Show::originatorJson(c.input->originator()))
                .set("bindingSid", Json::Value::label(c.input->bindingSid()));
         }
         Json::Value tunnels = Json::Value::inlineArray();
         if (c.entry) {
            for (const auto& [index, w] : c.entry->wTunnelId()) {
               tunnels.push(Json::Value::row()
                                .set("index", uint32_t{index})
                                .set("weight", w.weight.value)
                                .set("tunnelId", w.tunnelId.value));
            }
         }
         row.set("wTunnelId", std::move(tunnels));
         row.set("notActive",
                 c.reason.empty() ? Json::Value::null() : Json::Value::string(c.reason));
         if (!c.criterion.empty()) row.set("criterion", c.criterion);
         if (c.invalid) {
            Show::enumIs(row, "invalidReason", *c.invalid, policyInvalidReasonName(*c.invalid));
         }
         if (c.reason == "unresolved") {
            Json::Value lists = Json::Value::inlineArray();
            for (const ListReason& l : c.lists) {
               Json::Value lr = Json::Value::row();
               lr.set("segmentListId", l.id.value).set("why", l.why);
               if (l.firstLabel) lr.set("firstLabel", Json::Value::label(*l.firstLabel));
               lists.push(std::move(lr));
            }
            row.set("segmentLists", std::move(lists));
         }
         rows.push(std::move(row));
      }
   }
   return rows;
}

} // namespace

void registerSelection(Host& host) {
   host.showIs(
       "policies", "per policy key: candidates best first, the active one, why others are not",
       [&host](std::string& out) { policiesText(host, out, allKeys(host)); },
       [&host] { return policiesJson(host, allKeys(host)); });

   host.verbIs("show policy", "show policy <endpoint> color <color> [json]",
               "one policy key: its candidates, the active one, why the others are not",
               [&host](Args& a) -> Host::Apply {
                  const Ipkit::IpGenAddr endpoint = a.address("endpoint");
                  a.expect("color");
                  const Color color = a.bounded<Color>("color");
                  const bool json = a.accept("json");
                  a.end();
                  return [&host, key = PolicyKey(endpoint, color), json] {
                     if (json) {
                        Json::Value top = Json::Value::object();
                        top.set("policy", policiesJson(host, {key}));
                        host.out() << top.render();
                     } else {
                        std::string text;
                        policiesText(host, text, {key});
                        host.out() << text << "\n";
                     }
                  };
               });
}

} // namespace Agent
