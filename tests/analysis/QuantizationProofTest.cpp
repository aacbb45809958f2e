#include <gtest/gtest.h>

#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "analysis/QuantizationProof.h"
#include "inference/BiasCorrection.h"
#include "inference/RecordingInputs.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::QuantizationFindings;
using mlnn::QuantizationLoss;
using mlnn::QuantizationProof;
using mlnn::RecordingInputs;
using mlnn::RowQuantization;
using mlnn::StageLoss;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::stderrOf;

const Eigen::MatrixXf kNoCorrections(2, 0);

// Two inputs and two classes: 7 x + y + 0.5 against 5 x + 2.4 y. With 2 bits the first class is
// 7 x + 0.5, and the second 5 x; with 3 bits y counts 0 and 5/3, with 4 bits 1 and 15/7.
MultiLayerNNModel smallModel() {
  NNLayer layer = plainLayer(2, 2);
  layer.weights << 7.0f, 1.0f, 5.0f, 2.4f;
  layer.bias << 0.5f, 0.0f;
  layer.actFn = ActFn::linear;
  MultiLayerNNModel model = modelOf({layer});
  model.useSoftmax = false;
  return model;
}

Eigen::MatrixXf matrix(Eigen::Index rows, const std::vector<float>& values) {
  return Eigen::Map<const Eigen::MatrixXf>(values.data(), rows,
                                           static_cast<Eigen::Index>(values.size()) / rows);
}

RecordingInputs inputsOf(const MultiLayerNNModel& model) {
  std::string whyNot;
  return RecordingInputs::forFrames(model, model.numInputs(), true, "F", whyNot).value();
}

// Takes in x, of the first class, and three frames of y that the model takes for the second.
void addRecordings(const MultiLayerNNModel& model, QuantizationProof& proof) {
  std::string whyNot;
  ASSERT_TRUE(proof.addRecording("x", matrix(2, {1, 0}), inputsOf(model), 0, whyNot));
  ASSERT_TRUE(proof.addRecording("y", matrix(2, {0, 1, 0, 2, 0, 4}), inputsOf(model), 1, whyNot));
  EXPECT_EQ(whyNot, "");
}

RowQuantization withBits(int bits) {
  RowQuantization options;
  options.bits = bits;
  return options;
}

TEST(QuantizationProof, runsTheModelAsItIs) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 0.75);
  EXPECT_EQ(proof.found().rightRecordings, std::nullopt);
  addRecordings(model, proof);
  const QuantizationFindings& found = proof.found();
  EXPECT_EQ(found.recordings, 2u);
  EXPECT_EQ(found.knownRecordings, 2u);
  EXPECT_EQ(found.frames, 4u);
  EXPECT_EQ(found.keep, 0.75);
  EXPECT_EQ(found.rightRecordings, 2u);
  EXPECT_TRUE(found.losses.empty());
  EXPECT_EQ(found.smallestWidth(), std::nullopt);
}

// With 2 bits only frame x is decided as before: y is lost, and 0.5 beats 0.
TEST(QuantizationProof, comparesStagesAndDecisions) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 0.75);
  addRecordings(model, proof);
  std::string whyNot;
  ASSERT_TRUE(proof.measure(withBits(2), kNoCorrections, whyNot));
  EXPECT_EQ(whyNot, "");
  ASSERT_EQ(proof.found().losses.size(), 1u);
  const QuantizationLoss& loss = proof.found().losses[0];
  EXPECT_EQ(loss.bits, 2);
  ASSERT_EQ(loss.stages.size(), 3u);
  const std::vector<std::string> names = {"layer-1-affine", "layer-1", "outputs"};
  for (std::size_t i = 0; i < 3; ++i) {
    const StageLoss& stage = loss.stages[i];
    EXPECT_EQ(stage.stage, names[i]);
    EXPECT_EQ(stage.values, 2u);
    EXPECT_FLOAT_EQ(static_cast<float>(stage.largest), 9.6f);          // 4 * 2.4
    EXPECT_FLOAT_EQ(static_cast<float>(stage.mean), 7 * 3.4f / 8.0f);  // of 4 frames
  }
  EXPECT_EQ(loss.floats.sameBestClass, 1u);
  EXPECT_EQ(loss.floats.rightRecordings, 1u);
  EXPECT_EQ(loss.integers.sameBestClass, 1u);
  EXPECT_EQ(loss.integers.rightRecordings, 1u);
  EXPECT_FALSE(proof.found().keeps(loss));
  EXPECT_EQ(proof.found().sameBestClassShare(loss.floats), 0.25);
  EXPECT_EQ(proof.found().accuracy(loss.floats.rightRecordings), 0.5);
}

