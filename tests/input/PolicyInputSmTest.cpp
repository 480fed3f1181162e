#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "core/SrTePolicyMachines.h"
#include "input/SrTePolicyInputSm.h"
#include "tests/support/CoreTestRouter.h"
#include "tests/support/TestValues.h"

using namespace SrTePolicy;

namespace {

using SrTePolicy::Test::addr;

// The input stage as the assembly builds it, over router tables the test plays itself.
struct Env {
   Kiln::TaskScheduler scheduler;
   StandaloneRouter router;
   Mox::Ptr<Config> config = router.config;
   Mox::Ptr<PolicyInputSource> source = router.input;
   Mox::Ptr<PolicyInput> bgp = policyInputFactory("bgp");
   Mox::Ptr<PolicyInput> configured = policyInputFactory("static");
   Mox::Ptr<Mpls::Config> mplsConfig = router.mplsConfig;
   Mox::Ptr<Mpls::Status> mplsStatus = router.mplsStatus;
   Mox::Ptr<Kiln::AttrLogSm> attrLog = router.attrLog;
   PolicyCore core{router.tables(scheduler)};
   Mox::Ptr<PolicySelectionInput> selection = core.published().policySelectionInput;
   Mox::Ptr<Export::SegmentListCollection> exported = core.published().exportedSegmentListColl;

   Env() {
      source->policyInputIs(Protocol::bgp, bgp);
      source->policyInputIs(Protocol::staticConfig, configured);
      mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(900000, 1000));
      core.start();
   }

   // The in-process state, rebuilt by a restart: never held across one.
   PolicyInputSm* sm() const { return core.policyInputSm().get(); }
   CoreDedupTables* dedup() const { return core.entities().coreDedupTables.get(); }
   SegmentListIdToPolicyMap* segListMap() const { return core.entities().segListMap.get(); }
   SegmentIdToSegmentList* segmentMap() const { return core.entities().segmentMap.get(); }
   PolicyKeyToIdMap* keyMap() const { return core.entities().policyKeyToIdMap.get(); }
   const Syslog::Capture& syslog() const { return core.syslogCapture(); }

   static PolicyId id(Protocol p, const char* endpoint, uint32_t color, uint32_t disc) {
      return PolicyId(PolicyKey(addr(endpoint), Color(color)), p, Discriminator(disc));
   }
   static PolicyInputEntry record(const PolicyId& pid, uint32_t bsid,
                                  const std::vector<std::vector<uint32_t>>& lists) {
      return Testing::pathRecord(pid, bsid, lists);
   }
   PolicyInput& table(Protocol p) { return p == Protocol::bgp ? *bgp : *configured; }
   void put(const PolicyInputEntry& e) { table(e.key().protocol).policyInputEntryIs(e); }
   const PolicyCandidateInfo* candidate(const PolicyId& pid) const {
      PolicyInfo* info = keyMap()->policy(pid.key);
      return info ? info->candidate(CandidateId(pid)) : nullptr;
   }
   PolicyInvalidReason reason(const PolicyId& pid) const { return candidate(pid)->reason; }
   std::vector<std::string> tags() const {
      std::vector<std::string> t;
      for (const auto& r : syslog().records()) t.push_back(r.tag);
      return t;
   }
   // The selection input and candidate map as one comparable text, in key order.
   std::string outputs() const {
      std::vector<std::string> lines;
      for (const auto& [pid, e] : selection->policyIdEntry()) {
         std::string l = pid.stringValue() + " v" + std::to_string(e->version()) + " bsid " +
                         e->bindingSid().stringValue();
         for (const auto& [i, w] : e->wSegmentList()) {
            l += " " + w.stringValue() + "=" +
                 segListMap()
                     ->segmentListUser(w.segmentListId)
                     ->segmentList()
                     ->labelStack()
                     .stringValue();
         }
         lines.push_back(l);
      }
      for (const auto& [key, info] : keyMap()->policy()) {
         for (const auto& [cid, c] : info->candidate()) {
            lines.push_back(key.stringValue() + " " + cid.stringValue() + " " +
                            policyInvalidReasonName(c.reason));
         }
      }
      std::sort(lines.begin(), lines.end());
      std::string out;
      for (const auto& l : lines) out += l + "\n";
      return out;
   }
   // A mixed workload: shared lists, every reason, updates and deletions.
   void workload() {
      mplsStatus->lfibRouteIs(Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(900500)),
                                                Mpls::LFib::RouteType::unknown,
                                                Mpls::LFib::Source::unknown, Mpls::AdjacencyKey()));
      for (uint32_t i = 0; i < 60; ++i) {
         put(record(id(Protocol::bgp, "10.0.0.1", i, 1), 900000 + i * 10 % 700,
                    {{16000 + i % 7, 16100 + i % 3}, {17000 + i % 5}}));
         put(record(id(Protocol::staticConfig, "10.0.0.1", i, 100), i % 9 ? 900000 + i : 1048576,
                    {{16000 + i % 7, 16100 + i % 3}}));
      }
      put(record(id(Protocol::bgp, "10.0.0.9", 1, 1), 900500, {{16001}}));
      scheduler.runUntilIdle();
      for (uint32_t i = 0; i < 60; i += 4)
         bgp->policyInputEntryDel(id(Protocol::bgp, "10.0.0.1", i, 1));
      for (uint32_t i = 1; i < 60; i += 4)
         put(record(id(Protocol::bgp, "10.0.0.1", i, 1), 900999, {}));
      scheduler.runUntilIdle();
   }
};

