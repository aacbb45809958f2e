#include <gtest/gtest.h>

#include <utility>

#include "features/MelDeltasNorm.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::sameBits;
using mlnn::test::someValues;

const Eigen::VectorXf kZeros = Eigen::VectorXf::Zero(120);
const Eigen::VectorXf kOnes = Eigen::VectorXf::Ones(120);

MelDeltasNorm filled() {
  MelDeltasNorm norm;
  norm.minvals = someValues(120, 1, 1);
  norm.normvals = someValues(120, 1, 2);
  return norm;
}

TEST(MelDeltasNormAlloc, newOneHasNoValues) {
  const MelDeltasNorm norm;
  EXPECT_EQ(norm.minvals.size(), 0);
  EXPECT_EQ(norm.normvals.size(), 0);
}

TEST(MelDeltasNormAlloc, missingArraysBecomeOnesThatNormaliseNothing) {
  MelDeltasNorm norm;
  norm.allocIfNeeded();
  EXPECT_TRUE(sameBits(norm.minvals, kZeros));
  EXPECT_TRUE(sameBits(norm.normvals, kOnes));
}

TEST(MelDeltasNormAlloc, keepsArraysOf120Values) {
  MelDeltasNorm norm = filled();
  norm.allocIfNeeded();
  EXPECT_TRUE(sameBits(norm.minvals, filled().minvals));
  EXPECT_TRUE(sameBits(norm.normvals, filled().normvals));
}

TEST(MelDeltasNormAlloc, treatsEachArrayByItself) {
  MelDeltasNorm norm = filled();
  norm.minvals.resize(0);
  norm.allocIfNeeded();
  EXPECT_TRUE(sameBits(norm.minvals, kZeros));
  EXPECT_TRUE(sameBits(norm.normvals, filled().normvals));

  norm = filled();
  norm.normvals.resize(0);
  norm.allocIfNeeded();
  EXPECT_TRUE(sameBits(norm.minvals, filled().minvals));
  EXPECT_TRUE(sameBits(norm.normvals, kOnes));
}

TEST(MelDeltasNormAlloc, replacesArraysOfAnotherLengthWhole) {
  for (const Eigen::Index length : {1, 119, 121}) {
    MelDeltasNorm norm;
    norm.minvals = someValues(length, 1, 3);
    norm.normvals = someValues(length, 1, 4);
    norm.allocIfNeeded();
    EXPECT_TRUE(sameBits(norm.minvals, kZeros)) << length;
    EXPECT_TRUE(sameBits(norm.normvals, kOnes)) << length;
  }
}

TEST(MelDeltasNormAlloc, outOfMemoryLeavesEachArrayAsItWasOrFinished) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  for (std::size_t successes : {0u, 1u}) {
    MelDeltasNorm norm;
    norm.minvals.resize(5);
    bool threw = false;
    {
      const mlnn::test::FailingAllocation failure(successes);
      try {
        norm.allocIfNeeded();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
    }
    EXPECT_TRUE(threw);
    EXPECT_EQ(norm.minvals.size(), successes == 0 ? 5 : 120);
    EXPECT_EQ(norm.normvals.size(), 0);
  }
}

TEST(MelDeltasNormCopy, getsArraysOfItsOwn) {
  const MelDeltasNorm source = filled();
  MelDeltasNorm constructed(source);
  MelDeltasNorm assigned;
  assigned = source;
  for (MelDeltasNorm* copy : {&constructed, &assigned}) {
    EXPECT_TRUE(sameBits(copy->minvals, source.minvals));
    EXPECT_TRUE(sameBits(copy->normvals, source.normvals));
    copy->minvals[0] = 77;
    copy->normvals[119] = 78;
  }
  EXPECT_TRUE(sameBits(source.minvals, filled().minvals));
  EXPECT_TRUE(sameBits(source.normvals, filled().normvals));
}

TEST(MelDeltasNormCopy, takesTheLengthsOfTheSource) {
  MelDeltasNorm target = filled();
  MelDeltasNorm odd;
  odd.normvals = someValues(3, 1, 5);
  target = odd;
  EXPECT_EQ(target.minvals.size(), 0);
  EXPECT_TRUE(sameBits(target.normvals, odd.normvals));
}

TEST(MelDeltasNormCopy, ontoItselfChangesNothing) {
  MelDeltasNorm norm = filled();
  const MelDeltasNorm& same = norm;
  norm = same;
  EXPECT_TRUE(sameBits(norm.minvals, filled().minvals));
  EXPECT_TRUE(sameBits(norm.normvals, filled().normvals));
}

TEST(MelDeltasNormMove, takesTheArraysAlong) {
  MelDeltasNorm source = filled();
  const float* data = source.minvals.data();
  MelDeltasNorm constructed(std::move(source));
  EXPECT_EQ(constructed.minvals.data(), data);
  MelDeltasNorm assigned;
  assigned = std::move(constructed);
  EXPECT_EQ(assigned.minvals.data(), data);
  EXPECT_TRUE(sameBits(assigned.normvals, filled().normvals));
}

}  // namespace
