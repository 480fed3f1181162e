// The CLI attached to a running agent (`srte --router NAME`) and the agent's control socket, with
// real processes: the agent and each CLI session are the built srte program.
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <regex>
#include <set>

#include "agent/ControlSocket.h"
#include "agent/InputMirror.h"
#include "agent/RouterTablesShm.h"
#include "platform/VaultShm.h"
#include "tests/process/Process.h"
#include "tests/support/Sanitizers.h"

namespace {

using namespace ProcessTest;

class AttachedCliTest : public ::testing::Test {
 protected:
   std::string router(const std::string& suffix) {
      std::string r = "ac" + std::to_string(getpid()) + "-" + suffix;
      routers_.insert(r);
      return r;
   }
   // A file of this test, removed at the end.
   std::string file(const std::string& name, const std::string& text = {}) {
      const std::string path = "/tmp/srte-attached-" + std::to_string(getpid()) + "-" + name;
      files_.insert(path);
      std::ofstream(path) << text;
      return path;
   }
   static std::string read(const std::string& path) {
      std::ifstream in(path);
      return std::string(std::istreambuf_iterator<char>(in), {});
   }
   struct Run {
      int status;
      std::string out, err;
   };
   // Runs `srte [args] script` to its end; its standard output and error.
   Run srte(std::vector<std::string> args, const std::string& script) {
      args.push_back(file("script-" + std::to_string(++runs_) + ".srte", script));
      const std::string out = file("out-" + std::to_string(runs_));
      Process p(args, out);
      const int status = p.exitStatus(60s);
      return Run{status, read(out), p.err()};
   }
   Run attached(const std::string& r, const std::string& script) {
      return srte({"--router", r}, script);
   }
   void TearDown() override {
      for (const std::string& r : routers_) {
         Vault::Shm::removeRouter(r);
         EXPECT_NE(access(Agent::controlSocketPath(r).c_str(), F_OK), 0)
             << "the control socket of " << r << " stayed";
      }
      for (const std::string& f : files_) unlink(f.c_str());
   }
   std::set<std::string> routers_, files_;
   int runs_ = 0;
};

// `show all json` compared by meaning: times and ids (which follow the order things were made and
// the clock) are masked, the scheduler's timers too (the agent has timers of its own: mounting,
// reporting), and so are the system log's sequence numbers and the segment-list ids its texts
// quote; rows are compared as a set of lines since tables list rows in hash order. A plain scan
// rather than a regular expression: the output of 10,000 paths is some 30 MB.
// The index of the quote that closes the string opened at `open`, past escaped ones.
size_t closingQuote(const std::string& json, size_t open) {
   for (size_t i = open + 1; i < json.size(); ++i) {
      if (json[i] == '\\') {
         ++i;
      } else if (json[i] == '"') {
         return i;
      }
   }
   return std::string::npos;
}

std::vector<std::string> meaning(const std::string& json) {
   static const std::set<std::string, std::less<>> masked{
       "segmentId",      "segmentIds",     "segmentListId",  "tunnelId",     "wTunnelId",
       "fecId",          "nullLabelFecId", "version",        "lastModified", "now",
       "nextTimerDelay", "timers",         "adjacencyIndex", "seq"};
   std::string out;
   out.reserve(json.size());
   for (size_t i = 0; i < json.size();) {
      const char c = json[i];
      if (c != '"') {
         out += c;
         ++i;
         continue;
      }
      const size_t close = closingQuote(json, i);
      if (close == std::string::npos) {
         out.append(json, i);
         break;
      }
      const std::string_view word(json.data() + i + 1, close - i - 1);
      out.append(json, i, close + 1 - i);
      i = close + 1;
      if (json.compare(i, 2, ": ") != 0) {
         // A string value: a segment-list id quoted in a message is masked too.
         if (word.find("(ID ") != std::string_view::npos) {
            out.resize(out.size() - word.size() - 2);
            static const std::regex id("\\(ID [0-9]+\\)");
            out += '"' + std::regex_replace(std::string(word), id, "(ID *)") + '"';
         }
         continue;
      }
      out += ": ";
      i += 2;
      if (!masked.contains(word)) continue;
      size_t end = i;
      if (json[i] == '[') {
         end = json.find(']', i) + 1;
      } else if (json[i] == '"') {
         end = closingQuote(json, i) + 1;
      } else {
         end = json.find_first_of(",}]\n", i);
      }
      if (end == 0 || end == std::string::npos) end = json.size();
      out += '*';
      i = end;
   }
   std::vector<std::string> lines;
   std::istringstream in(out);
   for (std::string line; std::getline(in, line);) {
      while (!line.empty() && line.back() == ',') line.pop_back();
      lines.push_back(line);
   }
   std::sort(lines.begin(), lines.end());
   return lines;
}

// The lines of one sorted meaning the other lacks, both ways, at most `most` of them: empty when
// they are equal.
std::string differences(const std::vector<std::string>& a, const std::vector<std::string>& b,
                        size_t most = 20) {
   std::vector<std::string> onlyA, onlyB;
   std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(onlyA));
   std::set_difference(b.begin(), b.end(), a.begin(), a.end(), std::back_inserter(onlyB));
   std::string text;
   for (size_t i = 0; i < onlyA.size() && i < most; ++i) text += "- " + onlyA[i] + "\n";
   for (size_t i = 0; i < onlyB.size() && i < most; ++i) text += "+ " + onlyB[i] + "\n";
   if (!text.empty()) {
      text += std::to_string(onlyA.size()) + " lines only in the first, " +
              std::to_string(onlyB.size()) + " only in the second\n";
   }
   return text;
}

