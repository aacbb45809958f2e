#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

#include "inference/CodedFwdPass.h"
#include "inference/CodedLayer.h"
#include "inference/NNFwdPassFromFile.h"
#include "inference/kernels/Kernels.h"
#include "model/LayerStack.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using mlnn::CodedFwdPass;
using mlnn::CodedLayer;
using mlnn::CodesFor;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();

// Like sameBits, but any NaN is as good as another.
bool sameValues(const MatrixXf& a, const MatrixXf& b) {
  if (a.rows() != b.rows() || a.cols() != b.cols()) return false;
  for (Index i = 0; i < a.size(); ++i) {
    const float x = a.data()[i];
    const float y = b.data()[i];
    if (std::memcmp(&x, &y, sizeof x) != 0 && !(std::isnan(x) && std::isnan(y))) return false;
  }
  return true;
}

std::unique_ptr<CodedFwdPass> codedPass(const MultiLayerNNModel& model, int bits) {
  std::unique_ptr<CodedFwdPass> pass;
  EXPECT_EQ(stderrOf([&] { pass = CodedFwdPass::create(model, bits, CodesFor::kMemory); }), "");
  return pass;
}

// What the model itself gives once it has only so many bits.
MatrixXf reducedOutputs(const MultiLayerNNModel& model, int bits, const MatrixXf& inputs) {
  MultiLayerNNModel reduced(model);
  stderrOf([&] { reduced.retainPrecisionBits(bits); });
  NNFwdPassFromFile pass(reduced);
  MatrixXf outputs;
  EXPECT_EQ(pass.evaluate(inputs, outputs), 0);
  return outputs;
}

void expectSameAsReduced(const MultiLayerNNModel& model, int bits, std::size_t codedLayers) {
  SCOPED_TRACE(testing::Message() << bits << " bits");
  const auto pass = codedPass(model, bits);
  ASSERT_NE(pass, nullptr);
  EXPECT_EQ(pass->numCodedLayers(), codedLayers);
  for (const Index frames : {0, 1, 3, 8, 37}) {
    const MatrixXf inputs = someValues(model.numInputs(), frames, 5);
    MatrixXf outputs;
    ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
    ASSERT_TRUE(sameValues(outputs, reducedOutputs(model, bits, inputs))) << frames << " frames";
  }
}

// Odd sizes, of which the last layer is too small for codes.
MultiLayerNNModel oddModel() {
  MultiLayerNNModel model = modelOf({plainLayer(257, 300, 1), batchNormLayer(300, 229, 2),
                                     foldedLayer(229, 321, 3), plainLayer(321, 13, 4)});
  model.setActFn(ActFn::tanh);
  return model;
}

// --- Values ---

TEST(CodedFwdPassValues, areToTheBitThoseOfTheReducedModel) {
  MultiLayerNNModel model = oddModel();
  for (int bits = CodedFwdPass::kMinBits; bits <= CodedFwdPass::kMaxBits; ++bits) {
    expectSameAsReduced(model, bits, 3);
  }
  model.useSoftmax = true;
  expectSameAsReduced(model, 8, 3);
}

TEST(CodedFwdPassValues, sameInRangesOfAllKinds) {
  const auto ranges = std::vector<std::pair<float, float>>{{0, 1},
                                                           {-1, 0},
                                                           {3, 3.0000002f},
                                                           {-1e-30f, 1},
                                                           {1e30f, 2e30f},
                                                           {-7e-41f, kDenormal * 9},
                                                           {-kMax / 2.5f, kMax / 2.5f},
                                                           {-0.0f, 0.0f}};
  for (const auto& [low, high] : ranges) {
    SCOPED_TRACE(testing::Message() << low << " to " << high);
    MultiLayerNNModel model = modelOf({plainLayer(300, 230, 1)});
    NNLayer& layer = *model.layers[0];
    const auto inRange = [low = low, high = high](float x) {
      const float share = std::abs(x) - std::floor(std::abs(x));
      return low + (high - low) * share;
    };
    layer.weights = layer.weights.unaryExpr(inRange).eval();
    layer.bias.setConstant(low);
    for (const int bits : {1, 3, 4, 7, 8}) {
      const auto pass = codedPass(model, bits);
      const MatrixXf inputs = 1e-3f * someValues(300, 3, 5);
      MatrixXf outputs;
      ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
      EXPECT_TRUE(sameValues(outputs, reducedOutputs(model, bits, inputs))) << bits;
    }
  }
}

