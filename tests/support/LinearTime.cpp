#include "tests/support/LinearTime.h"

#include <valgrind/callgrind.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace mlnn::test {
namespace {

constexpr std::size_t kShortLength = std::size_t{1} << 16;
constexpr std::size_t kLongLength = 4 * kShortLength;
constexpr std::uint64_t kNothing = 1000000;
constexpr std::uint64_t kMostGrowth = 6;

// Returns the number of instructions that a file of callgrind's tells, and removes the file.
std::uint64_t takeTotal(const std::string& file) {
  const std::string begin = "summary: ";
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line) && line.compare(0, begin.size(), begin) != 0) continue;
  if (!in) throw std::runtime_error(file + ": no line begins with '" + begin + "'");
  std::remove(file.c_str());
  return std::stoull(line.substr(begin.size()));
}

std::uint64_t instructionsOf(const WorkOnInput& work, const std::string& input) {
  static int dumps = 0;  // callgrind numbers the files from 1 on, as long as the process runs
  CALLGRIND_ZERO_STATS;
  work(input);
  CALLGRIND_DUMP_STATS;
  return takeTotal(std::getenv("CALLGRIND_OUT_FILE") + ("." + std::to_string(++dumps)));
}

}  // namespace

::testing::AssertionResult takesLinearTime(const InputOfLength& input, const WorkOnInput& work) {
  if (RUNNING_ON_VALGRIND == 0 || std::getenv("CALLGRIND_OUT_FILE") == nullptr) {
    return ::testing::AssertionFailure() << "not run by callgrind: see scripts/checks/linear-time";
  }
  const std::string shortInput = input(kShortLength);
  const std::string longInput = input(kLongLength);
  work(shortInput);  // whatever is made at first use only
  const std::uint64_t few = instructionsOf(work, shortInput);
  const std::uint64_t many = instructionsOf(work, longInput);
  if (many <= std::max(kMostGrowth * few, kNothing)) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << longInput.size() << " bytes take " << many << " instructions, " << shortInput.size()
         << " bytes " << few;
}

}  // namespace mlnn::test
