// Watches every published table of a router from another process, key by key, as forwarding
// would: what an agent's start or stop changed there.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
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

// Per published table of `router`: its record count and a sum of its records' hashes, the same
// whatever the order. Cheap where comparing by meaning costs seconds (millions of records); two
// reads agree when every record is there, byte for byte, and no other is.
inline std::map<std::string, std::pair<size_t, uint64_t>>
publishedDigest(const std::string& router) {
   std::map<std::string, std::pair<size_t, uint64_t>> digest;
   Agent::Published::forEachCodec([&]<class C>(C) {
      Vault::Shm::Reader<typename C::Key, typename C::Record> reader(router, C::table);
      auto& [records, sum] = digest[C::table];
      reader.forEach([&](const typename C::Record& r) {
         ++records;
         sum += std::hash<std::string_view>{}(
             std::string_view(reinterpret_cast<const char*>(&r), sizeof r));
      });
   });
   return digest;
}

} // namespace TestSupport
