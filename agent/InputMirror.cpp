#include "agent/InputMirror.h"

#include <unordered_set>
#include <vector>

namespace Agent {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyInputEntry;

namespace {

struct IdHash {
   size_t operator()(const PolicyId& id) const noexcept { return id.hash(); }
};

} // namespace

InputMirror::Counts InputMirror::drain() {
   const Counts before = counts_;
   reader_.drain([this](const PolicyId& id) { copyKey(id); }, [this] { rescan(); });
   return Counts{counts_.written - before.written, counts_.erased - before.erased,
                 counts_.rescans - before.rescans};
}

bool InputMirror::stopping() {
   if (interrupted_) return true;
   if (!stop_ || ++sinceAsked_ < 1024) return false;
   sinceAsked_ = 0;
   interrupted_ = stop_();
   return interrupted_;
}

void InputMirror::copyRecord(const PolicyInputEntry& record) {
   if (stopping()) return;
   const PolicyInputEntry* held = table_->policyInputEntryFind(record.key());
   if (held && *held == record) return;
   table_->policyInputEntryIs(record);
   ++counts_.written;
}

void InputMirror::copyKey(const PolicyId& id) {
   if (stopping()) return;
   if (reader_.lookup(id, scratch_)) {
      copyRecord(scratch_);
   } else if (table_->policyInputEntryDel(id)) {
      ++counts_.erased;
   }
}

void InputMirror::rescan() {
   ++counts_.rescans;
   std::unordered_set<PolicyId, IdHash> present;
   present.reserve(reader_.size());
   reader_.forEach([&](const PolicyInputEntry& record) {
      copyRecord(record);
      present.insert(record.key());
      return !interrupted_;
   });
   // Cut short, it has not seen every record: none may be taken for gone.
   if (interrupted_) return;
   std::vector<PolicyId> gone;
   table_->policyInputEntryForEachId([&](const PolicyId& id) {
      if (!present.contains(id)) gone.push_back(id);
   });
   for (const PolicyId& id : gone) {
      if (table_->policyInputEntryDel(id)) ++counts_.erased;
   }
}

} // namespace Agent
