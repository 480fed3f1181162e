// ConflictingPolicies: who holds one binding SID, and who asked for it too and was refused.
//
// One entity per binding SID that some active policy asks for. `chosen` is the holder (the
// default PolicyKey while the holder has let go and a competitor has yet to take it); the
// competitors are the policies refused while `chosen` held it. A policy is never both. There is
// one per published binding SID, so they come from a slab.
#pragma once

#include <string>

#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxSlab.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class ConflictingPolicies : public Mox::Entity, public Mox::Slabbed<ConflictingPolicies> {
 public:
   static constexpr const char* typeName = "SrTePolicy::ConflictingPolicies";
   using CompetitorSet = Mox::SmallSet<PolicyKey>;

   class Notifiee : public Mox::NotifieeOf<ConflictingPolicies> {
    public:
      virtual void onChosen() {}
      virtual void onCompetitor(const PolicyKey&) {}
   };

   explicit ConflictingPolicies(Ipkit::MplsLabel bindingSid) : bindingSid_(bindingSid) {}

   Ipkit::MplsLabel bindingSid() const noexcept { return bindingSid_; }

   // The default key: nobody holds it.
   const PolicyKey& chosen() const noexcept { return chosen_; }
   void chosenIs(const PolicyKey& key) { attrIs(chosen_, key, &Notifiee::onChosen); }
   bool hasHolder() const noexcept { return !(chosen_ == PolicyKey()); }

   const CompetitorSet& competitor() const noexcept { return competitor_; }
   bool competitorHas(const PolicyKey& key) const { return competitor_.contains(key); }
   void competitorIs(const PolicyKey& key) { setIs(competitor_, key, &Notifiee::onCompetitor); }
   void competitorDel(const PolicyKey& key) {
      if (competitor_.erase(key)) notify(&Notifiee::onCompetitor, key);
   }
   void competitorDelAll();

   // Competitors in key order.
   void dump(std::string& out, int depth) const;

 private:
   Ipkit::MplsLabel bindingSid_;
   PolicyKey chosen_;
   CompetitorSet competitor_;
};

} // namespace SrTePolicy
