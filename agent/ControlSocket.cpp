#include "agent/ControlSocket.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <system_error>

#include "platform/KilnLoop.h"
#include "platform/VaultShm.h"

namespace Agent {

namespace {

sockaddr_un addressOf(const std::string& path) {
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   if (path.size() >= sizeof a.sun_path) {
      throw std::runtime_error("control socket path too long: " + path);
   }
   std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
   return a;
}

// A reply too large to be one (a corrupt header) is not waited for.
constexpr size_t maxReplyBytes = size_t{1} << 31;

} // namespace

std::string controlSocketPath(const std::string& router) {
   Vault::Shm::segmentPath(router, "sock"); // the same rule for names as the router's tables
   return "/dev/shm/srte-agent." + router + ".sock";
}

// ---- status

namespace {

std::string states(const AgentProgress& p) {
   return std::string("core ") + (p.coreIdle ? "idle" : "at work") + ", published tables " +
          (p.publishedWritten ? "written" : "behind");
}

} // namespace

std::string AgentProgress::text() const {
   return "taken in " + std::to_string(recordsTakenIn) + " records, " + std::to_string(taskRuns) +
          " task runs, " + std::to_string(tasksReady) + " tasks ready, " + std::to_string(paths) +
          " paths held, " + states(*this) + "\n";
}

std::string AgentProgress::summary() const {
   return std::to_string(recordsTakenIn) + " records taken in, " + std::to_string(tasksReady) +
          " tasks ready, " + states(*this);
}

std::optional<AgentProgress> AgentProgress::parse(const std::string& line) {
   AgentProgress p;
   char core[8] = {}, published[8] = {};
   int end = 0;
   // %n after the last word: a line cut short anywhere before it is refused.
   if (std::sscanf(
           line.c_str(),
           "taken in %" SCNu64 " records, %" SCNu64 " task runs, %" SCNu64 " tasks ready, %" SCNu64
           " paths held, core %7[a-z ], published tables %7[a-z]%n",
           &p.recordsTakenIn, &p.taskRuns, &p.tasksReady, &p.paths, core, published, &end) != 6 ||
       end == 0) {
      return std::nullopt;
   }
   const std::string rest = line.substr(static_cast<size_t>(end));
   if (rest != "" && rest != "\n") return std::nullopt;
   const std::string c = core, w = published;
   if ((c != "idle" && c != "at work") || (w != "written" && w != "behind")) return std::nullopt;
   p.coreIdle = c == "idle";
   p.publishedWritten = w == "written";
   return p;
}

// ---- server

ControlServer::ControlServer(const std::string& router, Kiln::Loop& loop, Handler handler)
    : path_(controlSocketPath(router)), loop_(loop), handler_(std::move(handler)) {
   const sockaddr_un address = addressOf(path_);
   listenFd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
   if (listenFd_ < 0) throw std::system_error(errno, std::generic_category(), "socket");
   // The caller holds the router's lock: a file under this name is a dead agent's.
   ::unlink(path_.c_str());
   if (::bind(listenFd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
       ::listen(listenFd_, 16) != 0) {
      const int e = errno;
      ::close(listenFd_);
      throw std::runtime_error("cannot listen on " + path_ + ": " + std::strerror(e));
   }
   loop_.fdIs(listenFd_, [this] { accept(); });
}

ControlServer::~ControlServer() {
   while (!connections_.empty()) close(connections_.begin()->first);
   loop_.fdDel(listenFd_);
   ::close(listenFd_);
   unlink();
}

void ControlServer::unlink() noexcept {
   if (!path_.empty()) ::unlink(path_.c_str());
   path_.clear();
}

void ControlServer::accept() {
   for (;;) {
      const int fd = ::accept4(listenFd_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) return; // EAGAIN, or a peer gone before we took it
      if (connections_.size() >= maxConnections) {
         static constexpr char busy[] = "error too many connections to this agent\n";
         static_cast<void>(::send(fd, busy, sizeof busy - 1, MSG_NOSIGNAL | MSG_DONTWAIT));
         ::close(fd);
         continue;
      }
      const Client c = next_++;
      connections_[c].fd = fd;
      loop_.fdIs(fd, [this, c] { read(c); });
   }
}

void ControlServer::read(Client c) {
   char buf[4096];
   for (;;) {
      auto it = connections_.find(c);
      if (it == connections_.end()) return;
      const ssize_t n = ::recv(it->second.fd, buf, sizeof buf, 0);
      if (n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR)) {
         close(c);
         return;
      }
      if (n < 0) return;
      it->second.in.append(buf, static_cast<size_t>(n));
      if (it->second.in.size() > maxQueuedBytes) {
         // Requests piled up behind one not answered yet: a client that does not read replies.
         replyError(c, "too many requests waiting for an answer");
         close(c);
         return;
      }
      if (!process(c)) return;
   }
}

bool ControlServer::process(Client c) {
   // Each complete line is a request, taken once the one before it was answered; the handler may
   // reply, or close, at once.
   for (;;) {
      auto it = connections_.find(c);
      if (it == connections_.end()) return false;
      Connection& conn = it->second;
      if (conn.waiting || conn.processing) return true;
      std::string& in = conn.in;
      const size_t end = in.find('\n');
      if (end == std::string::npos) {
         if (in.size() > maxRequestBytes) {
            conn.processing = true;
            replyError(c, "request longer than " + std::to_string(maxRequestBytes) + " bytes");
            close(c);
            return false;
         }
         return true;
      }
      std::string line = in.substr(0, end);
      in.erase(0, end + 1);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      if (line.size() > maxRequestBytes) {
         conn.processing = true;
         replyError(c, "request longer than " + std::to_string(maxRequestBytes) + " bytes");
         if (connected(c)) connections_.at(c).processing = false;
         continue;
      }
      conn.waiting = conn.processing = true;
      handler_(c, line);
      it = connections_.find(c);
      if (it == connections_.end()) return false;
      it->second.processing = false;
   }
}

void ControlServer::reply(Client c, const std::string& body) {
   send(c, "ok " + std::to_string(body.size()) + "\n" + body);
}

void ControlServer::replyError(Client c, const std::string& text) {
   std::string line = text;
   for (char& ch : line) {
      if (ch == '\n' || ch == '\r') ch = ' ';
   }
   send(c, "error " + line + "\n");
}

void ControlServer::send(Client c, std::string data) {
   auto it = connections_.find(c);
   if (it == connections_.end()) return; // asked and went away
   Connection& conn = it->second;
   conn.waiting = false;
   const bool idle = conn.out.size() == conn.sent;
   if (idle) {
      conn.out = std::move(data);
      conn.sent = 0;
   } else {
      conn.out += data;
   }
   flush(c);
   // A reply given later (sync) lets the requests that came meanwhile be taken.
   if (connected(c) && !connections_.at(c).processing) process(c);
}

void ControlServer::flush(Client c) {
   auto it = connections_.find(c);
   if (it == connections_.end()) return;
   Connection& conn = it->second;
   while (conn.sent < conn.out.size()) {
      const ssize_t n = ::send(conn.fd, conn.out.data() + conn.sent, conn.out.size() - conn.sent,
                               MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
         conn.sent += static_cast<size_t>(n);
         continue;
      }
      if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
         // The rest as the peer reads; the loop goes on meanwhile.
         loop_.fdWritableIs(conn.fd, [this, c] { flush(c); });
         return;
      }
      if (n < 0 && errno == EINTR) continue;
      close(c);
      return;
   }
   conn.out.clear();
   conn.sent = 0;
   loop_.fdWritableDel(conn.fd);
}

