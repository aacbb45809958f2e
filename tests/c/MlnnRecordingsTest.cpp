// The analyses of frames for C: each gives what the C++ ones do, and hands all of it over.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "analysis/BehaviourDiff.h"
#include "analysis/PrecisionSweep.h"
#include "analysis/QuantizationProof.h"
#include "analysis/Stage.h"
#include "c/mlnn_analysis.h"
#include "inference/Evaluation.h"
#include "tests/c/OpenedFile.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::MatrixXf;
using mlnn::test::batchNormLayer;
using mlnn::test::expectOutOfMemoryIsTold;
using mlnn::test::modelOf;
using mlnn::test::OpenedFile;
using mlnn::test::plainLayer;
using mlnn::test::someValues;
using mlnn::test::stderrOf;
using Lines = std::vector<std::string>;
using Stages = std::map<std::string, MatrixXf>;

// With a softmax, as every image has it.
MultiLayerNNModel network(uint32_t seed) {
  MultiLayerNNModel model = modelOf({batchNormLayer(6, 5, seed), plainLayer(5, 3, seed + 1)});
  model.deltasNorm.allocIfNeeded();
  model.useSoftmax = true;
  return model;
}

size_t sizeOf(Eigen::Index count) { return static_cast<size_t>(count); }

mlnn_frames framesOf(const MatrixXf& values) {
  const size_t width = sizeOf(values.rows());
  return {values.data(), sizeOf(values.cols()), width, width};
}

mlnn::RecordingInputs inputsOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  return mlnn::RecordingInputs::forFrames(model, model.numInputs(), true, "F", whyNot).value();
}

// Appends the frames to those of the stage.
void addStage(const char* stage, const mlnn_frames* values, void* data) {
  MatrixXf& all = (*static_cast<Stages*>(data))[stage];
  const auto width = static_cast<Eigen::Index>(values->width);
  const auto count = static_cast<Eigen::Index>(values->count);
  ASSERT_EQ(values->stride, values->width);
  all.conservativeResize(width, all.cols() + count);
  all.rightCols(count) = Eigen::Map<const MatrixXf>(values->values, width, count);
}

void addComparison(const char* stage, const mlnn_frames* a, const mlnn_frames* b,
                   const mlnn_difference* difference, void* data) {
  std::ostringstream line;
  line << stage << ": " << (a == nullptr ? 0 : a->count) << "/" << (b == nullptr ? 0 : b->count);
  if (difference != nullptr) {
    line << ", " << difference->differing << " of " << difference->values << ", "
         << difference->largest << " at value " << difference->row << " of frame "
         << difference->column;
  }
  static_cast<Lines*>(data)->push_back(line.str());
}

using Behaviour = std::map<std::string, mlnn_stage_difference>;

void addBehaviour(const char* stage, const mlnn_stage_difference* difference, void* data) {
  (*static_cast<Behaviour*>(data))[stage] = *difference;
}

using Losses = std::vector<mlnn_precision_loss>;

void addLoss(const mlnn_precision_loss* loss, void* data) {
  static_cast<Losses*>(data)->push_back(*loss);
}

int count(size_t steps, void* data) {
  *static_cast<size_t*>(data) += steps;
  return 0;
}
int stop(size_t, void*) { return 1; }

TEST(CRecordings, traceEveryStage) {
  const MultiLayerNNModel model = network(1);
  const OpenedFile opened(model);
  const MatrixXf inputs = someValues(6, 700, 3);
  const mlnn_frames frames = framesOf(inputs);
  Stages found;
  EXPECT_EQ(mlnn_model_trace(opened, &frames, 1, addStage, nullptr, &found), MLNN_OK);
  NNFwdPassFromFile pass(model);
  const mlnn::StageValues wanted = mlnn::evaluateStages(pass, inputs).value();
  const std::vector<std::string> names = mlnn::stageNames(2);
  ASSERT_EQ(found.size(), names.size());
  for (std::size_t i = 0; i < names.size(); ++i) {
    EXPECT_TRUE(mlnn::test::sameBits(found[names[i]], *wanted.inOrder()[i])) << names[i];
  }
}

