#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "os/Descriptors.h"
#include "tests/support/TempFolder.h"

namespace {

using mlnn::FileKind;
using mlnn::FileStatus;
using mlnn::test::contentOf;
using mlnn::test::TempFolder;

bool endsWithPrograms(int descriptor) { return (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) != 0; }

TEST(Descriptors, tellWhatANameStandsFor) {
  const TempFolder folder;
  const std::string file = folder.write("file", "12345");
  chmod(file.c_str(), 0640);
  FileStatus status;
  ASSERT_TRUE(mlnn::readStatus(file.c_str(), status));
  EXPECT_EQ(status.kind, FileKind::kRegular);
  EXPECT_EQ(status.length, 5u);
  EXPECT_EQ(status.access.permissions, 0640u);
  EXPECT_EQ(status.access.owner, geteuid());
  ASSERT_TRUE(mlnn::readStatus("/dev/null", status));
  EXPECT_EQ(status.kind, FileKind::kCharacterDevice);
  ASSERT_TRUE(mlnn::readStatus(folder.path().c_str(), status));
  EXPECT_EQ(status.kind, FileKind::kOther);
}

TEST(Descriptors, giveAllNamesOfAFileOneIdentity) {
  const TempFolder folder;
  const std::string file = folder.write("file", "");
  const std::string link = folder.path() + "/link";
  const std::string hard = folder.path() + "/hard";
  ASSERT_EQ(symlink(file.c_str(), link.c_str()), 0);
  ASSERT_EQ(::link(file.c_str(), hard.c_str()), 0);
  FileStatus status;
  ASSERT_TRUE(mlnn::readStatus(file.c_str(), status));
  for (const std::string& name : {link, hard}) {
    FileStatus other;
    ASSERT_TRUE(mlnn::readStatus(name.c_str(), other));
    EXPECT_EQ(other.identity, status.identity) << name;
  }
  FileStatus other;
  ASSERT_TRUE(mlnn::readStatus(folder.write("other", "").c_str(), other));
  EXPECT_NE(other.identity, status.identity);
}

TEST(Descriptors, refuseWhatIsNotThere) {
  const TempFolder folder;
  const std::string missing = folder.path() + "/missing";
  FileStatus status;
  status.length = 7;
  errno = 0;
  EXPECT_FALSE(mlnn::readStatus(missing.c_str(), status));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(status.length, 7u);
  EXPECT_EQ(mlnn::openForReading(missing.c_str()), -1);
  errno = 0;
  EXPECT_EQ(mlnn::openForWriting(missing.c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(mlnn::readStatus(missing.c_str(), status));  // nor has it been made
  EXPECT_FALSE(mlnn::readStatus(-1, status));
  EXPECT_EQ(mlnn::duplicated(-1), -1);
  EXPECT_FALSE(mlnn::closeDescriptor(-1));
}

TEST(Descriptors, leaveAFileThatIsOpenedForWritingAsItIs) {
  const TempFolder folder;
  const std::string file = folder.write("file", "abcdef");
  const int descriptor = mlnn::openForWriting(file.c_str());
  ASSERT_GE(descriptor, 0);
  EXPECT_EQ(contentOf(file), "abcdef");
  EXPECT_EQ(mlnn::writeBytes(descriptor, "AB", 2), 2);
  EXPECT_EQ(contentOf(file), "ABcdef");
  EXPECT_TRUE(mlnn::closeDescriptor(descriptor));
}

TEST(Descriptors, readFromWhereTheyAreMovedTo) {
  const TempFolder folder;
  const int descriptor = mlnn::openForReading(folder.write("file", "abcdef").c_str());
  ASSERT_GE(descriptor, 0);
  char bytes[8] = {};
  EXPECT_EQ(mlnn::readBytes(descriptor, bytes, 2), 2);
  EXPECT_EQ(mlnn::placeIn(descriptor), 2);
  EXPECT_TRUE(mlnn::moveTo(descriptor, 4));
  EXPECT_EQ(mlnn::readBytes(descriptor, bytes, 8), 2);
  EXPECT_EQ(std::string(bytes, 2), "ef");
  EXPECT_EQ(mlnn::readBytes(descriptor, bytes, 8), 0);
  EXPECT_EQ(mlnn::readBytesAt(descriptor, 1, bytes, 3), 3);
  EXPECT_EQ(std::string(bytes, 3), "bcd");
  EXPECT_EQ(mlnn::readBytesAt(descriptor, 6, bytes, 3), 0);
  EXPECT_TRUE(mlnn::closeDescriptor(descriptor));
}

TEST(Descriptors, areNotHandedToProgramsThatAreStarted) {
  const TempFolder folder;
  const std::string file = folder.write("file", "");
  for (const int descriptor : {mlnn::openForReading(file.c_str()),
                               mlnn::openForWriting(file.c_str()), mlnn::duplicated(0)}) {
    ASSERT_GE(descriptor, 0);
    EXPECT_TRUE(endsWithPrograms(descriptor));
    EXPECT_TRUE(mlnn::closeDescriptor(descriptor));
  }
}

TEST(Descriptors, knowWhetherAPipeHasBytes) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  EXPECT_FALSE(mlnn::hasBytesReady(ends[0]));
  EXPECT_EQ(mlnn::writeBytes(ends[1], "x", 1), 1);
  EXPECT_TRUE(mlnn::hasBytesReady(ends[0]));
  EXPECT_EQ(mlnn::placeIn(ends[0]), -1);
  EXPECT_FALSE(mlnn::moveTo(ends[0], 0));
  EXPECT_FALSE(mlnn::isTerminal(ends[0]));
  char byte = 0;
  EXPECT_EQ(mlnn::readBytes(ends[0], &byte, 1), 1);
  EXPECT_TRUE(mlnn::closeDescriptor(ends[1]));
  EXPECT_TRUE(mlnn::hasBytesReady(ends[0]));  // the end, which comes at once
  EXPECT_TRUE(mlnn::closeDescriptor(ends[0]));
}

}  // namespace
