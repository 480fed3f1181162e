#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <set>
#include <vector>

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

// A task that backs off the way a congested state machine does: each run asks to run again after
// its period, given in seconds as the machines give it.
struct Retrier : Task::Notifiee {
   double period;
   std::vector<Kiln::Duration> runs;
   Retrier(Task& t, double p) : period(p) { notifierIs(&t); }
   void onTaskRun() override {
      runs.push_back(notifier()->scheduler()->nowNs());
      notifier()->scheduleTaskLowestDelay(period);
   }
};

TEST(Kiln, TimeIsExactSoRetriesLandOnTheirTimeHoweverTimeIsAdvanced) {
   using namespace std::chrono_literals;
   struct Setup {
      TaskScheduler s;
      Mox::Ptr<Task> t = Mox::make<Task>(s, 2, "retry");
      Retrier r{*t, 0.1};
      Setup() {
         t->scheduleTask();
         s.runUntilIdle(); // the congested run at 0: next try at 0.1
      }
   };
   {
      // One step to 0.3: the third retry is due exactly then and fires.
      Setup a;
      a.s.advance(0.3);
      EXPECT_EQ(a.r.runs, (std::vector<Kiln::Duration>{0ms, 100ms, 200ms, 300ms}));
      EXPECT_EQ(a.s.nextTimerDelayNs(), 100ms);
      EXPECT_EQ(a.s.nextTimerDelay(), 0.1);
   }
   {
      // Two steps to the same time: the same runs, and the clock reads exactly 0.3.
      Setup b;
      b.s.advance(0.2);
      b.s.advance(0.1);
      EXPECT_EQ(b.r.runs.size(), 4u);
      EXPECT_EQ(b.s.nowNs(), 300ms);
      EXPECT_EQ(b.s.now(), 0.3);
      EXPECT_EQ(Kiln::secondsText(b.r.runs.back()), "0.3");
   }
   {
      // A long step: 10000 retries, and the next one is a whole period away.
      Setup c;
      c.s.advance(1000);
      EXPECT_EQ(c.r.runs.size(), 10001u);
      EXPECT_EQ(c.r.runs.back(), 1000s);
      EXPECT_EQ(c.s.nextTimerDelayNs(), 100ms);
      EXPECT_EQ(c.t->expirationTimeNs(), 1000100ms);
   }
}

// An operator's interrupt arriving during the fifth run of a task that retries every 0.1 s.
struct InterruptedRetrier : Task::Notifiee {
   std::atomic<bool>* interrupt;
   int runs = 0;
   InterruptedRetrier(Task& t, std::atomic<bool>* i) : interrupt(i) { notifierIs(&t); }
   void onTaskRun() override {
      if (++runs == 5) interrupt->store(true);
      notifier()->scheduleTaskLowestDelay(0.1);
   }
};

TEST(Kiln, AnInterruptStopsRunAndAdvanceBetweenTwoTaskRunsAndTheyGoOnLater) {
   using namespace std::chrono_literals;
   TaskScheduler s;
   std::atomic<bool> interrupt{false};
   s.interruptFlagIs(&interrupt);
   auto t = Mox::make<Task>(s, 2, "retry");
   InterruptedRetrier r(*t, &interrupt);
   t->scheduleTask();
   // Runs at 0, 0.1, ..., 0.4, then stops: time stays at the last timer fired, the next retry
   // stays pending.
   s.advance(1000);
   EXPECT_EQ(r.runs, 5);
   EXPECT_EQ(s.nowNs(), 400ms);
   EXPECT_EQ(s.nextTimerDelayNs(), 100ms);
   // While the interrupt stands nothing runs, and ready work stays ready.
   t->scheduleTask();
   EXPECT_EQ(s.runUntilIdle(), 0u);
   EXPECT_EQ(s.readyTaskCount(), 1u);
   // Taken back, the machines go on from where they stopped.
   interrupt.store(false);
   s.advance(0.2);
   EXPECT_EQ(r.runs, 8); // the ready run at 0.4, then 0.5 and 0.6
   EXPECT_EQ(s.nowNs(), 600ms);
}

