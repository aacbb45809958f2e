#include "bench/Machine.h"

#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace mlnn::bench {
namespace {

// What the first processor's lines say, or nothing where there is no such line.
std::string processorLine(const std::string& name) {
  std::ifstream info("/proc/cpuinfo");
  for (std::string line; std::getline(info, line);) {
    const std::size_t colon = line.find(':');
    if (colon == std::string::npos || colon + 2 > line.size()) continue;
    const std::string found = line.substr(0, line.find_first_of("\t:"));
    if (found == name) return line.substr(colon + 2);
  }
  return "";
}

std::string cacheText(int name) {
  const long bytes = sysconf(name);
  if (bytes <= 0) return "unknown";
  if (bytes < 1 << 20) return std::to_string(bytes >> 10) + " KiB";
  return std::to_string(bytes >> 20) + " MiB";
}

}  // namespace

std::string processorName() {
  const std::string name = processorLine("model name");
  return name.empty() ? "unknown processor" : name;
}

std::vector<std::pair<std::string, std::string>> processorFacts() {
  return {{"processor", processorName()},
          {"family", processorLine("cpu family") + ", model " + processorLine("model")},
          {"caches", cacheText(_SC_LEVEL1_DCACHE_SIZE) + ", " + cacheText(_SC_LEVEL2_CACHE_SIZE) +
                         ", " + cacheText(_SC_LEVEL3_CACHE_SIZE)}};
}

double machineLoad() {
  double load = 0;
  std::ifstream("/proc/loadavg") >> load;
  return load;
}

void warnUnlessIdle() {
  const double load = machineLoad();
  if (load > 0.5) {
    std::printf("WARNING: the machine is not idle (load %.1f); only ratios mean something\n", load);
  }
}

}  // namespace mlnn::bench
