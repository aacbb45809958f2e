#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <limits>
#include <memory>
#include <sstream>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/ReferencePass.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using Eigen::VectorXf;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::referencePass;
using mlnn::test::sameBits;
using mlnn::test::sameModel;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

const std::string kPrefix = "ERROR: NNFwdPassFromFile::evaluate: ";

// The model's outputs for these inputs, which must be accepted in silence.
MatrixXf evaluated(MultiLayerNNModel& model, const MatrixXf& inputs) {
  NNFwdPassFromFile pass(model);
  MatrixXf outputs;
  int result = -1;
  EXPECT_EQ(stderrOf([&] { result = pass.evaluate(inputs, outputs); }), "");
  EXPECT_EQ(result, 0);
  return outputs;
}

// A network of all three kinds of layers with the given widths.
MultiLayerNNModel network(const std::vector<int>& widths, ActFn::ActFn fn, bool softmax) {
  std::vector<NNLayer> layers;
  for (std::size_t i = 1; i < widths.size(); ++i) {
    const auto make = std::array{plainLayer, batchNormLayer, foldedLayer}[i % 3];
    layers.push_back(make(widths[i - 1], widths[i], static_cast<uint32_t>(i)));
  }
  MultiLayerNNModel model = modelOf(layers);
  model.useSoftmax = softmax;
  model.setActFn(fn);
  return model;
}

// --- Values ---

TEST(NNFwdPassValues, agreeWithANaiveDoublePrecisionReference) {
  const std::vector<int> shapes[] = {
      {1, 1}, {4, 3}, {3, 5, 2}, {7, 1, 7, 1}, {17, 33, 9, 4}, {120, 64, 64, 10}, {2, 300, 2}};
  for (const std::vector<int>& widths : shapes) {
    for (int32_t code = 0; code < ActFn::kCount; ++code) {
      for (const bool softmax : {false, true}) {
        MultiLayerNNModel model = network(widths, static_cast<ActFn::ActFn>(code), softmax);
        const MatrixXf inputs = someValues(widths.front(), 9, 77);
        const Eigen::MatrixXd expected = referencePass(model, inputs);
        const double largest = std::max(1.0, expected.cwiseAbs().maxCoeff());
        EXPECT_LT((evaluated(model, inputs).cast<double>() - expected).cwiseAbs().maxCoeff(),
                  1e-5 * largest)
            << model.debug_description() << " " << ActFn::actFnToString(model.layers[0]->actFn);
      }
    }
  }
}

// Small whole numbers, for which every step is exact.
TEST(NNFwdPassValues, plainLayerAddsTheBiasToTheWeightedInputs) {
  MultiLayerNNModel model = modelOf({NNLayer(3, 2, false)});
  model.useSoftmax = false;
  model.layers[0]->weights << 1, 2, 3, -4, -5, -6;
  model.layers[0]->bias << 10, 20;
  MatrixXf inputs(3, 2);
  inputs << 1, 0,  //
      1, 2,        //
      1, -1;
  MatrixXf expected(2, 2);
  expected << 16, 11,  //
      5, 16;
  EXPECT_TRUE(sameBits(evaluated(model, inputs), expected));
  model.layers[0]->actFn = ActFn::relu;
  model.layers[0]->bias << 10, -20;
  expected << 16, 11,  //
      0, 0;
  EXPECT_TRUE(sameBits(evaluated(model, inputs), expected));
}

TEST(NNFwdPassValues, batchNormLayerUsesTheInferenceValuesAlone) {
  MultiLayerNNModel model = modelOf({batchNormLayer(3, 2)});
  model.useSoftmax = false;
  NNLayer& layer = *model.layers[0];
  layer.actFn = ActFn::linear;
  layer.weights << 1, 2, 3, -4, -5, -6;
  layer.gamma_inf << 2, -1;
  layer.beta_inf << 100, 0.5f;
  const MatrixXf inputs = MatrixXf::Ones(3, 1);
  MatrixXf expected(2, 1);
  expected << 112, 15.5f;
  EXPECT_TRUE(sameBits(evaluated(model, inputs), expected));
  layer.bias.setConstant(1000);
  layer.gamma.setConstant(1000);
  layer.beta.setConstant(1000);
  EXPECT_TRUE(sameBits(evaluated(model, inputs), expected));
  layer.bias.resize(0);
  EXPECT_TRUE(sameBits(evaluated(model, inputs), expected));
}

