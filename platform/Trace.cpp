#include "platform/Trace.h"

#include <algorithm>
#include <cstdio>

namespace Trace {

constinit Tracer processTracer;

void Tracer::textLevelIs(int level) {
   textLevel_ = level;
   maxLevel_ = std::max(textLevel_, ringLevel_);
}

void Tracer::ringLevelIs(int level) {
   ringLevel_ = level;
   maxLevel_ = std::max(textLevel_, ringLevel_);
}

void Tracer::emit(int level, const std::string& text, const std::string& ringText) {
   if (level <= textLevel_) {
      if (capture_) {
         capture_->push_back(text);
      } else {
         std::fprintf(stderr, "trace%d %s\n", level, text.c_str());
      }
   }
   if (level <= ringLevel_) ringAppend(level, ringText);
}

// Record layout: level (1 byte), length (2 bytes, little-endian), bytes. The oldest record is
// always known (tail_), so a record that has to make room is dropped whole and the ring never
// holds a partly overwritten record.
size_t Tracer::ringLengthAt(size_t pos) const {
   const size_t n = ring_.size();
   return ring_[(pos + 1) % n] | (static_cast<size_t>(ring_[(pos + 2) % n]) << 8);
}

void Tracer::ringPut(uint8_t b) {
   ring_[head_] = b;
   head_ = (head_ + 1) % ring_.size();
}

void Tracer::ringAppend(int level, const std::string& text) {
   if (ring_.empty()) ring_.assign(ringCapacity_, 0);
   const size_t n = ring_.size();
   size_t len = std::min<size_t>(text.size(), std::min<size_t>(0xffff, n / 2));
   size_t need = 3 + len;
   while (n - used_ < need) {
      size_t oldest = 3 + ringLengthAt(tail_);
      tail_ = (tail_ + oldest) % n;
      used_ -= oldest;
   }
   ringPut(static_cast<uint8_t>(level));
   ringPut(static_cast<uint8_t>(len & 0xff));
   ringPut(static_cast<uint8_t>(len >> 8));
   for (size_t i = 0; i < len; ++i) ringPut(static_cast<uint8_t>(text[i]));
   used_ += need;
}

void Tracer::ringCapacityIs(size_t bytes) {
   ringCapacity_ = std::max<size_t>(bytes, 64);
   ring_.assign(ringCapacity_, 0);
   ringClear();
}

void Tracer::ringClear() {
   tail_ = 0;
   head_ = 0;
   used_ = 0;
}

std::vector<Ringlog::Record> Tracer::ringEntries() const {
   std::vector<Ringlog::Record> out;
   const size_t n = ring_.size();
   for (size_t pos = tail_, left = used_; left > 0;) {
      size_t len = ringLengthAt(pos);
      Ringlog::Record r{ring_[pos], std::string(len, '\0')};
      for (size_t i = 0; i < len; ++i) r.text[i] = static_cast<char>(ring_[(pos + 3 + i) % n]);
      out.push_back(std::move(r));
      pos = (pos + 3 + len) % n;
      left -= 3 + len;
   }
   return out;
}

std::vector<std::string> Tracer::ringRecords() const {
   std::vector<std::string> out;
   for (auto& r : ringEntries()) out.push_back(std::move(r.text));
   return out;
}

void textLevelIs(int level) { processTracer.textLevelIs(level); }
int textLevel() { return processTracer.textLevel(); }
void ringLevelIs(int level) { processTracer.ringLevelIs(level); }
int ringLevel() { return processTracer.ringLevel(); }
void captureIs(std::vector<std::string>* lines) { processTracer.captureIs(lines); }

} // namespace Trace

namespace Ringlog {

void capacityIs(size_t bytes) { Trace::processTracer.ringCapacityIs(bytes); }
void clear() { Trace::processTracer.ringClear(); }
std::vector<Record> entries() { return Trace::processTracer.ringEntries(); }
std::vector<std::string> records() { return Trace::processTracer.ringRecords(); }

} // namespace Ringlog
