#include "agent/RouterAgent.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "agent/ControlSocket.h"
#include "agent/Feed.h"
#include "agent/Host.h"
#include "agent/InputMirror.h"
#include "agent/Modules.h"
#include "agent/PublishedMirror.h"
#include "agent/RouterTablesShm.h"
#include "agent/Script.h"
#include "core/SrTePolicyMachines.h"
#include "platform/KilnLoop.h"
#include "platform/MoxChanges.h"
#include "platform/VaultShm.h"

extern const char* const srteVersion;

namespace Agent {

using SrTePolicy::Protocol;

// ---- the lock

std::string AgentLock::pathOf(const std::string& router) {
   Vault::Shm::segmentPath(router, "lock"); // the same rule for names as the router's tables
   return "/dev/shm/srte-agent." + router + ".lock";
}

AgentLock::AgentLock(const std::string& router) : path_(pathOf(router)) {
   for (;;) {
      fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
      if (fd_ < 0) {
         throw AgentBusy("cannot open " + path_ + ": " + std::strerror(errno));
      }
      struct flock lock {};
      lock.l_type = F_WRLCK;
      lock.l_whence = SEEK_SET;
      if (::fcntl(fd_, F_OFD_SETLK, &lock) != 0) {
         const int e = errno;
         char pid[32] = {};
         const ssize_t n = ::pread(fd_, pid, sizeof pid - 1, 0);
         ::close(fd_);
         fd_ = -1;
         if (e == EAGAIN || e == EACCES) {
            std::string holder = n > 0 ? std::string(pid, static_cast<size_t>(n)) : "?";
            while (!holder.empty() && (holder.back() == '\n' || holder.back() == ' ')) {
               holder.pop_back();
            }
            throw AgentBusy("an agent (pid " + holder + ") already runs for router " + router);
         }
         throw AgentBusy("cannot lock " + path_ + ": " + std::strerror(e));
      }
      // The file may have been removed by a holder that ended between our open and our lock:
      // the lock is good only on the file the name still leads to.
      struct stat held {
      }, named{};
      if (::fstat(fd_, &held) == 0 && ::stat(path_.c_str(), &named) == 0 &&
          held.st_ino == named.st_ino && held.st_dev == named.st_dev) {
         break;
      }
      ::close(fd_);
   }
   const std::string pid = std::to_string(::getpid()) + "\n";
   // The pid is only for the message a second agent gives: the lock holds without it.
   const bool told = ::ftruncate(fd_, 0) == 0 &&
                     ::pwrite(fd_, pid.data(), pid.size(), 0) == static_cast<ssize_t>(pid.size());
   static_cast<void>(told);
}

AgentLock::~AgentLock() { release(); }

void AgentLock::release() {
   if (fd_ < 0) return;
   // Removed while still held, so that no other agent locks the name we are about to release.
   ::unlink(path_.c_str());
   ::close(fd_);
   fd_ = -1;
}

// ---- the end at a stop signal

const EndAtStopSignal::Text* EndAtStopSignal::current_ = nullptr;

EndAtStopSignal::EndAtStopSignal(const std::string& router, std::vector<std::string> files,
                                 const std::string& during) {
   auto line = [&](int signo) {
      return "srte agent: router " + router + " stopped by signal " + std::to_string(signo) + " (" +
             strsignal(signo) + "), " + during + "\n";
   };
   text_ = {line(SIGTERM), line(SIGINT), std::move(files)};
   current_ = &text_;
   struct sigaction action {};
   action.sa_handler = &EndAtStopSignal::end;
   sigfillset(&action.sa_mask);
   ::sigaction(SIGTERM, &action, &oldTerm_);
   ::sigaction(SIGINT, &action, &oldInt_);
   // A signal that came while they were blocked is delivered here, and ends the process.
   sigemptyset(&signals_);
   sigaddset(&signals_, SIGTERM);
   sigaddset(&signals_, SIGINT);
   ::sigprocmask(SIG_UNBLOCK, &signals_, nullptr);
}

EndAtStopSignal::~EndAtStopSignal() {
   // Blocked again first: a signal from here on waits for the loop.
   ::sigprocmask(SIG_BLOCK, &signals_, nullptr);
   ::sigaction(SIGTERM, &oldTerm_, nullptr);
   ::sigaction(SIGINT, &oldInt_, nullptr);
   current_ = nullptr;
}

// Only what is safe in a handler: unlink, write, _exit.
void EndAtStopSignal::end(int signo) {
   const Text& t = *current_;
   for (const std::string& f : t.files) ::unlink(f.c_str());
   const std::string& line = signo == SIGINT ? t.interrupt : t.term;
   [[maybe_unused]] const ssize_t n = ::write(STDERR_FILENO, line.data(), line.size());
   ::_exit(0);
}

namespace {

double secondsSince(std::chrono::steady_clock::time_point t) {
   return std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
}

// Runs `f` each time its task runs. A run is a change (the change count moves) even when `f`
// changes nothing; `quiet(count)` is told the count the run itself left, so that the agent's own
// timers do not look like work to the published tables' writer.
struct TaskAction : Kiln::Task::Notifiee {
   std::function<void()> f;
   std::function<void(uint64_t)> quiet;
   TaskAction(Kiln::Task& t, std::function<void()> fn, std::function<void(uint64_t)> q = {})
       : f(std::move(fn)), quiet(std::move(q)) {
      notifierIs(&t);
   }
   void onTaskRun() override {
      // Told before `f` runs, which may look at it: what `f` changes moves the count again.
      if (quiet) quiet(Mox::changeCount());
      f();
   }
};

class RouterAgent {
 public:
   RouterAgent(const AgentOptions& options, std::ostream& err)
       : options_(options), err_(err), lock_(options.router),
         host_(hostOutput_,
               HostOptions{.router = options.router,
                           .clock = Kiln::TaskScheduler::ClockMode::real,
                           .writeStaticInput = false,
                           .restartCounts = [this] { return published_.sinceMount(); }}),
         loop_(host_.scheduler()),
         mountTask_(Mox::make<Kiln::Task>(host_.scheduler(), 0, "inputTableMount")),
         reportTask_(Mox::make<Kiln::Task>(host_.scheduler(), 1000, "agentReport")),
         syncTask_(Mox::make<Kiln::Task>(host_.scheduler(), 1000, "publishedSync")),
         mountAction_(
             *mountTask_, [this] { mountTables(); }, [this](uint64_t c) { ownRun(c); }),
         reportAction_(
             *reportTask_, [this] { report(); }, [this](uint64_t c) { ownRun(c); }),
         syncAction_(
             *syncTask_, [] {}, [this](uint64_t c) { ownRun(c); }),
         published_(options.router, host_.core().published()) {
      registerSubsystems(host_);
      host_.core().syslog().sinkIs(&systemLog_);
      if (options.srlb) {
         const auto [first, last] = *options.srlb;
         host_.mplsConfig()->labelRangeIs(Mpls::srlbRangeName,
                                          Mpls::LabelRange(first, last - first + 1));
      }
      if (options.resolvedLabels) resolveLabels(*options.resolvedLabels);
      // Made after the defaults above (SR-TE on, the --srlb block): a router table that goes
      // away gives them back.
      routerTables_ = std::make_unique<RouterTablesMirror>(
          options.router, RouterEntities::of(host_.router()),
          RouterTablesMirror::Hooks{[this](int fd, const std::string& table) {
                                       loop_.fdIs(fd, [this, table] {
                                          noteChanges(routerTables_->drain(table));
                                       });
                                    },
                                    [this](int fd) { loop_.fdDel(fd); },
                                    [this](const std::string& line) {
                                       err_ << "srte agent: " << line << "\n" << std::flush;
                                    }});
      loop_.catchStopSignals();
      loop_.onIdleWorkIs([this] { return onIdle(); });
      control_ = std::make_unique<ControlServer>(
          options.router, loop_,
          [this](ControlServer::Client c, const std::string& request) { serve(c, request); });
   }

