#include "types/SrTePolicy.h"

#include <algorithm>
#include <vector>

namespace SrTePolicy {

namespace {
// Flags travel as one byte each; anything but 0 or 1 is not a flag.
bool readFlag(AttrLog::Reader& r) {
   uint8_t b = r.u8();
   if (b > 1) throw Mox::RangeError("bool value other than 0 or 1 not allowed");
   return b == 1;
}
} // namespace

// ---- Config

Mox::Ptr<StaticPolicy> Config::policyIs(const PolicyKey& key) {
   return collIsNew(
       policy_, key, [&key] { return staticPolicyFactory(key); }, &Notifiee::onPolicy);
}

Mox::Ptr<StaticPolicy> Config::policy(const PolicyKey& key) const {
   auto it = policy_.find(key);
   return it == policy_.end() ? nullptr : it->second;
}

void Config::dump(std::string& out, int depth) const {
   dumpIndent(out, depth);
   Mox::appendf(out, "enabled: %s\n", Mox::trueFalse(enabled_));
   dumpIndent(out, depth);
   Mox::appendf(out, "specifiedBsidOnly: %s\n", Mox::trueFalse(specifiedBsidOnly_));
   dumpIndent(out, depth);
   Mox::appendf(out, "segmentListSharingEnabled: %s\n", Mox::trueFalse(segmentListSharingEnabled_));
   dumpIndent(out, depth);
   Mox::appendf(out, "useDiscriminatorInTieBreaking: %s\n",
                Mox::trueFalse(useDiscriminatorInTieBreaking_));
   dumpIndent(out, depth);
   Mox::appendf(out, "Policies #%u \n", static_cast<unsigned>(policy_.size()));
   std::vector<const StaticPolicy*> policies;
   for (const auto& [key, p] : policy_) policies.push_back(p.get());
   std::sort(policies.begin(), policies.end(),
             [](const auto* a, const auto* b) { return a->key() < b->key(); });
   for (const StaticPolicy* p : policies) p->dump(out, dumpDeeper(depth));
}

void Config::attrLogWrite(AttrLog::Writer& w) const {
   w.u8(enabled_);
   w.u8(specifiedBsidOnly_);
   w.u8(segmentListSharingEnabled_);
   w.u8(useDiscriminatorInTieBreaking_);
   w.u32(static_cast<uint32_t>(policy_.size()));
   for (const auto& [key, p] : policy_) p->attrLogWrite(w);
}

Mox::Ptr<Config> Config::attrLogRead(AttrLog::Reader& r, const Mox::Name& name) {
   auto config = configFactory(name);
   config->enabled_ = readFlag(r);
   config->specifiedBsidOnly_ = readFlag(r);
   config->segmentListSharingEnabled_ = readFlag(r);
   config->useDiscriminatorInTieBreaking_ = readFlag(r);
   for (uint32_t n = r.u32(); n > 0; --n) {
      auto policy = StaticPolicy::attrLogRead(r);
      config->policy_[policy->key()] = policy;
   }
   return config;
}

Mox::Ptr<Config> configFactory(const Mox::Name& name) { return Mox::make<Config>(name); }

// ---- Status

void Status::dump(std::string& out, int depth) const {
   dumpIndent(out, depth);
   Mox::appendf(out, "agentEnabled: %s\n", Mox::trueFalse(agentEnabled_));
}

Mox::Ptr<Status> Status::attrLogRead(AttrLog::Reader& r, const Mox::Name& name) {
   auto status = statusFactory(name);
   status->agentEnabled_ = readFlag(r);
   return status;
}

Mox::Ptr<Status> statusFactory(const Mox::Name& name) { return Mox::make<Status>(name); }

} // namespace SrTePolicy
