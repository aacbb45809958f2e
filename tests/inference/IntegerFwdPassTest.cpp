#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "inference/IntegerLayers.h"
#include "inference/IntegerStackPass.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/PlainIntegerPass.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using mlnn::IntegerFwdPass;
using mlnn::IntegerKernels;
using mlnn::IntegerLayers;
using mlnn::IntegerMemory;
using mlnn::WideInputs;
using mlnn::test::AllocationWatch;
using mlnn::test::batchNormLayer;
using mlnn::test::modelOf;
using mlnn::test::plainIntegerPass;
using mlnn::test::plainLayer;
using mlnn::test::roundByRows;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();

const auto kWidths = {WideInputs::kNone, WideInputs::kFirst, WideInputs::kAll};

NNLayer rounded(NNLayer layer, ActFn::ActFn actFn, int most = 127) {
  roundByRows(layer, most);
  layer.actFn = actFn;
  return layer;
}

// Layers of both widths of codes, with batch norm, and one of floats.
MultiLayerNNModel mixedModel() {
  MultiLayerNNModel model =
      modelOf({rounded(plainLayer(37, 50, 1), ActFn::tanh),
               rounded(batchNormLayer(50, 33, 2), ActFn::relu, 7), plainLayer(33, 18, 3),
               rounded(plainLayer(18, 35, 4), ActFn::silu, 7),
               rounded(plainLayer(35, 21, 5), ActFn::linear)});
  model.useSoftmax = true;
  return model;
}

std::unique_ptr<IntegerFwdPass> passOf(const MultiLayerNNModel& model,
                                       WideInputs wideInputs = WideInputs::kNone) {
  std::unique_ptr<IntegerFwdPass> pass;
  EXPECT_EQ(stderrOf([&] { pass = IntegerFwdPass::create(model, wideInputs); }), "");
  return pass;
}

// All pairs of kernels that this processor runs.
std::vector<IntegerKernels> allKernels() {
  std::vector<IntegerKernels> kernels;
  for (const mlnn::DotKernels* dots : mlnn::runnableDots()) {
    kernels.push_back({*dots, mlnn::bestUnfusedKernels()});
  }
  for (const mlnn::UnfusedKernels* unfused : mlnn::runnableUnfusedKernels()) {
    kernels.push_back({*mlnn::runnableDots().back(), *unfused});
  }
  return kernels;
}

// Holds every instruction set against the plain loop.
void expectPlainResults(const MultiLayerNNModel& model, WideInputs wideInputs,
                        const MatrixXf& inputs) {
  const MatrixXf expected = plainIntegerPass(model, inputs, wideInputs);
  const IntegerLayers layers(model, wideInputs);
  for (const IntegerKernels& kernels : allKernels()) {
    SCOPED_TRACE(std::string(kernels.dots.name) + " and " + kernels.unfused.name);
    IntegerMemory memory;
    MatrixXf outputs;
    mlnn::evaluateIntegers(layers, kernels, inputs, outputs, memory);
    ASSERT_TRUE(sameBits(outputs, expected)) << inputs.cols() << " frames";
  }
}

// --- Bits ---

TEST(IntegerFwdPassBits, areThoseOfThePlainLoopAtAnyNumberOfFrames) {
  const MultiLayerNNModel model = mixedModel();
  const MatrixXf inputs = someValues(37, 300, 9);
  for (const WideInputs wideInputs : kWidths) {
    for (const Index frames : {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 11, 13, 17, 32, 300}) {
      expectPlainResults(model, wideInputs, inputs.leftCols(frames));
    }
  }
}

TEST(IntegerFwdPassBits, areThoseOfThePlainLoopInLayersOfAllShapes) {
  const std::vector<int> sizes = {1,  2,  3,  4,  5,  7,  8,  9,  15, 16,
                                  17, 31, 32, 33, 47, 48, 63, 64, 65, 129};
  for (const int inputs : sizes) {
    for (const int outputs : sizes) {
      SCOPED_TRACE(testing::Message() << inputs << " inputs, " << outputs << " outputs");
      for (const int most : {127, 7}) {
        const auto actFn = static_cast<ActFn::ActFn>((inputs + outputs) % ActFn::kCount);
        const MultiLayerNNModel model =
            modelOf({rounded(plainLayer(inputs, outputs, 1), actFn, most)});
        for (const Index frames : {1, 7}) {
          expectPlainResults(model, WideInputs::kNone, someValues(inputs, frames, 3));
        }
        expectPlainResults(model, WideInputs::kFirst, someValues(inputs, 3, 3));
      }
    }
  }
}

