#include "fuzz/Support.h"

#include <array>
#include <cstring>
#include <ctime>

namespace mlnn::fuzz {
namespace {

double processorTime() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

}  // namespace

Limits::Limits(std::size_t length, std::size_t multiple, std::size_t constant)
    : length_(length), memory_(multiple * length + constant), startTime_(processorTime()) {}

void Limits::check() const {
  constexpr std::size_t kMostCopies = 16;
  constexpr double kSeconds = 5;
  constexpr double kSecondsPerByte = 1e-3;
  if (watch_.peak() > memory_) {
    report("an input of " + std::to_string(length_) + " bytes took " +
           std::to_string(watch_.peak()) + " bytes of memory, more than " +
           std::to_string(memory_));
  }
  if (watch_.total() > kMostCopies * memory_) {
    report("an input of " + std::to_string(length_) + " bytes made allocations of " +
           std::to_string(watch_.total()) + " bytes");
  }
  const double seconds = processorTime() - startTime_;
  if (seconds > kSeconds + kSecondsPerByte * static_cast<double>(length_)) {
    report("an input of " + std::to_string(length_) + " bytes took " + std::to_string(seconds) +
           " seconds");
  }
}

uint8_t Bytes::byte() {
  if (size_ == 0) return 0;
  --size_;
  return *data_++;
}

uint32_t Bytes::word() {
  uint32_t value = 0;
  for (int shift = 0; shift < 32; shift += 8) value |= uint32_t{byte()} << shift;
  return value;
}

int Bytes::below(int limit) { return byte() % limit; }

float Bytes::value() {
  const uint8_t kind = byte();
  if (kind < 0xF0) return static_cast<float>(kind - 0x78) / 32;
  const uint32_t bits = word();
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

uint32_t crc32c(const uint8_t* bytes, std::size_t count) {
  static const std::array<uint32_t, 256> table = [] {
    std::array<uint32_t, 256> made = {};
    for (uint32_t i = 0; i < 256; ++i) {
      uint32_t crc = i;
      for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? 0x82F63B78 : 0);
      made[i] = crc;
    }
    return made;
  }();
  uint32_t crc = 0xFFFFFFFF;
  for (std::size_t i = 0; i < count; ++i) crc = crc >> 8 ^ table[(crc ^ bytes[i]) & 0xFF];
  return ~crc;
}

}  // namespace mlnn::fuzz
