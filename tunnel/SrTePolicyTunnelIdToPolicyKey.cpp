#include "tunnel/SrTePolicyTunnelIdToPolicyKey.h"

namespace SrTePolicy {

std::string TunnelIdToPolicyKeyEntry::stringValue() const {
   return tunnelId.stringValue() + ": " + policyKey.stringValue();
}

void TunnelIdToPolicyKey::corruptionCheck() {
   if (corruptionInject_) [[unlikely]] {
      corruptionInject_ = false;
      throw Vault::Corruption("TunnelIdToPolicyKey " + name_ + ": shared table corrupted");
   }
}

void TunnelIdToPolicyKey::tunnelEntryCommit(const TunnelIdToPolicyKeyEntry& entry) {
   corruptionCheck();
   collIs(entry_, entry.tunnelId, entry, &Notifiee::onTunnelEntry);
}

void TunnelIdToPolicyKey::tunnelEntryDel(TunnelId id) {
   corruptionCheck();
   collDel(entry_, id, &Notifiee::onTunnelEntry);
}

void TunnelIdToPolicyKey::tunnelEntryDelAll() {
   corruptionCheck();
   collDelAll(entry_, &Notifiee::onTunnelEntry);
}

} // namespace SrTePolicy