TEST(NNFwdPassValues, foldedLayerUsesWeightsAndBiasAlone) {
  MultiLayerNNModel folded = modelOf({foldedLayer(3, 2)});
  MultiLayerNNModel plain = modelOf({plainLayer(3, 2)});
  const MatrixXf inputs = someValues(3, 5, 1);
  EXPECT_TRUE(sameBits(evaluated(folded, inputs), evaluated(plain, inputs)));
}

TEST(NNFwdPassValues, softmaxComesAfterTheLastLayersActivation) {
  MultiLayerNNModel model = modelOf({NNLayer(1, 2, false)});
  model.layers[0]->weights << 1, -1;
  model.layers[0]->actFn = ActFn::relu;
  model.useSoftmax = true;
  const MatrixXf outputs = evaluated(model, MatrixXf::Constant(1, 1, 3));
  const double expected = 1 / (1 + std::exp(-3.0));  // softmax of (3, 0)
  EXPECT_NEAR(outputs(0, 0), expected, 1e-6);
  EXPECT_NEAR(outputs(1, 0), 1 - expected, 1e-6);
}

TEST(NNFwdPassValues, softmaxIsTakenForEachFrameByItself) {
  MultiLayerNNModel model = network({4, 6, 5}, ActFn::tanh, true);
  const MatrixXf outputs = evaluated(model, 10 * someValues(4, 20, 2));
  for (Index t = 0; t < outputs.cols(); ++t) EXPECT_NEAR(outputs.col(t).sum(), 1, 1e-6);
  EXPECT_TRUE((outputs.array() > 0).all());
}

TEST(NNFwdPassValues, softmaxDoesNotOverflow) {
  MultiLayerNNModel model = modelOf({NNLayer(1, 3, false)});
  model.layers[0]->bias << 1e30f, 1e30f, -1e30f;
  MatrixXf expected(3, 1);
  expected << 0.5f, 0.5f, 0;
  EXPECT_TRUE(sameBits(evaluated(model, MatrixXf::Zero(1, 1)), expected));
}

TEST(NNFwdPassValues, frameThatIsNotANumberSpoilsNoOther) {
  MultiLayerNNModel model = network({4, 6, 5}, ActFn::sigmoid, true);
  MatrixXf inputs = someValues(4, 3, 2);
  const MatrixXf clean = evaluated(model, inputs);
  inputs(1, 1) = std::numeric_limits<float>::quiet_NaN();
  const MatrixXf outputs = evaluated(model, inputs);
  EXPECT_TRUE(sameBits(outputs.col(0), clean.col(0)));
  EXPECT_TRUE(outputs.col(1).array().isNaN().all());
  EXPECT_TRUE(sameBits(outputs.col(2), clean.col(2)));
}

// --- Shapes ---

TEST(NNFwdPassShapes, outputsTakeTheirShapeWhateverTheyHeld) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, false);
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(4, 5, 1);
  for (MatrixXf outputs : {MatrixXf(), MatrixXf(2, 5), MatrixXf(9, 9), MatrixXf(5, 2)}) {
    ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
    EXPECT_TRUE(sameBits(outputs, evaluated(model, inputs)));
  }
}

TEST(NNFwdPassShapes, noFramesGiveNoOutputs) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  const MatrixXf outputs = evaluated(model, MatrixXf(4, 0));
  EXPECT_EQ(outputs.rows(), 2);
  EXPECT_EQ(outputs.cols(), 0);
}