   ~RouterAgent() {
      for (auto& [protocol, mirror] : mirrors_) loop_.fdDel(mirror->fd());
   }

   int run() {
      err_ << "srte agent: router " << options_.router << ", pid " << ::getpid() << ", started\n"
           << std::flush;
      // What an earlier agent published is in the entities before any machine starts: their
      // start-up adopts what is still valid and removes the rest. Each step looks at the stop
      // signal; once it came, the loop below ends at once.
      const bool restart = mountPublished();
      if (!loop_.stopWanted()) {
         std::optional<EndAtStopSignal> ending;
         endAtStop(ending, "while starting");
         if (restart) {
            host_.startAsRestart(); // `show restart` counts what this start did to them
         } else {
            host_.start();
         }
      }
      if (!loop_.stopWanted()) mountTables();
      loop_.run();
      err_ << "srte agent: router " << options_.router << " stopped by signal "
           << loop_.stopSignal() << " (" << strsignal(loop_.stopSignal()) << ")\n"
           << std::flush;
      if (options_.exitOnStop) {
         control_->unlink();
         lock_.release();
         std::_Exit(exitOk);
      }
      // Published tables stay as they are for the next agent to adopt: the host stops its core
      // without withdrawing anything.
      return exitOk;
   }

 private:
   size_t paths() const {
      size_t n = 0;
      for (const auto& [protocol, mirror] : mirrors_) n += mirror->table()->policyInputEntryCount();
      return n;
   }

