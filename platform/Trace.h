// Tracing: a text trace with numbered levels and a binary ring log (Ringlog) with the same words.
//
// A trace line costs one integer compare when its level is off: SRTE_TRACE tests the level before
// it evaluates or formats any of its words. Levels run from 0 (always interesting) to 9 (detail);
// a level of -1 turns a sink off.
#pragma once

#include <cstdint>
#include <sstream>
#include <string>
#include <vector>

namespace Trace {

// The highest level that anything currently wants; SRTE_TRACE's fast test.
extern int gMaxLevel;

void textLevelIs(int level);
int textLevel();
void ringLevelIs(int level);
int ringLevel();

// Text lines go to standard error unless captured (tests).
void captureIs(std::vector<std::string>* lines);

void emit(int level, const std::string& text, const std::string& ringText);

} // namespace Trace

// The binary ring log: records (level, length, bytes) in a ring of bytes. When a record needs room
// the oldest whole records are dropped; `entries()` decodes what is still there, oldest first. A
// text longer than half the ring is cut to that length.
namespace Ringlog {
struct Record {
   int level;
   std::string text;
};
void capacityIs(size_t bytes);
void clear();
std::vector<Record> entries();
// The texts of entries().
std::vector<std::string> records();
} // namespace Ringlog

#define SRTE_TRACE2(level, words, ringWords)                                                       \
   do {                                                                                            \
      if ((level) <= ::Trace::gMaxLevel) [[unlikely]] {                                            \
         std::ostringstream srteTraceOs_;                                                          \
         srteTraceOs_ << words;                                                                    \
         std::ostringstream srteRingOs_;                                                           \
         srteRingOs_ << ringWords;                                                                 \
         ::Trace::emit((level), srteTraceOs_.str(), srteRingOs_.str());                            \
      }                                                                                            \
   } while (0)

#define SRTE_TRACE(level, words)                                                                   \
   do {                                                                                            \
      if ((level) <= ::Trace::gMaxLevel) [[unlikely]] {                                            \
         std::ostringstream srteTraceOs_;                                                          \
         srteTraceOs_ << words;                                                                    \
         std::string srteTraceText_ = srteTraceOs_.str();                                          \
         ::Trace::emit((level), srteTraceText_, srteTraceText_);                                   \
      }                                                                                            \
   } while (0)