TEST(IntegerFwdPassBits, areThoseOfThePlainLoopInEveryActivation) {
  for (int fn = 0; fn < ActFn::kCount; ++fn) {
    const auto actFn = static_cast<ActFn::ActFn>(fn);
    NNLayer layer = rounded(plainLayer(61, 70, 5), actFn);
    layer.weights *= 8;
    NNLayer floats = plainLayer(70, 41, 5);
    floats.actFn = actFn;
    for (const float size : {1e-3f, 1.0f, 50.0f}) {
      expectPlainResults(modelOf({layer, floats}), WideInputs::kNone, size * someValues(61, 9, 3));
    }
  }
}

TEST(IntegerFwdPassBits, areThoseOfThePlainLoopInLayersThatEveryLoopRunsOver) {
  MultiLayerNNModel model = modelOf({rounded(plainLayer(1030, 300, 1), ActFn::sigmoid),
                                     rounded(plainLayer(300, 259, 2), ActFn::sigmoid, 7)});
  for (const Index frames : {1, 37}) {
    expectPlainResults(model, WideInputs::kNone, someValues(1030, frames, 3));
  }
  expectPlainResults(model, WideInputs::kAll, someValues(1030, 5, 3));
}

// Codes and inputs at their ends: here sums in 16 bits would overflow.
TEST(IntegerFwdPassBits, areThoseOfThePlainLoopWhereProductsAreLargest) {
  for (const int most : {127, 7}) {
    NNLayer layer = plainLayer(203, 35, 1);
    layer.actFn = ActFn::linear;
    layer.weights = layer.weights.unaryExpr([&](float w) { return std::copysign(float(most), w); });
    layer.weights.row(3).setConstant(static_cast<float>(most));
    layer.weights.row(4).setConstant(static_cast<float>(-most));
    layer.weights.col(0).setOnes();
    MatrixXf inputs = MatrixXf::Constant(203, 5, 1.0f);
    inputs.col(1) *= -1;
    inputs.col(2) = layer.weights.row(5).transpose();
    inputs.col(3) = -layer.weights.row(6).transpose();
    const MultiLayerNNModel model = modelOf({layer});
    for (const WideInputs wideInputs : kWidths) expectPlainResults(model, wideInputs, inputs);
  }
}

// The longest rows that are computed in integers, with the largest sums, and the next longer ones.
TEST(IntegerFwdPassBits, areThoseOfThePlainLoopInTheLongestRows) {
  const auto longest = static_cast<int>(mlnn::kMostDotInputs);
  EXPECT_EQ(longest, 132104);
  NNLayer layer(longest, 2, false);
  layer.weights.row(0).setConstant(127);
  layer.weights.row(1).setConstant(-127);
  layer.weights.col(5).setOnes();
  MatrixXf inputs = MatrixXf::Constant(longest, 2, 3.0f);
  inputs.col(1) *= -1;
  const MultiLayerNNModel model = modelOf({layer});
  for (const WideInputs wideInputs : kWidths) expectPlainResults(model, wideInputs, inputs);
  EXPECT_EQ(passOf(model)->numIntegerLayers(), 1u);
  NNLayer longer(longest + 1, 2, false);
  longer.weights.setOnes();
  EXPECT_EQ(passOf(modelOf({longer}))->numIntegerLayers(), 0u);
}

