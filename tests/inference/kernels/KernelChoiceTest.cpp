#include <gtest/gtest.h>

#include <cstddef>
#include <string>

#include "inference/kernels/KernelChoice.h"

namespace {

using mlnn::KernelShape;
using mlnn::kernelShapeFor;
using mlnn::kKernelShapes;

constexpr std::size_t kKi = 1024;
constexpr std::size_t kMi = 1024 * kKi;

TEST(KernelChoice, takesTheFirstShapeWhereNothingIsKnown) {
  const KernelShape shape = kernelShapeFor({0, 0}, "");
  EXPECT_STREQ(shape.name, "six");
  EXPECT_EQ(shape.tileFrames, 6U);
  EXPECT_EQ(shape.secondLevelBytes, kMi);
  EXPECT_EQ(shape.thirdLevelBytes, 8 * kMi);
}

TEST(KernelChoice, streamsFromSizesOnThatFollowTheCaches) {
  EXPECT_EQ(kernelShapeFor({256 * kKi, 0}, "").secondLevelBytes, 256 * kKi);
  EXPECT_EQ(kernelShapeFor({1 * kMi, 0}, "").secondLevelBytes, 1 * kMi);
  EXPECT_EQ(kernelShapeFor({2 * kMi, 0}, "").secondLevelBytes, 1 * kMi);
  EXPECT_EQ(kernelShapeFor({16 * kMi, 0}, "").secondLevelBytes, 8 * kMi);
  EXPECT_EQ(kernelShapeFor({0, 4 * kMi}, "").thirdLevelBytes, 1 * kMi);
  EXPECT_EQ(kernelShapeFor({0, 32 * kMi}, "").thirdLevelBytes, 8 * kMi);
  EXPECT_EQ(kernelShapeFor({0, 260 * kMi}, "").thirdLevelBytes, 8 * kMi);
}

TEST(KernelChoice, takesAShapeByItsNameWhateverTheCaches) {
  for (const KernelShape& shape : kKernelShapes) {
    const KernelShape found = kernelShapeFor({256 * kKi, 4 * kMi}, shape.name);
    EXPECT_STREQ(found.name, shape.name);
    EXPECT_EQ(found.tileFrames, shape.tileFrames);
    EXPECT_EQ(found.inputsAtOnce, shape.inputsAtOnce);
    EXPECT_EQ(found.secondLevelBytes, kMi);
    EXPECT_EQ(found.thirdLevelBytes, 8 * kMi);
  }
  EXPECT_EQ(kernelShapeFor({256 * kKi, 0}, "none of these").secondLevelBytes, 256 * kKi);
}

TEST(KernelChoice, hasShapesThatTheLoopsCanTake) {
  for (const KernelShape& shape : kKernelShapes) {
    EXPECT_GE(shape.tileFrames, 1U);
    EXPECT_LE(shape.tileFrames, std::size_t{mlnn::kMostTileFrames});
    EXPECT_GT(shape.inputsAtOnce, 0U);
    EXPECT_EQ(shape.inputsAtOnce % mlnn::kChainLength, 0U);
    EXPECT_LE(shape.inputsAtOnce, mlnn::kMostInputsAtOnce);
  }
}

// A plain layer of so many outputs and inputs.
mlnn::LayerView layerOf(std::size_t rows, std::size_t cols) {
  mlnn::LayerView layer{};
  layer.rows = rows;
  layer.cols = cols;
  return layer;
}

TEST(KernelChoice, sweepsFewFramesFromTheMemoryOrWhereRegistersAreFew) {
  using mlnn::FramesLoops;
  using mlnn::framesLoopsFor;
  const KernelShape& shape = kKernelShapes[0];
  const auto near = layerOf(256, 2047);  // streams, but a part of it stays near
  const auto far = layerOf(256, 2048);
  const auto farthest = layerOf(1024, 2048);
  for (const std::size_t frames : {std::size_t{2}, mlnn::kSweepFrames}) {
    EXPECT_NE(framesLoopsFor(near, frames, shape, false), FramesLoops::kSweep);
    EXPECT_EQ(framesLoopsFor(far, frames, shape, false), FramesLoops::kSweep);
    EXPECT_NE(framesLoopsFor(far, frames, shape, true), FramesLoops::kSweep);
    EXPECT_EQ(framesLoopsFor(farthest, frames, shape, true), FramesLoops::kSweep);
  }
  EXPECT_EQ(framesLoopsFor(far, mlnn::kSweepFrames + 1, shape, false), FramesLoops::kTiles);
  EXPECT_EQ(framesLoopsFor(farthest, mlnn::kSweepFrames + 1, shape, true), FramesLoops::kTiles);
}

TEST(KernelChoice, takesWideTilesForFramesThatFitOneOrWhereRegistersAreFewTwo) {
  using mlnn::FramesLoops;
  using mlnn::framesLoopsFor;
  const auto near = layerOf(256, 256);
  const auto far = layerOf(512, 1024);
  const auto loops = [](const mlnn::LayerView& layer, std::size_t shape, bool hasManyRegisters) {
    std::string wide;
    for (std::size_t frames = 2; frames <= 10; ++frames) {
      const FramesLoops found =
          framesLoopsFor(layer, frames, kKernelShapes[shape], hasManyRegisters);
      wide += found == FramesLoops::kWideTiles ? 'w' : found == FramesLoops::kTiles ? 't' : 's';
    }
    return wide;
  };
  EXPECT_EQ(loops(near, 0, false), "wwwttwwtt");  // of 2 to 10 frames
  EXPECT_EQ(loops(far, 0, false), "ssssssstt");
  EXPECT_EQ(loops(near, 3, false), "ttttttttt");
  EXPECT_EQ(loops(near, 0, true), "ttttttttt");
  EXPECT_EQ(loops(far, 0, true), "tttttwwtt");
  EXPECT_EQ(loops(far, 1, true), "ttttwwwtt");
  EXPECT_EQ(loops(near, 2, true), "tttttwwtt");
}

TEST(KernelChoice, fetchesTheNextPanelWhereItIsNotCopied) {
  const KernelShape& shape = kKernelShapes[0];
  EXPECT_FALSE(mlnn::fetchesNextPanel(layerOf(256, 1023), 32, shape, true));
  EXPECT_TRUE(mlnn::fetchesNextPanel(layerOf(256, 1024), 256, shape, true));
  EXPECT_TRUE(mlnn::fetchesNextPanel(layerOf(256, 1024), 48, shape, false));
  EXPECT_FALSE(mlnn::fetchesNextPanel(layerOf(256, 1024), 49, shape, false));
}

TEST(KernelChoice, copiesPanelsThatManyFramesMeet) {
  using mlnn::isPacked;
  EXPECT_FALSE(isPacked(layerOf(128, 64), 48, false, false));
  EXPECT_TRUE(isPacked(layerOf(128, 64), 49, false, false));
  EXPECT_FALSE(isPacked(layerOf(127, 64), 256, false, false));
  EXPECT_FALSE(isPacked(layerOf(1024, 64), 191, false, true));
  EXPECT_TRUE(isPacked(layerOf(1024, 64), 192, false, true));
  EXPECT_FALSE(isPacked(layerOf(1023, 64), 256, false, true));
  EXPECT_TRUE(isPacked(layerOf(8, 8), 2, true, true));
}

TEST(KernelChoice, keepsTheResultsOfManyFramesNearWhereRegistersAreFew) {
  using mlnn::rowsAtOnce;
  EXPECT_EQ(rowsAtOnce(layerOf(2048, 64), 256, true), 2048U);
  EXPECT_EQ(rowsAtOnce(layerOf(2048, 64), 48, false), 2048U);
  EXPECT_EQ(rowsAtOnce(layerOf(2048, 64), 49, false), 1280U);
  EXPECT_EQ(rowsAtOnce(layerOf(2048, 64), 256, false), 256U);
  EXPECT_EQ(rowsAtOnce(layerOf(2048, 64), 5000, false), 64U);
}

#if !MLNN_BUILT_FOR_SIZE

TEST(KernelChoice, keepsTheShapeUntilAnotherIsFixed) {
  const KernelShape& before = mlnn::kernelShape();
  EXPECT_EQ(&mlnn::kernelShape(), &before);
  mlnn::fixKernelShape(&kKernelShapes[1]);
  EXPECT_EQ(&mlnn::kernelShape(), &kKernelShapes[1]);
  mlnn::fixKernelShape(nullptr);
  EXPECT_EQ(&mlnn::kernelShape(), &before);
}

#endif

}  // namespace
