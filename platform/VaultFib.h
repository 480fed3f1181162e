// Vault::Fib: the FIB's FEC table as the policy core writes it. A FEC (forwarding equivalence
// class) is a numbered set of vias; the forwarding status holds the FECs by id and tells its
// reactors about every committed or deleted FEC.
//
// Guarantees (tests/platform/VaultFibTest.cpp):
//  - `FecId::fecIdForAdjType(t, i)` gives back exactly `t` and `i` through `adjType()`/`index()`;
//  - a FEC holds at most 512 vias: a via index outside 0..511 is a range error and changes nothing;
//  - `fecCommit` replaces the whole FEC of that id and notifies only when it differs, whether the
//    FEC is copied or handed over, whatever its number of vias;
//    `fecDel`/`fecDelAll` notify once per removed FEC;
//  - a FEC found through `fec(id)` stays where it is until its own deletion: commits of other
//    FECs, and of this one, do not move it.
#pragma once

#include <cstdint>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

#include "absl/container/inlined_vector.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "platform/MoxKeyed.h"
#include "platform/MoxSlab.h"
#include "platform/Tunnel.h"
#include "platform/Vault.h"

namespace Vault {

namespace Fib {

// The FIB's adjacency type of a FEC.
enum class AdjType : uint8_t { none = 0, srTePolicy = 15 };

// A FEC id: the adjacency type in the top 8 bits, an index in the low 56. Id 0 is "no FEC".
class FecId {
 public:
   static constexpr uint64_t maxIndex = (uint64_t{1} << 56) - 1;
   static constexpr const char* rangeMessage = "FecId::index > FecId::maxIndex not allowed";

   constexpr FecId() noexcept = default;
   constexpr explicit FecId(uint64_t value) noexcept : value_(value) {}
   // Throws Mox::RangeError when the index does not fit.
   static FecId fecIdForAdjType(AdjType adjType, uint64_t index);
   static FecId fecIdForAdjType(uint8_t adjType, uint64_t index) {
      return fecIdForAdjType(static_cast<AdjType>(adjType), index);
   }

   uint64_t value() const noexcept { return value_; }
   AdjType adjType() const noexcept { return static_cast<AdjType>(value_ >> 56); }
   uint64_t index() const noexcept { return value_ & maxIndex; }
   bool isValid() const noexcept { return value_ != 0; }
   std::string stringValue() const { return std::to_string(value_); }
   uint32_t hash() const noexcept {
      return Mox::mix32(static_cast<uint32_t>(value_) ^ Mox::mix32(value_ >> 32));
   }
   friend bool operator==(FecId a, FecId b) noexcept { return a.value_ == b.value_; }
   friend auto operator<=>(FecId a, FecId b) noexcept { return a.value_ <=> b.value_; }

 private:
   uint64_t value_ = 0;
};
std::ostream& operator<<(std::ostream& os, FecId id);

// The interface by which forwarding reaches a FEC: kind fec, numbered by the FEC's index. The
// interface number has 24 bits; wider indexes keep their low 24 bits.
Ipkit::IntfId fecIdToIntfId(FecId id);

struct ViaIndex : Mox::Bounded<ViaIndex, uint32_t, 0, 511, 0> {
   using Bounded::Bounded;
   static constexpr const char* rangeMessage =
       "ViaIndex::value < ViaIndex::min or > ViaIndex::max not allowed";
};

// One via of a FEC: an egress interface or a tunnel, with an optional label operation.
class Via {
 public:
   Via() = default;

   Ipkit::IntfId intfId() const noexcept { return intfId_; }
   void intfIdIs(Ipkit::IntfId i) noexcept { intfId_ = i; }
   Ipkit::MplsLabel mplsLabel() const noexcept { return mplsLabel_; }
   Ipkit::MplsLabelAction labelAction() const noexcept { return labelAction_; }
   // A real label is pushed; the null label removes the label operation.
   void mplsLabelIs(Ipkit::MplsLabel l) noexcept {
      mplsLabel_ = l;
      labelAction_ = l.isNull() ? Ipkit::MplsLabelAction::none : Ipkit::MplsLabelAction::push;
   }
   void labelActionIs(Ipkit::MplsLabelAction a) noexcept { labelAction_ = a; }
   Tunnel::TunnelTable::TunnelId tunnelId() const noexcept { return tunnelId_; }
   void tunnelIdIs(Tunnel::TunnelTable::TunnelId t) noexcept { tunnelId_ = t; }