// Where weights were clipped, many lie on the last point, which has no code of its own.
TEST(CodedFwdPassValues, sameWhereManyWeightsAreOnTheLastPoint) {
  MultiLayerNNModel model = oddModel();
  for (NNLayer* layer : model.layers) {
    layer->weights = layer->weights.cwiseMax(-0.3f).cwiseMin(0.3f).eval();
    layer->bias = layer->bias.cwiseMax(-0.3f).cwiseMin(0.3f).eval();
  }
  model.layers[1]->weights.row(200).setConstant(0.3f);
  model.layers[2]->weights.col(7).setConstant(0.3f);
  model.layers[2]->weights.col(228).setConstant(0.3f);
  for (const int bits : {3, 4, 5, 8}) expectSameAsReduced(model, bits, 3);
}

TEST(CodedFwdPassValues, sameWhereWeightsAreNotNumbers) {
  MultiLayerNNModel model = oddModel();
  model.layers[0]->weights(5, 9) = kNaN;
  model.layers[1]->weights(200, 299) = -kNaN;
  expectSameAsReduced(model, 8, 3);
  expectSameAsReduced(model, 4, 3);
  model.layers[0]->bias[0] = kNaN;  // the first value of the range, which keeps it
  const auto pass = codedPass(model, 8);
  const MatrixXf inputs = someValues(257, 2, 5);
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameValues(outputs, reducedOutputs(model, 8, inputs)));
}

TEST(CodedFwdPassValues, sameWhereTheRangeIsNotFinite) {
  for (const float value : {kInfinity, -kInfinity, kMax}) {
    MultiLayerNNModel model = oddModel();
    model.layers[1]->weights(3, 4) = value;
    model.layers[2]->weights(3, 4) = -value;
    for (const int bits : {4, 8}) {
      const auto pass = codedPass(model, bits);
      const MatrixXf inputs = someValues(257, 3, 5);
      MatrixXf outputs;
      ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
      EXPECT_TRUE(sameValues(outputs, reducedOutputs(model, bits, inputs))) << value;
    }
  }
}

TEST(CodedFwdPassValues, framesThatAreNotNumbersSpoilNoOther) {
  const auto pass = codedPass(oddModel(), 8);
  MatrixXf inputs = someValues(257, 3, 2);
  MatrixXf clean;
  ASSERT_EQ(pass->evaluate(inputs, clean), 0);
  inputs(1, 1) = kNaN;
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs.col(0), clean.col(0)));
  EXPECT_TRUE(outputs.col(1).array().isNaN().all());
  EXPECT_TRUE(sameBits(outputs.col(2), clean.col(2)));
}

TEST(CodedFwdPassValues, doNotFollowTheModel) {
  auto model = std::make_unique<MultiLayerNNModel>(oddModel());
  const auto pass = codedPass(*model, 8);
  const MatrixXf inputs = someValues(257, 2, 5);
  const MatrixXf expected = reducedOutputs(*model, 8, inputs);
  model->zeros();
  model.reset();
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
}

// --- Every instruction set ---

// A layer of random weights in both forms.
struct BothForms {
  BothForms(int inputs, int outputs, int bits)
      : model(modelOf({plainLayer(inputs, outputs, 1)})),
        coded(*model.layers[0], mlnn::PrecisionGrid(*mlnn::parameterRange(model.layers), bits),
              bits, 1) {
    stderrOf([&] { model.retainPrecisionBits(bits); });
    NNLayer& layer = *model.layers[0];
    floats = {layer.weights.data(),
              static_cast<std::size_t>(outputs),
              static_cast<std::size_t>(inputs),
              nullptr,
              layer.bias.data(),
              layer.actFn};
  }

  MultiLayerNNModel model;
  CodedLayer coded;
  mlnn::LayerView floats{};
};

