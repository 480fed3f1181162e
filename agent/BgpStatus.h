// BgpStatus: what the BGP protocol adapter (`srte bgp`) tells about itself, one record in the
// router's shared table "bgpStatus", which the adapter writes and `show bgp` reads from any
// process. Counters are those of the adapter process that writes the record: a restarted adapter
// starts them from zero, so "records written" after a restart is exactly the churn it caused.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "platform/VaultShm.h"

namespace Agent {

inline constexpr std::string_view bgpStatusTable = "bgpStatus";

// The one key of the table.
struct BgpStatusKey {
   uint32_t id = 1;
   uint32_t hash() const noexcept { return id; }
   friend bool operator==(const BgpStatusKey&, const BgpStatusKey&) = default;
};

enum class BgpConnection : uint32_t {
   connecting,      // no snapshot from the speaker yet
   resynchronising, // snapshot taken; records it lacks wait for the speaker's table to fill
   synchronised,    // following the speaker's changes
   disconnected,    // lost the speaker; the records stay while it reconnects
   stopped,         // the adapter ended; the records stay for the next one
};
std::string bgpConnectionName(BgpConnection c);

struct BgpStatus {
   static constexpr size_t reasonSlots = 8;
   static constexpr size_t textLen = 160;

   BgpStatusKey key_;
   BgpConnection connection = BgpConnection::connecting;
   uint32_t pid = 0;
   uint64_t connects = 0;         // snapshots taken
   uint64_t routesReceived = 0;   // SR Policy paths received, snapshots and changes
   uint64_t recordsWritten = 0;   // records inserted or replaced
   uint64_t recordsErased = 0;    // records deleted (withdrawn, or gone after a resynchronisation)
   uint64_t recordsUnchanged = 0; // paths equal to the record held: nothing written
   uint64_t routesRefused = 0;    // paths with something left out or refused
   uint64_t recordsHeld = 0;      // records in the input table
   uint64_t staleRecords = 0;     // records absent from the last snapshot, not yet deleted
   int64_t changedAtMs = 0;       // when the connection state last changed, Unix time
   uint64_t reasonsTold = 0;      // reasons ever recorded; the last ones are in `reasons`
   char speaker[64] = {};
   char lastError[textLen] = {};
   char reasons[reasonSlots][textLen] = {};

   const BgpStatusKey& key() const noexcept { return key_; }

   static void copyText(char* to, size_t len, std::string_view text) {
      const size_t n = std::min(len - 1, text.size());
      std::memcpy(to, text.data(), n);
      std::memset(to + n, 0, len - n);
   }
   void speakerIs(std::string_view s) { copyText(speaker, sizeof speaker, s); }
   void lastErrorIs(std::string_view s) { copyText(lastError, sizeof lastError, s); }
   void reasonIs(std::string_view s) {
      copyText(reasons[reasonsTold % reasonSlots], textLen, s);
      ++reasonsTold;
   }
};

using BgpStatusWriter = Vault::Shm::Writer<BgpStatusKey, BgpStatus>;
using BgpStatusReader = Vault::Shm::Reader<BgpStatusKey, BgpStatus>;

// A table of one record needs few slots.
inline Vault::Shm::Geometry bgpStatusGeometry() {
   Vault::Shm::Geometry g;
   g.capacity = 4;
   g.ringCapacity = 64;
   return g;
}

} // namespace Agent
