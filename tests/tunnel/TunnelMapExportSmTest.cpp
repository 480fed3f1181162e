// The tunnel map on the assembled core: candidate paths are written into a bgp input table, the
// machines run on virtual time, and the test watches every change of TunnelIdToPolicyKey.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "core/SrTePolicyMachines.h"
#include "tests/support/CoreTestRouter.h"

using namespace SrTePolicy;
using Tunnel::TunnelTable::TunnelId;

namespace {

constexpr auto pathId = Testing::bgpPathId;
constexpr auto path = Testing::pathRecord;

std::string sl(TunnelId t) { return "sl " + std::to_string(t.index()); }

// Every change of the map as "+sl 3 10.0.0.1|1@0" (new row), "~..." (row of another key now) or
// "-sl 3@2" (deleted), stamped with the virtual time. `onDelete` sees each deleted row's key.
struct MapWatch : TunnelIdToPolicyKey::Notifiee {
   const Kiln::TaskScheduler& scheduler;
   std::map<TunnelId, PolicyKey> rows;
   std::vector<std::string> events;
   std::function<void(TunnelId, const PolicyKey&)> onDelete;

   MapWatch(const Mox::Ptr<TunnelIdToPolicyKey>& map, const Kiln::TaskScheduler& s) : scheduler(s) {
      notifierIs(map);
      for (const auto& [t, row] : *map) rows[t] = row.policyKey;
   }
   void onTunnelEntry(const TunnelId& t) override {
      const std::string at = "@" + Kiln::secondsText(scheduler.nowNs());
      const TunnelIdToPolicyKeyEntry* row = notifier()->tunnelEntry(t);
      if (!row) {
         if (onDelete) onDelete(t, rows.at(t));
         rows.erase(t);
         events.push_back("-" + sl(t) + at);
         return;
      }
      events.push_back((rows.count(t) ? "~" : "+") + sl(t) + " " + row->policyKey.stringValue() +
                       at);
      rows[t] = row->policyKey;
   }
};

struct Router : Testing::CoreTestRouter {
   Router() { start(); }
   void counter(TunnelId t, bool present = true) {
      if (present) {
         tables.counterTable->counterIs(t);
      } else {
         tables.counterTable->counterDel(t);
      }
   }
   const TunnelMapExportSm& sm() const { return *core->tunnelMapExportSm(); }
   const Mox::Ptr<TunnelIdToPolicyKey>& map() const {
      return core->published().tunnelIdToPolicyKey;
   }
   // The tunnel of a path's list, as the selection input names it.
   TunnelId tunnel(const PolicyId& id, uint8_t index) const {
      auto entry = core->published().policySelectionInput->policyIdEntry(id);
      return entry && entry->wSegmentList(index) ? entry->wSegmentList(index)->tunnelId
                                                 : TunnelId();
   }
   // The map in tunnel order, "sl 1 10.0.0.1|1, ...".
   std::string rows() const {
      std::string out;
      for (TunnelId t : Mox::sortedKeys(map()->tunnelEntry())) {
         out += (out.empty() ? "" : ", ") + sl(t) + " " +
                map()->tunnelEntry(t)->policyKey.stringValue();
      }
      return out;
   }
   std::string pending() const {
      std::string out;
      for (TunnelId t : sm().pendingTunnel()) out += (out.empty() ? "" : ", ") + sl(t);
      return out;
   }
};

std::string row(TunnelId t, const PolicyId& id) { return sl(t) + " " + id.key.stringValue(); }
// Rows as Router::rows() prints them.
std::string rows(std::vector<std::pair<TunnelId, PolicyKey>> rows) {
   std::sort(rows.begin(), rows.end());
   std::string out;
   for (const auto& [t, key] : rows)
      out += (out.empty() ? "" : ", ") + sl(t) + " " + key.stringValue();
   return out;
}

const PolicyId a = pathId("10.0.0.1", 1, 1);
const PolicyId b = pathId("10.0.0.1", 1, 2);
const PolicyId c = pathId("10.0.0.2", 1, 1);

TEST(TunnelMap, SharedListRowLastsUntilNoPathOfItsKeyMapsIt) {
   Router r;
   r.put(path(a, 900001, {{16001}, {16002}}));
   r.put(path(b, 900002, {{16001}}));
   r.put(path(c, 900003, {{16003}}));
   r.run();
   const TunnelId shared = r.tunnel(a, 0), own = r.tunnel(a, 1), other = r.tunnel(c, 0);
   ASSERT_EQ(r.tunnel(b, 0), shared);
   EXPECT_EQ(r.rows(), rows({{shared, a.key}, {own, a.key}, {other, c.key}}));
   MapWatch watch(r.map(), r.scheduler);

   // A new version that keeps the lists writes nothing.
   r.put(path(b, 900012, {{16001}}));
   r.run();
   EXPECT_TRUE(watch.events.empty());

   // One of the two paths goes: its own list's row with it, the shared row stays.
   r.del(a);
   r.run();
   EXPECT_EQ(watch.events, std::vector<std::string>{"-" + sl(own) + "@0"});
   EXPECT_EQ(r.rows(), rows({{shared, b.key}, {other, c.key}}));

   r.del(b);
   r.run();
   EXPECT_EQ(watch.events.back(), "-" + sl(shared) + "@0");
   EXPECT_EQ(r.rows(), row(other, c));
   EXPECT_EQ(r.sm().tunnelPaths().size(), 1u);
   EXPECT_EQ(r.pending(), "");
   EXPECT_FALSE(r.sm().task()->isScheduled());
}

TEST(TunnelMap, CountedTunnelGoesAtTheFirstRunAfterItsCounterGoesNeverBefore) {
   Router r;
   r.put(path(a, 900001, {{16001}}));
   r.put(path(c, 900003, {{16003}}));
   r.run();
   const TunnelId t1 = r.tunnel(a, 0), t2 = r.tunnel(c, 0);
   r.counter(t1);
   r.counter(t2);
   MapWatch watch(r.map(), r.scheduler);
   r.del(a);
   r.del(c);
   r.run();
   EXPECT_EQ(r.pending(), sl(std::min(t1, t2)) + ", " + sl(std::max(t1, t2)));
   EXPECT_EQ(r.rows(), rows({{t1, a.key}, {t2, c.key}}));
   EXPECT_EQ(r.sm().task()->expirationTimeNs(), Kiln::durationOf(1.0));
   std::string dump;
   r.sm().dump(dump, 2);
   EXPECT_EQ(dump, "  pendingTunnels #2 \n    " + std::to_string(std::min(t1, t2).value) +
                       "\n    " + std::to_string(std::max(t1, t2).value) +
                       "\n  Task Dump\n    taskName: TunnelExportSmTask, taskPriority: 2, "
                       "currentExpirationTime: 1.000000\n");

   r.scheduler.advance(0.5);
   r.counter(t1, false);
   r.scheduler.advance(0.3);
   r.counter(t1); // back before the run at 1: it counts again
   r.scheduler.advance(0.4);
   r.counter(t1, false); // 1.2
   r.scheduler.advance(0.799999999);
   EXPECT_TRUE(watch.events.empty()) << "nothing goes before the run at 2";
   r.scheduler.advance(Kiln::Duration(1));
   EXPECT_EQ(watch.events, std::vector<std::string>{"-" + sl(t1) + "@2"});
   r.scheduler.advance(0.5);
   r.counter(t2, false); // 2.5
   r.scheduler.advance(2);
   EXPECT_EQ(watch.events, (std::vector<std::string>{"-" + sl(t1) + "@2", "-" + sl(t2) + "@3"}));
   EXPECT_EQ(r.pending(), "");
   EXPECT_FALSE(r.sm().task()->isScheduled());
   EXPECT_EQ(r.sm().task()->workCount(), 5u); // runs at 1, 2 (both tunnels) and 3
}

// The row of a tunnel that several keys share names the key that committed last. A key the row
// does not name letting go changes nothing; the named key letting go hands the row to the
// smallest path still mapping the tunnel, at once and whether or not the platform counts it: a
// key still forwarding over the tunnel must own its counters. Only the last path going deletes it.
TEST(TunnelMap, ASharedTunnelsRowPassesToAKeyThatStillMapsIt) {
   const PolicyId d = pathId("10.0.0.3", 1, 1);
   Router r;
   r.put(path(d, 900004, {{16001}}));
   r.put(path(c, 900003, {{16001}}));
   r.run();
   r.put(path(a, 900001, {{16001}}));
   r.run();
   const TunnelId t = r.tunnel(a, 0);
   ASSERT_EQ(r.tunnel(c, 0), t);
   ASSERT_EQ(r.tunnel(d, 0), t);
   ASSERT_EQ(r.rows(), row(t, a));
   r.counter(t);
   MapWatch watch(r.map(), r.scheduler);

   r.del(d); // not the row's key
   r.run();
   EXPECT_TRUE(watch.events.empty());
   r.put(path(d, 900004, {{16001}}));
   r.run();
   ASSERT_EQ(r.rows(), row(t, d)) << "a path mapping the tunnel anew commits it";

   r.del(d); // the row's key: c and a map it still, a is the smaller
   r.run();
   EXPECT_EQ(r.rows(), row(t, a));
   EXPECT_EQ(r.pending(), "");
   EXPECT_EQ(r.sm().tunnelPaths(t)->size(), 2u);
   r.del(a);
   r.run();
   EXPECT_EQ(r.rows(), row(t, c));
   EXPECT_EQ(watch.events,
             (std::vector<std::string>{"~" + sl(t) + " " + d.key.stringValue() + "@0",
                                       "~" + sl(t) + " " + a.key.stringValue() + "@0",
                                       "~" + sl(t) + " " + c.key.stringValue() + "@0"}));

   // The last path: the row waits for its counter.
   r.del(c);
   r.run();
   EXPECT_EQ(r.pending(), sl(t));
   EXPECT_EQ(r.sm().tunnelPaths(t), nullptr);
   r.counter(t, false);
   r.scheduler.advance(1);
   EXPECT_EQ(r.rows(), "");
}

// The same hand-over when a new version of a path (not its removal) drops the list, and when the
// table refuses the hand-over's write: the heir writes it once the table takes writes again.
TEST(TunnelMap, AHandOverThatTheTableRefusesIsWrittenByTheTask) {
   Router r;
   r.put(path(c, 900003, {{16001}}));
   r.run();
   r.put(path(a, 900001, {{16001}, {16002}}));
   r.run();
   const TunnelId t = r.tunnel(a, 0);
   ASSERT_EQ(r.rows(), rows({{t, a.key}, {r.tunnel(a, 1), a.key}}));
   r.map()->corruptionInjectIs(true);
   r.put(path(a, 900011, {{16002}})); // a keeps only its own list
   r.run();
   EXPECT_EQ(r.map()->corruptionCount(), 1u);
   EXPECT_EQ(r.map()->tunnelEntry(t)->policyKey, a.key) << "refused: nothing written";
   r.scheduler.advance(1);
   EXPECT_EQ(r.map()->tunnelEntry(t)->policyKey, c.key);
   EXPECT_EQ(r.pending(), "");
   EXPECT_FALSE(r.sm().task()->isScheduled());
}

TEST(TunnelMap, RestartKeepsEveryRowInUseUntouched) {
   Router r;
   r.put(path(a, 900001, {{16001}, {16002}}));
   r.put(path(b, 900002, {{16001}}));
   r.put(path(c, 900003, {{16003}}));
   r.run();
   const TunnelId shared = r.tunnel(a, 0), own = r.tunnel(a, 1), other = r.tunnel(c, 0);
   // Rows an earlier life left behind, of a path gone since: one the platform still counts.
   const PolicyKey k9(*Ipkit::IpGenAddr::parse("10.0.0.9"), Color(9));
   const TunnelId gone = TunnelId::make(TunnelId::Type::srTeSegmentList, 90);
   const TunnelId counted = TunnelId::make(TunnelId::Type::srTeSegmentList, 91);
   r.map()->tunnelEntryCommit({gone, k9});
   r.map()->tunnelEntryCommit({counted, k9});
   r.counter(counted);
   r.counter(own);

   MapWatch watch(r.map(), r.scheduler);
   // A row goes only once no selection-input entry of its key names its tunnel.
   watch.onDelete = [&r](TunnelId t, const PolicyKey& key) {
      for (const auto& [id, entry] : r.core->published().policySelectionInput->policyIdEntry()) {
         if (!(id.key == key)) continue;
         for (const auto& [i, w] : entry->wSegmentList()) {
            EXPECT_NE(w.segmentListId.getTunnelId(), t) << sl(t) << " still named by " << id;
         }
      }
   };
   r.core->stop();
   EXPECT_TRUE(watch.events.empty()) << "a stopped machine leaves the map alone";
   r.core->start();
   // At start-up only the uncounted stale row goes; the rows in use are not even rewritten.
   EXPECT_EQ(watch.events, std::vector<std::string>{"-sl 90@0"});
   EXPECT_EQ(r.pending(), "sl 91");

   r.run();
   // The lists took their exported ids back: every path maps the tunnels it mapped before, and
   // no row in use was written again; only the counted stale row still waits.
   EXPECT_EQ(r.tunnel(a, 0), shared);
   EXPECT_EQ(r.tunnel(a, 1), own);
   EXPECT_EQ(r.tunnel(c, 0), other);
   EXPECT_EQ(r.tunnel(b, 0), shared);
   EXPECT_EQ(r.rows(), rows({{shared, a.key}, {own, a.key}, {other, c.key}, {counted, k9}}));
   EXPECT_EQ(r.pending(), "sl 91");
   EXPECT_EQ(watch.events, std::vector<std::string>{"-sl 90@0"});

   r.counter(own, false);
   r.counter(counted, false);
   r.scheduler.advance(1);
   EXPECT_EQ(r.rows(), rows({{shared, a.key}, {own, a.key}, {other, c.key}}));
   EXPECT_FALSE(r.sm().task()->isScheduled());

   // Only the explicit end withdraws the map, rows in use included.
   watch.onDelete = nullptr;
   r.counter(own);
   r.del(a);
   r.run();
   ASSERT_EQ(r.pending(), sl(own));
   r.core->tunnelMapExportSm()->handleDel();
   EXPECT_EQ(r.map()->size(), 0u);
   EXPECT_EQ(r.pending(), "");
   EXPECT_FALSE(r.sm().task()->isScheduled());
}

// While the agent is down, a path is withdrawn and a path of another key is written with one of
// its label stacks. On the first pass after start-up that list takes its exported id back, so the
// new path maps the very tunnel the withdrawn one just left waiting for its counter: the deletion
// is cancelled, and the row names the new key for good, counter or not, while the task keeps
// running for the withdrawn path's other tunnel.
TEST(TunnelMap, MappingAPendingTunnelAgainCancelsItsDeletion) {
   // The input stage's pass goes in pending-key order: the withdrawn path must come first, or the
   // new one would map the tunnel while the old one still does and the row would simply pass.
   const bool aFirst = PendingPolicyKey(a) < PendingPolicyKey(c);
   const PolicyId& gone = aFirst ? a : c;
   const PolicyId& next = aFirst ? c : a;
   Router r;
   r.put(path(gone, 900001, {{16001, 16002}, {16003}}));
   r.run();
   const TunnelId t = r.tunnel(gone, 0), own = r.tunnel(gone, 1);
   r.counter(t);
   r.counter(own);
   r.core->stop();
   r.del(gone);
   r.put(path(next, 900003, {{16001, 16002}}));

   MapWatch watch(r.map(), r.scheduler);
   r.core->start();
   r.run();
   ASSERT_EQ(r.tunnel(next, 0), t) << "the list kept its id across the restart";
   EXPECT_EQ(r.tunnel(gone, 0), TunnelId());
   EXPECT_EQ(r.rows(), rows({{t, next.key}, {own, gone.key}}));
   EXPECT_EQ(r.pending(), sl(own));

   r.counter(t, false);
   r.scheduler.advance(1.5); // a run that finds the other tunnel still counted
   EXPECT_EQ(r.pending(), sl(own));
   EXPECT_EQ(r.rows(), rows({{t, next.key}, {own, gone.key}}));
   r.counter(own, false);
   r.scheduler.advance(5);
   EXPECT_EQ(r.rows(), row(t, next));
   EXPECT_EQ(watch.events,
             (std::vector<std::string>{"~" + sl(t) + " " + next.key.stringValue() + "@0",
                                       "-" + sl(own) + "@2"}))
       << "the mapped tunnel's row was never deleted";
   EXPECT_FALSE(r.sm().task()->isScheduled());
}

// Rows found wrong at start-up (missing, or of a key that no longer maps the tunnel) are written
// once, for a path that maps the tunnel; a shared row held by either of its keys is left alone.
TEST(TunnelMap, StartUpWritesOnlyMissingRowsAndRowsOfAKeyThatLetGo) {
   Router r;
   r.put(path(a, 900001, {{16001}, {16002}}));
   r.put(path(b, 900002, {{16001}}));
   r.put(path(c, 900003, {{16003}}));
   r.run();
   const TunnelId shared = r.tunnel(a, 0), own = r.tunnel(a, 1), other = r.tunnel(c, 0);
   const PolicyKey sharedKey = r.map()->tunnelEntry(shared)->policyKey;
   r.core->stop();
   const PolicyKey k9(*Ipkit::IpGenAddr::parse("10.0.0.9"), Color(9));
   r.map()->tunnelEntryCommit({own, k9});
   r.map()->tunnelEntryDel(other);

   MapWatch watch(r.map(), r.scheduler);
   r.core->start();
   std::vector<std::string> expected{"~" + sl(own) + " " + a.key.stringValue() + "@0",
                                     "+" + sl(other) + " " + c.key.stringValue() + "@0"};
   if (other < own) std::swap(expected[0], expected[1]);
   EXPECT_EQ(watch.events, expected) << "written once each, in tunnel order";
   EXPECT_EQ(r.map()->tunnelEntry(shared)->policyKey, sharedKey);
   r.run();
   EXPECT_EQ(watch.events, expected) << "the paths written again change nothing";
   EXPECT_EQ(r.rows(), rows({{shared, sharedKey}, {own, a.key}, {other, c.key}}));
}

TEST(TunnelMap, YieldAndCongestionOnlyDelayPendingDeletions) {
   Router r;
   std::vector<PolicyId> ids;
   for (uint32_t i = 0; i < 20; ++i) {
      ids.push_back(pathId("10.0.1.1", i + 1, 1));
      r.put(path(ids.back(), 900100 + i, {{17000 + i}}));
   }
   r.run();
   std::vector<TunnelId> tunnels;
   for (const PolicyId& id : ids) tunnels.push_back(r.tunnel(id, 0));
   for (TunnelId t : tunnels) r.counter(t);
   for (const PolicyId& id : ids) r.del(id);
   r.run();
   ASSERT_EQ(r.sm().pendingTunnel().size(), 20u);
   // The lowest five keep their counters: a run that starts over each time would never get past
   // them with a budget of one tunnel.
   std::sort(tunnels.begin(), tunnels.end());
   for (size_t i = 5; i < tunnels.size(); ++i) r.counter(tunnels[i], false);
   r.scheduler.yieldEveryIs(1);
   r.tables.attrLog->attrLogOutCloggedIs(true);
   r.scheduler.advance(1.05);
   EXPECT_EQ(r.sm().pendingTunnel().size(), 20u) << "nothing is written while congested";
   EXPECT_EQ(r.sm().task()->expirationTimeNs(), Kiln::durationOf(1.1));
   r.tables.attrLog->attrLogOutCloggedIs(false);
   const uint64_t runsBefore = r.sm().task()->runCount();
   r.scheduler.advance(0.05);
   // One pass at 1.1, a tunnel per run: every uncounted row went, the counted ones wait.
   EXPECT_EQ(r.sm().pendingTunnel().size(), 5u);
   EXPECT_EQ(r.map()->size(), 5u);
   EXPECT_EQ(r.sm().task()->runCount() - runsBefore, 20u);
   EXPECT_EQ(r.sm().task()->expirationTimeNs(), Kiln::durationOf(2.1));
   for (size_t i = 0; i < 5; ++i) r.counter(tunnels[i], false);
   r.scheduler.advance(1);
   EXPECT_EQ(r.map()->size(), 0u);
   EXPECT_FALSE(r.sm().task()->isScheduled());
}

TEST(TunnelMap, CorruptTableLosesNoWrite) {
   Router r;
   r.map()->corruptionInjectIs(true);
   r.put(path(a, 900001, {{16001}}));
   r.run();
   EXPECT_EQ(r.map()->corruptionCount(), 1u);
   EXPECT_EQ(r.rows(), "");
   r.scheduler.advance(1); // the refused row is written by the task
   const TunnelId t = r.tunnel(a, 0);
   EXPECT_EQ(r.rows(), row(t, a));

   // A deletion refused at once, then by the task: the row stays queued until one succeeds.
   r.map()->corruptionInjectIs(true);
   r.del(a);
   r.run();
   EXPECT_EQ(r.pending(), sl(t));
   r.map()->corruptionInjectIs(true);
   r.scheduler.advance(1);
   EXPECT_EQ(r.map()->corruptionCount(), 3u);
   EXPECT_EQ(r.rows(), row(t, a));
   r.scheduler.advance(1);
   EXPECT_EQ(r.rows(), "");
   EXPECT_EQ(r.pending(), "");
}

} // namespace
