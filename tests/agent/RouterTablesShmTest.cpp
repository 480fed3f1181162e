#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "agent/Host.h"
#include "agent/Modules.h"
#include "agent/RouterTablesShm.h"
#include "agent/RunningConfig.h"
#include "agent/Script.h"

namespace {

using Agent::MirrorCounts;
using Agent::RouterEntities;
using Agent::RouterTablesMirror;
using Agent::RouterTablesWriter;
using namespace SrTePolicy;
namespace Shm = Agent::RouterShm;

Ipkit::IpGenAddr v4(uint32_t a) { return Ipkit::IpGenAddr::v4(a); }

Ipkit::MplsLabelOperation labels(std::initializer_list<uint32_t> ls) {
   Ipkit::MplsLabelOperation op;
   op.actionIs(Ipkit::MplsLabelAction::push);
   for (uint32_t l : ls) op.push(Ipkit::MplsLabel(l));
   return op;
}

// Everything the shared tables carry, as text in key order: two routers that print the same hold
// the same state.
std::string state(const StandaloneRouter& r) {
   std::ostringstream os;
   std::string config;
   r.config->dump(config, 0);
   std::string dscp;
   r.colorDscpMap->dump(dscp, 0);
   os << "enabled " << r.config->enabled() << "\n" << config << dscp;
   for (const auto& name : Mox::sortedKeys(r.mplsConfig->labelRange())) {
      os << "range " << name << " " << *r.mplsConfig->labelRange(name) << "\n";
   }
   for (const auto& k : Mox::sortedKeys(r.mplsStatus->lfibRoute())) {
      const Mpls::LFib::Route& route = *r.mplsStatus->lfibRoute(k);
      os << "route " << k << " " << static_cast<uint32_t>(route.type) << " "
         << static_cast<uint32_t>(route.source) << " " << route.adjKey << "\n";
   }
   for (const auto& i : Mox::sortedKeys(r.mplsStatus->adjacency())) {
      os << "adj " << i << " " << r.mplsStatus->adjacency(i)->stringValue() << "\n";
   }
   for (const auto& i : Mox::sortedKeys(r.mplsStatus->adjacencyExt())) {
      const auto& ext = *r.mplsStatus->adjacencyExt(i);
      os << "ext " << i << " " << ext.fecId.value() << " " << ext.via.stringValue() << "\n";
   }
   if (auto size = r.hardwareStatus->nexthopGroupMplsLabelStackSize()) {
      os << "stack " << unsigned(*size) << "\n";
   }
   for (const auto& id : Mox::sortedKeys(r.counterTable->counter())) {
      const auto& c = *r.counterTable->counter(id);
      os << "counter " << id << " " << c.packets << " " << c.bytes << "\n";
   }
   return os.str();
}

// A router with something in every table.
void fill(StandaloneRouter& r) {
   r.config->enabledIs(true);
   r.config->segmentListSharingEnabledIs(true);
   r.config->specifiedBsidOnlyIs(false);
   auto policy = r.config->policyIs(PolicyKey(v4(0x0a000001), Color(7)));
   policy->bindingSidIs(Ipkit::MplsLabel(900001));
   auto path = policy->candidatePathIs(Preference(200));
   path->staticSegmentListIs(labels({16001, 16002}), StaticSegmentList(Weight(3), Index(1)));
   path->staticSegmentListIs(labels({16003}), StaticSegmentList(Weight(1), Index(2)));
   policy->candidatePathIs(Preference(100)); // a path without segment lists
   r.config->policyIs(PolicyKey(v4(0x0a000002), Color(8)));
   auto dscp = r.colorDscpMap->colorToDscpIs(Color(7));
   dscp->dscpIs(Ipkit::DscpValue(46));
   dscp->dscpIs(Ipkit::DscpValue(0));
   dscp->cliSaveUseSymbolic_Is(Ipkit::DscpValue(46), true);
   dscp->cliSaveUseSymbolic_Is(Ipkit::DscpValue(0), false);
   r.mplsConfig->labelRangeIs(Mpls::srlbRangeName, Mpls::LabelRange(900000, 65536));
   const auto key = Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(16001));
   r.mplsStatus->lfibRouteIs(
       Mpls::LFib::Route(key, Mpls::LFib::RouteType::unknown, Mpls::LFib::Source::unknown,
                         Mpls::AdjacencyKey(5, Mpls::AdjacencyType::nexthop)));
   r.mplsStatus->adjacencyIs(
       5, Mpls::ViaSet{Mpls::Via(v4(0x0a010102), Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, 1),
                                 Ipkit::MplsLabelAction::swap, Ipkit::MplsLabel(16001)),
                       Mpls::Via(v4(0x0a010202), Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, 2),
                                 Ipkit::MplsLabelAction::pop)});
   r.mplsStatus->adjacencyExtIs(
       9, Mpls::Status::AdjacencyExt{
              Vault::Fib::FecId(77),
              Mpls::ViaSet{Mpls::Via(v4(0x0a010302), Ipkit::IntfId(Ipkit::IntfId::Kind::vlan, 10),
                                     Ipkit::MplsLabelAction::none)}});
   r.hardwareStatus->nexthopGroupMplsLabelStackSizeIs(6);
   r.counterTable->counterIs(FlexCounters::CounterTable::TunnelId(0x500000001ull), {10, 1000});
}

