// The control socket's client against an agent played by the test: what it reports when the agent
// turned its connection away.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "agent/ControlSocket.h"

namespace {

// A listening socket where the agent of `router` would have its own.
class PlayedAgent {
 public:
   explicit PlayedAgent(const std::string& router) : path_(Agent::controlSocketPath(router)) {
      fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      std::memcpy(a.sun_path, path_.c_str(), path_.size() + 1);
      ::unlink(path_.c_str());
      EXPECT_EQ(bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
      EXPECT_EQ(listen(fd_, 4), 0);
   }
   ~PlayedAgent() {
      ::close(fd_);
      ::unlink(path_.c_str());
   }
   // Takes the waiting connection, says `line` and closes it, as an agent serving too many does.
   void turnAway(const std::string& line) {
      const int c = accept(fd_, nullptr, nullptr);
      ASSERT_GE(c, 0);
      ASSERT_EQ(send(c, line.data(), line.size(), MSG_NOSIGNAL), static_cast<ssize_t>(line.size()));
      ::close(c);
   }

 private:
   std::string path_;
   int fd_ = -1;
};

// The agent closed the connection before the request went out, so sending fails (a broken pipe);
// its reason is waiting to be read all the same, and a caller that retries on it must get it.
TEST(ControlClientTest, AConnectionTurnedAwayBeforeTheRequestSaysWhy) {
   const std::string router = "cc" + std::to_string(getpid());
   PlayedAgent agent(router);
   {
      Agent::ControlClient client(router);
      agent.turnAway("error too many connections to this agent\n");
      try {
         client.ask("hello");
         ADD_FAILURE() << "no refusal";
      } catch (const Agent::AgentRefused& e) {
         EXPECT_STREQ(e.what(), "too many connections to this agent");
      }
   }
   // Closed without a word: the agent went away.
   Agent::ControlClient client(router);
   agent.turnAway("");
   try {
      client.ask("hello");
      ADD_FAILURE() << "no error";
   } catch (const Agent::AgentUnreachable& e) {
      EXPECT_NE(std::string(e.what()).find("went away"), std::string::npos) << e.what();
   }
}

} // namespace
