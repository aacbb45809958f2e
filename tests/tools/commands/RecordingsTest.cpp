#include <gtest/gtest.h>

#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/commands/Recordings.h"

namespace {

using mlnn::InputSide;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

MultiLayerNNModel network() {
  MultiLayerNNModel model = modelOf({plainLayer(2, 3)});
  EXPECT_EQ(model.featureDesc.deserialize("mel_deltas:bands=2,left=0,right=0,deltas=0,"
                                          "line_kernels=0,line_kernel_width=0"),
            0);
  return model;
}

TEST(Recordings, areInputsOfANetwork) {
  const MultiLayerNNModel model = network();
  EXPECT_EQ(stderrOf([&] {
              EXPECT_TRUE(mlnn::inputsFor(InputSide::of(model), 2, true, "f").areStacked());
              EXPECT_FALSE(mlnn::inputsFor(InputSide::of(model), 2, false, "f").areStacked());
            }),
            "");
  EXPECT_THROW(mlnn::inputsFor(InputSide::of(model), 5, false, "f"), mlnn::Failure);
}

TEST(Recordings, areWarnedOfWhatIsNotApplied) {
  MultiLayerNNModel model = network();
  model.featureDesc.useLineKernels = true;
  const std::string warning =
      "the feature description asks for line kernels, which are not applied to 'a.npy'";
  EXPECT_EQ(stderrOf([&] { mlnn::inputsFor(InputSide::of(model), 2, false, "a.npy"); }),
            "Warning: " + warning + "\n");
  std::string told;
  EXPECT_EQ(stderrOf([&] { mlnn::inputsFor(InputSide::of(model), 2, false, "a.npy", told); }), "");
  EXPECT_EQ(told, warning);
}

TEST(Recordings, showHowTwoModelsBehave) {
  const TempFolder folder;
  const std::string one = folder.write("one.txt", "1 2\n3 4\n5 6\n");
  const std::string two = folder.write("two.txt", "7 8\n");
  MultiLayerNNModel a = network();
  MultiLayerNNModel b = a.clone();
  b.layers[0]->bias[1] += 1;
  const mlnn::BehaviourDiff diff = mlnn::compareBehaviour(a, b, {one, two}, false);
  EXPECT_EQ(diff.recordings(), 2u);
  EXPECT_EQ(diff.frames(), 4u);
  EXPECT_EQ(diff.firstBeyond(0)->stage, "layer-1-affine");
  EXPECT_THROW(mlnn::compareBehaviour(a, b, {one, folder.path("missing")}, false), mlnn::Failure);
}

}  // namespace
