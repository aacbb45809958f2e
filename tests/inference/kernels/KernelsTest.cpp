#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>
#include <vector>

#include "inference/kernels/KernelChoice.h"
#include "inference/kernels/Kernels.h"
#include "layers/BuiltForSize.h"
#include "layers/RowCodes.h"
#include "tests/support/Extent.h"
#include "tests/support/OrderedPass.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::Kernels;
using mlnn::LayerView;
using mlnn::test::someOf;
using mlnn::test::someValues;
using mlnn::test::triesSample;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kMarker = 12345.0f;

// A layer with the arrays that its view points into.
struct Layer {
  Layer(int rows, int cols, ActFn::ActFn fn = ActFn::linear)
      : weights(someValues(rows, cols, 1)),
        scale(someValues(rows, 1, 2)),
        shift(someValues(rows, 1, 3)),
        view{weights.data(),
             static_cast<std::size_t>(rows),
             static_cast<std::size_t>(cols),
             nullptr,
             shift.data(),
             fn} {}

  void useBatchNorm() { view.scale = scale.data(); }

  Eigen::MatrixXf weights;
  Eigen::MatrixXf scale;
  Eigen::MatrixXf shift;
  LayerView view;
};

// Scratch memory as the kernels ask for it.
class Scratch {
 public:
  Scratch(std::size_t rows, std::size_t frames) : values_(mlnn::scratchFloats(rows, frames) + 16) {}

  float* data() {
    const auto past = reinterpret_cast<std::uintptr_t>(values_.data()) % 64;
    return values_.data() + (past == 0 ? 0 : (64 - past) / sizeof(float));
  }

 private:
  std::vector<float> values_;
};

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

void expectBits(const std::vector<float>& expected, const std::vector<float>& found) {
  ASSERT_EQ(expected.size(), found.size());
  for (std::size_t i = 0; i < found.size(); ++i) {
    if (bitsOf(expected[i]) == bitsOf(found[i])) continue;
    FAIL() << "value " << i << ": expected " << expected[i] << ", but found " << found[i];
  }
}

// How far kernels that do not fuse may lie away for one frame: docs/forward-pass.md derives it.
double allowedError(const Layer& layer, const Eigen::VectorXf& x) {
  const Eigen::VectorXd sizes =
      layer.weights.cwiseAbs().cast<double>() * x.cwiseAbs().cast<double>();
  const double largest = sizes.size() == 0 ? 0 : sizes.maxCoeff();
  const double roundings = 131.0 + static_cast<double>(layer.view.cols) / 16;
  return roundings * std::ldexp(1.0, -23) * (largest + 1);
}

void expectAgree(const Kernels& kernels, float expected, float found, double allowed) {
  if (kernels.fuses) {
    ASSERT_EQ(bitsOf(expected), bitsOf(found)) << expected << " and " << found;
  } else {
    ASSERT_NEAR(expected, found, allowed);
  }
}

// What the plain loop makes of each frame.
using Expected = std::vector<std::vector<float>>;

Expected plainFrames(const Layer& layer, const Eigen::MatrixXf& x) {
  Expected expected;
  for (Eigen::Index frame = 0; frame < x.cols(); ++frame) {
    expected.push_back(mlnn::test::orderedLayer(layer.view, x.col(frame).data()));
  }
  return expected;
}

void expectFrame(const Kernels& kernels, const Layer& layer, const Eigen::MatrixXf& x,
                 Eigen::Index frame, const std::vector<float>& expected, const float* found) {
  const double allowed = kernels.fuses ? 0 : allowedError(layer, x.col(frame));
  for (std::size_t row = 0; row < expected.size(); ++row) {
    if (bitsOf(expected[row]) == bitsOf(found[row])) continue;  // a trace takes longer than that
    SCOPED_TRACE(testing::Message() << "frame " << frame << " row " << row);
    ASSERT_NO_FATAL_FAILURE(expectAgree(kernels, expected[row], found[row], allowed));
  }
}

