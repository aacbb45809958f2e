// What every forward pass does with frames in memory that belongs to the caller.
#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "inference/CodedFwdPass.h"
#include "inference/FwdPass.h"
#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
#include "inference/NNFwdPassFromFile.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::Dynamic;
using Eigen::Index;
using Eigen::Map;
using Eigen::MatrixXf;
using Eigen::VectorXf;
using mlnn::InputFrames;
using mlnn::OutputFrames;
using mlnn::test::AllocationWatch;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

using RowMajorXf = Eigen::Matrix<float, Dynamic, Dynamic, Eigen::RowMajor>;

// A pass as a program writes one, which knows of matrices only.
class TwoSums final : public FwdPass {
 public:
  int numInputs() const override { return 3; }
  int numOutputs() const override { return 2; }
  int evaluate(const Eigen::Ref<const MatrixXf>& inputs, MatrixXf& outputs) override {
    if (inputs.cols() == 13) return 1;
    const MatrixXf copy = inputs;
    outputs.resize(2, copy.cols());
    outputs.row(0) = copy.row(0) + copy.row(1);
    outputs.row(1) = copy.row(1) + copy.row(2);
    return 0;
  }
};

// A pass of one kind, and what it reads.
struct Subject {
  std::string name;  // in its messages
  MultiLayerNNModel model;
  std::string image;
  std::unique_ptr<FwdPass> pass;
};

MultiLayerNNModel network(const std::vector<int>& widths) {
  std::vector<NNLayer> layers;
  for (std::size_t i = 1; i < widths.size(); ++i) {
    layers.push_back(
        mlnn::test::batchNormLayer(widths[i - 1], widths[i], static_cast<uint32_t>(i)));
  }
  MultiLayerNNModel model = mlnn::test::modelOf(layers);
  model.deltasNorm.allocIfNeeded();
  model.setActFn(ActFn::tanh);
  return model;
}

// Of the model with its layers in integers.
std::unique_ptr<FwdPass> integerPass(MultiLayerNNModel& model) {
  EXPECT_EQ(mlnn::quantizeRows(model, {}), 0);
  auto pass = mlnn::IntegerFwdPass::create(model);
  EXPECT_EQ(pass->numIntegerLayers(), model.layers.size());
  return pass;
}

// All kinds of passes over networks of these widths; the one of the program has its own.
std::vector<std::unique_ptr<Subject>> subjects(const std::vector<int>& widths) {
  std::vector<std::unique_ptr<Subject>> all;
  for (const char* name :
       {"NNFwdPassFromFile", "CodedFwdPass", "ImageFwdPass", "IntegerFwdPass", "FwdPass"}) {
    auto subject = std::make_unique<Subject>();
    subject->name = name;
    subject->model = network(widths);
    subject->image = mlnn::test::ByteImage::of(subject->model).bytes();
    all.push_back(std::move(subject));
  }
  all[0]->pass.reset(all[0]->model.createFwdPass());
  all[1]->pass = mlnn::CodedFwdPass::create(all[1]->model, 8, mlnn::CodesFor::kMemory);
  auto imagePass = std::make_unique<mlnn::ImageFwdPass>();
  stderrOf([&] { EXPECT_EQ(imagePass->open(all[2]->image.data(), all[2]->image.size()), 0); });
  all[2]->pass = std::move(imagePass);
  all[3]->pass = integerPass(all[3]->model);
  all[4]->pass = std::make_unique<TwoSums>();
  return all;
}

MatrixXf matrixOf(const InputFrames& frames) {
  MatrixXf matrix(frames.width, frames.frames);
  for (Index t = 0; t < frames.frames; ++t) {
    for (Index i = 0; i < frames.width; ++i) {
      matrix(i, t) = frames.values[t * frames.frameStride + i * frames.valueStride];
    }
  }
  return matrix;
}

// What the pass gives for a matrix of these frames.
MatrixXf expectedOf(FwdPass& pass, const InputFrames& frames) {
  MatrixXf outputs;
  EXPECT_EQ(pass.evaluate(matrixOf(frames), outputs), 0);
  return outputs;
}

