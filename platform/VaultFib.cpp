#include "platform/VaultFib.h"

namespace Vault::Fib {

FecId FecId::fecIdForAdjType(AdjType adjType, uint64_t index) {
   if (index > maxIndex) throw Mox::RangeError(rangeMessage);
   return FecId((static_cast<uint64_t>(adjType) << 56) | index);
}

std::ostream& operator<<(std::ostream& os, FecId id) { return os << id.value(); }

Ipkit::IntfId fecIdToIntfId(FecId id) {
   return Ipkit::IntfId(Ipkit::IntfId::Kind::fec,
                        static_cast<uint32_t>(id.index() & Ipkit::IntfId::maxNumber));
}

std::string Via::stringValue() const {
   std::string out;
   auto part = [&out](const std::string& s) {
      if (!out.empty()) out += ' ';
      out += s;
   };
   if (intfId_.isSet()) part("intf " + intfId_.stringValue());
   if (!mplsLabel_.isNull()) part("label " + mplsLabel_.stringValue());
   if (labelAction_ != Ipkit::MplsLabelAction::none) {
      part(std::string("action ") + Ipkit::mplsLabelActionName(labelAction_));
   }
   if (tunnelId_.value != 0) part("tunnel " + tunnelId_.stringValue());
   return out;
}

void Fec::viaIs(ViaIndex i, const Via& v) {
   if (i.value >= via_.size()) via_.resize(i.value + 1);
   via_[i.value] = v;
}

void ForwardingStatus::corruptionCheck() {
   if (corruptionInject_) [[unlikely]] {
      corruptionInject_ = false;
      throw Corruption("Vault::Fib::ForwardingStatus " + name_ + ": shared table corrupted");
   }
}

template <class F>
void ForwardingStatus::commit(F&& fec) {
   corruptionCheck();
   const FecId id = fec.fecId();
   auto [it, made] =
       fec_.findOrInsert(id, [&] { return std::make_unique<Fec>(std::forward<F>(fec)); });
   if (!made) {
      Fec& held = *it->second;
      if (held == fec) return;
      held = std::forward<F>(fec);
   }
   notify(&Notifiee::onFec, id);
}

void ForwardingStatus::fecCommit(const Fec& fec) { commit(fec); }

void ForwardingStatus::fecCommit(Fec&& fec) { commit(std::move(fec)); }

void ForwardingStatus::fecDel(FecId id) {
   corruptionCheck();
   collDel(fec_, id, &Notifiee::onFec);
}

void ForwardingStatus::fecDelAll() {
   corruptionCheck();
   collDelAll(fec_, &Notifiee::onFec);
}

} // namespace Vault::Fib
