#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

#include "os/Descriptors.h"
#include "os/Replacing.h"
#include "tests/support/TempFolder.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::TempFolder;

unsigned permissionsOf(int descriptor) {
  mlnn::FileStatus status;
  EXPECT_TRUE(mlnn::readStatus(descriptor, status));
  return status.access.permissions;
}

TEST(Replacing, knowsTheNamesOfOwnDescriptors) {
  EXPECT_EQ(mlnn::descriptorNamed("/dev/fd/3"), 3);
  EXPECT_EQ(mlnn::descriptorNamed("/proc/self/fd/17"), 17);
  EXPECT_EQ(mlnn::descriptorNamed("/proc/" + std::to_string(getpid()) + "/fd/4"), 4);
  for (const char* other : {"/dev/fd/", "/dev/fd/3x", "/dev/fd/x", "/dev/null", "3", "/tmp/3",
                            "/proc/1/fd/3", "/dev/fd/99999999999"}) {
    EXPECT_EQ(mlnn::descriptorNamed(other), std::nullopt) << other;
  }
}

TEST(Replacing, followsLinksToWhatTheyName) {
  const TempFolder folder;
  const fs::path base(folder.path());
  fs::create_directory(base / "below");
  fs::create_symlink("below/second", base / "first");
  fs::create_symlink("file", base / "below" / "second");
  EXPECT_EQ(mlnn::withoutLinks(base / "first"), base / "below" / "file");  // which is not there
  EXPECT_EQ(mlnn::withoutLinks(base / "plain"), base / "plain");
  fs::create_symlink("/dev/fd/1", base / "output");
  EXPECT_EQ(mlnn::withoutLinks(base / "output"), "/dev/fd/1");
  fs::create_symlink("round", base / "round");
  EXPECT_EQ(mlnn::withoutLinks(base / "round"), base / "round");
}

TEST(Replacing, putsANewFileInThePlaceOfAnother) {
  const TempFolder folder;
  const std::string old = folder.write("model", "before");
  std::string name = old + ".";
  const int descriptor = mlnn::makeNewFile(name);
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(name.size(), old.size() + 1 + mlnn::kEndingOfNewFile);
  EXPECT_EQ(contentOf(name), "");
  EXPECT_NE(fcntl(descriptor, F_GETFD) & FD_CLOEXEC, 0);
  EXPECT_EQ(mlnn::writeBytes(descriptor, "after", 5), 5);
  EXPECT_TRUE(mlnn::reachesDisk(descriptor));
  EXPECT_EQ(contentOf(old), "before");
  EXPECT_TRUE(mlnn::replaceFile(name, old));
  EXPECT_EQ(contentOf(old), "after");
  EXPECT_FALSE(fs::exists(name));
  mlnn::closeDescriptor(descriptor);
  EXPECT_FALSE(mlnn::replaceFile(name, old));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(contentOf(old), "after");
  mlnn::removeFile(old.c_str());
  EXPECT_FALSE(fs::exists(old));
  mlnn::removeFile(old.c_str());  // once more does no harm
}

TEST(Replacing, makesNoFileWhereThereIsNoFolder) {
  const TempFolder folder;
  std::string name = folder.path() + "/missing/file";
  EXPECT_EQ(mlnn::makeNewFile(name), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Replacing, handsDownWhoMayDoWhat) {
  const TempFolder folder;
  const int descriptor = mlnn::openForWriting(folder.write("file", "").c_str());
  mlnn::FileAccess access;
  access.owner = geteuid();
  access.group = getegid();
  access.permissions = 0751;
  EXPECT_TRUE(mlnn::takeAccess(descriptor, &access));
  EXPECT_EQ(permissionsOf(descriptor), 0751u);
  const mode_t before = umask(027);
  EXPECT_TRUE(mlnn::takeAccess(descriptor, nullptr));
  EXPECT_EQ(umask(before), 027u);
  EXPECT_EQ(permissionsOf(descriptor), 0640u);
  mlnn::closeDescriptor(descriptor);
  EXPECT_FALSE(mlnn::takeAccess(descriptor, nullptr));
}

TEST(Replacing, waitsForTheDiskWhereThatCanBeAskedFor) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_TRUE(mlnn::reachesDisk(ends[1]));  // which knows no such request
  close(ends[0]);
  close(ends[1]);
  EXPECT_FALSE(mlnn::reachesDisk(ends[1]));
  const TempFolder folder;
  EXPECT_FALSE(mlnn::reachDiskTogether({folder.path(), folder.path() + "/missing"}));
}

TEST(Replacing, mayHaveSomeDescriptors) { EXPECT_GE(mlnn::mostDescriptors(), 3); }

}  // namespace