// Runs the pass into room with gaps, and expects the matrix's bits there and nothing in the gaps.
void expectTheMatrixsBits(FwdPass& pass, const InputFrames& inputs, Index gap,
                          const std::string& what) {
  const MatrixXf expected = expectedOf(pass, inputs);
  const Index stride = pass.numOutputs() + gap;
  MatrixXf room = MatrixXf::Constant(stride, inputs.frames, -7.5f);
  const OutputFrames outputs(room.data(), pass.numOutputs(), inputs.frames, stride);
  ASSERT_EQ(pass.evaluate(inputs, outputs), 0) << what;
  EXPECT_TRUE(sameBits(room.topRows(pass.numOutputs()), expected)) << what;
  EXPECT_TRUE((room.bottomRows(gap).array() == -7.5f).all()) << what;
}

// --- Values ---

TEST(FwdPassFrames, giveTheBitsOfMatricesWhateverTheStrides) {
  for (const std::vector<int>& widths : {std::vector<int>{1, 4}, {9, 5}, {40, 70, 33, 10}}) {
    for (const auto& subject : subjects(widths)) {
      FwdPass& pass = *subject->pass;
      const Index width = pass.numInputs();
      for (const Index frames : {0, 1, 2, 8, 9, 37, 256, 257, 600}) {
        const VectorXf memory = someValues((2 * width + 3) * std::max<Index>(frames, 1) + 8, 1, 5);
        const float* const first = memory.data();
        const float* const last = first + memory.size() - 1;
        const InputFrames layouts[] = {
            {first, width, frames},
            {first, width, frames, width + 3},
            {first + 1, width, frames, 1},                        // a window that slides
            {first, width, frames, 0},                            // always the same
            {first, width, frames, 1, frames},                    // rows
            {first, width, frames, 2 * width, 2},                 // every second value
            {last - width + 1, width, frames, -width},            // from the last to the first
            {first + width - 1, width, frames, width, -1},        // values from the last one on
            {last, width, frames, -2 * width, -2},                // all of it
            {first + 2, width, frames, width, 0},                 // one value for all inputs
            {frames > 0 ? first : nullptr, width, frames, width}  // nothing at all
        };
        for (const InputFrames& inputs : layouts) {
          expectTheMatrixsBits(pass, inputs, frames % 3,
                               subject->name + ", " + std::to_string(frames) + " frames, strides " +
                                   std::to_string(inputs.frameStride) + " and " +
                                   std::to_string(inputs.valueStride));
        }
      }
    }
  }
}

TEST(FwdPassFrames, oneFrameHasNoStride) {
  for (const auto& subject : subjects({9, 5})) {
    FwdPass& pass = *subject->pass;
    const VectorXf input = someValues(pass.numInputs(), 1, 5);
    const MatrixXf expected = expectedOf(pass, input);
    for (const Index stride : {Index{0}, Index{-1}, std::numeric_limits<Index>::max(),
                               std::numeric_limits<Index>::min()}) {
      VectorXf output = VectorXf::Zero(pass.numOutputs());
      ASSERT_EQ(pass.evaluate(InputFrames(input.data(), pass.numInputs(), 1, stride),
                              OutputFrames(output.data(), pass.numOutputs(), 1, stride)),
                0);
      EXPECT_TRUE(sameBits(output, expected)) << subject->name;
    }
  }
}

