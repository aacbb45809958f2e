#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/SourceTree.h"

TEST(SourceTree, findsAFileOfTheTree) {
  EXPECT_TRUE(std::filesystem::is_regular_file(mlnn::test::sourcePath("model/ModelFormat.h")));
}

TEST(SourceTree, testsStartInTheRootOfTheTree) {
  const char* const name =
      "model/ModelFormat.h";  // of a file, as not every system compares folders
  EXPECT_TRUE(std::filesystem::equivalent(name, mlnn::test::sourcePath(name)));
}
