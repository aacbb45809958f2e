// Crc32c — the checksum CRC-32C (Castagnoli: polynomial 0x1EDC6F41, reflected, initial value and
// final exclusive-or 0xFFFFFFFF). It finds every change of one bit and every run of up to 32 bits.
//
// Computed by the processor's own instruction where there is one, otherwise from tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace mlnn {

// Takes bytes piece by piece; the value depends on the bytes alone, not on how they were cut.
class Crc32c {
 public:
  void add(const void* bytes, std::size_t count);

  // Copies the bytes and takes them, in pieces that stay in the nearest caches between the two.
  // REQUIRES: the two stretches of memory do not overlap.
  void copy(void* target, const void* source, std::size_t count);

  // Returns the checksum of all bytes so far.
  uint32_t value() const { return ~state_; }

 private:
  uint32_t state_ = 0xFFFFFFFF;
};

// A way to take `count` more bytes into a state that starts as 0xFFFFFFFF.
using Crc32cUpdate = uint32_t (*)(uint32_t state, const unsigned char* bytes, std::size_t count);

struct Crc32cMethod {
  const char* name;
  Crc32cUpdate update;
};

// Returns the ways that this processor can run, the best first; for tests and benchmarks.
std::vector<Crc32cMethod> runnableCrc32cMethods();

}  // namespace mlnn
