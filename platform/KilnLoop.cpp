#include "platform/KilnLoop.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <stdexcept>
#include <string>
#include <system_error>

namespace Kiln {

Loop::Loop(TaskScheduler& scheduler) : scheduler_(scheduler) {
   if (scheduler.clockMode() != TaskScheduler::ClockMode::real) {
      throw std::logic_error("an event loop needs a scheduler on the real clock");
   }
}

Loop::~Loop() {
   if (signalFd_ >= 0) {
      ::close(signalFd_);
      ::sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
   }
}

Loop::Watch& Loop::watch(int fd) {
   for (Watch& w : fds_) {
      if (w.fd == fd) return w;
   }
   return fds_.emplace_back(Watch{fd, {}, {}});
}

void Loop::fdIs(int fd, std::function<void()> onReadable) {
   watch(fd).onReadable = std::move(onReadable);
}

void Loop::fdWritableIs(int fd, std::function<void()> onWritable) {
   watch(fd).onWritable = std::move(onWritable);
}

void Loop::fdWritableDel(int fd) {
   for (Watch& w : fds_) {
      if (w.fd == fd) w.onWritable = nullptr;
   }
   std::erase_if(fds_, [fd](const Watch& w) { return w.fd == fd && !w.onReadable; });
}

void Loop::fdDel(int fd) {
   std::erase_if(fds_, [fd](const Watch& w) { return w.fd == fd; });
}

void Loop::catchStopSignals() {
   if (signalFd_ >= 0) return;
   sigset_t mask;
   sigemptyset(&mask);
   sigaddset(&mask, SIGTERM);
   sigaddset(&mask, SIGINT);
   if (::sigprocmask(SIG_BLOCK, &mask, &oldMask_) != 0) {
      throw std::system_error(errno, std::generic_category(), "sigprocmask");
   }
   signalFd_ = ::signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);
   if (signalFd_ < 0) {
      const int e = errno;
      ::sigprocmask(SIG_SETMASK, &oldMask_, nullptr);
      throw std::system_error(e, std::generic_category(), "signalfd");
   }
   fdIs(signalFd_, [this] { readSignal(); });
}

void Loop::readSignal() {
   signalfd_siginfo info;
   while (::read(signalFd_, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      stopSignal_ = static_cast<int>(info.ssi_signo);
      stopped_ = true;
   }
}

int Loop::timeoutMs(Duration maxWait) const {
   if (scheduler_.readyTaskCount() != 0 || stopped_ || idleWork_) return 0;
   Duration wait = maxWait;
   if (auto next = scheduler_.nextTimerDelayNs()) wait = std::min(wait, *next);
   if (wait == Duration::max()) return -1;
   // Rounded up: waking before the timer is due would only spin until it is.
   const auto ms = (wait.count() + 999'999) / 1'000'000;
   return static_cast<int>(std::min<int64_t>(ms, INT_MAX));
}

void Loop::turn(Duration maxWait) {
   // Bounded in runs and in time, so that a stop signal or a table change waits at most about
   // one task's slice.
   const auto until = std::chrono::steady_clock::now() + busyPerTurn;
   for (size_t runs = 0; runs < runsPerTurn && scheduler_.runUntilIdle(1) != 0; ++runs) {
      if (std::chrono::steady_clock::now() >= until) break;
   }
   idleWork_ = scheduler_.readyTaskCount() == 0 && onIdle_ && !stopped_ && onIdle_();
   std::vector<pollfd> polled;
   polled.reserve(fds_.size());
   for (const Watch& w : fds_) {
      const short events =
          static_cast<short>((w.onReadable ? POLLIN : 0) | (w.onWritable ? POLLOUT : 0));
      polled.push_back(pollfd{w.fd, events, 0});
   }
   const int n = ::poll(polled.data(), polled.size(), timeoutMs(maxWait));
   if (n < 0) {
      if (errno == EINTR) return;
      throw std::system_error(errno, std::generic_category(), "poll");
   }
   for (const pollfd& p : polled) {
      if (p.revents == 0) continue;
      // A handler may have removed or replaced this one: look it up again, call a copy.
      auto find = [&] {
         return std::find_if(fds_.begin(), fds_.end(),
                             [&](const Watch& w) { return w.fd == p.fd; });
      };
      auto it = find();
      if (it != fds_.end() && it->onWritable && (p.revents & (POLLOUT | POLLERR | POLLHUP))) {
         std::function<void()> handler = it->onWritable;
         handler();
         it = find();
      }
      // An error or hang-up is told to the reader: that is where a peer's end is seen.
      if (it != fds_.end() && it->onReadable && (p.revents & ~POLLOUT)) {
         std::function<void()> handler = it->onReadable;
         handler();
      }
   }
}

bool Loop::stopWanted() {
   if (!stopped_ && signalFd_ >= 0) readSignal();
   return stopped_;
}

void Loop::run() {
   while (!stopped_) turn();
}

} // namespace Kiln