// So that the values of all stages stay some megabytes.
TEST(CRecordings, traceFewFramesAtOnceWhereTheyHaveManyValues) {
  const MultiLayerNNModel model = modelOf({plainLayer(1, 1 << 21)});
  ASSERT_EQ(mlnn::framesAtOnce(model), 1);
  const OpenedFile opened(model);
  const MatrixXf inputs = someValues(1, 3, 3);
  const mlnn_frames frames = framesOf(inputs);
  std::vector<size_t> counts;
  const auto take = [](const char*, const mlnn_frames* values, void* data) {
    static_cast<std::vector<size_t>*>(data)->push_back(values->count);
  };
  EXPECT_EQ(mlnn_model_trace(opened, &frames, 1, take, nullptr, &counts), MLNN_OK);
  EXPECT_EQ(counts, std::vector<size_t>(3 * mlnn::stageNames(1).size(), 1));
}

TEST(CRecordings, takeFramesThatLieApart) {
  const OpenedFile opened(network(1));
  MatrixXf apart = someValues(9, 20, 3);
  const mlnn_frames frames = {apart.data(), 20, 6, 9};
  Stages found;
  EXPECT_EQ(mlnn_model_trace(opened, &frames, 1, addStage, nullptr, &found), MLNN_OK);
  EXPECT_TRUE(mlnn::test::sameBits(found["inputs"], apart.topRows(6)));
}

TEST(CRecordings, areRefusedWhereTheirFramesDoNotFit) {
  const OpenedFile opened(network(1));
  const MatrixXf values = someValues(4, 2, 3);
  const mlnn_frames frames = framesOf(values);
  Stages found;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_model_trace(opened, &frames, 0, addStage, nullptr, &found), MLNN_ERROR_SIZE);
  });
  EXPECT_EQ(said.rfind("ERROR: mlnn_model_trace: recording 0", 0), 0u) << said;
  EXPECT_TRUE(found.empty());
}

TEST(CRecordings, compareTracesOfTwoEngines) {
  const float three[] = {1, 2, 3, 4, 5, 6};
  const float other[] = {1, 2, 3, 4, 5, 8};
  const mlnn_stage a[] = {{"outputs", {three, 3, 2, 2}},
                          {"layer-1", {three, 3, 2, 2}},
                          {"layer-10", {three, 1, 2, 2}},
                          {"inputs", {three, 1, 6, 6}}};
  const mlnn_stage b[] = {
      {"layer-1", {other, 3, 2, 2}}, {"inputs", {other, 2, 3, 3}}, {"outputs", {three, 2, 2, 4}}};
  Lines found;
  EXPECT_EQ(mlnn_compare_traces(a, 4, b, 3, addComparison, nullptr, &found), MLNN_OK);
  EXPECT_THAT(found,
              testing::ElementsAre("inputs: 1/2", "layer-1: 3/3, 1 of 6, 2 at value 1 of frame 2",
                                   "layer-10: 1/0", "outputs: 3/2"));
  size_t steps = 0;
  const auto ignore = [](const char*, const mlnn_frames*, const mlnn_frames*,
                         const mlnn_difference*, void*) {};
  EXPECT_EQ(mlnn_compare_traces(a, 4, b, 3, ignore, count, &steps), MLNN_OK);
  EXPECT_EQ(steps, 4u);
  EXPECT_EQ(mlnn_compare_traces(nullptr, 0, nullptr, 0, ignore, nullptr, nullptr), MLNN_OK);
}

TEST(CRecordings, haveNoStageTwice) {
  const float one = 1;
  const mlnn_stage twice[] = {{"inputs", {&one, 1, 1, 1}}, {"inputs", {&one, 1, 1, 1}}};
  Lines found;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_compare_traces(twice, 1, twice, 2, addComparison, nullptr, &found),
              MLNN_ERROR_ARGUMENT);
  });
  EXPECT_EQ(said, "ERROR: mlnn_compare_traces: the stage 'inputs' stands twice\n");
  EXPECT_TRUE(found.empty());
}

