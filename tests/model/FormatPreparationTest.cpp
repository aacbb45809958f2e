#include <gtest/gtest.h>

#include "model/FormatLoss.h"
#include "model/FormatPreparation.h"
#include "tests/support/TestModels.h"

namespace {

using Lines = std::vector<std::string>;
using mlnn::prepareForImage;
using mlnn::prepareForText;

// The description that a reader gives a text without notes.
void describeAsUnstated(MultiLayerNNModel& model) {
  model.featureDesc = DbnFeatureDescription(DbnFeatureDescription::MelDeltas);
  model.featureDesc.winSizeLeft = 7;
  model.featureDesc.winSizeRight = 7;
  model.featureDesc.useDeltas = true;
}

// 2 -> 3 -> 2 -> 1, with two hidden batch-norm layers.
MultiLayerNNModel batchNormModel(ActFn::ActFn first, ActFn::ActFn second) {
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::batchNormLayer(2, 3), mlnn::test::batchNormLayer(3, 2),
                           mlnn::test::batchNormLayer(2, 1)});
  describeAsUnstated(model);
  model.layers[0]->actFn = first;
  model.layers[1]->actFn = second;
  return model;
}

TEST(FormatPreparation, aPlainModelNeedsNothing) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 3)});
  describeAsUnstated(model);
  const MultiLayerNNModel before = model;
  Lines done;
  prepareForText(model, done);
  EXPECT_EQ(done, Lines{});
  EXPECT_TRUE(mlnn::test::sameModel(model, before));
}

TEST(FormatPreparation, theActivationThatHiddenLayersShareBecomesAProperty) {
  MultiLayerNNModel model = batchNormModel(ActFn::relu, ActFn::relu);
  Lines done;
  prepareForText(model, done);
  EXPECT_EQ(done, Lines{"the activation of the hidden batch-norm layers is written as the property "
                        "hidden_act_fn (relu)"});
  EXPECT_EQ(model.getProp("hidden_act_fn"), "relu");
  done.clear();
  prepareForText(model, done);
  EXPECT_EQ(done, Lines{});
}

TEST(FormatPreparation, activationsThatDifferBecomeNone) {
  MultiLayerNNModel model = batchNormModel(ActFn::relu, ActFn::tanh);
  Lines done;
  prepareForText(model, done);
  EXPECT_EQ(done, Lines{});
  EXPECT_TRUE(model.props.empty());
}

TEST(FormatPreparation, descriptionAndNormalisationBecomeNotes) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(4, 3)});
  model.notes.lines = {"kept"};
  model.featureDesc = DbnFeatureDescription(DbnFeatureDescription::MelDeltas);
  model.featureDesc.numBands = 2;
  model.featureDesc.winSizeLeft = 1;
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.minvals[3] = 0.25f;
  Lines done;
  prepareForText(model, done);
  EXPECT_EQ(done, (Lines{"the feature description is written as a note line",
                         "the normalisation is written as note lines"}));
  ASSERT_GE(model.notes.lines.size(), 3u);
  EXPECT_EQ(model.notes.lines[0], "kept");
  EXPECT_EQ(model.notes.lines[1], "nn_tune feat_desc " + mlnn::textOf(model.featureDesc));
  EXPECT_EQ(model.notes.lines[2].substr(0, 60),
            "TRAIN rbm_train mlnn convert -deltas_norm_minvals 0,0,0,0.25");
  done.clear();
  prepareForText(model, done);
  EXPECT_EQ(done, Lines{});
}

TEST(FormatPreparation, anImageGetsBothArraysOfTheNormalisation) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 3)});
  model.deltasNorm.minvals.setConstant(120, 2);
  Lines done;
  prepareForImage(model, done);
  EXPECT_EQ(done, Lines{"a normalisation that changes nothing is added, since an image needs one"});
  EXPECT_EQ(model.deltasNorm.minvals.size(), 120);
  EXPECT_TRUE(mlnn::test::sameBits(model.deltasNorm.normvals, Eigen::VectorXf::Ones(120)));
  done.clear();
  prepareForImage(model, done);
  EXPECT_EQ(done, Lines{});
}

}  // namespace
