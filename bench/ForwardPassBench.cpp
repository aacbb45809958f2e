// The forward pass beside general-purpose libraries, all in one process and on one thread.
//
// Prints a line for each network, activation and number of frames: microseconds a frame of
// this library and of its peers (medians over interleaved rounds), the ratio to the best of
// the peers, and to what the processor could do at best, measured in the same run.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <iostream>

#include "bench/Contender.h"
#include "bench/Networks.h"
#include "inference/kernels/Kernels.h"

namespace mlnn::bench {
namespace {

struct Entry {
  const char* name;
  ContenderPtr (*make)(const Network&, std::size_t frames);
  int bits = 0;  // of the weights; 0 for floats
};

// This library comes first: with floats, then with codes, then its peers.
constexpr std::size_t kFirstPeer = 3;
const std::vector<Entry> kContenders = {
    {"mlnn", makeMlnn},
    {"8 bits", makeMlnnOf8Bits, 8},
    {"4 bits", makeMlnnOf4Bits, 4},
    {"Eigen-dist", distribution::makeEigen},
    {"Eigen", native::makeEigen},
    {"OpenBLAS", makeOpenBlas},
    {"oneDNN", makeOneDnn},
    {"xsmm", makeXsmm},
    {"xsmm-blk", makeXsmmBlocked},
};

double weightBytes(const Network& network) {
  double bytes = 0;
  for (const DenseLayer& layer : network.layers) {
    bytes += static_cast<double>(layer.weights.size() * sizeof(float));
  }
  return bytes;
}

class Row {
 public:
  Row(const Network& network, std::size_t frames) : network_(network), frames_(frames) {
    inputs_ = makeInputs(network, frames);
    outputs_.resize(network.outputs() * frames);
    for (const Entry& entry : kContenders) contenders_.push_back(entry.make(network, frames));
    times_.resize(contenders_.size());
  }

  // Whether all contenders compute the first and the last frame right.
  bool areRight() {
    constexpr double kAllowed = 1e-4;
    bool right = true;
    const std::size_t last = frames_ - 1;
    const float* const lastInput = inputs_.data() + last * network_.inputs();
    std::vector<double> first;
    std::vector<double> final;
    for (std::size_t i = 0; i < contenders_.size(); ++i) {
      const int bits = kContenders[i].bits;
      if (i == 0 || bits != kContenders[i - 1].bits) {
        const Network network = bits == 0 ? network_ : reduced(network_, bits);
        first = exactOutputs(network, inputs_.data());
        final = exactOutputs(network, lastInput);
      }
      contenders_[i]->run(inputs_.data(), outputs_.data());
      const double error = std::max(errorOf(first, outputs_.data()),
                                    errorOf(final, outputs_.data() + last * network_.outputs()));
      if (error <= kAllowed) continue;
      std::printf("%s is wrong by %.2g\n", kContenders[i].name, error);
      right = false;
    }
    return right;
  }

  void measure(int rounds, double secondsEach) {
    std::vector<std::size_t> repeats;
    for (const ContenderPtr& contender : contenders_) {
      const double once = secondsOf(*contender, inputs_.data(), outputs_.data(), 1);
      repeats.push_back(static_cast<std::size_t>(std::max(1.0, secondsEach / once)));
    }
    for (int round = 0; round < rounds; ++round) {
      for (std::size_t i = 0; i < contenders_.size(); ++i) {
        const double seconds =
            secondsOf(*contenders_[i], inputs_.data(), outputs_.data(), repeats[i]);
        times_[i].push_back(seconds / static_cast<double>(repeats[i] * frames_));
      }
    }
  }

  void print(double limit) const {
    std::vector<double> medians;
    for (const std::vector<double>& times : times_) medians.push_back(1e6 * medianOf(times));
    const auto best = std::min_element(medians.begin() + kFirstPeer, medians.end());
    std::printf("%-6s%-8s%4zu", network_.name.c_str(),
                network_.hidden == Hidden::kRelu ? "relu" : "sigmoid", frames_);
    for (const double median : medians) std::printf("%11.3f", median);
    std::printf("%8.2f %-10s%8.2f%8.2f\n", medians[0] / *best,
                kContenders[static_cast<std::size_t>(best - medians.begin())].name,
                medians[0] / (1e6 * limit), medians[0] / medians[1]);
    std::fflush(stdout);
  }

 private:
  const Network& network_;
  std::size_t frames_;
  std::vector<float> inputs_;
  std::vector<float> outputs_;
  std::vector<ContenderPtr> contenders_;
  std::vector<std::vector<double>> times_;
};

void printHead() {
  std::printf(
      "Microseconds a frame; ours / best peer; ours / limit; speed of 8 bits. Kernels: %s\n",
      bestKernels().name);
  std::printf("%-6s%-8s%4s", "net", "hidden", "N");
  for (const Entry& entry : kContenders) std::printf("%11s", entry.name);
  std::printf("%8s %-10s%8s%8s\n", "ratio", "to", "xlimit", "8 bits");
}

struct Options {
  std::vector<std::string> networks;
  std::vector<std::size_t> frames = {1, 4, 8, 32, 256};
  std::vector<std::string> hidden = {"sigmoid", "relu"};
  int rounds = 7;
  double milliseconds = 20;
};

template <typename T>
bool contains(const std::vector<T>& values, const T& value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

bool benchNetwork(const Shape& shape, const Options& options, double flops) {
  for (const auto& [name, hidden] :
       {std::pair{"sigmoid", Hidden::kSigmoid}, std::pair{"relu", Hidden::kRelu}}) {
    if (!contains<std::string>(options.hidden, name)) continue;
    const Network network = makeNetwork(shape, hidden);
    const double bytes = weightBytes(network);
    const double readSeconds = bytes / readBytesPerSecond(static_cast<std::size_t>(bytes));
    for (const std::size_t frames : options.frames) {
      Row row(network, frames);
      if (!row.areRight()) return false;
      row.measure(options.rounds, options.milliseconds / 1e3);
      row.print(std::max(readSeconds / static_cast<double>(frames),
                         bytes / 2 / flops /* two a weight */));
    }
  }
  return true;
}

int run(const Options& options) {
  warnUnlessIdle();
  printHead();
  multiplyAddFlopsPerSecond();  // the processor takes a while to reach its speed
  const double flops = multiplyAddFlopsPerSecond();
  for (const Shape& shape : kShapes) {
    const std::string name = shape.name;
    if (!options.networks.empty() && !contains(options.networks, name)) continue;
    if (!benchNetwork(shape, options, flops)) return 1;
  }
  warnUnlessIdle();
  return 0;
}

}  // namespace
}  // namespace mlnn::bench

int main(int argc, char** argv) {
  mlnn::bench::Options options;
  CLI::App app("Measures the forward pass beside its peers");
  app.add_option("networks", options.networks, "S, M, M-odd, L, L-odd, XL; all without any");
  app.add_option("--frames", options.frames, "Numbers of frames")->delimiter(',');
  app.add_option("--hidden", options.hidden, "sigmoid, relu or both")->delimiter(',');
  app.add_option("--rounds", options.rounds, "Interleaved rounds")->check(CLI::PositiveNumber);
  app.add_option("--ms", options.milliseconds, "Milliseconds for each contender and round");
  CLI11_PARSE(app, argc, argv);
  return mlnn::bench::run(options);
}