   // "N paths in M input tables, K candidates for selection": what came in, what the core made
   // of it.
   std::string held() const {
      return std::to_string(paths()) + " paths in " + std::to_string(mirrors_.size()) +
             (mirrors_.size() == 1 ? " input table" : " input tables") + ", " +
             std::to_string(host_.core().published().policySelectionInput->policyIdEntry().size()) +
             " candidates for selection, " + std::to_string(published_.sharedRecords()) +
             " published records (" + std::to_string(published_.totals().written) + " written, " +
             std::to_string(published_.totals().erased) + " erased since start, in " +
             std::to_string(std::chrono::duration<double>(published_.syncTime()).count()) + " s)";
   }

   // Every label of `labels` gets an LFIB route over one of 16 two-way ECMP adjacencies.
   void resolveLabels(std::pair<uint32_t, uint32_t> labels) {
      constexpr Mpls::AdjacencyIndex adjacencies = 16;
      for (Mpls::AdjacencyIndex a = 1; a <= adjacencies; ++a) {
         auto via = [a](uint32_t v) {
            const uint32_t n = static_cast<uint32_t>(2 * a + v);
            return Mpls::Via(Ipkit::IpGenAddr::v4(0x0b000000u + n),
                             Ipkit::IntfId(Ipkit::IntfId::Kind::ethernet, n),
                             Ipkit::MplsLabelAction::swap,
                             Ipkit::MplsLabel(17000 + static_cast<uint32_t>(a)));
         };
         host_.mplsStatus()->adjacencyIs(a, {via(0), via(1)});
      }
      for (uint32_t l = labels.first; l <= labels.second; ++l) {
         host_.mplsStatus()->lfibRouteIs(Mpls::LFib::Route(
             Mpls::RouteKey::fromLabel(Ipkit::MplsLabel(l)), Mpls::LFib::RouteType::unknown,
             Mpls::LFib::Source::unknown,
             Mpls::AdjacencyKey(1 + l % adjacencies, Mpls::AdjacencyType::nexthop)));
      }
   }

   // True when an earlier agent's tables were there.
   bool mountPublished() {
      const std::vector<PublishedMountReport> reports =
          published_.mount([this] { return loop_.stopWanted(); });
      if (loop_.stopWanted()) {
         err_ << "srte agent: stopping: published tables left part way, nothing written\n"
              << std::flush;
         return false;
      }
      bool found = false;
      for (const PublishedMountReport& r : reports) {
         found = found || (r.found && r.refused.empty());
         if (!r.refused.empty()) {
            err_ << "srte agent: refused published table " << r.table << ": " << r.refused
                 << "; it starts empty\n";
         } else if (r.found) {
            err_ << "srte agent: mounted published table " << r.table << ", " << r.records
                 << " records\n";
         }
      }
      err_ << std::flush;
      return found;
   }

   void ownRun(uint64_t count) { published_.ownRunChangedNothing(count); }

   // For a step that writes nothing another process reads: a stop signal during it ends the
   // process there (the program's agent; an agent run inside a test stops at the loop).
   void endAtStop(std::optional<EndAtStopSignal>& ending, const std::string& during) {
      if (!options_.exitOnStop) return;
      ending.emplace(options_.router,
                     std::vector<std::string>{control_->path(), AgentLock::pathOf(options_.router)},
                     during);
   }

   // Writes what changed into the shared published tables, one slice at a time, and passes no
   // more often than their cost allows. True when a pass is under way: the loop then serves its
   // descriptors without sleeping and comes back for the next slice.
   bool syncPublished() {
      if (!published_.syncWanted()) return false;
      const auto now = std::chrono::steady_clock::now();
      if (now < published_.syncDue()) {
         syncTask_->scheduleTaskLowestDelay(
             std::chrono::duration_cast<Kiln::Duration>(published_.syncDue() - now));
         return false;
      }
      published_.syncSlice(syncSlice);
      for (const std::string& p : published_.takeProblems()) {
         if (reported_.insert(p).second) err_ << "srte agent: published tables: " << p << "\n";
      }
      err_ << std::flush;
      return published_.syncWanted() && published_.syncDue() <= now;
   }
   // Input waits no longer than this for the published tables' writer.
   static constexpr auto syncSlice = std::chrono::milliseconds(1);

