#include <gtest/gtest.h>

#include <sstream>

#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/RunnableModel.h"

namespace {

using mlnn::RunnableModel;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

MultiLayerNNModel network() {
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::plainLayer(3, 4), mlnn::test::plainLayer(4, 2)});
  model.deltasNorm.allocIfNeeded();
  model.useSoftmax = true;
  return model;
}

std::string textOf(const MultiLayerNNModel& model) {
  std::ostringstream out;
  out.precision(9);
  model.serializeAscii(out);
  return out.str();
}

class RunnableModels : public testing::Test {
 protected:
  TempFolder folder_;
  std::string image_ = folder_.write("image", mlnn::test::ByteImage::of(network()).bytes());
  std::string text_ = folder_.write("text", textOf(network()));
};

TEST_F(RunnableModels, runAlikeAsTextsAndAsImages) {
  const Eigen::MatrixXf inputs = mlnn::test::someValues(3, 5, 1);
  stderrOf([&] {
    RunnableModel text(text_, {}, false);
    RunnableModel image(image_, {}, false);
    RunnableModel loaded(image_, {}, true);
    Eigen::MatrixXf wanted;
    ASSERT_EQ(text.pass().evaluate(inputs, wanted), 0);
    for (RunnableModel* model : {&image, &loaded}) {
      Eigen::MatrixXf outputs;
      ASSERT_EQ(model->pass().evaluate(inputs, outputs), 0);
      EXPECT_TRUE(mlnn::test::sameBits(outputs, wanted));
      EXPECT_EQ(model->inputSide().numInputs, 3);
      EXPECT_TRUE(model->outputSide().arePosteriors);
      EXPECT_EQ(model->outputSide().labels, std::vector<std::string>({"0", "1"}));
      const auto another = model->anotherPass();
      ASSERT_NE(another, nullptr);
      ASSERT_EQ(another->evaluate(inputs, outputs), 0);
      EXPECT_TRUE(mlnn::test::sameBits(outputs, wanted));
    }
  });
}

TEST_F(RunnableModels, haveTheSoftmaxThatTheyAreSaidToHave) {
  const Eigen::MatrixXf inputs = mlnn::test::someValues(3, 2, 1);
  stderrOf([&] {
    for (const std::string& name : {text_, image_}) {
      RunnableModel without(name, {}, false, false);
      EXPECT_FALSE(without.outputSide().arePosteriors);
      Eigen::MatrixXf outputs;
      ASSERT_EQ(without.pass().evaluate(inputs, outputs), 0);
      MultiLayerNNModel plain = network();
      plain.useSoftmax = false;
      Eigen::MatrixXf wanted;
      ASSERT_EQ(NNFwdPassFromFile(plain).evaluate(inputs, wanted), 0);
      EXPECT_TRUE(mlnn::test::sameBits(outputs, wanted));
      ASSERT_EQ(without.anotherPass()->evaluate(inputs, outputs), 0);
      EXPECT_TRUE(mlnn::test::sameBits(outputs, wanted));
    }
  });
}

TEST_F(RunnableModels, areRefusedWhereTheyCannotBeRead) {
  stderrOf([&] {
    EXPECT_THROW(RunnableModel(folder_.path("missing"), {}, false), mlnn::Failure);
    EXPECT_THROW(RunnableModel(folder_.write("broken", "x"), {}, false), mlnn::Failure);
  });
}

}  // namespace