TEST(CRecordings, compareTheBehaviourOfTwoModels) {
  const MultiLayerNNModel a = network(1);
  MultiLayerNNModel b = a.clone();
  b.layers[1]->bias[2] += 1;
  const MatrixXf first = someValues(6, 10, 7);
  const MatrixXf second = someValues(6, 600, 8);
  const mlnn_frames recordings[] = {framesOf(first), framesOf(second)};
  Behaviour found;
  uint64_t same = 0;
  EXPECT_EQ(mlnn_model_compare_behaviour(OpenedFile(a), OpenedFile(b), recordings, 2, 1,
                                         addBehaviour, nullptr, &found, &same),
            MLNN_OK);
  mlnn::BehaviourDiff wanted(a, b);
  ASSERT_TRUE(wanted.addRecording("0", first, inputsOf(a), inputsOf(b)));
  ASSERT_TRUE(wanted.addRecording("1", second, inputsOf(a), inputsOf(b)));
  EXPECT_EQ(same, wanted.sameDecisions());
  ASSERT_EQ(found.size(), wanted.stages().size());
  for (const mlnn::StageDifference& stage : wanted.stages()) {
    const mlnn_stage_difference& one = found.at(stage.stage);
    const mlnn::FramePlace place = wanted.placeOfLargest(stage);
    EXPECT_EQ(one.values, sizeOf(stage.valuesA));
    EXPECT_EQ(one.other_values, one.values);
    EXPECT_EQ(one.difference.largest, stage.difference.largest()) << stage.stage;
    EXPECT_EQ(one.difference.row, sizeOf(place.unit));
    EXPECT_EQ(one.difference.column, sizeOf(place.frame));
    EXPECT_EQ(one.recording, std::stoul(place.recording));
  }
  EXPECT_EQ(found["layer-1"].difference.differing, 0u);
  EXPECT_EQ(found["layer-2-affine"].difference.row, 2u);
  EXPECT_EQ(found["outputs"].recording, 1u);
}

TEST(CRecordings, compareNothingWithoutFrames) {
  const OpenedFile opened(network(1));
  const mlnn_frames empty = {nullptr, 0, 6, 6};
  Behaviour found;
  uint64_t same = 5;
  for (const size_t recordings : {size_t{0}, size_t{1}}) {
    EXPECT_EQ(mlnn_model_compare_behaviour(opened, opened, &empty, recordings, 1, addBehaviour,
                                           nullptr, &found, &same),
              MLNN_OK);
    EXPECT_EQ(same, 0u);
    EXPECT_EQ(found["outputs"].difference.values, 0u);
    EXPECT_EQ(found["outputs"].recording, 0u);
  }
}

TEST(CRecordings, sweepOverNumbersOfBits) {
  const MultiLayerNNModel model = network(1);
  const OpenedFile opened(model);
  const MatrixXf values = someValues(6, 300, 7);
  NNFwdPassFromFile pass(model);
  const auto decided = static_cast<int32_t>(
      mlnn::recordingClass(mlnn::evaluateFrames(pass, values, inputsOf(model)).value()));
  const mlnn_frames recordings[] = {framesOf(values), framesOf(values), framesOf(values)};
  const int32_t classes[] = {decided, -1, (decided + 1) % 3};
  const int32_t bits[] = {31, 3};
  Losses found;
  uint64_t right = 0;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_model_sweep(opened, recordings, 3, classes, 1, bits, 2, addLoss, nullptr, &found,
                               &right),
              MLNN_OK);
  });
  EXPECT_EQ(said, "");
  EXPECT_EQ(right, 1u);
  mlnn::PrecisionSweep sweep(model);
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(sweep.addRecording(values, inputsOf(model), std::nullopt));
  }
  ASSERT_EQ(found.size(), 2u);
  for (const mlnn_precision_loss& loss : found) {
    const mlnn::PrecisionLoss wanted = sweep.measure(loss.bits);
    EXPECT_EQ(loss.largest_weight_error, wanted.largestWeightError);
    EXPECT_EQ(loss.mean_weight_error, wanted.meanWeightError);
    EXPECT_EQ(loss.largest_output_difference, wanted.largestOutputDifference);
    EXPECT_EQ(loss.same_best_class, wanted.sameBestClass);
  }
  EXPECT_EQ(found[0].bits, 31);
  EXPECT_EQ(found[0].right_recordings, 1u);
  EXPECT_EQ(found[1].bits, 3);
  EXPECT_GT(found[1].largest_weight_error, found[0].largest_weight_error);
}

TEST(CRecordings, sweepOverWeightsAloneWithoutRecordings) {
  const OpenedFile opened(network(1));
  const int32_t bits = 4;
  Losses found;
  uint64_t right = 9;
  EXPECT_EQ(
      mlnn_model_sweep(opened, nullptr, 0, nullptr, 0, &bits, 1, addLoss, nullptr, &found, &right),
      MLNN_OK);
  EXPECT_EQ(right, 0u);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_GT(found[0].largest_weight_error, 0);
  EXPECT_EQ(found[0].largest_output_difference, 0);
}