TEST(QuantizationProof, statesTheSizesOfImages) {
  MultiLayerNNModel model = modelOf({plainLayer(40, 30)});
  QuantizationProof proof(model, 1);
  std::string whyNot;
  ASSERT_TRUE(proof.measure(withBits(4), Eigen::MatrixXf(40, 0), whyNot));
  MultiLayerNNModel changed(model);
  ASSERT_EQ(mlnn::quantizeRows(changed, withBits(4)), 0);
  model.deltasNorm.allocIfNeeded();
  changed.deltasNorm.allocIfNeeded();
  EXPECT_EQ(proof.found().imageBytes, static_cast<uint64_t>(model.binarySerializedLength()));
  EXPECT_EQ(proof.found().losses[0].imageBytes,
            static_cast<uint64_t>(changed.binarySerializedLength()));
  EXPECT_LT(proof.found().losses[0].imageBytes, proof.found().imageBytes);
}

// In whichever order widths were measured.
TEST(QuantizationProof, recommendsTheSmallestWidthThatKeepsEnough) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  std::string whyNot;
  for (const int bits : {8, 2, 3, 4}) {
    ASSERT_TRUE(proof.measure(withBits(bits), kNoCorrections, whyNot));
  }
  EXPECT_EQ(proof.found().smallestWidth(), 3);
}

TEST(QuantizationProof, measuresModelsThatOthersQuantised) {
  const MultiLayerNNModel model = smallModel();
  MultiLayerNNModel changed(model);
  ASSERT_EQ(mlnn::quantizeRows(changed, withBits(2)), 0);
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  std::string whyNot;
  ASSERT_TRUE(proof.measure(5, changed, whyNot));
  ASSERT_TRUE(proof.measure(6, model, whyNot));
  const std::vector<QuantizationLoss>& losses = proof.found().losses;
  EXPECT_EQ(losses[0].bits, 5);
  EXPECT_EQ(losses[0].floats.sameBestClass, 1u);
  EXPECT_EQ(losses[1].floats.sameBestClass, 4u);
  EXPECT_EQ(losses[1].stages.back().largest, 0);
}

// Over y the first class loses 7/3 on the mean, and the second 5.6: what is left decides y.
TEST(QuantizationProof, correctsBiases) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  const Eigen::MatrixXf corrections = matrix(2, {0, 1, 0, 2, 0, 4});
  std::string whyNot;
  ASSERT_TRUE(proof.measure(withBits(2), corrections, whyNot));
  MultiLayerNNModel changed(model);
  ASSERT_EQ(mlnn::quantizeRows(changed, withBits(2)), 0);
  ASSERT_EQ(mlnn::correctBiases(model, changed, corrections), 0);
  ASSERT_TRUE(proof.measure(2, changed, whyNot));
  const std::vector<QuantizationLoss>& losses = proof.found().losses;
  EXPECT_EQ(losses[0].floats.rightRecordings, 1u);
  EXPECT_EQ(losses[0].floats.sameBestClass, 3u);
  EXPECT_EQ(losses[0].stages[0].mean, losses[1].stages[0].mean);
}

// --- What is kept ---

QuantizationLoss lossOf(int bits, std::size_t floats, std::size_t integers, std::size_t right) {
  QuantizationLoss loss;
  loss.bits = bits;
  loss.floats = {floats, right};
  loss.integers = {integers, right};
  return loss;
}

// By floats, by integers, and of the recordings that were right.
TEST(QuantizationFindings, keepsWhatBothPassesKeep) {
  QuantizationFindings found;
  found.recordings = 4;
  found.knownRecordings = 4;
  found.frames = 100;
  found.keep = 0.9;
  found.rightRecordings = 4;
  found.losses = {lossOf(2, 90, 89, 4), lossOf(4, 95, 90, 4), lossOf(8, 100, 100, 3)};
  EXPECT_FALSE(found.keeps(found.losses[0]));
  EXPECT_TRUE(found.keeps(found.losses[1]));
  EXPECT_FALSE(found.keeps(found.losses[2]));
  EXPECT_EQ(found.smallestWidth(), 4);
  QuantizationFindings strict = found;
  strict.keep = 1;
  EXPECT_EQ(strict.smallestWidth(), std::nullopt);
  strict.rightRecordings.reset();
  EXPECT_EQ(strict.smallestWidth(), 8);
  strict.rightRecordings = 0;  // of none, all are kept
  EXPECT_EQ(strict.smallestWidth(), 8);
}

TEST(QuantizationFindings, allOfNothingIsKept) {
  const QuantizationFindings found;
  EXPECT_EQ(found.sameBestClassShare({}), 1);
  EXPECT_EQ(found.accuracy(0), 1);
}

