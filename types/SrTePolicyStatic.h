// Statically configured SR-TE policies, as the configuration side writes them into Config.policy:
//
//    StaticPolicy (per PolicyKey)            bindingSid
//      └─ CandidatePath (per Preference)     ascending preference
//           └─ StaticSegmentList (per label stack: weight, index)
//
// The tree is owned top-down: removing a node releases everything below it. Every change notifies
// the node's reactors once per changed key; setting what is already there notifies nobody.
// Dumps indent with "%*c" (depth, ' '); a negative depth writes the same lines without any
// indentation, which is the plain display form.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "platform/AttrLog.h"
#include "platform/Ipkit.h"
#include "platform/Mox.h"
#include "types/SrTePolicyTypes.h"

namespace SrTePolicy {

// One configured segment list of a candidate path (its label stack is the collection key).
struct StaticSegmentList {
   Weight weight;
   // The configured position, ordering the lists of one candidate path.
   Index index;

   StaticSegmentList() = default;
   StaticSegmentList(Weight w, Index i) : weight(w), index(i) {}
   // Equal to the default (weight 1, index 0).
   bool isEmpty() const noexcept { return *this == StaticSegmentList(); }
   uint32_t hash() const noexcept { return Mox::hashCombine(weight.hash(), index.hash()); }
   friend bool operator==(const StaticSegmentList&, const StaticSegmentList&) = default;

   // Value('SrTePolicy::StaticSegmentList', ** {'weight': %s, 'index': %s}); also the text form.
   static constexpr const char* strepName = "SrTePolicy::StaticSegmentList";
   std::string valueToStrep() const;
   std::string stringValue() const { return valueToStrep(); }
   static StaticSegmentList fromStrep(const Strep::Node& node);
   static StaticSegmentList fromStrep(std::string_view text);
   // The weight as a 32-bit word, then the index as a 64-bit word.
   void attrLogWrite(AttrLog::Writer& w) const;
   static StaticSegmentList attrLogRead(AttrLog::Reader& r);
};
std::ostream& operator<<(std::ostream& os, const StaticSegmentList& v);

class CandidatePath : public Mox::Entity {
 public:
   using StaticSegmentListMap = Mox::HashMap2018<Ipkit::MplsLabelOperation, StaticSegmentList>;

   class Notifiee : public Mox::NotifieeOf<CandidatePath> {
    public:
      virtual void onStaticSegmentList(const Ipkit::MplsLabelOperation&) {}
      virtual void onStaticSegmentList() {}
   };

   explicit CandidatePath(Preference preference) : preference_(preference) {}

   Preference preference() const noexcept { return preference_; }

   // Inserts or replaces the value under the label stack.
   void staticSegmentListIs(const Ipkit::MplsLabelOperation& segList, const StaticSegmentList& v);
   // Removes the label stack; returns what it held, or the default value when it was absent.
   StaticSegmentList staticSegmentListDel(const Ipkit::MplsLabelOperation& segList);
   void staticSegmentListDelAll();
   std::optional<StaticSegmentList>
   staticSegmentList(const Ipkit::MplsLabelOperation& segList) const;
   const StaticSegmentListMap& staticSegmentList() const noexcept { return staticSegmentList_; }
   size_t staticSegmentListCount() const noexcept { return staticSegmentList_.size(); }
   // The lists in ascending index (then label stack) order: the order in which they fill the
   // slots of a policy input record.
   std::vector<std::pair<Ipkit::MplsLabelOperation, StaticSegmentList>>
   staticSegmentListByIndex() const;

   void dump(std::string& out, int depth) const;
   std::string stringValue() const;
   void attrLogWrite(AttrLog::Writer& w) const;
   static Mox::Ptr<CandidatePath> attrLogRead(AttrLog::Reader& r);

 private:
   Preference preference_;
   StaticSegmentListMap staticSegmentList_;
};

class StaticPolicy : public Mox::Entity {
 public:
   using CandidatePathMap = Mox::RbTreeMap<Preference, Mox::Ptr<CandidatePath>>;

   class Notifiee : public Mox::NotifieeOf<StaticPolicy> {
    public:
      virtual void onBindingSid() {}
      virtual void onCandidatePath(const Preference&) {}
      virtual void onCandidatePath() {}
   };

   explicit StaticPolicy(const PolicyKey& key) : key_(key) {}

   const PolicyKey& key() const noexcept { return key_; }
   Ipkit::MplsLabel bindingSid() const noexcept { return bindingSid_; }
   void bindingSidIs(Ipkit::MplsLabel l) { attrIs(bindingSid_, l, &Notifiee::onBindingSid); }

   // Returns the candidate path of that preference, creating it if absent.
   Mox::Ptr<CandidatePath> candidatePathIs(Preference preference);
   void candidatePathDel(Preference preference);
   void candidatePathDelAll();
   Mox::Ptr<CandidatePath> candidatePath(Preference preference) const;
   // Ascending preference.
   const CandidatePathMap& candidatePath() const noexcept { return candidatePath_; }
   size_t candidatePathCount() const noexcept { return candidatePath_.size(); }

   void dump(std::string& out, int depth) const;
   std::string stringValue() const;
   // The binding SID, then each candidate path (preference and contents).
   void attrLogWrite(AttrLog::Writer& w) const;
   static Mox::Ptr<StaticPolicy> attrLogRead(AttrLog::Reader& r);

 private:
   PolicyKey key_;
   Ipkit::MplsLabel bindingSid_;
   CandidatePathMap candidatePath_;
};

Mox::Ptr<StaticPolicy> staticPolicyFactory(const PolicyKey& key);
Mox::Ptr<CandidatePath> candidatePathFactory(Preference preference);

} // namespace SrTePolicy
