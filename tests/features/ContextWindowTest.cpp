#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>
#include <limits>
#include <new>
#include <optional>
#include <stdexcept>
#include <vector>

#include "features/ContextWindow.h"
#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/DigitsFolder.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using mlnn::ContextWindow;
using mlnn::test::sameBits;
using mlnn::test::someValues;

constexpr int kMaxInt = std::numeric_limits<int>::max();

DbnFeatureDescription windowOf(int left, int right) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.winSizeLeft = left;
  desc.winSizeRight = right;
  return desc;
}

MelDeltasNorm randomNorm() {
  MelDeltasNorm norm;
  norm.minvals = someValues(120, 1, 1);
  norm.normvals = someValues(120, 1, 2);
  return norm;
}

// A window that must be possible.
ContextWindow make(int left, int right, int frameLen, const MelDeltasNorm& norm = {}) {
  std::string whyNot;
  const std::optional<ContextWindow> window =
      ContextWindow::create(windowOf(left, right), norm, frameLen, whyNot);
  if (!window) throw std::logic_error(whyNot);
  EXPECT_EQ(whyNot, "");
  return *window;
}

MatrixXf stacked(const ContextWindow& window, const MatrixXf& frames) {
  MatrixXf inputs = MatrixXf::Constant(2, 3, 99);  // what the target held before
  EXPECT_TRUE(window.stack(frames, inputs));
  return inputs;
}

// What push and finish give for the frames, and that they give it when they should.
MatrixXf streamed(ContextWindow& window, const MatrixXf& frames) {
  MatrixXf inputs(window.inputLen(), frames.cols());
  Index count = 0;
  Eigen::VectorXf input = Eigen::VectorXf::Constant(window.inputLen(), 99);
  const auto take = [&](bool given) {
    if (given) {
      inputs.col(count++) = input;
      input.setConstant(99);
    } else {
      EXPECT_TRUE((input.array() == 99).all());  // left alone
    }
    return given;
  };
  for (Index t = 0; t < frames.cols(); ++t) {
    EXPECT_EQ(take(window.push(frames.col(t).data(), input.data())), t >= window.delay()) << t;
  }
  while (count < frames.cols() && take(window.finish(input.data()))) {
  }
  EXPECT_EQ(count, frames.cols());
  EXPECT_FALSE(take(window.finish(input.data())));
  return inputs;
}

// --- Stacking ---

TEST(ContextWindowStack, putsTheFramesAroundEachOneOldestFirst) {
  MatrixXf frames(2, 4);
  frames << 1, 2, 3, 4,  //
      10, 20, 30, 40;
  MatrixXf expected(8, 4);  // two frames to the left, one to the right
  expected << 1, 1, 1, 2,   //
      10, 10, 10, 20,       //
      1, 1, 2, 3,           //
      10, 10, 20, 30,       //
      1, 2, 3, 4,           //
      10, 20, 30, 40,       //
      2, 3, 4, 4,           //
      20, 30, 40, 40;
  EXPECT_TRUE(sameBits(stacked(make(2, 1, 2), frames), expected));
}

TEST(ContextWindowStack, withoutContextGivesTheFrames) {
  const MatrixXf frames = someValues(3, 5, 1);
  EXPECT_TRUE(sameBits(stacked(make(0, 0, 3), frames), frames));
}

TEST(ContextWindowStack, oneFrameIsRepeatedThroughTheWindow) {
  const MatrixXf frame = someValues(3, 1, 1);
  EXPECT_TRUE(sameBits(stacked(make(7, 6, 3), frame), frame.replicate(14, 1)));
}

TEST(ContextWindowStack, noFramesGiveNoInputs) {
  const MatrixXf inputs = stacked(make(2, 1, 3), MatrixXf(3, 0));
  EXPECT_EQ(inputs.rows(), 12);
  EXPECT_EQ(inputs.cols(), 0);
}

TEST(ContextWindowStack, takesColumnsOfALargerMatrix) {
  const MatrixXf large = someValues(9, 6, 1);
  const MatrixXf frames = large.block(2, 1, 3, 4);
  MatrixXf inputs;
  ASSERT_TRUE(make(1, 1, 3).stack(large.block(2, 1, 3, 4), inputs));
  EXPECT_TRUE(sameBits(inputs, stacked(make(1, 1, 3), frames)));
}

TEST(ContextWindowStack, mayReplaceTheFrames) {
  for (const int right : {0, 2}) {
    MatrixXf both = someValues(3, 6, 1);
    const MatrixXf expected = stacked(make(0, right, 3, randomNorm()), both);
    ASSERT_TRUE(make(0, right, 3, randomNorm()).stack(both, both));
    EXPECT_TRUE(sameBits(both, expected));
  }
}

