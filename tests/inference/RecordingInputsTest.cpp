#include <gtest/gtest.h>

#include <limits>
#include <string>

#include "inference/RecordingInputs.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::RecordingInputs;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::someValues;

// A model of frames of `bands` values in a window of left + 1 + right.
MultiLayerNNModel modelWith(int bands, int left, int right, int numInputs) {
  MultiLayerNNModel model = modelOf({plainLayer(numInputs, 2)});
  model.featureDesc.numBands = bands;
  model.featureDesc.winSizeLeft = left;
  model.featureDesc.winSizeRight = right;
  return model;
}

RecordingInputs inputsFor(const MultiLayerNNModel& model, Eigen::Index width,
                          bool stacked = false) {
  std::string whyNot;
  return RecordingInputs::forFrames(model, width, stacked, "F", whyNot).value();
}

std::string refusalOf(const MultiLayerNNModel& model, Eigen::Index width, bool stacked = false) {
  std::string whyNot;
  RecordingInputs::forFrames(model, width, stacked, "F", whyNot);
  return whyNot;
}

TEST(RecordingInputs, theWidthTellsWhatFramesAre) {
  const MultiLayerNNModel model = modelWith(4, 2, 1, 16);
  EXPECT_FALSE(inputsFor(model, 4).areStacked());
  EXPECT_TRUE(inputsFor(model, 16).areStacked());
  EXPECT_TRUE(inputsFor(model, 16, true).areStacked());
}

TEST(RecordingInputs, otherWidthsAreRefusedWithBothWidths) {
  const MultiLayerNNModel model = modelWith(4, 2, 1, 16);
  EXPECT_EQ(refusalOf(model, 5),
            "F has 5 values in a frame; expected 4 (single frames) or 16 (input vectors)");
  EXPECT_EQ(refusalOf(model, 4, true), "F has 4 values in a frame; expected 16 (input vectors)");
}

TEST(RecordingInputs, whereBothFitTheyAreSingleFrames) {
  const MultiLayerNNModel model = modelWith(4, 0, 0, 4);
  EXPECT_FALSE(inputsFor(model, 4).areStacked());
  EXPECT_TRUE(inputsFor(model, 4, true).areStacked());
}

TEST(RecordingInputs, deltasMakeFramesThreeTimesAsWide) {
  MultiLayerNNModel model = modelWith(4, 1, 0, 24);
  model.featureDesc.useDeltas = true;
  EXPECT_EQ(mlnn::frameWidth(model), 12);
  EXPECT_FALSE(inputsFor(model, 12).areStacked());
}

TEST(RecordingInputs, withoutBandsAFrameHas120ValuesWhereThatGivesTheInputs) {
  EXPECT_EQ(mlnn::frameWidth(modelWith(0, 2, 2, 600)), 120);
  EXPECT_EQ(mlnn::frameWidth(modelWith(0, 0, 0, 120)), 120);
  EXPECT_EQ(mlnn::frameWidth(modelWith(0, 2, 2, 595)), 0);
  EXPECT_EQ(mlnn::frameWidth(modelWith(0, -3, 2, 0)), 0);
  EXPECT_EQ(refusalOf(modelWith(0, 2, 2, 595), 119),
            "F has 119 values in a frame; expected 595 (input vectors); the model does not tell "
            "the width of single frames");
  // 2^32 frames in the window, whose product with 120 is 0 in 32 bits.
  const int most = std::numeric_limits<int>::max();
  EXPECT_EQ(mlnn::frameWidth(modelWith(0, most, most, 0)), 0);
}

TEST(RecordingInputs, aDescriptionThatDoesNotFitMakesNoWindow) {
  const MultiLayerNNModel model = modelWith(4, 2, 2, 16);
  EXPECT_TRUE(inputsFor(model, 16).areStacked());
  EXPECT_EQ(refusalOf(model, 4),
            "F has 4 values in a frame; expected 16 (input vectors); 4 (single frames) in a "
            "window of 5 do not make as many");
}

// An image can ask for a window of any size; nothing of that size may be made.
TEST(RecordingInputs, aHugeWindowIsRefusedBeforeItIsMade) {
  const int most = std::numeric_limits<int>::max();
  EXPECT_EQ(refusalOf(modelWith(1, most, most, 16), 1),
            "F has 1 value in a frame; expected 16 (input vectors); 1 (single frames) in a "
            "window of 4294967295 do not make as many");
  EXPECT_EQ(refusalOf(modelWith(1, most, most - 1, 16), 1).substr(0, 30),
            "F has 1 value in a frame; expe");
}

// Its first layer takes half a million inputs without holding a number.
TEST(RecordingInputs, aModelWithoutOutputsIsRefusedBeforeItsWindowIsMade) {
  MultiLayerNNModel model = modelWith(1, 499999, 0, 500000);
  model.layers[0]->weights.resize(0, 500000);
  EXPECT_EQ(refusalOf(model, 1), "the model has no outputs");
  EXPECT_EQ(refusalOf(MultiLayerNNModel(), 1), "the model has no outputs");
}

// A block of long vectors holds fewer of them.
TEST(RecordingInputs, blocksStayInProportion) {
  const MultiLayerNNModel model = modelWith(1, 2999999, 0, 3000000);
  const RecordingInputs inputs = inputsFor(model, 1);
  const Eigen::MatrixXf frames = someValues(1, 3, 5);
  Eigen::Index done = 0;
  inputs.forEachBlock(frames, [&](const Eigen::Ref<const Eigen::MatrixXf>& block) {
    EXPECT_EQ(block.cols(), 1);
    EXPECT_EQ(block(2999999, 0), frames(0, done++));
  });
  EXPECT_EQ(done, 3);
}

