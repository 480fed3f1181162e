// Tracing: a text trace with numbered levels and a binary ring log (Ringlog) with the same words.
//
// A `Tracer` holds one trace context: the text level and its sink (standard error, or a capture
// for tests), the ring level and the ring. Every policy core has its own, so two cores in one
// process never see each other's traces; its state machines trace through SRTE_TRACE_TO with the
// tracer they were given. Code outside any core (platform helpers) traces through SRTE_TRACE, which
// goes to the process tracer `Trace::processTracer`; the free functions below set that one.
//
// A trace line costs one integer compare when its level is off: the macros test the tracer's
// highest wanted level before they evaluate or format any of their words. Levels run from 0
// (always interesting) to 9 (detail); a level of -1 turns a sink off.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

// The binary ring log: records (level, length, bytes) in a ring of bytes. When a record needs room
// the oldest whole records are dropped; `entries()` decodes what is still there, oldest first. A
// text longer than half the ring is cut to that length.
namespace Ringlog {
struct Record {
   int level;
   std::string text;
};
} // namespace Ringlog

namespace Trace {

class Tracer {
 public:
   static constexpr size_t defaultRingBytes = 64 * 1024;

   // Constant-initialisable, so the process tracer is usable before any static constructor runs;
   // the ring is allocated on first use.
   constexpr Tracer() = default;
   Tracer(const Tracer&) = delete;
   Tracer& operator=(const Tracer&) = delete;

   // The macros' fast test: the highest level any sink wants.
   int maxLevel() const noexcept { return maxLevel_; }

   void textLevelIs(int level);
   int textLevel() const noexcept { return textLevel_; }
   void ringLevelIs(int level);
   int ringLevel() const noexcept { return ringLevel_; }
   // Text lines go to standard error unless captured (tests).
   void captureIs(std::vector<std::string>* lines) { capture_ = lines; }

   void emit(int level, const std::string& text, const std::string& ringText);

   void ringCapacityIs(size_t bytes);
   void ringClear();
   std::vector<Ringlog::Record> ringEntries() const;
   std::vector<std::string> ringRecords() const;

 private:
   size_t ringLengthAt(size_t pos) const;
   void ringPut(uint8_t b);
   void ringAppend(int level, const std::string& text);

   int maxLevel_ = -1;
   int textLevel_ = -1;
   int ringLevel_ = -1;
   std::vector<std::string>* capture_ = nullptr;
   std::vector<uint8_t> ring_;
   size_t ringCapacity_ = defaultRingBytes;
   size_t tail_ = 0; // first byte of the oldest record
   size_t head_ = 0; // next write position
   size_t used_ = 0; // bytes holding records
};

// The tracer of code that runs outside any policy core.
extern constinit Tracer processTracer;

void textLevelIs(int level);
int textLevel();
void ringLevelIs(int level);
int ringLevel();
void captureIs(std::vector<std::string>* lines);

} // namespace Trace

// The process tracer's ring.
namespace Ringlog {
void capacityIs(size_t bytes);
void clear();
std::vector<Record> entries();
// The texts of entries().
std::vector<std::string> records();
} // namespace Ringlog

#define SRTE_TRACE2_TO(tracer, level, words, ringWords)                                            \
   do {                                                                                            \
      if ((level) <= (tracer)->maxLevel()) [[unlikely]] {                                          \
         std::ostringstream srteTraceOs_;                                                          \
         srteTraceOs_ << words;                                                                    \
         std::ostringstream srteRingOs_;                                                           \
         srteRingOs_ << ringWords;                                                                 \
         (tracer)->emit((level), srteTraceOs_.str(), srteRingOs_.str());                           \
      }                                                                                            \
   } while (0)

#define SRTE_TRACE_TO(tracer, level, words)                                                        \
   do {                                                                                            \
      if ((level) <= (tracer)->maxLevel()) [[unlikely]] {                                          \
         std::ostringstream srteTraceOs_;                                                          \
         srteTraceOs_ << words;                                                                    \
         std::string srteTraceText_ = srteTraceOs_.str();                                          \
         (tracer)->emit((level), srteTraceText_, srteTraceText_);                                  \
      }                                                                                            \
   } while (0)

#define SRTE_TRACE2(level, words, ringWords)                                                       \
   SRTE_TRACE2_TO(&::Trace::processTracer, level, words, ringWords)
#define SRTE_TRACE(level, words) SRTE_TRACE_TO(&::Trace::processTracer, level, words)
