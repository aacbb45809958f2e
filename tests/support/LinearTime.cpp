#include "tests/support/LinearTime.h"

#include <time.h>

#include <algorithm>
#include <limits>

namespace mlnn::test {
namespace {

constexpr std::size_t kLeastLength = std::size_t{1} << 16;
constexpr std::size_t kMostLength = std::size_t{1} << 18;
constexpr double kMeasurable = 2e-3;  // seconds
constexpr double kNothing = 1e-3;     // seconds
constexpr double kMostGrowth = 8;
constexpr int kRuns = 3;
constexpr int kTries = 16;

double processorTime() {
  timespec time = {};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &time);
  return static_cast<double>(time.tv_sec) + 1e-9 * static_cast<double>(time.tv_nsec);
}

double secondsOf(const WorkOnInput& work, const std::string& input) {
  const double start = processorTime();
  work(input);
  return processorTime() - start;
}

}  // namespace

::testing::AssertionResult takesLinearTime(const InputOfLength& input, const WorkOnInput& work) {
  std::size_t length = kLeastLength;
  std::string shortInput = input(length);
  while (length < kMostLength && secondsOf(work, shortInput) < kMeasurable) {
    length *= 2;
    shortInput = input(length);
  }
  const std::string longInput = input(4 * length);
  double growth = std::numeric_limits<double>::max();
  for (int tries = 0; tries < kTries; ++tries) {
    double shortTime = std::numeric_limits<double>::max();
    double longTime = shortTime;
    for (int run = 0; run < kRuns; ++run) {
      shortTime = std::min(shortTime, secondsOf(work, shortInput));
      longTime = std::min(longTime, secondsOf(work, longInput));
    }
    if (longTime <= std::max(kMostGrowth * shortTime, kNothing)) {
      return ::testing::AssertionSuccess();
    }
    growth = std::min(growth, longTime / shortTime);
  }
  return ::testing::AssertionFailure() << longInput.size() << " bytes take " << growth
                                       << " times as long as " << shortInput.size() << " bytes";
}

}  // namespace mlnn::test
