// Compares formatFloat with the standard library's conversion on all 2^32 floats, and
// parsePlainFloat on what that gives. FloatTextSweepByHand does with
// text/DecimalConversionByHand.cpp. Usage: FloatTextSweep [--every N] [PRECISION...]    6 and 9
// without arguments Prints the number of floats compared and of differences; exit status 1 when
// there are any.
#include <atomic>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <thread>
#include <vector>

#include "text/FloatReader.h"
#include "text/FloatText.h"

namespace {

// Whether the text, which has room behind it, is read as the standard library reads it. What that
// does not read, and what are no digits, is left to a stream.
bool readsBack(char* text, const char* end) {
  float expected;
  const std::from_chars_result result = std::from_chars(text, end, expected);
  text[end - text] = ' ';
  float found;
  const bool isRead = mlnn::parsePlainFloat(text, end + 1, found) == end;
  const bool isNumber = result.ec == std::errc() && std::isfinite(expected);
  if (isRead == isNumber && (!isRead || std::memcmp(&expected, &found, sizeof found) == 0))
    return true;
  std::printf("%.*s is read as another float\n", static_cast<int>(end - text), text);
  return false;
}

bool agrees(uint32_t bits, int precision) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  char found[64];
  char expected[64];
  const char* const foundEnd = mlnn::formatFloat(found, value, precision);
  char* const expectedEnd = std::to_chars(expected, expected + sizeof expected, double{value},
                                          std::chars_format::general, precision)
                                .ptr;
  const std::string_view expectedText(expected, static_cast<std::size_t>(expectedEnd - expected));
  if (std::string_view(found, static_cast<std::size_t>(foundEnd - found)) == expectedText) {
    return readsBack(expected, expectedEnd);
  }
  std::printf("0x%08x with %d digits: expected %.*s, found %.*s\n", bits, precision,
              static_cast<int>(expectedEnd - expected), expected,
              static_cast<int>(foundEnd - found), found);
  return false;
}

uint64_t countDifferences(int precision, uint64_t step) {
  std::atomic<uint64_t> differences{0};
  std::vector<std::thread> threads;
  const unsigned count = std::max(1u, std::thread::hardware_concurrency());
  for (unsigned first = 0; first < count; ++first) {
    threads.emplace_back([&differences, precision, step, first, count] {
      for (uint64_t bits = first * step; bits <= UINT32_MAX; bits += count * step) {
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
  uint64_t step = 1;
  int i = 1;
  if (argc > 2 && std::strcmp(argv[1], "--every") == 0) {
    step = std::strtoull(argv[2], nullptr, 10);
    i = 3;
  }
  if (step == 0) return 2;
  for (; i < argc; ++i) precisions.push_back(std::atoi(argv[i]));
  if (precisions.empty()) precisions = {6, 9};
  uint64_t all = 0;
  for (const int precision : precisions) {
    const uint64_t differences = countDifferences(precision, step);
    std::printf("precision %d: %llu floats compared, %llu differences\n", precision,
                static_cast<unsigned long long>(((uint64_t{1} << 32) + step - 1) / step),
                static_cast<unsigned long long>(differences));
    std::fflush(stdout);
    all += differences;
  }
  return all == 0 ? 0 : 1;
}
