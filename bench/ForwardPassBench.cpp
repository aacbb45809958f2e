// The forward pass beside general-purpose libraries, all in one process and on one thread.
//
// Prints a line for each network, activation and number of frames: microseconds a frame of
// this library and of its peers (medians over interleaved rounds), the ratio to the best of
// the peers, and to what the processor could do at best, measured in the same run. With --output
// the same goes into a file, from which bench/page makes the tables of docs/performance.md. With
// --shapes there are the shapes of this library's loops in place of codes and of the slower peers.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <fstream>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bench/Contender.h"
#include "bench/Machine.h"
#include "bench/Networks.h"
#include "bench/ResultsFile.h"
#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"

namespace mlnn::bench {
namespace {

struct Entry {
  std::string name;
  std::function<ContenderPtr(const Network&, std::size_t frames)> make;
  int bits = 0;  // of the weights; 0 for floats
  bool isPeer = true;
};

// This library comes first: with floats, then with codes, then its peers.
const std::vector<Entry> kContenders = {
    {"mlnn", makeMlnn, 0, false},
    {"8 bits", makeMlnnOf8Bits, 8, false},
    {"4 bits", makeMlnnOf4Bits, 4, false},
    {"Eigen-dist", distribution::makeEigen},
    {"Eigen", native::makeEigen},
    {"OpenBLAS", makeOpenBlas},
    {"oneDNN", makeOneDnn},
    {"xsmm", makeXsmm},
    {"xsmm-blk", makeXsmmBlocked},
};

// This library with the shape in use, with each shape there is, and the faster peers.
std::vector<Entry> shapesAndPeers() {
  std::vector<Entry> entries = {kContenders.front()};
  for (const KernelShape& shape : kKernelShapes) {
    entries.push_back({shape.name,
                       [&shape](const Network& network, std::size_t frames) {
                         return makeMlnnOfShape(network, frames, shape);
                       },
                       0, false});
  }
  for (const Entry& entry : kContenders) {
    if (entry.isPeer && entry.name != "Eigen-dist") entries.push_back(entry);
  }
  return entries;
}

double weightBytes(const Network& network) {
  double bytes = 0;
  for (const DenseLayer& layer : network.layers) {
    bytes += static_cast<double>(layer.weights.size() * sizeof(float));
  }
  return bytes;
}

// Where the lines of a measurement go.
struct Table {
  std::vector<Entry> entries;
  ResultsFile results;
};

class Row {
 public:
  Row(const Network& network, std::size_t frames, const std::vector<Entry>& entries)
      : network_(network), frames_(frames), entries_(entries) {
    inputs_ = makeInputs(network, frames);
    outputs_.resize(network.outputs() * frames);
    for (const Entry& entry : entries_) contenders_.push_back(entry.make(network, frames));
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
      const int bits = entries_[i].bits;
      if (i == 0 || bits != entries_[i - 1].bits) {
        const Network network = bits == 0 ? network_ : reduced(network_, bits);
        first = exactOutputs(network, inputs_.data());
        final = exactOutputs(network, lastInput);
      }
      contenders_[i]->run(inputs_.data(), outputs_.data());
      const double error = std::max(errorOf(first, outputs_.data()),
                                    errorOf(final, outputs_.data() + last * network_.outputs()));
      if (error <= kAllowed) continue;
      std::printf("%s is wrong by %.2g\n", entries_[i].name.c_str(), error);
      right = false;
    }
    return right;
  }

  // Contenders that take three times as long as the fastest take part in the first rounds only, and
  // rows that take long have fewer rounds.
  void measure(int rounds, double secondsEach) {
    constexpr double kSecondsOfRow = 5;
    const double start = secondsOfThisThread();
    std::vector<double> once;
    for (const ContenderPtr& contender : contenders_) {
      once.push_back(secondsOf(*contender, inputs_.data(), outputs_.data(), 1));
    }
    const double slow = 3 * *std::min_element(once.begin(), once.end());
    for (int round = 0; round < rounds; ++round) {
      if (round >= kFewestRounds && secondsOfThisThread() - start > kSecondsOfRow) break;
      for (std::size_t i = 0; i < contenders_.size(); ++i) {
        if (round >= kRoundsOfSlow && once[i] > slow) continue;
        const auto repeats = static_cast<std::size_t>(std::max(1.0, secondsEach / once[i]));
        const double seconds = secondsOf(*contenders_[i], inputs_.data(), outputs_.data(), repeats);
        times_[i].push_back(seconds / static_cast<double>(repeats * frames_));
      }
    }
  }

  void print(double limit, Table& table) const {
    std::vector<double> medians;
    for (const std::vector<double>& times : times_) medians.push_back(1e6 * medianOf(times));
    const std::size_t best = bestPeer(medians);
    const char* const hidden = network_.hidden == Hidden::kRelu ? "relu" : "sigmoid";
    std::printf("%-6s%-8s%4zu", network_.name.c_str(), hidden, frames_);
    for (const double median : medians) std::printf("%11.3f", median);
    std::printf("%8.2f %-10s%8.2f\n", medians[0] / medians[best], entries_[best].name.c_str(),
                medians[0] / (1e6 * limit));
    std::fflush(stdout);
    if (!table.results.stream().is_open()) return;
    table.results.stream() << network_.name << '\t' << hidden << '\t' << frames_;
    for (const double median : medians) table.results.stream() << '\t' << rounded(median);
    table.results.stream() << '\t' << rounded(1e6 * limit) << '\n';
  }