class RouterTablesShmTest : public ::testing::Test {
 protected:
   void TearDown() override { Vault::Shm::removeRouter(router_); }
   // Overwrites bytes of a table's segment file, as a stray process would.
   void scribble(const std::string& table, off_t at, const std::string& bytes) {
      const int fd = ::open(Vault::Shm::segmentPath(router_, table).c_str(), O_RDWR);
      ASSERT_GE(fd, 0);
      ASSERT_EQ(::pwrite(fd, bytes.data(), bytes.size(), at), static_cast<ssize_t>(bytes.size()));
      ::close(fd);
   }
   const std::string router_ = "rtables" + std::to_string(::getpid());
   std::vector<std::string> said_;
   RouterTablesMirror::Hooks hooks() {
      return {nullptr, nullptr, [this](const std::string& s) { said_.push_back(s); }};
   }
   size_t saidCount(const std::string& text) const {
      return std::count_if(said_.begin(), said_.end(),
                           [&](const std::string& s) { return s.find(text) != std::string::npos; });
   }
};

TEST_F(RouterTablesShmTest, EveryTableRoundTripsThroughSharedMemoryChangeByChange) {
   StandaloneRouter local, agent;
   RouterTablesWriter writer(router_, RouterEntities::of(local));
   RouterTablesMirror mirror(router_, RouterEntities::of(agent), hooks());
   fill(local);
   EXPECT_TRUE(writer.takeErrors().empty());
   EXPECT_EQ(writer.claimed(), Shm::tableNames());

   MirrorCounts c = mirror.sync();
   EXPECT_EQ(mirror.mountedTables(), Shm::tableNames());
   EXPECT_EQ(state(agent), state(local));
   EXPECT_GT(c.written, 10u);
   // Nothing changed: nothing is applied.
   c = mirror.sync();
   EXPECT_EQ(c.written + c.erased + c.rescans, 0u);

   // Changes below the top: a segment list, a path, a whole policy, a via, a DSCP value, the
   // stack size gone, a counter moved, a route removed, a flag.
   auto policy = local.config->policy(PolicyKey(v4(0x0a000001), Color(7)));
   policy->candidatePath(Preference(200))->staticSegmentListDel(labels({16003}));
   policy->candidatePathDel(Preference(100));
   policy->candidatePathIs(Preference(300))
       ->staticSegmentListIs(labels({16009}), StaticSegmentList(Weight(2), Index(0)));
   local.config->policyDel(PolicyKey(v4(0x0a000002), Color(8)));
   local.colorDscpMap->colorToDscp(Color(7))->dscpDel(Ipkit::DscpValue(0));
   local.colorDscpMap->colorToDscpIs(Color(9))->dscpIs(Ipkit::DscpValue(10));
   local.mplsStatus->adjacencyIs(
       5, Mpls::ViaSet{Mpls::Via(v4(0x0a010102), Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, 1),
                                 Ipkit::MplsLabelAction::pop)});
   local.hardwareStatus->nexthopGroupMplsLabelStackSizeDel();
   local.counterTable->counterIs(FlexCounters::CounterTable::TunnelId(0x500000001ull), {11, 1100});
   local.mplsStatus->lfibRouteDel(Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(16001)));
   local.config->useDiscriminatorInTieBreakingIs(true);
   c = mirror.sync();
   EXPECT_EQ(c.rescans, 0u);
   EXPECT_EQ(state(agent), state(local));
   EXPECT_EQ(agent.config->policyCount(), 1u);
   EXPECT_FALSE(agent.hardwareStatus->nexthopGroupMplsLabelStackSize());

   // A whole collection removed at once.
   local.config->policyDelAll();
   local.mplsStatus->adjacencyDelAll();
   mirror.sync();
   EXPECT_EQ(state(agent), state(local));
   EXPECT_EQ(agent.config->policyCount(), 0u);
   EXPECT_TRUE(said_.size() >= Shm::tableNames().size()) << "one 'mounted' line per table";
}

