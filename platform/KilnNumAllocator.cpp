#include "platform/KilnNumAllocator.h"

#include <bit>

namespace Kiln {

NumRange::NumRange(Number lo, Number hi) : min(lo), max(hi) {
   if (lo < 0 || lo > hi) throw Mox::RangeError(rangeMessage);
}

NumAllocator::NumAllocator(Mox::Ptr<NumAllocatorConfig> config, Mox::Ptr<NumAllocatorStatus> status,
                           const TaskScheduler& clock)
    : config_(std::move(config)), status_(std::move(status)), clock_(&clock),
      last_(static_cast<uint64_t>(config_->range().max - config_->range().min)) {
   statusUpdate();
}

NumAllocator::~NumAllocator() = default;

NumAllocator::Page* NumAllocator::page(uint64_t offset) const noexcept {
   const uint64_t index = offset >> pageShift;
   if (index == cachedIndex_) return cachedPage_;
   auto it = pages_.find(index);
   if (it == pages_.end()) return nullptr;
   cachedIndex_ = index;
   cachedPage_ = it->second.get();
   return cachedPage_;
}

NumAllocator::Page& NumAllocator::pageOrMake(uint64_t offset) {
   if (Page* p = page(offset)) return *p;
   auto& slot = pages_[offset >> pageShift];
   slot = std::make_unique<Page>();
   cachedIndex_ = offset >> pageShift;
   cachedPage_ = slot.get();
   return *slot;
}

uint64_t NumAllocator::firstFree(uint64_t from) const noexcept {
   uint64_t off = from;
   while (off <= last_) {
      const Page* p = page(off);
      if (!p) return off;
      // Scan the rest of this page a word at a time.
      for (size_t w = (off >> 6) & (pageWords - 1); w < pageWords; ++w) {
         uint64_t avail = ~(p->inUse[w] | p->ageing[w]);
         avail &= ~uint64_t{0} << (off & 63);
         if (avail) return (off & ~uint64_t{63}) + std::countr_zero(avail);
         off = (off & ~uint64_t{63}) + 64;
         if (off > last_ || off == 0) return last_ + 1;
      }
   }
   return last_ + 1;
}

void NumAllocator::statusUpdate() {
   if (!status_) return;
   status_->inUseCountIs(inUse_);
   status_->ageingCountIs(ageing_);
}

Number NumAllocator::getNumber() {
   // The clock is read only when released numbers wait: a fresh number needs no time.
   if (!released_.empty()) {
      const Number aged = takeAgedNumber();
      if (aged != invalidNumber()) return aged;
   }
   const uint64_t off = firstFree(fresh_);
   if (off > last_) {
      fresh_ = off;
      return invalidNumber();
   }
   bitIs(pageOrMake(off).inUse, off, true);
   fresh_ = off + 1;
   ++inUse_;
   statusUpdate();
   return config_->range().min + static_cast<Number>(off);
}

Number NumAllocator::takeAgedNumber() {
   const Duration now = clock_->nowNs();
   const Duration expiry = durationOf(config_->expiryTime());
   while (!released_.empty()) {
      const uint64_t off = released_.front().offset;
      if (!stale_.empty()) {
         auto it = stale_.find(off);
         if (it != stale_.end()) {
            // An older entry of a number reserved while it aged: the number is not free.
            if (--it->second == 0) stale_.erase(it);
            released_.pop_front();
            continue;
         }
      }
      if (now - released_.front().at < expiry) break;
      released_.pop_front();
      Page& p = *page(off);
      bitIs(p.ageing, off, false);
      bitIs(p.inUse, off, true);
      --ageing_;
      ++inUse_;
      statusUpdate();
      return config_->range().min + static_cast<Number>(off);
   }
   return invalidNumber();
}

bool NumAllocator::releaseNumber(Number n) {
   if (!config_->range().contains(n)) return false;
   const uint64_t off = static_cast<uint64_t>(n - config_->range().min);
   Page* p = page(off);
   if (!p || !bit(p->inUse, off)) return false;
   bitIs(p->inUse, off, false);
   bitIs(p->ageing, off, true);
   released_.push_back({off, clock_->nowNs()});
   --inUse_;
   ++ageing_;
   statusUpdate();
   return true;
}

bool NumAllocator::reserveNumber(Number n) {
   if (!config_->range().contains(n)) return false;
   const uint64_t off = static_cast<uint64_t>(n - config_->range().min);
   Page& p = pageOrMake(off);
   if (bit(p.inUse, off)) return false;
   if (bit(p.ageing, off)) {
      bitIs(p.ageing, off, false);
      --ageing_;
      ++stale_[off];
   }
   bitIs(p.inUse, off, true);
   ++inUse_;
   statusUpdate();
   return true;
}

bool NumAllocator::isInUse(Number n) const noexcept {
   if (!config_->range().contains(n)) return false;
   const uint64_t off = static_cast<uint64_t>(n - config_->range().min);
   const Page* p = page(off);
   return p && bit(p->inUse, off);
}

bool NumAllocator::isAgeing(Number n) const noexcept {
   if (!config_->range().contains(n)) return false;
   const uint64_t off = static_cast<uint64_t>(n - config_->range().min);
   const Page* p = page(off);
   return p && bit(p->ageing, off);
}

} // namespace Kiln
