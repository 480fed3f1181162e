// InputMirror: keeps one protocol's in-process input table equal to the shared-memory table its
// writer process fills. The core's reactors watch the in-process table as they always have; this
// is the only code that knows the records come from another process.
//
//  - a changed key is looked up in the shared table and copied in (or erased when it is gone);
//    a record equal to the one held is not written again, so the core hears of real changes only;
//  - "everything changed" (just attached, lapped by the ring, a new writer took over) rescans:
//    records that differ are copied, keys the shared table no longer has are erased;
//  - a record or segment that makes no sense throws Vault::Corruption out of drain(), leaving
//    the in-process table as it was before that record;
//  - a drain is one step however large the table (a rescan of 300,000 records takes about half
//    a second): a process that must stop promptly gives it a question to ask every 1024 records
//    (stopWhen); once it says stop, nothing more is taken in and the table stays part way, for a
//    process about to end.
#pragma once

#include <cstddef>
#include <functional>

#include "platform/VaultShm.h"
#include "types/SrTePolicyInput.h"

namespace Agent {

class InputMirror {
 public:
   using SharedInput = Vault::Shm::Reader<SrTePolicy::PolicyId, SrTePolicy::PolicyInputEntry,
                                          SrTePolicy::PolicyInputEntry::maxLen>;
   using SharedInputWriter = Vault::Shm::Writer<SrTePolicy::PolicyId, SrTePolicy::PolicyInputEntry,
                                                SrTePolicy::PolicyInputEntry::maxLen>;

   struct Counts {
      size_t written = 0; // records copied in (new or changed)
      size_t erased = 0;
      size_t rescans = 0;
   };

   InputMirror(SharedInput reader, Mox::Ptr<SrTePolicy::PolicyInput> table)
       : reader_(std::move(reader)), table_(std::move(table)) {}

   // Readable when the shared table changed: call drain() then.
   int fd() const noexcept { return reader_.fd(); }
   // Applies every change since the last drain; what it did, added up.
   Counts drain();
   // Asked as a drain goes; true stops it for good (interrupted()).
   void stopWhen(std::function<bool()> stop) { stop_ = std::move(stop); }
   bool interrupted() const noexcept { return interrupted_; }

   const SharedInput& shared() const noexcept { return reader_; }
   const Mox::Ptr<SrTePolicy::PolicyInput>& table() const noexcept { return table_; }
   const Counts& counts() const noexcept { return counts_; }

 private:
   void copyKey(const SrTePolicy::PolicyId& id);
   void copyRecord(const SrTePolicy::PolicyInputEntry& record);
   void rescan();
   // True once the process wants to stop: asked of stop_ every 1024 records.
   bool stopping();

   SharedInput reader_;
   Mox::Ptr<SrTePolicy::PolicyInput> table_;
   Counts counts_;
   // One record kept for lookups: an entry is several hundred bytes.
   SrTePolicy::PolicyInputEntry scratch_;
   std::function<bool()> stop_;
   uint32_t sinceAsked_ = 0;
   bool interrupted_ = false;
};

} // namespace Agent