TEST(FwdPassFrames, mayBeWhateverEigenKeepsInMemory) {
  for (const auto& subject : subjects({3, 7, 2})) {
    FwdPass& pass = *subject->pass;
    const MatrixXf inputs = someValues(3, 4, 5);
    const MatrixXf expected = expectedOf(pass, inputs);

    Eigen::Matrix<float, 2, 4> fixed;
    ASSERT_EQ(pass.evaluate(Eigen::Matrix<float, 3, 4>(inputs), fixed), 0);
    EXPECT_TRUE(sameBits(fixed, expected)) << subject->name;

    VectorXf vector(2);
    ASSERT_EQ(pass.evaluate(VectorXf(inputs.col(1)), vector), 0);
    EXPECT_TRUE(sameBits(vector, expected.col(1))) << subject->name;

    Eigen::Array2f array;
    ASSERT_EQ(pass.evaluate(Eigen::Array3f(inputs.col(2).array()), array), 0);
    EXPECT_TRUE(sameBits(array.matrix(), expected.col(2))) << subject->name;

    MatrixXf large = MatrixXf::Zero(5, 9);
    ASSERT_EQ(pass.evaluate(RowMajorXf(inputs), large.block(1, 2, 2, 4)), 0);
    EXPECT_TRUE(sameBits(large.block(1, 2, 2, 4), expected)) << subject->name;
    large.block(1, 2, 2, 4).setZero();
    EXPECT_TRUE(large.isZero(0)) << subject->name;

    std::vector<float> raw(8);
    const MatrixXf transposed = inputs.transpose();
    ASSERT_EQ(pass.evaluate(transposed.transpose(), Map<MatrixXf>(raw.data(), 2, 4)), 0);
    EXPECT_TRUE(sameBits(Map<MatrixXf>(raw.data(), 2, 4), expected)) << subject->name;
  }
}

TEST(FwdPassFrames, inRowsGiveAMatrixItsShape) {
  for (const auto& subject : subjects({3, 7, 2})) {
    FwdPass& pass = *subject->pass;
    const RowMajorXf inputs = someValues(3, 4, 5);
    const MatrixXf expected = expectedOf(pass, MatrixXf(inputs));
    for (MatrixXf outputs : {MatrixXf(), MatrixXf(2, 4), MatrixXf(4, 2), MatrixXf(9, 9)}) {
      ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
      EXPECT_TRUE(sameBits(outputs, expected)) << subject->name;
    }
  }
}

TEST(FwdPassFrames, inputsAndOutputsMayShareMemory) {
  for (const auto& subject : subjects({9, 8, 7})) {
    FwdPass& pass = *subject->pass;
    const Index in = pass.numInputs();
    const Index out = pass.numOutputs();
    for (const Index frames : {1, 2, 300}) {
      const VectorXf before = someValues((in + out) * frames + in, 1, 5);
      // Each frame's outputs in its own place, from one end or the other, behind its inputs, one
      // value further, ahead of the inputs that are still to be read, and in the last input alone.
      struct Places {
        Index inputs, inputStride, outputs, outputStride;
        Index valueStride = 1;
      };
      const Places cases[] = {{0, in, 0, in},
                              {0, in, 0, out},
                              {0, in + out, in, in + out},
                              {0, in, 1, in},
                              {0, in, in * (frames - 1) + 1, out},
                              {in * (frames - 1), -in, 0, in},
                              {in * (frames - 1), -in, 0, out},
                              {0, in, in * frames - 1, out},
                              {0, 1, in * frames - 1, out, frames},
                              {in * frames - 1, -1, in * frames - 1, out, -frames}};
      for (const Places& places : cases) {
        VectorXf memory = before;
        const InputFrames inputs(memory.data() + places.inputs, in, frames, places.inputStride,
                                 places.valueStride);
        const MatrixXf expected = expectedOf(pass, inputs);
        const OutputFrames outputs(memory.data() + places.outputs, out, frames,
                                   places.outputStride);
        ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
        const Map<MatrixXf, 0, Eigen::OuterStride<>> results(
            outputs.values, out, frames, Eigen::OuterStride<>(outputs.frameStride));
        EXPECT_TRUE(sameBits(results, expected)) << subject->name << ", " << frames << " frames";
        Map<MatrixXf, 0, Eigen::OuterStride<>>(memory.data() + places.outputs, out, frames,
                                               Eigen::OuterStride<>(outputs.frameStride)) =
            Map<const MatrixXf, 0, Eigen::OuterStride<>>(before.data() + places.outputs, out,
                                                         frames,
                                                         Eigen::OuterStride<>(outputs.frameStride));
        EXPECT_TRUE(sameBits(memory, before)) << subject->name << ": wrote elsewhere";
      }
    }
  }
}

