#include <gtest/gtest.h>

#include "platform/Mox.h"

namespace {

// A small entity with one attribute and one keyed collection, as every entity declares them.
class Thing : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Thing> {
    public:
      virtual void onColor() {}
      virtual void onMember(const int&) {}
      virtual void onMember() {}
   };
   static inline int live = 0;
   Thing() { ++live; }
   ~Thing() override { --live; }

   int color() const { return color_; }
   void colorIs(int c) { attrIs(color_, c, &Notifiee::onColor); }
   void memberIs(int k, std::string v) { collIs(member_, k, std::move(v), &Notifiee::onMember); }
   void memberDel(int k) { collDel(member_, k, &Notifiee::onMember); }
   void memberDelAll() { collDelAll(member_, &Notifiee::onMember); }
   const Mox::RbTreeMap<int, std::string>& member() const { return member_; }

 private:
   int color_ = 0;
   Mox::RbTreeMap<int, std::string> member_;
};

struct Log : Thing::Notifiee {
   std::string* out;
   explicit Log(std::string* o) : out(o) {}
   void onColor() override { *out += "c"; }
   void onMember(const int& k) override { *out += std::to_string(k); }
};

TEST(Mox, SettersNotifyOnlyOnChangeAndDelAllOncePerKey) {
   auto t = Mox::make<Thing>();
   std::string seen;
   Log log(&seen);
   log.notifierIs(t);
   t->colorIs(0);
   t->colorIs(5);
   t->colorIs(5);
   EXPECT_EQ(seen, "c");
   t->memberIs(3, "a");
   t->memberIs(1, "b");
   t->memberIs(2, "c");
   t->memberIs(2, "c"); // unchanged value: silent
   t->memberIs(2, "d");
   EXPECT_EQ(seen, "c3122");
   seen.clear();
   t->memberDelAll();
   EXPECT_EQ(seen, "123"); // ordered collection: ascending, one call per key
   t->memberDel(9);
   EXPECT_EQ(seen, "123");
   log.isNotificationActiveIs(false);
   t->colorIs(7);
   EXPECT_EQ(seen, "123");
}

TEST(Mox, ReactorRemovedOrAddedDuringDispatch) {
   auto t = Mox::make<Thing>();
   std::string seen;
   struct Remover : Thing::Notifiee {
      std::unique_ptr<Log>* victim;
      std::unique_ptr<Log>* added;
      std::string* out;
      bool done = false;
      void onColor() override {
         *out += "r";
         if (std::exchange(done, true)) return;
         victim->reset();                     // remove-other-during-dispatch
         *added = std::make_unique<Log>(out); // add-during-dispatch
         (*added)->notifierIs(notifier());
      }
   };
   std::unique_ptr<Log> victim, added;
   Remover r;
   r.victim = &victim;
   r.added = &added;
   r.out = &seen;
   r.notifierIs(t);
   victim = std::make_unique<Log>(&seen);
   victim->notifierIs(t);
   t->colorIs(1);
   EXPECT_EQ(seen, "r"); // the removed one is skipped, the added one waits for the next round
   EXPECT_EQ(t->notifieeCount(), 2u);
   seen.clear();
   t->colorIs(2);
   EXPECT_EQ(seen, "rc");
}

TEST(Mox, EntityGoingAwayUnbindsReactorsAndSelfReleaseIsSafe) {
   int before = Thing::live;
   std::string seen;
   Log log(&seen);
   {
      auto t = Mox::make<Thing>();
      log.notifierIs(t);
      EXPECT_EQ(t->refCount(), 1u);
   }
   EXPECT_EQ(log.notifier(), nullptr);
   EXPECT_EQ(Thing::live, before);

   // A reactor that drops the last reference while being notified.
   struct Dropper : Thing::Notifiee {
      Mox::Ptr<Thing> hold;
      void onColor() override { hold.reset(); }
      void onMember(const int&) override { EXPECT_NE(notifier(), nullptr); }
   } d;
   d.hold = Mox::make<Thing>();
   d.notifierIs(d.hold);
   d.hold->colorIs(3);
   EXPECT_EQ(d.notifier(), nullptr);
   EXPECT_EQ(Thing::live, before);
}

// A dedup table's member: the table keeps one reference and watches for the moment it is the
// only holder left.
struct Interned : Mox::RefCounted {
   static inline int live = 0;
   int* watched;
   explicit Interned(int* w) : watched(w) {
      ++live;
      refCountWatchIs(1);
   }
   ~Interned() override { --live; }
   void onRefCountWatched() override { ++*watched; }
};

TEST(Mox, WatchedCountFiresAtMarkAndObjectStillDiesAtZero) {
   int watched = 0;
   const int before = Interned::live;
   Mox::Ptr<Interned> table = Mox::make<Interned>(&watched);
   {
      Mox::Ptr<Interned> user1 = table, user2 = table;
      user1.reset();
      EXPECT_EQ(watched, 0);
   }
   EXPECT_EQ(watched, 1); // only the table's reference is left
   table.reset();         // the table lets go: below the mark, and gone
   EXPECT_EQ(Interned::live, before);
}

TEST(Mox, DeletingByAKeyThatLivesInTheCollection) {
   auto t = Mox::make<Thing>();
   std::string seen;
   Log log(&seen);
   log.notifierIs(t);
   t->memberIs(4, "a");
   t->memberIs(8, "b");
   seen.clear();
   // The key reference points into the member being erased; reactors must still get the key.
   while (!t->member().empty()) t->memberDel(t->member().begin()->first);
   EXPECT_EQ(seen, "48");
}

} // namespace