// Evaluates in a buffer whose gaps and ends must stay as they are.
void expectFrames(const Kernels& kernels, const Layer& layer, const Eigen::MatrixXf& x,
                  const Expected& expected) {
  const auto frames = static_cast<int>(x.cols());
  SCOPED_TRACE(testing::Message() << kernels.name << " " << layer.view.rows << "x"
                                  << layer.view.cols << ", " << frames << " frames");
  const std::size_t stride = layer.view.rows + 3;
  std::vector<float> y(stride * static_cast<std::size_t>(frames) + 1, kMarker);
  Scratch scratch(layer.view.rows, 2);
  kernels.matrixFrames(layer.view, x.data(), layer.view.cols, y.data(), stride,
                       static_cast<std::size_t>(frames), scratch.data());
  for (int frame = 0; frame < frames; ++frame) {
    const float* column = y.data() + stride * static_cast<std::size_t>(frame);
    ASSERT_NO_FATAL_FAILURE(
        expectFrame(kernels, layer, x, frame, expected[static_cast<std::size_t>(frame)], column));
    for (std::size_t gap = layer.view.rows; gap < stride; ++gap) ASSERT_EQ(column[gap], kMarker);
  }
  ASSERT_EQ(y.back(), kMarker);
}

void expectFrames(const Kernels& kernels, const Layer& layer, int frames) {
  const Eigen::MatrixXf x = someValues(layer.weights.cols(), frames, 4);
  expectFrames(kernels, layer, x, plainFrames(layer, x));
}

// By all kernels, for which the plain loop runs once.
void expectFrames(const Layer& layer, int frames) {
  const Eigen::MatrixXf x = someValues(layer.weights.cols(), frames, 4);
  const Expected expected = plainFrames(layer, x);
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    ASSERT_NO_FATAL_FAILURE(expectFrames(*kernels, layer, x, expected));
  }
}

void expectVector(const Kernels& kernels, const Layer& layer) {
  SCOPED_TRACE(testing::Message() << kernels.name << " " << layer.view.rows << "x"
                                  << layer.view.cols);
  const Eigen::MatrixXf x = someValues(layer.weights.cols(), 1, 4);
  std::vector<float> y(layer.view.rows + 1, kMarker);
  Scratch scratch(layer.view.rows, 1);
  kernels.matrixVector(layer.view, x.data(), y.data(), scratch.data());
  ASSERT_NO_FATAL_FAILURE(expectFrame(kernels, layer, x, 0, plainFrames(layer, x)[0], y.data()));
  ASSERT_EQ(y.back(), kMarker);
}

TEST(Kernels, bestIsTheFirstRunnableOne) {
  ASSERT_FALSE(mlnn::runnableKernels().empty());
  EXPECT_EQ(mlnn::runnableKernels().front(), &mlnn::bestKernels());
}

TEST(KernelsMatrixVector, keepsTheOrderOfAdditions) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const int rows :
         {0, 1, 3, 4, 5, 8, 10, 12, 16, 17, 31, 32, 33, 40, 64, 65, 100, 255, 256, 257, 300, 513}) {
      for (const int cols : {0, 1, 7, 15, 16, 17, 63, 64, 65, 120, 127, 128, 129, 200, 257, 300}) {
        ASSERT_NO_FATAL_FAILURE(expectVector(*kernels, Layer(rows, cols)));
      }
    }
  }
}

TEST(KernelsMatrixVector, keepsTheOrderWhereWeightsStreamThrough) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const auto& [rows, cols] :
         {std::pair{512, 512}, {1999, 511}, {2000, 300}, {6000, 129}, {30, 30003}}) {
      ASSERT_NO_FATAL_FAILURE(expectVector(*kernels, Layer(rows, cols)));
    }
  }
}

// Makes the weights whole numbers up to `largest` times a scale for each row.
void useRowCodes(Layer& layer, int largest, float firstScale = 0x1.8642p-7f) {
  for (Eigen::Index r = 0; r < layer.weights.rows(); ++r) {
    const float scale = std::ldexp(firstScale, static_cast<int>(r % 8));
    for (Eigen::Index c = 0; c < layer.weights.cols(); ++c) {
      float& weight = layer.weights(r, c);
      weight = std::nearbyint(weight * static_cast<float>(largest)) * scale + 0.0f;
    }
  }
}

