#include "platform/Kiln.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

namespace Kiln {

namespace {

constexpr int64_t nsPerSecond = 1'000'000'000;
constexpr Duration farthest = Duration::max();

// a + b for b >= 0, stopping at the end of the clock rather than wrapping.
Duration saturatingAdd(Duration a, Duration b) noexcept {
   if (b <= Duration::zero()) return a;
   return a > farthest - b ? farthest : a + b;
}

} // namespace

Duration durationOf(double seconds) noexcept {
   if (!(seconds > 0)) return Duration::zero(); // negative, zero and NaN
   const double ns = std::round(seconds * static_cast<double>(nsPerSecond));
   // 2^63 is exactly representable; anything at or past it does not fit.
   if (ns >= 9223372036854775808.0) return farthest;
   return Duration(static_cast<int64_t>(ns));
}

double secondsOf(Duration d) noexcept {
   // Below 2^53 ns (104 days) the count converts exactly and the one division rounds once, so
   // the result is the double nearest to the exact seconds: 300000000 ns gives 0.3.
   return static_cast<double>(d.count()) / static_cast<double>(nsPerSecond);
}

std::string secondsText(Duration d) {
   int64_t ns = d.count();
   std::string out;
   uint64_t mag = static_cast<uint64_t>(ns);
   if (ns < 0) {
      out += '-';
      mag = ~mag + 1; // also right for the most negative value
   }
   out += std::to_string(mag / nsPerSecond);
   uint64_t frac = mag % nsPerSecond;
   if (frac != 0) {
      char digits[10];
      for (int i = 8; i >= 0; --i, frac /= 10) digits[i] = static_cast<char>('0' + frac % 10);
      int n = 9;
      while (digits[n - 1] == '0') --n;
      out += '.';
      out.append(digits, n);
   }
   return out;
}

std::optional<Duration> parseSeconds(std::string_view text, SecondsTextError* error) {
   auto fail = [error](SecondsTextError why) -> std::optional<Duration> {
      if (error) *error = why;
      return std::nullopt;
   };
   const size_t dot = text.find('.');
   const std::string_view whole = text.substr(0, dot);
   const std::string_view frac =
       dot == std::string_view::npos ? std::string_view() : text.substr(dot + 1);
   auto allDigits = [](std::string_view s) {
      return std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
   };
   if (whole.empty() && frac.empty()) return fail(SecondsTextError::notADecimal);
   if (!allDigits(whole) || !allDigits(frac)) return fail(SecondsTextError::notADecimal);
   // Trailing zeros add no precision: "0.5000000000" is half a second.
   std::string_view significant = frac;
   while (!significant.empty() && significant.back() == '0') significant.remove_suffix(1);
   if (significant.size() > 9) return fail(SecondsTextError::finerThanNanoseconds);
   constexpr uint64_t limit = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
   uint64_t seconds = 0;
   for (char c : whole) {
      seconds = seconds * 10 + static_cast<uint64_t>(c - '0');
      if (seconds > limit / nsPerSecond) return fail(SecondsTextError::outOfRange);
   }
   uint64_t ns = 0;
   for (size_t i = 0; i < 9; ++i) {
      ns = ns * 10 + (i < significant.size() ? static_cast<uint64_t>(significant[i] - '0') : 0);
   }
   const uint64_t total = seconds * nsPerSecond;
   if (total > limit - ns) return fail(SecondsTextError::outOfRange);
   return Duration(static_cast<int64_t>(total + ns));
}

TaskScheduler::TaskScheduler(ClockMode mode)
    : mode_(mode), start_(std::chrono::steady_clock::now()) {}

TaskScheduler::~TaskScheduler() {
   for (Task* t : tasks_) {
      t->isReady_ = false;
      t->hasTimer_ = false;
      t->scheduler_ = nullptr;
   }
}

Duration TaskScheduler::nowNs() const noexcept {
   if (mode_ == ClockMode::virtualTime) return virtualNow_;
   return std::chrono::duration_cast<Duration>(std::chrono::steady_clock::now() - start_);
}

size_t TaskScheduler::readyTaskCount() const noexcept { return ready_.size(); }
size_t TaskScheduler::timerCount() const noexcept { return timers_.size(); }

std::optional<Duration> TaskScheduler::nextTimerDelayNs() const noexcept {
   if (timers_.empty()) return std::nullopt;
   Duration at = farthest;
   for (Task* t : timers_) at = std::min(at, t->timerAt_);
   return std::max(Duration::zero(), at - nowNs());
}

std::optional<double> TaskScheduler::nextTimerDelay() const noexcept {
   auto d = nextTimerDelayNs();
   if (!d) return std::nullopt;
   return secondsOf(*d);
}

void TaskScheduler::ready(Task* t) {
   if (t->isReady_) return;
   t->isReady_ = true;
   t->readySeq_ = ++seq_;
   ready_.push_back(t);
}

void TaskScheduler::unready(Task* t) {
   if (!t->isReady_) return;
   t->isReady_ = false;
   std::erase(ready_, t);
}

void TaskScheduler::timerIs(Task* t, Duration at) {
   if (!t->hasTimer_) {
      t->hasTimer_ = true;
      timers_.push_back(t);
   }
   t->timerAt_ = at;
   t->timerSeq_ = ++seq_;
}

void TaskScheduler::timerDel(Task* t) {
   if (!t->hasTimer_) return;
   t->hasTimer_ = false;
   std::erase(timers_, t);
}

void TaskScheduler::taskIs(Task* t) { tasks_.push_back(t); }

void TaskScheduler::forget(Task* t) {
   unready(t);
   timerDel(t);
   std::erase(tasks_, t);
   if (running_ == t) running_ = nullptr;
}

bool TaskScheduler::shouldYield() noexcept {
   ++sliceCalls_;
   uint32_t budget = yieldEvery_;
   if (budget == 0 && mode_ == ClockMode::virtualTime) budget = defaultVirtualBudget;
   if (budget != 0) return sliceCalls_ >= budget;
   // A clock read is cheap, but not free: look at it every 16 calls.
   if ((sliceCalls_ & 15) != 0) return false;
   return std::chrono::steady_clock::now() - sliceStart_ >=
          std::chrono::duration<double>(realSliceSeconds);
}

void TaskScheduler::fireDueTimers(Duration upTo) {
   // Fire in time order, then in order of request.
   std::vector<Task*> due;
   for (Task* t : timers_) {
      if (t->timerAt_ <= upTo) due.push_back(t);
   }
   std::sort(due.begin(), due.end(), [](Task* a, Task* b) {
      return a->timerAt_ != b->timerAt_ ? a->timerAt_ < b->timerAt_ : a->timerSeq_ < b->timerSeq_;
   });
   for (Task* t : due) {
      timerDel(t);
      ready(t);
   }
}

size_t TaskScheduler::runUntilIdle(size_t maxRuns) {
   size_t runs = 0;
   while (runs < maxRuns) {
      if (mode_ == ClockMode::real) fireDueTimers(nowNs());
      if (ready_.empty() || interrupted()) break;
      if (taskRunHook_) {
         taskRunHook_(taskRuns_);
         if (ready_.empty()) break;
      }
      auto best = std::min_element(ready_.begin(), ready_.end(), [](Task* a, Task* b) {
         return a->priority_ != b->priority_ ? a->priority_ < b->priority_
                                             : a->readySeq_ < b->readySeq_;
      });
      Task* t = *best;
      ready_.erase(best);
      t->isReady_ = false;
      running_ = t;
      sliceCalls_ = 0;
      // Only a real-clock slice is measured in time; a virtual one costs no clock read.
      if (mode_ == ClockMode::real) sliceStart_ = std::chrono::steady_clock::now();
      t->run();
      running_ = nullptr;
      ++runs;
      ++taskRuns_;
   }
   return runs;
}

void TaskScheduler::advance(Duration delay) {
   assert(mode_ == ClockMode::virtualTime);
   const Duration target = saturatingAdd(virtualNow_, delay);
   runUntilIdle();
   if (interrupted()) return;
   for (;;) {
      if (timers_.empty()) break;
      Duration next = farthest;
      for (Task* t : timers_) next = std::min(next, t->timerAt_);
      if (next > target) break;
      virtualNow_ = std::max(virtualNow_, next);
      fireDueTimers(virtualNow_);
      runUntilIdle();
      if (interrupted()) return;
   }
   virtualNow_ = target;
   runUntilIdle();
}

Task::Task(TaskScheduler& scheduler, int priority, std::string name)
    : scheduler_(&scheduler), arena_(&Mox::Arena::current()), priority_(priority),
      name_(std::move(name)) {
   scheduler_->taskIs(this);
}

Task::~Task() {
   if (scheduler_) scheduler_->forget(this);
}

void Task::scheduleTask() {
   if (!scheduler_) return;
   scheduler_->timerDel(this);
   scheduler_->ready(this);
}

void Task::unscheduleTask() {
   if (!scheduler_) return;
   scheduler_->unready(this);
   scheduler_->timerDel(this);
}

void Task::scheduleTaskLowestDelay(Duration delay) {
   if (!scheduler_ || isReady_) return; // already due now: nothing is earlier
   const Duration at = saturatingAdd(scheduler_->nowNs(), delay);
   if (hasTimer_ && timerAt_ <= at) return;
   scheduler_->timerIs(this, at);
}

std::optional<Duration> Task::expirationTimeNs() const noexcept {
   if (!hasTimer_) return std::nullopt;
   return timerAt_;
}

std::optional<double> Task::expirationTime() const noexcept {
   if (!hasTimer_) return std::nullopt;
   return secondsOf(timerAt_);
}

std::string Task::stringValue() const {
   return Mox::format("taskName: %s, taskPriority: %d, currentExpirationTime: %f", name_.c_str(),
                      priority_, hasTimer_ ? secondsOf(timerAt_) : 0.0);
}

void Task::run() {
   Mox::Arena::Scope in(*arena_);
   ++runCount_;
   notify(&Notifiee::onTaskRun);
}

} // namespace Kiln
