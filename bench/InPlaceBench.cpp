// The forward pass from a mapped image where it lies: floats, and weights of 8 and 4 bits of both
// kinds, by rows and with a table of values, all in one process and on one thread. With + the pass
// is prepared, and keeps floats.
//
// Prints a row of a table for each network and number of frames: microseconds a frame (medians over
// interleaved rounds), and their ratios to floats.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>

#include "bench/Contender.h"
#include "bench/Machine.h"
#include "bench/Networks.h"

namespace mlnn::bench {
namespace {

struct Entry {
  const char* name;
  Network (*make)(const Network&, int bits);  // null for floats
  int bits;
  ContenderPtr (*run)(const Network&, std::size_t frames) = makeMlnnOfAnImage;
};

const std::vector<Entry> kContenders = {
    {"floats", nullptr, 32},
    {"rows, 8", quantized, 8},
    {"rows, 4", quantized, 4},
    {"table, 8", reduced, 8},
    {"table, 4", reduced, 4},
    {"rows, 8+", quantized, 8, makeMlnnOfAPreparedImage},
    {"table, 8+", reduced, 8, makeMlnnOfAPreparedImage},
};

struct Options {
  std::vector<std::string> networks = {"S", "M", "L", "XL"};
  std::vector<std::size_t> frames = {1};
  int rounds = 9;
  double milliseconds = 20;
};

std::vector<double> mediansOf(const Network& network, std::size_t frames, const Options& options) {
  const std::vector<float> inputs = makeInputs(network, frames);
  std::vector<float> outputs(network.outputs() * frames);
  std::vector<ContenderPtr> contenders;
  std::vector<std::size_t> repeats;
  for (const Entry& entry : kContenders) {
    const Network own = entry.make == nullptr ? network : entry.make(network, entry.bits);
    contenders.push_back(entry.run(own, frames));
    const double once = secondsOf(*contenders.back(), inputs.data(), outputs.data(), 1);
    repeats.push_back(static_cast<std::size_t>(std::max(1.0, options.milliseconds / 1e3 / once)));
  }
  std::vector<std::vector<double>> times(contenders.size());
  for (int round = 0; round < options.rounds; ++round) {
    for (std::size_t i = 0; i < contenders.size(); ++i) {
      const double seconds = secondsOf(*contenders[i], inputs.data(), outputs.data(), repeats[i]);
      times[i].push_back(1e6 * seconds / static_cast<double>(repeats[i] * frames));
    }
  }
  std::vector<double> medians;
  for (const std::vector<double>& each : times) medians.push_back(medianOf(each));
  return medians;
}

void printRow(const Network& network, std::size_t frames, const std::vector<double>& medians) {
  std::printf("| %-5s | %3zu |", network.name.c_str(), frames);
  for (const double median : medians) std::printf(" %8.2f |", median);
  for (std::size_t i = 1; i < medians.size(); ++i) std::printf(" %8.2f |", medians[i] / medians[0]);
  std::printf("\n");
  std::fflush(stdout);
}

void printHead() {
  std::printf("%s; microseconds a frame on one thread, sigmoid, and ratios to floats\n\n",
              processorName().c_str());
  std::printf("| net   |   N |");
  for (const Entry& entry : kContenders) std::printf(" %8s |", entry.name);
  for (std::size_t i = 1; i < kContenders.size(); ++i) std::printf(" %8s |", kContenders[i].name);
  std::printf("\n|---|---|");
  for (std::size_t i = 1; i < 2 * kContenders.size(); ++i) std::printf("---|");
  std::printf("\n");
}

int run(const Options& options) {
  warnUnlessIdle();
  printHead();
  multiplyAddFlopsPerSecond();  // the processor takes a while to reach its speed
  for (const Shape& shape : kShapes) {
    const auto& names = options.networks;
    if (std::find(names.begin(), names.end(), shape.name) == names.end()) continue;
    const Network network = makeNetwork(shape, Hidden::kSigmoid);
    for (const std::size_t frames : options.frames) {
      printRow(network, frames, mediansOf(network, frames, options));
    }
  }
  warnUnlessIdle();
  return 0;
}

}  // namespace
}  // namespace mlnn::bench

int main(int argc, char** argv) {
  mlnn::bench::Options options;
  CLI::App app("Measures the forward pass from an image where it lies");
  app.add_option("networks", options.networks,
                 "S, M, M-odd, L, L-odd, XL; S, M, L, XL without any");
  app.add_option("--frames", options.frames, "Numbers of frames")->delimiter(',');
  app.add_option("--rounds", options.rounds, "Interleaved rounds")->check(CLI::PositiveNumber);
  app.add_option("--ms", options.milliseconds, "Milliseconds for each contender and round");
  CLI11_PARSE(app, argc, argv);
  return mlnn::bench::run(options);
}
