// Lines read from a pipe arrive in pieces of any size: a line split across two reads, after
// lines already taken from the first, is still one line.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "agent/Script.h"

namespace {

TEST(FileLinesTest, ALineSplitAcrossReadsAfterATakenLineStaysWhole) {
   int fds[2];
   ASSERT_EQ(::pipe(fds), 0);
   auto put = [&](const std::string& s) {
      ASSERT_EQ(::write(fds[1], s.data(), s.size()), static_cast<ssize_t>(s.size()));
   };
   Agent::FileLines lines(fds[0], "pipe");
   std::string line;
   put("first\nsec");
   ASSERT_EQ(lines.next(line, false), Agent::LineSource::Read::line);
   EXPECT_EQ(line, "first");
   put("ond\nthird\n");
   ::close(fds[1]);
   ASSERT_EQ(lines.next(line, false), Agent::LineSource::Read::line);
   EXPECT_EQ(line, "second");
   ASSERT_EQ(lines.next(line, false), Agent::LineSource::Read::line);
   EXPECT_EQ(line, "third");
   EXPECT_EQ(lines.next(line, false), Agent::LineSource::Read::end);
   ::close(fds[0]);
}

} // namespace
