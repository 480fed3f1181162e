#include "platform/Mox.h"

#include "platform/Assert.h"

#include <algorithm>
#include <cstdio>

namespace Mox {

void RefCounted::refCountCheckFailed(const char* text) noexcept {
   assertionFailed(text, __FILE__, __LINE__);
}

NotifieeBase::~NotifieeBase() { bind(nullptr); }

void NotifieeBase::bind(Entity* entity) {
   if (entity == notifier_) return;
   if (notifier_) notifier_->detach(this);
   notifier_ = entity;
   if (notifier_) notifier_->attach(this);
}

Entity::~Entity() {
   if (reactors_.empty()) return;
   for (NotifieeBase* r : reactors_) {
      if (!r) continue;
      r->notifier_ = nullptr;
   }
   // Tell them after all are unbound, so a reactor that rebinds elsewhere does not touch us.
   auto items = std::move(reactors_);
   reactors_.clear();
   for (NotifieeBase* r : items) {
      if (r) r->onNotifierDeleted();
   }
}

size_t Entity::notifieeCount() const noexcept {
   return std::count_if(reactors_.begin(), reactors_.end(),
                        [](NotifieeBase* r) { return r != nullptr; });
}

void Entity::attach(NotifieeBase* n) { reactors_.push_back(n); }

void Entity::detach(NotifieeBase* n) {
   auto& items = reactors_;
   auto it = std::find(items.begin(), items.end(), n);
   if (it == items.end()) return;
   if (dispatchDepth_ > 0) {
      *it = nullptr; // compacted when the outermost dispatch ends
      reactorHoles_ = true;
   } else {
      items.erase(it);
   }
}

void Entity::compactReactors() {
   auto& items = reactors_;
   items.erase(std::remove(items.begin(), items.end(), nullptr), items.end());
   reactorHoles_ = false;
}

std::string vformat(const char* fmt, va_list args) {
   char buf[512];
   va_list copy;
   va_copy(copy, args);
   int n = std::vsnprintf(buf, sizeof buf, fmt, copy);
   va_end(copy);
   if (n < 0) return {};
   if (static_cast<size_t>(n) < sizeof buf) return std::string(buf, n);
   std::string out(n, '\0');
   std::vsnprintf(out.data(), n + 1, fmt, args);
   return out;
}

std::string format(const char* fmt, ...) {
   va_list args;
   va_start(args, fmt);
   std::string s = vformat(fmt, args);
   va_end(args);
   return s;
}

void appendf(std::string& out, const char* fmt, ...) {
   va_list args;
   va_start(args, fmt);
   out += vformat(fmt, args);
   va_end(args);
}

} // namespace Mox
