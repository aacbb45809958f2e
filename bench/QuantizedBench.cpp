// The pass in integers beside oneDNN's 8-bit products and this library's floats, all in one process
// and on one thread, over one network that was quantised by rows.
//
// Prints a row of a table for each network and number of frames: microseconds a frame (medians over
// interleaved rounds), the ratio to oneDNN, how many times faster than floats it is, and
// what reading a mapped image in place costs.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <string>

#include "bench/Contender.h"
#include "bench/Machine.h"
#include "bench/Networks.h"
#include "inference/kernels/integers/IntegerDots.h"

namespace mlnn::bench {
namespace {

struct Entry {
  const char* name;
  ContenderPtr (*make)(const Network&, std::size_t frames);
  int bits;        // of the network's weights
  double allowed;  // error
};

// Inputs that are rounded to 8 bits cost accuracy; a network of 4 bits is another network.
constexpr double kExact = 1e-4;
constexpr double kOf8Bits = 0.05;
const std::vector<Entry> kContenders = {
    {"integers", makeMlnnInIntegers, 8, kOf8Bits},
    {"image", makeMlnnInIntegersOfAnImage, 8, kOf8Bits},
    {"4 bits", makeMlnnInIntegers, 4, kOf8Bits},
    {"floats", makeMlnn, 8, kExact},
    {"oneDNN", makeOneDnnOf8Bits, 8, kOf8Bits},
};
constexpr std::size_t kIntegers = 0;
constexpr std::size_t kImage = 1;
constexpr std::size_t kFloats = 3;
constexpr std::size_t kPeer = 4;

// A network of each number of bits.
struct Networks {
  Network of8Bits;
  Network of4Bits;

  explicit Networks(const Network& network)
      : of8Bits(quantized(network, 8)), of4Bits(quantized(network, 4)) {}
  const Network& of(int bits) const { return bits == 8 ? of8Bits : of4Bits; }
};

class Row {
 public:
  Row(const Networks& networks, std::size_t frames) : networks_(networks), frames_(frames) {
    inputs_ = makeInputs(networks.of8Bits, frames);
    outputs_.resize(networks.of8Bits.outputs() * frames);
    for (const Entry& entry : kContenders) {
      contenders_.push_back(entry.make(networks.of(entry.bits), frames));
    }
    times_.resize(contenders_.size());
  }

  // Whether all contenders compute the last frame right.
  bool areRight() {
    bool right = true;
    const std::size_t last = frames_ - 1;
    for (std::size_t i = 0; i < contenders_.size(); ++i) {
      const Network& network = networks_.of(kContenders[i].bits);
      contenders_[i]->run(inputs_.data(), outputs_.data());
      const double error = errorOf(exactOutputs(network, inputs_.data() + last * network.inputs()),
                                   outputs_.data() + last * network.outputs());
      if (error <= kContenders[i].allowed) continue;
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

  void print() const {
    std::vector<double> medians;
    for (const std::vector<double>& times : times_) medians.push_back(1e6 * medianOf(times));
    std::printf("| %-5s | %3zu |", networks_.of8Bits.name.c_str(), frames_);
    for (const double median : medians) std::printf(" %8.2f |", median);
    std::printf(" %8.2f | %9.2f | %11.2f |\n", medians[kIntegers] / medians[kPeer],
                medians[kFloats] / medians[kIntegers], medians[kImage] / medians[kIntegers]);
    std::fflush(stdout);
  }

 private:
  const Networks& networks_;
  std::size_t frames_;
  std::vector<float> inputs_;
  std::vector<float> outputs_;
  std::vector<ContenderPtr> contenders_;
  std::vector<std::vector<double>> times_;
};

void printHead() {
  std::printf("%s, products of %s; microseconds a frame on one thread, sigmoid\n\n",
              processorName().c_str(), bestDots().name);
  std::printf("| net   |   N |");
  for (const Entry& entry : kContenders) std::printf(" %8s |", entry.name);
  std::printf(" / oneDNN | x floats  | image / own |\n|---|---|");
  for (std::size_t i = 0; i < kContenders.size(); ++i) std::printf("---|");
  std::printf("---|---|---|\n");
}

struct Options {
  std::vector<std::string> networks = {"M", "L", "XL"};
  std::vector<std::size_t> frames = {1, 8, 32, 256};
  int rounds = 9;
  double milliseconds = 20;
};

bool benchNetwork(const Shape& shape, const Options& options) {
  const Networks networks(makeNetwork(shape, Hidden::kSigmoid));
  for (const std::size_t frames : options.frames) {
    Row row(networks, frames);
    if (!row.areRight()) return false;
    row.measure(options.rounds, options.milliseconds / 1e3);
    row.print();
  }
  return true;
}

int run(const Options& options) {
  warnUnlessIdle();
  printHead();
  multiplyAddFlopsPerSecond();  // the processor takes a while to reach its speed
  for (const Shape& shape : kShapes) {
    const auto& names = options.networks;
    if (std::find(names.begin(), names.end(), shape.name) == names.end()) continue;
    if (!benchNetwork(shape, options)) return 1;
  }
  warnUnlessIdle();
  return 0;
}

}  // namespace
}  // namespace mlnn::bench

int main(int argc, char** argv) {
  mlnn::bench::Options options;
  CLI::App app("Measures the pass in integers beside its peers");
  app.add_option("networks", options.networks, "S, M, M-odd, L, L-odd, XL; M, L, XL without any");
  app.add_option("--frames", options.frames, "Numbers of frames")->delimiter(',');
  app.add_option("--rounds", options.rounds, "Interleaved rounds")->check(CLI::PositiveNumber);
  app.add_option("--ms", options.milliseconds, "Milliseconds for each contender and round");
  CLI11_PARSE(app, argc, argv);
  return mlnn::bench::run(options);
}
