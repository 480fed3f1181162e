// Watches every published table of a router from another process, key by key, as forwarding
// would: what an agent's start or stop changed there.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "agent/PublishedRecords.h"
#include "platform/VaultShm.h"

namespace TestSupport {

class PublishedWatch {
 public:
   explicit PublishedWatch(const std::string& router) {
      Agent::Published::forEachCodec([&]<class C>(C) {
         auto r = std::make_shared<Vault::Shm::Reader<typename C::Key, typename C::Record>>(
             router, C::table);
         r->drain([](const auto&) {}, [] {}); // attached
         drains_.push_back([r] {
            size_t keys = 0;
            r->drain([&](const auto&) { ++keys; }, [] {});
            return keys;
         });
      });
   }
   // Keys told changed since the last look, over every table (a new writer's "rescan" is not a
   // change of any key).
   size_t changedKeys() {
      size_t n = 0;
      for (auto& d : drains_) n += d();
      return n;
   }

 private:
   std::vector<std::function<size_t()>> drains_;
};

} // namespace TestSupport
