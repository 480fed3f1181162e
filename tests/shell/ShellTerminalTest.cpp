// The interactive shell as a user meets it: srte runs on a pseudo-terminal and the test types
// keys, as a person would, and reads the screen.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

class Terminal {
 public:
   // `args`: srte's arguments.
   explicit Terminal(const std::string& home, std::vector<std::string> args = {}) {
      std::vector<char*> argv{const_cast<char*>("srte")};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      pid_ = forkpty(&fd_, nullptr, nullptr, nullptr);
      if (pid_ == 0) {
         setenv("HOME", home.c_str(), 1);
         unsetenv("SRTE_HISTORY");
         setenv("TERM", "xterm", 1);
         execv(SRTE_PROGRAM, argv.data());
         _exit(127);
      }
   }
   ~Terminal() {
      if (pid_ > 0 && !exited_) {
         kill(pid_, SIGKILL);
         waitpid(pid_, nullptr, 0);
      }
      if (fd_ >= 0) close(fd_);
   }
   void type(const std::string& keys) {
      ASSERT_EQ(write(fd_, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
   }
   // Reads the screen until `text` appears after what earlier waits consumed; false on timeout.
   bool waitFor(const std::string& text, int seconds = 10) {
      const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
      for (;;) {
         const size_t at = screen_.find(text, seen_);
         if (at != std::string::npos) {
            seen_ = at + text.size();
            return true;
         }
         const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
             end - std::chrono::steady_clock::now());
         if (left.count() <= 0) return false;
         pollfd p{fd_, POLLIN, 0};
         if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
         char buf[4096];
         const ssize_t n = read(fd_, buf, sizeof buf);
         if (n <= 0) return screen_.find(text, seen_) != std::string::npos;
         screen_.append(buf, static_cast<size_t>(n));
      }
   }
   // Lets the editor take the terminal after a prompt: keys typed before that are read in the
   // terminal's line mode (where Ctrl-D means something else) or dropped as it switches.
   // The master side reads the terminal's modes: the editor has it once line mode is off.
   void settle() const {
      for (int i = 0; i < 1000; ++i) {
         termios mode{};
         if (tcgetattr(fd_, &mode) == 0 && !(mode.c_lflag & ICANON)) return;
         usleep(10 * 1000);
      }
   }
   bool prompt() {
      const bool ok = waitFor("srte> ");
      settle();
      return ok;
   }
   // Types a line and waits for the next prompt.
   bool command(const std::string& line) {
      type(line + "\n");
      return prompt();
   }
   int exitStatus() {
      int status = 0;
      waitpid(pid_, &status, 0);
      exited_ = true;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
   }
   // What the screen showed since the last wait.
   std::string tail() const { return screen_.substr(seen_); }
   const std::string& screen() const { return screen_; }

 private:
   pid_t pid_ = -1;
   int fd_ = -1;
   bool exited_ = false;
   std::string screen_;
   size_t seen_ = 0;
};

std::string scratchHome() {
   char dir[] = "/tmp/srte-shell-XXXXXX";
   return mkdtemp(dir) ? std::string(dir) : std::string("/tmp");
}

const std::string ctrlC = "\x03", ctrlD = "\x04", ctrlU = "\x15", up = "\x1b[A";

TEST(ShellTerminal, CompletionQuestionMarkCtrlCAndHistoryAcrossSessions) {
   const std::string home = scratchHome();
   {
      Terminal t(home);
      ASSERT_TRUE(t.prompt());

      // Tab completes a verb, then a table (the editor redraws only what it adds).
      t.type("sh\t");
      ASSERT_TRUE(t.waitFor("ow "));
      t.type("conf\t");
      ASSERT_TRUE(t.waitFor("ig "));
      ASSERT_TRUE(t.command(""));
      EXPECT_NE(t.screen().find("SR-TE configuration"), std::string::npos) << t.screen();

      // `?` lists what may come next, with help, and leaves the line as it was.
      t.type("show ?");
      ASSERT_TRUE(t.waitFor("exported-segment-lists"));
      ASSERT_TRUE(t.waitFor("every table"));
      ASSERT_TRUE(t.waitFor("srte> show "));
      t.type(ctrlU);
      t.type("input b\t");
      ASSERT_TRUE(t.waitFor("gp "));
      t.type("?");
      ASSERT_TRUE(t.waitFor("<endpoint>"));
      t.type(ctrlU);

      // Ctrl-C cancels a half-typed line: it never runs.
      t.type("label-range srlb base 15000 size 10");
      ASSERT_TRUE(t.waitFor("size 10"));
      t.type(ctrlC);
      ASSERT_TRUE(t.prompt());
      ASSERT_TRUE(t.command("show mpls"));
      EXPECT_NE(t.screen().find("Label ranges: 0"), std::string::npos);

      // A congested attribute log makes the input stage retry every 0.1 s: an advance of a
      // billion seconds runs until Ctrl-C stops it between two tasks, and the session goes on.
      ASSERT_TRUE(t.command("input-table bgp"));
      ASSERT_TRUE(t.command("attrlog congested on"));
      ASSERT_TRUE(t.command("input bgp 10.0.0.1 color 1 discriminator 1 segment-list labels 16"));
      t.type("advance 1000000000\n");
      ASSERT_TRUE(t.waitFor("advance 1000000000"));
      usleep(300 * 1000);
      t.type(ctrlC);
      ASSERT_TRUE(t.waitFor("interrupted at virtual time "));
      ASSERT_TRUE(t.prompt());
      ASSERT_TRUE(t.command("show scheduler"));
      EXPECT_EQ(t.screen().find("Virtual time: 1000000000 s"), std::string::npos);
      EXPECT_NE(t.screen().find("Attribute log congested"), std::string::npos);

      // The up arrow recalls the last command.
      t.type(up);
      ASSERT_TRUE(t.waitFor("show scheduler"));
      t.type("\n");
      ASSERT_TRUE(t.waitFor("Restarts: 0"));
      ASSERT_TRUE(t.prompt());

      // Errors never end the session; Ctrl-D does.
      ASSERT_TRUE(t.command("cofnig enabled on"));
      t.type(ctrlD);
      EXPECT_EQ(t.exitStatus(), 0);
      EXPECT_NE(t.screen().find("did you mean 'config'?"), std::string::npos) << t.screen();
   }
   std::ifstream history(home + "/.srte_history");
   std::stringstream saved;
   saved << history.rdbuf();
   EXPECT_NE(saved.str().find("advance"), std::string::npos) << saved.str();
   {
      // A new session recalls the last one's commands; two Ctrl-C at an empty prompt leave.
      Terminal t(home);
      ASSERT_TRUE(t.prompt());
      t.type(up + up);
      ASSERT_TRUE(t.waitFor("show scheduler"));
      t.type("\n");
      ASSERT_TRUE(t.waitFor("Virtual time: 0 s"));
      ASSERT_TRUE(t.prompt());
      t.type(ctrlC);
      ASSERT_TRUE(t.waitFor("Ctrl-C again"));
      ASSERT_TRUE(t.prompt());
      t.type(ctrlC);
      EXPECT_EQ(t.exitStatus(), 0);
   }
   std::system(("rm -rf " + home).c_str());
}

// srte -i FILE: the file runs, then the shell goes on in the same session; the shell says what
// run did, and its errors carry no line number.
TEST(ShellTerminal, AScriptThenTheShellInOneSession) {
   const std::string home = scratchHome();
   const std::string script = home + "/network.srte";
   std::ofstream(script) << "label-range srlb base 15000 size 10\ninput-table bgp\n"
                            "input bgp 10.0.0.1 color 1 discriminator 1 bsid 15001 "
                            "segment-list labels 16 17\n";
   Terminal t(home, {"-i", script});
   ASSERT_TRUE(t.prompt());
   ASSERT_TRUE(t.command("run"));
   EXPECT_NE(t.screen().find("run: "), std::string::npos) << t.screen();
   EXPECT_NE(t.screen().find("virtual time 0 s"), std::string::npos) << t.screen();
   ASSERT_TRUE(t.command("show policies | include 10.0.0.1"));
   EXPECT_NE(t.screen().find("10.0.0.1|1"), std::string::npos) << t.screen();
   ASSERT_TRUE(t.command("weight"));
   EXPECT_NE(t.screen().find("error: unknown command 'weight'"), std::string::npos) << t.screen();
   EXPECT_EQ(t.screen().find("<stdin>:"), std::string::npos) << t.screen();
   // `?` after a complete command offers <cr>; after a keyword that wants a value, not.
   t.type("config enabled ?");
   ASSERT_TRUE(t.waitFor("turn it off"));
   ASSERT_TRUE(t.waitFor("srte> config enabled "));
   EXPECT_EQ(t.screen().rfind("<cr>"), std::string::npos) << t.screen();
   t.type(ctrlU);
   t.type("quit\n");
   EXPECT_EQ(t.exitStatus(), 0);
   std::system(("rm -rf " + home).c_str());
}

} // namespace