// --- Refusals ---

void expectRefused(Subject& subject, const InputFrames& inputs, OutputFrames outputs,
                   const std::string& message) {
  const MatrixXf before = someValues(20, 1, 3);
  MatrixXf memory = before;
  if (outputs.values != nullptr) outputs.values = memory.data();
  int result = 0;
  EXPECT_EQ(stderrOf([&] { result = subject.pass->evaluate(inputs, outputs); }),
            "ERROR: " + subject.name + "::evaluate: " + message);
  EXPECT_EQ(result, 1);
  EXPECT_TRUE(sameBits(memory, before));
}

TEST(FwdPassFramesRefusal, saysWhatDoesNotFit) {
  for (const auto& subject : subjects({3, 7, 2})) {
    const VectorXf memory = someValues(20, 1, 1);
    const float* const in = memory.data();
    float room = 0;
    expectRefused(*subject, {in, 4, 2}, {&room, 2, 2}, "expected 3 inputs but got 4\n");
    expectRefused(*subject, {in, -3, 2}, {&room, 2, 2}, "expected 3 inputs but got -3\n");
    expectRefused(*subject, {in, 0, 0}, {&room, 2, 0}, "expected 3 inputs but got 0\n");
    expectRefused(*subject, {in, 3, 2}, {&room, 3, 2},
                  "expected room for 2 outputs but got room for 3\n");
    expectRefused(*subject, {in, 3, 2}, {&room, 0, 2},
                  "expected room for 2 outputs but got room for 0\n");
    expectRefused(*subject, {in, 3, 2}, {&room, 2, 3}, "got 2 frames of inputs but room for 3\n");
    expectRefused(*subject, {in, 3, -1}, {&room, 2, -1},
                  "got -1 frames of inputs but room for -1\n");
    expectRefused(*subject, {in, 3, 2}, {&room, 2, 2, 1},
                  "frames of 2 outputs cannot lie 1 apart\n");
    expectRefused(*subject, {in, 3, 2}, {&room, 2, 2, -2},
                  "frames of 2 outputs cannot lie -2 apart\n");
    expectRefused(*subject, {nullptr, 3, 2}, {&room, 2, 2}, "the inputs are a null pointer\n");
    expectRefused(*subject, {in, 3, 2}, {nullptr, 2, 2}, "the outputs are a null pointer\n");
  }
}

TEST(FwdPassFramesRefusal, ofRowsLeavesTheMatrix) {
  for (const auto& subject : subjects({3, 7, 2})) {
    for (const Index frames : {1, 4}) {
      const MatrixXf before = someValues(2, 4, 3);
      MatrixXf outputs = before;
      int result = 0;
      EXPECT_EQ(stderrOf([&] { result = subject->pass->evaluate(RowMajorXf(5, frames), outputs); }),
                "ERROR: " + subject->name + "::evaluate: expected 3 inputs but got 5\n");
      EXPECT_EQ(result, 1);
      EXPECT_TRUE(sameBits(outputs, before));
    }
  }
}

TEST(FwdPassFramesRefusal, ofAModelComesFirst) {
  MultiLayerNNModel empty;
  Subject subject{"NNFwdPassFromFile", {}, "", std::make_unique<NNFwdPassFromFile>(empty)};
  float room = 0;
  expectRefused(subject, {nullptr, 5, 1}, {&room, 7, 2}, "model has no layers\n");
  MultiLayerNNModel broken =
      mlnn::test::modelOf({mlnn::test::plainLayer(4, 3), mlnn::test::plainLayer(2, 2)});
  subject.pass = std::make_unique<NNFwdPassFromFile>(broken);
  expectRefused(subject, {nullptr, 5, 1}, {&room, 7, 2}, "layer 2 does not fit the model\n");
  subject.name = "ImageFwdPass";
  subject.pass = std::make_unique<mlnn::ImageFwdPass>();
  expectRefused(subject, {nullptr, 5, 1}, {&room, 7, 2}, "model has no layers\n");
}

