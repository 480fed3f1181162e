// The table of members that hold their own keys: found by key across growth, iterated as (key,
// pointer), and a member removed through an entity stays readable while reactors hear of it.
#include "platform/MoxKeyed.h"

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "platform/MoxPool.h"

namespace {

class Item : public Mox::Entity {
 public:
   explicit Item(std::string name, int value) : name_(std::move(name)), value_(value) {}
   const std::string& name() const noexcept { return name_; }
   int value() const noexcept { return value_; }

 private:
   std::string name_;
   int value_;
};

struct ItemName {
   const std::string& operator()(const Item& i) const noexcept { return i.name(); }
};
using Table = Mox::KeyedTable<Mox::Ptr<Item>, ItemName>;

// An entity owning a table, with the usual collection bodies.
class Shelf : public Mox::Entity {
 public:
   class Notifiee : public Mox::NotifieeOf<Shelf> {
    public:
      virtual void onItem(const std::string&) {}
   };
   const Table& item() const noexcept { return item_; }
   Item* itemIs(const std::string& name, int value) {
      auto [it, made] = item_.findOrInsert(name, [&] { return Mox::make<Item>(name, value); });
      if (made) notify(&Notifiee::onItem, name);
      return it->second.get();
   }
   void itemDel(const std::string& name) { collDel(item_, name, &Notifiee::onItem); }
   void itemDelAll() { collDelAll(item_, &Notifiee::onItem); }