TEST(CRecordings, haveClassesThatTheModelHas) {
  const OpenedFile opened(network(1));
  const MatrixXf values = someValues(6, 3, 7);
  const mlnn_frames frames = framesOf(values);
  const int32_t bits = 4;
  for (const int32_t wrong : {3, -2, INT32_MAX, INT32_MIN}) {
    Losses found;
    uint64_t right = 9;
    const std::string said = stderrOf([&] {
      EXPECT_EQ(mlnn_model_sweep(opened, &frames, 1, &wrong, 0, &bits, 1, addLoss, nullptr, &found,
                                 &right),
                MLNN_ERROR_ARGUMENT);
    });
    EXPECT_EQ(said, "ERROR: mlnn_model_sweep: there is no output " + std::to_string(wrong) + "\n");
    EXPECT_EQ(right, 9u);
    EXPECT_TRUE(found.empty());
  }
}

// --- Proofs of quantisation ---

constexpr double kNoLimit = std::numeric_limits<double>::infinity();
constexpr mlnn_quantization_options kOptions = {MLNN_ROW_SCALE_LARGEST, kNoLimit, 0.9, {}};

std::string shown(int bits, bool keeps, uint64_t imageBytes, const mlnn::DecisionLoss& floats,
                  const mlnn::DecisionLoss& integers) {
  std::ostringstream line;
  line << bits << (keeps ? " keep, " : " lose, ") << imageBytes << ": " << floats.sameBestClass
       << ", " << floats.rightRecordings << ", " << integers.sameBestClass << ", "
       << integers.rightRecordings;
  return line.str();
}

std::string shown(const char* stage, size_t values, double largest, double mean) {
  std::ostringstream line;
  line << stage << " " << values << " " << std::hexfloat << largest << " " << mean;
  return line.str();
}

void addProof(const mlnn_quantization_loss* loss, void* data) {
  Lines& lines = *static_cast<Lines*>(data);
  const auto sizeOf = [](uint64_t number) { return static_cast<size_t>(number); };
  lines.push_back(
      shown(loss->bits, loss->keeps == 1, loss->image_bytes,
            {sizeOf(loss->same_best_class), sizeOf(loss->right_recordings)},
            {sizeOf(loss->integers_same_best_class), sizeOf(loss->integers_right_recordings)}));
  for (size_t i = 0; i < loss->stage_count; ++i) {
    const mlnn_stage_loss& stage = loss->stages[i];
    lines.push_back(shown(stage.stage, stage.values, stage.largest, stage.mean));
  }
}

// What the library says of the widths 3 and 8, by recordings of which one has a known class.
mlnn::QuantizationFindings provenBy(const MultiLayerNNModel& model, const MatrixXf& values,
                                    const mlnn::RowQuantization& options,
                                    const MatrixXf& corrections) {
  mlnn::QuantizationProof proof(model, 0.9);
  std::string whyNot;
  EXPECT_TRUE(proof.addRecording("a", values, inputsOf(model), 1, whyNot));
  EXPECT_TRUE(proof.addRecording("b", values, inputsOf(model), std::nullopt, whyNot));
  mlnn::RowQuantization quantization = options;
  for (const int bits : {3, 8}) {
    quantization.bits = bits;
    EXPECT_TRUE(proof.measure(quantization, corrections, whyNot));
  }
  return proof.found();
}

void expectProof(const mlnn_quantization_options& given, const mlnn::RowQuantization& options,
                 const MatrixXf& corrections) {
  const MultiLayerNNModel model = network(1);
  const MatrixXf values = someValues(6, 300, 7);
  const mlnn_frames recordings[] = {framesOf(values), framesOf(values)};
  const int32_t classes[] = {1, -1};
  const int32_t bits[] = {3, 8};
  Lines found;
  mlnn_quantization_proof proof = {};
  EXPECT_EQ(mlnn_model_prove_quantization(OpenedFile(model), recordings, 2, classes, 1, &given,
                                          bits, 2, addProof, nullptr, &found, &proof),
            MLNN_OK);
  const mlnn::QuantizationFindings wanted = provenBy(model, values, options, corrections);
  EXPECT_EQ(proof.frames, 600u);
  EXPECT_EQ(proof.right_recordings, wanted.rightRecordings);
  EXPECT_EQ(proof.image_bytes, wanted.imageBytes);
  EXPECT_EQ(proof.smallest_width, wanted.smallestWidth().value_or(0));
  Lines lines;
  for (const mlnn::QuantizationLoss& loss : wanted.losses) {
    lines.push_back(
        shown(loss.bits, wanted.keeps(loss), loss.imageBytes, loss.floats, loss.integers));
    for (const mlnn::StageLoss& stage : loss.stages) {
      lines.push_back(shown(stage.stage.c_str(), stage.values, stage.largest, stage.mean));
    }
  }
  EXPECT_EQ(found, lines);
  EXPECT_EQ(found.size(), 2u * (1 + 5));
}

