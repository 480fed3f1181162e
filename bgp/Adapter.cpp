#include "bgp/Adapter.h"

#include <grpcpp/grpcpp.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <ostream>
#include <thread>

#include "agent/BgpStatus.h"
#include "agent/Feed.h"
#include "agent/InputMirror.h"
#include "agent/Script.h"
#include "bgp/SpeakerWatch.h"
#include "bgp/TableSync.h"
#include "gobgp.grpc.pb.h"

namespace SrTeBgp {

using Agent::BgpConnection;

namespace {

int64_t unixMs() {
   return std::chrono::duration_cast<std::chrono::milliseconds>(
              std::chrono::system_clock::now().time_since_epoch())
       .count();
}

// Every peer of the speaker, and the updates they sent it: what SettleWatch judges by. A speaker
// that does not answer has no established peer.
SettleWatch::Sample samplePeers(apipb::GobgpApi::Stub& stub) {
   SettleWatch::Sample s;
   grpc::ClientContext context;
   context.set_deadline(std::chrono::system_clock::now() + std::chrono::seconds(1));
   apipb::ListPeerRequest request;
   auto reader = stub.ListPeer(&context, request);
   apipb::ListPeerResponse response;
   bool all = true;
   while (reader->Read(&response)) {
      const apipb::PeerState& state = response.peer().state();
      all = all && state.session_state() == apipb::PeerState::ESTABLISHED;
      s.updatesIn += state.messages().received().update();
   }
   s.established = reader->Finish().ok() && all;
   return s;
}

class Adapter : public SpeakerWatch::Handler {
 public:
   Adapter(const AdapterOptions& options, std::ostream& err)
       : options_(options), err_(err),
         statusWriter_(options.router, Agent::bgpStatusTable, Agent::bgpStatusGeometry()),
         input_(options.router, Agent::inputTableName(SrTePolicy::Protocol::bgp), geometry()),
         sync_(input_, status_), settle_(options.settle, options.staleHold),
         watch_({options.speaker}, *this) {
      status_.pid = static_cast<uint32_t>(::getpid());
      status_.speakerIs(options.speaker);
      status_.recordsHeld = input_.size();
      stateIs(BgpConnection::connecting);
      say("started, pid " + std::to_string(::getpid()) + ", speaker " + options.speaker + ", " +
          std::to_string(input_.size()) + " records held" +
          (input_.tookOver() ? " (taken over from an adapter that died)" : ""));
   }

   int run(const sigset_t& stopSignals) {
      std::thread follower([this] { watch_.run(); });
      grpc::ChannelArguments args;
      auto stub = apipb::GobgpApi::NewStub(
          grpc::CreateCustomChannel(options_.speaker, grpc::InsecureChannelCredentials(), args));
      const timespec tick{0, 200 * 1000 * 1000};
      int signal = 0;
      while ((signal = ::sigtimedwait(&stopSignals, nullptr, &tick)) < 0) {
         bool waiting = false;
         {
            std::lock_guard<std::mutex> lock(mutex_);
            // Not while the speaker is away: what it has then is unknown, and the next
            // snapshot starts the wait again.
            waiting =
                sync_.resynchronising() && status_.connection == BgpConnection::resynchronising;
         }
         if (waiting) {
            SettleWatch::Sample sample = samplePeers(*stub);
            std::lock_guard<std::mutex> lock(mutex_);
            sample.pathsSeen = pathsSeen_;
            // A reconnection may have begun again meanwhile: it restarted the watch.
            if (sync_.resynchronising() && status_.connection == BgpConnection::resynchronising &&
                settle_.whole(sample, SettleWatch::Clock::now())) {
               size_t gone = 0;
               guarded([&] { gone = sync_.complete(); });
               stateIs(BgpConnection::synchronised);
               say("synchronised: " + std::to_string(input_.size()) + " records, " +
                   std::to_string(gone) + " stale deleted");
            }
         }
      }
      watch_.stop();
      follower.join();
      std::lock_guard<std::mutex> lock(mutex_);
      stateIs(BgpConnection::stopped);
      say("stopped by signal " + std::to_string(signal) + "; " + std::to_string(input_.size()) +
          " records left in place");
      return Agent::exitOk;
   }