TEST(IntegerFwdPassBits, areThoseOfThePlainLoopForExtremeInputs) {
  MatrixXf inputs = someValues(37, 20, 9);
  inputs.col(0).setZero();
  inputs.col(1).setConstant(-0.0f);
  inputs.col(2).setConstant(kDenormal);
  inputs.col(3) *= kDenormal * 1000;
  inputs.col(4) *= std::ldexp(1.0f, -100);
  inputs.col(5) *= std::ldexp(1.0f, -99);
  inputs.col(6) *= 1e30f;
  inputs.col(7) *= kMax;
  inputs(3, 8) = kNaN;
  inputs(36, 9) = -kNaN;
  inputs(0, 10) = kInfinity;
  inputs(35, 11) = -kInfinity;
  inputs(1, 12) = kMax;
  inputs(2, 13) = -kMax;
  inputs.col(14).setConstant(1e-30f);
  inputs.col(15) = inputs.col(16).unaryExpr([](float x) { return std::round(x * 4) / 4; });
  MultiLayerNNModel model = mixedModel();
  for (const WideInputs wideInputs : kWidths) expectPlainResults(model, wideInputs, inputs);
  model.useSoftmax = false;
  for (int fn = 0; fn < ActFn::kCount; ++fn) {
    model.setActFn(static_cast<ActFn::ActFn>(fn));
    expectPlainResults(model, WideInputs::kNone, inputs);
  }
}

TEST(IntegerFwdPassBits, areThoseOfThePlainLoopForExtremeLayers) {
  NNLayer layer = rounded(plainLayer(37, 40, 1), ActFn::linear);
  layer.weights.row(1).setZero();
  layer.weights.row(2) *= std::ldexp(1.0f, 100);
  layer.weights.row(3) *= std::ldexp(1.0f, -100);
  layer.weights.row(4).setConstant(kDenormal);
  layer.weights.row(5).setConstant(kMax);
  layer.weights.row(6).setConstant(-127 * kDenormal);
  layer.bias[7] = kInfinity;
  layer.bias[8] = -kInfinity;
  layer.bias[9] = kNaN;
  layer.bias[10] = kMax;
  layer.bias[11] = kDenormal;
  NNLayer normed = rounded(batchNormLayer(37, 40, 1), ActFn::linear);
  normed.gamma_inf[0] = kInfinity;
  normed.gamma_inf[1] = kNaN;
  normed.gamma_inf[2] = 0;
  normed.gamma_inf[3] = kDenormal;
  normed.gamma_inf[4] = kMax;
  normed.beta_inf[5] = -kNaN;
  NNLayer floats = layer;
  floats.weights(0, 0) = kNaN;
  floats.weights(3, 1) = -kInfinity;
  floats.weights(4, 36) = -0.0f;
  MatrixXf inputs = someValues(37, 6, 9);
  inputs.col(1).setZero();
  inputs.col(2) *= 1e30f;
  inputs.col(3) *= 1e-25f;
  inputs(1, 4) = kInfinity;
  for (const NNLayer& first : {layer, normed, floats}) {
    for (const WideInputs wideInputs : kWidths) {
      MultiLayerNNModel model = modelOf({first, rounded(plainLayer(40, 9, 4), ActFn::tanh)});
      expectPlainResults(model, wideInputs, inputs);
      model.useSoftmax = true;
      expectPlainResults(modelOf({first}), wideInputs, inputs);
    }
  }
}

TEST(IntegerFwdPassBits, areTheSameInAnyPlaceAmongFrames) {
  const MultiLayerNNModel model = mixedModel();
  const auto pass = passOf(model);
  const MatrixXf inputs = someValues(37, 260, 9);
  MatrixXf together;
  ASSERT_EQ(pass->evaluate(inputs, together), 0);
  for (Index f = 0; f < inputs.cols(); ++f) {
    MatrixXf alone;
    ASSERT_EQ(pass->evaluate(inputs.col(f), alone), 0);
    ASSERT_TRUE(sameBits(alone, together.col(f))) << f;
  }
}

