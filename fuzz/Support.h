// What every fuzz target needs: ending the process at a finding, what was printed on the standard
// error stream, and limits on memory and time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <streambuf>
#include <string>
#include <string_view>

#include "tests/support/AllocationWatch.h"

namespace mlnn::fuzz {

// Prints what does not hold, and ends the process. Unlike assert it is there in every build.
[[noreturn]] void report(const std::string& finding);

inline void require(bool holds, const char* what) {
  if (!holds) report(what);
}

// Requires that a comparison found no difference.
inline void requireNone(const std::string& difference, const char* what) {
  if (!difference.empty()) report(std::string(what) + ": " + difference);
}

// While it lives, keeps what goes to std::cerr and to stdio's stderr, without allocating and, but
// for Windows, without touching the descriptor, which a fuzzer reports on.
class Diagnostics {
 public:
  Diagnostics();
  ~Diagnostics();
  Diagnostics(const Diagnostics&) = delete;
  Diagnostics& operator=(const Diagnostics&) = delete;

  std::string_view text() const;
  void clear();

 private:
  struct Shown {  // what was in the place of each, as far as a system needs it
    std::streambuf* stream;
    std::FILE* file;
    int descriptor;
  } shown_;
};

// Limits on what is done with one input, from construction to check().
//
// Memory: what is held at one time stays under `multiple` * length + `constant` bytes. All that
// is ever allocated stays under a fixed multiple of that, so that nothing is copied more than a
// constant number of times, whatever the input: a count that stands for time and does not depend
// on the machine. Processor time has a limit in proportion to the length too, which is far off.
class Limits {
 public:
  Limits(std::size_t length, std::size_t multiple, std::size_t constant);
  void check() const;

 private:
  std::size_t length_;
  std::size_t memory_;
  double startTime_;
  mlnn::test::AllocationWatch watch_;
};

// Takes values off the front of an input; 0 where it has ended.
class Bytes {
 public:
  Bytes(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return size_ == 0; }
  uint8_t byte();
  uint32_t word();       // up to four bytes
  int below(int limit);  // 0 to limit - 1
  float value();         // a value of moderate size, or now and then any bits
  std::string rest() const { return std::string(reinterpret_cast<const char*>(data_), size_); }

 private:
  const uint8_t* data_;
  std::size_t size_;
};

// CRC-32C from a table, independent of the library's.
uint32_t crc32c(const uint8_t* bytes, std::size_t count);

}  // namespace mlnn::fuzz
