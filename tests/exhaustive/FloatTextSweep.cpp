// Compares formatFloat with the standard library's conversion on all 2^32 floats.
// Usage: FloatTextSweep [PRECISION...]    6 and 9 without arguments
// Prints the number of floats compared and of differences; exit status 1 when there are any.
#include <atomic>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "text/FloatText.h"

namespace {

bool agrees(uint32_t bits, int precision) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  char found[64];
  char expected[64];
  const char* const foundEnd = mlnn::formatFloat(found, value, precision);
  const char* const expectedEnd = std::to_chars(expected, expected + sizeof expected, double{value},
                                                std::chars_format::general, precision)
                                      .ptr;
  const std::string_view expectedText(expected, static_cast<std::size_t>(expectedEnd - expected));
  if (std::string_view(found, static_cast<std::size_t>(foundEnd - found)) == expectedText) {
    return true;
  }
  std::printf("0x%08x with %d digits: expected %.*s, found %.*s\n", bits, precision,
              static_cast<int>(expectedEnd - expected), expected,
              static_cast<int>(foundEnd - found), found);
  return false;
}

uint64_t countDifferences(int precision) {
  std::atomic<uint64_t> differences{0};
  std::vector<std::thread> threads;
  const unsigned count = std::max(1u, std::thread::hardware_concurrency());
  for (unsigned first = 0; first < count; ++first) {
    threads.emplace_back([&differences, precision, first, count] {
      for (uint64_t bits = first; bits <= UINT32_MAX; bits += count) {
        if (!agrees(static_cast<uint32_t>(bits), precision)) ++differences;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return differences;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<int> precisions;
  for (int i = 1; i < argc; ++i) precisions.push_back(std::atoi(argv[i]));
  if (precisions.empty()) precisions = {6, 9};
  uint64_t all = 0;
  for (const int precision : precisions) {
    const uint64_t differences = countDifferences(precision);
    std::printf("precision %d: %llu floats compared, %llu differences\n", precision,
                static_cast<unsigned long long>(uint64_t{1} << 32),
                static_cast<unsigned long long>(differences));
    std::fflush(stdout);
    all += differences;
  }
  return all == 0 ? 0 : 1;
}