TEST(NNFwdPassShapes, layerWithoutInputsGivesItsBias) {
  MultiLayerNNModel model = modelOf({NNLayer(0, 2, false)});
  model.useSoftmax = false;
  model.layers[0]->bias << 3, 4;
  EXPECT_TRUE(sameBits(evaluated(model, MatrixXf(0, 2)), model.layers[0]->bias.replicate(1, 2)));
}

TEST(NNFwdPassShapes, emptyLayersAreEvaluated) {
  MultiLayerNNModel noOutputs = modelOf({NNLayer(2, 0, false)});
  EXPECT_EQ(evaluated(noOutputs, MatrixXf::Ones(2, 3)).size(), 0);
  MultiLayerNNModel bottleneck = modelOf({NNLayer(2, 0, true), NNLayer(0, 2, false)});
  EXPECT_TRUE(
      sameBits(evaluated(bottleneck, MatrixXf::Ones(2, 3)), MatrixXf::Constant(2, 3, 0.5f)));
}

TEST(NNFwdPassShapes, reportsTheModelsWidths) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  const std::unique_ptr<FwdPass> pass(model.createFwdPass());
  EXPECT_EQ(pass->numInputs(), 4);
  EXPECT_EQ(pass->numOutputs(), 2);
  MultiLayerNNModel empty;
  EXPECT_EQ(NNFwdPassFromFile(empty).numInputs(), 0);
  EXPECT_EQ(NNFwdPassFromFile(empty).numOutputs(), 0);
}

TEST(NNFwdPassShapes, inputsMayBeAnyViewOfFrames) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  NNFwdPassFromFile pass(model);
  const MatrixXf large = someValues(7, 9, 1);
  const MatrixXf block = large.block(1, 2, 4, 5);
  const MatrixXf expected = evaluated(model, block);
  MatrixXf outputs;
  ASSERT_EQ(pass.evaluate(large.block(1, 2, 4, 5), outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));

  std::vector<float> raw(21);  // an address that is a multiple of 4 only
  for (std::size_t shift = 0; shift < 2; ++shift) {
    Eigen::Map<MatrixXf> view(raw.data() + shift, 4, 5);
    view = block;
    ASSERT_EQ(pass.evaluate(view, outputs), 0);
    EXPECT_TRUE(sameBits(outputs, expected));
  }
  const Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor> byRows = block;
  ASSERT_EQ(pass.evaluate(byRows, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
}

TEST(NNFwdPassShapes, inputsMayLieInTheOutputs) {
  for (const std::vector<int>& widths : {std::vector<int>{4, 4}, {4, 3, 2}, {2, 3, 5}}) {
    MultiLayerNNModel model = network(widths, ActFn::tanh, true);
    NNFwdPassFromFile pass(model);
    const MatrixXf inputs = someValues(widths.front(), 6, 1);
    const MatrixXf expected = evaluated(model, inputs);

    MatrixXf both = inputs;
    ASSERT_EQ(pass.evaluate(both, both), 0);
    EXPECT_TRUE(sameBits(both, expected));

    both.resize(widths.front() + 3, 8);
    both.block(2, 1, widths.front(), 6) = inputs;
    ASSERT_EQ(pass.evaluate(both.block(2, 1, widths.front(), 6), both), 0);
    EXPECT_TRUE(sameBits(both, expected));
  }
}

// --- Refusals ---

// Expects that both ways of evaluating are refused and that their results are left alone.
void expectRefused(MultiLayerNNModel& model, const MatrixXf& inputs, const std::string& message) {
  const MatrixXf before = someValues(3, 2, 5);
  NNFwdPassFromFile pass(model);
  MatrixXf outputs = before;
  int result = 0;
  EXPECT_EQ(stderrOf([&] { result = pass.evaluate(inputs, outputs); }), kPrefix + message);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(sameBits(outputs, before));

  std::vector<mlnn::LayerResult> layers(7);
  layers[6].affine = before;
  EXPECT_EQ(stderrOf([&] { result = pass.evaluateLayers(inputs, outputs, layers); }),
            kPrefix + message);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(sameBits(outputs, before));
  ASSERT_EQ(layers.size(), 7u);
  EXPECT_TRUE(sameBits(layers[6].affine, before));
}

TEST(NNFwdPassRefusal, modelWithoutLayers) {
  MultiLayerNNModel model;
  expectRefused(model, MatrixXf(0, 3), "model has no layers\n");
  expectRefused(model, MatrixXf(4, 3), "model has no layers\n");
}

TEST(NNFwdPassRefusal, inputsOfAnotherWidth) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  expectRefused(model, MatrixXf(3, 1), "expected 4 inputs but got 3\n");
  expectRefused(model, MatrixXf(5, 0), "expected 4 inputs but got 5\n");
  expectRefused(model, MatrixXf(), "expected 4 inputs but got 0\n");
  expectRefused(model, MatrixXf(1, 4), "expected 4 inputs but got 1\n");
}

