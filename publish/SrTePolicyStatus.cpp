#include "publish/SrTePolicyStatus.h"

namespace SrTePolicy {

void PolicyStatusEntry::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*ckey: %s\n", depth, ' ', key_.stringValue().c_str());
   Mox::appendf(out, "%*ccandidateId: %s\n", depth, ' ', candidateId_.stringValue().c_str());
   Mox::appendf(out, "%*coriginator: %s\n", depth, ' ', originator_.stringValue().c_str());
   Mox::appendf(out, "%*clastModified: %f\n", depth, ' ', lastModified_);
   Mox::appendf(out, "%*cbindingSid: %u\n", depth, ' ', bindingSid_.value());
   Mox::appendf(out, "%*cfecId: %s\n", depth, ' ', fecId_.stringValue().c_str());
   Mox::appendf(out, "%*cnullLabelFecId: %s\n", depth, ' ', nullLabelFecId_.stringValue().c_str());
}

Mox::Ptr<PolicyStatusEntry> PolicyStatus::statusIs(const PolicyKey& key, CandidateId candidateId,
                                                   const Originator& originator,
                                                   double lastModified, Ipkit::MplsLabel bindingSid,
                                                   Vault::Fib::FecId fecId,
                                                   Vault::Fib::FecId nullLabelFecId) {
   auto entry = Mox::make<PolicyStatusEntry>(key, candidateId, originator, lastModified, bindingSid,
                                             fecId, nullLabelFecId);
   status_.assign(entry);
   notify(&Notifiee::onStatus, key);
   return entry;
}

void PolicyStatus::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cstatus #%u \n", depth, ' ', static_cast<unsigned>(status_.size()));
   for (const PolicyKey& key : Mox::sortedKeys(status_)) status_.get(key)->dump(out, depth + 2);
   Mox::appendf(out, "%*cfecIdToPolicyKey #%u \n", depth, ' ',
                static_cast<unsigned>(fecIdToPolicyKey_.size()));
   for (const auto* member : Mox::sortedMembers(fecIdToPolicyKey_)) {
      Mox::appendf(out, "%*c%s -> %s\n", depth + 2, ' ', member->first.stringValue().c_str(),
                   member->second.stringValue().c_str());
   }
}

} // namespace SrTePolicy
