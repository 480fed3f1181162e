// Publishing in the host: `show policy-status` (the PolicyStatus entries and the FEC ids mapped
// back to their keys), `show fecs` (the policy FECs in the FIB with their vias) and
// `show bsid-conflicts` (per binding SID asked for: its holder and the policies refused it).
#include <string>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/ShowFormat.h"
#include "agent/ShowTable.h"

namespace Agent {

using namespace SrTePolicy;
using Show::Cell;
using Show::ColumnKind;

namespace {

Cell candidateCell(const CandidateId& c) {
   Json::Value row = Json::Value::row();
   Show::enumIs(row, "protocol", c.protocol, protocolEnumToString(c.protocol));
   row.set("discriminator", c.discriminator.value);
   return Show::cell(c.stringValue(), std::move(row));
}

Cell fecIdCell(Vault::Fib::FecId id) {
   return Show::cell(id.stringValue(), Json::Value::number(id.value()));
}

// "10.0.0.1|100", and in JSON its endpoint and color; a missing key is "-" and null.
Cell policyKeyCell(const PolicyKey* key) {
   if (!key) return Show::cell("", Json::Value::null());
   return Show::cell(key->stringValue(), Json::Value::row()
                                             .set("endpoint", Json::Value::address(key->endpoint))
                                             .set("color", key->color.value));
}

Show::View policyStatus(Host& host) {
   const PolicyStatus& status = *host.core().published().policyStatus;
   Show::Table entries({{"Endpoint", "endpoint"},
                        {"Color", "color"},
                        {"Candidate", "candidateId"},
                        {"Originator", "originator"},
                        {"Last change", "lastModified"},
                        {"BSID", "bindingSid"},
                        {"FEC", "fecId"},
                        {"Null-label FEC", "nullLabelFecId"}});
   for (const PolicyKey& key : Mox::sortedKeys(status.status())) {
      const PolicyStatusEntry& e = *status.status().get(key);
      entries.rowIs({Show::address(key.endpoint), Show::number(key.color.value),
                     candidateCell(e.candidateId()),
                     Show::cell(e.originator().stringValue(), Show::originatorJson(e.originator())),
                     Show::seconds(e.lastModified()), Show::label(e.bindingSid()),
                     fecIdCell(e.fecId()), fecIdCell(e.nullLabelFecId())});
   }
   Show::Table fecMap(std::vector<Show::Column>{{"FEC", "fecId"}, {"Policy", "policy"}});
   for (const auto* member : Mox::sortedMembers(status.fecIdToPolicyKey())) {
      fecMap.rowIs({fecIdCell(member->first), policyKeyCell(&member->second)});
   }
   return Show::View()
       .lineIs("Policy status: " + Show::count(status.status().size(), "policy key"))
       .tableIs("status", std::move(entries))
       .lineIs("FEC ids: " + Show::count(status.fecIdToPolicyKey().size(), "FEC"))
       .tableIs("fecIdToPolicyKey", std::move(fecMap));
}

Show::View fecs(Host& host) {
   const PolicyStatus& status = *host.core().published().policyStatus;
   const Vault::Fib::ForwardingStatus& fib = *host.core().published().srteFwdStatus;
   Show::Table t({{"FEC", "fecId"}, {"Policy", "policy"}},
                 {Show::Level{{{"Via", "viaIndex"},
                               {"Tunnel", "tunnelId"},
                               {"Label", "label"},
                               {"Action", "labelAction", ColumnKind::enumeration}},
                              "vias"}});
   for (const Vault::Fib::FecId& id : Mox::sortedKeys(fib.fec())) {
      auto& row = t.rowIs({fecIdCell(id), policyKeyCell(status.fecIdToPolicyKey(id))});
      uint32_t index = 0;
      for (const Vault::Fib::Via& via : fib.fec(id)->via()) {
         row.lineIs(
             {Show::number(index++),
              Show::cell(Show::tunnelText(via.tunnelId()),
                         Json::Value::number(via.tunnelId().value)),
              Show::label(via.mplsLabel()),
              Show::enumerated(via.labelAction(), Ipkit::mplsLabelActionName(via.labelAction()))});
      }
   }
   return Show::View()
       .lineIs("Policy FECs: " + Show::count(fib.fec().size(), "FEC"))
       .tableIs("", std::move(t));
}

Show::View bsidConflicts(Host& host) {
   Show::Table t({{"BSID", "bindingSid"},
                  {"Chosen", "chosen"},
                  {"Competitors", "competitors", ColumnKind::list}});
   size_t contested = 0;
   // While the agent is stopped nobody holds or asks for a binding SID.
   static const PolicyPublishSm::BindingSidPolicyMap none;
   const PolicyPublishSm::BindingSidPolicyMap& asked =
       host.agentRunning() ? host.core().policyPublishSm()->bindingSidPolicyMap() : none;
   for (const auto* member : Mox::sortedMembers(asked)) {
      const ConflictingPolicies& c = *member->second;
      std::vector<Cell> competitors;
      for (const PolicyKey& key : Mox::sortedKeys(c.competitor())) {
         competitors.push_back(policyKeyCell(&key));
      }
      contested += !competitors.empty();
      t.rowIs(
          {Show::label(c.bindingSid()),
           c.hasHolder() ? policyKeyCell(&c.chosen()) : Show::cell("nobody", Json::Value::null()),
           Show::list(std::move(competitors))});
   }
   return Show::View()
       .lineIs("Binding SIDs: " + Show::count(asked.size(), "label") + ", " +
               std::to_string(contested) + " contested")
       .tableIs("", std::move(t));
}

} // namespace

void registerPublish(Host& host) {
   host.showIs(
       "policy-status",
       "PolicyStatus: active candidate, originator, last change, BSID, FECs; FEC ids",
       [&host] { return policyStatus(host); }, Host::Reads::published);
   host.showIs(
       "fecs", "the policy FECs and their vias", [&host] { return fecs(host); },
       Host::Reads::published);
   host.showIs("bsid-conflicts", "per binding SID asked for: its holder and the refused policies",
               [&host] { return bsidConflicts(host); });
}

} // namespace Agent