// Expects of codes what the weights themselves give.
void expectRowCodes(const Kernels& kernels, const Layer& layer) {
  const auto codes = mlnn::RowCodes::find(layer.weights.data(), layer.view.rows, layer.view.cols);
  ASSERT_TRUE(codes);
  const mlnn::RowCodesView view = codes->view();
  LayerView coded = layer.view;
  coded.weights = nullptr;
  coded.rowCodes = &view;
  const Eigen::MatrixXf x = someValues(static_cast<int>(layer.view.cols), 1, 4);
  std::vector<float> expected(layer.view.rows + 1, kMarker);
  std::vector<float> found(layer.view.rows + 1, kMarker);
  Scratch scratch(layer.view.rows, 1);
  kernels.matrixVector(layer.view, x.data(), expected.data(), scratch.data());
  kernels.rowCodesVector(coded, x.data(), found.data());
  ASSERT_NO_FATAL_FAILURE(expectBits(expected, found));
}

TEST(KernelsRowCodes, giveTheBitsThatTheWeightsGive) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const int largest : {7, 127}) {
      for (const int rows : {1, 3, 10, 15, 16, 17, 31, 32, 33, 64, 100, 257}) {
        for (const int cols : {1, 2, 3, 4, 15, 16, 17, 63, 127, 128, 129, 300}) {
          SCOPED_TRACE(testing::Message() << kernels->name << " " << rows << "x" << cols);
          Layer layer(rows, cols, rows % 2 == 0 ? ActFn::tanh : ActFn::linear);
          useRowCodes(layer, largest);
          if (cols % 2 == 0) layer.useBatchNorm();
          ASSERT_NO_FATAL_FAILURE(expectRowCodes(*kernels, layer));
        }
      }
    }
  }
}

TEST(KernelsRowCodes, takeScalesOfAnySize) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const float scale : {0x1.8642p-126f, 0x1p-149f, 0x1.8642p+110f}) {
      SCOPED_TRACE(testing::Message() << kernels->name << " " << scale);
      Layer layer(100, 33, ActFn::linear);
      useRowCodes(layer, 127, scale);
      ASSERT_NO_FATAL_FAILURE(expectRowCodes(*kernels, layer));
    }
    // As many bits as a float has, which leaves none for a product.
    for (const float scale : {0x1.fffffep-7f, 0x1.800002p-130f, 0x1.234566p+100f}) {
      SCOPED_TRACE(testing::Message() << kernels->name << " " << scale);
      Layer layer(100, 33, ActFn::linear);
      useRowCodes(layer, 1, scale);
      ASSERT_NO_FATAL_FAILURE(expectRowCodes(*kernels, layer));
    }
  }
}

// The layer's weights, `offset` floats behind a cache line and among values that must not matter.
class MisplacedWeights {
 public:
  MisplacedWeights(Layer& layer, std::size_t offset)
      : values_(static_cast<std::size_t>(layer.weights.size()) + 64, kNaN) {
    const auto past = reinterpret_cast<std::uintptr_t>(values_.data()) / sizeof(float) % 16;
    float* const to = values_.data() + 16 + (16 - past) + offset;
    std::copy(layer.weights.data(), layer.weights.data() + layer.weights.size(), to);
    layer.view.weights = to;
  }

 private:
  std::vector<float> values_;
};

// Writes no result before the first or behind the last one.
void expectVectorBetweenMarkers(const Kernels& kernels, const Layer& layer) {
  constexpr std::size_t kAround = 16;
  const Eigen::MatrixXf x = someValues(layer.weights.cols(), 1, 4);
  std::vector<float> y(layer.view.rows + 2 * kAround, kMarker);
  Scratch scratch(layer.view.rows, 1);
  kernels.matrixVector(layer.view, x.data(), y.data() + kAround, scratch.data());
  const Expected expected = plainFrames(layer, x);
  ASSERT_NO_FATAL_FAILURE(expectFrame(kernels, layer, x, 0, expected[0], y.data() + kAround));
  for (std::size_t i = 0; i < kAround; ++i) {
    ASSERT_EQ(y[i], kMarker);
    ASSERT_EQ(y[kAround + layer.view.rows + i], kMarker);
  }
}

