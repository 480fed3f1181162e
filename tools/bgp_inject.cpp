// bgp-inject: adds, changes and withdraws SR policies on a BGP speaker through its API, as a
// controller would advertise them. Commands (see bgp/InjectCommand.h) come one a line from the
// files given, or standard input ("-" or none).
//
//    bgp-inject [--gobgp HOST:PORT] [--next-hop ADDRESS] [FILE | -]...
//
// Stops at the first line it cannot parse or the speaker refuses, naming the file and line.
#include <grpcpp/grpcpp.h>

#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "attribute.pb.h"
#include "bgp/InjectCommand.h"
#include "gobgp.grpc.pb.h"

namespace {

int usage() {
   std::cerr << "usage: bgp-inject [--gobgp HOST:PORT] [--next-hop ADDRESS] [FILE | -]...\n";
   return 64;
}

struct Injector {
   std::unique_ptr<apipb::GobgpApi::Stub> stub;
   std::string nextHop;

   grpc::Status run(const SrTeBgp::InjectCommand& c) {
      grpc::ClientContext context;
      if (c.kind == SrTeBgp::InjectCommand::Kind::add) {
         apipb::AddPathRequest request;
         request.set_table_type(apipb::GLOBAL);
         *request.mutable_path() = SrTeBgp::encodePath(c.advert, nextHop);
         apipb::AddPathResponse response;
         return stub->AddPath(&context, request, &response);
      }
      // The speaker finds the path to delete from its NLRI; it wants the attributes a path has.
      apipb::DeletePathRequest request;
      request.set_table_type(apipb::GLOBAL);
      *request.mutable_path() = SrTeBgp::encodePath(c.advert, nextHop);
      *request.mutable_family() = request.path().family();
      google::protobuf::Empty response;
      return stub->DeletePath(&context, request, &response);
   }
};

// Consecutive adds go in batches over one AddPathStream call: one request per path costs a round
// trip each and caps a large injection at a few thousand paths a second.
class AddBatch {
 public:
   static constexpr int size = 1000;
   explicit AddBatch(Injector& injector) : injector_(injector) {}
   bool add(const SrTeBgp::InjectCommand& c) {
      if (!writer_) {
         context_ = std::make_unique<grpc::ClientContext>();
         writer_ = injector_.stub->AddPathStream(context_.get(), &response_);
      }
      *request_.add_paths() = SrTeBgp::encodePath(c.advert, injector_.nextHop);
      return request_.paths_size() < size || send();
   }
   // Sends what is pending and ends the stream; false (with the speaker's words) if refused.
   bool flush() {
      if (!writer_) return true;
      const bool sent = request_.paths_size() == 0 || send();
      writer_->WritesDone();
      const grpc::Status s = writer_->Finish();
      writer_.reset();
      if (!s.ok()) error_ = s.error_message();
      return sent && s.ok();
   }
   const std::string& error() const { return error_; }

 private:
   bool send() {
      request_.set_table_type(apipb::GLOBAL);
      const bool ok = writer_->Write(request_);
      request_.clear_paths();
      if (!ok) error_ = "the stream was closed";
      return ok;
   }

   Injector& injector_;
   std::unique_ptr<grpc::ClientContext> context_;
   google::protobuf::Empty response_;
   std::unique_ptr<grpc::ClientWriter<apipb::AddPathStreamRequest>> writer_;
   apipb::AddPathStreamRequest request_;
   std::string error_;
};

bool runStream(Injector& injector, std::istream& in, const std::string& name) {
   AddBatch batch(injector);
   auto refused = [&](int n, const std::string& why) {
      std::cerr << "bgp-inject: " << name << ":" << n << ": the speaker refused: " << why << "\n";
      return false;
   };
   std::string line;
   int n = 1;
   for (; std::getline(in, line); ++n) {
      try {
         std::optional<SrTeBgp::InjectCommand> c = SrTeBgp::parseInjectLine(line);
         if (!c) continue;
         if (c->kind == SrTeBgp::InjectCommand::Kind::add) {
            if (!batch.add(*c)) return refused(n, batch.error());
            continue;
         }
         // A withdrawal must follow the adds before it.
         if (!batch.flush()) return refused(n, batch.error());
         const grpc::Status s = injector.run(*c);
         if (!s.ok()) return refused(n, s.error_message());
      } catch (const std::exception& e) {
         batch.flush();
         std::cerr << "bgp-inject: " << name << ":" << n << ": " << e.what() << "\n";
         return false;
      }
   }
   if (!batch.flush()) return refused(n - 1, batch.error());
   return true;
}

} // namespace

int main(int argc, char** argv) {
   std::string target = "127.0.0.1:50051";
   Injector injector;
   injector.nextHop = "127.0.0.1";
   std::vector<std::string> files;
   for (int i = 1; i < argc; ++i) {
      const std::string a = argv[i];
      if (a == "--gobgp" && i + 1 < argc) {
         target = argv[++i];
      } else if (a == "--next-hop" && i + 1 < argc) {
         injector.nextHop = argv[++i];
      } else if (!a.empty() && a[0] == '-' && a != "-") {
         return usage();
      } else {
         files.push_back(a);
      }
   }
   if (files.empty()) files.push_back("-");
   injector.stub =
       apipb::GobgpApi::NewStub(grpc::CreateChannel(target, grpc::InsecureChannelCredentials()));
   for (const std::string& f : files) {
      if (f == "-") {
         if (!runStream(injector, std::cin, "<stdin>")) return 1;
         continue;
      }
      std::ifstream in(f);
      if (!in) {
         std::cerr << "bgp-inject: cannot open " << f << "\n";
         return 1;
      }
      if (!runStream(injector, in, f)) return 1;
   }
   return 0;
}