TEST(CRecordings, proveQuantisation) {
  expectProof(kOptions, {}, MatrixXf());
  mlnn_quantization_options given = kOptions;
  mlnn::RowQuantization options;
  given.scale = MLNN_ROW_SCALE_LEAST_SQUARES;
  options.scale = mlnn::RowScale::kLeastSquares;
  given.largest_error = options.largestError = 0.1;
  const MatrixXf corrections = someValues(6, 50, 8);
  given.corrections = framesOf(corrections);
  expectProof(given, options, corrections);
}

TEST(CRecordings, proveNothingWithoutWidths) {
  mlnn_quantization_proof proof = {9, 9, 9, 9};
  Lines found;
  EXPECT_EQ(mlnn_model_prove_quantization(OpenedFile(network(1)), nullptr, 0, nullptr, 0, &kOptions,
                                          nullptr, 0, addProof, nullptr, &found, &proof),
            MLNN_OK);
  EXPECT_EQ(proof.frames + proof.right_recordings + proof.image_bytes, 0u);
  EXPECT_EQ(proof.smallest_width, 0);
  EXPECT_TRUE(found.empty());
}

void expectNoProof(const MultiLayerNNModel& model, const MatrixXf& values,
                   const std::string& message) {
  const OpenedFile opened(model);
  const mlnn_frames frames = framesOf(values);
  const int32_t bits = 8;
  mlnn_quantization_proof proof = {9, 9, 9, 9};
  Lines found;
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(mlnn_model_prove_quantization(opened, &frames, 1, nullptr, 1, &kOptions,
                                                      &bits, 1, addProof, nullptr, &found, &proof),
                        MLNN_ERROR_MODEL);
            }),
            message);
  EXPECT_EQ(proof.frames, 9u);
  EXPECT_EQ(proof.smallest_width, 9);
  EXPECT_TRUE(found.empty());
}

