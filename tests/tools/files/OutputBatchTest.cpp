#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/files/OutputBatch.h"

namespace {

namespace fs = std::filesystem;
using mlnn::OutputBatch;
using mlnn::OutputFile;
using mlnn::test::contentOf;
using mlnn::test::TempFolder;
using Names = std::vector<std::string>;

void addFile(OutputBatch& batch, const std::string& path, const std::string& text) {
  OutputFile file(path);
  file.stream() << text;
  batch.add(file);
}

TEST(OutputBatchTest, givesNamesWhenItIsCommitted) {
  const TempFolder folder;
  folder.write("b", "old");
  OutputBatch batch;
  addFile(batch, folder.path("a"), "first");
  addFile(batch, folder.path("b"), "second");
  EXPECT_FALSE(fs::exists(folder.path("a")));
  EXPECT_EQ(contentOf(folder.path("b")), "old");
  EXPECT_TRUE(batch.commit().empty());
  EXPECT_EQ(folder.names(), (Names{"a", "b"}));
  EXPECT_EQ(contentOf(folder.path("a")), "first");
  EXPECT_EQ(contentOf(folder.path("b")), "second");
  EXPECT_TRUE(batch.commit().empty());  // nothing is left in it
}

TEST(OutputBatchTest, leavesNothingWhenItIsNotCommitted) {
  const TempFolder folder;
  folder.write("b", "old");
  {
    OutputBatch batch;
    addFile(batch, folder.path("a"), "first");
    addFile(batch, folder.path("b"), "second");
  }
  EXPECT_EQ(folder.names(), Names{"b"});
  EXPECT_EQ(contentOf(folder.path("b")), "old");
}

// What has its name from the beginning takes a place all the same.
TEST(OutputBatchTest, tellsWhichFilesFailedAndGivesTheOthersTheirNames) {
  const TempFolder folder;
  OutputBatch batch;
  addFile(batch, "/dev/null", "nothing");
  addFile(batch, folder.path("a"), "first");
  addFile(batch, folder.path("b"), "second");
  addFile(batch, folder.path("c"), "third");
  fs::create_directory(folder.path("b"));
  const OutputBatch::Failures failures = batch.commit();
  ASSERT_EQ(failures.size(), 1u);
  EXPECT_EQ(failures[0].first, 2u);
  EXPECT_STREQ(failures[0].second.what(),
               ("cannot write '" + folder.path("b") + "': Is a directory").c_str());
  EXPECT_EQ(folder.names(), (Names{"a", "b", "c"}));
  EXPECT_EQ(contentOf(folder.path("c")), "third");
}

TEST(OutputBatchTest, doesNotTakeAFileThatIsNotWhole) {
  OutputBatch batch;
  EXPECT_THROW(addFile(batch, "/dev/full", "text"), mlnn::WriteFailure);
  EXPECT_TRUE(batch.commit().empty());
}

// Other files are to find descriptors as well.
TEST(OutputBatchTest, isFullAtAQuarterOfTheDescriptors) {
  const TempFolder folder;
  rlimit before;
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
  rlimit few = before;
  few.rlim_cur = 64;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
  OutputBatch batch;
  int files = 0;
  for (; !batch.isFull(); ++files) addFile(batch, folder.path(std::to_string(files)), "x");
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
  EXPECT_EQ(files, 16);
  EXPECT_TRUE(batch.commit().empty());
  EXPECT_EQ(folder.names().size(), 16u);
}

TEST(OutputBatchTest, isRemovedOnInterrupt) {
  const TempFolder folder;
  const pid_t child = fork();
  if (child == 0) {
    OutputBatch batch;
    for (const char* name : {"a", "b", "c"}) addFile(batch, folder.path(name), "half");
    raise(SIGTERM);
    _exit(0);
  }
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
  EXPECT_EQ(folder.names(), Names{});
}

}  // namespace
