#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "tests/support/TempFolder.h"
#include "tools/Failure.h"
#include "tools/files/Frames.h"
#include "tools/files/TraceFolders.h"
#include "tools/files/TraceWriter.h"

namespace {

using mlnn::compareTraceFolders;
using mlnn::test::TempFolder;

// Two folders with traces that consist of single values.
class TraceFolders : public testing::Test {
 protected:
  void put(const std::string& trace, const std::string& stage, float value) {
    const std::string name = folder_.path(trace);
    std::filesystem::create_directories(name);
    mlnn::writeFrames(mlnn::stagePath(name, stage), Eigen::MatrixXf::Constant(1, 1, value));
  }

  std::string refusalOf(const std::string& a, const std::string& b) const {
    try {
      compareTraceFolders(folder_.path(a), folder_.path(b), false);
    } catch (const mlnn::Failure& failure) {
      return failure.what();
    }
    return "";
  }

  TempFolder folder_;
};

TEST_F(TraceFolders, areSingleTraces) {
  put("a", "inputs", 1);
  put("a", "outputs", 3);
  put("b", "outputs", 5);
  const auto found = compareTraceFolders(folder_.path("a"), folder_.path("b"), false);
  ASSERT_EQ(found.size(), 1u);
  EXPECT_EQ(found[0].recording, "");
  ASSERT_EQ(found[0].stages.size(), 2u);
  EXPECT_FALSE(found[0].stages[0].b.isPresent);
  EXPECT_EQ(found[0].stages[1].difference.largest(), 2);
  const auto common = compareTraceFolders(folder_.path("a"), folder_.path("b"), true);
  ASSERT_EQ(common[0].stages.size(), 1u);
  EXPECT_EQ(common[0].stages[0].stage, "outputs");
}

TEST_F(TraceFolders, holdTracesByTheirNames) {
  put("a/one", "outputs", 1);
  put("a/two", "outputs", 1);
  put("b/two", "outputs", 1);
  put("b/three", "outputs", 1);
  std::filesystem::create_directory(folder_.path("a/none"));
  const auto found = compareTraceFolders(folder_.path("a"), folder_.path("b"), false);
  ASSERT_EQ(found.size(), 3u);
  EXPECT_EQ(found[0].recording, "one");
  EXPECT_EQ(found[1].recording, "three");
  EXPECT_EQ(found[2].recording, "two");
  EXPECT_EQ(compareTraceFolders(folder_.path("a"), folder_.path("b"), true).size(), 1u);
}

TEST_F(TraceFolders, areRefusedWithNothingInCommon) {
  put("a", "inputs", 1);
  put("b", "outputs", 1);
  EXPECT_EQ(refusalOf("a", "b"), "'" + folder_.path("a") + "' and '" + folder_.path("b") +
                                     "' have no stage of a trace in common");
  EXPECT_EQ(refusalOf("a", "missing"),
            "cannot read the folder '" + folder_.path("missing") + "': No such file or directory");
}

}  // namespace
