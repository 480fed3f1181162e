#include "publish/SrTePolicyConflictingPolicies.h"

#include <vector>

namespace SrTePolicy {

void ConflictingPolicies::competitorDelAll() {
   while (!competitor_.empty()) {
      const PolicyKey key = *competitor_.begin(); // reactors get a key that outlives the member
      competitorDel(key);
   }
}

void ConflictingPolicies::dump(std::string& out, int depth) const {
   Mox::appendf(out, "%*cbindingSid: %u \n", depth, ' ', bindingSid_.value());
   Mox::appendf(out, "%*cchosen: %s\n", depth, ' ', chosen_.stringValue().c_str());
   Mox::appendf(out, "%*ccompetitors #%u \n", depth, ' ',
                static_cast<unsigned>(competitor_.size()));
   for (const PolicyKey& key : Mox::sortedKeys(competitor_)) {
      Mox::appendf(out, "%*c%s\n", depth + 2, ' ', key.stringValue().c_str());
   }
}

} // namespace SrTePolicy