// Inputs of every kind the attached CLI shares: the router's tables (configuration, label range,
// adjacencies and LFIB routes, the platform's label depth) and the protocol input tables (bgp
// written directly, static through the configuration). Lists resolve and policies are published;
// one binding SID is out of the block, one candidate has no segment lists, one list is too deep
// and one label has no route.
const std::string inputs = R"(config specified-bsid-only off
label-range srlb base 16000 size 8000
adjacency 1 via 10.1.12.2 Ethernet1 action swap label 100
adjacency 2 via 10.1.13.3 Ethernet2 action swap label 300
lfib route 100 adjacency 1
lfib route 300 adjacency 2
platform max-label-depth 3
input-table bgp
input bgp 10.0.0.1 color 5 discriminator 1 bsid 16001 segment-list labels 100 200
input bgp 10.0.0.1 color 5 discriminator 2 preference 200 bsid 16002 segment-list weight 3 labels 300
input bgp 10.0.0.3 color 9 discriminator 7 bsid 99 segment-list labels 100
input bgp 10.0.0.4 color 1 discriminator 1 bsid 16004
input bgp 10.0.0.5 color 2 discriminator 1 segment-list labels 100 1 2 3 4
input bgp 10.0.0.6 color 2 discriminator 1 bsid 16006 segment-list labels 555
input-table static
static segment-list 10.0.0.2 color 7 preference 200 labels 300 500
static policy 10.0.0.2 color 7 bsid 16010
)";

