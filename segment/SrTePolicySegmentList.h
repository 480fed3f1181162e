// Segment lists and the containers around them.
//
// A SegmentList is an ordered stack of canonical segments (entry 0 is the top, the label resolved
// against the LFIB). Like a segment it is deduplicated: equal stacks share one canonical list with
// one SegmentListId, withdrawn when its last user lets go. Because segments are canonical, two
// lists are equal exactly when they hold the same segment objects in the same order.
//
// The reverse maps tell which lists use a segment (SegmentIdToSegmentList) and which candidate
// paths use a list (SegmentListIdToPolicyMap); the input stage keeps both.
//
// What a reactor of NotifyingSegmentListCollection sees: one call when a list enters (its notifier
// is then in the collection) and one when it leaves (no longer in it), delivered synchronously
// inside whatever released the last user: a task run, a configuration handler (the input stage's
// re-initialisation withdraws every list at once, see input/SrTePolicyInputSm.h) or a destructor.
// A list's removal is delivered before the removals of the segments only it held. A list that left
// never comes back: the same labels later make a new list with a new id and a new tunnel id, except
// for the ids an earlier incarnation exported, which the first list of that stack takes back (see
// NotifyingSegmentListCollection).
#pragma once

#include <array>
#include <cstdint>
#include <set>
#include <string>

#include "platform/Ipkit.h"
#include "platform/KilnDedup.h"
#include "platform/Mox.h"
#include "platform/MoxSlab.h"
#include "platform/MoxView.h"
#include "platform/Tunnel.h"
#include "segment/SrTePolicyDedupLifeTime.h"
#include "segment/SrTePolicySegment.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

class SegmentListLifeTimeNotifier;
class SegmentListDedupTable;

class SegmentListUser;
// A list's users are candidate paths, held by their selection-input entry (written by the input
// stage, a later layer): declared only, so the members that reach into one are defined in the
// .cpp.
class PolicyIdEntry;

class SegmentList : public Kiln::DedupHandle, public Mox::Slabbed<SegmentList> {
 public:
   static constexpr uint32_t maxSegments = Ipkit::MplsLabelOperation::capacity;

   class Notifiee : public Mox::NotifieeOf<SegmentList> {
    public:
      virtual void onSegment(const uint32_t& /*index*/) {}
   };

   SegmentList() = default;

   uint8_t size() const noexcept { return size_; }
   const SegmentBase* segment(Ipkit::MplsStackEntryIndex index) const noexcept {
      return segment_[index.value].get();
   }
   // Stores a canonical segment at an index; the size grows to cover it.
   void segmentIs(Ipkit::MplsStackEntryIndex index, Mox::Ptr<const SegmentBase> segment);
   void segmentDel(Ipkit::MplsStackEntryIndex index);
   void segmentDelAll();

   // The label of the segment at `index`; an index outside the stack-entry range is a range error.
   Ipkit::MplsLabel segmentLabel(uint32_t index) const;
   SegmentId getSegmentId(uint32_t index) const;
   // The labels as a label stack, entry 0 the top.
   Ipkit::MplsLabelOperation labelStack() const;

   SegmentListId segmentListId() const noexcept { return segmentListId_; }
   SegmentListLifeTimeNotifier* segmentListLifeTimeNotifier() const noexcept {
      return segmentListLifeTimeNotifier_.get();
   }

   bool segmentListCompare(const SegmentList& other) const noexcept;
   bool compare(const Kiln::DedupHandle& other) const override;
   uint32_t hash() const override;
   // The hash of a list of the first `n` labels of a stack, from the labels alone.
   static uint32_t contentHash(const Ipkit::MplsLabelOperation& stack, uint32_t n) noexcept;
   // Whether this list holds exactly the first `n` labels of a stack, in order.
   bool holdsLabels(const Ipkit::MplsLabelOperation& stack, uint32_t n) const noexcept;
   Mox::Ptr<SegmentList> dedup(SegmentListDedupTable& table);

   static SegmentList* fromDedupHandleNonConst(Kiln::DedupHandle* h) {
      return static_cast<SegmentList*>(h);
   }

   // "segmentListId: %u size: %u \n"
   std::string stringValue() const;
   void dump(std::string& out, int depth) const;

