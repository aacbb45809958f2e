#include <gtest/gtest.h>

#include <functional>

#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/TraceWriter.h"

namespace {

using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::TempFolder;
using Names = std::vector<std::string>;

std::string refusalOf(const std::function<void()>& action) {
  try {
    action();
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

Eigen::MatrixXf traced(MultiLayerNNModel model, const Eigen::MatrixXf& frames,
                       const std::string& folder) {
  std::string whyNot;
  const auto inputs = mlnn::RecordingInputs::forFrames(model, frames.rows(), true, "F", whyNot);
  mlnn::Progress progress(1);
  return mlnn::writeTrace(model, inputs.value(), frames, folder, progress);
}

TEST(TraceWriter, writesEveryStage) {
  const TempFolder folder;
  const std::string trace = folder.path("new/trace");
  const Eigen::MatrixXf frames = mlnn::test::someValues(3, 700, 1);
  const Eigen::MatrixXf outputs = traced(modelOf({plainLayer(3, 2)}), frames, trace);
  EXPECT_EQ(mlnn::stagesIn(trace), Names({"inputs", "layer-1-affine", "layer-1", "outputs"}));
  EXPECT_TRUE(mlnn::test::sameBits(mlnn::readFrames(mlnn::stagePath(trace, "inputs")), frames));
  EXPECT_TRUE(mlnn::test::sameBits(mlnn::readFrames(mlnn::stagePath(trace, "outputs")), outputs));
}

TEST(TraceWriter, mixesNoTraces) {
  const TempFolder folder;
  const Eigen::MatrixXf frames = mlnn::test::someValues(3, 2, 1);
  traced(modelOf({plainLayer(3, 2), plainLayer(2, 2)}), frames, folder.path());
  const Names before = folder.names();
  EXPECT_EQ(refusalOf([&] { traced(modelOf({plainLayer(3, 2)}), frames, folder.path()); }),
            "the folder '" + folder.path() +
                "' holds the trace of another model (layer-2-affine.npy); remove it first");
  EXPECT_EQ(folder.names(), before);
}

TEST(TraceWriter, passesOverOtherFiles) {
  const TempFolder folder;
  for (const char* name : {"outputs.npy", "inputs.npy", "layer-10.npy", "layer-2.npy", "x.npy",
                           "layer-0.npy", "inputs.txt"}) {
    folder.write(name, "");
  }
  EXPECT_EQ(mlnn::stagesIn(folder.path()), Names({"inputs", "layer-2", "layer-10", "outputs"}));
  EXPECT_EQ(refusalOf([&] { mlnn::stagesIn(folder.path("missing")); }),
            "cannot read the folder '" + folder.path("missing") + "': No such file or directory");
}

TEST(TraceWriter, replacesNoInput) {
  const TempFolder folder;
  mlnn::OwnInputs inputs;
  inputs.add(folder.write("inputs.npy", ""), "frames");
  EXPECT_NE(refusalOf([&] { mlnn::refuseTraceOf(inputs, folder.path()); }), "");
  EXPECT_EQ(refusalOf([&] { mlnn::refuseTraceOf(inputs, folder.path("missing")); }), "");
}

}  // namespace
