#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/SourceTree.h"

TEST(SourceTree, findsAFileOfTheTree) {
  EXPECT_TRUE(std::filesystem::is_regular_file(mlnn::test::sourcePath("model/ModelFormat.h")));
}

TEST(SourceTree, testsStartInTheRootOfTheTree) {
  EXPECT_TRUE(
      std::filesystem::equivalent(std::filesystem::current_path(), mlnn::test::sourcePath("")));
}
