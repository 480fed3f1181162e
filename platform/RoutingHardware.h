// Routing::Hardware::Status: the limits of the forwarding hardware that the policy core respects.
// Today one: the deepest MPLS label stack a next-hop group can push. It is absent until the
// platform reports it, and while absent no depth limit applies.
#pragma once

#include <cstdint>
#include <optional>

#include "platform/Mox.h"

namespace Routing::Hardware {

class Status : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Status> {
    public:
      virtual void onNexthopGroupMplsLabelStackSize() {}
   };

   explicit Status(Mox::Name name = "hardware") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   std::optional<uint8_t> nexthopGroupMplsLabelStackSize() const noexcept {
      return nexthopGroupMplsLabelStackSize_;
   }
   void nexthopGroupMplsLabelStackSizeIs(uint8_t size) {
      attrIs(nexthopGroupMplsLabelStackSize_, std::optional<uint8_t>(size),
             &Notifiee::onNexthopGroupMplsLabelStackSize);
   }
   void nexthopGroupMplsLabelStackSizeDel() {
      attrIs(nexthopGroupMplsLabelStackSize_, std::optional<uint8_t>(),
             &Notifiee::onNexthopGroupMplsLabelStackSize);
   }

 private:
   Mox::Name name_;
   std::optional<uint8_t> nexthopGroupMplsLabelStackSize_;
};

} // namespace Routing::Hardware