TEST(KernelsMatrixVector, keepsTheOrderWhereverWeightsLie) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const auto& [rows, cols] : {std::pair{16, 1},
                                     {16, 130},
                                     {32, 33},
                                     {48, 300},
                                     {64, 120},
                                     {64, 257},
                                     {40, 50},
                                     {255, 9},
                                     {256, 260},
                                     {400, 131}}) {
      std::vector<std::size_t> offsets(16);
      std::iota(offsets.begin(), offsets.end(), std::size_t{0});
      for (const std::size_t offset :
           someOf(offsets, 3, static_cast<std::size_t>(rows + cols) % 3)) {
        SCOPED_TRACE(testing::Message() << kernels->name << " " << rows << "x" << cols
                                        << ", weights off by " << offset);
        Layer layer(rows, cols, ActFn::tanh);
        if (offset % 2 == 1) layer.useBatchNorm();
        const MisplacedWeights weights(layer, offset);
        ASSERT_NO_FATAL_FAILURE(expectVectorBetweenMarkers(*kernels, layer));
        ASSERT_NO_FATAL_FAILURE(expectFrames(*kernels, layer, 3));
      }
    }
  }
}

TEST(KernelsMatrixFrames, keepTheOrderOfAdditions) {
  for (const int rows : {0, 1, 3, 10, 12, 16, 17, 32, 33, 47, 63, 64, 65, 80, 130, 193}) {
    for (const int cols : {0, 1, 16, 63, 64, 100, 257}) {
      const Layer layer(rows, cols);
      const auto first = static_cast<std::size_t>(rows + cols) % 3;  // each in some layer
      for (const int frames : someOf<int>({1, 2, 3, 5, 6, 7, 8, 13, 16, 33}, 3, first)) {
        ASSERT_NO_FATAL_FAILURE(expectFrames(layer, frames));
      }
    }
  }
}

TEST(KernelsMatrixFrames, keepTheOrderInManyFramesAndLargeLayers) {
  ASSERT_NO_FATAL_FAILURE(expectFrames(Layer(64, 600), triesSample() ? 65 : 256));
  ASSERT_NO_FATAL_FAILURE(expectFrames(Layer(1030, 33), triesSample() ? 66 : 192));
  ASSERT_NO_FATAL_FAILURE(expectFrames(Layer(1999, 511), triesSample() ? 3 : 8));
  ASSERT_NO_FATAL_FAILURE(expectFrames(Layer(2000, 520), triesSample() ? 10 : 40));
  ASSERT_NO_FATAL_FAILURE(expectFrames(Layer(1984, 390), triesSample() ? 2 : 7));
}

TEST(KernelsMatrixFrames, keepTheOrderWhereWeightsComeFromTheMemory) {
  const Layer layer(6007, 357);
  for (const int frames : someOf<int>({2, 3, 4, 5, 6, 7, 8, 9}, 4, 1)) {
    ASSERT_NO_FATAL_FAILURE(expectFrames(layer, frames));
  }
}

// Rows `first` to `last` of a layer, by themselves.
LayerView someRows(const Layer& layer, std::size_t first, std::size_t last) {
  LayerView some = layer.view;
  some.weights += first;
  some.rows = last - first;
  some.ofRows = layer.view.rows;
  some.scale = some.scale == nullptr ? nullptr : some.scale + first;
  some.shift += first;
  return some;
}