TEST_F(AttachedCliTest, AnAttachedScriptShowsWhatTheInProcessRouterShows) {
   const std::string r = router("same");
   // No --srlb: the label range comes through the shared MPLS configuration.
   Process agent({"agent", "--router", r});
   ASSERT_TRUE(agent.waitFor("converged")) << agent.err();

   const Run there = attached(r, inputs + "run\nshow all json\n");
   ASSERT_EQ(there.status, 0) << there.err;
   const Run here = srte({}, inputs + "run\nshow all json\n");
   ASSERT_EQ(here.status, 0) << here.err;
   // The tables only the agent knows came from it, and hold what the core made of the inputs.
   EXPECT_NE(there.out.find("\"reasonName\": \"bsidOutOfRange\""), std::string::npos) << there.out;
   EXPECT_NE(there.out.find("\"reasonName\": \"usable\""), std::string::npos) << there.out;
   // Published: a policy status with its binding SID, and its route in this system's LFIB.
   EXPECT_NE(there.out.find("\"bindingSid\": 16002, \"fecId\""), std::string::npos) << there.out;
   EXPECT_NE(there.out.find("{\"bindingSid\": 16002, \"metric\": 1, \"source\": 16"),
             std::string::npos)
       << there.out;
   EXPECT_EQ(meaning(there.out), meaning(here.out)) << "attached:\n"
                                                    << there.out << "\nin-process:\n"
                                                    << here.out;

   // A later session takes the tables over: it sees what the first wrote, and its changes reach
   // the agent as those of the same script run in one process.
   const std::string more = "no input bgp 10.0.0.1 color 5 discriminator 2\n"
                            "input bgp 10.0.0.4 color 1 discriminator 1 bsid 16004 segment-list "
                            "labels 300\nlfib route 200 adjacency 2\nno static policy 10.0.0.2 "
                            "color 7\nrun\nshow all json\n";
   const Run next = attached(r, more);
   ASSERT_EQ(next.status, 0) << next.err;
   const Run once = srte({}, inputs + "run\n" + more);
   ASSERT_EQ(once.status, 0) << once.err;
   EXPECT_EQ(meaning(next.out), meaning(once.out)) << next.out << "\n" << once.out;

   // The agent stopped, what forwarding has still shows: the published tables are read directly.
   const std::string published = "show policy-status json\nshow lfib json\n";
   const Run before = attached(r, published);
   kill(agent.pid(), SIGTERM);
   EXPECT_EQ(agent.exitStatus(2s), 0) << agent.err();
   const Run after = attached(r, published);
   EXPECT_EQ(after.status, 0) << after.err;
   EXPECT_EQ(after.out, before.out);
   EXPECT_NE(after.out.find("\"nullLabelFecId\""), std::string::npos) << after.out;
}

// 10,000 paths written by a feeder. The sanitizers make every step three to five times slower:
// 2,500 there.
constexpr uint32_t fedPaths = TestSupport::sizeFor(10000, 2500);

// The platform for the feeder's drawn records: the binding-SID block, three adjacencies, LFIB
// routes for three quarters of the labels they use (16000 to 16399) and a label depth that their
// four-label lists exceed.
std::string fedPlatform() {
   std::string text = "label-range srlb base 100000 size 800000\n"
                      "adjacency 1 via 10.1.12.2 Ethernet1 action swap label 100\n"
                      "adjacency 2 via 10.1.13.3 Ethernet2 action swap label 300 via 10.1.14.4 "
                      "Ethernet3 action swap label 301\n"
                      "adjacency 3 via 10.1.15.5 Ethernet4 action pop\n"
                      "platform max-label-depth 3\n";
   for (uint32_t label = 16000; label < 16300; ++label) {
      text += "lfib route " + std::to_string(label) + " adjacency " +
              std::to_string(1 + label % 3) + "\n";
   }
   return text;
}

