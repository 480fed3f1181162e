// The agent's control socket: how another process (the attached `srte --router NAME`) asks the
// agent of a router what only the agent knows, and waits for it to take in what was written.
//
// A Unix stream socket, /dev/shm/srte-agent.<router>.sock, made by the agent while it holds the
// router's lock (so a socket file found there by a new agent is a dead one's: it is replaced).
// Requests are lines of text; each gets one reply, in the order asked:
//
//    ok <bytes>\n<bytes of body>        or        error <text>\n
//
// The server never blocks the event loop that serves it: descriptors are non-blocking, a reply
// that does not fit the socket's buffer is sent as the peer reads, and a request may be answered
// later (`sync` waits for the core). A line longer than maxRequestBytes, or a client that opens
// more than maxConnections, is refused and closed; nothing a client sends harms the agent.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

namespace Kiln {
class Loop;
}

namespace Agent {

// The socket of `router`'s agent.
std::string controlSocketPath(const std::string& router);

class ControlServer {
 public:
   static constexpr size_t maxRequestBytes = 4096;
   static constexpr size_t maxConnections = 64;
   // Requests a connection may have sent behind one that waits for its answer.
   static constexpr size_t maxQueuedBytes = 64 * maxRequestBytes;

   // Who asked: the reply goes to this connection, if it is still open.
   using Client = uint64_t;
   // Called for each request line; answers with reply() now or later.
   using Handler = std::function<void(Client, const std::string& request)>;

   // Binds and listens (replacing a stale socket file) and serves on `loop`. Throws
   // std::runtime_error when the socket cannot be made.
   ControlServer(const std::string& router, Kiln::Loop& loop, Handler handler);
   ~ControlServer();
   ControlServer(const ControlServer&) = delete;
   ControlServer& operator=(const ControlServer&) = delete;

   void reply(Client client, const std::string& body);
   void replyError(Client client, const std::string& text);
   bool connected(Client client) const { return connections_.contains(client); }
   // Removes the socket file now (a process that ends without its destructors).
   void unlink() noexcept;
   const std::string& path() const noexcept { return path_; }

 private:
   struct Connection {
      int fd = -1;
      std::string in;
      std::string out;
      size_t sent = 0;
      bool waiting = false;    // a request of it is not answered yet
      bool processing = false; // inside its handler
   };
   void accept();
   void read(Client client);
   // Takes the connection's buffered requests in turn; false when it was closed.
   bool process(Client client);
   void flush(Client client);
   void close(Client client);
   void send(Client client, std::string data);

   std::string path_;
   Kiln::Loop& loop_;
   Handler handler_;
   int listenFd_ = -1;
   Client next_ = 1;
   std::map<Client, Connection> connections_;
};

// What `status` tells, and `sync` once it is done: one line,
//
//    taken in R records, T task runs, K tasks ready, P paths held, core idle|at work,
//    published tables written|behind
//
// "core idle": no task ready and no timer of the core pending. "published tables written": the
// shared published tables hold what the core has now (no pass of their writer is under way or
// due). A process waiting for the agent's outputs asks this rather than reading its error stream,
// where a converged line comes at most once a second while the input keeps changing.
struct AgentProgress {
   uint64_t recordsTakenIn = 0; // from the shared tables since start, written or erased
   uint64_t taskRuns = 0;
   uint64_t tasksReady = 0;
   uint64_t paths = 0; // in the input tables the agent holds
   bool coreIdle = false;
   bool publishedWritten = false;

   // Every path held is worked through and what came of it is in shared memory.
   bool converged() const noexcept { return coreIdle && publishedWritten; }
   std::string text() const; // the line, with its newline
   // What a waiting terminal shows: the records, the work ready and the two states, short enough
   // not to wrap.
   std::string summary() const;
   // Nothing for a line that is not one (an agent of an older version says less).
   static std::optional<AgentProgress> parse(const std::string& line);
};

// No agent answers for the router (none runs, or it did not answer in time).
class AgentUnreachable : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// The agent refused the request: its error text.
class AgentRefused : public std::runtime_error {
 public:
   using std::runtime_error::runtime_error;
};

// One connection to a router's agent, for the CLI. Blocking, each wait bounded.
class ControlClient {
 public:
   using Duration = std::chrono::milliseconds;
   // Throws AgentUnreachable, naming the router, when no agent listens.
   explicit ControlClient(const std::string& router, Duration timeout = std::chrono::seconds(5));
   ~ControlClient();
   ControlClient(const ControlClient&) = delete;
   ControlClient& operator=(const ControlClient&) = delete;

   // Sends a request and waits up to the timeout for its reply's body. Throws AgentRefused on an
   // error reply, AgentUnreachable when the agent goes or is silent.
   std::string ask(const std::string& request);
   // In two steps, for a wait that shows progress meanwhile: send, then wait in slices. `await`
   // returns false when `slice` passed without the reply.
   void send(const std::string& request);
   bool await(Duration slice, std::string& body);

 private:
   std::string router_;
   Duration timeout_;
   int fd_ = -1;
   std::string in_;
};

} // namespace Agent
