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
