// Following a BGP speaker's best SR Policy paths over its API, across the speaker going away.
//
// Each connection opens a watch of the best paths with the initial table; the speaker's first
// table message is then every best path it has (one message, possibly empty), and each later
// message carries changes: a changed route as a new add, a withdrawn one with its withdraw flag.
// So each connection begins with onSnapshot (the whole current state: what is not in it is gone)
// and goes on with onChange. When the stream breaks or cannot be opened, onDisconnected says why
// and when the next attempt is; the delay doubles from `initialBackoff` up to `maxBackoff` and
// starts again from the initial one after a connection that delivered its snapshot.
//
// run() blocks, calling the handler on its own thread, until stop() (from any thread).
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "bgp/PathDecoder.h"

namespace grpc {
class ClientContext;
}

namespace SrTeBgp {

class SpeakerWatch {
 public:
   struct Handler {
      virtual ~Handler() = default;
      virtual void onSnapshot(std::vector<PathDecoding> paths) = 0;
      virtual void onChange(PathDecoding path) = 0;
      // The changes of one message of the speaker's, in order; by default one onChange each.
      virtual void onChanges(std::vector<PathDecoding> paths) {
         for (PathDecoding& d : paths) onChange(std::move(d));
      }
      virtual void onDisconnected(const std::string& why, std::chrono::milliseconds retryIn) = 0;
   };
   struct Options {
      std::string target = "127.0.0.1:50051";
      std::chrono::milliseconds initialBackoff{100};
      std::chrono::milliseconds maxBackoff{5000};
   };

   SpeakerWatch(Options options, Handler& handler);
   ~SpeakerWatch();

   void run();
   void stop();

 private:
   // One connection: true when it delivered its snapshot before it ended; `why` says how it
   // ended.
   bool watchOnce(std::string& why);

   Options options_;
   Handler& handler_;
   std::mutex mutex_;
   std::condition_variable wake_;
   bool stopping_ = false;
   grpc::ClientContext* current_ = nullptr; // the call to cancel on stop(), under mutex_
};

} // namespace SrTeBgp