struct InputStage : ::testing::Test, Env {};

TEST_F(InputStage, ValidationReasonsInOrderOfPrecedenceAndTheirLogMessages) {
   const auto missing = id(Protocol::bgp, "10.0.0.1", 1, 1);
   const auto outside = id(Protocol::bgp, "10.0.0.1", 1, 2);
   const auto outsideNoLists = id(Protocol::bgp, "10.0.0.1", 1, 3);
   const auto staticNoLists = id(Protocol::staticConfig, "10.0.0.1", 1, 4);
   const auto good = id(Protocol::bgp, "10.0.0.1", 1, 5);
   put(record(missing, Ipkit::MplsLabel::null, {{16001}}));
   put(record(outside, 800000, {{16001}}));
   put(record(outsideNoLists, 800000, {}));
   put(record(staticNoLists, 900001, {}));
   put(record(good, 900002, {{16001}}));
   scheduler.runUntilIdle();

   EXPECT_EQ(reason(missing), PolicyInvalidReason::bsidMissing);
   EXPECT_EQ(reason(outside), PolicyInvalidReason::bsidOutOfRange);
   EXPECT_EQ(reason(outsideNoLists), PolicyInvalidReason::noSegmentLists); // overrides reason 1
   EXPECT_EQ(reason(staticNoLists), PolicyInvalidReason::noSegmentLists);
   EXPECT_EQ(reason(good), PolicyInvalidReason::usable);
   EXPECT_EQ(selection->policyIdEntry().size(), 1u);
   ASSERT_NE(selection->policyIdEntry(good), nullptr);
   EXPECT_EQ(selection->policyIdEntry(good)->bindingSid(), Ipkit::MplsLabel(900002));

   // One message per unusable bgp path; the configured one without lists is not logged.
   auto t = tags();
   std::sort(t.begin(), t.end());
   EXPECT_EQ(t, (std::vector<std::string>{"SRTE_POLICY_INVALID_BSID_MISSING",
                                          "SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE",
                                          "SRTE_POLICY_INVALID_NO_SEGMENT_LISTS"}));
   for (const auto& r : syslog().records()) {
      if (r.tag == "SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE") {
         EXPECT_EQ(r.text, "Endpoint 10.0.0.1, color 1, protocol bgp, originator 0.0.0.0(AS0), "
                           "discriminator 2 is unusable: BSID(800000) is outside SRLB [900000, "
                           "900999]");
      }
   }

   // Without the binding-SID requirement the same path is usable.
   config->specifiedBsidOnlyIs(false);
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(missing), PolicyInvalidReason::usable);
   EXPECT_NE(selection->policyIdEntry(missing), nullptr);
}

