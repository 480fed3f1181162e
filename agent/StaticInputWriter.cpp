#include "agent/StaticInputWriter.h"

#include <algorithm>

namespace Agent {

using namespace SrTePolicy;

class StaticInputWriter::MoxConfig : public Mox::Reactor<Config::Notifiee, StaticInputWriter> {
 public:
   using Reactor::Reactor;
   void onPolicy(const PolicyKey& key) override { owner().policyChanged(key); }
   void onPolicy() override { owner().allPoliciesChanged(); }
};

class StaticInputWriter::MoxInputSource
    : public Mox::Reactor<PolicyInputSource::Notifiee, StaticInputWriter> {
 public:
   using Reactor::Reactor;
   void onPolicyInput(const Protocol& p) override {
      if (p == StaticInputWriter::protocol) owner().tableChanged();
   }
   void onPolicyInput() override { owner().tableChanged(); }
};

class StaticInputWriter::MoxStaticPolicy
    : public Mox::Reactor<StaticPolicy::Notifiee, StaticInputWriter> {
 public:
   MoxStaticPolicy(StaticInputWriter& w, const PolicyKey& key) : Reactor(w), key_(key) {}
   void onBindingSid() override { owner().policyChanged(key_); }
   void onCandidatePath(const Preference&) override { owner().policyChanged(key_); }
   void onCandidatePath() override { owner().policyChanged(key_); }

 private:
   PolicyKey key_;
};

class StaticInputWriter::MoxCandidatePath
    : public Mox::Reactor<CandidatePath::Notifiee, StaticInputWriter> {
 public:
   MoxCandidatePath(StaticInputWriter& w, const PolicyKey& key) : Reactor(w), key_(key) {}
   void onStaticSegmentList(const Ipkit::MplsLabelOperation&) override {
      owner().policyChanged(key_);
   }
   void onStaticSegmentList() override { owner().policyChanged(key_); }

 private:
   PolicyKey key_;
};

StaticInputWriter::PolicyWatch::PolicyWatch() = default;
StaticInputWriter::PolicyWatch::PolicyWatch(PolicyWatch&&) noexcept = default;
StaticInputWriter::PolicyWatch::~PolicyWatch() = default;

StaticInputWriter::StaticInputWriter(const Mox::Ptr<Config>& config,
                                     const Mox::Ptr<PolicyInputSource>& source)
    : config_(config), source_(source), moxConfig_(std::make_unique<MoxConfig>(*this, config_)),
      moxInputSource_(std::make_unique<MoxInputSource>(*this, source_)) {
   allPoliciesChanged();
   tableChanged();
}

StaticInputWriter::~StaticInputWriter() = default;

PolicyInputEntry StaticInputWriter::recordOf(const StaticPolicy& policy,
                                             const CandidatePath& path) {
   PolicyInputEntry e(PolicyId(policy.key(), protocol, Discriminator(path.preference().value)));
   e.preferenceIs(path.preference());
   e.bindingSidIs(policy.bindingSid());
   uint32_t slot = 0;
   for (const auto& [labels, list] : path.staticSegmentListByIndex()) {
      // The record holds 16; the host refuses a 17th, and a configuration from elsewhere keeps
      // its first 16 in index order.
      if (slot == PolicyInputEntry::segmentListCapacity) break;
      e.segmentListIs(SegmentListIndex(slot++), WeightedSegList(list.weight, labels));
   }
   return e;
}

void StaticInputWriter::allPoliciesChanged() {
   std::set<PolicyKey> keys;
   for (const auto& [key, policy] : config_->policy()) keys.insert(key);
   for (const auto& [key, watch] : watches_) keys.insert(key);
   for (const auto& key : keys) policyChanged(key);
}

void StaticInputWriter::policyChanged(const PolicyKey& key) {
   Mox::Ptr<StaticPolicy> policy = config_->policy(key);
   if (!policy) {
      watches_.erase(key);
   } else {
      PolicyWatch& watch = watches_[key];
      if (!watch.policy) watch.policy = std::make_unique<MoxStaticPolicy>(*this, key);
      watch.policy->notifierIs(policy);
      for (auto it = watch.paths.begin(); it != watch.paths.end();) {
         it = policy->candidatePath(it->first) ? std::next(it) : watch.paths.erase(it);
      }
      for (const auto& [preference, path] : policy->candidatePath()) {
         auto& reactor = watch.paths[preference];
         if (!reactor) reactor = std::make_unique<MoxCandidatePath>(*this, key);
         reactor->notifierIs(path);
      }
   }
   writeRecords(key);
}

void StaticInputWriter::tableChanged() {
   Mox::Ptr<PolicyInput> table = source_->policyInput(protocol);
   if (table == table_) return;
   // A new table starts empty: whatever was written went away with the old one.
   table_ = table;
   written_.clear();
   if (!table_) return;
   for (const auto& [key, policy] : config_->policy()) writeRecords(key);
}

void StaticInputWriter::writeRecords(const PolicyKey& key) {
   if (!table_) return;
   std::set<Discriminator> now;
   if (Mox::Ptr<StaticPolicy> policy = config_->policy(key)) {
      for (const auto& [preference, path] : policy->candidatePath()) {
         PolicyInputEntry record = recordOf(*policy, *path);
         now.insert(record.key().discriminator);
         const PolicyInputEntry* old = table_->policyInputEntryFind(record.key());
         if (!old || !(*old == record)) table_->policyInputEntryIs(record);
      }
   }
   auto it = written_.find(key);
   if (it != written_.end()) {
      for (const Discriminator& d : it->second) {
         if (!now.count(d)) table_->policyInputEntryDel(PolicyId(key, protocol, d));
      }
   }
   if (now.empty()) {
      written_.erase(key);
   } else {
      written_[key] = std::move(now);
   }
}

} // namespace Agent