 private:
   friend struct SegmentListDedupTraits;
   friend class SegmentListIdToPolicyMap;
   friend class SegmentListUser;
   // A list's users are candidate paths, held by their selection-input entry (written by the input
   // stage, a later layer): declared only, so the members that reach into one are defined in the
   // .cpp.
   class PolicyIdEntry;
   // The list's entry in the segment-list-to-policy map, kept exact by that map: registering a
   // path for a list it has just deduplicated then needs no lookup by id.
   mutable SegmentListUser* mapUser_ = nullptr;
   std::array<Mox::Ptr<const SegmentBase>, maxSegments> segment_;
   // The label of each entry (noLabel where there is none), beside the segments, so that finding a
   // list by its labels does not visit every segment it holds.
   static constexpr uint32_t noLabel = ~0u;
   std::array<uint32_t, maxSegments> label_ = filledLabels();
   static constexpr std::array<uint32_t, maxSegments> filledLabels() {
      std::array<uint32_t, maxSegments> a{};
      a.fill(noLabel);
      return a;
   }
   uint8_t size_ = 0;
   SegmentListId segmentListId_;
   Mox::Ptr<SegmentListLifeTimeNotifier> segmentListLifeTimeNotifier_;
};

class SegmentListLifeTimeNotifier : public DedupLifeTimeNotifier<SegmentList> {
 public:
   using DedupLifeTimeNotifier::DedupLifeTimeNotifier;
   SegmentList* segmentListRawPtr() const noexcept { return rawPtr(); }
   std::string stringValue() const { return segmentListRawPtr()->stringValue(); }
};

class NotifyingSegmentListCollection
    : public NotifyingCollectionOf<NotifyingSegmentListCollection, SegmentListLifeTimeNotifier,
                                   SegmentListId> {
 public:
   class Notifiee : public Mox::NotifieeOf<NotifyingSegmentListCollection> {
    public:
      virtual void onSegmentListNotifier(const Mox::Ptr<SegmentListLifeTimeNotifier>&) {}
      virtual void onUniqueId() {}
      virtual void onInitialPassDone() {}
   };
   static constexpr auto onNotifier = &Notifiee::onSegmentListNotifier;
   static constexpr const char* dumpName = "NotifyingSegmentListCollection";

   const NotifierSet& segmentListNotifier() const noexcept { return members(); }
   bool segmentListNotifierHas(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) const {
      return memberHas(n);
   }
   void segmentListNotifierIs(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) { memberIs(n); }
   void segmentListNotifierDel(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) { memberDel(n); }
   void segmentListNotifierDelAll() { memberDelAll(); }

   // Ids taken back across a restart. A segment list's id is also its tunnel id, which the tunnel
   // table, the policy FECs, the tunnel map and the exported lists are all keyed or filled by: a
   // restart that renumbered the lists would rewrite every one of them although nothing changed.
   // So at start-up the input stage hands over the label stack -> id of every list an earlier
   // incarnation exported; a canonical list that enters the table with such a stack takes that
   // id (once), and every other new list still gets the next id above all of them. The input
   // stage forgets what was not taken once its first full pass is done.
   static std::string adoptionKey(const Ipkit::MplsLabelOperation& stack);
   void adoptableIdIs(std::string labels, SegmentListId id) {
      adoptableId_[std::move(labels)] = id;
   }
   void adoptableIdDelAll() { adoptableId_.clear(); }
   size_t adoptableIdCount() const noexcept { return adoptableId_.size(); }
   // The id kept for this stack (removed from the map), or the null id.
   SegmentListId adoptableIdTake(const Ipkit::MplsLabelOperation& stack);

   // False from the input stage's (re-)initialisation until its first full pass has re-created
   // every list still claimed: until then a list missing from the table may only be late, and
   // whatever was published for it must stay. True without an input stage.
   bool initialPassDone() const noexcept { return initialPassDone_; }
   void initialPassDoneIs(bool done) {
      attrIs(initialPassDone_, done, &Notifiee::onInitialPassDone);
   }

 private:
   Mox::HashMap2018<std::string, SegmentListId> adoptableId_;
   bool initialPassDone_ = true;
};

