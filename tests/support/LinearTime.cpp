#include "tests/support/LinearTime.h"

#include <time.h>

#include <algorithm>
#include <limits>
#include <utility>

namespace mlnn::test {
namespace {

constexpr std::size_t kLeastLength = std::size_t{1} << 16;
constexpr std::size_t kMostLength = std::size_t{1} << 18;
constexpr double kMeasurable = 2e-3;  // seconds
constexpr double kNothing = 1e-3;     // seconds
constexpr double kMostGrowth = 8;
constexpr int kRuns = 3;
constexpr int kTries = 4;
constexpr int kSteps = 3;
constexpr double kHopeless = 0.25;  // seconds: with a power, the next step would take many

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

struct Growth {
  double shortTime = std::numeric_limits<double>::max();
  double longTime = std::numeric_limits<double>::max();

  bool isLinear() const { return longTime <= std::max(kMostGrowth * shortTime, kNothing); }
};

// Measures until the growth is linear, some times at most; returns what came last.
Growth growthOf(const WorkOnInput& work, const std::string& shortInput,
                const std::string& longInput) {
  Growth growth;
  int tries = 0;
  do {
    growth = Growth();
    for (int run = 0; run < kRuns; ++run) {
      growth.shortTime = std::min(growth.shortTime, secondsOf(work, shortInput));
      growth.longTime = std::min(growth.longTime, secondsOf(work, longInput));
    }
  } while (!growth.isLinear() && ++tries < kTries);
  return growth;
}

std::size_t measurableLength(const InputOfLength& input, const WorkOnInput& work) {
  std::size_t length = kLeastLength;
  while (length < kMostLength && secondsOf(work, input(length)) < kMeasurable) length *= 2;
  return length;
}

}  // namespace

::testing::AssertionResult takesLinearTime(const InputOfLength& input, const WorkOnInput& work) {
  ::testing::AssertionResult failure = ::testing::AssertionFailure();
  std::string shortInput = input(measurableLength(input, work));
  for (int step = 0; step < kSteps; ++step) {
    std::string longInput = input(4 * shortInput.size());
    const Growth growth = growthOf(work, shortInput, longInput);
    if (growth.isLinear()) return ::testing::AssertionSuccess();
    failure << longInput.size() << " bytes take " << growth.longTime << " s, " << shortInput.size()
            << " bytes " << growth.shortTime << " s\n";
    if (growth.longTime > kHopeless) break;
    shortInput = std::move(longInput);
  }
  return failure;
}

}  // namespace mlnn::test