void expectSomeRows(const Kernels& kernels, const Layer& layer, std::size_t first, std::size_t last,
                    std::size_t frames) {
  SCOPED_TRACE(testing::Message() << kernels.name << " " << layer.view.rows << "x"
                                  << layer.view.cols << ", rows " << first << " to " << last << ", "
                                  << frames << " frames");
  const std::size_t rows = layer.view.rows;
  const LayerView some = someRows(layer, first, last);
  const Eigen::MatrixXf x = someValues(layer.weights.cols(), static_cast<int>(frames), 4);
  std::vector<float> whole(rows * frames, kMarker);
  std::vector<float> found(rows * frames, kMarker);
  Scratch scratch(rows, frames);
  if (frames == 1) {
    kernels.matrixVector(layer.view, x.data(), whole.data(), scratch.data());
    kernels.matrixVector(some, x.data(), found.data() + first, scratch.data());
  } else {
    const std::size_t cols = layer.view.cols;
    kernels.matrixFrames(layer.view, x.data(), cols, whole.data(), rows, frames, scratch.data());
    kernels.matrixFrames(some, x.data(), cols, found.data() + first, rows, frames, scratch.data());
  }
  for (std::size_t i = 0; i < whole.size(); ++i) {
    if (i % rows < first || i % rows >= last) whole[i] = kMarker;
  }
  ASSERT_NO_FATAL_FAILURE(expectBits(whole, found));
}

TEST(Kernels, giveSomeRowsTheBitsThatTheyHaveInTheWholeLayer) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const auto& [rows, cols] :
         {std::pair{20, 70}, {64, 150}, {67, 300}, {300, 40}, {1030, 300}}) {
      Layer layer(rows, cols, ActFn::tanh);
      if (rows % 2 == 0) layer.useBatchNorm();
      const std::size_t all = layer.view.rows;
      for (const std::size_t frames : std::vector<std::size_t>{1, 2, 7, 20, 200}) {
        if (all * frames > 10000 && frames > 7) continue;
        ASSERT_NO_FATAL_FAILURE(expectSomeRows(*kernels, layer, 0, all / 2, frames));
        ASSERT_NO_FATAL_FAILURE(expectSomeRows(*kernels, layer, all / 2, all, frames));
        ASSERT_NO_FATAL_FAILURE(expectSomeRows(*kernels, layer, 3, all - 16, frames));
        ASSERT_NO_FATAL_FAILURE(expectSomeRows(*kernels, layer, all - 1, all, frames));
      }
    }
  }
}

#if !MLNN_BUILT_FOR_SIZE

// Fixes a shape as long as it lives.
class FixedShape {
 public:
  explicit FixedShape(const mlnn::KernelShape& shape) { mlnn::fixKernelShape(&shape); }
  FixedShape(const FixedShape&) = delete;
  FixedShape& operator=(const FixedShape&) = delete;
  ~FixedShape() { mlnn::fixKernelShape(nullptr); }
};

// Every shape with the caches' sizes that it comes with, and with caches so small that every layer
// streams, and those with columns of a page come from the memory.
std::vector<mlnn::KernelShape> shapesToTry() {
  std::vector<mlnn::KernelShape> shapes(mlnn::kKernelShapes.begin(), mlnn::kKernelShapes.end());
  for (mlnn::KernelShape shape : mlnn::kKernelShapes) {
    shape.secondLevelBytes = shape.thirdLevelBytes = 0;
    shapes.push_back(shape);
  }
  return shapes;
}

// A layer with inputs, and what the plain loop makes of them.
struct Example {
  static constexpr int kFrames = 13;

  Example(int rows, int cols)
      : layer(rows, cols, ActFn::tanh), x(someValues(cols, kFrames, 4)), expected(rows, kFrames) {
    for (Eigen::Index frame = 0; frame < kFrames; ++frame) {
      const std::vector<float> plain = mlnn::test::orderedLayer(layer.view, x.col(frame).data());
      std::copy(plain.begin(), plain.end(), expected.col(frame).data());
    }
  }

  // Compares the first frames.
  void expectBy(const Kernels& kernels, int frames) const {
    Eigen::MatrixXf y(layer.weights.rows(), frames);
    Scratch scratch(layer.view.rows, 2);
    kernels.matrixFrames(layer.view, x.data(), layer.view.cols, y.data(), layer.view.rows,
                         static_cast<std::size_t>(frames), scratch.data());
    for (Eigen::Index frame = 0; frame < frames; ++frame) {
      if (kernels.fuses) {
        const std::size_t bytes = layer.view.rows * sizeof(float);
        ASSERT_EQ(std::memcmp(expected.col(frame).data(), y.col(frame).data(), bytes), 0) << frame;
      } else {
        const double error = (expected.col(frame) - y.col(frame)).cwiseAbs().maxCoeff();
        ASSERT_LE(error, allowed(frame)) << frame;
      }
    }
  }

