#include "bgp/TableSync.h"

namespace SrTeBgp {

using namespace SrTePolicy;

void TableSync::counted() { status_.recordsHeld = writer_.size(); }

void TableSync::report(const PathDecoding& path) {
   if (path.reports.empty()) return;
   ++status_.routesRefused;
   const std::string who = path.id ? path.id->stringValue() + ": " : std::string();
   for (const std::string& r : path.reports) status_.reasonIs(who + r);
}

void TableSync::write(const PolicyInputEntry& entry) {
   if (writer_.lookup(entry.key(), held_) && held_ == entry) {
      ++status_.recordsUnchanged;
      return;
   }
   try {
      writer_.insert(entry);
      ++status_.recordsWritten;
   } catch (const Vault::Shm::TableFull& e) {
      // The route is lost to the core, not the adapter: the others go on.
      status_.reasonIs(entry.key().stringValue() + ": not written: " + e.what());
      status_.lastErrorIs(e.what());
   }
}

void TableSync::erase(const PolicyId& id) {
   if (writer_.erase(id)) ++status_.recordsErased;
}

void TableSync::apply(const PathDecoding& path) {
   ++status_.routesReceived;
   report(path);
   if (!path.id) return;
   stale_.erase(*path.id);
   if (path.withdraw) {
      erase(*path.id);
   } else if (path.entry) {
      write(*path.entry);
   }
}

void TableSync::snapshot(const std::vector<PathDecoding>& paths) {
   Writer::Batch batch(writer_);
   std::unordered_set<PolicyId, IdHash> present;
   present.reserve(paths.size());
   for (const PathDecoding& p : paths) {
      if (p.id && !p.withdraw) present.insert(*p.id);
   }
   // What the table holds and the snapshot lacks: maybe gone, maybe not received yet.
   stale_.clear();
   writer_.forEach([&](const PolicyInputEntry& e) {
      if (!present.contains(e.key())) stale_.insert(e.key());
   });
   for (const PathDecoding& p : paths) apply(p);
   resynchronising_ = true;
   ++status_.connects;
   status_.staleRecords = stale_.size();
   counted();
}

void TableSync::changes(const std::vector<PathDecoding>& paths) {
   Writer::Batch batch(writer_);
   for (const PathDecoding& p : paths) apply(p);
   status_.staleRecords = stale_.size();
   counted();
}

size_t TableSync::complete() {
   Writer::Batch batch(writer_);
   const size_t n = stale_.size();
   for (const PolicyId& id : stale_) erase(id);
   stale_.clear();
   resynchronising_ = false;
   status_.staleRecords = 0;
   counted();
   return n;
}

void SettleWatch::restart(Clock::time_point now) {
   snapshotAt_ = now;
   movedAt_ = now;
   last_ = Sample{};
}

bool SettleWatch::whole(const Sample& sample, Clock::time_point now) {
   if (now - snapshotAt_ >= staleHold_) return true;
   if (!sample.established || sample.updatesIn != last_.updatesIn ||
       sample.pathsSeen != last_.pathsSeen) {
      movedAt_ = now;
   }
   last_ = sample;
   return sample.established && now - movedAt_ >= settle_;
}

} // namespace SrTeBgp
