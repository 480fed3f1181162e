// The assembled core: two cores in one process stay apart, and a restart (or a new core handed
// the published tables of a dead one) reconverges to the same outputs, resolution included.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <set>

#include "core/SrTePolicyMachines.h"
#include "platform/MoxSlab.h"
#include "tests/support/CoreTestRouter.h"

using namespace SrTePolicy;

namespace {

using Testing::bgpPathId;
using Testing::pathRecord;

struct Router : Testing::CoreTestRouter {
   explicit Router(PublishedTables published = {}) { start(std::move(published)); }

   // What the core computed, without the segment-list ids a restart renumbers: per candidate
   // path its reason, binding SID and weighted label stacks; the exported label stacks.
   std::string outputs() const {
      const ProcessEntities& e = core->entities();
      std::vector<std::string> lines;
      for (const auto& [key, info] : e.policyKeyToIdMap->policy()) {
         for (const auto& [cid, c] : info->candidate()) {
            lines.push_back("candidate " + key.stringValue() + " " + cid.stringValue() + " " +
                            policyInvalidReasonName(c.reason));
         }
      }
      for (const auto& [id, entry] : core->published().policySelectionInput->policyIdEntry()) {
         std::string l =
             "selected " + id.stringValue() + " bsid " + entry->bindingSid().stringValue();
         for (const auto& [index, w] : entry->wSegmentList()) {
            const SegmentListUser* user = e.segListMap->segmentListUser(w.segmentListId);
            l += " w" + std::to_string(w.weight.value) + "[" +
                 (user ? user->segmentList()->labelStack().stringValue() : "unknown list") + "]";
         }
         lines.push_back(l);
      }
      // Resolution: status and tunnel vias per list, by its labels.
      for (const auto& [slId, error] : core->published().segmentListStatus->status()) {
         const SegmentListUser* user = e.segListMap->segmentListUser(slId);
         std::string l = "resolved [" +
                         (user ? user->segmentList()->labelStack().stringValue() : "stale list") +
                         "] " + segmentListResolveErrorName(error);
         if (const auto* t = core->published().tunnelTable->entry(slId.getTunnelId())) {
            for (const auto& [index, via] : t->via()) l += " " + via.stringValue();
         }
         lines.push_back(l);
      }
      for (const auto& [slId, list] : core->published().exportedSegmentListColl->segmentList()) {
         std::string l = "exported";
         for (const Export::Segment& s : list->segment()) l += " " + s.mplsLabel.stringValue();
         lines.push_back(l);
      }
      // Selection: every candidate, the active one marked, and how many tunnels it has.
      for (const auto& [key, policy] : core->published().ecPolicy->policy()) {
         for (const auto& [priority, entry] : policy->candidate()) {
            lines.push_back("policy " + key.stringValue() + " " + priority.stringValue() +
                            (policy->active() == entry ? " active" : "") + " tunnels " +
                            std::to_string(entry->wTunnelId().size()));
         }
      }
      std::sort(lines.begin(), lines.end());
      std::string out;
      for (const auto& l : lines) out += l + "\n";
      return out;
   }
};

bool anyContains(const std::vector<std::string>& lines, const std::string& word) {
   return std::any_of(lines.begin(), lines.end(),
                      [&](const std::string& l) { return l.find(word) != std::string::npos; });
}

TEST(PolicyCore, TwoCoresInOneProcessSeeOnlyTheirOwnMessagesTracesAndTables) {
   Syslog::Capture processLog;
   Syslog::sinkIs(&processLog);
   // The process tracer is on too: a machine tracing there instead of to its core would show.
   std::vector<std::string> processLines;
   Trace::captureIs(&processLines);
   Trace::textLevelIs(9);
   Router a, b;
   std::vector<std::string> linesA, linesB;
   a.core->tracer().textLevelIs(9);
   a.core->tracer().captureIs(&linesA);
   a.core->tracer().ringLevelIs(9);
   b.core->tracer().textLevelIs(9);
   b.core->tracer().captureIs(&linesB);

   a.put(pathRecord(bgpPathId("10.0.0.1", 1, 1), Ipkit::MplsLabel::null, {{16001}}));
   a.put(pathRecord(bgpPathId("10.0.0.1", 2, 1), 900001, {{16001, 16002}}));
   b.put(pathRecord(bgpPathId("10.0.0.2", 1, 1), 800000, {{16001}}));
   b.put(pathRecord(bgpPathId("10.0.0.2", 2, 1), 900001, {{17001}}));
   a.scheduler.runUntilIdle();
   b.scheduler.runUntilIdle();

   ASSERT_EQ(a.core->syslogCapture().records().size(), 1u);
   EXPECT_EQ(a.core->syslogCapture().records()[0].tag, "SRTE_POLICY_INVALID_BSID_MISSING");
   ASSERT_EQ(b.core->syslogCapture().records().size(), 1u);
   EXPECT_EQ(b.core->syslogCapture().records()[0].tag, "SRTE_POLICY_INVALID_BSID_OUT_OF_RANGE");
   EXPECT_TRUE(processLog.records().empty());
   Syslog::sinkDel(&processLog);

   EXPECT_TRUE(anyContains(linesA, "10.0.0.1"));
   EXPECT_FALSE(anyContains(linesA, "10.0.0.2"));
   EXPECT_TRUE(anyContains(linesB, "10.0.0.2"));
   EXPECT_FALSE(anyContains(linesB, "10.0.0.1"));
   // The ring holds the same words as the text trace, and only the core that turned it on has one.
   EXPECT_EQ(a.core->tracer().ringRecords(), linesA);
   EXPECT_TRUE(b.core->tracer().ringRecords().empty());
   Trace::textLevelIs(-1);
   Trace::captureIs(nullptr);
   // Only the dedup facility, which is no machine, traced there.
   EXPECT_FALSE(processLines.empty());
   for (const auto& l : processLines) EXPECT_TRUE(l == "handleInsert" || l == "handleRemove") << l;

   // Each core's tables hold its own paths, over dedup tables of its own.
   EXPECT_EQ(a.outputs(), "candidate 10.0.0.1|1 bgp:1 bsidMissing\n"
                          "candidate 10.0.0.1|2 bgp:1 usable\n"
                          "exported 16001 16002\n"
                          "selected 10.0.0.1|2|bgp|1 bsid 900001 w1[16001 16002]\n");
   EXPECT_EQ(b.outputs(), "candidate 10.0.0.2|1 bgp:1 bsidOutOfRange\n"
                          "candidate 10.0.0.2|2 bgp:1 usable\n"
                          "exported 17001\n"
                          "selected 10.0.0.2|2|bgp|1 bsid 900001 w1[17001]\n");
   // ... made in an arena of its own, whose blocks the other core never gets.
   if (MOX_SLAB_ENABLED) {
      EXPECT_EQ(PolicyInfo::slab(a.core->arena()).live(), 2u);
      EXPECT_EQ(PolicyInfo::slab(b.core->arena()).live(), 2u);
   }

   // A level that is off evaluates none of the words.
   b.core->tracer().textLevelIs(3);
   int evaluated = 0;
   auto count = [&] { return ++evaluated; };
   SRTE_TRACE_TO(&b.core->tracer(), 4, "never " << count());
   SRTE_TRACE_TO(&b.core->tracer(), 3, "once " << count());
   EXPECT_EQ(evaluated, 1);
}

// A mixed load: shared and private lists, an unusable path, then updates and a withdrawal.
void load(Router& r) {
   // Lists starting at 16000..16002 and 18000 resolve through a swap, 17000..17003 through a push.
   r.swapAndPushAdjacencies();
   for (uint32_t l : {16000, 16001, 16002, 18000}) r.route(l, 1);
   for (uint32_t l : {17000, 17001, 17002, 17003}) r.route(l, 2);
   for (uint32_t i = 0; i < 12; ++i) {
      r.put(pathRecord(bgpPathId("10.0.0.1", i, 1), 900000 + i,
                       {{16000 + i % 3, 16100}, {17000 + i % 4}}));
   }
   r.put(pathRecord(bgpPathId("10.0.0.9", 1, 1), 800000, {{16001}}));
   r.run();
   r.put(pathRecord(bgpPathId("10.0.0.1", 3, 1), 900003, {{18000}}));
   r.del(bgpPathId("10.0.0.1", 4, 1));
   r.run();
}

SegmentListId highestExported(const PolicyCore& core) {
   SegmentListId max;
   for (const auto& [id, list] : core.published().exportedSegmentListColl->segmentList())
      max = std::max(max, id);
   return max;
}

TEST(PolicyCore, RestartAndANewCoreOverThePublishedTablesReconvergeToTheSameOutputs) {
   // Two ways an agent comes back: a restart of the same core, and a new core handed the
   // published tables of one that died (a new process finding its shared memory).
   const std::vector<std::pair<const char*, std::function<void(Router&)>>> comebacks = {
       {"restart", [](Router& r) { r.core->restart(); }},
       {"new core",
        [](Router& r) {
           PublishedTables published = r.core->published();
           r.core.reset();
           r.core = std::make_unique<PolicyCore>(r.tables.tables(r.scheduler), published);
           r.core->start();
        }},
   };
   for (const auto& [name, comeBack] : comebacks) {
      SCOPED_TRACE(name);
      Router r;
      load(r);
      const std::string converged = r.outputs();
      const PublishedTables published = r.core->published();
      const size_t selected = published.policySelectionInput->policyIdEntry().size();
      const size_t exported = published.exportedSegmentListColl->segmentList().size();
      const SegmentListId highest = highestExported(*r.core);
      std::set<SegmentListId> idsBefore;
      for (const auto& [id, list] : published.exportedSegmentListColl->segmentList()) {
         idsBefore.insert(id);
      }
      ASSERT_EQ(selected, 11u);
      const size_t resolved = published.segmentListStatus->status().size();
      ASSERT_EQ(resolved, exported);
      ASSERT_EQ(published.tunnelTable->entry().size(), exported);

      // The active entries of the policies untouched while away must stay the same objects.
      const PolicyKey away = bgpPathId("10.0.0.1", 3, 1).key;
      std::map<PolicyKey, Mox::Ptr<PolicyEntry>> actives;
      for (const auto& [key, policy] : published.ecPolicy->policy()) {
         if (!(key == away)) actives[key] = policy->active();
      }
      ASSERT_FALSE(actives.empty());

      // Withdrawn while the agent is away: its exported lists must go on the next drain.
      r.del(bgpPathId("10.0.0.1", 3, 1));
      comeBack(r);

      // The published tables are the same objects, untouched until the machines run; the
      // process entities are new and empty.
      EXPECT_EQ(r.core->published().policySelectionInput, published.policySelectionInput);
      EXPECT_EQ(r.core->published().exportedSegmentListColl, published.exportedSegmentListColl);
      EXPECT_EQ(published.policySelectionInput->policyIdEntry().size(), selected);
      EXPECT_EQ(published.exportedSegmentListColl->segmentList().size(), exported);
      EXPECT_EQ(r.core->published().segmentListStatus, published.segmentListStatus);
      EXPECT_EQ(r.core->published().tunnelTable, published.tunnelTable);
      EXPECT_EQ(published.segmentListStatus->status().size(), resolved);
      EXPECT_EQ(published.tunnelTable->entry().size(), exported);
      const ProcessEntities& e = r.core->entities();
      EXPECT_TRUE(e.policyKeyToIdMap->policy().empty());
      EXPECT_TRUE(e.segListMap->segmentListUser().empty());
      EXPECT_TRUE(
          e.coreDedupTables->notifyingSegmentListCollection()->segmentListNotifier().empty());

      r.run();
      r.put(pathRecord(bgpPathId("10.0.0.1", 3, 1), 900003, {{18000}}));
      r.run();
      EXPECT_EQ(r.outputs(), converged);
      EXPECT_EQ(r.core->published().ecPolicy, published.ecPolicy);
      for (const auto& [key, active] : actives) {
         auto policy = published.ecPolicy->policy(key);
         ASSERT_TRUE(policy) << key.stringValue();
         EXPECT_EQ(policy->active(), active) << key.stringValue();
      }
      // Every list in use is exported once. The lists still claimed across the restart kept
      // their ids (and tunnels); the one withdrawn while away went, and came back as a new list
      // with an id above all the earlier ones.
      EXPECT_EQ(published.exportedSegmentListColl->segmentList().size(),
                e.segListMap->segmentListUser().size());
      size_t renumbered = 0;
      for (const auto& [id, list] : published.exportedSegmentListColl->segmentList()) {
         if (!idsBefore.count(id)) {
            EXPECT_GT(id, highest);
            ++renumbered;
         }
      }
      EXPECT_EQ(renumbered, 1u);
      EXPECT_EQ(published.segmentListStatus->status().size(), exported);
      EXPECT_EQ(published.tunnelTable->entry().size(), exported);
      for (const auto& [id, error] : published.segmentListStatus->status()) {
         EXPECT_TRUE(idsBefore.count(id) || id > highest) << id.stringValue();
      }
   }
}

// What publishing, LFIB generation and the tunnel map wrote, by content: the FEC and segment-list
// ids a new start may renumber are left out.
std::string publishedOutputs(const PolicyCore& core) {
   const PublishedTables& p = core.published();
   std::vector<std::string> lines;
   for (const auto& [key, entry] : p.policyStatus->status()) {
      lines.push_back("status " + key.stringValue() + " " + entry->candidateId().stringValue() +
                      " bsid " + entry->bindingSid().stringValue());
   }
   lines.push_back("fecs " + std::to_string(p.srteFwdStatus->fec().size()) + " reverse " +
                   std::to_string(p.policyStatus->fecIdToPolicyKey().size()));
   for (const auto& [key, route] : p.lfibStatus->lfib()->lfibRoute()) {
      lines.push_back("lfib route " + key.stringValue());
   }
   lines.push_back("lfib adjacencies " +
                   std::to_string(p.lfibStatus->lfib()->lfibExtFecAdjacency().size()));
   std::sort(lines.begin(), lines.end());
   std::string out;
   for (const auto& l : lines) out += l + "\n";
   return out;
}

// The tunnel map, by content: which key a tunnel shared by several policies maps to depends on
// the order of the work, so only whether every tunnel in use has its row, naming a key that uses
// it.
std::string tunnelMapCoverage(const PolicyCore& core) {
   const PublishedTables& p = core.published();
   std::map<Tunnel::TunnelTable::TunnelId, std::set<PolicyKey>> inUse;
   for (const auto& [id, entry] : p.policySelectionInput->policyIdEntry()) {
      for (const auto& [index, w] : entry->wSegmentList()) inUse[w.tunnelId].insert(id.key);
   }
   size_t mapped = 0;
   for (const auto& [tunnel, row] : p.tunnelIdToPolicyKey->tunnelEntry()) {
      auto users = inUse.find(tunnel);
      mapped += users != inUse.end() && users->second.count(row.policyKey);
   }
   return "tunnel map rows " + std::to_string(p.tunnelIdToPolicyKey->size()) + ", in use " +
          std::to_string(mapped) + " of " + std::to_string(inUse.size());
}

TEST(PolicyCore, TearDownWithdrawsEveryOutputKeepsTheInputsAndStartBringsThemBack) {
   Router r;
   load(r);
   const std::string converged = r.outputs();
   const std::string published = publishedOutputs(*r.core);
   const PublishedTables tables = r.core->published();
   ASSERT_EQ(tables.policySelectionInput->policyIdEntry().size(), 11u);
   ASSERT_FALSE(tables.policyStatus->status().empty());
   ASSERT_FALSE(tables.lfibStatus->lfib()->lfibRoute().empty());
   ASSERT_FALSE(tables.tunnelIdToPolicyKey->tunnelEntry().empty());
   ASSERT_FALSE(tables.tunnelTable->entry().empty());
   EXPECT_TRUE(r.tables.status->agentEnabled());
   const size_t inputs = r.bgp->policyInputEntry().size();
   const size_t routes = r.tables.mplsStatus->lfibRoute().size();

   r.core->tearDown();
   EXPECT_FALSE(r.core->started());
   EXPECT_FALSE(r.tables.status->agentEnabled());
   // Every output table is empty, the same objects as before.
   EXPECT_EQ(r.core->published().policyStatus, tables.policyStatus);
   EXPECT_TRUE(tables.policyStatus->status().empty());
   EXPECT_TRUE(tables.policyStatus->fecIdToPolicyKey().empty());
   EXPECT_TRUE(tables.srteFwdStatus->fec().empty());
   EXPECT_TRUE(tables.lfibStatus->lfib()->lfibRoute().empty());
   EXPECT_TRUE(tables.lfibStatus->lfib()->lfibExtFecAdjacency().empty());
   EXPECT_TRUE(tables.tunnelIdToPolicyKey->tunnelEntry().empty());
   EXPECT_TRUE(tables.ecPolicy->policy().empty());
   EXPECT_TRUE(tables.policySelectionInput->policyIdEntry().empty());
   EXPECT_TRUE(tables.exportedSegmentListColl->segmentList().empty());
   EXPECT_TRUE(tables.segmentListStatus->status().empty());
   EXPECT_TRUE(tables.tunnelTable->entry().empty());
   // Nothing is left to run, and the inputs are untouched.
   EXPECT_EQ(r.scheduler.readyTaskCount(), 0u);
   EXPECT_EQ(r.scheduler.timerCount(), 0u);
   EXPECT_EQ(r.bgp->policyInputEntry().size(), inputs);
   EXPECT_EQ(r.tables.mplsStatus->lfibRoute().size(), routes);
   r.core->tearDown(); // stopped already: nothing happens
   EXPECT_FALSE(r.core->started());

   // An input written while stopped is picked up by the next start, as after a restart.
   r.del(bgpPathId("10.0.0.1", 3, 1));
   r.run();
   r.core->start();
   EXPECT_TRUE(r.tables.status->agentEnabled());
   r.run();
   EXPECT_EQ(tables.policySelectionInput->policyIdEntry().size(), 10u);
   r.put(pathRecord(bgpPathId("10.0.0.1", 3, 1), 900003, {{18000}}));
   r.run();
   EXPECT_EQ(r.outputs(), converged);
   EXPECT_EQ(publishedOutputs(*r.core), published);
   const size_t tunnels = tables.exportedSegmentListColl->segmentList().size();
   EXPECT_EQ(tunnelMapCoverage(*r.core), "tunnel map rows " + std::to_string(tunnels) +
                                             ", in use " + std::to_string(tunnels) + " of " +
                                             std::to_string(tunnels));
   EXPECT_EQ(tables.tunnelTable->entry().size(), tables.segmentListStatus->status().size());

   // A plain stop, by contrast, leaves every output for the next start to adopt.
   r.core->stop();
   EXPECT_FALSE(r.tables.status->agentEnabled());
   EXPECT_FALSE(tables.policyStatus->status().empty());
   EXPECT_FALSE(tables.lfibStatus->lfib()->lfibRoute().empty());
   EXPECT_FALSE(tables.tunnelTable->entry().empty());
}

// A core built up to the input stage: the later machines are left out, nothing selects or
// publishes, and it stops and tears down like a whole one.
TEST(PolicyCore, ACoreBuiltUpToAStageRunsThatStageAloneAndStopsCleanly) {
   Testing::CoreTestRouter r;
   Kiln::TaskScheduler& scheduler = r.scheduler;
   const Mox::Ptr<PolicyInput>& bgp = r.bgp;
   PolicyCore core(r.tables.tables(scheduler), {}, Stage::input);
   core.start();
   EXPECT_EQ(core.lastStage(), Stage::input);
   ASSERT_TRUE(core.policyInputSm());
   EXPECT_TRUE(core.segmentListSm());
   EXPECT_FALSE(core.policySelectionSm());
   EXPECT_FALSE(core.policyPublishSm());
   EXPECT_FALSE(core.lfibGenSm());
   EXPECT_FALSE(core.tunnelMapExportSm());

   bgp->policyInputEntryIs(pathRecord(bgpPathId("10.0.0.1", 1, 1), 900001, {{16001, 16002}}));
   bgp->policyInputEntryIs(
       pathRecord(bgpPathId("10.0.0.2", 1, 1), 900002, {{16001, 16002}, {16003}}));
   scheduler.runUntilIdle();
   const PublishedTables& out = core.published();
   EXPECT_EQ(out.policySelectionInput->policyIdEntry().size(), 2u);
   EXPECT_EQ(out.exportedSegmentListColl->segmentList().size(), 2u);
   EXPECT_TRUE(out.ecPolicy->policy().empty());
   EXPECT_TRUE(out.tunnelIdToPolicyKey->tunnelEntry().empty());

   core.restart();
   scheduler.runUntilIdle();
   EXPECT_EQ(out.policySelectionInput->policyIdEntry().size(), 2u);
   core.tearDown();
   EXPECT_FALSE(core.started());
   EXPECT_TRUE(out.policySelectionInput->policyIdEntry().empty());
   EXPECT_TRUE(out.exportedSegmentListColl->segmentList().empty());
}

} // namespace