  double allowed(Eigen::Index frame) const { return allowedError(layer, x.col(frame)); }

  Layer layer;
  Eigen::MatrixXf x;
  Eigen::MatrixXf expected;
};

TEST(KernelShapes, giveTheBitsOfThePlainLoop) {
  for (const auto& [rows, cols] : {std::pair{12, 64}, {33, 257}, {130, 260}, {1030, 33}}) {
    const Example example(rows, cols);
    for (const mlnn::KernelShape& shape : shapesToTry()) {
      const FixedShape fixed(shape);
      for (const Kernels* kernels : mlnn::runnableKernels()) {
        SCOPED_TRACE(testing::Message() << shape.name << ", streams from " << shape.secondLevelBytes
                                        << ", " << kernels->name << ", " << rows << "x" << cols);
        for (const int frames : {1, 2, 5, 6, 7, 8, 13}) {
          ASSERT_NO_FATAL_FAILURE(example.expectBy(*kernels, frames));
        }
      }
    }
  }
}

#endif

TEST(Kernels, scaleAndShiftWithOneRoundingThenActivate) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const int rows : {3, 12, 37}) {
      for (int32_t fn = 0; fn < ActFn::kCount; ++fn) {
        Layer layer(rows, 70, static_cast<ActFn::ActFn>(fn));
        ASSERT_NO_FATAL_FAILURE(expectVector(*kernels, layer));
        ASSERT_NO_FATAL_FAILURE(expectFrames(*kernels, layer, 9));
        layer.useBatchNorm();
        ASSERT_NO_FATAL_FAILURE(expectVector(*kernels, layer));
        ASSERT_NO_FATAL_FAILURE(expectFrames(*kernels, layer, 9));
      }
    }
  }
}

TEST(KernelsSoftmax, keepsTheOrderOfAdditions) {
  std::vector<int> counts(70);  // within one vector and two, and more
  std::iota(counts.begin(), counts.end(), 0);
  counts.insert(counts.end(), {100, 2000});
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const int count : counts) {
      const Eigen::MatrixXf values = 20 * someValues(count, 1, 5);
      std::vector<float> found(values.data(), values.data() + count);
      if (count > 0) {
        const std::vector<float> expected = mlnn::test::orderedSoftmax(found);
        kernels->softmax(found.data(), found.size());
        for (std::size_t i = 0; i < found.size(); ++i) {
          if (kernels->fuses) {
            ASSERT_EQ(bitsOf(expected[i]), bitsOf(found[i])) << kernels->name << " at " << i;
          } else {
            ASSERT_NEAR(expected[i], found[i], 1e-6f * expected[i]) << kernels->name << " at " << i;
          }
        }
      } else {
        kernels->softmax(found.data(), 0);
      }
    }
  }
}

TEST(KernelsSoftmax, ofNaNOrInfinityIsNaN) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const std::size_t count : {3, 8, 13, 16, 37}) {
      for (std::size_t i = 0; i < 2 * count; ++i) {
        std::vector<float> values(count, 1.0f);
        values[i / 2] = i % 2 == 0 ? kNaN : kInfinity;
        kernels->softmax(values.data(), values.size());
        for (const float value : values) ASSERT_TRUE(std::isnan(value)) << kernels->name;
      }
    }
  }
}

TEST(KernelsSoftmax, ofMinusInfinityIsZero) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    std::vector<float> values(18, 2.0f);
    values[0] = values[17] = -kInfinity;
    kernels->softmax(values.data(), values.size());
    EXPECT_EQ(values[0], 0.0f);
    EXPECT_EQ(values[17], 0.0f);
    for (std::size_t i = 1; i < 17; ++i) EXPECT_EQ(values[i], 0.0625f);
  }
}

}  // namespace