struct SegmentListDedupTraits {
   using Item = SegmentList;
   using Notifier = SegmentListLifeTimeNotifier;
   using Collection = NotifyingSegmentListCollection;
   static Item* item(Kiln::DedupHandle* h) { return SegmentList::fromDedupHandleNonConst(h); }
   static Notifier* notifierOf(const Item& s) { return s.segmentListLifeTimeNotifier_.get(); }
   static void notifierIs(Item& s, Mox::Ptr<Notifier> n) { s.segmentListLifeTimeNotifier_ = n; }
   static void idIs(Item& s, SegmentListId id) { s.segmentListId_ = id; }
   static SegmentListId nextId(Collection& c, const Item& s) {
      const SegmentListId adopted =
          c.adoptableIdCount() != 0 ? c.adoptableIdTake(s.labelStack()) : SegmentListId();
      return adopted.value != 0 ? adopted : c.uniqueIdInc(1);
   }
   static constexpr const char* insertAssert =
       "__null == segmentList->segmentListLifeTimeNotifier()";
   static constexpr const char* removeAssert = "__null != lifeTimeNotifier";
};

class SegmentListLifeTimeNotifiee : public DedupLifeTimeNotifiee<SegmentListDedupTraits> {
 public:
   using DedupLifeTimeNotifiee::DedupLifeTimeNotifiee;
   NotifyingSegmentListCollection* notifyingSegmentListCollection() const noexcept {
      return collection();
   }
};

class SegmentListDedupTable : public DedupTableOf<SegmentListLifeTimeNotifiee, SegmentList> {
 public:
   using DedupTableOf::DedupTableOf;
   // The canonical list of the first `n` labels of a stack, or null: one lookup, nothing built.
   Mox::Ptr<SegmentList> lookupByLabels(const Ipkit::MplsLabelOperation& stack, uint32_t n) const;
   void dump(std::string& out, int depth) const;
};

// ---------------------------------------------------------------------------------------------
// Reverse maps

// The lists that contain one segment.
class SegmentListsOfSegment : public Mox::Entity {
 public:
   using Set = Mox::HashSet<Mox::Ptr<const SegmentList>>;
   class Notifiee : public Mox::NotifieeOf<SegmentListsOfSegment> {
    public:
      virtual void onSegmentListPtr(const Mox::Ptr<const SegmentList>&) {}
   };
   const Set& segmentListPtr() const noexcept { return segmentListPtr_; }
   void segmentListPtrIs(const Mox::Ptr<const SegmentList>& l) {
      setIs(segmentListPtr_, l, &Notifiee::onSegmentListPtr);
   }
   void segmentListPtrDel(const Mox::Ptr<const SegmentList>& l) {
      collDel(segmentListPtr_, l, &Notifiee::onSegmentListPtr);
   }
   void segmentListPtrDelAll() { collDelAll(segmentListPtr_, &Notifiee::onSegmentListPtr); }

 private:
   Set segmentListPtr_;
};

class SegmentIdToSegmentList : public Mox::Entity {
 public:
   using Map = Mox::HashMap2018<SegmentId, Mox::Ptr<SegmentListsOfSegment>>;
   class Notifiee : public Mox::NotifieeOf<SegmentIdToSegmentList> {
    public:
      virtual void onSegmentList(const SegmentId&) {}
   };
   const Map& segmentList() const noexcept { return segmentList_; }
   SegmentListsOfSegment* segmentList(SegmentId id) const;
   void segmentListIs(SegmentId id, Mox::Ptr<SegmentListsOfSegment> c) {
      collIs(segmentList_, id, std::move(c), &Notifiee::onSegmentList);
   }
   void segmentListDel(SegmentId id) { collDel(segmentList_, id, &Notifiee::onSegmentList); }
   void segmentListDelAll() { collDelAll(segmentList_, &Notifiee::onSegmentList); }
   // A list joins the lists of each of its segments (a segment's entry is made with its first
   // list), or leaves them (the entry goes with its last).
   void segmentListPtrIs(const Mox::Ptr<const SegmentList>& list);
   void segmentListPtrDel(const Mox::Ptr<const SegmentList>& list);
   void dump(std::string& out, int depth) const;