TEST(NNFwdPassRefusal, missingLayerIsNamedByItsNumberFromOne) {
  for (const std::size_t index : {0u, 1u, 2u}) {
    MultiLayerNNModel model = network({4, 3, 5, 2}, ActFn::tanh, true);
    delete std::exchange(model.layers[index], nullptr);
    expectRefused(model, MatrixXf(4, 1),
                  "layer " + std::to_string(index + 1) + " does not fit the model\n");
  }
}

TEST(NNFwdPassRefusal, stackOfAFailedLoad) {
  MultiLayerNNModel model;
  std::istringstream text("MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 2\nwrong\n");
  stderrOf([&] { EXPECT_EQ(model.deserializeAscii(text), 1); });
  expectRefused(model, MatrixXf(4, 1), "layer 1 does not fit the model\n");
}

TEST(NNFwdPassRefusal, layerThatDoesNotTakeTheOutputsBeforeIt) {
  MultiLayerNNModel narrow = modelOf({plainLayer(4, 3), plainLayer(2, 2)});
  expectRefused(narrow, MatrixXf(4, 1), "layer 2 does not fit the model\n");
  MultiLayerNNModel wide = modelOf({plainLayer(4, 3), plainLayer(3, 3), batchNormLayer(4, 2)});
  expectRefused(wide, MatrixXf(4, 1), "layer 3 does not fit the model\n");
}

struct BrokenArray {
  bool isBatchNorm;
  VectorXf NNLayer::*vector;
  Index length;
};

TEST(NNFwdPassRefusal, arraysThatBreakTheInvariants) {
  // The layers have three units.
  const BrokenArray cases[] = {
      {false, &NNLayer::bias, 0},     {false, &NNLayer::bias, 2},
      {false, &NNLayer::bias, 4},     {false, &NNLayer::gamma, 2},
      {false, &NNLayer::beta, 4},     {false, &NNLayer::gamma_inf, 1},
      {false, &NNLayer::beta_inf, 2}, {true, &NNLayer::bias, 2},
      {true, &NNLayer::bias, 4},      {true, &NNLayer::gamma, 0},
      {true, &NNLayer::gamma, 2},     {true, &NNLayer::beta, 0},
      {true, &NNLayer::beta, 4},      {true, &NNLayer::gamma_inf, 0},
      {true, &NNLayer::gamma_inf, 2}, {true, &NNLayer::beta_inf, 0},
      {true, &NNLayer::beta_inf, 4},
  };
  for (const BrokenArray& c : cases) {
    NNLayer broken = c.isBatchNorm ? batchNormLayer(4, 3) : plainLayer(4, 3);
    (broken.*c.vector).setZero(c.length);
    MultiLayerNNModel first = modelOf({broken, plainLayer(3, 2)});
    expectRefused(first, MatrixXf(4, 1), "layer 1 does not fit the model\n");
    MultiLayerNNModel last = modelOf({plainLayer(5, 4), broken});
    expectRefused(last, MatrixXf(5, 1), "layer 2 does not fit the model\n");
  }
}