   // "intf Ethernet1 label 16 action push tunnel 21474836481"; absent parts are left out.
   std::string stringValue() const;
   friend bool operator==(const Via&, const Via&) = default;

 private:
   Ipkit::IntfId intfId_;
   Ipkit::MplsLabel mplsLabel_;
   Ipkit::MplsLabelAction labelAction_ = Ipkit::MplsLabelAction::none;
   Tunnel::TunnelTable::TunnelId tunnelId_;
};

// A policy FEC usually has one or two vias (one per tunnel of the policy): those live inside the
// FEC, so building one allocates nothing, and writing it into the table takes a slab slot.
class Fec : public Mox::Slabbed<Fec> {
 public:
   static constexpr uint32_t maxVias = ViaIndex::max + 1;
   static constexpr size_t inlineVias = 2;
   using Vias = absl::InlinedVector<Via, inlineVias>;

   Fec() = default;
   explicit Fec(FecId id) : fecId_(id) {}

   const FecId& fecId() const noexcept { return fecId_; }
   // Sets the via at an index; the FEC grows (with default vias) to cover it.
   void viaIs(ViaIndex i, const Via& v);
   void viaIs(uint32_t i, const Via& v) { viaIs(ViaIndex(i), v); }
   void viaDelAll() noexcept { via_.clear(); }
   // Room for `n` vias at once (at most maxVias), for a writer that knows how many it will set.
   void viaReserve(size_t n) { via_.reserve(n < maxVias ? n : maxVias); }
   // Null past the last via.
   const Via* via(ViaIndex i) const noexcept {
      return i.value < via_.size() ? &via_[i.value] : nullptr;
   }
   const Vias& via() const noexcept { return via_; }
   size_t viaCount() const noexcept { return via_.size(); }

   friend bool operator==(const Fec&, const Fec&) = default;

 private:
   FecId fecId_;
   Vias via_;
};

// The FEC table of the FIB.
class ForwardingStatus : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<ForwardingStatus> {
    public:
      virtual void onFec(const FecId&) {}
   };

   explicit ForwardingStatus(Mox::Name name = "fib") : name_(std::move(name)) {}
   const Mox::Name& name() const noexcept { return name_; }

   // Writes the whole FEC under its id, replacing an earlier version.
   void fecCommit(const Fec& fec);
   // The same, taking the FEC over instead of copying it.
   void fecCommit(Fec&& fec);
   void fecDel(FecId id);
   void fecDelAll();
   // Null when absent.
   const Fec* fec(FecId id) const noexcept { return fec_.get(id); }
   // Each FEC lives on its own (in the FEC slab) and the table holds a pointer: a table of a
   // million FECs doubles by moving 8-byte slots rather than whole FECs, and its half-empty slots
   // after a doubling cost 8 bytes each. Iterates as (id, pointer) pairs.
   struct FecOfId {
      const FecId& operator()(const Fec& f) const noexcept { return f.fecId(); }
   };
   using FecTable = Mox::KeyedTable<std::unique_ptr<Fec>, FecOfId>;
   const FecTable& fec() const noexcept { return fec_; }

   // Fault injection: the next mutation throws Vault::Corruption and changes nothing.
   void corruptionInjectIs(bool inject) noexcept { corruptionInject_ = inject; }
   // What a writer calls after catching Vault::Corruption; counted for tests and dumps.
   void handleCorruption() noexcept { ++corruptionCount_; }
   uint32_t corruptionCount() const noexcept { return corruptionCount_; }

 private:
   void corruptionCheck();
   template <class F>
   void commit(F&& fec);

   Mox::Name name_;
   FecTable fec_;
   bool corruptionInject_ = false;
   uint32_t corruptionCount_ = 0;
};

} // namespace Fib
} // namespace Vault
