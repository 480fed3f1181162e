#include "platform/Kiln.h"

#include <algorithm>
#include <cassert>
#include <limits>

namespace Kiln {

TaskScheduler::TaskScheduler(ClockMode mode)
    : mode_(mode), start_(std::chrono::steady_clock::now()) {}

TaskScheduler::~TaskScheduler() {
   for (Task* t : tasks_) {
      t->isReady_ = false;
      t->hasTimer_ = false;
      t->scheduler_ = nullptr;
   }
}

double TaskScheduler::now() const noexcept {
   if (mode_ == ClockMode::virtualTime) return virtualNow_;
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - start_).count();
}

size_t TaskScheduler::readyTaskCount() const noexcept { return ready_.size(); }
size_t TaskScheduler::timerCount() const noexcept { return timers_.size(); }

std::optional<double> TaskScheduler::nextTimerDelay() const noexcept {
   if (timers_.empty()) return std::nullopt;
   double at = std::numeric_limits<double>::infinity();
   for (Task* t : timers_) at = std::min(at, t->timerAt_);
   return std::max(0.0, at - now());
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

void TaskScheduler::timerIs(Task* t, double at) {
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

void TaskScheduler::fireDueTimers(double upTo) {
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

size_t TaskScheduler::runUntilIdle() {
   size_t runs = 0;
   for (;;) {
      if (mode_ == ClockMode::real) fireDueTimers(now());
      if (ready_.empty() || interrupted()) break;
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
   }
   return runs;
}

void TaskScheduler::advance(double seconds) {
   assert(mode_ == ClockMode::virtualTime);
   const double target = virtualNow_ + std::max(0.0, seconds);
   runUntilIdle();
   if (interrupted()) return;
   for (;;) {
      double next = std::numeric_limits<double>::infinity();
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
    : scheduler_(&scheduler), priority_(priority), name_(std::move(name)) {
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

void Task::scheduleTaskLowestDelay(double seconds) {
   if (!scheduler_ || isReady_) return; // already due now: nothing is earlier
   double at = scheduler_->now() + std::max(0.0, seconds);
   if (hasTimer_ && timerAt_ <= at) return;
   scheduler_->timerIs(this, at);
}

std::optional<double> Task::expirationTime() const noexcept {
   if (!hasTimer_) return std::nullopt;
   return timerAt_;
}

std::string Task::stringValue() const {
   return Mox::format("taskName: %s, taskPriority: %d, currentExpirationTime: %f", name_.c_str(),
                      priority_, hasTimer_ ? timerAt_ : 0.0);
}

void Task::run() {
   ++runCount_;
   notify(&Notifiee::onTaskRun);
}

} // namespace Kiln
