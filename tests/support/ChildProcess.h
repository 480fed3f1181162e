// A process of the built srte program (SRTE_PROGRAM), for the multi-process tests and the agent
// benchmark: started with fork/exec, its standard error read through a pipe, killed if whoever
// made it leaves it running.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace TestSupport {

class ChildProcess {
 public:
   using Clock = std::chrono::steady_clock;

   // Standard output goes to `outPath` when given, else nowhere; standard input is empty.
   explicit ChildProcess(std::vector<std::string> args, const std::string& outPath = {}) {
      int err[2];
      if (pipe2(err, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category());
      std::vector<char*> argv{const_cast<char*>("srte")};
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      pid_ = fork();
      if (pid_ == 0) {
         dup2(err[1], STDERR_FILENO);
         const int null = open("/dev/null", O_RDWR);
         dup2(null, STDIN_FILENO);
         const int out =
             outPath.empty() ? null : open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
         dup2(out, STDOUT_FILENO);
         execv(SRTE_PROGRAM, argv.data());
         _exit(127);
      }
      close(err[1]);
      fd_ = err[0];
   }
   ~ChildProcess() {
      if (pid_ > 0 && !exited_) {
         kill(pid_, SIGKILL);
         waitpid(pid_, nullptr, 0);
      }
      if (fd_ >= 0) close(fd_);
   }
   ChildProcess(const ChildProcess&) = delete;
   ChildProcess& operator=(const ChildProcess&) = delete;
   pid_t pid() const { return pid_; }

   // Reads standard error until it holds `text` (after what earlier waits consumed).
   bool waitFor(const std::string& text, Clock::duration limit = std::chrono::seconds(10)) {
      const auto end = Clock::now() + limit;
      for (;;) {
         const size_t at = err_.find(text, seen_);
         if (at != std::string::npos) {
            seen_ = at + text.size();
            return true;
         }
         if (!readSome(end)) return false;
      }
   }
   // The whole line holding `text` once it has ended; empty after `limit`.
   std::string lineWith(const std::string& text, Clock::duration limit) {
      const auto end = Clock::now() + limit;
      for (;;) {
         const size_t at = err_.find(text, seen_);
         const size_t eol = at == std::string::npos ? at : err_.find('\n', at);
         if (eol != std::string::npos) {
            const size_t bol = err_.rfind('\n', at);
            seen_ = eol;
            return err_.substr(bol == std::string::npos ? 0 : bol + 1, eol - bol - 1);
         }
         if (!readSome(end)) return {};
      }
   }
   // Waits for the exit; its status (128 + the signal when killed, -1 on timeout) and, with
   // `usage`, the child's resource use.
   int exitStatus(Clock::duration limit = std::chrono::seconds(10), rusage* usage = nullptr) {
      const auto end = Clock::now() + limit;
      while (Clock::now() < end) {
         int status = 0;
         rusage ru{};
         const pid_t r = wait4(pid_, &status, WNOHANG, &ru);
         if (r == pid_) {
            exited_ = true;
            if (usage) *usage = ru;
            while (readSome(Clock::now() + std::chrono::milliseconds(50))) {
            }
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
         }
         std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
      return -1;
   }
   // CPU used so far, from /proc (user + system, in clock ticks).
   long cpuTicks() const {
      std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
      std::string line;
      std::getline(stat, line);
      std::istringstream rest(line.substr(line.rfind(')') + 2));
      std::string field;
      long utime = 0, stime = 0;
      for (int i = 3; i <= 15 && rest >> field; ++i) {
         if (i == 14) utime = std::stol(field);
         if (i == 15) stime = std::stol(field);
      }
      return utime + stime;
   }
   const std::string& err() const { return err_; }

 private:
   bool readSome(Clock::time_point end) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
      if (left.count() <= 0) return false;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) <= 0) return false;
      char buf[4096];
      const ssize_t n = read(fd_, buf, sizeof buf);
      if (n <= 0) return false;
      err_.append(buf, static_cast<size_t>(n));
      return true;
   }

   pid_t pid_ = -1;
   int fd_ = -1;
   bool exited_ = false;
   std::string err_;
   size_t seen_ = 0;
};

} // namespace TestSupport
