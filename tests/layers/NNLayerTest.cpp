#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <limits>
#include <random>
#include <utility>

#include "layers/NNLayer.h"
#include "layers/WatchedLayer.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameLayer;
using mlnn::test::stderrOf;

// The first weights that this program draws, before anything restarts the source.
const NNLayer kFirstLayerOfTheProcess(3, 2, 1.0f, false);

void expectZeros(const Eigen::MatrixXf& values, Eigen::Index rows, Eigen::Index cols = 1) {
  EXPECT_TRUE(sameBits(values, Eigen::MatrixXf::Zero(rows, cols)));
}

// --- Constructors ---

TEST(NNLayerConstruction, defaultIsEmptyAndPlain) {
  const NNLayer layer;
  expectZeros(layer.weights, 0, 0);
  for (const Eigen::VectorXf* values :
       {&layer.bias, &layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    EXPECT_EQ(values->size(), 0);
  }
  EXPECT_EQ(layer.actFn, ActFn::linear);
  EXPECT_FALSE(layer.isBatchNorm);
}

TEST(NNLayerConstruction, plainHasZerosAndNoBatchNormVectors) {
  const NNLayer layer(3, 2, false);
  expectZeros(layer.weights, 2, 3);
  expectZeros(layer.bias, 2);
  for (const Eigen::VectorXf* values :
       {&layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    EXPECT_EQ(values->size(), 0);
  }
  EXPECT_EQ(layer.actFn, ActFn::linear);
  EXPECT_FALSE(layer.isBatchNorm);
}

TEST(NNLayerConstruction, batchNormHasAllSixArrays) {
  const NNLayer layer(3, 2, true);
  expectZeros(layer.weights, 2, 3);
  for (const Eigen::VectorXf* values :
       {&layer.bias, &layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    expectZeros(*values, 2);
  }
  EXPECT_EQ(layer.actFn, ActFn::linear);
  EXPECT_TRUE(layer.isBatchNorm);
}

TEST(NNLayerConstruction, emptyDimensionsGiveEmptyMatrices) {
  for (const bool batchNorm : {false, true}) {
    const NNLayer noInputs(0, 4, batchNorm);
    expectZeros(noInputs.weights, 4, 0);
    expectZeros(noInputs.bias, 4);
    const NNLayer noOutputs(4, 0, batchNorm);
    expectZeros(noOutputs.weights, 0, 4);
    EXPECT_EQ(noOutputs.bias.size(), 0);
    EXPECT_EQ(NNLayer(0, 4, 1.0f, batchNorm).weights.size(), 0);
    EXPECT_EQ(NNLayer(4, 0, 1.0f, batchNorm).weights.cols(), 4);
  }
}

TEST(NNLayerConstruction, weightsAreStoredColumnByColumn) {
  NNLayer layer(3, 2, false);
  layer.weights(1, 2) = 5;
  EXPECT_EQ(layer.weights.data()[1 + 2 * 2], 5);
}

// --- Random initialisation ---

TEST(NNLayerRandom, plainHasRandomWeightsAndNoBias) {
  const NNLayer layer(3, 2, 0.5f, false);
  EXPECT_EQ(layer.weights.rows(), 2);
  EXPECT_EQ(layer.weights.cols(), 3);
  EXPECT_TRUE((layer.weights.array() != 0).all());
  expectZeros(layer.bias, 2);
  EXPECT_EQ(layer.gamma.size(), 0);
  EXPECT_EQ(layer.beta.size(), 0);
  EXPECT_EQ(layer.gamma_inf.size(), 0);
  EXPECT_EQ(layer.beta_inf.size(), 0);
  EXPECT_EQ(layer.actFn, ActFn::linear);
  EXPECT_FALSE(layer.isBatchNorm);
}

TEST(NNLayerRandom, batchNormStartsWithGammaOneAndNoInferenceValues) {
  const NNLayer layer(3, 2, 0.5f, true);
  EXPECT_TRUE((layer.weights.array() != 0).all());
  expectZeros(layer.bias, 2);
  EXPECT_TRUE(sameBits(layer.gamma, Eigen::VectorXf::Ones(2)));
  expectZeros(layer.beta, 2);
  expectZeros(layer.gamma_inf, 2);
  expectZeros(layer.beta_inf, 2);
  EXPECT_EQ(layer.actFn, ActFn::linear);
  EXPECT_TRUE(layer.isBatchNorm);
}

TEST(NNLayerRandom, weightsAreNormalWithTheGivenDeviation) {
  constexpr float kScale = 0.25f;
  NNLayer::seedRandom(1);
  const NNLayer layer(200, 200, kScale, false);
  const Eigen::ArrayXXd weights = layer.weights.cast<double>().array();
  const double mean = weights.mean();
  const double deviation = std::sqrt((weights - mean).square().mean());
  // 40,000 draws: five standard errors of the mean and of the deviation.
  EXPECT_NEAR(mean, 0, 5 * kScale / 200);
  EXPECT_NEAR(deviation, kScale, 5 * kScale / (200 * std::sqrt(2.0)));
  // Shares within one and two deviations, which a uniform distribution would miss by far.
  EXPECT_NEAR((weights.abs() < kScale).cast<double>().mean(), 0.6827, 0.012);
  EXPECT_NEAR((weights.abs() < 2 * kScale).cast<double>().mean(), 0.9545, 0.006);
}

TEST(NNLayerRandom, scaleOnlyMultipliesTheDraws) {
  NNLayer::seedRandom(2);
  const NNLayer one(3, 4, 1.0f, false);
  NNLayer::seedRandom(2);
  const NNLayer half(3, 4, 0.5f, true);
  EXPECT_TRUE(sameBits(half.weights, 0.5f * one.weights));
  EXPECT_TRUE((NNLayer(3, 4, 0.0f, false).weights.array() == 0).all());
}

TEST(NNLayerRandom, seedRestartsTheSequenceAndDrawsGoOn) {
  NNLayer::seedRandom(3);
  const NNLayer first(3, 3, 1.0f, false);
  const NNLayer second(3, 3, 1.0f, false);
  NNLayer::seedRandom(3);
  EXPECT_TRUE(sameBits(NNLayer(3, 3, 1.0f, false).weights, first.weights));
  EXPECT_TRUE(sameBits(NNLayer(3, 3, 1.0f, false).weights, second.weights));
  EXPECT_FALSE(sameBits(first.weights, second.weights));
  NNLayer::seedRandom(4);
  EXPECT_FALSE(sameBits(NNLayer(3, 3, 1.0f, false).weights, first.weights));
}

TEST(NNLayerRandom, sourceStartsWithAFixedSeed) {
  NNLayer::seedRandom(std::mt19937::default_seed);
  EXPECT_TRUE(sameLayer(NNLayer(3, 2, 1.0f, false), kFirstLayerOfTheProcess));
}

// --- Step by step ---

// Of more than one piece.
constexpr int kLargeInputs = 300;
constexpr int kLargeOutputs = 400;

TEST(NNLayerSteps, drawTheLayerOfTheConstructor) {
  for (const bool batchNorm : {false, true}) {
    NNLayer::seedRandom(5);
    const NNLayer expected(kLargeInputs, kLargeOutputs, 0.5f, batchNorm);
    const NNLayer next(1, 1, 1.0f, false);
    NNLayer::seedRandom(5);
    int looks = 0;
    const auto watch = [&looks](std::size_t steps) { looks += steps == 0 ? 1 : 100; };
    EXPECT_TRUE(sameLayer(mlnn::randomLayer(kLargeInputs, kLargeOutputs, 0.5f, batchNorm, watch),
                          expected));
    EXPECT_GT(looks, 1);
    EXPECT_LT(looks, 100);
    EXPECT_TRUE(sameLayer(NNLayer(1, 1, 1.0f, false), next));
  }
}

TEST(NNLayerSteps, letOthersDraw) {
  NNLayer::seedRandom(6);
  const NNLayer alone = mlnn::randomLayer(kLargeInputs, kLargeOutputs, 1.0f, false, {});
  NNLayer::seedRandom(6);
  const auto watch = [](std::size_t) { const NNLayer other(1, 1, 1.0f, false); };
  const NNLayer shared = mlnn::randomLayer(kLargeInputs, kLargeOutputs, 1.0f, false, watch);
  EXPECT_TRUE(sameBits(shared.weights.col(0), alone.weights.col(0)));
  EXPECT_FALSE(sameBits(shared.weights.col(kLargeInputs - 1), alone.weights.col(kLargeInputs - 1)));
}

TEST(NNLayerSteps, copyEverything) {
  const NNLayer layers[] = {NNLayer(),
                            plainLayer(3, 2),
                            batchNormLayer(3, 2),
                            foldedLayer(1, 7),
                            NNLayer(0, 4, false),
                            NNLayer(4, 0, true),
                            NNLayer(kLargeInputs, kLargeOutputs, 1.0f, true)};
  for (const NNLayer& layer : layers) EXPECT_TRUE(sameLayer(mlnn::copyOf(layer, {}), layer));
}

TEST(NNLayerSteps, areStoppedByWhatTheWatchThrows) {
  const auto stop = [](std::size_t) { throw 1; };
  const NNLayer layer = plainLayer(3, 2);
  EXPECT_THROW(mlnn::copyOf(layer, stop), int);
  EXPECT_THROW(mlnn::randomLayer(3, 2, 1.0f, false, stop), int);
}

// --- Copying and moving ---

// Changes every field of a layer that has all six arrays.
void changeAll(NNLayer& layer) {
  for (Eigen::VectorXf* values :
       {&layer.bias, &layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    (*values)[0] += 1;
  }
  layer.weights(0, 0) += 1;
  layer.actFn = ActFn::silu;
  layer.isBatchNorm = !layer.isBatchNorm;
}

TEST(NNLayerCopy, isDeep) {
  const NNLayer original = batchNormLayer(3, 2);
  const NNLayer source = batchNormLayer(3, 2);
  NNLayer constructed(source);
  NNLayer assigned;
  assigned = source;
  for (NNLayer* copy : {&constructed, &assigned}) {
    EXPECT_TRUE(sameLayer(*copy, source));
    changeAll(*copy);
    EXPECT_TRUE(sameLayer(source, original));
  }
}

TEST(NNLayerCopy, replacesALayerOfAnyShapeAndKind) {
  const NNLayer shapes[] = {NNLayer(),          plainLayer(3, 2),     batchNormLayer(3, 2),
                            foldedLayer(1, 7),  NNLayer(0, 4, false), NNLayer(4, 0, true),
                            plainLayer(2, 3, 5)};
  for (const NNLayer& source : shapes) {
    for (const NNLayer& before : shapes) {
      NNLayer target(before);
      target = source;
      EXPECT_TRUE(sameLayer(target, source));
    }
  }
}

TEST(NNLayerCopy, ontoItselfChangesNothing) {
  NNLayer layer = batchNormLayer(3, 2);
  const NNLayer& same = layer;
  layer = same;
  EXPECT_TRUE(sameLayer(layer, batchNormLayer(3, 2)));
}

TEST(NNLayerCopy, betweenEqualShapesAllocatesNothing) {
  const NNLayer source = batchNormLayer(3, 2, 1);
  NNLayer target = batchNormLayer(3, 2, 2);
  const mlnn::test::AllocationWatch watch;
  target = source;
  EXPECT_EQ(watch.allocations(), 0u);
}

TEST(NNLayerMove, takesTheArraysAlong) {
  NNLayer source = batchNormLayer(3, 2);
  const float* weights = source.weights.data();
  NNLayer constructed(std::move(source));
  EXPECT_EQ(constructed.weights.data(), weights);
  NNLayer assigned = plainLayer(1, 1);
  assigned = std::move(constructed);
  EXPECT_EQ(assigned.weights.data(), weights);
  EXPECT_TRUE(sameLayer(assigned, batchNormLayer(3, 2)));
}

// --- Out of memory ---

// Runs `action` again and again, the first allocation failing, then the second and so on,
// until none fails; calls `check` after each failure. Returns how many failed.
template <typename Action, typename Check>
std::size_t failEachAllocation(Action action, Check check) {
  for (std::size_t successes = 0;; ++successes) {
    bool threw = false;
    {
      const mlnn::test::FailingAllocation failure(successes);
      try {
        action();
      } catch (const std::bad_alloc&) {
        threw = true;
      }
      if (!failure.happened()) return successes;
    }
    EXPECT_TRUE(threw);
    check();
  }
}

TEST(NNLayerOutOfMemory, passesThroughConstructorsWithoutALeak) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const NNLayer source = batchNormLayer(3, 2);
  const mlnn::test::AllocationWatch watch;
  const auto nothingLeaked = [&] { EXPECT_EQ(watch.live(), 0); };
  EXPECT_EQ(failEachAllocation([] { const NNLayer layer(3, 2, true); }, nothingLeaked), 6u);
  EXPECT_EQ(failEachAllocation([] { const NNLayer layer(3, 2, 1.0f, true); }, nothingLeaked), 6u);
  EXPECT_EQ(failEachAllocation([&] { const NNLayer layer(source); }, nothingLeaked), 6u);
  nothingLeaked();
}

TEST(NNLayerOutOfMemory, leavesEachArrayOldOrNewInAssignment) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const NNLayer before = foldedLayer(4, 3, 1);
  const NNLayer source = batchNormLayer(5, 6, 2);
  NNLayer target = before;
  const auto isOldOrNew = [](const auto& now, const auto& old, const auto& fresh) {
    return sameBits(now, old) || sameBits(now, fresh);
  };
  const std::size_t failures = failEachAllocation(
      [&] { target = source; },
      [&] {
        EXPECT_TRUE(isOldOrNew(target.weights, before.weights, source.weights));
        EXPECT_TRUE(isOldOrNew(target.bias, before.bias, source.bias));
        EXPECT_TRUE(isOldOrNew(target.gamma, before.gamma, source.gamma));
        EXPECT_TRUE(isOldOrNew(target.beta, before.beta, source.beta));
        EXPECT_TRUE(isOldOrNew(target.gamma_inf, before.gamma_inf, source.gamma_inf));
        EXPECT_TRUE(isOldOrNew(target.beta_inf, before.beta_inf, source.beta_inf));
        target = NNLayer(before);  // moved in, for the next round
      });
  EXPECT_EQ(failures, 6u);
  EXPECT_TRUE(sameLayer(target, source));
}

// --- Addition ---

TEST(NNLayerAddition, plainLayersAddWeightsAndBias) {
  const NNLayer a = plainLayer(3, 2, 1);
  const NNLayer b = plainLayer(3, 2, 2);
  NNLayer sum = a;
  EXPECT_EQ(stderrOf([&] { sum += b; }), "");
  NNLayer expected = a;
  expected.weights = a.weights + b.weights;
  expected.bias = a.bias + b.bias;
  EXPECT_TRUE(sameLayer(sum, expected));
  EXPECT_TRUE(sameLayer(b, plainLayer(3, 2, 2)));
}

TEST(NNLayerAddition, batchNormLayersAddAllSixArrays) {
  const NNLayer a = batchNormLayer(3, 2, 1);
  const NNLayer b = batchNormLayer(3, 2, 2);
  NNLayer sum = a;
  EXPECT_EQ(stderrOf([&] { sum += b; }), "");
  NNLayer expected = a;
  expected.weights = a.weights + b.weights;
  expected.bias = a.bias + b.bias;
  expected.gamma = a.gamma + b.gamma;
  expected.beta = a.beta + b.beta;
  expected.gamma_inf = a.gamma_inf + b.gamma_inf;
  expected.beta_inf = a.beta_inf + b.beta_inf;
  EXPECT_TRUE(sameLayer(sum, expected));
}

TEST(NNLayerAddition, plainLayersLeaveTheFourVectorsAlone) {
  const NNLayer folded = foldedLayer(3, 2, 1);
  NNLayer sum = folded;
  EXPECT_EQ(stderrOf([&] { sum += plainLayer(3, 2, 2); }), "");
  EXPECT_TRUE(sameBits(sum.weights, folded.weights + plainLayer(3, 2, 2).weights));
  EXPECT_TRUE(sameBits(sum.gamma, folded.gamma));
  EXPECT_TRUE(sameBits(sum.beta_inf, folded.beta_inf));

  NNLayer plain = plainLayer(3, 2, 2);
  EXPECT_EQ(stderrOf([&] { plain += folded; }), "");
  EXPECT_EQ(plain.gamma.size(), 0);
}

TEST(NNLayerAddition, keepsActivationOfTheTarget) {
  NNLayer sum = plainLayer(3, 2, 1);
  NNLayer other = plainLayer(3, 2, 2);
  sum.actFn = ActFn::relu;
  other.actFn = ActFn::tanh;
  EXPECT_EQ(stderrOf([&] { sum += other; }), "");
  EXPECT_EQ(sum.actFn, ActFn::relu);
}

TEST(NNLayerAddition, ofALayerToItselfDoublesIt) {
  NNLayer layer = batchNormLayer(3, 2);
  EXPECT_EQ(stderrOf([&] { layer += layer; }), "");
  EXPECT_TRUE(sameBits(layer.weights, 2 * batchNormLayer(3, 2).weights));
  EXPECT_TRUE(sameBits(layer.gamma_inf, 2 * batchNormLayer(3, 2).gamma_inf));
}

struct RefusedSum {
  NNLayer target, other;
  std::string message;
};

NNLayer withVector(NNLayer layer, Eigen::VectorXf NNLayer::*vector, Eigen::Index length) {
  (layer.*vector).resize(length);
  return layer;
}

TEST(NNLayerAddition, refusesAnotherShapeThenAnotherKindAndChangesNothing) {
  const std::string shapes = "ERROR: NNLayer::operator+=: layer shapes differ ";
  const std::string same = shapes + "(2x3 != 2x3)\n";
  const NNLayer bn = batchNormLayer(3, 2);
  const std::vector<RefusedSum> cases = {
      {plainLayer(3, 2), plainLayer(2, 3), shapes + "(2x3 != 3x2)\n"},
      {plainLayer(3, 2), plainLayer(4, 2), shapes + "(2x3 != 2x4)\n"},
      {plainLayer(3, 5), plainLayer(3, 2), shapes + "(5x3 != 2x3)\n"},
      {plainLayer(6, 1), plainLayer(3, 2), shapes + "(1x6 != 2x3)\n"},
      {NNLayer(), plainLayer(3, 2), shapes + "(0x0 != 2x3)\n"},
      {NNLayer(0, 3, false), NNLayer(3, 0, false), shapes + "(3x0 != 0x3)\n"},
      // The shape comes before the kind.
      {batchNormLayer(3, 2), plainLayer(3, 4), shapes + "(2x3 != 4x3)\n"},
      {batchNormLayer(3, 2), plainLayer(3, 2),
       "ERROR: NNLayer::operator+=: cannot add a plain layer to a batch-norm layer\n"},
      {plainLayer(3, 2), batchNormLayer(3, 2),
       "ERROR: NNLayer::operator+=: cannot add a batch-norm layer to a plain layer\n"},
      // Arrays that would be added and differ in length are another shape as well.
      {plainLayer(3, 2), withVector(plainLayer(3, 2), &NNLayer::bias, 0), same},
      {withVector(plainLayer(3, 2), &NNLayer::bias, 3), plainLayer(3, 2), same},
      {bn, withVector(bn, &NNLayer::bias, 0), same},
      {bn, withVector(bn, &NNLayer::gamma, 1), same},
      {bn, withVector(bn, &NNLayer::beta, 3), same},
      {bn, withVector(bn, &NNLayer::gamma_inf, 0), same},
      {withVector(bn, &NNLayer::beta_inf, 0), bn, same},
  };
  for (const RefusedSum& c : cases) {
    NNLayer target = c.target;
    EXPECT_EQ(stderrOf([&] { target += c.other; }), c.message);
    EXPECT_TRUE(sameLayer(target, c.target)) << c.message;
  }
}

// --- Scaling and zeroing ---

TEST(NNLayerScaling, multipliesAllSixArraysWhateverTheKind) {
  for (const NNLayer& original :
       {plainLayer(3, 2), batchNormLayer(3, 2), foldedLayer(3, 2), NNLayer()}) {
    NNLayer layer = original;
    layer *= -1.5f;
    NNLayer expected = original;
    for (Eigen::VectorXf* values : {&expected.bias, &expected.gamma, &expected.beta,
                                    &expected.gamma_inf, &expected.beta_inf}) {
      *values = -1.5f * *values;
    }
    expected.weights = -1.5f * original.weights;
    EXPECT_TRUE(sameLayer(layer, expected));
  }
}

TEST(NNLayerScaling, zerosKeepsShapesActivationAndKind) {
  for (const NNLayer& original : {plainLayer(3, 2), batchNormLayer(3, 2), foldedLayer(3, 2)}) {
    NNLayer layer = original;
    layer.zeros();
    NNLayer expected(3, 2, true);  // zeros everywhere
    if (original.gamma.size() == 0) expected = NNLayer(3, 2, false);
    expected.isBatchNorm = original.isBatchNorm;
    expected.actFn = ActFn::sigmoid;
    EXPECT_TRUE(sameLayer(layer, expected));
  }
}

TEST(NNLayerScaling, zerosReplacesValuesThatAreNotFinite) {
  NNLayer layer = batchNormLayer(3, 2);
  layer.weights(0, 0) = std::numeric_limits<float>::quiet_NaN();
  layer.bias[1] = std::numeric_limits<float>::infinity();
  layer.gamma_inf[0] = -std::numeric_limits<float>::infinity();
  layer.zeros();
  expectZeros(layer.weights, 2, 3);
  expectZeros(layer.bias, 2);
  expectZeros(layer.gamma_inf, 2);
}

}  // namespace
