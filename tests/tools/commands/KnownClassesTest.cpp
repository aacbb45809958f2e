#include <gtest/gtest.h>

#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/commands/KnownClasses.h"

namespace {

using mlnn::KnownClasses;

MultiLayerNNModel model() {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(2, 3)});
  model.props["labels"] = "yes,no,other";
  return model;
}

template <typename Action>
std::string refusalOf(Action action) {
  try {
    action();
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(KnownClasses, areNotKnownWithoutATable) {
  const KnownClasses classes("", model());
  EXPECT_FALSE(classes.areKnown());
  EXPECT_EQ(classes.of("a.npy"), std::nullopt);
}

TEST(KnownClasses, areTheOutputsThatTheLabelsName) {
  const mlnn::test::TempFolder folder;
  const KnownClasses classes(
      folder.write("labels.csv", "file,label\na.npy,other\nb.npy,yes\nc.npy,maybe\n"), model());
  EXPECT_TRUE(classes.areKnown());
  EXPECT_EQ(classes.of("folder/a.npy"), 2);
  EXPECT_EQ(classes.of("b.npy"), 0);
  EXPECT_EQ(refusalOf([&] { classes.of("c.npy"); }),
            "the label 'maybe' of 'c.npy' is no class of the model");
}

TEST(KnownClasses, needPosteriors) {
  const mlnn::test::TempFolder folder;
  const std::string labels = folder.write("labels.csv", "file,label\n");
  MultiLayerNNModel scores = model();
  scores.useSoftmax = false;
  EXPECT_EQ(refusalOf([&] { KnownClasses(labels, scores); }),
            "--labels needs a model with a softmax, whose outputs are posteriors");
}

}  // namespace
