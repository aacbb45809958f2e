// Folding of batch-norm layers into plain ones.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>
#include <sstream>

#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::batchNormLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameLayer;
using mlnn::test::sameLayers;
using mlnn::test::sameModel;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

std::string warningFor(int index) {
  return "Warning: request to translate batch norm network but layer is not batch norm: index=" +
         std::to_string(index) + "\n";
}

std::string errorFor(int index) {
  return "ERROR: gamma_inf is zero in layer with index " + std::to_string(index) +
         ".  Can't convert because all weights will become zero.\n"
         "       Call batch_norm_post_process before attempting to convert a batch norm network\n";
}

// Folds the model and expects this result and these messages.
void expectFold(MultiLayerNNModel& model, int result, const std::string& messages) {
  int actual = -1;
  EXPECT_EQ(stderrOf([&] { actual = model.convBatchNorm(); }), messages);
  EXPECT_EQ(actual, result);
}

// The layer folded value by value.
NNLayer foldedByHand(NNLayer layer) {
  for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) {
    for (Eigen::Index c = 0; c < layer.weights.cols(); ++c) {
      layer.weights(r, c) = layer.gamma_inf[r] * layer.weights(r, c);
    }
  }
  layer.bias = layer.beta_inf;
  layer.isBatchNorm = false;
  return layer;
}

NNLayer batchNormLayerWith(std::vector<float> gammaInf, int inputs = 3) {
  NNLayer layer = batchNormLayer(inputs, static_cast<int>(gammaInf.size()));
  layer.gamma_inf = Eigen::Map<Eigen::VectorXf>(gammaInf.data(), layer.gamma_inf.size());
  return layer;
}

TEST(MultiLayerNNModelFold, scalesRowsAndTakesTheShiftAsBias) {
  const NNLayer layers[] = {batchNormLayer(4, 3, 1), batchNormLayer(3, 5, 2),
                            batchNormLayer(5, 2, 3)};
  MultiLayerNNModel model = modelOf({layers[0], layers[1], layers[2]});
  expectFold(model, 0, "");
  // The four vectors and the activation stay: foldedByHand leaves them alone.
  EXPECT_TRUE(sameLayers(
      model, modelOf({foldedByHand(layers[0]), foldedByHand(layers[1]), foldedByHand(layers[2])})));
}

TEST(MultiLayerNNModelFold, plainLayerIsSkippedWithAWarning) {
  const NNLayer layers[] = {batchNormLayer(4, 3, 1), plainLayer(3, 5, 2), batchNormLayer(5, 2, 3)};
  MultiLayerNNModel model = modelOf({layers[0], layers[1], layers[2]});
  expectFold(model, 0, warningFor(1));
  EXPECT_TRUE(
      sameLayers(model, modelOf({foldedByHand(layers[0]), layers[1], foldedByHand(layers[2])})));
}

TEST(MultiLayerNNModelFold, changesNothingButTheLayers) {
  MultiLayerNNModel model = fullModel();
  expectFold(model, 0, warningFor(0) + warningFor(2));
  MultiLayerNNModel expected = fullModel();
  *expected.layers[1] = foldedByHand(*expected.layers[1]);
  EXPECT_TRUE(sameModel(model, expected));
}

TEST(MultiLayerNNModelFold, modelWithoutLayersIsDone) {
  MultiLayerNNModel model;
  expectFold(model, 0, "");
  EXPECT_TRUE(sameModel(model, MultiLayerNNModel()));
}

TEST(MultiLayerNNModelFold, secondCallWarnsForEveryLayerAndChangesNothing) {
  MultiLayerNNModel model = modelOf({batchNormLayer(4, 3, 1), batchNormLayer(3, 2, 2)});
  expectFold(model, 0, "");
  const MultiLayerNNModel folded(model);
  expectFold(model, 0, warningFor(0) + warningFor(1));
  EXPECT_TRUE(sameLayers(model, folded));
}

TEST(MultiLayerNNModelFold, zeroScaleStopsAtThatLayer) {
  const NNLayer layers[] = {batchNormLayer(4, 3, 1), batchNormLayer(3, 3, 2),
                            batchNormLayerWith({0, 0, 0}), batchNormLayer(3, 2, 4)};
  MultiLayerNNModel model = modelOf({layers[0], layers[1], layers[2], layers[3]});
  expectFold(model, 1, errorFor(2));
  EXPECT_TRUE(sameLayers(
      model, modelOf({foldedByHand(layers[0]), foldedByHand(layers[1]), layers[2], layers[3]})));
}

