// bgp-watch: follows a BGP speaker's best SR Policy paths (both families) over its API and prints
// each as the protocol-20 record it becomes, or the key it withdraws, with what was refused.
//
//    bgp-watch [--gobgp HOST:PORT] [--count N] [--timeout SECONDS] [--idle SECONDS] [--scenario]
//              [--events] [--follow]
//
// --follow (with --timeout) goes on across the speaker going away: each connection's snapshot
// ("# snapshot: N paths"), its changes, and "# disconnected: ..." lines.
// --events also prints one comment line per message of the stream (table or peer, how many
// paths). --scenario prints scenario-language lines (`input bgp ...`, `no input bgp ...`, refusals
// as comments) that `srte` can replay.
//
// The initial snapshot comes first, then each change. It stops after N SR Policy paths (add or
// withdrawal) when --count is given, or after the timeout (exit status 2 if the count was not
// reached), or once nothing came for --idle seconds after the first SR Policy path. The start of
// the adapter's client: the same request, filter and decoding.
#include <grpcpp/grpcpp.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <thread>

#include "agent/RunningConfig.h"
#include "attribute.pb.h"
#include "bgp/PathDecoder.h"
#include "bgp/SpeakerWatch.h"
#include "gobgp.grpc.pb.h"

namespace {

int usage() {
   std::cerr << "usage: bgp-watch [--gobgp HOST:PORT] [--count N] [--timeout SECONDS] "
                "[--idle SECONDS] [--scenario] [--events] [--follow]\n";
   return 64;
}

bool isSrPolicy(const apipb::Path& p) { return p.family().safi() == apipb::Family::SAFI_SR_POLICY; }

void print(const SrTeBgp::PathDecoding& d, bool scenario) {
   const char* refused = scenario ? "# refused: " : "  refused: ";
   for (const std::string& r : d.reports) std::cout << refused << r << "\n";
   if (d.withdraw && d.id) {
      std::cout << (scenario ? Agent::noInputLine(*d.id) : "withdraw " + d.id->stringValue())
                << "\n";
   } else if (d.entry) {
      std::cout << (scenario ? Agent::inputLine(*d.entry) : "add " + d.entry->valueToStrep())
                << "\n";
   } else {
      std::cout << (scenario ? "# ignored" : "ignored") << "\n";
   }
}

// --follow: across the speaker going away and coming back, each connection's snapshot then its
// changes, for `duration`.
int followFor(const std::string& target, std::chrono::seconds duration, bool scenario) {
   struct Printer : SrTeBgp::SpeakerWatch::Handler {
      bool scenario;
      void onSnapshot(std::vector<SrTeBgp::PathDecoding> paths) override {
         std::cout << "# snapshot: " << paths.size() << " paths\n";
         for (const auto& d : paths) print(d, scenario);
         std::cout.flush();
      }
      void onChange(SrTeBgp::PathDecoding d) override {
         print(d, scenario);
         std::cout.flush();
      }
      void onDisconnected(const std::string& why, std::chrono::milliseconds retryIn) override {
         std::cout << "# disconnected: " << why << "; again in " << retryIn.count() << " ms\n";
         std::cout.flush();
      }
   } printer;
   printer.scenario = scenario;
   SrTeBgp::SpeakerWatch watch({target}, printer);
   std::thread timer([&] {
      std::this_thread::sleep_for(duration);
      watch.stop();
   });
   watch.run();
   timer.join();
   return 0;
}

} // namespace

int main(int argc, char** argv) {
   std::string target = "127.0.0.1:50051";
   long count = -1;
   long timeoutSeconds = 0;
   bool scenario = false;
   bool events = false;
   bool follow = false;
   double idleSeconds = 0;
   for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      if (a == "--scenario") {
         scenario = true;
         continue;
      }
      if (a == "--events") {
         events = true;
         continue;
      }
      if (a == "--follow") {
         follow = true;
         continue;
      }
      if (i + 1 >= argc) return usage();
      if (a == "--gobgp") {
         target = argv[++i];
      } else if (a == "--count") {
         count = std::strtol(argv[++i], nullptr, 10);
      } else if (a == "--idle") {
         idleSeconds = std::strtod(argv[++i], nullptr);
      } else if (a == "--timeout") {
         timeoutSeconds = std::strtol(argv[++i], nullptr, 10);
      } else {
         return usage();
      }
   }

   if (follow) {
      if (timeoutSeconds <= 0) return usage();
      return followFor(target, std::chrono::seconds(timeoutSeconds), scenario);
   }

   grpc::ChannelArguments args;
   // The initial snapshot is one message holding every best path.
   args.SetMaxReceiveMessageSize(-1);
   auto channel = grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), args);
   auto stub = apipb::GobgpApi::NewStub(channel);

   grpc::ClientContext context;
   if (timeoutSeconds > 0)
      context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(timeoutSeconds));
   apipb::WatchEventRequest request;
   auto* filter = request.mutable_table()->add_filters();
   filter->set_type(apipb::WatchEventRequest::Table::Filter::BEST);
   filter->set_init(true);
   auto reader = stub->WatchEvent(&context, request);

   // A blocking read cannot time out on its own: a watchdog cancels the call once it went quiet.
   using Clock = std::chrono::steady_clock;
   std::atomic<long> seen = 0;
   std::atomic<Clock::rep> lastEvent = Clock::now().time_since_epoch().count();
   std::atomic<bool> done = false, idled = false;
   std::thread watchdog;
   if (idleSeconds > 0) {
      watchdog = std::thread([&] {
         const auto idle = std::chrono::duration_cast<Clock::duration>(
             std::chrono::duration<double>(idleSeconds));
         while (!done) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            const Clock::time_point last{Clock::duration(lastEvent.load())};
            if (seen > 0 && Clock::now() - last > idle) {
               idled = true;
               context.TryCancel();
               return;
            }
         }
      });
   }
   auto stopWatchdog = [&] {
      done = true;
      if (watchdog.joinable()) watchdog.join();
   };
   apipb::WatchEventResponse response;
   while ((count < 0 || seen < count) && reader->Read(&response)) {
      if (events) {
         // How the speaker frames its stream: what an adapter's resynchronisation relies on.
         if (response.has_table()) {
            std::cout << "# event: table, " << response.table().paths_size() << " paths\n";
         } else if (response.has_peer()) {
            std::cout << "# event: peer, type " << response.peer().type() << "\n";
         } else {
            std::cout << "# event: other\n";
         }
         std::cout.flush();
      }
      if (!response.has_table()) continue;
      for (const apipb::Path& path : response.table().paths()) {
         if (!isSrPolicy(path)) continue;
         print(SrTeBgp::decodePath(path), scenario);
         ++seen;
         lastEvent = Clock::now().time_since_epoch().count();
      }
      std::cout.flush();
   }
   if (count >= 0 && seen >= count) {
      context.TryCancel();
      stopWatchdog();
      return 0;
   }
   const grpc::Status status = reader->Finish();
   stopWatchdog();
   if (idled) return 0;
   if (!status.ok() && status.error_code() != grpc::StatusCode::DEADLINE_EXCEEDED) {
      std::cerr << "bgp-watch: " << target << ": " << status.error_message() << "\n";
      return 1;
   }
   return count >= 0 ? 2 : 0;
}
