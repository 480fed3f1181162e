// Converge: the differential convergence check of the policy core.
//
// An event-driven agent is trustworthy when it converges: whatever the order, batching, yielding,
// congestion and restarts on the way, once the inputs stop changing every output table equals
// what a fresh agent computes from the final inputs alone. This checks exactly that:
//  - `generate` makes a random sequence of `srte` script lines over a small universe (both
//    address families, two protocols, a dozen labels, adjacencies with next-hop-group and
//    dynamic-tunnel vias, every LFIB route type and source, an SRLB that moves and disappears,
//    every configuration flag, platform depth, counters, input tables coming and going, time,
//    congestion, one-unit task slices, partial runs and restarts);
//  - `check` runs the lines in an `srte` host (a line the host refuses is dropped, so what is
//    kept always replays), runs it to convergence, builds a fresh core over the same router
//    tables with fresh published tables, runs that to convergence too, and compares every output
//    table by content (`tables()`: one canonical form per table);
//  - `shrink` drops lines while the same table still diverges (delta debugging).
// Ids and times depend on history, so rows name segment lists and tunnels by their label
// stacks. What is history-dependent on purpose is checked against its rule instead: the active
// candidate against the sticky tie-break (its group must be the best one), `lastModified`
// against the clock.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "core/SrTePolicyMachines.h"

namespace Converge {

// Random script lines; the same seed gives the same lines.
std::vector<std::string> generate(uint64_t seed);

// What the agent's history leaves that a fresh agent does not have, by design.
struct History {
   // Protocols whose input table was removed since the last restart: their unusable candidates
   // stay (the input stage only reviews what the table still holds and what it published).
   std::set<SrTePolicy::Protocol> removedTables;
};

// One output table in canonical form: sorted rows, ids replaced by what they stand for.
struct Table {
   const char* name;
   std::function<std::vector<std::string>(SrTePolicy::PolicyCore&, const History&)> rows;
};
const std::vector<Table>& tables();

// Rules the history-dependent parts of one core must follow (empty when they hold).
std::vector<std::string> ruleViolations(SrTePolicy::PolicyCore& core, double now);

struct Divergence {
   std::string table; // a table name, "rules" or "quiescence"
   std::string row;   // the first differing row, prefixed "agent: " or "fresh: "
};

struct Outcome {
   std::vector<std::string> accepted; // the lines the host ran
   std::optional<Divergence> divergence;
   std::map<std::string, size_t> rowCount; // per table compared, the agent's rows
};

Outcome check(const std::vector<std::string>& lines);

// Runs a core's scheduler to convergence: congestion cleared, no ready task, no timer left
// (advancing time for the timers; given the core, the tunnel map's retry while a counter lasts
// may stay). False if it does not settle.
bool settle(Kiln::TaskScheduler& scheduler, Kiln::AttrLogSm& attrLog,
            const SrTePolicy::PolicyCore* core = nullptr);
// Every table of two settled cores, then the rules of each: the first difference, if any.
std::optional<Divergence> compare(SrTePolicy::PolicyCore& agent, double agentNow,
                                  SrTePolicy::PolicyCore& fresh, double freshNow,
                                  const History& history,
                                  std::map<std::string, size_t>* rowCount = nullptr);

// A smaller sequence that still diverges in the same table.
std::vector<std::string> shrink(const std::vector<std::string>& lines, const std::string& table);

// The lines as a script that runs to convergence and shows the tables: run it with `srte`.
std::string script(const std::vector<std::string>& lines, const std::string& header);
// The same inputs for a fresh agent: the agent's running configuration after `lines`, then
// convergence and the tables.
std::string freshScript(const std::vector<std::string>& lines);

} // namespace Converge