TEST(CRecordings, proveNothingByWhatIsNotFinite) {
  const MatrixXf values = someValues(6, 3, 7);
  expectNoProof(network(1), values * std::numeric_limits<float>::quiet_NaN(),
                "ERROR: mlnn_model_prove_quantization: recording 0: the outputs are not finite, "
                "which proves nothing\n");
  MultiLayerNNModel model = modelOf({plainLayer(6, 3)});
  model.layers[0]->actFn = ActFn::tanh;
  model.layers[0]->weights(0, 0) = std::numeric_limits<float>::infinity();
  expectNoProof(model, values, "ERROR: quantizeRows: layer 1 has a weight that is not finite\n");
  expectNoProof(modelOf({plainLayer(6, 4), plainLayer(3, 3)}), values,
                "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
}

TEST(CRecordings, tellTheirWatchOfFrames) {
  const OpenedFile opened(network(1));
  const MatrixXf values = someValues(6, 100, 7);
  const mlnn_frames recordings[] = {framesOf(values), framesOf(values)};
  const int32_t bits[] = {4, 5};
  uint64_t number = 0;
  size_t steps = 0;
  const auto ignoreStage = [](const char*, const mlnn_frames*, void*) {};
  const auto ignoreBehaviour = [](const char*, const mlnn_stage_difference*, void*) {};
  const auto ignoreLoss = [](const mlnn_precision_loss*, void*) {};
  EXPECT_EQ(mlnn_model_trace(opened, recordings, 1, ignoreStage, count, &steps), MLNN_OK);
  EXPECT_EQ(steps, 100u);
  EXPECT_EQ(mlnn_model_compare_behaviour(opened, opened, recordings, 2, 1, ignoreBehaviour, count,
                                         &steps, &number),
            MLNN_OK);
  EXPECT_EQ(steps, 300u);
  EXPECT_EQ(number, 200u);
  EXPECT_EQ(mlnn_model_sweep(opened, recordings, 2, nullptr, 1, bits, 2, ignoreLoss, count, &steps,
                             &number),
            MLNN_OK);
  EXPECT_EQ(steps, 900u);
  const auto ignoreProof = [](const mlnn_quantization_loss*, void*) {};
  mlnn_quantization_proof proof;
  EXPECT_EQ(mlnn_model_prove_quantization(opened, recordings, 2, nullptr, 1, &kOptions, bits, 2,
                                          ignoreProof, count, &steps, &proof),
            MLNN_OK);
  EXPECT_EQ(steps, 900u + 200 + 2 * 3 * 200);
}

TEST(CRecordings, areStoppedByTheirWatchWithoutAMessage) {
  const OpenedFile opened(network(1));
  const MatrixXf values = someValues(6, 100, 7);
  const mlnn_frames frames = framesOf(values);
  const mlnn_stage stage = {"inputs", frames};
  const int32_t bits = 4;
  uint64_t number = 5;
  mlnn_quantization_proof proof = {9, 9, 9, 9};
  Stages stages;
  Lines lines;
  Behaviour behaviour;
  Losses losses;
  const std::string said = stderrOf([&] {
    EXPECT_EQ(mlnn_model_trace(opened, &frames, 1, addStage, stop, &stages), MLNN_STOPPED);
    EXPECT_EQ(mlnn_compare_traces(&stage, 1, &stage, 1, addComparison, stop, &lines), MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_compare_behaviour(opened, opened, &frames, 1, 1, addBehaviour, stop,
                                           &behaviour, &number),
              MLNN_STOPPED);
    EXPECT_EQ(
        mlnn_model_sweep(opened, &frames, 1, nullptr, 1, &bits, 1, addLoss, stop, &losses, &number),
        MLNN_STOPPED);
    EXPECT_EQ(mlnn_model_prove_quantization(opened, &frames, 1, nullptr, 1, &kOptions, &bits, 1,
                                            addProof, stop, &lines, &proof),
              MLNN_STOPPED);
  });
  EXPECT_EQ(said, "");
  EXPECT_EQ(proof.frames, 9u);
  EXPECT_TRUE(stages.empty() && lines.empty() && behaviour.empty() && losses.empty());
  EXPECT_EQ(number, 5u);
}

TEST(CRecordings, tellThatMemoryRanOut) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer's heap is not replaced";
  const OpenedFile opened(network(1));
  const MatrixXf values = someValues(6, 40, 7);
  const mlnn_frames frames = framesOf(values);
  const mlnn_stage stage = {"inputs", frames};
  const int32_t bits = 4;
  uint64_t number = 0;
  const auto goOn = [](size_t, void*) { return 0; };
  const auto ignoreStage = [](const char*, const mlnn_frames*, void*) {};
  const auto ignoreComparison = [](const char*, const mlnn_frames*, const mlnn_frames*,
                                   const mlnn_difference*, void*) {};
  const auto ignoreBehaviour = [](const char*, const mlnn_stage_difference*, void*) {};
  const auto ignoreLoss = [](const mlnn_precision_loss*, void*) {};
  const auto ignoreProof = [](const mlnn_quantization_loss*, void*) {};
  mlnn_quantization_proof proof;
  stderrOf([&] {
    expectOutOfMemoryIsTold(
        [&] {
          return mlnn_model_prove_quantization(opened, &frames, 1, nullptr, 1, &kOptions, &bits, 1,
                                               ignoreProof, goOn, nullptr, &proof);
        },
        "proof");
    expectOutOfMemoryIsTold(
        [&] { return mlnn_model_trace(opened, &frames, 1, ignoreStage, goOn, nullptr); }, "trace");
    expectOutOfMemoryIsTold(
        [&] { return mlnn_compare_traces(&stage, 1, &stage, 1, ignoreComparison, goOn, nullptr); },
        "traces");
    expectOutOfMemoryIsTold(
        [&] {
          return mlnn_model_compare_behaviour(opened, opened, &frames, 1, 1, ignoreBehaviour, goOn,
                                              nullptr, &number);
        },
        "behaviour");
    expectOutOfMemoryIsTold(
        [&] {
          return mlnn_model_sweep(opened, &frames, 1, nullptr, 1, &bits, 1, ignoreLoss, goOn,
                                  nullptr, &number);
        },
        "sweep");
  });
}

}  // namespace