TEST_F(RouterTablesShmTest, LoadStartsFromTheSharedStateAndASecondWriterIsRefused) {
   // A writer over entities that already hold something writes nothing until asked.
   StandaloneRouter first;
   fill(first);
   auto writer = std::make_unique<RouterTablesWriter>(router_, RouterEntities::of(first));
   EXPECT_TRUE(Vault::Shm::tablesOf(router_).empty());
   writer->publishAll();
   EXPECT_EQ(writer->claimed(), Shm::tableNames());

   // A second process attaching to the live router: it reads what is there...
   StandaloneRouter attached;
   attached.mplsConfig->labelRangeIs("stale", Mpls::LabelRange(1, 1));
   RouterTablesWriter second(router_, RouterEntities::of(attached));
   const MirrorCounts loaded = second.load();
   EXPECT_EQ(state(attached), state(first));
   EXPECT_EQ(loaded.rescans, Shm::tableNames().size());
   EXPECT_TRUE(second.takeErrors().empty()) << "a load writes nothing back";

   // ... but may not write what another live writer holds: the refusal names the table.
   attached.mplsConfig->labelRangeIs("extra", Mpls::LabelRange(5, 5));
   std::vector<std::string> errors = second.takeErrors();
   ASSERT_EQ(errors.size(), 1u);
   EXPECT_NE(errors[0].find("mpls-labelRange is written by process " + std::to_string(getpid())),
             std::string::npos)
       << errors[0];

   // Once the first writer is gone, the next change takes the table and writes it whole,
   // with the change refused before.
   writer.reset();
   attached.mplsConfig->labelRangeIs("more", Mpls::LabelRange(7, 7));
   EXPECT_TRUE(second.takeErrors().empty());
   EXPECT_EQ(second.claimed(), std::vector<std::string>{"mpls-labelRange"});
   StandaloneRouter agent;
   RouterTablesMirror mirror(router_, RouterEntities::of(agent), hooks());
   mirror.sync();
   EXPECT_EQ(agent.mplsConfig->labelRange().size(), 3u);
   EXPECT_EQ(state(agent), state(attached));
}