TEST(IntegerFwdPassBits, areTheSameInSeveralThreads) {
  const auto pass = passOf(mixedModel());
  const MatrixXf inputs = someValues(37, 9, 9);
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  std::vector<MatrixXf> outputs(3);
  std::vector<std::thread> threads;
  for (MatrixXf& found : outputs) {
    threads.emplace_back([&] {
      const auto own = pass->another();
      for (int i = 0; i < 50; ++i) own->evaluate(inputs, found);
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const MatrixXf& found : outputs) EXPECT_TRUE(sameBits(found, expected));
}

// --- The distance from floats ---

// The largest derivative of an activation, and more.
double steepness(ActFn::ActFn fn) { return fn == ActFn::sigmoid ? 0.2501 : 1.1; }

double exactActivation(ActFn::ActFn fn, double x) {
  switch (fn) {
    case ActFn::sigmoid:
      return 1 / (1 + std::exp(-x));
    case ActFn::tanh:
      return std::tanh(x);
    case ActFn::relu:
      return std::max(x, 0.0);
    case ActFn::leaky_relu:
      return x < 0 ? 0.01 * x : x;
    case ActFn::elu:
      return x < 0 ? std::expm1(x) : x;
    case ActFn::softplus:
      return std::max(x, 0.0) + std::log1p(std::exp(-std::abs(x)));
    case ActFn::silu:
      return x / (1 + std::exp(-x));
    default:
      return x;
  }
}

// One frame in double precision, and how far the pass may be from it: one bound for all outputs of
// a layer, as docs/integer-pass.md states it.
struct ExactFrame {
  Eigen::VectorXd values;
  double distance = 0;

  void take(const NNLayer& layer, bool words) {
    const Eigen::MatrixXd weights = layer.weights.cast<double>();
    const double rowSum = weights.cwiseAbs().rowwise().sum().maxCoeff();
    const double m = values.cwiseAbs().maxCoeff() + distance;
    distance = rowSum * (0.504 * m / (words ? 32639 : 127) + std::ldexp(m, -20) +
                         std::ldexp(1.0, -100) + distance);
    values = weights * values;
    if (layer.isBatchNorm) {
      values = values.cwiseProduct(layer.gamma_inf.cast<double>());
      distance *= layer.gamma_inf.cast<double>().cwiseAbs().maxCoeff();
    }
    values += (layer.isBatchNorm ? layer.beta_inf : layer.bias).cast<double>();
    const double largest = values.cwiseAbs().maxCoeff() + distance;
    distance += std::ldexp(largest, -22);
    const auto activate = [&](double x) { return exactActivation(layer.actFn, x); };
    values = values.unaryExpr(activate).eval();
    if (layer.actFn == ActFn::linear) return;
    distance = distance * steepness(layer.actFn) + std::ldexp(largest + 1, -22);
  }
};

void expectWithinTheBound(const MultiLayerNNModel& model, WideInputs wideInputs,
                          const MatrixXf& inputs) {
  MatrixXf outputs;
  ASSERT_FALSE(model.useSoftmax);
  ASSERT_EQ(passOf(model, wideInputs)->evaluate(inputs, outputs), 0);
  for (Index f = 0; f < inputs.cols(); ++f) {
    ExactFrame exact{inputs.col(f).cast<double>()};
    for (std::size_t i = 0; i < model.layers.size(); ++i) {
      exact.take(*model.layers[i], mlnn::takesWords(wideInputs, i));
    }
    const double found = (outputs.col(f).cast<double>() - exact.values).cwiseAbs().maxCoeff();
    ASSERT_LE(found, exact.distance);
    ASSERT_GE(found, exact.distance * 1e-6) << "a bound that says nothing";
  }
}

TEST(IntegerFwdPassBound, holdsForLayers) {
  for (uint32_t seed = 1; seed <= 40; ++seed) {
    const int inputs = 1 + static_cast<int>(seed * 37 % 300);
    NNLayer layer = rounded(plainLayer(inputs, 40, seed), ActFn::linear, seed % 2 == 0 ? 127 : 7);
    layer.bias.setZero();
    for (const float size : {1e-20f, 1e-3f, 1.0f, 1e20f}) {
      SCOPED_TRACE(testing::Message() << "seed " << seed << ", size " << size);
      const MatrixXf frames = size * someValues(inputs, 5, seed + 100);
      MultiLayerNNModel model = modelOf({layer});
      model.useSoftmax = false;
      expectWithinTheBound(model, WideInputs::kNone, frames);
      expectWithinTheBound(model, WideInputs::kAll, frames);
    }
  }
}

TEST(IntegerFwdPassBound, holdsForNetworks) {
  for (int fn = 0; fn < ActFn::kCount; ++fn) {
    const auto actFn = static_cast<ActFn::ActFn>(fn);
    MultiLayerNNModel model =
        modelOf({rounded(plainLayer(60, 50, 1), actFn), rounded(batchNormLayer(50, 30, 2), actFn),
                 rounded(plainLayer(30, 20, 3), actFn)});
    for (NNLayer* layer : model.layers) layer->weights *= 0.25f;
    model.useSoftmax = false;
    const MatrixXf frames = someValues(60, 20, 7);
    for (const WideInputs wideInputs : kWidths) {
      SCOPED_TRACE(testing::Message() << ActFn::actFnToString(actFn));
      expectWithinTheBound(model, wideInputs, frames);
    }
  }
}

// --- What it is made of ---

TEST(IntegerFwdPass, countsItsIntegerLayersAndBytes) {
  const auto pass = passOf(mixedModel());
  EXPECT_EQ(pass->numInputs(), 37);
  EXPECT_EQ(pass->numOutputs(), 21);
  EXPECT_EQ(pass->numIntegerLayers(), 4u);
  const std::size_t codes = 64 * 40 + 48 * 52 / 2 + 48 * 20 / 2 + 32 * 36;
  const std::size_t floats = 2 * 50 + 3 * 33 + (33 * 18 + 18) + 2 * 35 + 2 * 21;
  EXPECT_EQ(pass->weightBytes(), codes + floats * sizeof(float));
}

TEST(IntegerFwdPass, keepsItsResultsWhenTheModelChanges) {
  MultiLayerNNModel model = mixedModel();
  const auto pass = passOf(model);
  const MatrixXf inputs = someValues(37, 3, 9);
  MatrixXf before;
  MatrixXf after;
  ASSERT_EQ(pass->evaluate(inputs, before), 0);
  model = MultiLayerNNModel();
  ASSERT_EQ(pass->evaluate(inputs, after), 0);
  EXPECT_TRUE(sameBits(before, after));
}

TEST(IntegerFwdPass, refusesModelsAndInputsThatDoNotFit) {
  std::unique_ptr<IntegerFwdPass> pass;
  EXPECT_EQ(stderrOf([&] { pass = IntegerFwdPass::create(MultiLayerNNModel()); }),
            "ERROR: IntegerFwdPass::create: model has no layers\n");
  EXPECT_EQ(pass, nullptr);
  const MultiLayerNNModel broken = modelOf({plainLayer(4, 5), plainLayer(6, 3)});
  EXPECT_EQ(stderrOf([&] { pass = IntegerFwdPass::create(broken); }),
            "ERROR: IntegerFwdPass::create: layer 2 does not fit the model\n");
  EXPECT_EQ(pass, nullptr);
  pass = passOf(mixedModel());
  MatrixXf outputs = MatrixXf::Constant(2, 3, 5.0f);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass->evaluate(MatrixXf(36, 2), outputs), 1); }),
            "ERROR: IntegerFwdPass::evaluate: expected 37 inputs but got 36\n");
  EXPECT_TRUE(sameBits(outputs, MatrixXf::Constant(2, 3, 5.0f)));
}

