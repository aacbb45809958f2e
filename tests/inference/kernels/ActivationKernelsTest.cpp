#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "inference/kernels/Activation.h"
#include "inference/kernels/Kernels.h"
#include "tests/support/ActivationError.h"
#include "tests/support/Extent.h"

namespace {

using mlnn::activated;
using mlnn::Kernels;

constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kDenormal = std::numeric_limits<float>::denorm_min();
constexpr float kMax = std::numeric_limits<float>::max();

// Primes, so that all endings of the bits turn up.
constexpr uint64_t kStride = 6007;
constexpr uint64_t kStrideOfSample = 30011;
constexpr double kUnitsAllowed = 4;

std::vector<ActFn::ActFn> allFunctions() {
  std::vector<ActFn::ActFn> all;
  for (int32_t fn = 0; fn < ActFn::kCount; ++fn) all.push_back(static_cast<ActFn::ActFn>(fn));
  return all;
}

TEST(ActivationKernels, areWithinFourUnitsInTheLastPlace) {
  const uint64_t stride = mlnn::test::triesSample() ? kStrideOfSample : kStride;
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (const ActFn::ActFn fn : allFunctions()) {
      SCOPED_TRACE(testing::Message() << kernels->name << " " << ActFn::actFnToString(fn));
      const mlnn::test::ActivationError error = mlnn::test::worstError(*kernels, fn, 0, stride);
      EXPECT_LE(error.units, kUnitsAllowed) << "at " << error.at;
      EXPECT_EQ(error.lostNaNs, 0u);
      EXPECT_TRUE(!kernels->fuses || error.disagreements == 0) << error.disagreements;
    }
  }
}

struct Case {
  ActFn::ActFn fn;
  float x;
  float expected;
};

// The ends: overflow, infinities, zeros of either sign, the smallest denormal.
const std::vector<Case> kEnds = {
    {ActFn::linear, -0.0f, -0.0f},
    {ActFn::sigmoid, kInfinity, 1.0f},
    {ActFn::sigmoid, kMax, 1.0f},
    {ActFn::sigmoid, -kInfinity, 0.0f},
    {ActFn::sigmoid, -kMax, 0.0f},
    {ActFn::sigmoid, 0.0f, 0.5f},
    {ActFn::sigmoid, -0.0f, 0.5f},
    {ActFn::sigmoid, kDenormal, 0.5f},
    {ActFn::sigmoid, -103.0f, kDenormal},
    {ActFn::tanh, kInfinity, 1.0f},
    {ActFn::tanh, -kInfinity, -1.0f},
    {ActFn::tanh, kMax, 1.0f},
    {ActFn::tanh, 0.0f, 0.0f},
    {ActFn::tanh, -0.0f, -0.0f},
    {ActFn::tanh, kDenormal, kDenormal},
    {ActFn::tanh, -kDenormal, -kDenormal},
    {ActFn::relu, kInfinity, kInfinity},
    {ActFn::relu, -kInfinity, 0.0f},
    {ActFn::relu, kDenormal, kDenormal},
    {ActFn::leaky_relu, -kInfinity, -kInfinity},
    {ActFn::leaky_relu, -kDenormal, -0.0f},
    {ActFn::elu, kInfinity, kInfinity},
    {ActFn::elu, -kInfinity, -1.0f},
    {ActFn::elu, -kMax, -1.0f},
    {ActFn::elu, -0.0f, -0.0f},
    {ActFn::elu, -kDenormal, -kDenormal},
    {ActFn::softplus, kInfinity, kInfinity},
    {ActFn::softplus, kMax, kMax},
    {ActFn::softplus, -kInfinity, 0.0f},
    {ActFn::softplus, -kMax, 0.0f},
    {ActFn::silu, kInfinity, kInfinity},
    {ActFn::silu, kMax, kMax},
    {ActFn::silu, -kInfinity, -0.0f},
    {ActFn::silu, -kMax, -0.0f},
    {ActFn::silu, -0.0f, -0.0f},
};

bool sameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(ActivationKernels, areRightAtTheEnds) {
  for (const Case& end : kEnds) {
    SCOPED_TRACE(testing::Message() << ActFn::actFnToString(end.fn) << " of " << end.x);
    EXPECT_TRUE(sameBits(activated(end.fn, end.x), end.expected)) << activated(end.fn, end.x);
    for (const Kernels* kernels : mlnn::runnableKernels()) {
      std::vector<float> values(19, end.x);
      kernels->activate(end.fn, values.data(), values.size());
      for (const float value : values) {
        EXPECT_TRUE(sameBits(value, end.expected)) << kernels->name << ": " << value;
      }
    }
  }
}

TEST(ActivationKernels, passNaNOn) {
  for (const ActFn::ActFn fn : allFunctions()) {
    EXPECT_TRUE(std::isnan(activated(fn, kNaN)));
    for (const Kernels* kernels : mlnn::runnableKernels()) {
      std::vector<float> values(19, kNaN);
      kernels->activate(fn, values.data(), values.size());
      for (const float value : values) EXPECT_TRUE(std::isnan(value)) << kernels->name;
    }
  }
}

TEST(ActivationKernels, touchNothingBehindTheEnd) {
  for (const Kernels* kernels : mlnn::runnableKernels()) {
    for (std::size_t count = 0; count < 40; ++count) {
      std::vector<float> values(count + 1, -1.0f);
      kernels->activate(ActFn::relu, values.data(), count);
      for (std::size_t i = 0; i < count; ++i) EXPECT_EQ(values[i], 0.0f);
      EXPECT_EQ(values[count], -1.0f);
    }
  }
}

TEST(Activation, takesTheBestKernels) {
  Eigen::VectorXf values = Eigen::VectorXf::LinSpaced(21, -5.0f, 5.0f);
  const Eigen::VectorXf before = values;
  mlnn::applyActivation(ActFn::silu, values);
  for (Eigen::Index i = 0; i < values.size(); ++i) {
    EXPECT_NEAR(values[i], before[i] / (1 + std::exp(-before[i])), 1e-6f);
  }
}

}  // namespace