   void noteChanges(const MirrorCounts& c) {
      routerTakenIn_ += c.written + c.erased;
      if (c.written + c.erased + c.rescans != 0) changed_ = true;
   }

   void mountTables() {
      noteChanges(routerTables_->mount());
      for (Protocol protocol : SrTePolicy::PolicyInputSm::handledProtocols) mountTable(protocol);
      mountTask_->scheduleTaskLowestDelay(options_.mountRetry);
   }

   void mountTable(Protocol protocol) {
      const std::string name = inputTableName(protocol);
      auto it = mirrors_.find(protocol);
      if (it != mirrors_.end()) {
         if (!it->second->shared().replaced()) return;
         // The segment went; a new one may stand under the name. Its records are taken in whole
         // below (a rescan), so the table the core sees stays until then.
         loop_.fdDel(it->second->fd());
         std::unique_ptr<InputMirror> old = std::move(it->second);
         takenInBefore_ += old->counts().written + old->counts().erased;
         mirrors_.erase(it);
         if (!attach(protocol, name, old->table())) {
            host_.policyInputSource()->policyInputDel(protocol);
            err_ << "srte agent: " << name << " went away\n" << std::flush;
            changed_ = true;
         }
         return;
      }
      if (!retryDue(protocol)) return;
      attach(protocol, name, nullptr);
   }

   // A table refused as corrupt is tried again when its segment was made anew, else only every
   // `brokenRetry`: a rescan of a large table is not free.
   bool retryDue(Protocol protocol) {
      auto it = broken_.find(protocol);
      if (it == broken_.end()) return true;
      if (segmentInode(protocol) != it->second.inode ||
          std::chrono::steady_clock::now() >= it->second.retryAt) {
         broken_.erase(it);
         return true;
      }
      return false;
   }

   ino_t segmentInode(Protocol protocol) const {
      struct stat st {};
      const std::string path = Vault::Shm::segmentPath(options_.router, inputTableName(protocol));
      return ::stat(path.c_str(), &st) == 0 ? st.st_ino : 0;
   }

   // Mounts the shared table as the in-process `table` (a new one when null). False when it does
   // not exist or makes no sense.
   bool attach(Protocol protocol, const std::string& name,
               Mox::Ptr<SrTePolicy::PolicyInput> table) {
      try {
         InputMirror::SharedInput reader(options_.router, name);
         const bool fresh = !table;
         if (fresh) table = SrTePolicy::policyInputFactory(name);
         auto mirror = std::make_unique<InputMirror>(std::move(reader), table);
         // A large table takes a while: a stop signal cuts it short (the loop then ends). So a
         // new table reaches the core empty and its records one by one, inside the drain: handed
         // over whole, the core's reactors would take them all in one step nothing can cut.
         mirror->stopWhen([this] { return loop_.stopWanted(); });
         if (fresh) {
            table->mountStatusIs(Vault::MountStatus::mounted);
            host_.policyInputSource()->policyInputIs(protocol, table);
         }
         // Said first: a large table takes a moment (half a second at 300,000 records).
         err_ << "srte agent: taking in " << name << ", " << mirror->shared().size() << " records\n"
              << std::flush;
         try {
            mirror->drain(); // the first drain is a rescan: the records come in whole
         } catch (const Vault::Corruption&) {
            if (fresh) host_.policyInputSource()->policyInputDel(protocol);
            throw;
         }
         if (mirror->interrupted()) {
            err_ << "srte agent: stopping: " << name << " left part way, "
                 << mirror->counts().written << " of " << mirror->shared().size()
                 << " records taken in\n"
                 << std::flush;
            return true;
         }
         InputMirror* m = mirror.get();
         loop_.fdIs(m->fd(), [this, protocol] { drain(protocol); });
         mirrors_[protocol] = std::move(mirror);
         err_ << "srte agent: mounted " << name << ", " << m->table()->policyInputEntryCount()
              << " records\n"
              << std::flush;
         changed_ = true;
         return true;
      } catch (const Vault::Shm::NotFound&) {
         return false;
      } catch (const Vault::Corruption& e) {
         refuse(protocol, e.what());
         return false;
      }
   }