TEST_F(AttachedCliTest, WhatAFeederProcessWroteShowsAsTheSameRecordsGiveInProcess) {
   const std::string r = router("feeder");
   Process agent({"agent", "--router", r});
   ASSERT_TRUE(agent.waitFor("converged")) << agent.err();
   const std::string platform = fedPlatform();
   const Run setUp = attached(r, platform);
   ASSERT_EQ(setUp.status, 0) << setUp.err;

   // The feeder is a process of its own, the writer of the bgp input table; it prints each record
   // it wrote as the scenario line that makes it.
   const std::string records = file("records.srte");
   {
      Process feeder(
          {"feed", "--router", r, "--paths", std::to_string(fedPaths), "--seed", "7", "--print"},
          records);
      ASSERT_EQ(feeder.exitStatus(60s), 0) << feeder.err();
   }
   const std::string lines = read(records);
   ASSERT_EQ(static_cast<size_t>(std::count(lines.begin(), lines.end(), '\n')), fedPaths);

   const auto start = Clock::now();
   const Run there = attached(r, "run\nshow all json\n");
   ASSERT_EQ(there.status, 0) << there.err;
   const auto attachedTime = Clock::now() - start;
   const Run here = srte({}, platform + "input-table bgp\n" + lines + "run\nshow all json\n");
   ASSERT_EQ(here.status, 0) << here.err;
   // The drawn records give every outcome: usable, refused for their binding SID or for having no
   // segment list, lists too deep for the platform, lists without a route.
   for (const char* seen :
        {"\"reasonName\": \"usable\"", "\"reasonName\": \"bsidOutOfRange\"",
         "\"reasonName\": \"noSegmentLists\"", "SRTE_RESOLVED_SEGMENT_LIST_INVALID_EXCEEDS_MSD"}) {
      EXPECT_NE(there.out.find(seen), std::string::npos) << seen;
   }
   const std::string diff = differences(meaning(there.out), meaning(here.out));
   EXPECT_TRUE(diff.empty()) << "attached (-) against in-process (+):\n" << diff;
   RecordProperty("attachedRunAndShowMs",
                  static_cast<int>(
                      std::chrono::duration_cast<std::chrono::milliseconds>(attachedTime).count()));

   kill(agent.pid(), SIGTERM);
   EXPECT_EQ(agent.exitStatus(2s), 0) << agent.err();
}

TEST_F(AttachedCliTest, WithoutAnAgentRunFailsClearlyAndTheRouterTablesStillShow) {
   const std::string r = router("none");
   const auto start = Clock::now();
   const Run run =
       attached(r, "input-table bgp\ninput bgp 10.0.0.1 color 5 discriminator 1\nrun\n");
   EXPECT_EQ(run.status, 1);
   EXPECT_LT(Clock::now() - start, 10s);
   EXPECT_NE(run.err.find(":3: error: run: no agent runs for router " + r +
                          " (start one with 'srte agent --router " + r + "')"),
             std::string::npos)
       << run.err;
   // What was written before stays written, and reads back without an agent.
   const Run show = attached(r, "show input\n");
   EXPECT_EQ(show.status, 0) << show.err;
   EXPECT_NE(show.out.find("Input table bgp (20): 1 record"), std::string::npos) << show.out;
   // show all gives what it can read and names what only the agent has.
   const Run all = attached(r, "show all\n");
   EXPECT_EQ(all.status, 0) << all.err;
   EXPECT_NE(all.out.find("Input table bgp (20): 1 record"), std::string::npos) << all.out;
   EXPECT_NE(all.out.find("Not shown, only the agent has them: candidates bsid-users segments"),
             std::string::npos)
       << all.out;
   // A table only the agent knows says why it is not there.
   const Run asked = attached(r, "show candidates\n");
   EXPECT_EQ(asked.status, 1);
   EXPECT_NE(asked.err.find("no agent runs for router " + r), std::string::npos) << asked.err;
}

TEST_F(AttachedCliTest, RestartAndSchedulerCommandsAreRefusedWithTheWayToDoThem) {
   const std::string r = router("restart");
   const Run restart = attached(r, "restart\n");
   EXPECT_EQ(restart.status, 1);
   EXPECT_NE(restart.err.find("restart it as a process (stop it with SIGTERM, then start 'srte "
                              "agent --router " +
                              r + "' again)"),
             std::string::npos)
       << restart.err;
   const Run trace = attached(r, "trace 5\n");
   EXPECT_EQ(trace.status, 1);
   EXPECT_NE(trace.err.find("that is the agent"), std::string::npos) << trace.err;
   const Run count = attached(r, "run 5\n");
   EXPECT_EQ(count.status, 1);
   EXPECT_NE(count.err.find("takes no count"), std::string::npos) << count.err;
}