void expectSameKernels(const mlnn::Kernels& kernels, const BothForms& layer, std::size_t frames) {
  const mlnn::LayerView coded = layer.coded.view();
  ASSERT_NE(coded.coded, nullptr);
  const MatrixXf x = someValues(static_cast<Index>(coded.cols), static_cast<Index>(frames), 6);
  std::vector<float> room(mlnn::scratchFloats(coded.rows, frames) + 16);
  float* scratch = room.data();
  while (reinterpret_cast<std::uintptr_t>(scratch) % 64 != 0) ++scratch;
  MatrixXf results[2];
  for (const bool isCoded : {false, true}) {
    MatrixXf& y = results[isCoded ? 1 : 0];
    y = MatrixXf::Constant(static_cast<Index>(coded.rows) + 1, static_cast<Index>(frames), 7);
    const mlnn::LayerView& view = isCoded ? coded : layer.floats;
    if (frames == 1) {
      kernels.matrixVector(view, x.data(), y.data(), scratch);
    } else {
      kernels.matrixFrames(view, x.data(), coded.cols, y.data(), coded.rows + 1, frames, scratch);
    }
    EXPECT_TRUE((y.bottomRows(1).array() == 7.0f).all());
  }
  EXPECT_TRUE(sameBits(results[0], results[1]))
      << kernels.name << ", " << coded.rows << " x " << coded.cols << ", " << frames << " frames";
}

TEST(CodedKernels, giveTheBitsOfTheSameKernelsOverFloats) {
  for (const mlnn::Kernels* kernels : mlnn::runnableKernels()) {
    for (int bits = 1; bits <= 8; ++bits) {
      for (const auto& [inputs, outputs] : std::vector<std::pair<int, int>>{
               {1031, 64}, {1040, 129}, {129, 520}, {515, 191}, {2100, 33}, {2300, 32}}) {
        if (bits > 4 && outputs <= 33) continue;  // a padded panel that does not pay
        const BothForms layer(inputs, outputs, bits);
        for (const std::size_t frames : {1u, 2u, 5u, 8u, 17u}) {
          expectSameKernels(*kernels, layer, frames);
        }
      }
    }
  }
}

// --- Memory ---

TEST(CodedFwdPassMemory, isOneByteAWeightOrHalf) {
  MultiLayerNNModel model = modelOf({plainLayer(512, 640, 1), plainLayer(640, 512, 2)});
  const std::size_t weights = 2 * 512 * 640;
  const std::size_t others = (640 + 512) * sizeof(float);
  const std::size_t tables = 8 * 1024;  // what a code stands for, and the largest weights
  for (int bits = 1; bits <= 8; ++bits) {
    const auto pass = codedPass(model, bits);
    const std::size_t codes = bits <= 4 ? weights / 2 : weights;
    EXPECT_EQ(pass->numCodedLayers(), 2u);
    EXPECT_GE(pass->weightBytes(), codes + others);
    EXPECT_LE(pass->weightBytes(), codes + others + (bits <= 2 ? 64 * tables : tables)) << bits;
  }
}

TEST(CodedFwdPassMemory, smallLayersStayFloatForSpeed) {
  MultiLayerNNModel model = modelOf({plainLayer(600, 256, 1), plainLayer(256, 40, 2)});
  const auto pass = CodedFwdPass::create(model, 8);
  EXPECT_EQ(pass->numCodedLayers(), 0u);
  EXPECT_EQ(pass->weightBytes(), sizeof(float) * (600 * 256 + 256 + 256 * 40 + 40));
  const MatrixXf inputs = someValues(600, 3, 5);
  MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, reducedOutputs(model, 8, inputs)));
  EXPECT_LT(codedPass(model, 8)->weightBytes(), pass->weightBytes() / 3);
}

TEST(CodedFwdPassMemory, largeLayersAreCodedForSpeed) {
  const MultiLayerNNModel model = modelOf({plainLayer(512, 512, 1), plainLayer(512, 64, 2)});
  EXPECT_EQ(CodedFwdPass::create(model, 8)->numCodedLayers(), 1u);
}

TEST(CodedFwdPassMemory, layersOfFewOutputsStayFloatWhereCodesDoNotPay) {
  MultiLayerNNModel model = modelOf({plainLayer(30000, 10, 1)});
  expectSameAsReduced(model, 8, 0);
  expectSameAsReduced(model, 4, 0);
}

TEST(CodedFwdPassMemory, nothingIsAllocatedAfterTheFirstCall) {
  const auto pass = codedPass(oddModel(), 8);
  for (const Index frames : {1, 30}) {
    const MatrixXf inputs = someValues(257, frames, 1);
    MatrixXf outputs;
    ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
    const mlnn::test::AllocationWatch watch;
    for (int round = 0; round < 5; ++round) pass->evaluate(inputs, outputs);
    EXPECT_EQ(watch.allocations(), 0u) << frames << " frames";
  }
}

// --- Sharing ---