TEST_F(InputStage, BindingSidHeldByAnotherApplicationUntilItsRouteGoes) {
   const auto a = id(Protocol::bgp, "10.0.0.1", 1, 1);
   const auto b = id(Protocol::bgp, "10.0.0.2", 1, 1);
   mplsStatus->lfibRouteIs(Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(900010)),
                                             Mpls::LFib::RouteType::unknown,
                                             Mpls::LFib::Source::unknown, Mpls::AdjacencyKey()));
   put(record(a, 900010, {{16001}}));
   put(record(b, 900010, {{16002}}));
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::bsidInUseOtherApplication);
   EXPECT_EQ(sm()->bsidUser().size(), 1u); // one user for both paths
   EXPECT_EQ(Mox::sortedKeys(sm()->bsidUser(Ipkit::MplsLabel(900010))->policyId()),
             (std::vector<PolicyId>{a, b}));
   ASSERT_EQ(syslog().records().size(), 2u);
   std::vector<std::string> texts{syslog().records()[0].text, syslog().records()[1].text};
   std::sort(texts.begin(), texts.end());
   EXPECT_EQ(texts[1],
             "Endpoint 10.0.0.2, color 1, protocol bgp, originator 0.0.0.0(AS0), discriminator 1 "
             "is unusable: BSID(900010) already in use by another application");
   const double firstSeen = candidate(a)->lastModified;

   scheduler.advance(5);
   mplsStatus->lfibRouteDel(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(900010)));
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::usable);
   EXPECT_EQ(reason(b), PolicyInvalidReason::usable);
   // The record itself did not change: the candidate keeps its time of last change.
   EXPECT_EQ(candidate(a)->lastModified, firstSeen);

   // A path that moves to another label leaves this one; a path that goes leaves it too.
   put(record(a, 900011, {{16001}}));
   scheduler.runUntilIdle();
   EXPECT_EQ(Mox::sortedKeys(sm()->bsidUser(Ipkit::MplsLabel(900010))->policyId()),
             (std::vector<PolicyId>{b}));
   EXPECT_TRUE(sm()->bsidUser(Ipkit::MplsLabel(900011))->policyIdHas(a));
   bgp->policyInputEntryDel(a);
   scheduler.runUntilIdle();
   EXPECT_EQ(sm()->bsidUser(Ipkit::MplsLabel(900011)), nullptr);
   EXPECT_EQ(sm()->bsidUser(Ipkit::MplsLabel(900010))->policyId().size(), 1u);
   bgp->policyInputEntryDel(b);
   scheduler.runUntilIdle();
   EXPECT_TRUE(sm()->bsidUser().empty());
   EXPECT_EQ(keyMap()->policy().size(), 0u);
}

TEST_F(InputStage, SrlbChangeRequeuesEveryRecordAndOtherRangesDoNothing) {
   const auto a = id(Protocol::bgp, "10.0.0.1", 1, 1);
   put(record(a, 900500, {{16001}}));
   scheduler.runUntilIdle();
   const double seen = candidate(a)->lastModified;
   const uint32_t version = selection->policyIdEntry(a)->version();

   scheduler.advance(3);
   mplsConfig->labelRangeIs("srgb", Mpls::LabelRange(16000, 8000));
   EXPECT_TRUE(sm()->pendingPolicyId().empty());
   mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(900000, 100));
   EXPECT_EQ(sm()->pendingPolicyId().size(), 1u);
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::bsidOutOfRange);
   EXPECT_EQ(candidate(a)->lastModified, seen);
   EXPECT_EQ(selection->policyIdEntry(a), nullptr);

   mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(900000, 1000));
   scheduler.runUntilIdle();
   ASSERT_NE(selection->policyIdEntry(a), nullptr);
   EXPECT_GE(selection->policyIdEntry(a)->version(), 1u);
   (void)version;

   // No SRLB at all holds no binding SID (its last label cannot even be formed).
   mplsConfig->labelRangeDel("srlb");
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::bsidOutOfRange);
   // Nor does one whose first label is one but whose last is past the label space.
   mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(900000, 8000000));
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::bsidOutOfRange);
   mplsConfig->labelRangeIs("srlb", Mpls::LabelRange(900000, 1000));
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::usable);

   // A change of the record itself is a new time.
   put(record(a, 900501, {{16001}}));
   scheduler.runUntilIdle();
   EXPECT_EQ(candidate(a)->lastModified, 3.0);
}

