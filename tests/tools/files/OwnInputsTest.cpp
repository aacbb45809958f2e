#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/support/TempFolder.h"
#include "tools/Failure.h"
#include "tools/files/OwnInputs.h"

namespace {

namespace fs = std::filesystem;
using mlnn::OwnInputs;
using mlnn::test::TempFolder;

std::string refusalOf(const OwnInputs& inputs, const std::string& result) {
  try {
    inputs.refuse(result);
  } catch (const mlnn::UsageError& error) {
    return error.what();
  }
  return "";
}

TEST(OwnInputs, areKnownByAnyName) {
  const TempFolder folder;
  const std::string model = folder.write("model", "text");
  const std::string frames = folder.write("frames", "text");
  fs::create_hard_link(model, folder.path("hard"));
  fs::create_symlink("frames", folder.path("soft"));
  OwnInputs inputs;
  inputs.add(model, "model");
  inputs.add(folder.path("soft"), "frames");
  const std::string before = "the result would replace its own ";
  EXPECT_EQ(refusalOf(inputs, folder.path("./model")), before + "model, '" + model + "'");
  EXPECT_EQ(refusalOf(inputs, folder.path("hard")), before + "model, '" + model + "'");
  EXPECT_EQ(refusalOf(inputs, frames), before + "frames, '" + folder.path("soft") + "'");
}

TEST(OwnInputs, leaveOtherFilesAndPipesAlone) {
  const TempFolder folder;
  ASSERT_EQ(mkfifo(folder.path("pipe").c_str(), 0600), 0);
  OwnInputs inputs;
  for (const std::string& name : {folder.path("missing"), folder.path("pipe"), folder.path(),
                                  std::string("-"), std::string("/dev/null")}) {
    inputs.add(name, "model");
  }
  inputs.add(folder.write("model", "text"), "model");
  for (const std::string& name :
       {folder.path("missing"), folder.path("pipe"), folder.path(), std::string("-"),
        std::string("/dev/null"), std::string(), folder.write("other", "text")}) {
    EXPECT_EQ(refusalOf(inputs, name), "") << name;
  }
}

}  // namespace