TEST(RecordingInputs, saysWhyFramesCannotBeStacked) {
  MultiLayerNNModel model = modelWith(130, 0, 0, 130);
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.minvals[0] = 1;
  EXPECT_EQ(refusalOf(model, 130),
            "F cannot be stacked: the normalisation has 120 values, but a frame has 130");
}

TEST(RecordingInputs, tellsThatLineKernelsAreLeftOut) {
  MultiLayerNNModel model = modelWith(4, 2, 1, 16);
  EXPECT_FALSE(inputsFor(model, 4).leavesOutLineKernels());
  model.featureDesc.useLineKernels = true;
  EXPECT_TRUE(inputsFor(model, 4).leavesOutLineKernels());
  EXPECT_FALSE(inputsFor(model, 16).leavesOutLineKernels());
}

// All blocks of a recording beside each other.
Eigen::MatrixXf allBlocks(const RecordingInputs& inputs, const Eigen::MatrixXf& frames,
                          Eigen::Index inputLen) {
  Eigen::MatrixXf all(inputLen, frames.cols());
  Eigen::Index done = 0;
  inputs.forEachBlock(frames, [&](const Eigen::Ref<const Eigen::MatrixXf>& block) {
    ASSERT_LE(done + block.cols(), all.cols());
    all.middleCols(done, block.cols()) = block;
    done += block.cols();
  });
  EXPECT_EQ(done, frames.cols());
  return all;
}

TEST(RecordingInputs, blocksGiveTheSameVectorsAsTheWholeRecording) {
  MultiLayerNNModel model = modelWith(4, 3, 2, 24);
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.minvals.setConstant(0.25f);
  std::string whyNot;
  const auto window = mlnn::ContextWindow::create(model.featureDesc, model.deltasNorm, 4, whyNot);
  ASSERT_TRUE(window);
  const RecordingInputs inputs = inputsFor(model, 4);
  for (const Eigen::Index length : {1, 2, 3, 255, 256, 257, 258, 259, 512, 700}) {
    const Eigen::MatrixXf frames = someValues(4, length, 5);
    Eigen::MatrixXf expected;
    window->stack(frames, expected);
    EXPECT_TRUE(sameBits(allBlocks(inputs, frames, 24), expected)) << length;
  }
}

TEST(RecordingInputs, inputVectorsPassUnchanged) {
  const RecordingInputs inputs = inputsFor(modelWith(4, 3, 2, 24), 24);
  const Eigen::MatrixXf frames = someValues(24, 600, 5);
  EXPECT_TRUE(sameBits(allBlocks(inputs, frames, 24), frames));
}

// The vectors that frames make which come so many at a time.
Eigen::MatrixXf vectorsOfArriving(const RecordingInputs& inputs, const Eigen::MatrixXf& frames,
                                  Eigen::Index together, Eigen::Index most) {
  RecordingInputs::Arriving arriving(inputs);
  Eigen::MatrixXf all;
  const auto takeBlocks = [&] {
    while (const auto block = arriving.next(most)) {
      EXPECT_LE(block->cols(), most);
      all.conservativeResize(block->rows(), all.cols() + block->cols());
      all.rightCols(block->cols()) = *block;
    }
  };
  for (Eigen::Index begin = 0; begin < frames.cols(); begin += together) {
    arriving.take(frames.middleCols(begin, std::min(together, frames.cols() - begin)));
    takeBlocks();
  }
  arriving.end();
  takeBlocks();
  return all;
}

TEST(RecordingInputs, framesThatArriveMakeTheSameVectors) {
  for (const Eigen::Index count : {1, 2, 7, 600}) {
    const Eigen::MatrixXf frames = someValues(4, count, 3);
    const MultiLayerNNModel model = modelWith(4, 2, 3, 24);
    const RecordingInputs inputs = inputsFor(model, 4);
    const Eigen::MatrixXf expected = allBlocks(inputs, frames, 24);
    for (const Eigen::Index together : {1, 5, 1000}) {
      EXPECT_TRUE(sameBits(vectorsOfArriving(inputs, frames, together, 1000), expected));
      EXPECT_TRUE(sameBits(vectorsOfArriving(inputs, frames, together, 2), expected));
    }
    const RecordingInputs stacked = inputsFor(modelWith(1, 1, 1, 4), 4);
    EXPECT_TRUE(sameBits(vectorsOfArriving(stacked, frames, 5, 3), frames));
  }
}

TEST(RecordingInputs, aVectorComesWithTheLastFrameOfItsWindow) {
  const RecordingInputs inputs = inputsFor(modelWith(1, 0, 2, 3), 1);
  RecordingInputs::Arriving arriving(inputs);
  arriving.take(Eigen::RowVector2f(1, 2));
  EXPECT_FALSE(arriving.next(1));
  arriving.take(Eigen::MatrixXf::Constant(1, 1, 3));
  EXPECT_EQ(Eigen::MatrixXf(arriving.next(9).value()), Eigen::Vector3f(1, 2, 3));
  EXPECT_FALSE(arriving.next(9));
  arriving.end();
  EXPECT_EQ(arriving.next(9).value().cols(), 2);
  EXPECT_FALSE(arriving.next(9));
}

}  // namespace