void ControlServer::close(Client c) {
   auto it = connections_.find(c);
   if (it == connections_.end()) return;
   loop_.fdDel(it->second.fd);
   ::close(it->second.fd);
   connections_.erase(it);
}

// ---- client

ControlClient::ControlClient(const std::string& router, Duration timeout)
    : router_(router), timeout_(timeout) {
   const std::string path = controlSocketPath(router);
   const sockaddr_un address = addressOf(path);
   fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "socket");
   if (::connect(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
      const int e = errno;
      ::close(fd_);
      fd_ = -1;
      if (e == ENOENT || e == ECONNREFUSED) {
         throw AgentUnreachable("no agent runs for router " + router +
                                " (start one with 'srte agent --router " + router + "')");
      }
      throw AgentUnreachable("cannot reach the agent of router " + router + " at " + path + ": " +
                             std::strerror(e));
   }
}

ControlClient::~ControlClient() {
   if (fd_ >= 0) ::close(fd_);
}

void ControlClient::send(const std::string& request) {
   const std::string line = request + "\n";
   size_t done = 0;
   while (done < line.size()) {
      const ssize_t n = ::send(fd_, line.data() + done, line.size() - done, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
         const int e = errno;
         // An agent that turned the connection away said why before it closed it (too many
         // connections): that line, when it came, is the answer.
         char buf[512];
         for (ssize_t got; (got = ::recv(fd_, buf, sizeof buf, MSG_DONTWAIT)) > 0;) {
            in_.append(buf, static_cast<size_t>(got));
         }
         std::string body;
         if (in_.rfind("error ", 0) == 0 && in_.find('\n') != std::string::npos) {
            await(Duration(0), body); // throws AgentRefused
         }
         throw AgentUnreachable("the agent of router " + router_ +
                                " went away: " + std::strerror(e));
      }
      done += static_cast<size_t>(n);
   }
}

bool ControlClient::await(Duration slice, std::string& body) {
   const auto end = std::chrono::steady_clock::now() + slice;
   for (;;) {
      const size_t eol = in_.find('\n');
      if (eol != std::string::npos) {
         const std::string head = in_.substr(0, eol);
         if (head.rfind("error ", 0) == 0) {
            in_.erase(0, eol + 1);
            throw AgentRefused(head.substr(6));
         }
         size_t length = 0;
         bool valid = head.rfind("ok ", 0) == 0 && head.size() > 3 && head.size() < 14;
         for (size_t k = 3; valid && k < head.size(); ++k) {
            valid = head[k] >= '0' && head[k] <= '9';
            length = length * 10 + static_cast<size_t>(head[k] - '0');
         }
         if (!valid || length > maxReplyBytes) {
            throw AgentUnreachable("the agent of router " + router_ +
                                   " gave a reply we cannot read");
         }
         if (in_.size() - eol - 1 >= length) {
            body = in_.substr(eol + 1, length);
            in_.erase(0, eol + 1 + length);
            return true;
         }
      }
      const auto left =
          std::chrono::duration_cast<Duration>(end - std::chrono::steady_clock::now());
      if (left.count() <= 0) return false;
      pollfd p{fd_, POLLIN, 0};
      const int r = ::poll(&p, 1, static_cast<int>(left.count()));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      char buf[65536];
      const ssize_t n = ::recv(fd_, buf, sizeof buf, 0);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) {
         throw AgentUnreachable("the agent of router " + router_ + " went away before answering");
      }
      in_.append(buf, static_cast<size_t>(n));
   }
}

std::string ControlClient::ask(const std::string& request) {
   send(request);
   std::string body;
   if (!await(timeout_, body)) {
      throw AgentUnreachable("the agent of router " + router_ + " did not answer '" + request +
                             "' within " + std::to_string(timeout_.count() / 1000) + " s");
   }
   return body;
}

} // namespace Agent
