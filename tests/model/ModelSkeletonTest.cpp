#include <gtest/gtest.h>

#include <limits>

#include "model/ModelSkeleton.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::ModelFormat;
using mlnn::readBack;
using mlnn::skeletonOf;
using mlnn::test::fullModel;

TEST(ModelSkeleton, hasAllButTheParameters) {
  const MultiLayerNNModel model = fullModel();
  const MultiLayerNNModel skeleton = skeletonOf(model);
  ASSERT_EQ(skeleton.layers.size(), 3u);
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(skeleton.layers[i]->isBatchNorm, model.layers[i]->isBatchNorm);
    EXPECT_EQ(skeleton.layers[i]->actFn, model.layers[i]->actFn);
    EXPECT_EQ(skeleton.layers[i]->weights.cols(), model.layers[i]->weights.cols());
    EXPECT_EQ(skeleton.layers[i]->weights.rows(), 0);
  }
  EXPECT_EQ(skeleton.props, model.props);
  EXPECT_EQ(skeleton.notes.lines, model.notes.lines);
  EXPECT_EQ(skeleton.loss, model.loss);
  EXPECT_EQ(skeleton.useSoftmax, model.useSoftmax);
  EXPECT_TRUE(mlnn::test::sameDescription(skeleton.featureDesc, model.featureDesc));
  EXPECT_EQ(skeleton.deltasNorm.minvals, model.deltasNorm.minvals);
}

TEST(ModelSkeleton, hasNoCurveValuesThatNoTextHolds) {
  MultiLayerNNModel model;
  model.loss = {1, std::numeric_limits<float>::infinity()};
  model.accuracy = {std::numeric_limits<float>::quiet_NaN(), 2};
  const MultiLayerNNModel skeleton = skeletonOf(model);
  EXPECT_EQ(skeleton.loss, std::vector<float>({1, 0}));
  EXPECT_EQ(skeleton.accuracy, std::vector<float>({0, 2}));
}

TEST(ModelSkeleton, showsWhatAFormatDoesToTheRest) {
  MultiLayerNNModel model = fullModel();
  model.notes.lines = {"made by hand"};
  std::string messages = "left over";
  const MultiLayerNNModel text = readBack(skeletonOf(model), ModelFormat::kText, messages);
  EXPECT_EQ(messages, "");
  EXPECT_EQ(text.notes.lines, model.notes.lines);
  EXPECT_EQ(text.props, model.props);
  EXPECT_FALSE(text.useSoftmax);
  const MultiLayerNNModel image = readBack(skeletonOf(model), ModelFormat::kBinary, messages);
  EXPECT_EQ(messages, "");
  EXPECT_TRUE(image.notes.lines.empty());
  EXPECT_TRUE(image.useSoftmax);
  EXPECT_TRUE(mlnn::test::sameDescription(image.featureDesc, model.featureDesc));
}

TEST(ModelSkeleton, tellsWhatCannotBeReadAgain) {
  MultiLayerNNModel model;
  model.notes.lines = {"nn_tune feat_desc nonsense"};
  std::string messages;
  readBack(skeletonOf(model), ModelFormat::kText, messages);
  EXPECT_NE(messages.find("ERR"), std::string::npos) << messages;
}

}  // namespace
