#include "agent/InputMirror.h"

#include <vector>

namespace Agent {

using SrTePolicy::PolicyId;
using SrTePolicy::PolicyInputEntry;

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
   size_t copied = 0;
   reader_.forEach([&](const PolicyInputEntry& record) {
      copyRecord(record);
      ++copied;
      return !interrupted_;
   });
   // Cut short, it has not seen every record: none may be taken for gone.
   if (interrupted_) return;
   // The table now holds every key read; as many entries as that means none is left over (at
   // a first mount, always), and no key needs looking up.
   if (table_->policyInputEntryCount() == copied) return;
   std::vector<PolicyId> gone;
   table_->policyInputEntryForEachId([&](const PolicyId& id) {
      if (!reader_.lookup(id, scratch_)) gone.push_back(id);
   });
   for (const PolicyId& id : gone) {
      if (table_->policyInputEntryDel(id)) ++counts_.erased;
   }
}

} // namespace Agent