TEST(FwdPassFramesRefusal, ofAProgramsOwnPassIsHandedOn) {
  TwoSums pass;
  const MatrixXf inputs = someValues(3, 13, 1);
  const MatrixXf before = someValues(2, 13, 3);
  MatrixXf outputs = before;
  EXPECT_EQ(pass.FwdPass::evaluate(InputFrames(inputs), OutputFrames(outputs)), 1);
  EXPECT_TRUE(sameBits(outputs, before));
}

// --- Sizes of nothing ---

TEST(FwdPassFrames, needNoMemoryForNoValues) {
  MultiLayerNNModel noInputs = mlnn::test::modelOf({NNLayer(0, 2, false)});
  noInputs.useSoftmax = false;
  noInputs.layers[0]->bias << 3, 4;
  NNFwdPassFromFile biases(noInputs);
  MatrixXf outputs(2, 700);
  ASSERT_EQ(biases.FwdPass::evaluate(InputFrames(nullptr, 0, 700, -5), OutputFrames(outputs)), 0);
  EXPECT_TRUE(sameBits(outputs, noInputs.layers[0]->bias.replicate(1, 700)));

  MultiLayerNNModel noOutputs = mlnn::test::modelOf({NNLayer(2, 0, false)});
  NNFwdPassFromFile nothing(noOutputs);
  const VectorXf input = someValues(2, 1, 1);
  EXPECT_EQ(nothing.evaluate(InputFrames(input.data(), 2, std::numeric_limits<Index>::max(), 0),
                             OutputFrames(nullptr, 0, std::numeric_limits<Index>::max(), 9)),
            0);
}

// --- Memory ---

// The passes of the library; a program's own takes its matrices.
std::vector<std::unique_ptr<Subject>> libraryPasses(const std::vector<int>& widths) {
  std::vector<std::unique_ptr<Subject>> all = subjects(widths);
  all.pop_back();
  return all;
}

TEST(FwdPassMemory, doesNotFollowFewerFramesThanThereHaveBeen) {
  for (const auto& subject : libraryPasses({40, 70, 10})) {
    FwdPass& pass = *subject->pass;
    const MatrixXf inputs = someValues(40, 600, 1);
    const RowMajorXf rows = inputs;
    MatrixXf outputs(50, 600);
    const auto evaluateAll = [&](Index frames) {
      EXPECT_EQ(pass.evaluate(inputs.leftCols(frames), outputs.block(0, 0, 10, frames)), 0);
      EXPECT_EQ(pass.evaluate(rows.leftCols(frames), outputs.block(0, 0, 10, frames)), 0);
      EXPECT_EQ(pass.evaluate(outputs.block(10, 0, 40, frames), outputs.block(0, 0, 10, frames)),
                0);
    };
    evaluateAll(600);
    const AllocationWatch watch;
    for (const Index frames : {599, 1, 300, 2, 256, 17, 600}) evaluateAll(frames);
    EXPECT_EQ(watch.allocations(), 0u) << subject->name;
  }
}

TEST(FwdPassMemory, isNotTakenForVectorsAndFixedSizes) {
  for (const auto& subject : libraryPasses({40, 70, 10})) {
    FwdPass& pass = *subject->pass;
    const VectorXf vector = someValues(40, 1, 1);
    const Eigen::Matrix<float, 40, 3> fixed = someValues(40, 3, 2);
    const Eigen::Matrix<float, 40, 3, Eigen::RowMajor> rows = fixed;
    MatrixXf outputs;
    VectorXf output(10);
    Eigen::Matrix<float, 10, 3> fixedOutputs;
    ASSERT_EQ(pass.evaluate(rows, fixedOutputs), 0);
    ASSERT_EQ(pass.evaluate(vector, outputs), 0);
    const AllocationWatch watch;
    for (int round = 0; round < 3; ++round) {
      pass.evaluate(vector, outputs);
      pass.evaluate(vector, output);
      pass.evaluate(fixed, fixedOutputs);
      pass.evaluate(rows, fixedOutputs);
      pass.evaluate(Map<const Eigen::Matrix<float, 40, 1>>(fixed.data()), outputs);
    }
    EXPECT_EQ(watch.allocations(), 0u) << subject->name;
  }
}