   void drain(Protocol protocol) {
      auto it = mirrors_.find(protocol);
      if (it == mirrors_.end()) return;
      try {
         const InputMirror::Counts c = it->second->drain();
         if (c.written + c.erased + c.rescans != 0) changed_ = true;
      } catch (const Vault::Corruption& e) {
         // What the core holds stays: a bad segment does not take the router's paths with it.
         loop_.fdDel(it->second->fd());
         takenInBefore_ += it->second->counts().written + it->second->counts().erased;
         mirrors_.erase(it);
         refuse(protocol, e.what());
      }
   }

   void refuse(Protocol protocol, const std::string& what) {
      broken_[protocol] =
          Broken{segmentInode(protocol), std::chrono::steady_clock::now() + brokenRetry};
      if (reported_.insert(what).second) {
         err_ << "srte agent: refused " << inputTableName(protocol) << ": " << what << "\n"
              << std::flush;
      }
   }

   // No work queued and no timer of the core's pending: what the input says is all done.
   bool coreQuiet() const {
      size_t own = (mountTask_->expirationTimeNs() ? 1 : 0) +
                   (reportTask_->expirationTimeNs() ? 1 : 0) +
                   (syncTask_->expirationTimeNs() ? 1 : 0);
      return host_.scheduler().readyTaskCount() == 0 && host_.scheduler().timerCount() == own;
   }

   // ---- the control socket (agent/ControlSocket.h)

   // Records taken in from the shared tables since start, written or erased.
   uint64_t recordsTakenIn() const {
      uint64_t n = takenInBefore_ + routerTakenIn_;
      for (const auto& [protocol, mirror] : mirrors_) {
         n += mirror->counts().written + mirror->counts().erased;
      }
      return n;
   }

   std::string progress() const {
      const auto& s = host_.scheduler();
      return AgentProgress{.recordsTakenIn = recordsTakenIn(),
                           .taskRuns = s.taskRunCount(),
                           .tasksReady = s.readyTaskCount(),
                           .paths = paths(),
                           .coreIdle = coreQuiet(),
                           .publishedWritten = !published_.syncWanted()}
          .text();
   }

   void serve(ControlServer::Client c, const std::string& request) {
      try {
         answer(c, request);
      } catch (const ScriptError& e) {
         control_->replyError(c, e.what());
      } catch (const std::exception& e) {
         // A fault of ours, not the client's: said, and the agent goes on.
         control_->replyError(c, std::string("internal error: ") + printable(e.what()));
      }
   }

   void answer(ControlServer::Client c, const std::string& request) {
      const std::vector<std::string> words = tokenize(request);
      const std::string verb = words.empty() ? std::string() : words[0];
      if (verb == "hello" || verb == "version") {
         control_->reply(c, "srte " + std::string(srteVersion) + " agent, router " +
                                options_.router + ", pid " + std::to_string(::getpid()) + "\n");
      } else if (verb == "enabled") {
         control_->reply(c, host_.status()->agentEnabled() ? "on\n" : "off\n");
      } else if (verb == "status") {
         control_->reply(c, progress());
      } else if (verb == "sync") {
         // Whatever was written before the request is in the tables' change rings now: take it
         // in at once rather than at the next wake-up, then answer once the core is idle.
         mountTables();
         noteChanges(routerTables_->sync());
         std::vector<Protocol> mounted;
         for (const auto& [protocol, mirror] : mirrors_) mounted.push_back(protocol);
         for (Protocol p : mounted) drain(p); // a corrupt table leaves mirrors_ here
         syncs_.push_back(c);
      } else if (verb == "show") {
         std::ostringstream out;
         host_.outIs(out);
         struct Restore {
            Host& h;
            std::ostream& o;
            ~Restore() { h.outIs(o); }
         } restore{host_, hostOutput_};
         {
            // A large table takes seconds to format (1.5 s for 300,000 candidates).
            std::optional<EndAtStopSignal> ending;
            endAtStop(ending, "while answering '" + printable(request.substr(0, 80)) + "'");
            host_.execute(request);
         }
         control_->reply(c, out.str());
      } else if (verb == "json" && words.size() == 2) {
         const Host::Show* s = host_.show(words[1]);
         if (!s) throw ScriptError("unknown table '" + printable(words[1]) + "'");
         std::string text;
         {
            std::optional<EndAtStopSignal> ending;
            endAtStop(ending, "while answering '" + printable(request.substr(0, 80)) + "'");
            text = s->json().render();
         }
         control_->reply(c, text);
      } else {
         control_->replyError(c, "unknown request '" + printable(request.substr(0, 80)) +
                                     "'; requests: hello, version, status, sync, enabled, "
                                     "show <table> [json], json <table>");
      }
   }