TEST(MultiLayerNNModelFold, warningsBeforeTheErrorAreGiven) {
  MultiLayerNNModel model = modelOf({plainLayer(3, 3), batchNormLayerWith({0, 0, 0})});
  expectFold(model, 1, warningFor(0) + errorFor(1));
}

TEST(MultiLayerNNModelFold, scalesThatSumToZeroAreRefused) {
  const std::vector<float> refused[] = {
      {0, 0, 0}, {2, -2}, {1, -1}, {-0.0f}, {-0.0f, -0.0f}, {0.25f, 0.5f, -0.75f}, {}};
  for (const std::vector<float>& gammaInf : refused) {
    const NNLayer layer = batchNormLayerWith(gammaInf);
    MultiLayerNNModel model = modelOf({layer});
    expectFold(model, 1, errorFor(0));
    EXPECT_TRUE(sameLayer(*model.layers[0], layer));
  }
}

TEST(MultiLayerNNModelFold, missingScaleIsRefusedBeforeAnyChange) {
  NNLayer layer = batchNormLayer(3, 2);
  layer.gamma_inf.resize(0);
  MultiLayerNNModel model = modelOf({layer});
  expectFold(model, 1, errorFor(0));
  EXPECT_TRUE(sameLayer(*model.layers[0], layer));
}

TEST(MultiLayerNNModelFold, neverFilledInferenceValuesAreRefused) {
  MultiLayerNNModel model;
  ASSERT_EQ(model.createFirstLayer(4, 3, 1.0f, true), 0);
  expectFold(model, 1, errorFor(0));
}

TEST(MultiLayerNNModelFold, otherSumsAreFolded) {
  const std::vector<float> accepted[] = {{0, 1},        {-1, 0.5f},  {1e-45f},
                                         {kNan, 1},     {kInfinity}, {kInfinity, -kInfinity},
                                         {3e38f, 3e38f}};
  for (const std::vector<float>& gammaInf : accepted) {
    const NNLayer layer = batchNormLayerWith(gammaInf);
    MultiLayerNNModel model = modelOf({layer});
    expectFold(model, 0, "");
    const NNLayer expected = foldedByHand(layer);
    for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) {
      if (std::isnan(gammaInf[std::size_t(r)])) {
        EXPECT_TRUE(model.layers[0]->weights.row(r).array().isNaN().all());
      } else {
        EXPECT_TRUE(sameBits(model.layers[0]->weights.row(r), expected.weights.row(r)));
      }
    }
    EXPECT_TRUE(sameBits(model.layers[0]->bias, layer.beta_inf));
    EXPECT_FALSE(model.layers[0]->isBatchNorm);
  }
}

TEST(MultiLayerNNModelFold, scaleOfZeroClearsItsRow) {
  MultiLayerNNModel model = modelOf({batchNormLayerWith({0, 1})});
  expectFold(model, 0, "");
  EXPECT_TRUE((model.layers[0]->weights.row(0).array() == 0).all());
  EXPECT_TRUE((model.layers[0]->weights.row(1).array() != 0).all());
}

TEST(MultiLayerNNModelFold, missingShiftGivesAnEmptyBias) {
  NNLayer layer = batchNormLayer(3, 2);
  layer.beta_inf.resize(0);
  MultiLayerNNModel model = modelOf({layer});
  expectFold(model, 0, "");
  EXPECT_EQ(model.layers[0]->bias.size(), 0);
  EXPECT_EQ(model.layers[0]->beta_inf.size(), 0);
}

TEST(MultiLayerNNModelFold, scaleOfAnotherLengthDecidesTheNumberOfRows) {
  for (const Eigen::Index length : {1, 2, 4, 9}) {
    NNLayer layer = batchNormLayer(3, 3);
    layer.gamma_inf = Eigen::VectorXf::Constant(length, 2);
    MultiLayerNNModel model = modelOf({layer});
    expectFold(model, 0, "");
    Eigen::MatrixXf expected = Eigen::MatrixXf::Zero(length, 3);
    const Eigen::Index kept = std::min<Eigen::Index>(length, 3);
    expected.topRows(kept) = 2 * layer.weights.topRows(kept);
    EXPECT_TRUE(sameBits(model.layers[0]->weights, expected)) << length;
    EXPECT_TRUE(sameBits(model.layers[0]->bias, layer.beta_inf));
    EXPECT_FALSE(model.layers[0]->isBatchNorm);
  }
}

