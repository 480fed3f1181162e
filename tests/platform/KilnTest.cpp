#include <gtest/gtest.h>

#include <functional>
#include <set>

#include "platform/Kiln.h"

namespace {

using Kiln::Task;
using Kiln::TaskScheduler;

// Appends its mark (and, with a clock, the time) each time its task runs.
struct Marker : Task::Notifiee {
   std::string* out;
   char mark;
   bool withTime = false;
   std::function<void()> then;
   Marker(Task& t, std::string* o, char m) : out(o), mark(m) { notifierIs(&t); }
   void onTaskRun() override {
      *out += mark;
      if (withTime) *out += "@" + Mox::format("%g", notifier()->scheduler()->now()) + " ";
      if (then) then();
   }
};

TEST(Kiln, ScheduleIsIdempotentAndRunsInPriorityThenRequestOrder) {
   TaskScheduler s;
   auto three = Mox::make<Task>(s, 1, "three");
   auto five = Mox::make<Task>(s, 2, "five");
   auto six = Mox::make<Task>(s, 2, "six");
   std::string seen;
   Marker m3(*three, &seen, '3'), m5(*five, &seen, '5'), m6(*six, &seen, '6');

   five->scheduleTask();
   three->scheduleTask();
   five->scheduleTask(); // already ready: still one run
   EXPECT_EQ(s.readyTaskCount(), 2u);
   EXPECT_EQ(s.runUntilIdle(), 2u);
   EXPECT_EQ(seen, "35");

   six->scheduleTask();
   s.runUntilIdle();
   EXPECT_EQ(seen, "356");

   // Same priority: first scheduled first. A task that schedules itself while running runs again
   // after what was already ready.
   int again = 1;
   m6.then = [&] {
      if (again-- > 0) six->scheduleTask();
   };
   six->scheduleTask();
   five->scheduleTask();
   EXPECT_EQ(s.runUntilIdle(), 3u);
   EXPECT_EQ(seen, "356656");
   EXPECT_EQ(six->runCount(), 3u);
   EXPECT_EQ(s.readyTaskCount(), 0u);
}

TEST(Kiln, LowestDelayNeverPostponesAndImmediateScheduleCancelsTheTimer) {
   TaskScheduler s;
   auto t = Mox::make<Task>(s, 2, "timer");
   std::string seen;
   Marker m(*t, &seen, 't');
   m.withTime = true;

   t->scheduleTaskLowestDelay(1.0);
   t->scheduleTaskLowestDelay(5.0); // later: ignored
   ASSERT_TRUE(t->expirationTime());
   EXPECT_DOUBLE_EQ(*t->expirationTime(), 1.0);
   t->scheduleTaskLowestDelay(0.25); // earlier: wins
   EXPECT_DOUBLE_EQ(*s.nextTimerDelay(), 0.25);
   EXPECT_EQ(s.runUntilIdle(), 0u); // time does not move, so the timer is not due
   s.advance(0.2);
   EXPECT_EQ(seen, "");
   s.advance(0.1);
   EXPECT_EQ(seen, "t@0.25 ");
   EXPECT_DOUBLE_EQ(s.now(), 0.3);
   EXPECT_FALSE(s.nextTimerDelay());

   // An immediate request cancels a pending timer: one run, nothing left for later.
   seen.clear();
   t->scheduleTaskLowestDelay(2.0);
   t->scheduleTask();
   t->scheduleTaskLowestDelay(1.0); // already due now: nothing is earlier
   EXPECT_EQ(s.timerCount(), 0u);
   s.advance(10);
   EXPECT_EQ(seen, "t@0.3 ");
   EXPECT_EQ(t->runCount(), 2u);

   // A zero delay is due at once but still waits for time to be advanced.
   t->scheduleTaskLowestDelay(0);
   EXPECT_EQ(s.runUntilIdle(), 0u);
   s.advance(0);
   EXPECT_EQ(t->runCount(), 3u);

   t->scheduleTaskLowestDelay(3.0);
   t->unscheduleTask();
   EXPECT_FALSE(t->isScheduled());
   s.advance(5);
   EXPECT_EQ(t->runCount(), 3u);
}

TEST(Kiln, AdvanceFiresTimersInTimeOrderAndRunsWhatTheyStart) {
   TaskScheduler s;
   auto x = Mox::make<Task>(s, 2, "x");
   auto y = Mox::make<Task>(s, 2, "y");
   auto z = Mox::make<Task>(s, 2, "z");
   auto w = Mox::make<Task>(s, 2, "w");
   std::string seen;
   Marker mx(*x, &seen, 'x'), my(*y, &seen, 'y'), mz(*z, &seen, 'z'), mw(*w, &seen, 'w');
   for (Marker* m : {&mx, &my, &mz, &mw}) m->withTime = true;
   // y, at time 1, starts a timer that is due before x and z.
   my.then = [&] { w->scheduleTaskLowestDelay(0.5); };

   x->scheduleTaskLowestDelay(2);
   y->scheduleTaskLowestDelay(1);
   z->scheduleTaskLowestDelay(2); // same time as x, requested later
   EXPECT_EQ(s.timerCount(), 3u);
   s.advance(3);
   EXPECT_EQ(seen, "y@1 w@1.5 x@2 z@2 ");
   EXPECT_DOUBLE_EQ(s.now(), 3.0);
   EXPECT_EQ(s.timerCount(), 0u);

   // A timer exactly at the target time fires; one just past it does not.
   seen.clear();
   x->scheduleTaskLowestDelay(1);
   y->scheduleTaskLowestDelay(1.5);
   my.then = nullptr;
   s.advance(1);
   EXPECT_EQ(seen, "x@4 ");
   EXPECT_DOUBLE_EQ(*s.nextTimerDelay(), 0.5);
}

// A task that drains a pending set, yielding when told, as every state machine's task does.
struct Drainer : Task::Notifiee {
   std::set<int> pending;
   std::string done;
   explicit Drainer(Task& t) { notifierIs(&t); }
   void onTaskRun() override {
      while (!pending.empty()) {
         int k = *pending.begin();
         pending.erase(pending.begin());
         done += std::to_string(k);
         notifier()->taskWorkCountInc(1);
         if (notifier()->taskShouldYield()) {
            if (!pending.empty()) notifier()->scheduleTask();
            return;
         }
      }
   }
};

TEST(Kiln, YieldEveryKeyConvergesToSameResult) {
   auto drain = [](uint32_t yieldEvery, size_t* runs) {
      TaskScheduler s;
      s.yieldEveryIs(yieldEvery);
      auto t = Mox::make<Task>(s, 2, "drain");
      Drainer d(*t);
      for (int k = 0; k < 10; ++k) d.pending.insert(k);
      t->scheduleTask();
      *runs = s.runUntilIdle();
      EXPECT_EQ(t->workCount(), 10u);
      return d.done;
   };
   size_t runsDefault = 0, runsEvery = 0, runsThree = 0;
   const std::string expected = drain(0, &runsDefault);
   EXPECT_EQ(expected, "0123456789");
   EXPECT_EQ(runsDefault, 1u); // the virtual budget is far above ten keys
   EXPECT_EQ(drain(1, &runsEvery), expected);
   EXPECT_EQ(runsEvery, 10u);
   EXPECT_EQ(drain(3, &runsThree), expected);
   EXPECT_EQ(runsThree, 4u);
}

TEST(Kiln, TaskGoingAwayOrOutlivingItsScheduler) {
   auto s = std::make_unique<TaskScheduler>();
   {
      auto gone = Mox::make<Task>(*s, 2, "gone");
      gone->scheduleTaskLowestDelay(1);
      auto alsoGone = Mox::make<Task>(*s, 2, "alsoGone");
      alsoGone->scheduleTask();
   }
   EXPECT_EQ(s->timerCount(), 0u);
   EXPECT_EQ(s->readyTaskCount(), 0u);
   EXPECT_EQ(s->runUntilIdle(), 0u);

   auto survivor = Mox::make<Task>(*s, 3, "survivor");
   survivor->scheduleTaskLowestDelay(2);
   EXPECT_EQ(survivor->stringValue(),
             "taskName: survivor, taskPriority: 3, currentExpirationTime: 2.000000");
   s.reset();
   EXPECT_EQ(survivor->scheduler(), nullptr);
   EXPECT_FALSE(survivor->isScheduled());
   survivor->scheduleTask(); // does nothing, and going away later touches nothing
   survivor->scheduleTaskLowestDelay(1);
   EXPECT_FALSE(survivor->isScheduled());
   EXPECT_FALSE(survivor->taskShouldYield());
}

} // namespace