TEST(IntegerFwdPass, takesLayersWithoutInputsOrOutputs) {
  const MultiLayerNNModel model = modelOf({plainLayer(5, 0, 1), plainLayer(0, 3, 2)});
  expectPlainResults(model, WideInputs::kAll, someValues(5, 2, 3));
}

// --- From an image ---

// The image of a model, from a place on that is `past` bytes beyond where a float may lie.
std::vector<char> imageOf(MultiLayerNNModel& model, std::size_t past) {
  model.deltasNorm.allocIfNeeded();
  std::vector<char> image(past + static_cast<std::size_t>(model.binarySerializedLength()));
  model.serializeBinary(image.data() + past);
  return image;
}

std::unique_ptr<IntegerFwdPass> passOf(const std::vector<char>& bytes, std::size_t past,
                                       WideInputs wideInputs) {
  mlnn::ImageFwdPass image;
  std::unique_ptr<IntegerFwdPass> pass;
  stderrOf([&] { EXPECT_EQ(image.open(bytes.data() + past, bytes.size() - past), 0); });
  EXPECT_EQ(stderrOf([&] { pass = IntegerFwdPass::create(image, wideInputs); }), "");
  return pass;
}

// Layers of every form that an image has for weights: row scales of both widths, tables that are
// codes by rows and such that are none, floats.
MultiLayerNNModel modelOfAllForms() {
  NNLayer table = plainLayer(64, 40, 6);
  for (Index i = 0; i < table.weights.size(); ++i) {
    table.weights.data()[i] = static_cast<float>(i % 11 - 5) * (i % 40 == 3 ? 24.0f : 0.5f);
  }
  NNLayer mixed = plainLayer(40, 50, 7);
  for (Index i = 0; i < mixed.weights.size(); ++i) {
    mixed.weights.data()[i] = std::exp(static_cast<float>(i % 13) - 6.0f);
  }
  MultiLayerNNModel model =
      modelOf({rounded(plainLayer(90, 70, 1), ActFn::tanh),
               rounded(batchNormLayer(70, 64, 2), ActFn::relu, 7), table, mixed,
               plainLayer(50, 40, 3), rounded(plainLayer(40, 9, 5), ActFn::linear)});
  model.useSoftmax = true;
  return model;
}

