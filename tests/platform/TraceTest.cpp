#include <gtest/gtest.h>
#include <syslog.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>

#include <memory>
#include <stdexcept>

#include "platform/Syslog.h"
#include "platform/Trace.h"

namespace {

// Trace and ring levels are process-wide: every test restores them.
struct TraceLevels {
   std::vector<std::string> lines;
   TraceLevels(int text, int ring) {
      Trace::textLevelIs(text);
      Trace::ringLevelIs(ring);
      Trace::captureIs(&lines);
      Ringlog::clear();
   }
   ~TraceLevels() {
      Trace::textLevelIs(-1);
      Trace::ringLevelIs(-1);
      Trace::captureIs(nullptr);
      Ringlog::capacityIs(64 * 1024);
   }
};

int evaluations = 0;
std::string counted() {
   ++evaluations;
   return "word";
}
std::string throwing() { throw std::logic_error("trace words evaluated while off"); }

TEST(Trace, LevelOffEvaluatesNoWords) {
   {
      TraceLevels off(-1, -1);
      evaluations = 0;
      SRTE_TRACE(0, "never " << throwing());
      SRTE_TRACE2(0, counted(), throwing());
      EXPECT_EQ(evaluations, 0);
   }
   {
      TraceLevels text(4, -1);
      evaluations = 0;
      SRTE_TRACE(5, throwing()); // above the text level
      SRTE_TRACE(4, "a " << counted() << " " << 7);
      EXPECT_EQ(evaluations, 1);
      EXPECT_EQ(text.lines, (std::vector<std::string>{"a word 7"}));
      EXPECT_TRUE(Ringlog::records().empty()); // the ring is off
   }
   {
      // Ring on, text off: the ring gets its own words, the text sink nothing.
      TraceLevels ring(-1, 9);
      SRTE_TRACE2(6, "Skipping resolution via NHG", "Skipping resolution via nhg");
      EXPECT_TRUE(ring.lines.empty());
      ASSERT_EQ(Ringlog::entries().size(), 1u);
      EXPECT_EQ(Ringlog::entries()[0].level, 6);
      EXPECT_EQ(Ringlog::entries()[0].text, "Skipping resolution via nhg");
   }
}

TEST(Ringlog, RoundTripAndWrapKeepWholeRecordsOldestFirst) {
   TraceLevels ring(-1, 9);
   for (int i = 0; i < 5; ++i) SRTE_TRACE(i, "record " << i);
   auto entries = Ringlog::entries();
   ASSERT_EQ(entries.size(), 5u);
   for (int i = 0; i < 5; ++i) {
      EXPECT_EQ(entries[i].level, i);
      EXPECT_EQ(entries[i].text, "record " + std::to_string(i));
   }

   // 64 bytes hold five records of 12 bytes; the sixth drops the oldest whole record. The texts
   // are binary (zero bytes), which must not be mistaken for record headers after the wrap.
   Ringlog::capacityIs(64);
   const std::string zeros(9, '\0');
   for (int i = 0; i < 6; ++i) SRTE_TRACE2(5, zeros, zeros);
   EXPECT_EQ(Ringlog::records(), std::vector<std::string>(5, zeros));

   // Many wraps with texts of changing length: always the newest records, contiguous, in order.
   Ringlog::capacityIs(100);
   for (int i = 0; i < 1000; ++i) SRTE_TRACE(3, std::string(i % 13, 'x') << i);
   auto records = Ringlog::records();
   ASSERT_FALSE(records.empty());
   size_t bytes = 0;
   for (size_t k = 0; k < records.size(); ++k) {
      const int i = 1000 - static_cast<int>(records.size()) + static_cast<int>(k);
      EXPECT_EQ(records[k], std::string(i % 13, 'x') + std::to_string(i));
      bytes += 3 + records[k].size();
   }
   EXPECT_LE(bytes, 100u);

   // A text longer than half the ring is cut, not lost.
   Ringlog::capacityIs(64);
   SRTE_TRACE(1, std::string(100, 'y'));
   EXPECT_EQ(Ringlog::records(), (std::vector<std::string>{std::string(32, 'y')}));
}

const Syslog::MessageDef kTestMessage{
    "SRTE_TEST_MESSAGE", Syslog::Severity::error,
    "Endpoint %s, color %u is unusable: BSID(%u) is outside SRLB [%u, %u]", "explanation",
    "action"};

TEST(Syslog, CaptureGetsFormattedRecordsAndSinksMayLeaveDuringDelivery) {
   Syslog::Capture capture;
   Syslog::sinkIs(&capture);
   Syslog::sinkIs(&capture); // once only
   Syslog::log(kTestMessage, "10.0.0.1", 100u, 1000u, 900000u, 965535u);
   ASSERT_EQ(capture.records().size(), 1u);
   EXPECT_EQ(capture.records()[0].tag, "SRTE_TEST_MESSAGE");
   EXPECT_EQ(capture.records()[0].severity, Syslog::Severity::error);
   EXPECT_EQ(capture.records()[0].text,
             "Endpoint 10.0.0.1, color 100 is unusable: BSID(1000) is outside SRLB [900000, "
             "965535]");
   EXPECT_STREQ(Syslog::severityName(capture.records()[0].severity), "ERR");

   // A sink that removes a later one while a record is delivered: the removed one gets nothing.
   struct Remover : Syslog::Sink {
      std::unique_ptr<Syslog::Capture>* victim;
      void onRecord(const Syslog::MessageDef&, const Syslog::Record&) override { victim->reset(); }
   };
   auto victim = std::make_unique<Syslog::Capture>();
   {
      Remover remover;
      remover.victim = &victim;
      Syslog::sinkIs(&remover);
      Syslog::sinkIs(victim.get());
      Syslog::log(kTestMessage, "10.0.0.2", 1u, 2u, 3u, 4u);
      EXPECT_EQ(victim, nullptr);
   }
   // Sinks that went away unregistered themselves.
   Syslog::log(kTestMessage, "10.0.0.3", 1u, 2u, 3u, 4u);
   EXPECT_EQ(capture.records().size(), 3u);
   Syslog::sinkDel(&capture);
   Syslog::log(kTestMessage, "10.0.0.4", 1u, 2u, 3u, 4u);
   EXPECT_EQ(capture.records().size(), 3u);
}

std::vector<std::pair<int, std::string>> systemLogged;

void fakeSystemLog(int priority, const char* format, ...) {
   char text[512];
   va_list args;
   va_start(args, format);
   std::vsnprintf(text, sizeof text, format, args);
   va_end(args);
   systemLogged.emplace_back(priority, text);
}

// The host's system log gets every record of the logs its sink is given, at the record's own
// severity, as the stderr form writes it; a text with a '%' is not taken for a format.
TEST(Syslog, SystemSinkWritesEveryRecordAtItsSeverity) {
   static const Syslog::MessageDef refused{"SRTE-TEST-REFUSED", Syslog::Severity::warning,
                                           "path %s refused: %d%% used", "", ""};
   static const Syslog::MessageDef failed{"SRTE-TEST-FAILED", Syslog::Severity::error,
                                          "table %s failed", "", ""};
   systemLogged.clear();
   Syslog::Log log;
   {
      Syslog::SystemSink sink("srte-test", &fakeSystemLog);
      log.sinkIs(&sink);
      log.logf(&refused, "10.0.0.1|7", 100);
      log.logf(&failed, "%s");
   }
   log.logf(&failed, "after the sink went");
   ASSERT_EQ(systemLogged.size(), 2u);
   EXPECT_EQ(systemLogged[0].first, LOG_DAEMON | LOG_WARNING);
   EXPECT_EQ(systemLogged[0].second, "%SRTE-TEST-REFUSED-4: path 10.0.0.1|7 refused: 100% used");
   EXPECT_EQ(systemLogged[1].first, LOG_DAEMON | LOG_ERR);
   EXPECT_EQ(systemLogged[1].second, "%SRTE-TEST-FAILED-3: table %s failed");
}

// Where the host has no system log, records are not handed to syslog(3) (which would try to
// connect again for each one); where its socket is, they are.
TEST(Syslog, SystemSinkWritesNothingWhereTheHostHasNoSystemLog) {
   static const Syslog::MessageDef told{"SRTE-TEST-TOLD", Syslog::Severity::notice, "told %d", "",
                                        ""};
   const std::string there = ::testing::TempDir() + "srte-test-system-log";
   std::ofstream(there) << "";
   systemLogged.clear();
   Syslog::Log log;
   {
      Syslog::SystemSink none("srte-test", &fakeSystemLog, "/nonexistent/srte-test-log");
      log.sinkIs(&none);
      log.logf(&told, 1);
      log.logf(&told, 2);
   }
   EXPECT_TRUE(systemLogged.empty());
   {
      Syslog::SystemSink present("srte-test", &fakeSystemLog, there.c_str());
      log.sinkIs(&present);
      log.logf(&told, 3);
   }
   ASSERT_EQ(systemLogged.size(), 1u);
   EXPECT_EQ(systemLogged[0].second, "%SRTE-TEST-TOLD-5: told 3");
   std::remove(there.c_str());
}

} // namespace