TEST(QuantizationProof, recordingsOfUnknownClassAreNotRightOrWrong) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  std::string whyNot;
  const Eigen::MatrixXf x = matrix(2, {1, 0});
  ASSERT_TRUE(proof.addRecording("x", x, inputsOf(model), std::nullopt, whyNot));
  EXPECT_EQ(proof.found().rightRecordings, std::nullopt);
  ASSERT_TRUE(proof.addRecording("x", x, inputsOf(model), 1, whyNot));
  EXPECT_EQ(proof.found().rightRecordings, 0u);
  ASSERT_TRUE(proof.addRecording("x", x, inputsOf(model), 0, whyNot));
  ASSERT_TRUE(proof.measure(withBits(8), kNoCorrections, whyNot));
  EXPECT_EQ(proof.found().recordings, 3u);
  EXPECT_EQ(proof.found().knownRecordings, 2u);
  EXPECT_EQ(proof.found().rightRecordings, 1u);
  EXPECT_EQ(proof.found().losses[0].floats.rightRecordings, 1u);
}

// --- Refusals ---

void expectUntouched(const QuantizationProof& proof) {
  EXPECT_EQ(proof.found().recordings, 2u);
  EXPECT_EQ(proof.found().knownRecordings, 2u);
  EXPECT_EQ(proof.found().frames, 4u);
  EXPECT_EQ(proof.found().rightRecordings, 2u);
  EXPECT_TRUE(proof.found().losses.empty());
}

TEST(QuantizationProof, refusesOutputsThatAreNotFinite) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  for (const float value :
       {std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(), 3e38f}) {
    std::string whyNot;
    EXPECT_FALSE(proof.addRecording("r", matrix(2, {0, 1, value, 0}), inputsOf(model), 1, whyNot));
    EXPECT_EQ(whyNot, "r: the outputs are not finite, which proves nothing");
    expectUntouched(proof);
  }
}

TEST(QuantizationProof, takesNothingInWhereTheModelCannotBeRun) {
  const MultiLayerNNModel model = modelOf({plainLayer(2, 4), plainLayer(3, 3)});
  QuantizationProof proof(model, 1);
  std::string whyNot;
  EXPECT_EQ(stderrOf([&] {
              EXPECT_FALSE(proof.addRecording("x", matrix(2, {1, 0}), inputsOf(model), 0, whyNot));
            }),
            "ERROR: NNFwdPassFromFile::evaluate: layer 2 does not fit the model\n");
  EXPECT_EQ(whyNot, "the model cannot be run");
  EXPECT_EQ(proof.found().recordings, 0u);
  EXPECT_EQ(proof.found().rightRecordings, std::nullopt);
}

TEST(QuantizationProof, refusesModelsThatCannotBeQuantised) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  const auto refused = [&](const RowQuantization& options, const Eigen::MatrixXf& corrections,
                           const std::string& message) {
    std::string whyNot;
    EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(proof.measure(options, corrections, whyNot)); }),
              message);
    EXPECT_EQ(whyNot, "the model cannot be quantised");
    expectUntouched(proof);
  };
  refused(withBits(9), kNoCorrections, "ERROR: quantizeRows: bits must be 2 to 8, got 9\n");
  refused(withBits(8), Eigen::MatrixXf::Zero(3, 1),
          "ERROR: NNFwdPassFromFile::evaluate: expected 2 inputs but got 3\n");
}

TEST(QuantizationProof, refusesQuantisedModelsThatCannotBeRun) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  const MultiLayerNNModel broken = modelOf({plainLayer(2, 4), plainLayer(3, 2)});
  std::string whyNot;
  EXPECT_NE(stderrOf([&] { EXPECT_FALSE(proof.measure(8, broken, whyNot)); }), "");
  EXPECT_EQ(whyNot, "the model cannot be run");
  expectUntouched(proof);
}

// --- Watches ---

struct Stopped {};

TEST(QuantizationProof, tellsOfFramesAndIsStopped) {
  const MultiLayerNNModel model = smallModel();
  QuantizationProof proof(model, 1);
  addRecordings(model, proof);
  std::size_t steps = 0;
  int calls = 0;
  std::string whyNot;
  {
    QuantizationProof other(model, 1);
    ASSERT_TRUE(other.addRecording("y", matrix(2, {0, 1, 0, 2, 0, 4}), inputsOf(model), 1, whyNot,
                                   [&](std::size_t further) { steps += further; }));
    EXPECT_EQ(steps, 3u);
    steps = 0;
    ASSERT_TRUE(other.measure(withBits(8), matrix(2, {0, 1}), whyNot, [&](std::size_t further) {
      steps += further;
      ++calls;
    }));
    EXPECT_EQ(steps, 3 * QuantizationProof::kStepsOfFrame);
  }
  EXPECT_THROW(proof.addRecording("x", matrix(2, {1, 0}), inputsOf(model), 0, whyNot,
                                  [](std::size_t) { throw Stopped(); }),
               Stopped);
  expectUntouched(proof);
  for (int last = 1; last <= calls; ++last) {
    int left = last;
    EXPECT_THROW(proof.measure(withBits(8), matrix(2, {0, 1}), whyNot,
                               [&left](std::size_t) {
                                 if (--left == 0) throw Stopped();
                               }),
                 Stopped);
    expectUntouched(proof);
  }
  EXPECT_TRUE(proof.measure(withBits(8), kNoCorrections, whyNot));
}

}  // namespace
