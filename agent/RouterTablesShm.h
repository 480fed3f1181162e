// The router's own tables in shared memory: the configuration (with its static policies), the
// color-to-DSCP map, the MPLS configuration and status, the hardware status and the tunnel
// counters. One segment per keyed collection, one single-record segment per group of scalar
// attributes; docs/shared-tables.md lists them. Each table has one codec (the .cpp), used both
// ways.
//
//  - RouterTablesWriter: a process that changes the router's state (the configuration handler,
//    the attached CLI) keeps it in local entities of a StandaloneRouter; the writer watches them
//    and writes each change into the shared table. It becomes a table's writer at its first write
//    to it and then makes the whole table equal to its local collection; a table another live
//    process writes is refused (Vault::Shm::WriterBusy, naming the table and the holder), reported
//    and tried again at the next change. `load()` first copies what the shared tables hold into the
//    local entities, so that a process attaching to a live router starts from what is there.
//  - RouterTablesMirror: the agent's side. Each table is mounted when its segment exists; a changed
//    key is copied into the agent's entity (an equal value is not written again, so the core hears
//    of real changes only); "everything" rescans; a table that appears later is mounted then; a
//    segment that went away gives the entity back what it held before the table was mounted; a
//    segment or record that makes no sense is refused (Vault::Corruption naming the segment),
//    reported once, and the entity keeps what it had.
//
// A static policy is two tables: the policy (binding SID) and its candidate paths, each record
// carrying up to 16 segment lists. The writer adds a policy before its paths and removes its paths
// before it, so a candidate path in the shared table always has its policy there too.
#pragma once

#include <cstdint>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "core/SrTePolicyMachines.h"
#include "platform/VaultShm.h"

namespace Agent {

// The router's entities that the shared tables carry, as the core sees them.
struct RouterEntities {
   Mox::Ptr<SrTePolicy::Config> config;
   Mox::Ptr<SrTePolicy::ColorDscpMap> colorDscpMap;
   Mox::Ptr<Mpls::Config> mplsConfig;
   Mox::Ptr<Mpls::Status> mplsStatus;
   Mox::Ptr<Routing::Hardware::Status> hardwareStatus;
   Mox::Ptr<FlexCounters::CounterTable> counterTable;

   static RouterEntities of(const SrTePolicy::StandaloneRouter& router) {
      return {router.config,     router.colorDscpMap,   router.mplsConfig,
              router.mplsStatus, router.hardwareStatus, router.counterTable};
   }
};

// The shared records. Plain words without padding, so that two encodings of one value are the
// same bytes; each checks what a reader would otherwise take on trust.
namespace RouterShm {

inline constexpr uint32_t listCapacity = 16;

// The key of a single-record table.
struct ScalarKey {
   uint32_t zero = 0;
   uint32_t hash() const noexcept { return 0; }
   friend bool operator==(const ScalarKey&, const ScalarKey&) = default;
};

struct IndexKey {
   uint64_t value = 0;
   uint32_t hash() const noexcept {
      return Mox::hashCombine(static_cast<uint32_t>(value), static_cast<uint32_t>(value >> 32));
   }
   friend bool operator==(const IndexKey&, const IndexKey&) = default;
};

struct ColorKey {
   uint32_t value = 0;
   uint32_t hash() const noexcept { return Mox::mix32(value); }
   friend bool operator==(const ColorKey&, const ColorKey&) = default;
};

// A label range's name, NUL-padded.
struct NameKey {
   static constexpr size_t capacity = 32;
   char text[capacity] = {};
   // Empty when the name is empty or does not fit.
   static std::optional<NameKey> of(std::string_view name);
   std::string_view view() const noexcept { return {text, strnlen(text, capacity)}; }
   bool isValid() const noexcept { return text[0] != '\0' && text[capacity - 1] == '\0'; }
   uint32_t hash() const noexcept;
   friend bool operator==(const NameKey& a, const NameKey& b) noexcept {
      return std::memcmp(a.text, b.text, capacity) == 0;
   }
};

struct CandidatePathKey {
   SrTePolicy::PolicyKey policy;
   uint32_t preference = 0;
   uint32_t hash() const noexcept { return Mox::hashCombine(policy.hash(), preference); }
   friend bool operator==(const CandidatePathKey&, const CandidatePathKey&) = default;
};

// Config's scalar attributes (table "config").
struct ConfigRecord {
   ScalarKey k;
   uint8_t enabled = 0;
   uint8_t specifiedBsidOnly = 0;
   uint8_t segmentListSharingEnabled = 0;
   uint8_t useDiscriminatorInTieBreaking = 0;
   const ScalarKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

// A static policy (table "config-policy").
struct StaticPolicyRecord {
   SrTePolicy::PolicyKey k;
   uint32_t bindingSid = 0;
   const SrTePolicy::PolicyKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

struct StaticSegmentListSlot {
   Ipkit::MplsLabelOperation labels;
   uint32_t weight = 0;
   uint32_t reserved = 0;
   uint64_t index = 0;
};

// A static policy's candidate path with its segment lists (table "config-candidatePath").
struct CandidatePathRecord {
   CandidatePathKey k;
   uint32_t count = 0;
   StaticSegmentListSlot list[listCapacity];
   const CandidatePathKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

// One color's DSCP values and the saved form of each, as bit masks over 0..63
// (table "colorDscpMap").
struct ColorDscpRecord {
   ColorKey k;
   uint32_t reserved = 0;
   uint64_t dscp = 0;
   uint64_t symbolicKnown = 0; // values with a cliSaveUseSymbolic_ entry
   uint64_t symbolicOn = 0;    // ... whose entry is true
   const ColorKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

// A named label range (table "mpls-labelRange").
struct LabelRangeRecord {
   NameKey k;
   uint32_t base = 0;
   uint32_t size = 0;
   const NameKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept { return k.isValid(); }
};

// An LFIB route (table "mpls-lfibRoute").
struct LfibRouteRecord {
   Mpls::RouteKey k;
   uint32_t type = 0;
   uint32_t source = 0;
   uint32_t adjType = 0;
   uint64_t adjIndex = 0;
   const Mpls::RouteKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

struct ViaSlot {
   Ipkit::IpGenAddr nexthop;
   uint32_t intfId = 0;
   uint32_t labelAction = 0;
   uint32_t label = 0;
};

// An adjacency and its vias (table "mpls-adjacency").
struct AdjacencyRecord {
   IndexKey k;
   uint32_t count = 0;
   uint32_t reserved = 0;
   ViaSlot via[listCapacity];
   const IndexKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

// An external-FEC adjacency's extension: its FEC and vias (table "mpls-adjacencyExt").
struct AdjacencyExtRecord {
   IndexKey k;
   uint64_t fecId = 0;
   uint32_t count = 0;
   uint32_t reserved = 0;
   ViaSlot via[listCapacity];
   const IndexKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept;
};

// The hardware's largest label stack, when it reported one (table "hardware").
struct HardwareRecord {
   ScalarKey k;
   uint32_t present = 0;
   uint32_t labelStackSize = 0;
   const ScalarKey& key() const noexcept { return k; }
   bool isValidRecord() const noexcept {
      return k.zero == 0 && present <= 1 && labelStackSize <= 255;
   }
};

// A tunnel's counter (table "tunnelCounters").
struct CounterRecord {
   IndexKey k;
   uint64_t packets = 0;
   uint64_t bytes = 0;
   const IndexKey& key() const noexcept { return k; }
};

// The tables, in the order they are written and mounted.
const std::vector<std::string>& tableNames();

} // namespace RouterShm

// What a mirror or a load did, added up.
struct MirrorCounts {
   size_t written = 0; // keys copied in (new or changed)
   size_t erased = 0;
   size_t rescans = 0;
   MirrorCounts& operator+=(const MirrorCounts& o) {
      written += o.written;
      erased += o.erased;
      rescans += o.rescans;
      return *this;
   }
};

class RouterTablesWriter {
 public:
   using ErrorHandler = std::function<void(const std::string&)>;

