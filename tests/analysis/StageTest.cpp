#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

#include "analysis/Stage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::StageValues;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using Names = std::vector<std::string>;

TEST(StageNames, areInTheOrderOfComputing) {
  EXPECT_EQ(mlnn::stageNames(0), (Names{"inputs", "outputs"}));
  EXPECT_EQ(mlnn::stageNames(2),
            (Names{"inputs", "layer-1-affine", "layer-1", "layer-2-affine", "layer-2", "outputs"}));
}

TEST(StageNames, areSortedByLayerAndNotByText) {
  const Names names = mlnn::stageNames(11);
  Names shuffled(names.rbegin(), names.rend());
  std::sort(shuffled.begin(), shuffled.end(), mlnn::comesBefore);
  EXPECT_EQ(shuffled, names);
}

TEST(StageNames, areTheOnlyOnes) {
  for (const std::string& name : mlnn::stageNames(11)) EXPECT_TRUE(mlnn::isStageName(name)) << name;
  EXPECT_TRUE(mlnn::isStageName("layer-4294967296"));
  for (const char* name :
       {"", "input", "inputs ", "Outputs", "layer", "layer-", "layer-0", "layer-01", "layer--1",
        "layer-+1", "layer-1-", "layer-1-affin", "layer-1-affine-", "layer-1x", "layer-x",
        "layer-18446744073709551615", "layer-99999999999999999999"}) {
    EXPECT_FALSE(mlnn::isStageName(name)) << name;
  }
}

TEST(StageValues, areThoseOfTheForwardPass) {
  MultiLayerNNModel model = modelOf({plainLayer(4, 3, 1), plainLayer(3, 2, 2)});
  const Eigen::MatrixXf inputs = someValues(4, 5, 3);
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  const StageValues values = mlnn::evaluateStages(*pass, inputs).value();
  Eigen::MatrixXf outputs;
  ASSERT_EQ(pass->evaluate(inputs, outputs), 0);
  ASSERT_EQ(values.inOrder().size(), mlnn::stageNames(2).size());
  EXPECT_TRUE(sameBits(*values.inOrder()[0], inputs));
  EXPECT_TRUE(sameBits(*values.inOrder()[1], values.layers[0].affine));
  EXPECT_TRUE(sameBits(*values.inOrder()[4], values.layers[1].activated));
  EXPECT_TRUE(sameBits(*values.inOrder()[5], outputs));
}

TEST(StageValues, areRefusedForAModelThatCannotBeRun) {
  MultiLayerNNModel model;
  const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
  const std::string messages = mlnn::test::stderrOf(
      [&pass] { EXPECT_FALSE(mlnn::evaluateStages(*pass, Eigen::MatrixXf(0, 1))); });
  EXPECT_EQ(messages, "ERROR: NNFwdPassFromFile::evaluate: model has no layers\n");
}

TEST(FramesAtOnce, areFewerTheWiderTheModelIs) {
  const Eigen::Index narrow = mlnn::framesAtOnce(modelOf({plainLayer(4, 3)}));
  const Eigen::Index wide = mlnn::framesAtOnce(modelOf({plainLayer(1, 5000)}));
  EXPECT_GT(narrow, wide);
  EXPECT_GE(wide, 1);
  EXPECT_LE(wide * 5000, Eigen::Index{1} << 22);
  EXPECT_EQ(mlnn::framesAtOnce(modelOf({plainLayer(0, 5000000)})), 1);
}

}  // namespace
