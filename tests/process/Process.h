// The multi-process tests' processes: the built srte program (tests/support/ChildProcess.h), and
// a feeder run to its end.
#pragma once

#include <gtest/gtest.h>
#include <sys/time.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"

namespace ProcessTest {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

using Process = TestSupport::ChildProcess;

// Runs a feeder to its end.
inline int feed(const std::string& router, const std::vector<std::string>& more) {
   std::vector<std::string> args{"feed", "--router", router};
   args.insert(args.end(), more.begin(), more.end());
   Process p(args);
   const int status = p.exitStatus(60s);
   EXPECT_EQ(status, 0) << p.err();
   return status;
}

inline double seconds(const timeval& t) {
   return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) * 1e-6;
}

} // namespace ProcessTest
