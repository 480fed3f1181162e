// The agent's core start ends the process at a stop signal: one that came while the loop held the
// signals blocked ends it as the start begins, and one that comes after the start waits for the
// loop again. Each case runs in a child process of its own.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "agent/RouterAgent.h"

namespace {

class EndAtStopSignalTest : public ::testing::Test {
 protected:
   void SetUp() override {
      for (const char* name : {"sock", "lock"}) {
         files_.push_back(::testing::TempDir() + "end-at-stop." + std::to_string(getpid()) + "." +
                          name);
         std::ofstream(files_.back()) << "x";
      }
   }
   void TearDown() override {
      for (const std::string& f : files_) ::unlink(f.c_str());
   }
   bool exists(const std::string& f) const { return ::access(f.c_str(), F_OK) == 0; }

   // As the loop has them: blocked, to be read from its signal descriptor.
   static void blockStopSignals() {
      sigset_t s;
      sigemptyset(&s);
      sigaddset(&s, SIGTERM);
      sigaddset(&s, SIGINT);
      sigprocmask(SIG_BLOCK, &s, nullptr);
   }
   std::vector<std::string> files_;
};

TEST_F(EndAtStopSignalTest, ASignalThatCameBeforeTheStartEndsTheProcessAsItBegins) {
   EXPECT_EXIT(
       {
          blockStopSignals();
          raise(SIGTERM); // pending
          Agent::EndAtStopSignal ending("r1", files_, "while starting");
          std::_Exit(3); // not reached
       },
       ::testing::ExitedWithCode(0),
       "srte agent: router r1 stopped by signal 15 \\(Terminated\\), while starting");
   for (const std::string& f : files_) EXPECT_FALSE(exists(f)) << f;
}

TEST_F(EndAtStopSignalTest, ASignalDuringTheStartEndsItThere) {
   EXPECT_EXIT(
       {
          blockStopSignals();
          Agent::EndAtStopSignal ending("r2", files_, "while answering 'show lfib'");
          kill(getpid(), SIGINT);
          std::_Exit(3); // not reached
       },
       ::testing::ExitedWithCode(0),
       "srte agent: router r2 stopped by signal 2 \\(Interrupt\\), while answering 'show lfib'");
   for (const std::string& f : files_) EXPECT_FALSE(exists(f)) << f;
}

TEST_F(EndAtStopSignalTest, ASignalAfterTheStartWaitsForTheLoopAndTheFilesStay) {
   EXPECT_EXIT(
       {
          blockStopSignals();
          { Agent::EndAtStopSignal ending("r3", files_, "while starting"); }
          raise(SIGTERM);
          sigset_t pending;
          sigpending(&pending);
          std::_Exit(sigismember(&pending, SIGTERM) == 1 ? 7 : 8);
       },
       ::testing::ExitedWithCode(7), "");
   for (const std::string& f : files_) EXPECT_TRUE(exists(f)) << f;
}

} // namespace