   void onSnapshot(std::vector<PathDecoding> paths) override {
      std::lock_guard<std::mutex> lock(mutex_);
      const uint64_t written = status_.recordsWritten;
      guarded([&] { sync_.snapshot(paths); });
      pathsSeen_ += paths.size();
      settle_.restart(SettleWatch::Clock::now());
      status_.lastErrorIs("");
      stateIs(BgpConnection::resynchronising);
      say("snapshot: " + std::to_string(paths.size()) + " paths, " +
          std::to_string(status_.recordsWritten - written) + " records written, " +
          std::to_string(sync_.stale()) + " held records not in it wait");
   }

   void onChange(PathDecoding path) override { onChanges({std::move(path)}); }

   void onChanges(std::vector<PathDecoding> paths) override {
      std::lock_guard<std::mutex> lock(mutex_);
      guarded([&] { sync_.changes(paths); });
      pathsSeen_ += paths.size();
      // Once per message of the speaker's: the status never lags the table it describes.
      publish();
   }

   void onDisconnected(const std::string& why, std::chrono::milliseconds retryIn) override {
      std::lock_guard<std::mutex> lock(mutex_);
      const bool news = status_.connection != BgpConnection::disconnected || why != lastWhy_;
      lastWhy_ = why;
      status_.lastErrorIs(why);
      stateIs(BgpConnection::disconnected);
      // Each attempt fails the same way while the speaker is away: told once.
      if (news) {
         say("speaker lost (" + why + "); retrying, next in " + std::to_string(retryIn.count()) +
             " ms; the " + std::to_string(input_.size()) + " records stay");
      }
   }

 private:
   Vault::Shm::Geometry geometry() const {
      Vault::Shm::Geometry g;
      g.capacity = options_.capacity;
      g.ringCapacity = std::max<uint64_t>(g.ringCapacity, options_.capacity / 4);
      return g;
   }

   // A table cut or spoilt under the writer: told, and the adapter goes on with the next change.
   template <class F>
   void guarded(F&& f) {
      try {
         f();
      } catch (const Vault::Corruption& e) {
         status_.lastErrorIs(e.what());
         say(e.what());
      }
   }

   void say(const std::string& what) {
      err_ << "srte bgp: router " << options_.router << ": " << what << "\n" << std::flush;
   }

   void stateIs(BgpConnection c) {
      if (status_.connection != c || status_.changedAtMs == 0) status_.changedAtMs = unixMs();
      status_.connection = c;
      publish();
   }

   // Under mutex_.
   void publish() {
      try {
         statusWriter_.insert(status_);
      } catch (const Vault::Corruption& e) {
         // The status is for people; the routes go on without it.
         say(std::string("status not written: ") + e.what());
      }
   }

   AdapterOptions options_;
   std::ostream& err_;
   std::mutex mutex_;
   Agent::BgpStatusWriter statusWriter_;
   Agent::InputMirror::SharedInputWriter input_;
   Agent::BgpStatus status_;
   TableSync sync_;
   SettleWatch settle_;
   uint64_t pathsSeen_ = 0;
   std::string lastWhy_;
   SpeakerWatch watch_; // last: its thread calls into the members above
};

} // namespace

int runAdapter(const AdapterOptions& options, std::ostream& err) {
   // Blocked before any thread starts, so that every thread inherits the mask and the main one
   // takes the signals with sigtimedwait.
   sigset_t stop;
   sigemptyset(&stop);
   sigaddset(&stop, SIGTERM);
   sigaddset(&stop, SIGINT);
   pthread_sigmask(SIG_BLOCK, &stop, nullptr);
   try {
      Adapter adapter(options, err);
      return adapter.run(stop);
   } catch (const Vault::Shm::WriterBusy& e) {
      err << "srte bgp: " << e.what() << "\n";
   } catch (const Vault::Corruption& e) {
      err << "srte bgp: " << e.what() << "\n";
   } catch (const std::invalid_argument& e) {
      err << "srte bgp: " << e.what() << "\n";
   }
   return Agent::exitCannotRun;
}

} // namespace SrTeBgp