TEST_F(RouterTablesShmTest, CorruptSegmentsAndRecordsAreRefusedOnceAndStateIsKept) {
   StandaloneRouter local, agent;
   RouterTablesWriter writer(router_, RouterEntities::of(local));
   fill(local);
   RouterTablesMirror mirror(router_, RouterEntities::of(agent), hooks());
   mirror.sync();
   const std::string before = state(agent);

   // A record whose via count is over 16, written as raw bytes of the right size.
   struct Raw {
      Shm::IndexKey k;
      uint32_t count;
      unsigned char rest[sizeof(Shm::AdjacencyRecord) - sizeof(Shm::IndexKey) - 4];
      const Shm::IndexKey& key() const noexcept { return k; }
   };
   static_assert(sizeof(Raw) == sizeof(Shm::AdjacencyRecord));
   {
      Vault::Shm::removeTable(router_, "mpls-adjacency");
      Vault::Shm::Writer<Shm::IndexKey, Raw> raw(router_, "mpls-adjacency", {16, 16});
      Raw r{};
      r.k.value = 5;
      r.count = 17;
      raw.insert(r);
      mirror.sync();
      mirror.sync();
   }
   EXPECT_EQ(saidCount("refused mpls-adjacency"), 1u);
   EXPECT_NE(said_.back().find("mpls-adjacency"), std::string::npos);
   EXPECT_FALSE(mirror.mounted("mpls-adjacency"));
   EXPECT_EQ(state(agent), before) << "a refused table leaves the entity as it was";

   // A segment whose header makes no sense: refused on attaching, nothing crashes.
   scribble("hardware", 0, "garbage!");
   StandaloneRouter fresh;
   RouterTablesMirror other(router_, RouterEntities::of(fresh), hooks());
   other.sync();
   EXPECT_FALSE(other.mounted("hardware"));
   EXPECT_EQ(saidCount("refused hardware"), 1u);
   EXPECT_FALSE(fresh.hardwareStatus->nexthopGroupMplsLabelStackSize());
   EXPECT_TRUE(other.mounted("config"));

   // A loader meets the same refusal as an exception naming the segment.
   StandaloneRouter loading;
   RouterTablesWriter loader(router_, RouterEntities::of(loading));
   try {
      loader.load();
      ADD_FAILURE() << "a corrupt segment loaded";
   } catch (const Vault::Corruption& e) {
      EXPECT_NE(std::string(e.what()).find(router_ + ".mpls-adjacency"), std::string::npos)
          << e.what();
   }
}

TEST_F(RouterTablesShmTest, ATableAppearingLateIsMountedAndOneGoingAwayGivesBackTheOldState) {
   // The agent's own defaults before any table exists: on, and a block from its command line.
   StandaloneRouter agent;
   agent.config->enabledIs(true);
   agent.mplsConfig->labelRangeIs(Mpls::srlbRangeName, Mpls::LabelRange(100000, 1000));
   RouterTablesMirror mirror(router_, RouterEntities::of(agent), hooks());
   EXPECT_EQ(mirror.sync().written, 0u);
   EXPECT_TRUE(mirror.mountedTables().empty());

   StandaloneRouter local;
   RouterTablesWriter writer(router_, RouterEntities::of(local));
   local.mplsConfig->labelRangeIs(Mpls::srlbRangeName, Mpls::LabelRange(900000, 65536));
   local.mplsConfig->labelRangeIs("other", Mpls::LabelRange(1000, 10));
   mirror.sync();
   EXPECT_EQ(mirror.mountedTables(), std::vector<std::string>{"mpls-labelRange"});
   EXPECT_EQ(*agent.mplsConfig->labelRange(Mpls::srlbRangeName), Mpls::LabelRange(900000, 65536));
   EXPECT_EQ(agent.mplsConfig->labelRange().size(), 2u);

   // The table is the source now: a range removed there is removed here.
   local.mplsConfig->labelRangeDel(Mpls::srlbRangeName);
   mirror.sync();
   EXPECT_EQ(agent.mplsConfig->labelRange(Mpls::srlbRangeName), nullptr);

   // The configuration comes later, with SR-TE off (the first change writes the whole record);
   // when it goes, the agent's own value is back.
   local.config->specifiedBsidOnlyIs(false);
   local.config->policyIs(PolicyKey(v4(0x0a000001), Color(1)));
   mirror.sync();
   EXPECT_FALSE(agent.config->enabled());
   EXPECT_EQ(agent.config->policyCount(), 1u);
   EXPECT_TRUE(Vault::Shm::removeTable(router_, "config"));
   EXPECT_TRUE(Vault::Shm::removeTable(router_, "config-policy"));
   EXPECT_TRUE(Vault::Shm::removeTable(router_, "mpls-labelRange"));
   mirror.sync();
   EXPECT_TRUE(agent.config->enabled());
   EXPECT_EQ(agent.config->policyCount(), 0u);
   EXPECT_EQ(*agent.mplsConfig->labelRange(Mpls::srlbRangeName), Mpls::LabelRange(100000, 1000));
   EXPECT_EQ(agent.mplsConfig->labelRange().size(), 1u);
   EXPECT_EQ(saidCount("mpls-labelRange went away"), 1u);

   // A writer making the table again is mounted anew.
   StandaloneRouter again;
   RouterTablesWriter next(router_, RouterEntities::of(again));
   again.mplsConfig->labelRangeIs(Mpls::srlbRangeName, Mpls::LabelRange(500000, 10));
   EXPECT_TRUE(next.takeErrors().empty());
   mirror.sync();
   EXPECT_EQ(*agent.mplsConfig->labelRange(Mpls::srlbRangeName), Mpls::LabelRange(500000, 10));
}

