// The one drain loop of the machines: congestion backs off at the lowest delay and resumes where it
// stopped, a yield reschedules at once, nothing is processed twice or lost, a machine that checks
// on a timer gets one pass per run, and every run counts its work and says how it ended.
#include "platform/KilnDrain.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

using Drain = Kiln::Drain<int, bool, std::less<int>, Kiln::MergeOr>;

// A task whose runs drain `drain`, recording what they processed.
struct Machine : Kiln::Task::Notifiee {
   Kiln::TaskScheduler scheduler;
   Kiln::AttrLogSm attrLog;
   Trace::Tracer tracer;
   std::vector<std::string> traced;
   Mox::Ptr<Kiln::Task> task = Mox::make<Kiln::Task>(scheduler, 2, "TestTask");
   Drain drain;
   std::string done;
   std::vector<Kiln::DrainEnd> ends;
   // Called for each member after it is recorded: may mark more.
   std::function<void(int)> also = [](int) {};

   explicit Machine(Drain::Options options = {.what = "numbers", .traceLevel = 3})
       : drain(options) {
      tracer.captureIs(&traced);
      tracer.textLevelIs(3);
      notifierIs(task);
   }
   void onTaskRun() override {
      ends.push_back(drain.run(*task, attrLog, tracer, [this](int k, bool flag) {
         done += std::to_string(k) + (flag ? "!" : "") + " ";
         also(k);
      }));
   }
   void mark(std::initializer_list<int> keys, bool flag = false) {
      for (int k : keys) drain.mark(k, flag);
      task->scheduleTask();
   }
};

TEST(KilnDrain, CongestionBacksOffAtTheLowestDelayAndResumesWhereItStopped) {
   Machine m;
   m.mark({4, 2, 8, 6});
   m.scheduler.yieldEveryIs(2);
   m.scheduler.runUntilIdle(1);
   EXPECT_EQ(m.done, "2 4 ");
   EXPECT_EQ(m.ends.back(), Kiln::DrainEnd::yielded);
   EXPECT_TRUE(m.task->isReady()) << "a yield runs again at once";

   // Congested before the next member: nothing processed, retried 0.1 s later.
   m.attrLog.attrLogOutCloggedIs(true);
   m.scheduler.runUntilIdle();
   EXPECT_EQ(m.done, "2 4 ");
   EXPECT_EQ(m.ends.back(), Kiln::DrainEnd::congested);
   EXPECT_EQ(m.task->expirationTimeNs(), Kiln::durationOf(0.1));
   // An earlier request is not postponed by the back-off: the task runs at 0.05, still congested,
   // and backs off again from there.
   m.task->scheduleTaskLowestDelay(0.05);
   m.scheduler.advance(0.05);
   EXPECT_EQ(m.task->expirationTimeNs(), Kiln::durationOf(0.15));
   EXPECT_EQ(m.done, "2 4 ");

   // A mark behind the bookmark waits for the next pass; one ahead joins this one.
   m.drain.mark(1, false);
   m.drain.mark(8, true);
   m.attrLog.attrLogOutCloggedIs(false);
   m.scheduler.yieldEveryIs(0);
   m.scheduler.advance(0.1);
   EXPECT_EQ(m.done, "2 4 6 8! 1 ");
   EXPECT_EQ(m.ends.back(), Kiln::DrainEnd::drained);
   EXPECT_TRUE(m.drain.empty());
   EXPECT_FALSE(m.task->isScheduled());
   EXPECT_EQ(m.task->workCount(), 5u);
   EXPECT_EQ(m.traced.size(), m.ends.size());
   EXPECT_NE(m.traced.front().find("TestTask: processed 2 numbers, yielded, 2 pending"),
             std::string::npos)
       << m.traced.front();
   EXPECT_NE(m.traced[1].find("processed 0 numbers, congested"), std::string::npos);
}