TEST(FwdPassMemory, isTheSameForInputsInRowsAsForAFewFrames) {
  for (const auto& subject : libraryPasses({40, 10})) {
    FwdPass& pass = *subject->pass;
    const RowMajorXf inputs = someValues(40, 20000, 1);
    MatrixXf outputs(10, 20000);
    const AllocationWatch watch;
    ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
    EXPECT_LT(watch.peak(), 256u * 48u * 2u * sizeof(float) + 80000u) << subject->name;
  }
}

TEST(FwdPassMemory, runningOutOfItLeavesTheOutputs) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  for (const bool overlaps : {false, true}) {
    const MatrixXf before = someValues(4, 12, 2);
    std::size_t failures = 0;
    for (bool done = false; !done;) {
      const auto subject = std::move(subjects({4, 3, 2}).front());
      MatrixXf outputs = before;
      MatrixXf inputs = before;
      const float* const from = overlaps ? outputs.data() : inputs.data();
      const mlnn::test::FailingAllocation failure(failures);
      try {
        subject->pass->evaluate(InputFrames(from, 4, 6, 8, 2), outputs.block(0, 0, 2, 6));
        done = true;
      } catch (const std::bad_alloc&) {
        ++failures;
        EXPECT_TRUE(sameBits(outputs, before));
      }
      EXPECT_EQ(failure.happened(), !done);
    }
    EXPECT_GE(failures, overlaps ? 3u : 2u);
  }
}

MultiLayerNNModel modelOfWidth(int width) {
  return mlnn::test::modelOf(
      {mlnn::test::plainLayer(40, width), mlnn::test::batchNormLayer(width, 707, 2)});
}

TEST(FwdPassMemory, isNotTakenAnewWithThreads) {
  for (const int width : {170, 1030}) {  // of which threads share the frames, or the outputs
    const MultiLayerNNModel model = modelOfWidth(width);
    NNFwdPassFromFile pass(model);
    pass.setThreads(mlnn::Threads::start(3));
    const Eigen::MatrixXf inputs = mlnn::test::someValues(40, 40, 7);
    Eigen::MatrixXf outputs;
    ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
    const mlnn::test::AllocationWatch watch;
    ASSERT_EQ(pass.evaluate(inputs, outputs), 0);
    EXPECT_EQ(watch.allocations(), 0U);
  }
}

TEST(FwdPassMemory, runningOutOfItLeavesTheOutputsWithThreads) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the heap does not let itself be replaced";
  const MultiLayerNNModel model = modelOfWidth(170);
  const Eigen::MatrixXf inputs = mlnn::test::someValues(40, 300, 7);
  const std::shared_ptr<mlnn::Threads> threads = mlnn::Threads::start(3);
  for (std::size_t successes = 0;; ++successes) {
    NNFwdPassFromFile pass(model);
    pass.setThreads(threads);
    Eigen::MatrixXf outputs = Eigen::MatrixXf::Constant(2, 2, 5.0f);
    const mlnn::test::FailingAllocation failing(successes);
    try {
      pass.evaluate(inputs, outputs);
    } catch (const std::bad_alloc&) {
      ASSERT_TRUE(mlnn::test::sameBits(outputs, Eigen::MatrixXf::Constant(2, 2, 5.0f)));
    }
    if (!failing.happened()) {
      EXPECT_GT(successes, 6U);  // the memory of three threads, and the outputs
      return;
    }
  }
}

}  // namespace
