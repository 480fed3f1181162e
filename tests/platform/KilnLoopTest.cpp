#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <functional>
#include <string>

#include "platform/KilnLoop.h"

namespace {

using Kiln::Task;
using Kiln::TaskScheduler;
using namespace std::chrono_literals;

struct OnRun : Task::Notifiee {
   std::function<void()> then;
   OnRun(Task& t, std::function<void()> f) : then(std::move(f)) { notifierIs(&t); }
   void onTaskRun() override { then(); }
};

double cpuSeconds() {
   rusage r{};
   getrusage(RUSAGE_SELF, &r);
   return static_cast<double>(r.ru_utime.tv_sec + r.ru_stime.tv_sec) +
          static_cast<double>(r.ru_utime.tv_usec + r.ru_stime.tv_usec) * 1e-6;
}

struct Pipe {
   int fd[2] = {-1, -1};
   Pipe() { EXPECT_EQ(::pipe(fd), 0); }
   ~Pipe() {
      ::close(fd[0]);
      ::close(fd[1]);
   }
   void put(char c) { ASSERT_EQ(::write(fd[1], &c, 1), 1); }
   char take() {
      char c = 0;
      EXPECT_EQ(::read(fd[0], &c, 1), 1);
      return c;
   }
};

TEST(KilnLoop, SleepsUntilTheNextTimerAndFiresItNoEarlier) {
   auto s = Mox::make<TaskScheduler>(TaskScheduler::ClockMode::real);
   Kiln::Loop loop(*s);
   auto timer = Mox::make<Task>(*s, 1, "timer");
   Kiln::Duration firedAt{0};
   OnRun r(*timer, [&] {
      firedAt = s->nowNs();
      loop.stop();
   });
   int idles = 0;
   loop.onIdleIs([&] { ++idles; });
   const Kiln::Duration start = s->nowNs();
   timer->scheduleTaskLowestDelay(Kiln::Duration(300ms));
   const double cpu = cpuSeconds();
   loop.run();
   EXPECT_GE(firedAt - start, Kiln::Duration(300ms));
   EXPECT_LT(firedAt - start, Kiln::Duration(2s));
   // One sleep to the timer, not a spin: a handful of turns and next to no CPU.
   EXPECT_LE(idles, 3);
   EXPECT_LT(cpuSeconds() - cpu, 0.05);
}

TEST(KilnLoop, IdleWorkInSlicesServesDescriptorsBetweenAndSleepsWhenDone) {
   auto s = Mox::make<TaskScheduler>(TaskScheduler::ClockMode::real);
   Kiln::Loop loop(*s);
   Pipe in;
   int slices = 0;
   int servedAt = -1;
   // Idle work of 50 slices; input arrives during the 11th and must be served before the 12th.
   loop.onIdleWorkIs([&] {
      if (slices == 10) in.put('x');
      if (slices == 50) return false;
      ++slices;
      return true;
   });
   loop.fdIs(in.fd[0], [&] {
      in.take();
      servedAt = slices;
   });
   auto timer = Mox::make<Task>(*s, 1, "timer");
   OnRun r(*timer, [&] { loop.stop(); });
   timer->scheduleTaskLowestDelay(Kiln::Duration(300ms));
   const double cpu = cpuSeconds();
   loop.run();
   EXPECT_EQ(slices, 50);
   EXPECT_EQ(servedAt, 11);
   // Done, the loop slept until its timer instead of spinning.
   EXPECT_LT(cpuSeconds() - cpu, 0.05);
}

TEST(KilnLoop, ServesDescriptorsAlsoWhileTasksStayBusy) {
   auto s = Mox::make<TaskScheduler>(TaskScheduler::ClockMode::real);
   Kiln::Loop loop(*s);
   Pipe a, b;
   std::string seen;
   // A task that never stops being ready: the loop must not starve the descriptors.
   auto busy = Mox::make<Task>(*s, 1, "busy");
   OnRun r(*busy, [&] { busy->scheduleTask(); });
   busy->scheduleTask();
   loop.fdIs(a.fd[0], [&] {
      seen += a.take();
      // A handler may drop itself and add another.
      loop.fdDel(a.fd[0]);
      loop.fdIs(b.fd[0], [&] {
         seen += b.take();
         loop.stop();
      });
   });
   EXPECT_EQ(loop.fdCount(), 1u);
   a.put('a');
   a.put('x'); // left unread: the handler is gone
   b.put('b');
   for (int i = 0; i < 10 && !loop.stopped(); ++i) loop.turn(100ms);
   EXPECT_EQ(seen, "ab");
   EXPECT_EQ(loop.fdCount(), 1u);
   EXPECT_GT(busy->runCount(), 0u);
}

TEST(KilnLoop, AWritableHandlerRunsWhileWantedAndLeavesTheReaderInPlace) {
   auto s = Mox::make<TaskScheduler>(TaskScheduler::ClockMode::real);
   Kiln::Loop loop(*s);
   Pipe p;
   // Fill the pipe: its write end is not writable until the other end reads.
   ASSERT_EQ(::fcntl(p.fd[1], F_SETFL, O_NONBLOCK), 0);
   const std::string block(4096, 'x');
   size_t filled = 0;
   while (::write(p.fd[1], block.data(), block.size()) > 0) filled += block.size();
   int writable = 0, readable = 0;
   loop.fdIs(p.fd[1], [&] { ++readable; }); // a reader on the same descriptor stays
   loop.fdWritableIs(p.fd[1], [&] {
      ++writable;
      loop.fdWritableDel(p.fd[1]);
   });
   loop.turn(20ms);
   EXPECT_EQ(writable, 0);
   // Drained: writable once, then no more since the handler removed itself.
   char sink[4096];
   for (size_t left = filled; left > 0;) left -= static_cast<size_t>(::read(p.fd[0], sink, 4096));
   loop.turn(100ms);
   loop.turn(20ms);
   EXPECT_EQ(writable, 1);
   EXPECT_EQ(readable, 0);
   EXPECT_EQ(loop.fdCount(), 1u);
   loop.fdDel(p.fd[1]);
   EXPECT_EQ(loop.fdCount(), 0u);
}

TEST(KilnLoop, StopSignalEndsTheLoopAndTheMaskComesBack) {
   auto s = Mox::make<TaskScheduler>(TaskScheduler::ClockMode::real);
   {
      Kiln::Loop loop(*s);
      loop.catchStopSignals();
      auto t = Mox::make<Task>(*s, 1, "raiser");
      OnRun r(*t, [] { ::raise(SIGTERM); });
      t->scheduleTaskLowestDelay(Kiln::Duration(20ms));
      const auto start = std::chrono::steady_clock::now();
      loop.run();
      EXPECT_EQ(loop.stopSignal(), SIGTERM);
      EXPECT_LT(std::chrono::steady_clock::now() - start, 1s);
   }
   sigset_t now;
   sigprocmask(SIG_SETMASK, nullptr, &now);
   EXPECT_EQ(sigismember(&now, SIGTERM), 0);
   EXPECT_EQ(sigismember(&now, SIGINT), 0);
}

TEST(KilnLoop, RefusesAVirtualClock) {
   auto s = Mox::make<TaskScheduler>(TaskScheduler::ClockMode::virtualTime);
   EXPECT_THROW(Kiln::Loop loop(*s), std::logic_error);
}

} // namespace