TEST_F(InputStage, SegmentListsAreSharedAcrossProtocolsAndBurstsProcessedOnce) {
   const auto fromBgp = id(Protocol::bgp, "10.0.0.1", 7, 1);
   const auto configuredPath = id(Protocol::staticConfig, "10.0.0.1", 7, 100);
   put(record(fromBgp, 900001, {{16001, 16002}, {16003}}));
   put(record(configuredPath, 900001, {{16001, 16002}}));
   // A burst on one id: processed once, version bumped once.
   for (int i = 0; i < 5; ++i) put(record(fromBgp, 900001, {{16001, 16002}, {16003}}));
   scheduler.runUntilIdle();

   auto e1 = selection->policyIdEntry(fromBgp);
   auto e2 = selection->policyIdEntry(configuredPath);
   ASSERT_TRUE(e1 && e2);
   EXPECT_EQ(e1->version(), 1u);
   const auto shared = e1->wSegmentList(0)->segmentListId;
   EXPECT_EQ(e2->wSegmentList(0)->segmentListId, shared);
   EXPECT_EQ(e1->wSegmentList(1)->weight, Weight(2));
   EXPECT_EQ(e1->wSegmentList(0)->tunnelId, shared.getTunnelId());
   SegmentListUser* user = segListMap()->segmentListUser(shared);
   ASSERT_NE(user, nullptr);
   EXPECT_TRUE(user->policyIdHas(fromBgp) && user->policyIdHas(configuredPath));
   EXPECT_EQ(exported->segmentList().size(), 2u);
   EXPECT_EQ(exported->segmentList(shared)->size(), 2u);

   // An update that keeps a list keeps its id; dropping a list withdraws it everywhere.
   put(record(fromBgp, 900001, {{16001, 16002}}));
   scheduler.runUntilIdle();
   EXPECT_EQ(e1->version(), 2u);
   EXPECT_EQ(e1->wSegmentList().size(), 1u);
   EXPECT_EQ(e1->wSegmentList(0)->segmentListId, shared);
   EXPECT_EQ(exported->segmentList().size(), 1u);
   EXPECT_EQ(dedup()->segDedupTablePtr()->lookupByLabel(Ipkit::MplsLabel(16003)), nullptr);
   EXPECT_EQ(segmentMap()->segmentList().size(), 2u);

   bgp->policyInputEntryDel(fromBgp);
   configured->policyInputEntryDel(configuredPath);
   scheduler.runUntilIdle();
   EXPECT_TRUE(selection->policyIdEntry().empty());
   EXPECT_TRUE(exported->segmentList().empty());
   EXPECT_TRUE(segListMap()->segmentListUser().empty());
   EXPECT_TRUE(segmentMap()->segmentList().empty());
   EXPECT_TRUE(dedup()->notifyingSegmentListCollection()->segmentListNotifier().empty());
   EXPECT_TRUE(dedup()->notifyingSegmentCollection()->segmentNotifier().empty());
}

TEST_F(InputStage, CongestionAndYieldingNeverDropWork) {
   scheduler.yieldEveryIs(7);
   for (uint32_t i = 0; i < 100; ++i) {
      put(record(id(Protocol::bgp, "10.0.0.1", i, 1), 900000 + i, {{16000 + i % 10}}));
   }
   EXPECT_EQ(scheduler.runUntilIdle() > 0, true);
   EXPECT_EQ(selection->policyIdEntry().size(), 100u);

   for (uint32_t i = 0; i < 100; ++i) {
      put(record(id(Protocol::bgp, "10.0.0.2", i, 1), 900100 + i, {{17000 + i % 10}}));
   }
   // Congest the log after the first slice: the rest waits, retried every 0.1 s.
   sm()->task()->scheduleTask();
   struct CongestAfterFirstRun : Kiln::Task::Notifiee {
      Kiln::AttrLogSm* log;
      void onTaskRun() override { log->attrLogOutCloggedIs(true); }
   } congest;
   congest.log = attrLog.get();
   congest.notifierIs(sm()->task());
   scheduler.runUntilIdle();
   congest.notifierIs(nullptr);
   EXPECT_EQ(selection->policyIdEntry().size(), 107u);
   EXPECT_EQ(scheduler.nextTimerDelay(), std::optional<double>(0.1));
   scheduler.advance(1.0);
   EXPECT_EQ(selection->policyIdEntry().size(), 107u);
   attrLog->attrLogOutCloggedIs(false);
   scheduler.advance(0.1);
   EXPECT_EQ(selection->policyIdEntry().size(), 200u);
   EXPECT_TRUE(sm()->pendingPolicyId().empty());
}

