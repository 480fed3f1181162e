// KilnLoop: the event loop of a process on the real clock. It waits in poll(2) on the descriptors
// it is given (shared tables' readers, the agent's control socket) for at most the time to the
// scheduler's next timer, calls the handler of each descriptor that became readable, and runs the
// scheduler's ready tasks. An idle loop sleeps in the kernel: it uses no CPU.
//
// Guarantees (tests/platform/KilnLoopTest.cpp):
//  - a timer fires no earlier than it is due, and the loop wakes for it without being poked;
//  - a readable descriptor's handler runs within the next turn; a handler may add or remove
//    descriptors, its own included;
//  - a descriptor watched for writing (a reply that did not fit a socket's buffer) has its
//    writable handler called once it can take more, until the handler is removed;
//  - ready tasks are run in batches bounded in count and time, so descriptors (and a stop
//    signal) are served while a backlog runs;
//  - `catchStopSignals()` turns SIGTERM and SIGINT into a stop at the next turn (a signalfd: no
//    handler runs inside a task); `stop()` does the same from a handler or a task; a step that
//    may take long asks `stopWanted()` as it goes;
//  - `onIdle` runs each time the loop is about to sleep with nothing ready; when it says it has
//    more to do, the loop only looks at the descriptors (without sleeping) and calls it again, so
//    that long idle work is done in slices between which input is served.
#pragma once

#include <csignal>
#include <functional>
#include <vector>

#include "platform/Kiln.h"

namespace Kiln {

class Loop {
 public:
   // The scheduler must run on the real clock: a virtual one is driven by scripts, not by waiting.
   explicit Loop(TaskScheduler& scheduler);
   ~Loop();
   Loop(const Loop&) = delete;
   Loop& operator=(const Loop&) = delete;

   // Calls `onReadable` whenever `fd` is readable (or in error). Replaces an earlier handler.
   void fdIs(int fd, std::function<void()> onReadable);
   // Removes both handlers of `fd`.
   void fdDel(int fd);
   // Calls `onWritable` whenever `fd` can be written, until fdWritableDel.
   void fdWritableIs(int fd, std::function<void()> onWritable);
   void fdWritableDel(int fd);
   size_t fdCount() const noexcept { return fds_.size(); }

   // Blocks SIGTERM and SIGINT for the process and stops the loop when one arrives. The
   // destructor restores the signal mask.
   void catchStopSignals();
   // The signal that stopped the loop, 0 when none did.
   int stopSignal() const noexcept { return stopSignal_; }

   // Called before each sleep when no task is ready.
   void onIdleIs(std::function<void()> onIdle) {
      onIdle_ = [f = std::move(onIdle)] {
         f();
         return false;
      };
   }
   // The same, for idle work done in slices: true when it has more to do (the loop then polls
   // its descriptors without waiting and calls it again).
   void onIdleWorkIs(std::function<bool()> onIdle) { onIdle_ = std::move(onIdle); }

   // Runs until stop() or a stop signal.
   void run();
   // One turn: runs a batch of ready tasks, then waits at most `maxWait` (and no longer than the
   // next timer, nor at all while tasks are ready) and serves the readable descriptors.
   void turn(Duration maxWait = Duration::max());
   void stop() noexcept { stopped_ = true; }
   bool stopped() const noexcept { return stopped_; }
   // Whether the loop is to stop, a stop signal not yet read included (it is read here): for a
   // long step inside a handler or a task (a large table taken in whole), which then cuts itself
   // short, so that the process ends within its promise. The loop stops at its next turn.
   bool stopWanted();

   // Task runs, and time spent running them, between two looks at the descriptors.
   static constexpr size_t runsPerTurn = 64;
   static constexpr Duration busyPerTurn = std::chrono::milliseconds(20);

 private:
   struct Watch {
      int fd;
      std::function<void()> onReadable; // either may be empty, not both
      std::function<void()> onWritable;
   };
   Watch& watch(int fd);
   int timeoutMs(Duration maxWait) const;
   void readSignal();

   TaskScheduler& scheduler_;
   std::vector<Watch> fds_;
   std::function<bool()> onIdle_;
   bool idleWork_ = false; // onIdle said it has more to do
   int signalFd_ = -1;
   sigset_t oldMask_{};
   int stopSignal_ = 0;
   bool stopped_ = false;
};

} // namespace Kiln