TEST(NNFwdPassRefusal, activationThatDoesNotExist) {
  for (const int32_t code : {-1, 8, std::numeric_limits<int32_t>::min()}) {
    MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
    model.layers[1]->actFn = static_cast<ActFn::ActFn>(code);
    expectRefused(model, MatrixXf(4, 1), "layer 2 does not fit the model\n");
  }
}

TEST(NNFwdPassRefusal, unusedVectorsMayBeThere) {
  MultiLayerNNModel model = modelOf({foldedLayer(4, 3), batchNormLayer(3, 2)});
  model.layers[0]->beta.resize(0);
  EXPECT_EQ(evaluated(model, MatrixXf::Ones(4, 1)).rows(), 2);
}

TEST(NNFwdPassRefusal, stackIsCheckedBeforeTheInputsAndFromTheFirstLayerOn) {
  MultiLayerNNModel model = modelOf({plainLayer(4, 3), plainLayer(2, 2), plainLayer(9, 2)});
  expectRefused(model, MatrixXf(7, 1), "layer 2 does not fit the model\n");
  model.layers[0]->bias.resize(0);
  expectRefused(model, MatrixXf(7, 1), "layer 1 does not fit the model\n");
}

TEST(NNFwdPassRefusal, nextCallWorksAgain) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(4, 3, 1);
  MatrixXf outputs;
  ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
  const MatrixXf expected = outputs;
  stderrOf([&] { EXPECT_EQ(pass.evaluate(MatrixXf(9, 3), outputs), 1); });
  ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
}

// --- The model behind it ---

TEST(NNFwdPassModel, everyEditIsSeenByTheNextCall) {
  MultiLayerNNModel model = modelOf({plainLayer(4, 3, 1), batchNormLayer(3, 2, 2)});
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(4, 5, 1);
  MatrixXf before;
  ASSERT_EQ(pass.evaluate(inputs, before), 0);
  // A fresh pass knows nothing of what was before the edit.
  const auto expectSeen = [&](const char* edit) {
    MatrixXf after;
    ASSERT_EQ(pass.evaluate(inputs, after), 0) << edit;
    EXPECT_FALSE(sameBits(after, before)) << edit;
    EXPECT_TRUE(sameBits(after, evaluated(model, inputs))) << edit;
    before = after;
  };
  model.layers[0]->weights(0, 0) += 1;
  expectSeen("weights");
  model.layers[0]->bias[1] += 1;
  expectSeen("bias");
  model.layers[1]->gamma_inf[0] += 1;
  expectSeen("gamma_inf");
  model.layers[1]->beta_inf[1] += 1;
  expectSeen("beta_inf");
  model.layers[0]->actFn = ActFn::relu;
  expectSeen("actFn");
  model.useSoftmax = !model.useSoftmax;
  expectSeen("useSoftmax");
  model.layers[1]->isBatchNorm = false;
  expectSeen("isBatchNorm");
  model *= 0.5f;
  expectSeen("scaling");
  ASSERT_EQ(model.addLayerRndInit(9, 1.0f, false), 0);
  expectSeen("another layer");
  ASSERT_EQ(model.deleteLayers(2), 0);
  expectSeen("fewer layers");
  model = modelOf({plainLayer(4, 70, 5), plainLayer(70, 60, 6)});
  expectSeen("another network");
}