TEST(InputStageYield, YieldEveryKeyConvergesToSameResult) {
   std::string expected;
   size_t messages = 0;
   {
      Env plain;
      plain.workload();
      expected = plain.outputs();
      messages = plain.syslog().records().size();
   }
   Env sliced;
   sliced.scheduler.yieldEveryIs(1);
   sliced.workload();
   EXPECT_EQ(sliced.outputs(), expected);
   EXPECT_GT(sliced.sm()->task()->runCount(), 100u); // it really ran one key per slice
   EXPECT_EQ(sliced.syslog().records().size(), messages);
}

TEST(InputStageOrder, SegmentListIdsDependOnTheInputsNotOnTheOrderTheyArrived) {
   // Ids are issued in processing order; two agents given the same records in opposite orders,
   // with their tables at different addresses, must still number every list alike.
   auto load = [](Env& env, bool reversed) {
      std::vector<PolicyInputEntry> records;
      for (uint32_t i = 0; i < 200; ++i) {
         records.push_back(Env::record(Env::id(Protocol::bgp, "10.0.0.1", i, 1), 900000 + i,
                                       {{16000 + i % 13, 16100 + i % 7}, {17000 + i % 11}}));
      }
      if (reversed) std::reverse(records.begin(), records.end());
      for (const auto& r : records) env.put(r);
      env.scheduler.runUntilIdle();
   };
   Env forward;
   load(forward, false);
   auto ballast = std::make_unique<Env>(); // moves the second agent's tables elsewhere
   Env backward;
   load(backward, true);
   EXPECT_EQ(backward.outputs(), forward.outputs());
   EXPECT_EQ(backward.syslog().records().size(), forward.syslog().records().size());
}

TEST_F(InputStage, RouteOfAnotherApplicationTakesTheBindingSidAwayFromAUsablePath) {
   const auto a = id(Protocol::bgp, "10.0.0.1", 1, 1);
   put(record(a, 900001, {{16001, 16002}}));
   scheduler.runUntilIdle();
   ASSERT_NE(selection->policyIdEntry(a), nullptr);
   const auto route = Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(900001)),
                                        Mpls::LFib::RouteType::unknown, Mpls::LFib::Source::unknown,
                                        Mpls::AdjacencyKey());
   mplsStatus->lfibRouteIs(route);
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::bsidInUseOtherApplication);
   EXPECT_EQ(selection->policyIdEntry(a), nullptr);
   EXPECT_TRUE(exported->segmentList().empty());
   EXPECT_TRUE(dedup()->notifyingSegmentListCollection()->segmentListNotifier().empty());

   // This system's own route (source 16) for the label leaves it available.
   auto own = route;
   own.source = Mpls::LFib::Source::srTePolicy;
   mplsStatus->lfibRouteIs(own);
   scheduler.runUntilIdle();
   EXPECT_EQ(reason(a), PolicyInvalidReason::usable);
   // Routes of labels nobody names queue nothing.
   mplsStatus->lfibRouteDel(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(900001)));
   mplsStatus->lfibRouteIs(Mpls::LFib::Route(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(16001)),
                                             Mpls::LFib::RouteType::unknown,
                                             Mpls::LFib::Source::unknown, Mpls::AdjacencyKey()));
   EXPECT_TRUE(sm()->pendingPolicyId().empty());
}

