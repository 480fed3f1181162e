// SrTePolicyLfibStatus: the published LFIB status of this system. It owns the protocol LFIB into
// which the binding-SID routes are written; other agents of the router mount it read-only. The
// LFIB is created by the agent when it builds its mount tree (`lfibIs`).
#pragma once

#include "platform/Mox.h"
#include "platform/Mpls.h"

namespace SrTePolicy {

class SrTePolicyLfibStatus : public Mox::Entity {
 public:
   static constexpr const char* typeName = "SrTePolicy::SrTePolicyLfibStatus";

   class Notifiee : public Mox::NotifieeOf<SrTePolicyLfibStatus> {
    public:
      virtual void onLfib() {}
   };

   explicit SrTePolicyLfibStatus(Mox::Name name) : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Null until created.
   const Mox::Ptr<Mpls::ProtocolLfib>& lfib() const noexcept { return lfib_; }
   // Creates the LFIB with that name, or returns the one already there under that name. A
   // different name replaces the LFIB (with its routes) by a new, empty one.
   Mox::Ptr<Mpls::ProtocolLfib> lfibIs(const Mox::Name& name);
   void lfibDel();

 private:
   Mox::Name name_;
   Mox::Ptr<Mpls::ProtocolLfib> lfib_;
};

Mox::Ptr<SrTePolicyLfibStatus> srTePolicyLfibStatusFactory(const Mox::Name& name);

} // namespace SrTePolicy
