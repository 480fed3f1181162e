// Mox reference counting: intrusive counts (RefCounted, Ptr) with an observable count, so that a
// dedup table can tell the moment only its own references remain.
//
// Guarantees (tests/platform/MoxTest.cpp): a watched reference count calls onRefCountWatched()
// when it falls to the mark, and the object is still deleted when the count reaches zero.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <utility>

namespace Mox {

// ---------------------------------------------------------------------------------------------
// Reference counting

class RefCounted {
 public:
   RefCounted(const RefCounted&) = delete;
   RefCounted& operator=(const RefCounted&) = delete;

   uint32_t refCount() const noexcept { return refs_; }
   void ref() const noexcept { ++refs_; }
   void unref() const noexcept {
      // One compare on the common path: both events lie at or below the watch mark. The object
      // dies at zero even while a watch mark is set (a table that dropped its own references).
      if (--refs_ <= watchAt_) [[unlikely]] {
         if (refs_ == 0) {
            delete this;
         } else if (refs_ == watchAt_) {
            const_cast<RefCounted*>(this)->onRefCountWatched();
         } else {
            // Between zero and the mark: someone released a reference the watcher counts as its
            // own, so the watcher will never hear that its entry is free.
            debugCheck(false, "reference count fell below its watch mark");
         }
      }
   }

 protected:
   RefCounted() = default;
   virtual ~RefCounted() {
      // A holder still points here: the object was destroyed by hand, not by its last release.
      debugCheck(refs_ == 0, "object destroyed while referenced");
   }
   // Checks that cost nothing in release builds.
   static void debugCheck([[maybe_unused]] bool ok, [[maybe_unused]] const char* text) noexcept {
#ifndef NDEBUG
      if (!ok) refCountCheckFailed(text);
#endif
   }
   [[noreturn]] static void refCountCheckFailed(const char* text) noexcept;
   // When the count falls to `count` (non-zero), onRefCountWatched() runs. A dedup table sets it to
   // the number of references its own bookkeeping holds.
   void refCountWatchIs(uint32_t count) noexcept {
      debugCheck(count <= UINT8_MAX, "watch mark out of range");
      watchAt_ = static_cast<uint8_t>(count);
   }
   virtual void onRefCountWatched() {}

 private:
   mutable uint32_t refs_ = 0;
   // A handful of references at most. One byte leaves the rest of the word to a derived class
   // (an entity keeps its dispatch state there), which saves 8 bytes on every entity.
   uint8_t watchAt_ = 0;
};

template <class T>
class Ptr {
 public:
   Ptr() noexcept = default;
   Ptr(std::nullptr_t) noexcept {}
   Ptr(T* p) noexcept : p_(p) {
      if (p_) p_->ref();
   }
   Ptr(const Ptr& o) noexcept : Ptr(o.p_) {}
   Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
   template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
   Ptr(const Ptr<U>& o) noexcept : Ptr(o.get()) {}
   ~Ptr() {
      if (p_) p_->unref();
   }
   Ptr& operator=(Ptr o) noexcept {
      std::swap(p_, o.p_);
      return *this;
   }
   T* get() const noexcept { return p_; }
   T* operator->() const noexcept { return p_; }
   T& operator*() const noexcept { return *p_; }
   explicit operator bool() const noexcept { return p_ != nullptr; }
   bool operator!() const noexcept { return p_ == nullptr; }
   friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.p_ == b.p_; }
   friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.p_ == nullptr; }
   void reset() noexcept { Ptr().swap(*this); }
   void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

 private:
   T* p_ = nullptr;
};

template <class T, class... A>
Ptr<T> make(A&&... args) {
   return Ptr<T>(new T(std::forward<A>(args)...));
}

} // namespace Mox