TEST_F(InputStage, SharingToggleReinitialisesAndTakesTheExportedIdsBack) {
   const auto a = id(Protocol::bgp, "10.0.0.1", 1, 1);
   put(record(a, 900001, {{16001}, {16002}}));
   scheduler.runUntilIdle();
   EXPECT_EQ(exported->segmentList().size(), 2u);
   const uint32_t version = selection->policyIdEntry(a)->version();

   // What a downstream machine sees of the re-initialisation: the lists' removals, delivered
   // inside the configuration setter, and the lists' insertions only when the task runs, under
   // their exported ids again: nothing downstream is renumbered.
   struct Lists : NotifyingSegmentListCollection::Notifiee {
      std::vector<std::string> seen;
      void onSegmentListNotifier(const Mox::Ptr<SegmentListLifeTimeNotifier>& n) override {
         const bool in = notifier()->segmentListNotifierHas(n);
         seen.push_back((in ? "+" : "-") + n->segmentListRawPtr()->segmentListId().stringValue());
      }
   } lists;
   lists.notifierIs(dedup()->notifyingSegmentListCollection());
   config->segmentListSharingEnabledIs(true);
   std::sort(lists.seen.begin(), lists.seen.end());
   EXPECT_EQ(lists.seen, (std::vector<std::string>{"-1", "-2"}));
   EXPECT_TRUE(dedup()->notifyingSegmentCollection()->segmentNotifier().empty());
   EXPECT_TRUE(keyMap()->policy().empty());
   // Until the task runs, the selection input still names the withdrawn ids, still exported.
   EXPECT_EQ(selection->policyIdEntry(a)->wSegmentList(0)->segmentListId, SegmentListId(1));
   EXPECT_EQ(selection->policyIdEntry(a)->version(), version);
   EXPECT_EQ(exported->segmentList().size(), 2u);
   lists.seen.clear();
   scheduler.runUntilIdle();
   std::sort(lists.seen.begin(), lists.seen.end());
   EXPECT_EQ(lists.seen, (std::vector<std::string>{"+1", "+2"}));
   auto e = selection->policyIdEntry(a);
   // Written again with the same lists: the version moves, so selection looks at the path again.
   EXPECT_EQ(e->version(), version + 1);
   EXPECT_EQ(e->wSegmentList(0)->segmentListId, SegmentListId(1));
   EXPECT_EQ(e->wSegmentList(1)->segmentListId, SegmentListId(2));
   EXPECT_EQ(exported->segmentList().size(), 2u);
   EXPECT_NE(exported->segmentList(SegmentListId(1)), nullptr);
   EXPECT_EQ(dedup()->notifyingSegmentListCollection()->adoptableIdCount(), 0u);
   EXPECT_TRUE(dedup()->notifyingSegmentListCollection()->initialPassDone());
   EXPECT_EQ(reason(a), PolicyInvalidReason::usable);
}

TEST_F(InputStage, RestartKeepsPublishedTablesAndCleansUpExactlyTheStaleLists) {
   const auto kept = id(Protocol::bgp, "10.0.0.1", 1, 1);
   const auto gone = id(Protocol::bgp, "10.0.0.2", 1, 1);
   put(record(kept, 900001, {{16001}}));
   put(record(gone, 900002, {{16002}}));
   scheduler.runUntilIdle();
   const SegmentListId before = selection->policyIdEntry(kept)->wSegmentList(0)->segmentListId;
   EXPECT_EQ(exported->segmentList().size(), 2u);

   core.stop(); // the agent goes away; the input of `gone` is withdrawn meanwhile
   bgp->policyInputEntryDel(gone);
   core.start();
   // Before the first run: published tables are as they were.
   EXPECT_EQ(selection->policyIdEntry().size(), 2u);
   EXPECT_EQ(exported->segmentList().size(), 2u);
   EXPECT_TRUE(sm()->cleanupPending());
   scheduler.runUntilIdle();

   EXPECT_EQ(selection->policyIdEntry().size(), 1u);
   const SegmentListId after = selection->policyIdEntry(kept)->wSegmentList(0)->segmentListId;
   EXPECT_EQ(after, before); // the list still claimed took its exported id back
   EXPECT_EQ(exported->segmentList().size(), 1u);
   EXPECT_NE(exported->segmentList(after), nullptr);
   EXPECT_FALSE(sm()->cleanupPending());
   EXPECT_EQ(reason(kept), PolicyInvalidReason::usable);
   // The withdrawn list's id is not taken back once the first pass is done: the same labels
   // now make a new list, above every id exported before.
   put(record(gone, 900002, {{16002}}));
   put(record(id(Protocol::bgp, "10.0.0.3", 1, 1), 900003, {{16003}}));
   scheduler.runUntilIdle();
   EXPECT_GT(selection->policyIdEntry(gone)->wSegmentList(0)->segmentListId, SegmentListId(2));
   EXPECT_EQ(exported->segmentList().size(), 3u);
}