// Random bytes of a record's size under its key type, for any table.
template <class K, class R>
void writeNoise(const std::string& router, const std::string& table, std::mt19937& rng) {
   struct alignas(alignof(R)) Raw {
      unsigned char bytes[sizeof(R)];
      // The key sits first in every record.
      const K& key() const noexcept { return *reinterpret_cast<const K*>(bytes); }
   };
   Vault::Shm::Writer<K, Raw, sizeof(R)> raw(router, table, {64, 64});
   for (int n = 0; n < 20; ++n) {
      Raw r;
      for (auto& b : r.bytes) b = static_cast<unsigned char>(rng());
      if (n % 2) std::memset(r.bytes, 0, sizeof(K)); // some keys that make sense
      raw.insert(r);
   }
}

TEST_F(RouterTablesShmTest, TablesOfRandomBytesAreRefusedOrTakenButNeverCrashTheReader) {
   std::mt19937 rng(27);
   for (int round = 0; round < 5; ++round) {
      writeNoise<Shm::ScalarKey, Shm::ConfigRecord>(router_, "config", rng);
      writeNoise<PolicyKey, Shm::StaticPolicyRecord>(router_, "config-policy", rng);
      writeNoise<Shm::CandidatePathKey, Shm::CandidatePathRecord>(router_, "config-candidatePath",
                                                                  rng);
      writeNoise<Shm::ColorKey, Shm::ColorDscpRecord>(router_, "colorDscpMap", rng);
      writeNoise<Shm::NameKey, Shm::LabelRangeRecord>(router_, "mpls-labelRange", rng);
      writeNoise<Mpls::RouteKey, Shm::LfibRouteRecord>(router_, "mpls-lfibRoute", rng);
      writeNoise<Shm::IndexKey, Shm::AdjacencyRecord>(router_, "mpls-adjacency", rng);
      writeNoise<Shm::IndexKey, Shm::AdjacencyExtRecord>(router_, "mpls-adjacencyExt", rng);
      writeNoise<Shm::ScalarKey, Shm::HardwareRecord>(router_, "hardware", rng);
      writeNoise<Shm::IndexKey, Shm::CounterRecord>(router_, "tunnelCounters", rng);
      StandaloneRouter agent;
      said_.clear();
      RouterTablesMirror mirror(router_, RouterEntities::of(agent), hooks());
      mirror.sync();
      // Every table is either mounted or refused, by name.
      for (const std::string& t : Shm::tableNames()) {
         EXPECT_TRUE(mirror.mounted(t) || saidCount("refused " + t + ":") == 1) << t;
      }
      // Counters take any numbers: that table is always taken.
      EXPECT_TRUE(mirror.mounted("tunnelCounters"));
      TearDown();
   }
}

TEST_F(RouterTablesShmTest, ValuesTheRecordsCannotHoldAreReportedNotWritten) {
   StandaloneRouter local;
   RouterTablesWriter writer(router_, RouterEntities::of(local));
   Mpls::ViaSet many;
   for (uint32_t i = 0; i < 17; ++i) {
      many.viaIs(Mpls::Via(v4(0x0a000000 + i), Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, i),
                           Ipkit::MplsLabelAction::pop));
   }
   local.mplsStatus->adjacencyIs(3, many);
   local.mplsConfig->labelRangeIs(std::string(40, 'x'), Mpls::LabelRange(1, 1));
   const std::vector<std::string> errors = writer.takeErrors();
   ASSERT_EQ(errors.size(), 2u);
   EXPECT_NE(errors[0].find("17 vias"), std::string::npos) << errors[0];
   EXPECT_NE(errors[1].find("longer than 31"), std::string::npos) << errors[1];
}

