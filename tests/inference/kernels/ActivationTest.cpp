#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "inference/kernels/Activation.h"
#include "inference/kernels/Kernels.h"
#include "tests/support/ReferencePass.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::VectorXf;
using mlnn::test::referenceActivation;
using mlnn::test::sameBits;
using mlnn::test::someValues;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kMax = std::numeric_limits<float>::max();
constexpr double kEpsilon = std::numeric_limits<float>::epsilon();
constexpr double kSmallest = std::numeric_limits<float>::denorm_min();

float activated(ActFn::ActFn fn, float x) {
  VectorXf values = VectorXf::Constant(1, x);
  mlnn::applyActivation(fn, values);
  return values[0];
}

std::vector<ActFn::ActFn> allActivations() {
  std::vector<ActFn::ActFn> all;
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    all.push_back(static_cast<ActFn::ActFn>(code));
  }
  return all;
}

TEST(Activation, agreesWithTheFormulaInDoublePrecision) {
  VectorXf inputs = VectorXf::LinSpaced(20001, -110, 110);
  for (const float magnitude : {1e-3f, 1e-6f, 1e-20f, 1e-40f}) {
    const VectorXf small = magnitude * someValues(1000, 1, 1);
    inputs.conservativeResize(inputs.size() + small.size());
    inputs.tail(small.size()) = small;
  }
  for (const ActFn::ActFn fn : allActivations()) {
    VectorXf outputs = inputs;
    mlnn::applyActivation(fn, outputs);
    for (Eigen::Index i = 0; i < inputs.size(); ++i) {
      const double expected = referenceActivation(fn, inputs[i]);
      // Each step of the formulas is good to a rounding or two. Where a factor is too small
      // for all its digits, silu multiplies what it lacks by the value.
      const double underflow = kSmallest * std::max(1.0, std::abs(double{inputs[i]}));
      const double tolerance = 4 * kEpsilon * std::abs(expected) + underflow;
      ASSERT_NEAR(outputs[i], expected, tolerance)
          << ActFn::actFnToString(fn) << "(" << inputs[i] << ")";
    }
  }
}

TEST(Activation, linearChangesNoBit) {
  VectorXf values(5);
  values << -0.0f, kInfinity, -kMax, 1e-45f, 0;
  const uint32_t payload = 0xFFC12345;
  std::memcpy(&values[4], &payload, sizeof payload);
  VectorXf outputs = values;
  mlnn::applyActivation(ActFn::linear, outputs);
  EXPECT_TRUE(sameBits(outputs, values));
}

struct Limit {
  ActFn::ActFn fn;
  float atMinusInfinity, atZero, atPlusInfinity;
};

TEST(Activation, reachesItsLimits) {
  const Limit limits[] = {{ActFn::linear, -kInfinity, 0, kInfinity},
                          {ActFn::sigmoid, 0, 0.5f, 1},
                          {ActFn::tanh, -1, 0, 1},
                          {ActFn::relu, 0, 0, kInfinity},
                          {ActFn::leaky_relu, -kInfinity, 0, kInfinity},
                          {ActFn::elu, -1, 0, kInfinity},
                          {ActFn::softplus, 0, std::log(2.0f), kInfinity},
                          {ActFn::silu, 0, 0, kInfinity}};
  ASSERT_EQ(std::size(limits), std::size_t{ActFn::kCount});
  for (const Limit& limit : limits) {
    const std::string name = ActFn::actFnToString(limit.fn);
    EXPECT_EQ(activated(limit.fn, -kInfinity), limit.atMinusInfinity) << name;
    EXPECT_EQ(activated(limit.fn, 0.0f), limit.atZero) << name;
    EXPECT_EQ(activated(limit.fn, -0.0f), limit.atZero) << name;
    EXPECT_EQ(activated(limit.fn, kInfinity), limit.atPlusInfinity) << name;
  }
}

TEST(Activation, largestValuesDoNotOverflowOnTheWay) {
  for (const ActFn::ActFn fn : allActivations()) {
    const std::string name = ActFn::actFnToString(fn);
    for (const float x : {-kMax, -1e30f, -1000.0f, 1000.0f, 1e30f, kMax}) {
      const double expected = referenceActivation(fn, x);
      EXPECT_NEAR(activated(fn, x), expected, kEpsilon * std::abs(expected)) << name << " " << x;
    }
  }
}