 private:
  static constexpr int kRoundsOfSlow = 3;
  static constexpr int kFewestRounds = 5;

  static std::string rounded(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.4g", value);
    return text;
  }

  std::size_t bestPeer(const std::vector<double>& medians) const {
    std::size_t best = medians.size();
    for (std::size_t i = 0; i < medians.size(); ++i) {
      if (!entries_[i].isPeer) continue;
      if (best == medians.size() || medians[i] < medians[best]) best = i;
    }
    return best;
  }

  const Network& network_;
  std::size_t frames_;
  const std::vector<Entry>& entries_;
  std::vector<float> inputs_;
  std::vector<float> outputs_;
  std::vector<ContenderPtr> contenders_;
  std::vector<std::vector<double>> times_;
};

struct Options {
  std::vector<std::string> networks = {"S", "M", "L", "XL"};
  std::vector<std::size_t> frames = {1, 4, 8, 32, 256};
  std::vector<std::string> hidden = {"sigmoid", "relu"};
  int rounds = 41;
  double milliseconds = 2;
  bool shapes = false;
  std::vector<std::string> only;
  std::string output;
};

void printHead(const Table& table) {
  std::printf("Microseconds a frame; ours / best peer; ours / limit. Kernels: %s, shape %s\n",
              bestKernels().name, kernelShape().name);
  std::printf("%-6s%-8s%4s", "net", "hidden", "N");
  for (const Entry& entry : table.entries) std::printf("%11s", entry.name.c_str());
  std::printf("%8s %-10s%8s\n", "ratio", "to", "xlimit");
}

// The head of a file of results: what there is to know of the processor and of the run.
void writeHead(const Options& options, Table& table) {
  std::ofstream& file = table.results.stream();
  file << "kernels\t" << bestKernels().name << ", shape " << kernelShape().name << '\n'
       << "run\t"
       << "up to " << options.rounds << " rounds of " << options.milliseconds << " ms, load "
       << machineLoad() << " at its start\n";
  file << "\nnet\thidden\tframes";
  for (const Entry& entry : table.entries) file << '\t' << entry.name;
  file << "\tlimit\n";
}

template <typename T>
bool contains(const std::vector<T>& values, const T& value) {
  return std::find(values.begin(), values.end(), value) != values.end();
}

bool benchNetwork(const Shape& shape, const Options& options, double flops, Table& table) {
  for (const auto& [name, hidden] :
       {std::pair{"sigmoid", Hidden::kSigmoid}, std::pair{"relu", Hidden::kRelu}}) {
    if (!contains<std::string>(options.hidden, name)) continue;
    const Network network = makeNetwork(shape, hidden);
    const double bytes = weightBytes(network);
    const double readSeconds = bytes / readBytesPerSecond(static_cast<std::size_t>(bytes));
    for (const std::size_t frames : options.frames) {
      Row row(network, frames, table.entries);
      if (!row.areRight()) return false;
      row.measure(options.rounds, options.milliseconds / 1e3);
      row.print(
          std::max(readSeconds / static_cast<double>(frames), bytes / 2 / flops /* two a weight */),
          table);
    }
  }
  return true;
}

int run(const Options& options) {
  Table table{options.shapes ? shapesAndPeers() : kContenders, ResultsFile(options.output)};
  if (!options.only.empty()) {
    const auto isOut = [&](const Entry& entry) { return !contains(options.only, entry.name); };
    table.entries.erase(std::remove_if(table.entries.begin(), table.entries.end(), isOut),
                        table.entries.end());
  }
  warnUnlessIdle();
  printHead(table);
  writeHead(options, table);
  multiplyAddFlopsPerSecond();  // the processor takes a while to reach its speed
  const double flops = multiplyAddFlopsPerSecond();
  for (const Shape& shape : kShapes) {
    if (!contains<std::string>(options.networks, shape.name)) continue;
    if (!benchNetwork(shape, options, flops, table)) return 1;
  }
  warnUnlessIdle();
  return table.results.keep() ? 0 : 1;
}

}  // namespace
}  // namespace mlnn::bench

int main(int argc, char** argv) {
  mlnn::bench::Options options;
  CLI::App app("Measures the forward pass beside its peers");
  app.add_option("networks", options.networks,
                 "S, M, M-odd, L, L-odd, XL; S, M, L, XL without any");
  app.add_option("--frames", options.frames, "Numbers of frames")->delimiter(',');
  app.add_option("--hidden", options.hidden, "sigmoid, relu or both")->delimiter(',');
  app.add_option("--rounds", options.rounds, "Interleaved rounds")->check(CLI::PositiveNumber);
  app.add_option("--ms", options.milliseconds, "Milliseconds for each contender and round");
  app.add_flag("--shapes", options.shapes, "Shapes of the loops in place of codes");
  app.add_option("--only", options.only, "Contenders to measure; all without any")->delimiter(',');
  app.add_option("--output", options.output, "A file for the results");
  CLI11_PARSE(app, argc, argv);
  return mlnn::bench::run(options);
}