TEST(Kiln, ManyPeriodicTimersOverALongRunDoNotDrift) {
   using namespace std::chrono_literals;
   TaskScheduler s;
   const double periods[] = {0.01, 0.1, 0.3, 0.7, 1.0, 7.7, 300};
   std::vector<Mox::Ptr<Task>> tasks;
   std::vector<std::unique_ptr<Retrier>> retriers;
   for (double p : periods) {
      tasks.push_back(Mox::make<Task>(s, 2, "periodic"));
      retriers.push_back(std::make_unique<Retrier>(*tasks.back(), p));
      tasks.back()->scheduleTaskLowestDelay(p);
   }
   // 3600 s in 36000 steps of 0.1 s: with a floating-point clock the sum drifts away from 3600.
   for (int i = 0; i < 36000; ++i) s.advance(0.1);
   EXPECT_EQ(s.nowNs(), 3600s);
   EXPECT_EQ(Kiln::secondsText(s.nowNs()), "3600");
   for (size_t k = 0; k < retriers.size(); ++k) {
      const Kiln::Duration period = Kiln::durationOf(periods[k]);
      const auto& runs = retriers[k]->runs;
      // Every run at an exact multiple of the period, and every multiple up to 3600 s reached.
      ASSERT_EQ(runs.size(), static_cast<size_t>(3600s / period)) << periods[k];
      for (size_t i = 0; i < runs.size(); ++i) {
         ASSERT_EQ(runs[i], period * static_cast<int64_t>(i + 1)) << periods[k] << " run " << i;
      }
   }
}

TEST(Kiln, SecondsConvertExactlyAtTheEdges) {
   using namespace std::chrono_literals;
   using Kiln::parseSeconds;
   using Kiln::secondsText;
   // Doubles round to the nearest nanosecond; what has no time in it is 0.
   EXPECT_EQ(Kiln::durationOf(0.1), 100ms);
   EXPECT_EQ(Kiln::durationOf(0.1 + 0.2), 300ms);
   EXPECT_EQ(Kiln::durationOf(1e-10), 0ns);
   EXPECT_EQ(Kiln::durationOf(-1), 0ns);
   EXPECT_EQ(Kiln::durationOf(std::nan("")), 0ns);
   EXPECT_EQ(Kiln::durationOf(1e300), Kiln::Duration::max());
   EXPECT_EQ(Kiln::secondsOf(300ms), 0.3);

   // Text is plain decimal, exact, without trailing zeros.
   EXPECT_EQ(secondsText(0ns), "0");
   EXPECT_EQ(secondsText(100000s), "100000");
   EXPECT_EQ(secondsText(100ns), "0.0000001");
   EXPECT_EQ(secondsText(2500ms), "2.5");
   EXPECT_EQ(secondsText(Kiln::Duration::max()), "9223372036.854775807");
   EXPECT_EQ(secondsText(-1500ms), "-1.5");

   // Parsing reads the digits, never a double.
   EXPECT_EQ(parseSeconds("0.3"), 300ms);
   EXPECT_EQ(parseSeconds("2"), 2s);
   EXPECT_EQ(parseSeconds(".25"), 250ms);
   EXPECT_EQ(parseSeconds("1.000000001"), 1000000001ns);
   EXPECT_EQ(parseSeconds("0.5000000000000"), 500ms); // trailing zeros add no precision
   EXPECT_EQ(parseSeconds("9223372036.854775807"), Kiln::Duration::max());
   for (Kiln::Duration d : {Kiln::Duration(0ns), Kiln::Duration(1ns), Kiln::Duration(300ms),
                            Kiln::Duration(100000s), Kiln::Duration::max()}) {
      EXPECT_EQ(parseSeconds(secondsText(d)), d);
   }
   using enum Kiln::SecondsTextError;
   struct Bad {
      const char* text;
      Kiln::SecondsTextError why;
   } bad[] = {{"", notADecimal},
              {".", notADecimal},
              {"-1", notADecimal},
              {"+1", notADecimal},
              {"1e5", notADecimal},
              {"1.2.3", notADecimal},
              {"0.0000000001", finerThanNanoseconds},
              {"9223372036.854775808", outOfRange},
              {"100000000000000000000", outOfRange}};
   for (const auto& b : bad) {
      Kiln::SecondsTextError why{};
      EXPECT_FALSE(parseSeconds(b.text, &why)) << b.text;
      EXPECT_EQ(why, b.why) << b.text;
   }
}

} // namespace