TEST(NNFwdPassModel, mayBeConst) {
  MultiLayerNNModel model = network({4, 70, 60}, ActFn::tanh, true);
  const MultiLayerNNModel& constModel = model;
  const MatrixXf inputs = someValues(4, 5, 1);
  const MatrixXf expected = evaluated(model, inputs);
  MatrixXf outputs;
  ASSERT_EQ(NNFwdPassFromFile(constModel).evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
  const std::unique_ptr<NNFwdPassFromFile> pass(constModel.createFwdPass());
  outputs.setZero();
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
  static_assert(!std::is_constructible_v<NNFwdPassFromFile, MultiLayerNNModel>,
                "a model that is gone at once cannot be run");
}

TEST(NNFwdPassModel, isKeptByAPassThatSharesIt) {
  auto model = std::make_shared<const MultiLayerNNModel>(network({4, 70, 60}, ActFn::tanh, true));
  const std::weak_ptr<const MultiLayerNNModel> seen = model;
  const MatrixXf inputs = someValues(4, 5, 1);
  MatrixXf expected;
  ASSERT_EQ(NNFwdPassFromFile(model).evaluate(inputs, expected), 0);
  auto pass = std::make_unique<NNFwdPassFromFile>(std::move(model));
  EXPECT_FALSE(seen.expired());
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
  EXPECT_EQ(pass->numInputs(), 4);
  EXPECT_EQ(pass->numOutputs(), 60);
  pass.reset();
  EXPECT_TRUE(seen.expired());
}

TEST(NNFwdPassModel, thatIsMissingHasNoLayers) {
  NNFwdPassFromFile pass(std::shared_ptr<const MultiLayerNNModel>{});
  EXPECT_EQ(pass.numInputs(), 0);
  EXPECT_EQ(pass.numOutputs(), 0);
  const MatrixXf before = someValues(2, 2, 1);
  MatrixXf outputs = before;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass.evaluate(MatrixXf(0, 1), outputs), 1); }),
            kPrefix + "model has no layers\n");
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(pass.evaluate(mlnn::InputFrames(nullptr, 0, 1), outputs.col(0)), 1);
            }),
            kPrefix + "model has no layers\n");
  EXPECT_TRUE(sameBits(outputs, before));
}

// Shared or not: what was moved from has no model, and takes another pass.
TEST(NNFwdPassModel, goesAlongWhenAPassIsMoved) {
  const auto model =
      std::make_shared<const MultiLayerNNModel>(network({6, 5, 3}, ActFn::tanh, true));
  const MatrixXf inputs = someValues(6, 4, 5);
  MatrixXf expected, outputs;
  ASSERT_EQ(NNFwdPassFromFile(*model).evaluate(inputs, expected), 0);
  for (NNFwdPassFromFile first : {NNFwdPassFromFile(model), NNFwdPassFromFile(*model)}) {
    NNFwdPassFromFile second(std::move(first));
    EXPECT_EQ(first.numInputs(), 0);
    EXPECT_EQ(first.numOutputs(), 0);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(first.evaluate(inputs, outputs), 1); }),
              kPrefix + "model has no layers\n");
    EXPECT_EQ(second.evaluate(inputs, outputs), 0);
    EXPECT_TRUE(sameBits(outputs, expected));
    first = std::move(second);
    EXPECT_EQ(first.evaluate(inputs, outputs), 0);
    EXPECT_TRUE(sameBits(outputs, expected));
  }
  EXPECT_EQ(model.use_count(), 1);
}

TEST(NNFwdPassModel, isNotChanged) {
  MultiLayerNNModel model = mlnn::test::fullModel();
  evaluated(model, someValues(4, 5, 1));
  EXPECT_TRUE(sameModel(model, mlnn::test::fullModel()));
}

// --- Same bits ---

TEST(NNFwdPassBits, ofAFrameDoNotDependOnItsNeighboursOrPlace) {
  for (const std::vector<int>& widths :
       {std::vector<int>{1, 1}, {5, 3}, {7, 9, 5}, {16, 32, 8, 4}, {33, 65, 31, 10}}) {
    MultiLayerNNModel model = network(widths, ActFn::silu, true);
    NNFwdPassFromFile pass(model);
    const MatrixXf frames = someValues(widths.front(), 19, 1);
    MatrixXf alone(widths.back(), 19);
    for (Index t = 0; t < 19; ++t) {
      MatrixXf outputs;
      ASSERT_EQ(pass.evaluate(frames.col(t), outputs), 0);
      alone.col(t) = outputs;
    }
    for (Index start = 0; start < 19; ++start) {
      for (Index count = 1; start + count <= 19; ++count) {
        MatrixXf outputs;
        ASSERT_EQ(pass.evaluate(frames.middleCols(start, count), outputs), 0);
        ASSERT_TRUE(sameBits(outputs, alone.middleCols(start, count)))
            << model.description() << ": " << count << " from " << start;
      }
    }
    const MatrixXf reversed = frames.rowwise().reverse();
    MatrixXf outputs;
    ASSERT_EQ(pass.evaluate(reversed, outputs), 0);
    EXPECT_TRUE(sameBits(outputs, alone.rowwise().reverse()));
  }
}