TEST(MultiLayerNNModelFold, missingLayerCountsAsPlain) {
  MultiLayerNNModel model = modelOf({batchNormLayer(3, 3, 1), NNLayer(), batchNormLayer(3, 2, 2)});
  delete std::exchange(model.layers[1], nullptr);
  expectFold(model, 0, warningFor(1));
  EXPECT_EQ(model.layers[1], nullptr);
  EXPECT_TRUE(sameLayer(*model.layers[2], foldedByHand(batchNormLayer(3, 2, 2))));
}

TEST(MultiLayerNNModelFold, allocatesNothingForAWellFormedLayer) {
  MultiLayerNNModel model = modelOf({batchNormLayer(3, 2)});
  const mlnn::test::AllocationWatch watch;
  EXPECT_EQ(model.convBatchNorm(), 0);
  EXPECT_EQ(watch.allocations(), 0u);
}

TEST(MultiLayerNNModelFold, allocatesNoMoreThanABiasOfAnotherLength) {
  NNLayer layer = batchNormLayer(300, 20);
  layer.bias.resize(0);
  MultiLayerNNModel model = modelOf({layer});
  const mlnn::test::AllocationWatch watch;
  EXPECT_EQ(model.convBatchNorm(), 0);
  EXPECT_EQ(watch.allocations(), 1u);
  EXPECT_LE(watch.largest(), 20 * sizeof(float) + 64);
}

TEST(MultiLayerNNModelFold, outOfMemoryPassesThroughAndLeavesAWholeModel) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  NNLayer odd = batchNormLayer(3, 3, 2);  // both arrays must grow
  odd.gamma_inf = someValues(5, 1, 9);
  odd.bias.resize(0);
  for (const std::size_t successes : {0u, 1u}) {
    MultiLayerNNModel model = modelOf({batchNormLayer(4, 3, 1), odd});
    bool threw = false;
    {
      const mlnn::test::FailingAllocation failure(successes);
      try {
        model.convBatchNorm();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
    }
    EXPECT_TRUE(threw);
    EXPECT_TRUE(sameLayer(*model.layers[0], foldedByHand(batchNormLayer(4, 3, 1))));
    EXPECT_TRUE(model.layers[1]->isBatchNorm);
    EXPECT_EQ(MultiLayerNNModel(model).layers.size(), 2u);  // it can be copied and destroyed
  }
}

// The folded network computes what the batch-norm network did, up to rounding.
TEST(MultiLayerNNModelFold, computesTheSame) {
  MultiLayerNNModel model = modelOf({batchNormLayer(4, 30, 1), batchNormLayer(30, 2, 2)});
  model.setActFn(ActFn::tanh);
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  const Eigen::MatrixXf inputs = someValues(4, 50, 3);
  Eigen::MatrixXf before;
  Eigen::MatrixXf after;
  ASSERT_EQ(pass->evaluate(inputs, before), 0);
  expectFold(model, 0, "");
  ASSERT_EQ(pass->evaluate(inputs, after), 0);
  EXPECT_LT((after - before).cwiseAbs().maxCoeff(), 2e-6f);
  EXPECT_GT(before.row(0).maxCoeff() - before.row(0).minCoeff(), 0.1f);
}

TEST(MultiLayerNNModelFold, foldedLayerIsWrittenAsAPlainOne) {
  NNLayer layer(1, 1, true);
  layer.weights << 3;
  layer.gamma_inf << 2;
  layer.beta_inf << 0.5f;
  layer.actFn = ActFn::relu;
  MultiLayerNNModel model = modelOf({layer});
  expectFold(model, 0, "");
  std::ostringstream text;
  EXPECT_EQ(model.serializeAscii(text), 0);
  EXPECT_EQ(text.str(),
            "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 1\nlayer 1 size 1 2\nact_fn relu\n"
            "0.5\t6\n");
  EXPECT_EQ(model.debug_description(), "inputs 1 x 1 output classes");
}

}  // namespace
