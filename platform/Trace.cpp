#include "platform/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace Trace {

int gMaxLevel = -1;

namespace {
int gTextLevel = -1;
int gRingLevel = -1;
std::vector<std::string>* gCapture = nullptr;

void recompute() { gMaxLevel = std::max(gTextLevel, gRingLevel); }
} // namespace

void textLevelIs(int level) {
   gTextLevel = level;
   recompute();
}
int textLevel() { return gTextLevel; }
void ringLevelIs(int level) {
   gRingLevel = level;
   recompute();
}
int ringLevel() { return gRingLevel; }
void captureIs(std::vector<std::string>* lines) { gCapture = lines; }

namespace ring {
void append(int level, const std::string& text);
}

void emit(int level, const std::string& text, const std::string& ringText) {
   if (level <= gTextLevel) {
      if (gCapture) {
         gCapture->push_back(text);
      } else {
         std::fprintf(stderr, "trace%d %s\n", level, text.c_str());
      }
   }
   if (level <= gRingLevel) ring::append(level, ringText);
}

namespace ring {
std::vector<uint8_t> gBuf(64 * 1024);
size_t gTail = 0; // first byte of the oldest record
size_t gHead = 0; // next write position
size_t gUsed = 0; // bytes holding records

// Record layout: level (1 byte), length (2 bytes, little-endian), bytes. The oldest record is
// always known (gTail), so a record that has to make room is dropped whole and the ring never
// holds a partly overwritten record.
size_t lengthAt(size_t pos) {
   const size_t n = gBuf.size();
   return gBuf[(pos + 1) % n] | (static_cast<size_t>(gBuf[(pos + 2) % n]) << 8);
}
void put(uint8_t b) {
   gBuf[gHead] = b;
   gHead = (gHead + 1) % gBuf.size();
}
void append(int level, const std::string& text) {
   const size_t n = gBuf.size();
   size_t len = std::min<size_t>(text.size(), std::min<size_t>(0xffff, n / 2));
   size_t need = 3 + len;
   while (n - gUsed < need) {
      size_t oldest = 3 + lengthAt(gTail);
      gTail = (gTail + oldest) % n;
      gUsed -= oldest;
   }
   put(static_cast<uint8_t>(level));
   put(static_cast<uint8_t>(len & 0xff));
   put(static_cast<uint8_t>(len >> 8));
   for (size_t i = 0; i < len; ++i) put(static_cast<uint8_t>(text[i]));
   gUsed += need;
}
} // namespace ring

} // namespace Trace

namespace Ringlog {

void capacityIs(size_t bytes) {
   Trace::ring::gBuf.assign(std::max<size_t>(bytes, 64), 0);
   clear();
}

void clear() {
   Trace::ring::gTail = 0;
   Trace::ring::gHead = 0;
   Trace::ring::gUsed = 0;
}

std::vector<Record> entries() {
   using namespace Trace::ring;
   std::vector<Record> out;
   const size_t n = gBuf.size();
   for (size_t pos = gTail, left = gUsed; left > 0;) {
      size_t len = lengthAt(pos);
      Record r{gBuf[pos], std::string(len, '\0')};
      for (size_t i = 0; i < len; ++i) r.text[i] = static_cast<char>(gBuf[(pos + 3 + i) % n]);
      out.push_back(std::move(r));
      pos = (pos + 3 + len) % n;
      left -= 3 + len;
   }
   return out;
}

std::vector<std::string> records() {
   std::vector<std::string> out;
   for (auto& r : entries()) out.push_back(std::move(r.text));
   return out;
}

} // namespace Ringlog