   void answerSyncs() {
      if (syncs_.empty()) return;
      const std::string body = progress();
      for (ControlServer::Client c : std::exchange(syncs_, {})) control_->reply(c, body);
   }

   bool onIdle() {
      if (syncPublished()) return true;
      // No task is ready: every change taken in has been worked through. A sync is answered once
      // what the core published is in shared memory too, where the attached CLI reads it.
      if (!published_.syncWanted()) answerSyncs();
      if (!coreQuiet() || published_.syncWanted()) return false;
      if (!converged_) {
         converged_ = true;
         changed_ = false;
         lastReport_ = std::chrono::steady_clock::now();
         err_ << "srte agent: router " << options_.router << " converged: " << held() << ", "
              << secondsSince(started_) << " s after start\n"
              << std::flush;
         return false;
      }
      if (changed_ && !reportTask_->isScheduled()) {
         const auto since = std::chrono::steady_clock::now() - lastReport_;
         const Kiln::Duration wait = std::chrono::seconds(1) - since;
         reportTask_->scheduleTaskLowestDelay(wait > Kiln::Duration::zero() ? wait
                                                                            : Kiln::Duration(0));
      }
      return false;
   }

   // Runs last among ready tasks (largest priority value): the core has no work queued then.
   void report() {
      if (!changed_) return;
      if (!coreQuiet() || published_.syncWanted()) {
         reportTask_->scheduleTaskLowestDelay(std::chrono::milliseconds(10));
         return;
      }
      changed_ = false;
      lastReport_ = std::chrono::steady_clock::now();
      err_ << "srte agent: router " << options_.router << " converged: " << held() << "\n"
           << std::flush;
   }

   AgentOptions options_;
   std::ostream& err_;
   const std::chrono::steady_clock::time_point started_ = std::chrono::steady_clock::now();
   AgentLock lock_;
   // What the host's commands print when nobody asked: the agent has no terminal of its own.
   std::ostringstream hostOutput_;
   // The router's tables, the core and the subsystems' commands and tables, on the real clock.
   // Config's static policies reach it through the shared configuration tables, but it does not
   // make input records of them (writeStaticInput off): the process that writes the configuration
   // (the configuration handler, an attached srte) writes policyInput-static too, so that table
   // has one writer and the agent never races it.
   Host host_;
   // Every message of the core's system log goes to the host's as well.
   Syslog::SystemSink systemLog_{"srte-agent"};
   Kiln::Loop loop_;
   std::unique_ptr<ControlServer> control_;
   // Clients waiting for the core to be idle.
   std::vector<ControlServer::Client> syncs_;
   uint64_t takenInBefore_ = 0; // by input mirrors since dropped
   uint64_t routerTakenIn_ = 0; // keys of the router's tables
   Mox::Ptr<Kiln::Task> mountTask_, reportTask_, syncTask_;
   TaskAction mountAction_, reportAction_, syncAction_;
   // The published tables in shared memory: mounted before the core starts, then written.
   PublishedMirror published_;
   std::map<Protocol, std::unique_ptr<InputMirror>> mirrors_;
   // The router's own tables (configuration, MPLS, hardware, counters). With an MPLS
   // configuration table the SRLB comes from there and `--srlb` is only the value without one.
   std::unique_ptr<RouterTablesMirror> routerTables_;
   struct Broken {
      ino_t inode;
      std::chrono::steady_clock::time_point retryAt;
   };
   static constexpr auto brokenRetry = std::chrono::seconds(5);
   std::map<Protocol, Broken> broken_;
   std::set<std::string> reported_;
   bool converged_ = false;
   bool changed_ = false;
   std::chrono::steady_clock::time_point lastReport_;
};

} // namespace

int runAgent(const AgentOptions& options, std::ostream& err) {
   try {
      RouterAgent agent(options, err);
      return agent.run();
   } catch (const AgentBusy& e) {
      err << "srte agent: " << e.what() << "\n";
   } catch (const std::invalid_argument& e) {
      err << "srte agent: " << e.what() << "\n";
   } catch (const std::runtime_error& e) {
      err << "srte agent: " << e.what() << "\n";
   }
   return exitCannotRun;
}

} // namespace Agent
