// Prints, for each analysis, the longest time that its watch is not called: how long it takes to
// stop the work. The network is the largest of the benchmarks. Usage: WatchBench
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <functional>
#include <sstream>
#include <string>
#include <utility>

#include "analysis/BehaviourDiff.h"
#include "analysis/FrameTimer.h"
#include "analysis/Histogram.h"
#include "analysis/ModelAverage.h"
#include "analysis/ModelBudget.h"
#include "analysis/ModelDigest.h"
#include "analysis/ModelSummary.h"
#include "analysis/ModelSuspicions.h"
#include "analysis/NumberDiff.h"
#include "analysis/PrecisionSweep.h"
#include "analysis/QuantizationDiff.h"
#include "analysis/QuantizationProof.h"
#include "analysis/Stage.h"
#include "analysis/StatementDiff.h"
#include "analysis/TraceComparison.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "inference/Evaluation.h"
#include "model/FormatFit.h"
#include "model/ModelFile.h"
#include "model/RowQuantization.h"

namespace {

using mlnn::Watch;

// By the clock, and by what this process has had of the processors, which other programs do not
// disturb; in milliseconds.
struct Moment {
  double clock;
  double processor;
};

Moment now() {
  using Milliseconds = std::chrono::duration<double, std::milli>;
  const auto clock = std::chrono::steady_clock::now().time_since_epoch();
  return {Milliseconds(clock).count(), 1000.0 * static_cast<double>(std::clock()) / CLOCKS_PER_SEC};
}

void measure(const char* name, const std::function<void(const Watch&)>& work) {
  const Moment start = now();
  Moment last = start;
  Moment longest{0, 0};
  const auto note = [&] {
    const Moment here = now();
    longest.clock = std::max(longest.clock, here.clock - last.clock);
    longest.processor = std::max(longest.processor, here.processor - last.processor);
    last = here;
  };
  work([&](std::size_t) { note(); });
  note();
  std::printf("%-20s %8.1f ms in all, %6.1f ms between two calls at most; of the processor %6.1f\n",
              name, last.clock - start.clock, longest.clock, longest.processor);
  std::fflush(stdout);
}

MultiLayerNNModel largeModel() {
  int sizes[] = {1800, 2048, 2048, 2048, 2048, 2048, 6000};
  MultiLayerNNModel model(sizes, 7);
  for (NNLayer* layer : model.layers) layer->weights.setRandom();
  return model;
}

}  // namespace

int main() {
  mlnn::ModelFile file;
  file.model = largeModel();
  MultiLayerNNModel& model = file.model;
  MultiLayerNNModel other = model;
  const Eigen::MatrixXf frames = Eigen::MatrixXf::Random(1800, 300);
  std::string whyNot;
  const auto inputs = mlnn::RecordingInputs::forFrames(model, 1800, true, "frames", whyNot).value();
  mlnn::ModelFile quantised = file;
  mlnn::quantizeRows(quantised.model, {});
  measure("suspicions", [&](const Watch& watch) { mlnn::suspicionsOf(file, watch); });
  measure("digest", [&](const Watch& watch) { mlnn::digestOf(file, watch); });
  measure("numbers", [&](const Watch& watch) { mlnn::compareNumbers(model, other, watch); });
  measure("behaviour", [&](const Watch& watch) {
    mlnn::BehaviourDiff(model, other).addRecording("r", frames, inputs, inputs, watch);
  });
  measure("evaluation",
          [&](const Watch& watch) { mlnn::evaluateFrames(model, frames, inputs, watch); });
  measure("sweep", [&](const Watch& watch) {
    mlnn::PrecisionSweep sweep(model);
    sweep.addRecording(frames.leftCols(20), inputs, std::nullopt, watch);
    sweep.measure(8, watch);
  });
  measure("proof", [&](const Watch& watch) {
    mlnn::QuantizationProof proof(model, 1);
    const auto few = frames.leftCols(20);
    proof.addRecording("frames", few, inputs, std::nullopt, whyNot, watch);
    proof.measure({}, few, whyNot, watch);
  });
  MultiLayerNNModel first = model;
  measure("average", [&](const Watch& watch) {
    mlnn::ModelAverage average;
    average.add(std::move(first), 0.5f, watch);
    average.add(std::move(other), 0.5f, watch);
  });
  measure("histogram", [&](const Watch& watch) {
    const Eigen::MatrixXf& weights = model.layers.back()->weights;
    mlnn::histogramOf(weights.data(), static_cast<std::size_t>(weights.size()), 64, watch);
  });
  measure("time", [&](const Watch& watch) { mlnn::timeFrames(model, 0.5, whyNot, watch); });
  measure("file sizes", [&](const Watch& watch) { mlnn::fileSizesOf(model, watch); });
  measure("summary", [&](const Watch& watch) { mlnn::summaryOf(model, watch); });
  measure("budget", [&](const Watch& watch) { mlnn::budgetOf(model, watch); });
  measure("coded size", [&](const Watch& watch) { mlnn::codedSizeOf(model, 8, watch); });
  measure("integer size", [&](const Watch& watch) { mlnn::integerSizeOf(model, watch); });
  // Models of which the weights have whole codes take another way.
  const MultiLayerNNModel& codes = quantised.model;
  measure("q: suspicions", [&](const Watch& watch) { mlnn::suspicionsOf(quantised, watch); });
  measure("q: summary", [&](const Watch& watch) { mlnn::summaryOf(codes, watch); });
  measure("q: budget", [&](const Watch& watch) { mlnn::budgetOf(codes, watch); });
  measure("q: coded size", [&](const Watch& watch) { mlnn::codedSizeOf(codes, 8, watch); });
  measure("q: integer size", [&](const Watch& watch) { mlnn::integerSizeOf(codes, watch); });
  measure("q: file sizes", [&](const Watch& watch) { mlnn::fileSizesOf(codes, watch); });
  measure("q: found", [&](const Watch& watch) { mlnn::findQuantization(model, codes, watch); });
  mlnn::ModelFile reduced = file;
  reduced.model.retainPrecisionBits(8);
  measure("r: suspicions", [&](const Watch& watch) { mlnn::suspicionsOf(reduced, watch); });
  measure("r: summary", [&](const Watch& watch) { mlnn::summaryOf(reduced.model, watch); });
  measure("r: budget", [&](const Watch& watch) { mlnn::budgetOf(reduced.model, watch); });
  measure("r: file sizes", [&](const Watch& watch) { mlnn::fileSizesOf(reduced.model, watch); });
  measure("statements", [&](const Watch&) { mlnn::compareStatements(model, codes); });
  measure("traces", [&](const Watch& watch) {
    const auto values = [](const std::string&) { return Eigen::MatrixXf::Constant(6000, 300, 1); };
    const mlnn::Trace trace{mlnn::stageNames(6), values};
    mlnn::compareTraces(trace, trace, true, watch);
  });
  std::ostringstream out;
  mlnn::writeText(model, 9, out);
  const std::string text = out.str();
  measure("lines", [&](const Watch& watch) { mlnn::suspiciousLines(text, watch); });
  measure("diagnosis", [&](const Watch& watch) { mlnn::diagnose(text, watch); });
  return 0;
}
