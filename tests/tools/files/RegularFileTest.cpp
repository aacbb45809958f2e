#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <string>

#include "tests/support/TempFolder.h"
#include "tools/files/RegularFile.h"

namespace {

using mlnn::identityOfRegularFile;
using mlnn::test::TempFolder;

TEST(RegularFile, isTheSameByAllItsNames) {
  const TempFolder folder;
  const std::string file = folder.write("file", "text");
  std::filesystem::create_hard_link(file, folder.path("hard"));
  std::filesystem::create_symlink("file", folder.path("soft"));
  ASSERT_TRUE(identityOfRegularFile(file));
  EXPECT_EQ(identityOfRegularFile(folder.path("hard")), identityOfRegularFile(file));
  EXPECT_EQ(identityOfRegularFile(folder.path("soft")), identityOfRegularFile(file));
  EXPECT_NE(identityOfRegularFile(folder.write("other", "text")), identityOfRegularFile(file));
}

TEST(RegularFile, isNothingElse) {
  const TempFolder folder;
  ASSERT_EQ(mkfifo(folder.path("pipe").c_str(), 0600), 0);
  for (const std::string& name : {folder.path("missing"), folder.path("pipe"), folder.path(),
                                  std::string("-"), std::string("/dev/null"), std::string()}) {
    EXPECT_FALSE(identityOfRegularFile(name)) << name;
  }
}

}  // namespace