TEST_F(AttachedCliTest, ATableAnotherProcessWritesIsRefusedWithItsNameAndNothingChanges) {
   const std::string r = router("writer");
   {
      // This test process writes the bgp table while the CLI tries to.
      Agent::InputMirror::SharedInputWriter holder(r, "policyInput-bgp");
      const Run refused =
          attached(r, "input bgp 10.0.0.1 color 5 discriminator 1 segment-list labels 100\n");
      EXPECT_EQ(refused.status, 1);
      EXPECT_NE(refused.err.find("Vault table " + Vault::Shm::segmentPath(r, "policyInput-bgp") +
                                 " is written by process " + std::to_string(getpid())),
                std::string::npos)
          << refused.err;
      EXPECT_EQ(holder.size(), 0u);
      // The static table is nobody's: the same session may write it.
      const Run other = attached(r, "input-table static\nstatic segment-list 10.0.0.2 color 7 "
                                    "preference 100 labels 300\nshow input\n");
      EXPECT_EQ(other.status, 0) << other.err;
      EXPECT_NE(other.out.find("Input table static (30): 1 record"), std::string::npos)
          << other.out;
   }
   {
      // A router table as well: this process writes every one of them.
      SrTePolicy::StandaloneRouter local;
      Agent::RouterTablesWriter holder(r, Agent::RouterEntities::of(local));
      holder.publishAll();
      const Run refused = attached(r, "label-range srlb base 16000 size 100\n");
      EXPECT_EQ(refused.status, 1);
      EXPECT_NE(refused.err.find(Vault::Shm::segmentPath(r, "mpls-labelRange")), std::string::npos)
          << refused.err;
      EXPECT_NE(refused.err.find("written by process " + std::to_string(getpid())),
                std::string::npos)
          << refused.err;
      // Refused before it changes anything: the static path would have become a record of the
      // static input table, which this session may write; it does not, and the script stops
      // there as at any refused line.
      const Run path = attached(r, "static segment-list 10.0.0.3 color 8 preference 100 labels "
                                   "300\ninput-table bgp\n");
      EXPECT_EQ(path.status, 1);
      EXPECT_NE(path.err.find(":1: error: Vault table " +
                              Vault::Shm::segmentPath(r, "config-policy") +
                              " is written by process " + std::to_string(getpid())),
                std::string::npos)
          << path.err;
      EXPECT_EQ(path.err.find("exists"), std::string::npos) << path.err;
      const Run inputs = attached(r, "show input\n");
      EXPECT_NE(inputs.out.find("Input table static (30): 1 record"), std::string::npos)
          << inputs.out;
      EXPECT_EQ(inputs.out.find("10.0.0.3"), std::string::npos) << inputs.out;
   }
   // Once the holder has gone the table is taken over.
   const Run taken = attached(r, "input bgp 10.0.0.1 color 5 discriminator 1\nshow input\n");
   EXPECT_EQ(taken.status, 0) << taken.err;
   EXPECT_NE(taken.out.find("Input table bgp (20): 1 record"), std::string::npos) << taken.out;
}

TEST_F(AttachedCliTest, AKilledAgentsSocketMeansNoAgentUntilANewOneReplacesIt) {
   const std::string r = router("killed");
   {
      Process agent({"agent", "--router", r});
      ASSERT_TRUE(agent.waitFor("converged")) << agent.err();
      kill(agent.pid(), SIGKILL);
      EXPECT_EQ(agent.exitStatus(2s), 128 + SIGKILL);
   }
   // The dead agent's socket file is still there, and nobody listens on it.
   ASSERT_EQ(access(Agent::controlSocketPath(r).c_str(), F_OK), 0);
   const Run run = attached(r, "run\n");
   EXPECT_EQ(run.status, 1);
   EXPECT_NE(run.err.find("no agent runs for router " + r), std::string::npos) << run.err;

   Process agent({"agent", "--router", r});
   ASSERT_TRUE(agent.waitFor("converged")) << agent.err();
   EXPECT_NE(Agent::ControlClient(r).ask("hello").find("pid " + std::to_string(agent.pid())),
             std::string::npos);
   const Run again = attached(r, "run\n");
   EXPECT_EQ(again.status, 0) << again.err;
   kill(agent.pid(), SIGTERM);
   EXPECT_EQ(agent.exitStatus(2s), 0) << agent.err();
}

