#include <gtest/gtest.h>

#include "model/ClassLabels.h"
#include "tests/support/TestModels.h"

namespace {

using Labels = std::vector<std::string>;
using mlnn::classLabels;

MultiLayerNNModel modelWith(const std::string& labels) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 3)});
  model.props["labels"] = labels;
  return model;
}

TEST(ClassLabels, areThoseOfTheProperty) {
  EXPECT_EQ(classLabels(modelWith("yes,no,other")), (Labels{"yes", "no", "other"}));
  EXPECT_EQ(classLabels(modelWith(",\x1b,")), (Labels{"", "\x1b", ""}));
}

TEST(ClassLabels, areNumbersWhereThePropertyHasOtherThanOneForEachOutput) {
  for (const char* labels : {"", "yes,no", "yes,no,other,more", "yes,no,other,"}) {
    EXPECT_EQ(classLabels(modelWith(labels)), (Labels{"0", "1", "2"})) << labels;
  }
  EXPECT_EQ(classLabels(mlnn::test::modelOf({mlnn::test::plainLayer(2, 3)})),
            (Labels{"0", "1", "2"}));
}

TEST(ClassLabels, ofSoManyOutputs) {
  EXPECT_EQ(classLabels(0), Labels{});
  EXPECT_EQ(classLabels(2), (Labels{"0", "1"}));
}

}  // namespace