TEST(NNFwdPassBits, doNotDependOnWhatWasEvaluatedBefore) {
  MultiLayerNNModel model = network({7, 9, 5}, ActFn::tanh, true);
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(7, 4, 1);
  const MatrixXf expected = evaluated(model, inputs);
  MatrixXf outputs;
  for (const Index frames : {1, 30, 4, 2}) {
    ASSERT_EQ(pass.evaluate(MatrixXf::Constant(7, frames, NAN), outputs), 0);
    ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
    EXPECT_TRUE(sameBits(outputs, expected));
  }
}

// --- Layer results ---

TEST(NNFwdPassLayers, givesWhatEveryLayerComputed) {
  MultiLayerNNModel model = modelOf({plainLayer(4, 3, 1), batchNormLayer(3, 5, 2)});
  model.useSoftmax = true;
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(4, 6, 1);
  MatrixXf outputs;
  std::vector<mlnn::LayerResult> layers(9);
  ASSERT_EQ(pass.evaluateLayers(inputs, outputs, layers), 0);
  EXPECT_TRUE(sameBits(outputs, evaluated(model, inputs)));
  ASSERT_EQ(layers.size(), 2u);

  // The stack cut behind each layer, without and with its activation.
  for (std::size_t count = 1; count <= 2; ++count) {
    MultiLayerNNModel cut(model);
    cut.useSoftmax = false;
    cut.deleteLayers(static_cast<unsigned int>(2 - count));
    EXPECT_TRUE(sameBits(layers[count - 1].activated, evaluated(cut, inputs)));
    cut.layers.back()->actFn = ActFn::linear;
    EXPECT_TRUE(sameBits(layers[count - 1].affine, evaluated(cut, inputs)));
  }
}

// --- Memory ---

TEST(NNFwdPassMemory, nothingIsAllocatedAfterTheFirstCall) {
  MultiLayerNNModel model = network({40, 70, 50, 10}, ActFn::tanh, true);
  for (const Index frames : {1, 2, 37}) {
    NNFwdPassFromFile pass(model);
    const MatrixXf inputs = someValues(40, frames, 1);
    MatrixXf outputs;
    ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
    const mlnn::test::AllocationWatch watch;
    for (int round = 0; round < 10; ++round) pass.evaluate(inputs, outputs);
    EXPECT_EQ(watch.allocations(), 0u) << frames << " frames";
  }
}

TEST(NNFwdPassMemory, wideLayersAllocateNothingEither) {
  // Columns far beyond what the matrix library would put on the stack.
  MultiLayerNNModel model = modelOf({plainLayer(3, 90000, 1), batchNormLayer(90000, 3, 2)});
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(3, 2, 1);
  MatrixXf outputs;
  ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
  const mlnn::test::AllocationWatch watch;
  pass.evaluate(inputs, outputs);
  EXPECT_EQ(watch.allocations(), 0u);
}

TEST(NNFwdPassMemory, nothingIsAllocatedWhenKnownNumbersOfFramesAlternate) {
  MultiLayerNNModel model = network({40, 70, 10}, ActFn::tanh, true);
  NNFwdPassFromFile pass(model);
  const MatrixXf one = someValues(40, 1, 1);
  const MatrixXf many = someValues(40, 30, 2);
  MatrixXf outputsOfOne;
  MatrixXf outputsOfMany;
  ASSERT_EQ(pass.evaluate(one, outputsOfOne), 0);
  ASSERT_EQ(pass.evaluate(many, outputsOfMany), 0);
  const mlnn::test::AllocationWatch watch;
  for (int round = 0; round < 5; ++round) {
    pass.evaluate(one, outputsOfOne);
    pass.evaluate(many, outputsOfMany);
  }
  EXPECT_EQ(watch.allocations(), 0u);
}

