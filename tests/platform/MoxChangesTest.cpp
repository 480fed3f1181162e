#include <gtest/gtest.h>

#include <cstdint>

#include "platform/Mox.h"
#include "platform/MoxChanges.h"
#include "platform/Vault.h"

namespace {

class Gadget : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Gadget> {
    public:
      virtual void onSize() {}
      virtual void onPart(const int&) {}
   };
   void sizeIs(int s) { attrIs(size_, s, &Notifiee::onSize); }
   void partIs(int k, int v) { collIs(part_, k, v, &Notifiee::onPart); }
   void partDel(int k) { collDel(part_, k, &Notifiee::onPart); }
   void partDelAll() { collDelAll(part_, &Notifiee::onPart); }

 private:
   int size_ = 0;
   Mox::RbTreeMap<int, int> part_;
};

struct Watcher : Gadget::Notifiee {
   int seen = 0;
   void onSize() override { ++seen; }
   void onPart(const int&) override { ++seen; }
};

// How far the count moved while `body` ran.
template <class F>
uint64_t changesIn(F&& body) {
   const uint64_t before = Mox::changeCount();
   body();
   return Mox::changeCount() - before;
}

TEST(MoxChanges, EveryNotifiedChangeCountsAndNoOpsDoNot) {
   auto g = Mox::make<Gadget>();
   // Nobody listens yet: a change still counts, since a reader may look at the entity later.
   EXPECT_EQ(changesIn([&] { g->sizeIs(3); }), 1u);
   EXPECT_EQ(changesIn([&] { g->sizeIs(3); }), 0u);
   Watcher w;
   w.notifierIs(g);
   EXPECT_EQ(changesIn([&] {
                g->partIs(1, 10);
                g->partIs(2, 20);
             }),
             2u);
   EXPECT_EQ(changesIn([&] { g->partIs(1, 10); }), 0u); // same value
   EXPECT_EQ(changesIn([&] { g->partDel(7); }), 0u);    // absent key
   EXPECT_EQ(changesIn([&] { g->partIs(1, 11); }), 1u);
   EXPECT_EQ(changesIn([&] { g->partDelAll(); }), 2u); // one per removed key
   EXPECT_EQ(changesIn([&] { g->partDelAll(); }), 0u);
   // A reactor whose notifications are off does not hide the change from the count.
   w.isNotificationActiveIs(false);
   EXPECT_EQ(changesIn([&] { g->sizeIs(4); }), 1u);
   EXPECT_EQ(w.seen, 5);
}

struct Rec {
   uint32_t id = 0;
   uint32_t value = 0;
   Rec() = default;
   explicit Rec(uint32_t k) : id(k) {}
   Rec(uint32_t k, uint32_t v) : id(k), value(v) {}
   const uint32_t& key() const { return id; }
};

TEST(MoxChanges, TableWritesCountAndReadsDoNot) {
   Vault::Table<uint32_t, Rec> table("recs", {"is", "del", "notify"});
   EXPECT_EQ(changesIn([&] { table.insert(Rec(1, 5)); }), 1u);
   EXPECT_EQ(changesIn([&] { table.insert(Rec(1, 6)); }), 1u); // a replace is a write
   EXPECT_EQ(changesIn([&] {
                (void)table.find(1);
                (void)table.lookup(2);
                for (const Rec& r : table) (void)r;
             }),
             0u);
   // Written in place: counted when fetched (the reference may be written before any commit),
   // and again at the commit.
   uint64_t fetched = changesIn([&] { table.writable(2).value = 9; });
   EXPECT_EQ(fetched, 1u);
   EXPECT_EQ(changesIn([&] { table.commit(*table.find(2)); }), 1u);
   EXPECT_EQ(changesIn([&] { table.erase(3); }), 0u); // absent
   EXPECT_EQ(changesIn([&] { table.erase(1); }), 1u);
   EXPECT_EQ(changesIn([&] { table.mountStatusIs(Vault::MountStatus::mounted); }), 0u);
   EXPECT_EQ(changesIn([&] { table.mountStatusIs(Vault::MountStatus::unmounted); }), 1u);
   EXPECT_EQ(changesIn([&] { table.clear(); }), 1u); // the one record left
}

} // namespace
