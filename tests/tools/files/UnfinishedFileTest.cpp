#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <string>
#include <utility>
#include <vector>

#include "tests/support/TempFolder.h"
#include "tools/files/UnfinishedFile.h"

namespace {

using mlnn::FileDescriptor;
using mlnn::UnfinishedFile;
using mlnn::test::TempFolder;

TEST(UnfinishedFile, isRemovedUnlessItIsReleased) {
  const TempFolder folder;
  std::string path;
  {
    UnfinishedFile file;
    EXPECT_EQ(file.path(), "");
    EXPECT_TRUE(file.makeIn(folder.path()).isOpen());
    path = file.path();
    EXPECT_EQ(folder.names().size(), 1u);
  }
  EXPECT_TRUE(folder.names().empty());
  {
    UnfinishedFile file;
    EXPECT_TRUE(file.makeIn(folder.path()).isOpen());
    EXPECT_NE(file.path(), path);
    file.release();
    EXPECT_EQ(file.path(), "");
  }
  EXPECT_EQ(folder.names().size(), 1u);
}

TEST(UnfinishedFile, movesWithItsFile) {
  const TempFolder folder;
  UnfinishedFile first;
  first.makeIn(folder.path());
  const std::string path = first.path();
  {
    const UnfinishedFile moved(std::move(first));
    EXPECT_EQ(moved.path(), path);
    EXPECT_EQ(first.path(), "");
    EXPECT_EQ(folder.names().size(), 1u);
  }
  EXPECT_TRUE(folder.names().empty());
}

TEST(UnfinishedFile, isNotMadeWhereThereIsNoFolder) {
  const TempFolder folder;
  UnfinishedFile file;
  EXPECT_FALSE(file.makeIn(folder.path("missing")).isOpen());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(file.path(), "");
}

TEST(UnfinishedFile, areNoMoreThanAHandlerKnows) {
  const TempFolder folder;
  std::vector<UnfinishedFile> files(UnfinishedFile::kMost);
  for (UnfinishedFile& file : files) ASSERT_TRUE(file.makeIn(folder.path()).isOpen());
  UnfinishedFile further;
  EXPECT_FALSE(further.makeIn(folder.path()).isOpen());
  EXPECT_EQ(errno, EMFILE);
  files.pop_back();
  EXPECT_TRUE(further.makeIn(folder.path()).isOpen());
  UnfinishedFile::removeAny();
  EXPECT_TRUE(folder.names().empty());
}

TEST(UnfinishedFile, goesWhenASignalEndsTheProcess) {
  const TempFolder folder;
  EXPECT_EXIT(
      {
        UnfinishedFile file;
        file.makeIn(folder.path());
        std::raise(SIGTERM);
        _exit(3);
      },
      testing::KilledBySignal(SIGTERM), "^$");
  EXPECT_TRUE(folder.names().empty());
}

TEST(UnfinishedFile, leavesSignalsAloneWhereItIsToldTo) {
  const TempFolder folder;
  EXPECT_EXIT(
      {
        UnfinishedFile::leaveSignalsAlone();
        UnfinishedFile file;
        file.makeIn(folder.path());
        std::raise(SIGTERM);
        _exit(3);
      },
      testing::KilledBySignal(SIGTERM), "^$");
  EXPECT_EQ(folder.names().size(), 1u);
}

}  // namespace