// Writes raw bytes to the agent's socket and reads what comes back until it closes or pauses for
// `pauseMs`. The first reply may take long (a sync waits for the core, slower under sanitizers):
// it is waited for up to `firstMs`.
std::string rawExchange(const std::string& router, const std::string& bytes, int pauseMs = 500,
                        int firstMs = 60000) {
   const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
   sockaddr_un a{};
   a.sun_family = AF_UNIX;
   const std::string path = Agent::controlSocketPath(router);
   std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
   EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
   EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL),
             static_cast<ssize_t>(bytes.size()));
   std::string got;
   for (;;) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, got.empty() ? firstMs : pauseMs) <= 0) break;
      char buf[4096];
      const ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) break;
      got.append(buf, static_cast<size_t>(n));
   }
   close(fd);
   return got;
}

TEST_F(AttachedCliTest, TheControlSocketSurvivesGarbageAndAnswersInOrder) {
   const std::string r = router("garbage");
   ASSERT_EQ(feed(r, {"--paths", "20000"}), 0);
   Process agent({"agent", "--router", r, "--srlb", "100000-899999"});
   ASSERT_TRUE(agent.waitFor("started")) << agent.err();

   // Replies come in the order asked, a sync's after the core has taken in every record written
   // before it (the table is mounted by the sync itself if the agent has not looked yet).
   const std::string replies =
       rawExchange(r,
                   "sync\nbogus words\n\x01\xff\xfe\nshow\nshow no-such-table\n"
                   "json\njson restart extra\nshow candidates | count\nhello\n",
                   3000);
   const std::vector<std::string> expected{"ok ",
                                           "error unknown request 'bogus words'",
                                           "error unknown request '\\x01\\xff\\xfe'",
                                           "error ",
                                           "error unknown table 'no-such-table'",
                                           "error unknown request 'json'",
                                           "error unknown request 'json restart extra'",
                                           "ok ",
                                           "ok "};
   std::istringstream lines(replies);
   size_t at = 0;
   for (std::string line; std::getline(lines, line);) {
      if (line.rfind("ok ", 0) != 0 && line.rfind("error ", 0) != 0) continue; // bodies
      ASSERT_LT(at, expected.size()) << replies;
      EXPECT_EQ(line.rfind(expected[at], 0), 0u) << line << "\nin\n" << replies;
      ++at;
   }
   EXPECT_EQ(at, expected.size()) << replies;
   EXPECT_NE(replies.find("taken in 20000 records"), std::string::npos) << replies;
   // The agent's own table: 20000 rows, a title, column heads and their rule, a blank line.
   EXPECT_NE(replies.find("\n20004\n"), std::string::npos) << replies;

   // Too long a line, a client that goes away while its sync waits, more connections than served.
   EXPECT_EQ(rawExchange(r, std::string(10000, 'x')).rfind("error request longer than 4096", 0),
             0u);
   rawExchange(r, "sync\n", 0, 0);
   std::vector<int> many;
   for (int i = 0; i < 80; ++i) {
      const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_un a{};
      a.sun_family = AF_UNIX;
      const std::string path = Agent::controlSocketPath(r);
      std::memcpy(a.sun_path, path.c_str(), path.size() + 1);
      if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) many.push_back(fd);
   }
   for (int fd : many) close(fd);

   // Still there, still itself, once it has seen those connections close.
   std::string hello;
   for (const auto end = Clock::now() + 2s; hello.empty() && Clock::now() < end;) {
      try {
         hello = Agent::ControlClient(r).ask("hello");
      } catch (const Agent::AgentRefused& e) {
         EXPECT_STREQ(e.what(), "too many connections to this agent");
         std::this_thread::sleep_for(10ms);
      }
   }
   EXPECT_NE(hello.find("pid " + std::to_string(agent.pid())), std::string::npos) << hello;
   kill(agent.pid(), SIGTERM);
   EXPECT_EQ(agent.exitStatus(2s), 0) << agent.err();
}

} // namespace