// A restart forgets the lists' users while the selection input still names every path's lists:
// each path must be registered again exactly once per list, or its lists outlive it.
TEST_F(InputStage, RestartRegistersEachPathOnceWithEachListItNames) {
   const auto a = id(Protocol::bgp, "10.0.0.1", 1, 1);
   const auto b = id(Protocol::bgp, "10.0.0.2", 1, 1);
   const auto c = id(Protocol::staticConfig, "10.0.0.3", 1, 1);
   put(record(a, 900001, {{16001}, {16003}}));
   put(record(b, 900002, {{16001}}));
   put(record(c, 900003, {{16002}}));
   scheduler.runUntilIdle();

   core.stop();
   put(record(c, 900003, {{16002}, {16001}, {16002}})); // rewritten meanwhile, one list twice
   core.start();
   scheduler.runUntilIdle();
   auto users = [&](uint32_t label) {
      for (const auto& [slId, user] : segListMap()->segmentListUser()) {
         if (user->segmentList()->labelStack().stringValue() == std::to_string(label)) {
            return Mox::sortedKeys(user->policyId());
         }
      }
      return std::vector<PolicyId>{};
   };
   EXPECT_EQ(users(16001), (std::vector<PolicyId>{a, b, c}));
   EXPECT_EQ(users(16002), (std::vector<PolicyId>{c}));
   EXPECT_EQ(users(16003), (std::vector<PolicyId>{a}));

   for (const auto& p : {a, b, c}) table(p.protocol).policyInputEntryDel(p);
   scheduler.runUntilIdle();
   EXPECT_TRUE(segListMap()->segmentListUser().empty());
   EXPECT_TRUE(exported->segmentList().empty());
}

TEST_F(InputStage, RemovedSourceTableWithdrawsItsCandidates) {
   const auto a = id(Protocol::staticConfig, "10.0.0.1", 1, 100);
   put(record(a, 900001, {{16001}}));
   scheduler.runUntilIdle();
   ASSERT_NE(selection->policyIdEntry(a), nullptr);
   source->policyInputDel(Protocol::staticConfig);
   scheduler.runUntilIdle();
   EXPECT_EQ(selection->policyIdEntry(a), nullptr);
   EXPECT_EQ(candidate(a), nullptr);
   EXPECT_TRUE(exported->segmentList().empty());
}

// A binding-SID user holds its paths through their keys' candidate records, yet reads, loses and
// announces them as PolicyIds; emptying it tells each one, its key still readable as it goes.
TEST(BindingSidUser, PathsReadAsIdsThroughTheirKeysRecords) {
   struct Heard : BindingSidUser::Notifiee {
      std::vector<PolicyId> ids;
      void onPolicyId(const PolicyId& id) override { ids.push_back(id); }
   };
   const PolicyKey key(*Ipkit::IpGenAddr::parse("10.0.0.1"), Color(1));
   auto info = Mox::make<PolicyInfo>(key);
   const PolicyId bgp(key, Protocol::bgp, Discriminator(1));
   const PolicyId configured(key, Protocol::staticConfig, Discriminator(2));
   auto user = Mox::make<BindingSidUser>(Ipkit::MplsLabel(900010));
   Heard heard;
   heard.notifierIs(user);
   user->policyIdIs(*info, CandidateId(bgp));
   user->policyIdIs(*info, CandidateId(configured));
   user->policyIdIs(*info, CandidateId(bgp)); // already there: nobody hears it
   EXPECT_EQ(Mox::sortedKeys(user->policyId()), (std::vector<PolicyId>{bgp, configured}));
   EXPECT_TRUE(user->policyIdHas(configured));
   user->policyIdDel(PolicyId(key, Protocol::bgp, Discriminator(9))); // not a user
   EXPECT_EQ(heard.ids.size(), 2u);

   info = nullptr; // only the user holds the key's record now
   user->policyIdDelAll();
   EXPECT_TRUE(user->policyId().empty());
   std::sort(heard.ids.begin() + 2, heard.ids.end());
   EXPECT_EQ(heard.ids, (std::vector<PolicyId>{bgp, configured, bgp, configured}));
}

} // namespace
