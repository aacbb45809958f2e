// The forward pass with several threads, beside oneDNN and OpenBLAS with as many, all in one
// process: what further threads bring to each.
//
// Prints a row of a table for each network and number of frames: microseconds a frame of wall time
// (medians over interleaved rounds) and how many times faster than with one thread that is. Before
// it stands what it costs to hand work over to threads, which are just at the end of other work,
// and what that is of the least work that each of them is given (inference/WorkSplit.h). With
// --output the same goes into a file, from which bench/page makes a table.
#include <cblas.h>
#include <omp.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "bench/Contender.h"
#include "bench/Machine.h"
#include "bench/Networks.h"
#include "bench/ResultsFile.h"
#include "inference/Threads.h"
#include "inference/WorkSplit.h"
#include "inference/WorkerPool.h"

namespace mlnn::bench {
namespace {

using Clock = std::chrono::steady_clock;

const std::vector<int> kThreads = {1, 2, 4};
constexpr const char* kNames[] = {"mlnn", "oneDNN", "OpenBLAS"};

// A contender with a number of threads, which are set before each of its turns.
struct Entry {
  std::string name;
  int threads;
  ContenderPtr contender;
  std::function<void()> takeThreads;
  std::vector<double> times;  // seconds a run
};

// The processor's time would count the work of all threads.
double wallSecondsOf(Entry& entry, const float* x, float* y, std::size_t repeats) {
  entry.takeThreads();
  entry.contender->run(x, y);
  const Clock::time_point start = Clock::now();
  for (std::size_t i = 0; i < repeats; ++i) entry.contender->run(x, y);
  return std::chrono::duration<double>(Clock::now() - start).count() / static_cast<double>(repeats);
}

void addEntries(const Network& network, std::size_t frames, int threads,
                std::vector<Entry>& entries) {
  entries.push_back({"mlnn", threads, makeMlnnWithThreads(network, frames, threads), [] {}, {}});
  const auto useOpenMp = [threads] { omp_set_num_threads(threads); };
  useOpenMp();  // oneDNN divides the work when it is told of it
  entries.push_back({"oneDNN", threads, makeOneDnn(network, frames), useOpenMp, {}});
  entries.push_back({"OpenBLAS",
                     threads,
                     makeOpenBlas(network, frames),
                     [threads] { openblas_set_num_threads(threads); },
                     {}});
}

std::size_t repeatsFor(const Network& network, std::size_t frames) {
  constexpr double kMultiplicationsInRound = 1e9;
  double each = 0;
  for (const DenseLayer& layer : network.layers) {
    each += static_cast<double>(layer.rows * layer.cols * frames);
  }
  return std::max<std::size_t>(static_cast<std::size_t>(kMultiplicationsInRound / each), 1);
}

void printRow(const Network& network, std::size_t frames, std::vector<Entry>& entries,
              std::ofstream& results) {
  std::printf("| %s | %zu |", network.name.c_str(), frames);
  results << network.name << '\t' << frames;
  double alone = 0;
  std::vector<double> seconds;
  for (const Entry& entry : entries) seconds.push_back(medianOf(entry.times));
  for (const char* const name : kNames) {
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (entries[i].name != name) continue;
      if (entries[i].threads == 1) alone = seconds[i];
      const double microseconds = 1e6 * seconds[i] / static_cast<double>(frames);
      std::printf(" %.2f", microseconds);
      results << '\t' << microseconds;
      if (entries[i].threads > 1) std::printf(" (%.2f)", alone / seconds[i]);
      std::printf(" |");
    }
  }
  std::printf("\n");
  std::fflush(stdout);
  results << std::endl;
}

void runRow(const Network& network, std::size_t frames, std::size_t rounds,
            std::ofstream& results) {
  const std::vector<float> inputs = makeInputs(network, frames);
  std::vector<float> outputs(network.outputs() * frames);
  std::vector<Entry> entries;
  for (const int threads : kThreads) addEntries(network, frames, threads, entries);
  const std::size_t repeats = repeatsFor(network, frames);
  for (std::size_t round = 0; round < rounds; ++round) {
    for (Entry& entry : entries) {
      entry.times.push_back(wallSecondsOf(entry, inputs.data(), outputs.data(), repeats));
    }
  }
  printRow(network, frames, entries, results);
}

// Microseconds from the moment in which there is work for so many threads to the one in which all
// have come to it and are done, where it is no more than that.
double microsecondsToHandOver(int threads) {
  constexpr int kTimes = 2000;
  WorkerPool pool(threads);
  std::vector<double> times;
  for (int i = 0; i < kTimes; ++i) {
    std::atomic<int> missing{pool.count()};
    const Clock::time_point start = Clock::now();
    pool.run(pool.count(), [&missing](int, int) {
      --missing;
      while (missing > 0) std::this_thread::yield();
    });
    times.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return medianOf(times);
}

// Of one thread, in frames enough that the weights cost nothing.
double microsecondsOfLeastWork() {
  constexpr std::size_t kFrames = 256;
  const Network network = makeNetwork(kShapes[1], Hidden::kSigmoid);
  const std::vector<float> inputs = makeInputs(network, kFrames);
  std::vector<float> outputs(network.outputs() * kFrames);
  double multiplications = 0;
  for (const DenseLayer& layer : network.layers) {
    multiplications += static_cast<double>(layer.rows * layer.cols * kFrames);
  }
  Entry entry{"mlnn", 1, makeMlnnWithThreads(network, kFrames, 1), [] {}, {}};
  for (int round = 0; round < 11; ++round) {
    entry.times.push_back(wallSecondsOf(entry, inputs.data(), outputs.data(), 20));
  }
  return 1e6 * medianOf(entry.times) * static_cast<double>(kLeastWork) / multiplications;
}

std::string costsText() {
  char text[200];
  std::snprintf(text, sizeof text,
                "%.1f us to 2 threads, %.1f us to 4; least work of a thread %.1f us",
                microsecondsToHandOver(2), microsecondsToHandOver(4), microsecondsOfLeastWork());
  return text;
}

void printHead(std::size_t rounds, std::ofstream& results) {
  const std::string costs = costsText();
  results << "processors\t" << Threads::processors() << "\nhanding over\t" << costs << "\nrun\t"
          << rounds << " rounds, load " << machineLoad() << " at its start\n\nnet\tframes";
  std::printf("%s, %d processors\nHanding work over takes %s\n\n| net | frames |",
              processorName().c_str(), Threads::processors(), costs.c_str());
  for (const char* const name : kNames) {
    for (const int threads : kThreads) {
      std::printf(" %s, %d |", name, threads);
      results << '\t' << name << ' ' << threads;
    }
  }
  results << '\n';
  std::printf("\n|---|---|");
  for (std::size_t i = 0; i < 3 * kThreads.size(); ++i) std::printf("---|");
  std::printf("\n");
}

}  // namespace
}  // namespace mlnn::bench

int main(int argc, char** argv) {
  using namespace mlnn::bench;
  CLI::App app("The forward pass with 1, 2 and 4 threads, beside peers");
  std::vector<std::string> names = {"S", "M", "L", "XL"};
  std::vector<std::size_t> frames = {1, 8, 32, 256, 1024};
  std::size_t rounds = 11;
  std::string output;
  app.add_option("--nets", names, "Networks")->delimiter(',')->capture_default_str();
  app.add_option("--frames", frames, "Numbers of frames")->delimiter(',')->capture_default_str();
  app.add_option("--rounds", rounds, "Rounds to take the medians of")->capture_default_str();
  app.add_option("--output", output, "A file for the results");
  CLI11_PARSE(app, argc, argv);
  warnUnlessIdle();
  ResultsFile results(output);
  printHead(rounds, results.stream());
  for (const Shape& shape : kShapes) {
    if (std::find(names.begin(), names.end(), shape.name) == names.end()) continue;
    const Network network = makeNetwork(shape, Hidden::kSigmoid);
    for (const std::size_t count : frames) runRow(network, count, rounds, results.stream());
  }
  return results.keep() ? 0 : 1;
}
