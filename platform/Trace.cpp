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
size_t gHead = 0; // next write position
size_t gUsed = 0; // bytes holding records

// Record layout: level (1 byte), length (2 bytes, little-endian), bytes.
void put(uint8_t b) {
   gBuf[gHead] = b;
   gHead = (gHead + 1) % gBuf.size();
}
void append(int level, const std::string& text) {
   size_t len = std::min<size_t>(text.size(), std::min<size_t>(0xffff, gBuf.size() / 2));
   size_t need = 3 + len;
   put(static_cast<uint8_t>(level));
   put(static_cast<uint8_t>(len & 0xff));
   put(static_cast<uint8_t>(len >> 8));
   for (size_t i = 0; i < len; ++i) put(static_cast<uint8_t>(text[i]));
   gUsed = std::min(gBuf.size(), gUsed + need);
}
} // namespace ring

} // namespace Trace

namespace Ringlog {

void capacityIs(size_t bytes) {
   Trace::ring::gBuf.assign(std::max<size_t>(bytes, 64), 0);
   clear();
}

void clear() {
   Trace::ring::gHead = 0;
   Trace::ring::gUsed = 0;
}

std::vector<std::string> records() {
   using namespace Trace::ring;
   // Walk from the oldest complete record: records are only trusted when the ring has not
   // wrapped, or from the first record boundary found by walking the whole history.
   std::vector<std::string> out;
   const size_t n = gBuf.size();
   size_t start = (gHead + n - gUsed) % n;
   size_t pos = start, left = gUsed;
   // When the ring wrapped, the oldest bytes may belong to an overwritten record: skip until the
   // rest decodes exactly.
   auto decode = [&](size_t from, size_t bytes, std::vector<std::string>* sink) {
      while (bytes >= 3) {
         size_t len = gBuf[(from + 1) % n] | (gBuf[(from + 2) % n] << 8);
         if (3 + len > bytes) return false;
         if (sink) {
            std::string s(len, '\0');
            for (size_t i = 0; i < len; ++i) s[i] = static_cast<char>(gBuf[(from + 3 + i) % n]);
            sink->push_back(std::move(s));
         }
         from = (from + 3 + len) % n;
         bytes -= 3 + len;
      }
      return bytes == 0;
   };
   while (left > 0 && !decode(pos, left, nullptr)) {
      pos = (pos + 1) % n;
      --left;
   }
   decode(pos, left, &out);
   return out;
}

} // namespace Ringlog