// Attached to a router (`srte --router NAME`), every command that changes one of its tables claims
// the table when the line is read: while another writer holds them all, each line is refused
// naming its table and the holder, and the session's inputs stay as they were.
TEST_F(RouterTablesShmTest, AttachedEveryRouterTableCommandIsRefusedBeforeItChangesAnything) {
   StandaloneRouter other;
   fill(other);
   // A segment list as the CLI makes one (labels without an action), for `no static segment-list`.
   Ipkit::MplsLabelOperation typed;
   typed.labelIs(Ipkit::MplsStackEntryIndex(0), Ipkit::MplsLabel(16009));
   other.config->policy(PolicyKey(v4(0x0a000001), Color(7)))
       ->candidatePath(Preference(200))
       ->staticSegmentListIs(typed, StaticSegmentList(Weight(1), Index(3)));
   RouterTablesWriter holder(router_, RouterEntities::of(other));
   holder.publishAll();
   ASSERT_TRUE(holder.takeErrors().empty());
   std::ostringstream out;
   Agent::HostOptions options;
   options.router = router_;
   options.runCore = false;
   Agent::Host host(out, options);
   Agent::registerModules(host);
   const std::string before = Agent::runningConfig(host);
   ASSERT_NE(before.find("label-range srlb"), std::string::npos) << before; // the holder's state

   const std::vector<std::pair<std::string, std::string>> lines{
       {"config enabled off", "config"},
       {"config specified-bsid-only on", "config"},
       {"config segment-list-sharing off", "config"},
       {"config discriminator-tie-break on", "config"},
       {"static policy 10.9.9.9 color 1 bsid 900005", "config-policy"},
       {"static path 10.9.9.9 color 1 preference 100", "config-policy"},
       {"static segment-list 10.9.9.9 color 1 preference 100 labels 16001", "config-policy"},
       {"no static policy 10.0.0.2 color 8", "config-policy"},
       {"no static path 10.0.0.1 color 7 preference 100", "config-policy"},
       {"no static segment-list 10.0.0.1 color 7 preference 200 labels 16009", "config-policy"},
       {"color-dscp 5 dscp 10", "colorDscpMap"},
       {"no color-dscp 7", "colorDscpMap"},
       {"label-range test base 20000 size 10", "mpls-labelRange"},
       {"no label-range srlb", "mpls-labelRange"},
       {"adjacency 6 via 10.1.1.1 Ethernet1 action pop", "mpls-adjacency"},
       {"no adjacency 5", "mpls-adjacency"},
       {"adjacency-ext 10 fec 5 via 10.1.1.1 Ethernet1 action pop", "mpls-adjacencyExt"},
       {"no adjacency-ext 9", "mpls-adjacencyExt"},
       {"lfib route 20001 adjacency 5", "mpls-lfibRoute"},
       {"no lfib route 16001", "mpls-lfibRoute"},
       {"platform max-label-depth 5", "hardware"},
       {"no platform max-label-depth", "hardware"},
       {"counter tunnel 7 packets 1 bytes 1", "tunnelCounters"},
       {"no counter tunnel 21474836481", "tunnelCounters"},
   };
   const std::string holderText = " is written by process " + std::to_string(::getpid());
   for (const auto& [line, table] : lines) {
      try {
         host.execute(line);
         ADD_FAILURE() << line << ": not refused";
      } catch (const Agent::ScriptError& e) {
         EXPECT_NE(std::string(e.what()).find(Vault::Shm::segmentPath(router_, table) + holderText),
                   std::string::npos)
             << line << ": " << e.what();
      }
   }
   EXPECT_EQ(Agent::runningConfig(host), before);
   StandaloneRouter read;
   RouterTablesWriter reader(router_, RouterEntities::of(read));
   reader.load();
   EXPECT_EQ(state(read), state(other));
}

} // namespace