// The frames lie at the end of their memory, so that a sanitizer sees what is read behind them.
TEST(ContextWindowStack, refusesFramesOfAnotherLength) {
  for (const MelDeltasNorm& norm : {MelDeltasNorm(), randomNorm()}) {
    for (const Index length : {0, 1, 2, 4, 120}) {
      for (const Index count : {0, 1, 5}) {
        const MatrixXf frames = someValues(length, count, 1);
        const MatrixXf before = someValues(2, 3, 2);
        MatrixXf inputs = before;
        EXPECT_FALSE(make(2, 1, 3, norm).stack(frames, inputs));
        EXPECT_TRUE(sameBits(inputs, before));
      }
    }
  }
}

TEST(ContextWindowStack, tellsItsLengths) {
  const ContextWindow window = make(7, 6, 120, randomNorm());
  EXPECT_EQ(window.frameLen(), 120);
  EXPECT_EQ(window.inputLen(), 14 * 120);
  EXPECT_EQ(window.delay(), 6);
}

// The values are normalised before they are stacked, each once, so a repeated frame has the
// same bits at every place.
MatrixXf stackedByHand(MatrixXf frames, int left, int right, const MelDeltasNorm& norm) {
  for (Index t = 0; t < frames.cols(); ++t) {
    for (Index i = 0; i < frames.rows(); ++i) {
      const float difference = frames(i, t) - norm.minvals[i];
      frames(i, t) = difference * norm.normvals[i];
    }
  }
  MatrixXf inputs((left + 1 + right) * frames.rows(), frames.cols());
  for (Index t = 0; t < frames.cols(); ++t) {
    for (Index offset = -left; offset <= right; ++offset) {
      const Index source = std::min(std::max(t + offset, Index{0}), frames.cols() - 1);
      inputs.block((left + offset) * frames.rows(), t, frames.rows(), 1) = frames.col(source);
    }
  }
  return inputs;
}

// --- Normalisation ---

TEST(ContextWindowNormalisation, takesTwoRoundingsAValue) {
  const MatrixXf frames = 10 * someValues(120, 30, 5);
  EXPECT_TRUE(sameBits(stacked(make(3, 2, 120, randomNorm()), frames),
                       stackedByHand(frames, 3, 2, randomNorm())));
  // A case that one rounding would miss: 1 + 2^-24 is rounded to 1 before it is multiplied.
  MelDeltasNorm norm;
  norm.allocIfNeeded();
  norm.minvals[0] = -std::ldexp(1.0f, -24);
  norm.normvals[0] = 1.5f;
  EXPECT_EQ(stacked(make(0, 0, 120, norm), MatrixXf::Ones(120, 1))(0, 0), 1.5f);
}

TEST(ContextWindowNormalisation, narrowerFrameUsesTheFirstValues) {
  const MatrixXf frames = someValues(40, 9, 5);
  EXPECT_TRUE(sameBits(stacked(make(1, 2, 40, randomNorm()), frames),
                       stackedByHand(frames, 1, 2, randomNorm())));
}

TEST(ContextWindowNormalisation, absentOrIdentityLeavesTheBits) {
  MelDeltasNorm identity;
  identity.allocIfNeeded();
  for (const MelDeltasNorm& norm : {MelDeltasNorm(), identity}) {
    for (const int frameLen : {1, 119, 120, 121, 500}) {
      const MatrixXf frames = someValues(frameLen, 4, 6);
      EXPECT_TRUE(sameBits(stacked(make(0, 0, frameLen, norm), frames), frames)) << frameLen;
    }
  }
}

TEST(ContextWindowNormalisation, oneArrayAloneCounts) {
  MelDeltasNorm shift;
  shift.allocIfNeeded();
  shift.minvals[119] = 1;
  MelDeltasNorm scale;
  scale.allocIfNeeded();
  scale.normvals[119] = 2;
  const MatrixXf frames = MatrixXf::Constant(120, 1, 5);
  EXPECT_EQ(stacked(make(0, 0, 120, shift), frames)(119, 0), 4.0f);
  EXPECT_EQ(stacked(make(0, 0, 120, scale), frames)(119, 0), 10.0f);
}

TEST(ContextWindowNormalisation, isCopiedWhenTheWindowIsMade) {
  MelDeltasNorm norm = randomNorm();
  const ContextWindow window = make(1, 1, 120, norm);
  norm.minvals.setZero();
  norm.normvals.resize(0);
  const MatrixXf frames = someValues(120, 3, 5);
  EXPECT_TRUE(sameBits(stacked(window, frames), stackedByHand(frames, 1, 1, randomNorm())));
}

