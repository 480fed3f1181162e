// converge: runs the differential convergence check over many seeds.
//
//   converge [--seeds N] [--from S] [--shrink K] [--quiet]
//       N seeds from S (default 1000 from 1); the first K divergences (default 3) are shrunk and
//       printed as srte scripts: the agent's, and a fresh agent's on the same inputs.
//   converge --print S       the script of seed S
//   converge --file F        checks the lines of script F (comments and show lines are skipped)
// Exit status 0 when every sequence converged, 1 otherwise, 2 on bad arguments.
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <string>

#include "tools/Converge.h"

namespace {

int usage() {
   std::cerr << "usage: converge [--seeds N] [--from S] [--shrink K] [--quiet] | --print S | "
                "--file F\n";
   return 2;
}

void report(uint64_t seed, const std::vector<std::string>& lines, const Converge::Divergence& d,
            bool doShrink) {
   std::cout << "seed " << seed << ": diverges in " << d.table << ": " << d.row << "\n";
   if (!doShrink) return;
   const auto small = Converge::shrink(lines, d.table);
   const auto again = Converge::check(small);
   const std::string header = "converge seed " + std::to_string(seed) + ", shrunk to " +
                              std::to_string(small.size()) + " lines\ndiverges in " +
                              again.divergence->table + ": " + again.divergence->row;
   std::cout << "---- agent script (srte FILE)\n"
             << Converge::script(small, header) << "---- fresh agent script\n"
             << Converge::freshScript(small) << "----\n";
}

} // namespace

int main(int argc, char** argv) {
   uint64_t seeds = 1000, from = 1, shrinkCount = 3;
   bool quiet = false;
   for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      auto value = [&]() -> std::string { return i + 1 < argc ? argv[++i] : ""; };
      try {
         if (a == "--seeds") {
            seeds = std::stoull(value());
         } else if (a == "--from") {
            from = std::stoull(value());
         } else if (a == "--shrink") {
            shrinkCount = std::stoull(value());
         } else if (a == "--quiet") {
            quiet = true;
         } else if (a == "--print") {
            const uint64_t seed = std::stoull(value());
            std::cout << Converge::script(Converge::check(Converge::generate(seed)).accepted,
                                          "converge seed " + std::to_string(seed));
            return 0;
         } else if (a == "--file") {
            std::ifstream in(value());
            if (!in) return usage();
            std::vector<std::string> lines;
            for (std::string l; std::getline(in, l);) {
               if (l.empty() || l[0] == '#' || l.rfind("show", 0) == 0) continue;
               lines.push_back(l);
            }
            const auto o = Converge::check(lines);
            if (!o.divergence) {
               std::cout << "converges\n";
               return 0;
            }
            report(0, lines, *o.divergence, true);
            return 1;
         } else {
            return usage();
         }
      } catch (const std::exception&) {
         return usage();
      }
   }
   std::map<std::string, uint64_t> byTable;
   uint64_t diverged = 0, lines = 0, accepted = 0;
   std::map<std::string, uint64_t> rows;
   for (uint64_t seed = from; seed < from + seeds; ++seed) {
      const auto generated = Converge::generate(seed);
      const auto o = Converge::check(generated);
      lines += generated.size();
      accepted += o.accepted.size();
      for (const auto& [t, n] : o.rowCount) rows[t] += n;
      if (!o.divergence) continue;
      ++diverged;
      ++byTable[o.divergence->table];
      if (!quiet || diverged <= shrinkCount) {
         report(seed, o.accepted, *o.divergence, diverged <= shrinkCount);
      }
   }
   std::cout << seeds << " seeds from " << from << ": " << diverged << " diverged";
   for (const auto& [t, n] : byTable) std::cout << ", " << t << " " << n;
   std::cout << "\n";
   if (!quiet) {
      std::cout << "lines per sequence " << lines / seeds << ", run " << accepted / seeds
                << "; rows per sequence:";
      for (const auto& [t, n] : rows) std::cout << " " << t << " " << n / seeds;
      std::cout << "\n";
   }
   return diverged ? 1 : 0;
}