TEST(IntegerFwdPassOfAnImage, givesTheBitsOfItsModelAtAnyAddress) {
  MultiLayerNNModel model = modelOfAllForms();
  const MatrixXf inputs = someValues(90, 20, 9);
  for (const std::size_t past : std::vector<std::size_t>{0, 1, 2, 3, 4, 16, 20, 44, 60}) {
    const std::vector<char> bytes = imageOf(model, past);
    for (const WideInputs wideInputs : kWidths) {
      const auto pass = passOf(bytes, past, wideInputs);
      EXPECT_EQ(pass->numIntegerLayers(), passOf(model)->numIntegerLayers());
      for (const Index frames : {1, 20}) {
        MatrixXf outputs;
        ASSERT_EQ(pass->evaluate(inputs.leftCols(frames), outputs), 0);
        ASSERT_TRUE(
            sameBits(outputs, plainIntegerPass(model, inputs.leftCols(frames), wideInputs)));
      }
    }
  }
}

// Of 100 inputs 163 rows are unpacked together.
TEST(IntegerFwdPassOfAnImage, unpacksTheLastRowsOfALargeLayer) {
  NNLayer table = plainLayer(100, 200, 6);
  for (Index i = 0; i < table.weights.size(); ++i) {
    table.weights.data()[i] = std::exp(static_cast<float>(i % 13) - 6.0f);
  }
  MultiLayerNNModel model = modelOf({rounded(plainLayer(30, 100, 1), ActFn::tanh), table});
  const MatrixXf inputs = someValues(30, 20, 9);
  const std::vector<char> bytes = imageOf(model, 0);
  const auto pass = passOf(bytes, 0, WideInputs::kNone);
  for (const Index frames : {1, 20}) {
    MatrixXf outputs;
    ASSERT_EQ(pass->evaluate(inputs.leftCols(frames), outputs), 0);
    EXPECT_TRUE(
        sameBits(outputs, plainIntegerPass(model, inputs.leftCols(frames), WideInputs::kNone)));
  }
}

TEST(IntegerFwdPassOfAnImage, readsCodesWhereTheyLie) {
  MultiLayerNNModel model = modelOf({rounded(plainLayer(200, 100, 1), ActFn::relu)});
  const std::vector<char> bytes = imageOf(model, 0);
  mlnn::ImageFwdPass image;
  stderrOf([&] { ASSERT_EQ(image.open(bytes.data(), bytes.size()), 0); });
  const AllocationWatch watch;
  const auto pass = IntegerFwdPass::create(image);
  EXPECT_LT(watch.peak(), 4096u);
  EXPECT_EQ(pass->numIntegerLayers(), 1u);
}