TEST(CodedFwdPassSharing, takesWorkingMemoryOnly) {
  const auto pass = codedPass(oddModel(), 8);
  const MatrixXf inputs = someValues(257, 3, 1);
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  MatrixXf outputs = expected;
  const mlnn::test::AllocationWatch watch;
  const auto other = pass->another();
  EXPECT_LT(watch.total(), 512u);
  ASSERT_EQ(other->evaluate(inputs, outputs), 0);
  EXPECT_LT(watch.peak(), other->workingBytes(3) + 4 * 4096);
  EXPECT_TRUE(sameBits(outputs, expected));
  EXPECT_EQ(other->weightBytes(), pass->weightBytes());
  EXPECT_EQ(other->numCodedLayers(), pass->numCodedLayers());
}

TEST(CodedFwdPassSharing, outlivesTheFirst) {
  auto pass = codedPass(oddModel(), 4);
  const MatrixXf inputs = someValues(257, 3, 1);
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  const auto other = pass->another()->another();
  pass.reset();
  MatrixXf outputs;
  ASSERT_EQ(other->evaluate(inputs, outputs), 0);
  EXPECT_TRUE(sameBits(outputs, expected));
}

TEST(CodedFwdPassSharing, servesSeveralThreads) {
  const auto pass = codedPass(oddModel(), 8);
  const MatrixXf inputs = someValues(257, 20, 1);
  MatrixXf expected;
  ASSERT_EQ(pass->evaluate(inputs, expected), 0);
  std::array<int, 4> equalResults = {};
  std::vector<std::thread> threads;
  for (int& equal : equalResults) {
    threads.emplace_back([&] {
      MatrixXf outputs;
      for (int round = 0; round < 10; ++round) {
        const auto mine = pass->another();
        if (mine->evaluate(inputs, outputs) == 0 && sameBits(outputs, expected)) ++equal;
      }
    });
  }
  MatrixXf outputs;
  for (int round = 0; round < 10; ++round) pass->evaluate(inputs, outputs);
  for (std::thread& thread : threads) thread.join();
  for (const int equal : equalResults) EXPECT_EQ(equal, 10);
  EXPECT_TRUE(sameBits(outputs, expected));
}

// --- Refusals ---

TEST(CodedFwdPassRefusal, ofBitsThatDoNotFitAByte) {
  for (const int bits : {-1, 0, 9, 31}) {
    std::unique_ptr<CodedFwdPass> pass;
    EXPECT_EQ(
        stderrOf([&] { pass = CodedFwdPass::create(oddModel(), bits); }),
        "ERROR: CodedFwdPass::create: bits must be 1 to 8, got " + std::to_string(bits) + "\n");
    EXPECT_EQ(pass, nullptr);
  }
}

TEST(CodedFwdPassRefusal, ofModelsThatCannotBeEvaluated) {
  std::unique_ptr<CodedFwdPass> pass;
  EXPECT_EQ(stderrOf([&] { pass = CodedFwdPass::create(MultiLayerNNModel(), 8); }),
            "ERROR: CodedFwdPass::create: model has no layers\n");
  EXPECT_EQ(pass, nullptr);
  const MultiLayerNNModel torn = modelOf({plainLayer(4, 3), plainLayer(2, 2)});
  EXPECT_EQ(stderrOf([&] { pass = CodedFwdPass::create(torn, 8); }),
            "ERROR: CodedFwdPass::create: layer 2 does not fit the model\n");
  EXPECT_EQ(pass, nullptr);
}

TEST(CodedFwdPassRefusal, ofInputsOfAnotherWidth) {
  const auto pass = codedPass(oddModel(), 8);
  MatrixXf outputs = MatrixXf::Constant(2, 2, 3);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass->evaluate(MatrixXf(256, 1), outputs), 1); }),
            "ERROR: CodedFwdPass::evaluate: expected 257 inputs but got 256\n");
  EXPECT_TRUE(sameBits(outputs, MatrixXf::Constant(2, 2, 3)));
}

TEST(CodedFwdPassShapes, emptyModelsAreEvaluated) {
  MultiLayerNNModel model = modelOf({NNLayer(0, 2, false), NNLayer(2, 0, false)});
  expectSameAsReduced(model, 8, 0);
  EXPECT_EQ(codedPass(model, 8)->numInputs(), 0);
  EXPECT_EQ(codedPass(oddModel(), 8)->numOutputs(), 13);
}

}  // namespace