 private:
   Table item_;
};

TEST(MoxKeyedTable, FindsMembersByTheirOwnKeysAcrossGrowthAndIteratesAsPairs) {
   Table table;
   std::map<std::string, const Item*> made;
   for (int i = 0; i < 5000; ++i) { // several rehashes: each reads keys from the members
      const std::string name = "item-" + std::to_string(i);
      int calls = 0;
      auto [it, inserted] = table.findOrInsert(name, [&] {
         ++calls;
         return Mox::make<Item>(name, i);
      });
      ASSERT_TRUE(inserted);
      ASSERT_EQ(calls, 1);
      made[name] = it->second.get();
   }
   // Asking again makes nothing and finds the same object.
   auto [again, inserted] = table.findOrInsert("item-42", [&]() -> Mox::Ptr<Item> {
      ADD_FAILURE() << "made twice";
      return nullptr;
   });
   EXPECT_FALSE(inserted);
   EXPECT_EQ(again->second.get(), made["item-42"]);
   EXPECT_FALSE(table.insert(Mox::make<Item>("item-7", -1)).second) << "second member for a key";
   // A replacement takes the old member's place; the old one is let go.
   Mox::Ptr<Item> old = table.get("item-8");
   table.assign(Mox::make<Item>("item-8", -8));
   EXPECT_EQ(table.get("item-8")->value(), -8);
   EXPECT_EQ(old->refCount(), 1u) << "the table still holds the replaced member";
   made["item-8"] = table.get("item-8");
   EXPECT_EQ(table.assign(Mox::make<Item>("item-new", 1))->second->value(), 1);
   EXPECT_EQ(table.erase("item-new"), 1u);

   size_t seen = 0;
   for (const auto& [name, item] : table) {
      EXPECT_EQ(made.at(name), item.get());
      EXPECT_EQ(&name, &item->name()) << "the key is read from the member, not copied";
      ++seen;
   }
   EXPECT_EQ(seen, 5000u);
   // The batched walk meets the same members in the same order, the last partial batch included.
   std::vector<const Item*> walked, iterated;
   table.forEach([&](const std::string& name, const Mox::Ptr<Item>& item) {
      EXPECT_EQ(&name, &item->name());
      walked.push_back(item.get());
   });
   for (const auto& [name, item] : table) iterated.push_back(item.get());
   EXPECT_EQ(walked, iterated);
   EXPECT_EQ(table.get("item-4999")->value(), 4999);
   EXPECT_EQ(table.get("item-5000"), nullptr);
   EXPECT_EQ(table.erase("item-0"), 1u);
   EXPECT_EQ(table.erase("item-0"), 0u);
   EXPECT_FALSE(table.contains("item-0"));
   EXPECT_EQ(Mox::sortedKeys(table).front(), "item-1");
}

TEST(MoxKeyedTable, AMemberRemovedThroughItsEntityOutlivesTheNotificationThatNamesIt) {
   auto shelf = Mox::make<Shelf>();
   // The reactor reads the member while it hears of its removal: the key it is handed lives in
   // the member, which the removal keeps alive until every reactor has run.
   struct Watcher : Shelf::Notifiee {
      std::string log;
      void onItem(const std::string& name) override {
         const Item* item = notifier()->item().get(name);
         log += name + (item ? "+" : "-") + " ";
      }
   } watcher;
   watcher.notifierIs(shelf);

   Mox::Ptr<Item> held = Mox::make<Item>("kept", 1);
   shelf->itemIs("a", 1);
   shelf->itemIs("b", 2);
   shelf->itemDel("a"); // the table held the last reference
   shelf->itemDel("missing");
   EXPECT_EQ(watcher.log, "a+ b+ a- ");
   shelf->itemDelAll();
   EXPECT_EQ(watcher.log, "a+ b+ a- b- ");
   EXPECT_TRUE(shelf->item().empty());
}

// Reactors pooled and keyed by what they watch: the pointer type carries a deleter.
struct Watch {
   explicit Watch(Mox::Ptr<const Item> i) : item(std::move(i)) {}
   Mox::Ptr<const Item> item;
};
struct WatchName {
   const std::string& operator()(const Watch& w) const noexcept { return w.item->name(); }
};

TEST(MoxKeyedTable, HoldsPooledObjectsAndGivesThemBackOnErase) {
   Mox::Pool<Watch, 8> pool;
   {
      Mox::KeyedTable<Mox::Pool<Watch, 8>::Ptr, WatchName> table;
      for (int i = 0; i < 20; ++i) {
         table.insert(pool.make(Mox::make<Item>("w" + std::to_string(i), i)));
      }
      EXPECT_EQ(pool.live(), 20u);
      auto taken = table.take(table.find("w3"));
      EXPECT_EQ(taken.first, "w3");
      EXPECT_EQ(taken.second->item->value(), 3);
      EXPECT_EQ(table.size(), 19u);
      EXPECT_EQ(pool.live(), 20u) << "handed over, not destroyed";
      table.erase("w4");
      EXPECT_EQ(pool.live(), 19u);
   }
   EXPECT_EQ(pool.live(), 0u);
}

// Changing a table while it is walked is a bug that a flat table hides until it grows: an
// iterator used after the change, or a change inside forEach, aborts wherever the epoch is
// compiled in. Here it is compiled in explicitly, so every build checks it.
TEST(MoxKeyedTableDeathTest, ATableChangedWhileWalkedAbortsWhereTheEpochIsCompiledIn) {
   GTEST_FLAG_SET(death_test_style, "threadsafe");
   using Checked = Mox::KeyedTable<Mox::Ptr<Item>, ItemName, Mox::DebugEpochBase<true>>;
   Checked t;
   for (int i = 0; i < 4; ++i) t.insert(Mox::make<Item>("i" + std::to_string(i), i));
   // Lookups and walks that change nothing are fine, and so is an iterator taken after a change.
   int sum = 0;
   t.forEach([&](const std::string&, const Mox::Ptr<Item>& item) { sum += item->value(); });
   EXPECT_EQ(sum, 6);
   auto it = t.find("i2");
   ASSERT_NE(it, t.end());
   EXPECT_EQ(it->second->value(), 2);
   t.erase("i3");
   it = t.find("i2");
   EXPECT_EQ(it->second->value(), 2);
   // An insert that finds its key changes nothing either.
   EXPECT_FALSE(t.insert(Mox::make<Item>("i1", 9)).second);
   EXPECT_EQ(it->second->value(), 2);

   EXPECT_DEATH(
       {
          auto stale = t.begin();
          t.insert(Mox::make<Item>("new", 7));
          ++stale;
       },
       "table changed while it was walked");
   EXPECT_DEATH(t.forEach([&](const std::string& k, const Mox::Ptr<Item>&) {
      if (k == "i0") t.erase("i1");
   }),
                "table changed while it was walked");
   EXPECT_DEATH(
       {
          auto stale = t.find("i0");
          t.findOrInsert("i9", [] { return Mox::make<Item>("i9", 9); });
          t.erase(stale);
       },
       "table changed while it was walked");
}

// Where it is compiled out it costs nothing: neither the table nor its iterators grow.
TEST(MoxKeyedTable, TheEpochCompiledOutCostsNoSpace) {
   using Plain = Mox::KeyedTable<Mox::Ptr<Item>, ItemName, Mox::DebugEpochBase<false>>;
   using Checked = Mox::KeyedTable<Mox::Ptr<Item>, ItemName, Mox::DebugEpochBase<true>>;
   EXPECT_EQ(sizeof(Plain) + sizeof(uint64_t), sizeof(Checked));
   EXPECT_EQ(sizeof(Plain::const_iterator) + sizeof(void*) + sizeof(uint64_t),
             sizeof(Checked::const_iterator));
#ifdef NDEBUG
   EXPECT_EQ(sizeof(Table), sizeof(Plain));
#else
   EXPECT_EQ(sizeof(Table), sizeof(Checked));
#endif
}

} // namespace
