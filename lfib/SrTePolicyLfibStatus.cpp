#include "lfib/SrTePolicyLfibStatus.h"

namespace SrTePolicy {

Mox::Ptr<Mpls::ProtocolLfib> SrTePolicyLfibStatus::lfibIs(const Mox::Name& name) {
   if (lfib_ && lfib_->name() == name) return lfib_;
   attrIs(lfib_, Mox::make<Mpls::ProtocolLfib>(name), &Notifiee::onLfib);
   return lfib_;
}

void SrTePolicyLfibStatus::lfibDel() {
   attrIs(lfib_, Mox::Ptr<Mpls::ProtocolLfib>(), &Notifiee::onLfib);
}

Mox::Ptr<SrTePolicyLfibStatus> srTePolicyLfibStatusFactory(const Mox::Name& name) {
   return Mox::make<SrTePolicyLfibStatus>(name);
}

} // namespace SrTePolicy