TEST(NNFwdPassMemory, norWhereInputsLieInTheOutputs) {
  MultiLayerNNModel model = network({40, 40}, ActFn::tanh, true);
  NNFwdPassFromFile pass(model);
  MatrixXf one = someValues(40, 1, 1);
  MatrixXf many = someValues(40, 30, 2);
  ASSERT_EQ(pass.evaluate(many, many), 0);
  const mlnn::test::AllocationWatch watch;
  for (int round = 0; round < 5; ++round) {
    pass.evaluate(one, one);
    pass.evaluate(many, many);
  }
  EXPECT_EQ(watch.allocations(), 0u);
}

// To within what the heap adds to each of a few blocks, which may be whole pages.
TEST(NNFwdPassMemory, isToldBefore) {
  constexpr double kUncertainty = 4 * 4096;
  MultiLayerNNModel model = network({40, 700, 10}, ActFn::tanh, true);
  for (const Index frames : {1, 2, 37, 256, 257, 1000}) {
    const MatrixXf inputs = someValues(40, static_cast<int>(frames), 1);
    MatrixXf outputs(10, frames);
    const mlnn::test::AllocationWatch watch;
    const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
    ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
    EXPECT_NEAR(static_cast<double>(watch.peak()),
                static_cast<double>(NNFwdPassFromFile::workingBytes(model, frames)), kUncertainty)
        << frames;
  }
}

TEST(NNFwdPassMemory, isTwoBlocksWhereTheWeightsAreFloats) {
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  NNFwdPassFromFile pass(model);
  const MatrixXf inputs = someValues(4, 5, 1);
  MatrixXf outputs(2, 5);
  const mlnn::test::AllocationWatch watch;
  ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
  EXPECT_EQ(watch.allocations(), 2u);  // between layers, and for the kernels
}

TEST(NNFwdPassMemory, thereIsNoSecondCopyOfTheWeights) {
  MultiLayerNNModel model = network({400, 300, 400}, ActFn::tanh, true);
  const std::size_t weights = 300 * 400 * sizeof(float);
  const mlnn::test::AllocationWatch watch;
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(MatrixXf::Ones(400, 1), outputs), 0);
  EXPECT_LT(watch.largest(), weights / 10);
}

TEST(NNFwdPassMemory, runningOutOfItLeavesTheOutputs) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  MultiLayerNNModel model = network({4, 3, 2}, ActFn::tanh, true);
  const MatrixXf inputs = someValues(4, 5, 1);
  const MatrixXf before = someValues(3, 3, 2);
  std::size_t failures = 0;
  for (bool done = false; !done;) {
    NNFwdPassFromFile pass(model);
    MatrixXf outputs = before;
    const mlnn::test::FailingAllocation failure(failures);
    try {
      pass.evaluate(inputs, outputs);
      done = true;
    } catch (const std::bad_alloc&) {
      ++failures;
      EXPECT_TRUE(sameBits(outputs, before));
    }
    EXPECT_EQ(failure.happened(), !done);
  }
  EXPECT_GE(failures, 3u);
}

// --- Threads ---

TEST(NNFwdPassThreads, severalPassesOverOneModelGiveTheSameBits) {
  MultiLayerNNModel model = network({40, 70, 50, 10}, ActFn::tanh, true);
  const MatrixXf inputs = someValues(40, 25, 1);
  const MatrixXf expected = evaluated(model, inputs);
  constexpr int kThreads = 4;
  std::array<int, kThreads> equalResults = {};
  std::vector<std::thread> threads;
  for (int& equal : equalResults) {
    threads.emplace_back([&] {
      const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
      MatrixXf outputs;
      for (int round = 0; round < 50; ++round) {
        if (pass->evaluate(inputs, outputs) == 0 && sameBits(outputs, expected)) ++equal;
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const int equal : equalResults) EXPECT_EQ(equal, 50);
}

}  // namespace