TEST(IntegerFwdPassOfAnImage, takesItsSoftmaxAndRefusesWhatHasNoLayers) {
  MultiLayerNNModel model = modelOf({rounded(plainLayer(20, 10, 1), ActFn::relu)});
  model.useSoftmax = false;
  const std::vector<char> bytes = imageOf(model, 0);
  mlnn::ImageFwdPass image;
  std::unique_ptr<IntegerFwdPass> pass;
  EXPECT_EQ(stderrOf([&] { pass = IntegerFwdPass::create(image); }),
            "ERROR: IntegerFwdPass::create: model has no layers\n");
  EXPECT_EQ(pass, nullptr);
  image.setSoftmax(false);
  stderrOf([&] { ASSERT_EQ(image.open(bytes.data(), bytes.size()), 0); });
  pass = IntegerFwdPass::create(image);
  const MatrixXf inputs = someValues(20, 3, 9);
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, plainIntegerPass(model, inputs)));
}

// --- Memory ---

TEST(IntegerFwdPassMemory, outputsMayReplaceTheInputs) {
  const MultiLayerNNModel model = mixedModel();
  const auto pass = passOf(model);
  const MatrixXf inputs = someValues(37, 270, 9);
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  MatrixXf both = inputs;
  ASSERT_EQ(pass->evaluate(both, both), 0);
  EXPECT_TRUE(sameBits(both, expected));
}

TEST(IntegerFwdPassMemory, isAllTakenInTheFirstCall) {
  const auto pass = passOf(mixedModel(), WideInputs::kFirst);
  for (const Index frames : {1, 300}) {
    const MatrixXf inputs = someValues(37, frames, 9);
    MatrixXf outputs(21, frames);
    const AllocationWatch first;
    pass->evaluate(inputs, outputs);
    EXPECT_GT(first.allocations(), 0u);
    const AllocationWatch second;
    pass->evaluate(inputs, outputs);
    EXPECT_EQ(second.allocations(), 0u);
  }
}

TEST(IntegerFwdPassMemory, isWhatWorkingBytesSays) {
  for (const Index frames : {1, 10, 300}) {
    const auto origin = passOf(mixedModel(), WideInputs::kFirst);
    const MatrixXf inputs = someValues(37, frames, 9);
    MatrixXf outputs(21, frames);
    const AllocationWatch watch;
    const auto pass = origin->another();
    pass->evaluate(inputs, outputs);
    const std::size_t said = pass->workingBytes(frames);
    EXPECT_GE(watch.peak(), said);
    EXPECT_LE(watch.peak(), said + 8 * 128);  // what the heap adds to each block
  }
}

// On a small device: less than three floats for each output of the widest layer.
TEST(IntegerFwdPassMemory, isLittleForOneFrame) {
  const MultiLayerNNModel model = modelOf({rounded(plainLayer(600, 512, 1), ActFn::relu),
                                           rounded(plainLayer(512, 512, 2), ActFn::relu),
                                           rounded(plainLayer(512, 10, 2), ActFn::relu)});
  EXPECT_LE(passOf(model)->workingBytes(1), 3u * 512 * sizeof(float));
}

TEST(IntegerFwdPassMemory, leavesTheOutputsWholeWhenItIsShort) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer's heap cannot be replaced";
  const auto origin = passOf(mixedModel());
  const MatrixXf inputs = someValues(37, 5, 9);
  MatrixXf expected;
  ASSERT_EQ(origin->evaluate(inputs, expected), 0);
  bool happened = true;
  for (std::size_t successes = 0; happened; ++successes) {
    const auto pass = origin->another();
    MatrixXf outputs = MatrixXf::Constant(2, 2, 5.0f);
    {
      const mlnn::test::FailingAllocation failing(successes);
      try {
        pass->evaluate(inputs, outputs);
      } catch (const std::bad_alloc&) {
      }
      happened = failing.happened();
    }
    if (happened) {
      ASSERT_TRUE(sameBits(outputs, MatrixXf::Constant(2, 2, 5.0f)));
    }
    ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
    ASSERT_TRUE(sameBits(outputs, expected));
  }
}

}  // namespace
