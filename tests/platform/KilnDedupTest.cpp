#include <gtest/gtest.h>

#include <string>

#include "platform/KilnDedup.h"

namespace {

// A deduplicated string, counting live instances so that the test can end on "nothing leaked".
struct Word : Kiln::DedupHandle {
   static inline int live = 0;
   std::string text;
   explicit Word(std::string t) : text(std::move(t)) { ++live; }
   ~Word() override { --live; }
   bool compare(const Kiln::DedupHandle& o) const override {
      return static_cast<const Word&>(o).text == text;
   }
   uint32_t hash() const override { return static_cast<uint32_t>(std::hash<std::string>{}(text)); }
};

// Keeps one extra reference per entry (as a lifetime notifier does) and logs the callbacks.
struct Keeper : Kiln::DedupHashTableLifeTimeNotifiee {
   std::string log;
   std::vector<Mox::Ptr<Kiln::DedupHandle>> held;
   uint32_t referencesKeptPerEntry() const noexcept override { return 1; }
   void handleInsert(const Mox::Ptr<Kiln::DedupHandle>& h) override {
      log += "+" + static_cast<Word&>(*h).text + " ";
      held.push_back(h);
   }
   void handleRemove(Kiln::DedupHandle* h) override {
      log += "-" + static_cast<Word*>(h)->text + " ";
      std::erase_if(held, [h](const auto& p) { return p.get() == h; });
   }
   void handleNotificationStop(Kiln::DedupHashTable&) override {
      while (!held.empty()) handleRemove(held.front().get());
   }
};

Mox::Ptr<Word> intern(Kiln::DedupHashTable& t, const std::string& s) {
   auto canonical = t.insert(Mox::make<Word>(s));
   return Mox::Ptr<Word>(static_cast<Word*>(canonical.get()));
}

TEST(KilnDedup, InternsByContentAndWithdrawsOnLastUserRelease) {
   const int before = Word::live;
   {
      Keeper keeper;
      auto table = Mox::make<Kiln::DedupHashTable>();
      table->lifeTimeNotifieeIs(&keeper);

      auto a = intern(*table, "alpha");
      auto a2 = intern(*table, "alpha");
      auto b = intern(*table, "beta");
      EXPECT_EQ(a.get(), a2.get());
      EXPECT_EQ(keeper.log, "+alpha +beta ");
      EXPECT_EQ(Word::live - before, 2); // the second candidate died with its caller's reference
      EXPECT_EQ(a->refCount(), 4u);      // two users, the table, the keeper

      Word probe("alpha");
      EXPECT_EQ(table->lookup(probe).get(), a.get());
      Word missing("gamma");
      EXPECT_EQ(table->lookup(missing), nullptr);
      EXPECT_EQ(table->size(), 2u); // lookups never insert

      a.reset();
      EXPECT_EQ(keeper.log, "+alpha +beta ");
      a2.reset(); // the last user: removed at once, and destroyed since nothing else holds it
      EXPECT_EQ(keeper.log, "+alpha +beta -alpha ");
      EXPECT_EQ(table->size(), 1u);
      auto again = intern(*table, "alpha");
      EXPECT_EQ(keeper.log, "+alpha +beta -alpha +alpha ");

      // Stopping notifications withdraws what is left; users keep working copies.
      table->notificationStop();
      EXPECT_EQ(keeper.log, "+alpha +beta -alpha +alpha -beta -alpha ");
      EXPECT_EQ(table->size(), 0u);
      EXPECT_FALSE(b->isInDedupTable());
      EXPECT_EQ(b->text, "beta");
   }
   EXPECT_EQ(Word::live, before);
}

#ifndef NDEBUG
TEST(KilnDedupDeathTest, MiscountedBookkeepingIsCaughtInDebugBuilds) {
   // A notifiee that claims two references per entry but keeps one would have its entries leave
   // while a user still holds them.
   struct Overclaiming : Keeper {
      uint32_t referencesKeptPerEntry() const noexcept override { return 2; }
   };
   EXPECT_DEATH(
       {
          Overclaiming keeper;
          auto table = Mox::make<Kiln::DedupHashTable>();
          table->lifeTimeNotifieeIs(&keeper);
          Mox::Ptr<Kiln::DedupHandle> word = Mox::make<Word>("alpha"); // one user reference
          table->insert(word);
       },
       "new dedup entry held by no user");
}
#endif

TEST(KilnDedup, TableGoingFirstLeavesUsersWithPlainObjects) {
   const int before = Word::live;
   Mox::Ptr<Word> w;
   {
      auto table = Mox::make<Kiln::DedupHashTable>();
      w = intern(*table, "delta");
      EXPECT_TRUE(w->isInDedupTable());
   }
   EXPECT_FALSE(w->isInDedupTable());
   EXPECT_EQ(w->refCount(), 1u);
   w.reset();
   EXPECT_EQ(Word::live, before);
}

} // namespace
