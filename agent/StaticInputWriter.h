// StaticInputWriter: the router's configuration process, as far as SR-TE policies go. It turns
// the static policy tree of Config into candidate-path records of the configuration source's
// input table (protocol 30, "static"), the way the other protocols write theirs.
//
// One record per configured candidate path:
//  - id: the policy key, protocol 30, and the candidate path's preference as the discriminator
//    (preferences are unique within a static policy, so this names the path for its life);
//  - originator: AS 0 at the unspecified address (the router itself);
//  - preference: the candidate path's; binding SID: the policy's (none when not configured);
//  - segment lists: in ascending configured index (label stack order breaks ties), from slot 0,
//    with their weights. A path without segment lists still gets its record: it is an input like
//    any other, and the input stage decides what to make of it.
//
// It writes synchronously, inside the configuration change, only while the static input table
// exists; when that table appears it is filled from the whole configuration. It removes only
// records it wrote itself. It belongs to another process, so an agent restart keeps it.
#pragma once

#include <map>
#include <memory>
#include <set>

#include "types/SrTePolicy.h"

namespace Agent {

class StaticInputWriter {
 public:
   StaticInputWriter(const Mox::Ptr<SrTePolicy::Config>& config,
                     const Mox::Ptr<SrTePolicy::PolicyInputSource>& source);
   ~StaticInputWriter();
   StaticInputWriter(const StaticInputWriter&) = delete;
   StaticInputWriter& operator=(const StaticInputWriter&) = delete;

   static constexpr SrTePolicy::Protocol protocol = SrTePolicy::Protocol::staticConfig;
   static SrTePolicy::PolicyInputEntry recordOf(const SrTePolicy::StaticPolicy& policy,
                                                const SrTePolicy::CandidatePath& path);

 private:
   class MoxConfig;
   class MoxInputSource;
   class MoxStaticPolicy;
   class MoxCandidatePath;
   struct PolicyWatch {
      std::unique_ptr<MoxStaticPolicy> policy;
      std::map<SrTePolicy::Preference, std::unique_ptr<MoxCandidatePath>> paths;
      PolicyWatch();
      PolicyWatch(PolicyWatch&&) noexcept;
      ~PolicyWatch();
   };

   void policyChanged(const SrTePolicy::PolicyKey& key);
   void allPoliciesChanged();
   void tableChanged();
   void writeRecords(const SrTePolicy::PolicyKey& key);

   Mox::Ptr<SrTePolicy::Config> config_;
   Mox::Ptr<SrTePolicy::PolicyInputSource> source_;
   Mox::Ptr<SrTePolicy::PolicyInput> table_; // the static table while it exists
   std::unique_ptr<MoxConfig> moxConfig_;
   std::unique_ptr<MoxInputSource> moxInputSource_;
   std::map<SrTePolicy::PolicyKey, PolicyWatch> watches_;
   // The discriminators written per policy key, to remove what the configuration no longer has.
   std::map<SrTePolicy::PolicyKey, std::set<SrTePolicy::Discriminator>> written_;
};

} // namespace Agent
