#include "bgp/SpeakerWatch.h"

#include <grpcpp/grpcpp.h>

#include <algorithm>

#include "attribute.pb.h"
#include "gobgp.grpc.pb.h"

namespace SrTeBgp {

SpeakerWatch::SpeakerWatch(Options options, Handler& handler)
    : options_(std::move(options)), handler_(handler) {}

SpeakerWatch::~SpeakerWatch() { stop(); }

void SpeakerWatch::stop() {
   std::lock_guard<std::mutex> lock(mutex_);
   stopping_ = true;
   if (current_) current_->TryCancel();
   wake_.notify_all();
}

bool SpeakerWatch::watchOnce(std::string& why) {
   grpc::ChannelArguments args;
   // The snapshot is one message holding every best path.
   args.SetMaxReceiveMessageSize(-1);
   auto channel =
       grpc::CreateCustomChannel(options_.target, grpc::InsecureChannelCredentials(), args);
   auto stub = apipb::GobgpApi::NewStub(channel);
   grpc::ClientContext context;
   {
      std::lock_guard<std::mutex> lock(mutex_);
      if (stopping_) return false;
      current_ = &context;
   }
   apipb::WatchEventRequest request;
   auto* filter = request.mutable_table()->add_filters();
   filter->set_type(apipb::WatchEventRequest::Table::Filter::BEST);
   filter->set_init(true);
   auto reader = stub->WatchEvent(&context, request);

   bool snapshotSeen = false;
   apipb::WatchEventResponse response;
   while (reader->Read(&response)) {
      if (!response.has_table()) continue;
      std::vector<PathDecoding> paths;
      for (const apipb::Path& p : response.table().paths()) {
         if (p.family().safi() == apipb::Family::SAFI_SR_POLICY) paths.push_back(decodePath(p));
      }
      if (!snapshotSeen) {
         snapshotSeen = true;
         handler_.onSnapshot(std::move(paths));
      } else if (!paths.empty()) {
         handler_.onChanges(std::move(paths));
      }
   }
   const grpc::Status status = reader->Finish();
   {
      std::lock_guard<std::mutex> lock(mutex_);
      current_ = nullptr;
   }
   why = status.ok() ? "the speaker ended the watch" : status.error_message();
   return snapshotSeen;
}

void SpeakerWatch::run() {
   std::chrono::milliseconds backoff = options_.initialBackoff;
   for (;;) {
      std::string why;
      if (watchOnce(why)) backoff = options_.initialBackoff;
      std::unique_lock<std::mutex> lock(mutex_);
      if (stopping_) return;
      lock.unlock();
      handler_.onDisconnected(why, backoff);
      lock.lock();
      if (wake_.wait_for(lock, backoff, [this] { return stopping_; })) return;
      backoff = std::min(backoff * 2, options_.maxBackoff);
   }
}

} // namespace SrTeBgp
