// The BGP protocol adapter process (`srte bgp --router NAME`): follows the router's BGP speaker's
// best SR Policy paths over its API and keeps the router's shared `bgp` input table equal to them
// (bgp/TableSync.h), as that table's one writer; tells what it does in the shared `bgpStatus`
// table (agent/BgpStatus.h) and, one line per event, on the error stream.
//
//  - the speaker is followed on a thread of its own (bgp/SpeakerWatch.h), reconnecting with
//    back-off; the main thread waits for a stop signal, samples the speaker's peers while a
//    resynchronisation waits for the table to be whole (SettleWatch), and publishes the status;
//  - SIGTERM and SIGINT stop it; the input table keeps its records (the routes have not gone
//    because their adapter did), and the next adapter takes the table over and reconciles it.
#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace SrTeBgp {

struct AdapterOptions {
   std::string router;
   std::string speaker = "127.0.0.1:50051"; // the speaker's API, HOST:PORT
   std::chrono::milliseconds settle{1000};
   std::chrono::milliseconds staleHold{120000};
   // Records of a table this adapter creates (an existing one keeps its own).
   uint64_t capacity = uint64_t{1} << 18;
};

// Runs until a stop signal. exitOk after a stop; exitCannotRun when the router's name is not
// valid or another live process writes its bgp input or status table (named in the message).
int runAdapter(const AdapterOptions& options, std::ostream& err);

} // namespace SrTeBgp
