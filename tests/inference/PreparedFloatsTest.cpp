#include <gtest/gtest.h>

#include "inference/ImageFwdPass.h"
#include "inference/PreparedFloats.h"
#include "model/RowQuantization.h"
#include "tests/support/ByteImage.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::preparedBytesOf;
using mlnn::test::fewValuesLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;

// By the pass itself, over the model's image.
std::uint64_t madeFor(MultiLayerNNModel model) {
  model.deltasNorm.allocIfNeeded();
  const auto image = mlnn::test::ByteImage::of(model);
  mlnn::ImageFwdPass pass;
  EXPECT_EQ(pass.open(image.bytes().data(), image.size()), 0);
  return pass.prepare(~std::size_t{0});
}

TEST(PreparedFloats, areThoseThatThePassMakes) {
  MultiLayerNNModel model = modelOf({plainLayer(600, 97), plainLayer(97, 60)});
  EXPECT_EQ(preparedBytesOf(model), 0u);
  EXPECT_EQ(madeFor(model), 0u);
  ASSERT_EQ(mlnn::quantizeRows(model, {}), 0);
  EXPECT_EQ(preparedBytesOf(model), (600 * 97 + 97 * 60) * sizeof(float));
  EXPECT_EQ(madeFor(model), preparedBytesOf(model));
  const MultiLayerNNModel mixed = modelOf({fewValuesLayer(600, 97, 100), plainLayer(97, 60)});
  EXPECT_EQ(preparedBytesOf(mixed), 600 * 97 * sizeof(float));
  EXPECT_EQ(madeFor(mixed), preparedBytesOf(mixed));
}

TEST(PreparedFloats, areNoneOfLargeLayersByRows) {
  MultiLayerNNModel model = modelOf({plainLayer(4100, 1024), plainLayer(1024, 64)});
  ASSERT_EQ(mlnn::quantizeRows(model, {}), 0);
  EXPECT_EQ(preparedBytesOf(model), 1024 * 64 * sizeof(float));
  EXPECT_EQ(madeFor(model), preparedBytesOf(model));
}

TEST(PreparedFloats, areNoneWithoutLayers) { EXPECT_EQ(preparedBytesOf(MultiLayerNNModel()), 0u); }

TEST(PreparedFloats, areStoppedByTheirWatch) {
  struct Stopped {};
  MultiLayerNNModel model = modelOf({plainLayer(600, 97)});
  EXPECT_THROW(preparedBytesOf(model, [](std::size_t) { throw Stopped(); }), Stopped);
}

TEST(PreparedFloats, areNoStepsForTheirWatch) {
  std::size_t steps = 0;
  preparedBytesOf(modelOf({plainLayer(60, 9)}), [&steps](std::size_t done) { steps += done; });
  EXPECT_EQ(steps, 0u);
}

}  // namespace