TEST(KilnDrain, ProcessingMayMarkAndClearWithoutLosingOrRepeatingWork) {
   Machine m;
   // The first time 1 is processed it marks 5, ahead in the pass (merged there, processed once)
   // and itself, behind (processed again in the next pass).
   m.also = [&m, first = true](int k) mutable {
      if (k != 1 || !first) return;
      first = false;
      m.drain.mark(5, true);
      m.drain.mark(1, false);
   };
   m.mark({1, 3, 5});
   m.scheduler.runUntilIdle();
   EXPECT_EQ(m.done, "1 3 5! 1 ");
   EXPECT_EQ(m.task->runCount(), 1u) << "a run goes on into the next pass";

   // Clearing from inside processing ends the run with nothing left.
   m.done.clear();
   m.also = [&m](int k) {
      if (k == 20) m.drain.clear();
   };
   m.mark({10, 20, 30});
   m.scheduler.runUntilIdle();
   EXPECT_EQ(m.done, "10 20 ");
   EXPECT_TRUE(m.drain.empty());
   EXPECT_EQ(m.ends.back(), Kiln::DrainEnd::drained);
}

TEST(KilnDrain, APassPerRunLeavesWhatItQueuesAgainForALaterRun) {
   Machine m({.what = "checks", .passPerRun = true});
   // Odd keys stay: queued again for the next pass, as a check that repeats would.
   m.also = [&m](int k) {
      if (k % 2) m.drain.mark(k);
   };
   m.mark({1, 2, 3, 4});
   m.scheduler.runUntilIdle();
   EXPECT_EQ(m.done, "1 2 3 4 ");
   EXPECT_EQ(m.ends.back(), Kiln::DrainEnd::passDone);
   EXPECT_FALSE(m.task->isScheduled()) << "the machine decides when the next pass runs";
   EXPECT_EQ(m.drain.pending().keys(), (std::vector<int>{1, 3}));

   // A yield in the middle of a pass resumes it, and still stops at its end.
   m.scheduler.yieldEveryIs(1);
   m.task->scheduleTask();
   m.scheduler.runUntilIdle();
   EXPECT_EQ(m.done, "1 2 3 4 1 3 ");
   EXPECT_EQ(m.ends.size(), 3u);
   EXPECT_EQ(m.ends[1], Kiln::DrainEnd::yielded);
   EXPECT_EQ(m.ends[2], Kiln::DrainEnd::passDone);
   EXPECT_EQ(m.task->workCount(), 6u);
}

TEST(KilnDrain, TheDrainFetchesTheMemberAGivenDistanceAhead) {
   Machine m({.prefetchDistance = 2});
   std::vector<int> fetched;
   m.mark({1, 2, 3, 4, 5});
   m.drain.run(
       *m.task, m.attrLog, m.tracer, [](int, bool) {}, [&](int k) { fetched.push_back(k); });
   EXPECT_EQ(fetched, (std::vector<int>{3, 4, 5}));
}

TEST(KilnPending, KeysListsWhatIsPendingInOrderAcrossThePassAndTheWaitingMarks) {
   Kiln::PendingSet<int, bool, std::less<int>, Kiln::MergeOr> p;
   for (int k : {40, 10, 30, 20}) p.mark(k, false);
   ASSERT_NE(p.front(), nullptr);
   p.pop(); // 10 done; 20 30 40 left in the pass
   for (int k : {35, 5, 5, 30, 50}) p.mark(k, false);
   EXPECT_EQ(p.keys(), (std::vector<int>{5, 20, 30, 35, 40, 50}));
}

// A member whose value is a handle can let go of it while it waits, wherever it waits.
TEST(KilnPending, AForgottenMemberStaysButDropsItsValue) {
   Kiln::PendingSet<int, std::shared_ptr<int>, std::less<int>, Kiln::MergeLatest> p;
   auto one = std::make_shared<int>(1), two = std::make_shared<int>(2);
   p.mark(1, one);
   p.mark(3, std::make_shared<int>(3));
   ASSERT_NE(p.front(), nullptr); // the pass: 1 3
   p.mark(2, two);                // waits for the next pass
   p.mark(2, two);
   p.forget(3);
   p.forget(2);
   p.forget(7); // not pending: nothing
   EXPECT_EQ(two.use_count(), 1) << "no mark holds it any more";
   std::string seen;
   while (auto* m = p.front()) {
      seen += std::to_string(m->key) + (m->value ? "=" + std::to_string(*m->value) : "-") + " ";
      p.pop();
   }
   EXPECT_EQ(seen, "1=1 3- 2- ");
}

} // namespace