// --- Streaming ---

TEST(ContextWindowStream, equalsStackingForEverySizeAndLength) {
  for (const int left : {0, 1, 2, 3, 7}) {
    for (const int right : {0, 1, 2, 3, 7}) {
      ContextWindow window = make(left, right, 3, randomNorm());
      for (Index count = 0; count <= 20; ++count) {  // one recording after the other
        const MatrixXf frames = someValues(3, count, static_cast<uint32_t>(count));
        EXPECT_TRUE(sameBits(streamed(window, frames), stacked(window, frames)))
            << left << " + 1 + " << right << ", " << count << " frames";
      }
    }
  }
}

TEST(ContextWindowStream, waitsForTheFramesToTheRight) {
  ContextWindow window = make(1, 2, 1);
  const float frames[] = {1, 2, 3, 4};
  float input[4] = {};
  EXPECT_FALSE(window.push(&frames[0], input));
  EXPECT_FALSE(window.push(&frames[1], input));
  EXPECT_TRUE(window.push(&frames[2], input));
  EXPECT_EQ(std::vector<float>(input, input + 4), (std::vector<float>{1, 1, 2, 3}));
  EXPECT_TRUE(window.push(&frames[3], input));
  EXPECT_EQ(std::vector<float>(input, input + 4), (std::vector<float>{1, 2, 3, 4}));
  EXPECT_TRUE(window.finish(input));
  EXPECT_EQ(std::vector<float>(input, input + 4), (std::vector<float>{2, 3, 4, 4}));
  EXPECT_TRUE(window.finish(input));
  EXPECT_EQ(std::vector<float>(input, input + 4), (std::vector<float>{3, 4, 4, 4}));
  EXPECT_FALSE(window.finish(input));
}

TEST(ContextWindowStream, finishWithoutFramesGivesNothing) {
  ContextWindow window = make(1, 2, 1);
  float input[4] = {9, 9, 9, 9};
  EXPECT_FALSE(window.finish(input));
  EXPECT_FALSE(window.finish(input));
  EXPECT_EQ(input[0], 9);
}

TEST(ContextWindowStream, resetForgetsTheFramesSoFar) {
  ContextWindow window = make(2, 2, 3, randomNorm());
  const MatrixXf frames = someValues(3, 8, 1);
  Eigen::VectorXf input(window.inputLen());
  for (Index gathered = 0; gathered <= 8; ++gathered) {
    for (Index t = 0; t < gathered; ++t) window.push(frames.col(t).data(), input.data());
    if (gathered % 2 == 1) window.finish(input.data());
    window.reset();
    EXPECT_TRUE(sameBits(streamed(window, frames), stacked(window, frames))) << gathered;
  }
}

TEST(ContextWindowStream, isNotTouchedByStacking) {
  ContextWindow window = make(1, 1, 1);
  const float frames[] = {1, 2};
  float input[3] = {};
  window.push(&frames[0], input);
  EXPECT_EQ(stacked(window, MatrixXf::Constant(1, 5, 7))(0, 0), 7);
  EXPECT_TRUE(window.push(&frames[1], input));
  EXPECT_EQ(std::vector<float>(input, input + 3), (std::vector<float>{1, 1, 2}));
}

TEST(ContextWindowStream, copyGoesOnByItself) {
  ContextWindow window = make(1, 0, 1);
  const float frames[] = {1, 2, 3};
  float input[2] = {};
  window.push(&frames[0], input);
  ContextWindow copy = window;
  window.push(&frames[1], input);
  copy.push(&frames[2], input);
  EXPECT_EQ(std::vector<float>(input, input + 2), (std::vector<float>{1, 3}));
}

TEST(ContextWindowStream, allocatesNothing) {
  ContextWindow window = make(7, 7, 120, randomNorm());
  const MatrixXf frames = someValues(120, 30, 1);
  Eigen::VectorXf input(window.inputLen());
  const mlnn::test::AllocationWatch watch;
  for (Index t = 0; t < frames.cols(); ++t) window.push(frames.col(t).data(), input.data());
  while (window.finish(input.data())) {
  }
  EXPECT_EQ(watch.allocations(), 0u);
}

// --- Refusals ---

struct Refusal {
  int left, right, frameLen;
  std::string whyNot;
};