 private:
   Map segmentList_;
};

// The candidate paths that use one segment list: the set of their PolicyIds. A path joins through
// its selection-input entry, which holds its id, so a member is a pointer, not a 32-byte id: a list
// that ten paths share keeps ten pointers (at a million paths the ids were a fifth of the input
// stage's memory). An entry stays alive while it is a member; the input stage takes a path out
// before it drops the path's entry.
class SegmentListUser : public Mox::Entity, public Mox::Slabbed<SegmentListUser> {
 public:
   using Member = Mox::Ptr<const PolicyIdEntry>;
   using Members = Mox::SmallSet<Member, 2, 16>;

   struct MemberId {
      const PolicyId& operator()(const Member& m) const noexcept;
   };
   // The members' PolicyIds, in no particular order.
   using PolicyIds = Mox::MappedView<Members, MemberId>;

   class Notifiee : public Mox::NotifieeOf<SegmentListUser> {
    public:
      virtual void onPolicyId(const PolicyId&) {}
   };
   SegmentListUser(SegmentListId id, Mox::Ptr<const SegmentList> segmentList);
   ~SegmentListUser() override;

   SegmentListId id() const noexcept { return id_; }
   const SegmentList* segmentList() const noexcept { return segmentList_.get(); }
   PolicyIds policyId() const noexcept { return PolicyIds(policyId_); }
   bool policyIdHas(const PolicyId& p) const { return policyId().count(p) != 0; }
   // The path of `entry` uses the list.
   void policyIdIs(const Member& entry);
   // A path the caller knows is not a user yet: added without searching the users.
   void policyIdIsNew(const Member& entry);
   void policyIdDel(const PolicyIdEntry& entry);
   // By id: a scan of the members.
   void policyIdDel(const PolicyId& p);
   void policyIdDelAll();
   void dump(std::string& out, int depth) const;

 private:
   void policyIdDel(Members::const_iterator it);

   SegmentListId id_;
   Mox::Ptr<const SegmentList> segmentList_;
   Members policyId_;
};

class SegmentListIdToPolicyMap : public Mox::Entity {
 public:
   using Map = Mox::HashMap2018<SegmentListId, Mox::Ptr<SegmentListUser>>;
   class Notifiee : public Mox::NotifieeOf<SegmentListIdToPolicyMap> {
    public:
      virtual void onSegmentListUser(const SegmentListId&) {}
   };
   const Map& segmentListUser() const noexcept { return segmentListUser_; }
   SegmentListUser* segmentListUser(SegmentListId id) const;
   // The user entry of a list this map has registered, found from the list itself (no lookup).
   SegmentListUser* segmentListUser(const SegmentList& list) const;
   // Creates the user entry of a list, or returns the existing one.
   SegmentListUser* segmentListUserIs(SegmentListId id, Mox::Ptr<const SegmentList> segmentList);
   void segmentListUserDel(SegmentListId id);
   void segmentListUserDelAll();
   ~SegmentListIdToPolicyMap() override;
   void dump(std::string& out, int depth) const;

 private:
   // The list no longer finds `user` as its map entry.
   static void forgetUser(const SegmentListUser& user) noexcept;
   Map segmentListUser_;
};

// ---------------------------------------------------------------------------------------------
// The vias a resolved segment list produces.
class MplsViaSet {
 public:
   using Via = Tunnel::TunnelTable::MplsVia;
   static constexpr const char* noStringConstructor =
       "!\"No String constructor for MplsViaSet - has collection\"";

   MplsViaSet() = default;
   // There is no text form to parse a set from: asking for one is a programming error.
   static MplsViaSet fromString(const std::string& text);

   const std::set<Via>& via() const noexcept { return via_; }
   void viaIs(const Via& v) { via_.insert(v); }
   void viaDel(const Via& v) { via_.erase(v); }
   bool viaHas(const Via& v) const { return via_.count(v) != 0; }
   void viaDelAll() { via_.clear(); }
   size_t size() const noexcept { return via_.size(); }
   bool operator!() const noexcept { return via_.empty(); }
   friend bool operator==(const MplsViaSet&, const MplsViaSet&) = default;

 private:
   std::set<Via> via_;
};

} // namespace SrTePolicy
