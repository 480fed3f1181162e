// The attribute log's byte stream: values written field by field in network byte order, read back
// with bounds checks. Reading past the end throws AttrLog::Truncated; range checks of the values
// themselves are the value types' own (Mox::RangeError).
#pragma once

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

namespace AttrLog {

class Truncated : public std::runtime_error {
 public:
   Truncated() : std::runtime_error("attribute log record truncated") {}
};

class Writer {
 public:
   void u8(uint8_t v) { buf_.push_back(v); }
   void u16(uint16_t v) { put(v, 2); }
   void u32(uint32_t v) { put(v, 4); }
   void u64(uint64_t v) { put(v, 8); }
   void bytes(const uint8_t* p, size_t n) { buf_.insert(buf_.end(), p, p + n); }
   const std::vector<uint8_t>& buffer() const { return buf_; }

 private:
   void put(uint64_t v, int n) {
      for (int i = n - 1; i >= 0; --i) buf_.push_back(static_cast<uint8_t>(v >> (8 * i)));
   }
   std::vector<uint8_t> buf_;
};

class Reader {
 public:
   Reader(const uint8_t* p, size_t n) : p_(p), n_(n) {}
   explicit Reader(const std::vector<uint8_t>& b) : Reader(b.data(), b.size()) {}
   uint8_t u8() { return static_cast<uint8_t>(get(1)); }
   uint16_t u16() { return static_cast<uint16_t>(get(2)); }
   uint32_t u32() { return static_cast<uint32_t>(get(4)); }
   uint64_t u64() { return get(8); }
   void bytes(uint8_t* out, size_t n) {
      need(n);
      std::memcpy(out, p_ + pos_, n);
      pos_ += n;
   }
   size_t remaining() const { return n_ - pos_; }

 private:
   void need(size_t n) {
      if (n_ - pos_ < n) throw Truncated();
   }
   uint64_t get(int n) {
      need(n);
      uint64_t v = 0;
      for (int i = 0; i < n; ++i) v = (v << 8) | p_[pos_++];
      return v;
   }
   const uint8_t* p_;
   size_t n_;
   size_t pos_ = 0;
};

} // namespace AttrLog