TEST(ContextWindowRefusal, tellsWhy) {
  const Refusal cases[] = {
      {1, 1, 0, "a frame of 0 values is not possible"},
      {1, 1, -3, "a frame of -3 values is not possible"},
      {-1, 1, 3, "the window of -1 frames to the left and 1 to the right is not possible"},
      {1, -1, 3, "the window of 1 frames to the left and -1 to the right is not possible"},
      {-1, 1, 0, "a frame of 0 values is not possible"},
      {kMaxInt, 0, 1, "2147483648 frames of 1 values are more than an input vector can hold"},
      {kMaxInt, kMaxInt, 1, "4294967295 frames of 1 values are more than an input vector can hold"},
      {9, 0, 214748365, "10 frames of 214748365 values are more than an input vector can hold"},
      {0, 0, 121, "the normalisation has 120 values, but a frame has 121"},
  };
  for (const Refusal& c : cases) {
    std::string whyNot;
    EXPECT_FALSE(
        ContextWindow::create(windowOf(c.left, c.right), randomNorm(), c.frameLen, whyNot));
    EXPECT_EQ(whyNot, c.whyNot);
  }
}

TEST(ContextWindowRefusal, normalisationWithOneShortArray) {
  MelDeltasNorm norm = randomNorm();
  norm.normvals.resize(0);
  std::string whyNot;
  EXPECT_FALSE(ContextWindow::create(windowOf(0, 0), norm, 120, whyNot));
  EXPECT_EQ(whyNot, "the normalisation has 0 values, but a frame has 120");

  norm = randomNorm();
  norm.minvals = someValues(40, 1, 1);
  EXPECT_FALSE(ContextWindow::create(windowOf(0, 0), norm, 41, whyNot));
  EXPECT_EQ(whyNot, "the normalisation has 40 values, but a frame has 41");
  EXPECT_TRUE(ContextWindow::create(windowOf(0, 0), norm, 40, whyNot));
}

TEST(ContextWindowRefusal, doesNotMeetTheLongestInputVector) {
  constexpr int kFrame = 1 << 30;  // two of them are more than an int tells
  std::string whyNot;
  bool isRefused = false;
  try {
    isRefused = !ContextWindow::create(windowOf(0, 0), {}, kFrame, whyNot);
  } catch (const std::bad_alloc&) {  // four gigabytes are for the machine to refuse
  }
  EXPECT_FALSE(isRefused) << whyNot;
}

TEST(ContextWindowRefusal, writesNothing) {
  std::string whyNot;
  EXPECT_EQ(mlnn::test::stderrOf(
                [&] { EXPECT_FALSE(ContextWindow::create(windowOf(-1, 0), {}, 1, whyNot)); }),
            "");
}

// --- Recorded frames ---

// Names of the recordings whose stacked input vectors are there.
std::vector<std::string> stackedRecordings(const std::string& folder) {
  std::ifstream labels(folder + "/labels.csv");
  std::string line;
  std::getline(labels, line);
  std::vector<std::string> names;
  while (names.size() < 3 && std::getline(labels, line)) {
    const std::string name = line.substr(0, line.find(','));
    names.push_back(name.substr(0, name.find('.')));
  }
  return names;
}

void expectStackedRecordings(const std::string& modelFile, const std::string& stackedFolder) {
  const std::string folder = mlnn::test::digitsFolder();
  if (folder.empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  MultiLayerNNModel model;
  mlnn::test::stderrOf([&] { model.deserialize((folder + "/" + modelFile).c_str()); });
  ASSERT_GT(model.featureDesc.winSizeLeft, 0);
  std::string whyNot;
  std::optional<ContextWindow> window =
      ContextWindow::create(model.featureDesc, model.deltasNorm, 120, whyNot);
  ASSERT_TRUE(window) << whyNot;
  EXPECT_EQ(window->inputLen(), model.numInputs());

  const std::vector<std::string> names = stackedRecordings(folder);
  ASSERT_EQ(names.size(), 3u);
  for (const std::string& name : names) {
    const MatrixXf frames = mlnn::test::readNpyFloats(folder + "/frames/" + name + ".npy");
    const MatrixXf expected =
        mlnn::test::readNpyFloats(folder + "/" + stackedFolder + "/" + name + ".npy");
    ASSERT_GT(expected.size(), 0);
    EXPECT_TRUE(sameBits(stacked(*window, frames), expected)) << name;
    EXPECT_TRUE(sameBits(streamed(*window, frames), expected)) << name;
  }
}

TEST(ContextWindowRecordings, areStackedToTheBitForTheSmallNetwork) {
  expectStackedRecordings("digits-small.txt", "stacked-small");
}

TEST(ContextWindowRecordings, areStackedToTheBitForTheBatchNormNetwork) {
  expectStackedRecordings("digits-bn.txt", "stacked-bn");
}

}  // namespace
