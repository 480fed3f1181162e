#include <gtest/gtest.h>

#include <algorithm>
#include <array>

#include "input/SrTePolicySelectionInput.h"
#include "selection/SrTePolicyEcPolicy.h"

namespace {

using namespace SrTePolicy;
using R = PriorityCompareResult;

Originator origin(uint32_t asn, uint32_t v4) { return Originator(asn, Ipkit::IpGenAddr::v4(v4)); }

Priority prio(uint32_t pref, Protocol proto, const Originator& o, uint32_t disc) {
   return Priority(Preference(pref), proto, o, Discriminator(disc));
}

PolicyKey keyOf(uint32_t color) {
   return PolicyKey(Ipkit::IpGenAddr::v4(0x0a000001), Color(color));
}

TEST(Priority, CompareFollowsCriteriaInOrder) {
   const Originator low = origin(1, 0x0a000001), high = origin(1, 0x0a000002);
   const Protocol p1 = static_cast<Protocol>(1), p3 = static_cast<Protocol>(3);
   const Protocol negative = static_cast<Protocol>(0x80000000u); // compared as signed: lowest
   struct Case {
      Priority a, b;
      R ab, ba;
   };
   const Case cases[] = {
       // Preference decides whatever else differs.
       {prio(200, Protocol::unknown, high, 0), prio(100, Protocol::staticConfig, low, 9),
        R::isHigherPreference, R::isLowerPreference},
       {prio(100, p3, high, 0), prio(100, p1, low, 9), R::isBetterProtocol, R::isLowerProtocol},
       {prio(100, p1, high, 0), prio(100, negative, low, 9), R::isBetterProtocol,
        R::isLowerProtocol},
       // The lower originator wins; its order puts the AS number first.
       {prio(100, p1, low, 0), prio(100, p1, high, 9), R::isLowerOrigin, R::isHigherOrigin},
       {prio(100, p1, origin(2, 9), 0), prio(100, p1, origin(3, 0), 9), R::isLowerOrigin,
        R::isHigherOrigin},
       {prio(100, p1, low, 4), prio(100, p1, low, 2), R::isHigherDiscriminator,
        R::isLowerDiscriminator},
       // All equal: never isEqual, -4 both ways.
       {prio(100, p1, low, 4), prio(100, p1, low, 4), R::isLowerDiscriminator,
        R::isLowerDiscriminator},
   };
   for (const Case& c : cases) {
      EXPECT_EQ(c.a.compare(c.b), c.ab) << c.a << " vs " << c.b;
      EXPECT_EQ(c.b.compare(c.a), c.ba) << c.b << " vs " << c.a;
   }
   EXPECT_EQ(static_cast<int>(R::isLowerDiscriminator), -4);
   EXPECT_STREQ(priorityCompareResultName(R::isHigherOrigin), "isHigherOrigin");
}

TEST(Priority, NotAndSameExceptDiscriminator) {
   EXPECT_TRUE(!Priority());
   const Priority changed[] = {prio(101, Protocol::unknown, Originator(), 0),
                               prio(100, Protocol::bgp, Originator(), 0),
                               prio(100, Protocol::unknown, origin(0, 1), 0),
                               prio(100, Protocol::unknown, Originator(), 1)};
   for (const Priority& p : changed) EXPECT_FALSE(!p) << p;

   Priority a = prio(100, Protocol::bgp, origin(65000, 0x0a000009), 7);
   Priority b = a;
   b.discriminator = Discriminator(8);
   EXPECT_TRUE(a.sameExceptDiscriminator(b));
   b.originator = origin(65001, 0x0a000009);
   EXPECT_FALSE(a.sameExceptDiscriminator(b));
}

TEST(SelectionValues, TextFormsAndAttrLogRoundTrip) {
   const Priority p = prio(100, Protocol::bgp, origin(65000, 0x0a000009), 7);
   const WeightedSegmentListId s(Weight(3), SegmentListId(7));
   const WeightedTunnelId t(Tunnel::TunnelTable::TunnelId(42), Weight(5));
   EXPECT_EQ(p.stringValue(), "100-bgp-10.0.0.9(AS65000) - 7");
   EXPECT_EQ(s.stringValue(), "(wt: 3, segListId: 7)");
   EXPECT_EQ(t.stringValue(), "(wt: 5, tunnelId: 42)");
   EXPECT_EQ(
       s.valueToStrep().rfind("Value('SrTePolicy::WeightedSegmentListId', ** {'segmentListId'", 0),
       0u);
   EXPECT_EQ(t.valueToStrep().rfind("Value('SrTePolicy::WeightedTunnelId', ** {'tunnelId'", 0), 0u);
   EXPECT_EQ(s.tunnelId, SegmentListId(7).getTunnelId());

   AttrLog::Writer w;
   s.writeTo(w);
   t.writeTo(w);
   p.writeTo(w);
   AttrLog::Reader r(w.buffer());
   EXPECT_EQ(WeightedSegmentListId::readFrom(r), s);
   EXPECT_EQ(WeightedTunnelId::readFrom(r), t);
   EXPECT_EQ(Priority::readFrom(r), p);

   // Values are checked on the way in: weight 0, an unknown address family, a short record.
   auto bytes = w.buffer();
   bytes[27] = 0;      // t's weight
   bytes[28 + 15] = 7; // p's address family, after preference, protocol and AS number
   AttrLog::Reader bad(bytes.data() + 16, bytes.size() - 16);
   EXPECT_THROW(WeightedTunnelId::readFrom(bad), Mox::RangeError);
   EXPECT_THROW(Priority::readFrom(bad), Mox::RangeError);
   AttrLog::Reader shortRead(w.buffer().data() + 28, w.buffer().size() - 29);
   EXPECT_THROW(Priority::readFrom(shortRead), AttrLog::Truncated);
}

// Records every notification of a Policy, as "c<disc>" and "a<disc or ->".
struct PolicyLog : Policy::Notifiee {
   std::string seen;
   void onCandidate(const Priority& p) override {
      seen += "c" + std::to_string(p.discriminator.value);
   }
   void onActive() override {
      auto a = notifier()->active();
      seen += a ? "a" + std::to_string(a->priority().discriminator.value) : std::string("a-");
   }
};

TEST(Policy, CandidatesBestFirstWhateverTheInsertionOrder) {
   const Originator o1 = origin(1, 1), o2 = origin(1, 2);
   // Best to worst, one step of each criterion apart.
   const std::array<Priority, 5> ranked = {
       prio(200, Protocol::unknown, o2, 0), prio(100, Protocol::staticConfig, o2, 1),
       prio(100, Protocol::bgp, o1, 2),     prio(100, Protocol::bgp, o2, 4),
       prio(100, Protocol::bgp, o2, 3),
   };
   std::array<int, 5> order = {0, 1, 2, 3, 4};
   do {
      auto policy = Mox::make<Policy>(keyOf(1));
      for (int i : order) policy->candidateIs(ranked[i]);
      std::vector<Priority> seen;
      for (const auto& [p, entry] : policy->candidate()) {
         EXPECT_EQ(entry->priority(), p);
         seen.push_back(p);
      }
      ASSERT_EQ(seen, std::vector<Priority>(ranked.begin(), ranked.end()));
      EXPECT_EQ(policy->bestCandidate()->priority(), ranked[0]);
   } while (std::next_permutation(order.begin(), order.end()));
}

TEST(Policy, CandidateLifecycleKeepsActiveAmongCandidates) {
   auto policy = Mox::make<Policy>(keyOf(1));
   PolicyLog log;
   log.notifierIs(policy);
   const Originator o = origin(1, 1);

   auto e1 = policy->candidateIs(prio(100, Protocol::bgp, o, 1));
   auto e2 = policy->candidateIs(prio(100, Protocol::bgp, o, 2));
   EXPECT_EQ(policy->candidateIs(prio(100, Protocol::bgp, o, 1)), e1); // existing, silent
   policy->activeIs(e2);
   policy->activeIs(e2);
   EXPECT_EQ(log.seen, "c1c2a2");

   // Removing an inactive candidate leaves active alone; removing the active clears it first.
   log.seen.clear();
   policy->candidateDel(e1->priority());
   policy->candidateDel(e1->priority());
   EXPECT_EQ(log.seen, "c1");
   policy->candidateDel(e2->priority());
   EXPECT_EQ(log.seen, "c1a-c2");
   EXPECT_EQ(policy->bestCandidate(), nullptr);

   policy->activeIs(policy->candidateIs(prio(50, Protocol::bgp, o, 5)));
   policy->candidateIs(prio(60, Protocol::bgp, o, 6));
   log.seen.clear();
   policy->candidateDelAll();
   EXPECT_EQ(log.seen, "a-c6c5"); // best first, one call per candidate
   EXPECT_EQ(policy->active(), nullptr);
}

struct EntryLog : PolicyIdEntry::Notifiee {
   std::string seen;
   void onPreference() override { seen += "p"; }
   void onOriginator() override { seen += "o"; }
   void onBindingSid() override { seen += "b"; }
   void onWSegmentList(const uint8_t& i) override { seen += "s" + std::to_string(i); }
   void onVersion() override { seen += "v"; }
};

struct InputLog : PolicySelectionInput::Notifiee {
   std::string seen;
   void onPolicyIdEntry(const PolicyId& id) override {
      seen += "e" + std::to_string(id.discriminator.value);
   }
};

TEST(PolicySelectionInput, EntriesNotifyOnlyRealChanges) {
   auto input = policySelectionInputFactory("selectionInput");
   InputLog inputLog;
   inputLog.notifierIs(input);
   const PolicyId id(keyOf(7), Protocol::bgp, Discriminator(3));
   const Originator o = origin(65000, 0x0a000009);

   auto entry = input->policyIdEntryIs(id, Preference(100), o);
   EXPECT_EQ(entry->bindingSid().value(), 1048576u);
   EntryLog log;
   log.notifierIs(entry);

   // The input stage's update of one candidate path.
   entry->bindingSidIs(Ipkit::MplsLabel(965536));
   entry->wSegmentListIs(1, WeightedSegmentListId(Weight(2), SegmentListId(11)));
   entry->wSegmentListIs(0, WeightedSegmentListId(Weight(1), SegmentListId(10)));
   entry->versionInc();
   EXPECT_EQ(log.seen, "bs1s0v");

   // Same values again: nothing to tell, apart from the version bump itself.
   log.seen.clear();
   entry->bindingSidIs(Ipkit::MplsLabel(965536));
   entry->wSegmentListIs(0, WeightedSegmentListId(Weight(1), SegmentListId(10)));
   EXPECT_EQ(input->policyIdEntryIs(id, Preference(100), o), entry);
   entry->versionInc();
   EXPECT_EQ(log.seen, "v");

   // Re-registering with a new preference updates the existing entry in place.
   log.seen.clear();
   EXPECT_EQ(input->policyIdEntryIs(id, Preference(300), origin(1, 1)), entry);
   EXPECT_EQ(log.seen, "po");
   EXPECT_EQ(inputLog.seen, "e3");

   std::string out;
   entry->dump(out, 0);
   EXPECT_EQ(out.substr(0, out.find('\n') + 1),
             " id: 10.0.0.1|7|bgp|3, pref: 300, Originator: 0.0.0.1(AS1), bindingSid: 965536, "
             "version: 2 \n");
   EXPECT_NE(out.find("1: (wt: 2, segListId: 11)\n"), std::string::npos);

   log.seen.clear();
   entry->wSegmentListDel(5);
   entry->wSegmentListDelAll();
   EXPECT_EQ(log.seen, "s0s1"); // index order, whatever the insertion order

   input->policyIdEntryDel(id);
   EXPECT_EQ(inputLog.seen, "e3e3");
   EXPECT_EQ(input->policyIdEntry(id), nullptr);
}

// Rows keep index order and their values through sparse inserts and removals anywhere, the
// highest index included; a row removed from the middle leaves the others where their indexes say.
TEST(PolicySelectionInput, RowsStayInIndexOrderThroughSparseEdits) {
   IndexedRows<WeightedTunnelId> rows;
   auto row = [](uint32_t n) {
      return WeightedTunnelId(Tunnel::TunnelTable::TunnelId(n), Weight(n));
   };
   auto seen = [&rows] {
      std::string out;
      for (const auto& [index, w] : rows)
         out += std::to_string(index) + "=" + std::to_string(w.weight.value) + " ";
      return out;
   };
   for (uint8_t k : {31, 7, 0, 15, 8}) EXPECT_TRUE(rows.try_emplace(k, row(100 + k)).second);
   EXPECT_FALSE(rows.try_emplace(7, row(1)).second);
   EXPECT_EQ(seen(), "0=100 7=107 8=108 15=115 31=131 ");
   EXPECT_EQ(rows.find(15)->second.weight.value, 115u);
   EXPECT_TRUE(rows.find(16) == rows.end());

   auto next = rows.erase(rows.find(8));
   EXPECT_EQ((*next).first, 15);
   rows.find(15)->second = row(5);
   const auto taken = rows.take(rows.find(0));
   EXPECT_EQ(taken.first, 0);
   EXPECT_EQ(taken.second.weight.value, 100u);
   EXPECT_FALSE(rows.erase(uint8_t(8)));
   EXPECT_TRUE(rows.erase(uint8_t(31)));
   EXPECT_EQ(seen(), "7=107 15=5 ");
   EXPECT_EQ(rows.size(), 2u);
}

} // namespace