TEST(Activation, notANumberStaysNotANumber) {
  for (const ActFn::ActFn fn : allActivations()) {
    EXPECT_TRUE(std::isnan(activated(fn, kNan))) << ActFn::actFnToString(fn);
    EXPECT_TRUE(std::isnan(activated(fn, -kNan))) << ActFn::actFnToString(fn);
  }
}

TEST(Activation, valueDoesNotDependOnItsPlaceOrNeighbours) {
  const VectorXf inputs = 20 * someValues(67, 1, 3);
  for (const ActFn::ActFn fn : allActivations()) {
    for (Eigen::Index length = 0; length <= inputs.size(); ++length) {
      VectorXf outputs = inputs.tail(length);
      mlnn::applyActivation(fn, outputs);
      for (Eigen::Index i = 0; i < length; ++i) {
        ASSERT_EQ(outputs[i], activated(fn, inputs.tail(length)[i])) << ActFn::actFnToString(fn);
      }
    }
  }
}

// --- Softmax ---

VectorXf softmaxOf(VectorXf values) {
  mlnn::bestKernels().softmax(values.data(), static_cast<std::size_t>(values.size()));
  return values;
}

VectorXf vectorOf(std::vector<float> values) {
  return Eigen::Map<VectorXf>(values.data(), static_cast<Eigen::Index>(values.size()));
}

TEST(Softmax, agreesWithTheFormulaInDoublePrecision) {
  for (const float spread : {0.01f, 1.0f, 10.0f, 100.0f}) {
    const VectorXf values = spread * someValues(50, 1, 1);
    const VectorXf outputs = softmaxOf(values);
    const Eigen::ArrayXd powers = (values.cast<double>().array() - values.maxCoeff()).exp();
    const Eigen::ArrayXd expected = powers / powers.sum();
    for (Eigen::Index i = 0; i < values.size(); ++i) {
      // The difference to the largest value is rounded, which exp magnifies by its size.
      const double magnified = 4 + std::abs(values[i] - values.maxCoeff());
      // Fifty positive terms are added one after the other.
      const double relative = (50 + magnified) * kEpsilon;
      EXPECT_NEAR(outputs[i], expected[i], relative * expected[i] + kSmallest);
    }
    EXPECT_NEAR(outputs.cast<double>().sum(), 1, 50 * kEpsilon);
  }
}

TEST(Softmax, equalValuesShareEqually) {
  for (const float value : {0.0f, -kMax, kMax, 1e-45f, 7.0f}) {
    EXPECT_TRUE(sameBits(softmaxOf(VectorXf::Constant(4, value)), VectorXf::Constant(4, 0.25f)))
        << value;
    EXPECT_TRUE(sameBits(softmaxOf(VectorXf::Constant(1, value)), VectorXf::Ones(1))) << value;
  }
}

TEST(Softmax, isSafeForLargeValuesAndDifferences) {
  EXPECT_TRUE(sameBits(softmaxOf(vectorOf({1000, 0, -1000})), vectorOf({1, 0, 0})));
  EXPECT_TRUE(sameBits(softmaxOf(vectorOf({-kMax, kMax})), vectorOf({0, 1})));
  EXPECT_TRUE(sameBits(softmaxOf(vectorOf({-1e30f, -1e30f})), vectorOf({0.5f, 0.5f})));
}

TEST(Softmax, doesNotChangeWhenAllValuesAreShifted) {
  const VectorXf values = vectorOf({1, 2.5f, -3, 0.25f});
  const VectorXf shifted = values.array() + 1024;  // exact for these
  EXPECT_TRUE(sameBits(softmaxOf(shifted), softmaxOf(values)));
}

TEST(Softmax, minusInfinityHasNoShare) {
  EXPECT_TRUE(sameBits(softmaxOf(vectorOf({2, -kInfinity, 2})), vectorOf({0.5f, 0, 0.5f})));
}

TEST(Softmax, otherValuesThatAreNotFiniteMakeAllNotANumber) {
  for (const std::vector<float>& values : {std::vector<float>{1, kNan, 2},
                                           {kNan, 1, 2},
                                           {1, 2, kNan},
                                           {1, kInfinity, 2},
                                           {kInfinity, kInfinity},
                                           {-kInfinity, -kInfinity},
                                           {kNan}}) {
    EXPECT_TRUE(softmaxOf(vectorOf(values)).array().isNaN().all()) << vectorOf(values).transpose();
  }
}

TEST(Softmax, ofNothingIsNothing) { EXPECT_EQ(softmaxOf(VectorXf()).size(), 0); }

}  // namespace
