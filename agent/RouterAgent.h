// RouterAgent: the SR-TE agent process of one router (`srte agent --router NAME`). It is a Host
// (agent/Host.h) on the real clock, the same router tables, core and subsystems as the in-process
// `srte`, run by an event loop that waits on the shared input tables' readers and the scheduler's
// timers; each protocol's shared input table is mirrored into the in-process input table the core
// watches (agent/InputMirror.h). Its host does not write the static input table: that table comes
// from its writer process like every other.
//
//  - at most one agent per router: a lock file under the router's name is held while it runs;
//  - its control socket (agent/ControlSocket.h), served by the same loop: `sync` takes in every
//    change written before it and answers once no task is ready; `status` tells the progress and
//    whether the core is idle and the published tables written (AgentProgress);
//    `show ...` and `json TABLE` run the agent's own tables; `hello`/`version` name it;
//  - a table that does not exist yet is looked for again every `mountRetry`, and mounted when its
//    writer has made it; a table whose segment was removed is dropped with its records, and one
//    made again is mounted anew;
//  - a table that makes no sense is reported (once per distinct message) and left unmounted; the
//    in-process copy keeps what it had;
//  - every system-log message of the core goes to the host's system log (syslog(3), ident
//    "srte-agent") as well as to the core's own log;
//  - one line on the error stream when the core has converged after start-up, and later at most
//    one a second while the input goes on changing, each with the paths held;
//  - SIGTERM and SIGINT stop it at the next turn of the loop, or part way through reading a large
//    table at start; during the core's start, which cannot be cut short, they end the process at
//    once (EndAtStopSignal). The core stops without withdrawing anything. Freeing the core entity
//    by entity grows with the paths (0.2 s from the signal to the exit at 300,000 paths, 0.03 s
//    without it), so the program ends the process right there
//    (`exitOnStop`); the lock file goes first.
#pragma once

#include <signal.h>

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "platform/Kiln.h"

namespace Agent {

// Another agent holds the router.
class AgentBusy : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The lock that makes one agent per router: an open-file-description lock on
// /dev/shm/srte-agent.<router>.lock, which the kernel drops when its holder dies. The file holds
// the holder's pid for the refusal message and goes when the holder ends cleanly.
class AgentLock {
 public:
   explicit AgentLock(const std::string& router); // throws AgentBusy
   ~AgentLock();
   // Gives the lock up now (also what the destructor does).
   void release();
   AgentLock(const AgentLock&) = delete;
   AgentLock& operator=(const AgentLock&) = delete;
   static std::string pathOf(const std::string& router);

 private:
   std::string path_;
   int fd_ = -1;
};

// Ends the process at a stop signal (SIGTERM, SIGINT) while it lives, from the handler: removes
// `files`, says "srte agent: router R stopped by signal N (NAME), <during>" on the error stream and
// exits 0. For a step that cannot be cut short and writes nothing another process reads: the
// core's start changes the agent's own memory only (about 3 s over a million adopted paths), a
// `show` of a large table only formats text. Made while the loop holds the signals blocked: one
// that came meanwhile ends the process as this begins, one that comes after it ends waits for
// the loop again. One lives at a time: the handler reads the newest.
class EndAtStopSignal {
 public:
   EndAtStopSignal(const std::string& router, std::vector<std::string> files,
                   const std::string& during);
   ~EndAtStopSignal();
   EndAtStopSignal(const EndAtStopSignal&) = delete;
   EndAtStopSignal& operator=(const EndAtStopSignal&) = delete;

 private:
   struct Text {
      std::string term, interrupt;
      std::vector<std::string> files;
   };
   static void end(int signo);
   static const Text* current_;
   Text text_;
   struct sigaction oldTerm_ {
   }, oldInt_{};
   sigset_t signals_{};
};

struct AgentOptions {
   std::string router;
   Kiln::Duration mountRetry = std::chrono::milliseconds(200);
   // The platform's block of binding SIDs, first and last label, for a router without a shared
   // MPLS configuration table (a lab fed by `srte feed` alone): once that table exists, it says.
   std::optional<std::pair<uint32_t, uint32_t>> srlb;
   // Labels, first and last, that resolve: each has an LFIB route over one of 16 two-way ECMP
   // adjacencies, for a router without a shared MPLS status table (a lab fed by `srte feed`
   // alone): once that table exists, it says.
   std::optional<std::pair<uint32_t, uint32_t>> resolvedLabels;
   // After a stop signal, end the process at once instead of tearing the in-process state down
   // (the kernel takes the memory back; nothing outside the process changes either way).
   bool exitOnStop = false;
};

// Runs the agent until a stop signal. The exit status: exitOk after a stop, exitCannotRun when
// the router is taken or its name is not valid.
int runAgent(const AgentOptions& options, std::ostream& err);

} // namespace Agent
