// Analyses a model by what is installed: every function of the interface at least once. Returns 1,
// and says where, at the first thing that is not as it should be.
#include <cstdio>
#include <memory>
#include <sstream>
#include <string>

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
#include "analysis/StatementDiff.h"
#include "analysis/TraceComparison.h"
#include "analysis/WeightForms.h"
#include "analysis/diagnosis/Diagnosis.h"
#include "inference/Evaluation.h"
#include "inference/PreparedFloats.h"
#include "model/FormatFit.h"
#include "model/ModelFile.h"

namespace {

constexpr char kText[] =
    "MultiLayerNNModel_v2\n"
    "softmax 0\n"
    "# NVP labels yes,no\n"
    "num_layers 1\n"
    "layer 1 size 2 3\n"
    "act_fn linear\n"
    "0 1 0.5\n"
    "0 0 0\n";

int failures = 0;

void expect(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "not as it should be: %s\n", what);
  ++failures;
}

void examine(const mlnn::ModelFile& file) {
  expect(mlnn::summaryOf(file.model).parameters == 6, "summary");
  const auto suspicions = mlnn::suspicionsOf(file);
  expect(!suspicions.empty() && mlnn::suspiciousLines(kText).empty(), "suspicions");
  expect(!mlnn::diagnose(kText), "diagnosis of a text that loads");
  const auto misfit = mlnn::diagnose("MultiLayerNNModel_v2\nsoftmax x\n");
  expect(misfit && !mlnn::describe(*misfit).empty(), "diagnosis of one that does not");
  expect(mlnn::compareDigests(mlnn::digestOf(file), mlnn::digestOf(file)).differences.empty(),
         "digest");
  expect(mlnn::budgetOf(file.model).multiplyAdds == 4, "budget");
  expect(mlnn::fileSizesOf(file.model).text.has_value(), "file sizes");
  expect(mlnn::codedSizeOf(file.model, 8).has_value(), "codes");
  expect(mlnn::integerSizeOf(file.model).has_value(), "integers");
  expect(mlnn::preparedBytesOf(file.model) == 0, "prepared floats");
  expect(mlnn::storedWeights(*file.model.layers[0]).bytes == 16, "stored weights");
  expect(mlnn::weightForms(file.model) == "floats in layer 1", "weight forms");
  expect(mlnn::quantizedText(file.model).empty(), "quantised layers");
  const Eigen::MatrixXf& weights = file.model.layers[0]->weights;
  expect(mlnn::histogramOf(weights.data(), 4, 2).counts.size() == 2, "histogram");
}

void compare(MultiLayerNNModel& model, const Eigen::MatrixXf& frames) {
  MultiLayerNNModel other = model;
  other.props = model.props;
  other.layers[0]->bias[0] = 1;
  std::string whyNot;
  const auto inputs = mlnn::RecordingInputs::forFrames(model, 2, true, "frames", whyNot);
  expect(mlnn::compareStatements(model, other).empty(), "statements");
  expect(!mlnn::compareNumbers(model, other)[0].isSame(), "numbers");
  expect(!mlnn::findQuantization(model, other), "quantisation");
  mlnn::BehaviourDiff diff(model, other);
  expect(diff.addRecording("r", frames, *inputs, *inputs) && diff.firstBeyond(0.5) != nullptr,
         "behaviour");
  mlnn::PrecisionSweep sweep(model);
  expect(sweep.addRecording(frames, *inputs, std::nullopt) && sweep.measure(8).bits == 8, "sweep");
  mlnn::QuantizationProof proof(model, 1);
  expect(proof.addRecording("frames", frames, *inputs, std::nullopt, whyNot) &&
             proof.measure({}, frames, whyNot) && proof.found().smallestWidth() == 8,
         "proof");
  const mlnn::Trace trace{{"inputs"}, [&frames](const std::string&) { return frames; }};
  expect(!mlnn::compareTraces(trace, trace, false)[0].isBeyond(0), "traces");
  mlnn::ModelAverage average;
  average.add(model, 0.5f);
  expect(mlnn::whyNoMean(model, other).empty(), "shapes");
  average.add(other, 0.5f);
  expect(average.take().layers[0]->bias[0] == 0.5f, "mean");
}

void fit(MultiLayerNNModel model) {
  std::string whyNot;
  const auto fit = mlnn::fitToFormat(model, mlnn::ModelFormat::kBinary, 9, whyNot);
  expect(fit && !fit->lost.empty(), "what an image cannot hold");
}

}  // namespace

int main() {
  mlnn::ModelFile file;
  if (mlnn::openModel(kText, sizeof kText - 1, file) != 0) return 1;
  examine(file);
  compare(file.model, Eigen::MatrixXf::Ones(2, 5));
  fit(file.model);
  struct Stopped {};
  try {
    std::string whyNot;
    mlnn::timeFrames(file.model, 0.01, whyNot, [](std::size_t) { throw Stopped(); });
    expect(false, "what the watch throws passes through");
  } catch (const Stopped&) {
  }
  return failures == 0 ? 0 : 1;
}
