// Segments: every MPLS label that any candidate path names exists once, as a canonical
// SegmentMplsLabel in the segment dedup table. A canonical segment carries a SegmentId (issued
// from 1, never reused while the process lives) and a lifetime notifier that sits in the
// NotifyingSegmentCollection for exactly as long as the segment is in the table, so that state
// machines see segments come and go as collection changes.
//
//   candidate --dedup--> canonical (id, notifier in collection)
//             --last user releases--> withdrawn (notifier removed) --last reference--> destroyed
#pragma once

#include <cstdint>
#include <ostream>
#include <string>

#include "platform/Ipkit.h"
#include "platform/KilnDedup.h"
#include "platform/Mox.h"
#include "segment/SrTePolicyDedupLifeTime.h"

namespace Mpls::LFib {
struct Route;
}

namespace SrTePolicy {

class SegmentResolver;
class SegmentResolveResult;

enum class SegmentType : uint32_t { invalid = 0, mplsLabel = 1 };
const char* segmentTypeName(SegmentType t);

struct SegmentId {
   uint32_t value = 0;

   SegmentId() = default;
   explicit SegmentId(uint32_t v) : value(v) {}
   uint32_t hash() const noexcept { return Mox::mix32(value); }
   std::string stringValue() const { return std::to_string(value); }
   friend bool operator==(const SegmentId&, const SegmentId&) = default;
   friend auto operator<=>(const SegmentId&, const SegmentId&) = default;
};
std::ostream& operator<<(std::ostream& os, const SegmentId& id);

class SegmentLifeTimeNotifier;

class SegmentBase : public Kiln::DedupHandle {
 public:
   SegmentType type() const noexcept { return type_; }
   SegmentId segmentId() const noexcept { return segmentId_; }
   SegmentLifeTimeNotifier* segmentLifeTimeNotifier() const noexcept {
      return segmentLifeTimeNotifier_.get();
   }

   bool compare(const Kiln::DedupHandle& other) const final;
   // Content equality; every concrete kind overrides it.
   virtual bool segmentCompare(const SegmentBase& other) const;
   // What the segment resolves to, or null; every concrete kind overrides it.
   virtual Mox::Ptr<const SegmentResolveResult>
   resolveSegment(const SegmentResolver& resolver) const;
   virtual std::string stringValue() const;

   static const SegmentBase* fromDedupHandle(const Kiln::DedupHandle* h) {
      return static_cast<const SegmentBase*>(h);
   }
   static SegmentBase* fromDedupHandleNonConst(Kiln::DedupHandle* h) {
      return static_cast<SegmentBase*>(h);
   }

 protected:
   explicit SegmentBase(SegmentType type) : type_(type) {}

 private:
   friend struct SegmentDedupTraits;
   SegmentType type_;
   SegmentId segmentId_;
   Mox::Ptr<SegmentLifeTimeNotifier> segmentLifeTimeNotifier_;
};

class SegmentDedupTable;

class SegmentMplsLabel : public SegmentBase {
 public:
   SegmentMplsLabel(SegmentType type, Ipkit::MplsLabel label) : SegmentBase(type), label_(label) {}
   explicit SegmentMplsLabel(Ipkit::MplsLabel label)
       : SegmentMplsLabel(SegmentType::mplsLabel, label) {}

   Ipkit::MplsLabel label() const noexcept { return label_; }
   bool segmentCompare(const SegmentBase& other) const override;
   // One-at-a-time hash over the type's 4 bytes then the label's, least significant byte first.
   uint32_t hash() const override;
   // The same, from the content alone.
   static uint32_t contentHash(SegmentType type, Ipkit::MplsLabel label) noexcept;
   std::string stringValue() const override;
   Mox::Ptr<const SegmentResolveResult>
   resolveSegment(const SegmentResolver& resolver) const override;
   // Resolution against a route already looked up (an LFIB change hands it in).
   Mox::Ptr<const SegmentResolveResult> resolveSegmentOnLFib(const SegmentResolver& resolver,
                                                             const Mpls::LFib::Route& route) const;

   // The canonical segment of this content.
   Mox::Ptr<SegmentMplsLabel> dedup(SegmentDedupTable& table);

 private:
   Ipkit::MplsLabel label_;
};

class SegmentLifeTimeNotifier : public DedupLifeTimeNotifier<SegmentBase> {
 public:
   using DedupLifeTimeNotifier::DedupLifeTimeNotifier;
   SegmentBase* segmentRawPtr() const noexcept { return rawPtr(); }
   std::string stringValue() const { return segmentRawPtr()->stringValue(); }
};

class NotifyingSegmentCollection
    : public NotifyingCollectionOf<NotifyingSegmentCollection, SegmentLifeTimeNotifier, SegmentId> {
 public:
   class Notifiee : public Mox::NotifieeOf<NotifyingSegmentCollection> {
    public:
      virtual void onSegmentNotifier(const Mox::Ptr<SegmentLifeTimeNotifier>&) {}
      virtual void onUniqueId() {}
   };
   static constexpr auto onNotifier = &Notifiee::onSegmentNotifier;
   static constexpr const char* dumpName = "NotifyingSegmentCollection";

   const NotifierSet& segmentNotifier() const noexcept { return members(); }
   bool segmentNotifierHas(const Mox::Ptr<SegmentLifeTimeNotifier>& n) const {
      return memberHas(n);
   }
   void segmentNotifierIs(const Mox::Ptr<SegmentLifeTimeNotifier>& n) { memberIs(n); }
   void segmentNotifierDel(const Mox::Ptr<SegmentLifeTimeNotifier>& n) { memberDel(n); }
   void segmentNotifierDelAll() { memberDelAll(); }
};

struct SegmentDedupTraits {
   using Item = SegmentBase;
   using Notifier = SegmentLifeTimeNotifier;
   using Collection = NotifyingSegmentCollection;
   static Item* item(Kiln::DedupHandle* h) { return SegmentBase::fromDedupHandleNonConst(h); }
   static Notifier* notifierOf(const Item& s) { return s.segmentLifeTimeNotifier_.get(); }
   static void notifierIs(Item& s, Mox::Ptr<Notifier> n) { s.segmentLifeTimeNotifier_ = n; }
   static void idIs(Item& s, SegmentId id) { s.segmentId_ = id; }
   static SegmentId nextId(Collection& c, const Item&) { return c.uniqueIdInc(1); }
   static constexpr const char* insertAssert = "__null == segment->segmentLifeTimeNotifier()";
   static constexpr const char* removeAssert = "__null != lifeTimeNotifier";
};

class SegmentLifeTimeNotifiee : public DedupLifeTimeNotifiee<SegmentDedupTraits> {
 public:
   using DedupLifeTimeNotifiee::DedupLifeTimeNotifiee;
   NotifyingSegmentCollection* notifyingSegmentCollection() const noexcept { return collection(); }
};

class SegmentDedupTable : public DedupTableOf<SegmentLifeTimeNotifiee, SegmentMplsLabel> {
 public:
   using DedupTableOf::DedupTableOf;
   // The canonical segment of a label, or null; never inserts.
   Mox::Ptr<SegmentMplsLabel> lookupByLabel(Ipkit::MplsLabel label) const;
   void dump(std::string& out, int depth) const;
};

} // namespace SrTePolicy
