#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "model/RowQuantization.h"
#include "tests/support/TestModels.h"
#include "tools/reports/DiffReport.h"

namespace {

using mlnn::ModelDiff;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;

ModelDiff diffOf(const MultiLayerNNModel& a, const MultiLayerNNModel& b) {
  ModelDiff diff;
  diff.nameA = "a";
  diff.nameB = "b";
  diff.statements = mlnn::compareStatements(a, b);
  diff.layers = mlnn::compareNumbers(a, b);
  diff.quantization = mlnn::quantizationBetween(a, b);
  return diff;
}

std::string textOf(const ModelDiff& diff) {
  std::ostringstream out;
  mlnn::printDiff(diff, out);
  return out.str();
}

TEST(DiffReport, isTwoLinesOfModelsThatAreTheSame) {
  const MultiLayerNNModel model = modelOf({plainLayer(2, 2)});
  const ModelDiff diff = diffOf(model, model);
  EXPECT_TRUE(diff.isSame());
  EXPECT_EQ(textOf(diff), "--- a\n+++ b\nwhat the models say: same\nnumbers: same\n");
  EXPECT_EQ(mlnn::diffJson(diff)["numbers"]["same"], true);
  EXPECT_EQ(textOf(diffOf(MultiLayerNNModel(), model)).rfind("numbers: no layers to compare\n"),
            textOf(diffOf(MultiLayerNNModel(), model)).size() - 30);
}

TEST(DiffReport, listsWhatDiffersBelowEachLevel) {
  MultiLayerNNModel a = modelOf({plainLayer(2, 2)});
  a.layers[0]->weights << 1, 2, 3, 4;
  a.layers[0]->bias << 0, 0;
  MultiLayerNNModel b = a.clone();
  b.layers[0]->weights(1, 0) = 5;
  b.props["name"] = "\x1b";
  const ModelDiff diff = diffOf(a, b);
  EXPECT_FALSE(diff.isSame());
  EXPECT_FALSE(diff.sameStatements());
  EXPECT_FALSE(diff.sameNumbers());
  EXPECT_TRUE(diff.sameBehaviour());  // nobody looked
  const std::string text = textOf(diff);
  EXPECT_EQ(text.rfind("--- a\n+++ b\nwhat the models say: 1 difference\n+ property name: \\x1b\n"
                       "numbers: different in 1 of 1 layer\n",
                       0),
            0u)
      << text;
  const auto json = mlnn::diffJson(diff);
  EXPECT_TRUE(json["statements"]["differences"][0]["a"].is_null());
  EXPECT_EQ(json["numbers"]["layers"][0]["arrays"]["weights"]["largest"], 2.0);
}

TEST(DiffReport, tellsWhichModelWasQuantised) {
  const MultiLayerNNModel original = modelOf({plainLayer(20, 10)});
  MultiLayerNNModel rounded = original.clone();
  mlnn::RowQuantization options;
  options.bits = 6;
  ASSERT_EQ(mlnn::quantizeRows(rounded, options), 0);
  const auto forwards = mlnn::quantizationBetween(original, rounded);
  ASSERT_TRUE(forwards);
  EXPECT_TRUE(forwards->isOfB);
  EXPECT_FALSE(mlnn::quantizationBetween(rounded, original)->isOfB);
  EXPECT_NE(textOf(diffOf(rounded, original))
                .find("quantised: the numbers of the first model are those of the second, rounded "
                      "by rows to 6 bits in layer 1\n"),
            std::string::npos);
}

}  // namespace