   // Watches `entities` from now on; writes nothing until the first change (or publishAll()).
   RouterTablesWriter(std::string router, RouterEntities entities);
   ~RouterTablesWriter();
   RouterTablesWriter(const RouterTablesWriter&) = delete;
   RouterTablesWriter& operator=(const RouterTablesWriter&) = delete;

   // Copies every existing shared table into the local entities (keys the shared table does not
   // have are removed locally), without writing anything back. Throws Vault::Corruption naming
   // the segment when one makes no sense; the tables before it are loaded.
   MirrorCounts load();
   // Claims every table and makes it equal to the local entities.
   void publishAll();
   // Claims one table by name and makes it equal to the local entities. Throws
   // Vault::Shm::WriterBusy (naming the table and its holder) or Vault::Corruption; an unknown
   // name is a std::invalid_argument.
   void claim(std::string_view table);
   // What a refused write says: by default kept for takeErrors(); a CLI prints it instead.
   void errorHandlerIs(ErrorHandler handler) { onError_ = std::move(handler); }
   std::vector<std::string> takeErrors() { return std::exchange(errors_, {}); }
   // The tables this process writes now.
   std::vector<std::string> claimed() const;

 private:
   struct Impl;
   void report(const std::string& what);
   std::unique_ptr<Impl> impl_;
   ErrorHandler onError_;
   std::vector<std::string> errors_;
};

class RouterTablesMirror {
 public:
   struct Hooks {
      // A mounted table's reader fd, to watch: call drain(table) when it is readable.
      std::function<void(int fd, const std::string& table)> fdIs;
      std::function<void(int fd)> fdDel;
      // One line for the operator: mounted, went away, refused (each refusal once).
      std::function<void(const std::string&)> report;
   };

   // Snapshots what the entities hold now: a table that goes away gives that back.
   RouterTablesMirror(std::string router, RouterEntities entities, Hooks hooks);
   ~RouterTablesMirror();
   RouterTablesMirror(const RouterTablesMirror&) = delete;
   RouterTablesMirror& operator=(const RouterTablesMirror&) = delete;

   // Mounts the tables that appeared (their records come in whole), mounts again those whose
   // segment was replaced and drops those that went away; retries a refused one when its segment
   // was made anew or after a few seconds. What it changed in the entities.
   MirrorCounts mount();
   // Applies the changes of one mounted table; a table that makes no sense is unmounted.
   MirrorCounts drain(const std::string& table);
   // Both, for every table: for a caller without an event loop.
   MirrorCounts sync();
   bool mounted(const std::string& table) const;
   std::vector<std::string> mountedTables() const;

 private:
   struct Impl;
   std::unique_ptr<Impl> impl_;
};

} // namespace Agent
