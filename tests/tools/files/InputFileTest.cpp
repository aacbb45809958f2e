#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "tests/support/TempFolder.h"
#include "tools/Failure.h"
#include "tools/files/InputFile.h"

namespace {

using mlnn::InputStream;
using mlnn::test::TempFolder;

std::string failureOf(const std::string& name) {
  try {
    mlnn::readInput(name);
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "none";
}

// Gives what is read of the standard input while that is a pipe with these bytes, or a file.
class StandardInput {
 public:
  explicit StandardInput(int descriptor) : before_(dup(STDIN_FILENO)) {
    dup2(descriptor, STDIN_FILENO);
  }
  StandardInput(const StandardInput&) = delete;
  StandardInput& operator=(const StandardInput&) = delete;
  ~StandardInput() {
    dup2(before_, STDIN_FILENO);
    close(before_);
  }

 private:
  int before_;
};

TEST(InputFile, isCalledByItsNameOrByWhatItIs) {
  EXPECT_EQ(mlnn::inputName("-"), "standard input");
  EXPECT_EQ(mlnn::inputName("a\nb"), "'a\\nb'");
}

TEST(InputFile, knowsWhatIsNoEntryOfAFolder) {
  for (const char* name : {"", ".", ".."}) EXPECT_TRUE(mlnn::isNoEntry(name)) << name;
  for (const char* name : {"a", "...", ".a"}) EXPECT_FALSE(mlnn::isNoEntry(name)) << name;
}

TEST(InputFile, isTheStandardInputOnceAtMost) {
  mlnn::refuseSecondStandardInput({});
  mlnn::refuseSecondStandardInput({"a", "-", "a"});
  EXPECT_THROW(mlnn::refuseSecondStandardInput({"-", "a", "-"}), mlnn::UsageError);
}

TEST(InputFile, isReadAsAWhole) {
  const TempFolder folder;
  std::string bytes(300000, 'x');
  bytes[7] = '\0';
  EXPECT_EQ(mlnn::readInput(folder.write("file", bytes)), bytes);
  EXPECT_EQ(mlnn::readInput(folder.write("empty", "")), "");
}

TEST(InputFile, isReadPieceByPiece) {
  const TempFolder folder;
  InputStream input(folder.write("file", "abcdef"));
  EXPECT_EQ(input.length(), 6u);
  EXPECT_FALSE(input.isDevice());
  EXPECT_TRUE(input.isReady());
  std::string bytes = "<";
  EXPECT_EQ(input.append(bytes, 4), 4u);
  EXPECT_EQ(bytes, "<abcd");
  char at[4] = {};
  EXPECT_EQ(input.readAt(3, at, 2), 2u);
  EXPECT_EQ(std::string(at, 2), "de");
  EXPECT_EQ(input.readAt(4, at, 4), 2u);
  EXPECT_EQ(input.append(bytes, 4), 2u);
  EXPECT_EQ(input.append(bytes, 4), 0u);
  EXPECT_EQ(bytes, "<abcdef");
}

TEST(InputFile, takesUpTheRestOfWhatWasRead) {
  const TempFolder folder;
  InputStream input(folder.write("file", "abcdef"));
  std::string bytes;
  input.append(bytes, 2);
  EXPECT_EQ(mlnn::readRest(input, bytes), "abcdef");
}

TEST(InputFile, isThePipeAtTheStandardInput) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  ASSERT_EQ(write(ends[1], "piped", 5), 5);
  close(ends[1]);
  const StandardInput input(ends[0]);
  close(ends[0]);
  EXPECT_EQ(InputStream("-").length(), std::nullopt);
  EXPECT_EQ(mlnn::readInput("-"), "piped");
}

// Somebody may have read the beginning already.
TEST(InputFile, beginsWhereTheStandardInputStands) {
  const TempFolder folder;
  const int descriptor = mlnn::openForReading(folder.write("file", "abcdef").c_str());
  ASSERT_TRUE(mlnn::moveTo(descriptor, 4));
  const StandardInput standard(descriptor);
  mlnn::closeDescriptor(descriptor);
  InputStream input("-");
  EXPECT_EQ(input.length(), 2u);
  char at[2] = {};
  EXPECT_EQ(input.readAt(0, at, 2), 2u);
  EXPECT_EQ(std::string(at, 2), "ef");
}

TEST(InputFile, isRefusedWithTheReason) {
  const TempFolder folder;
  EXPECT_EQ(failureOf(folder.path("missing")),
            "cannot read '" + folder.path("missing") + "': No such file or directory");
  EXPECT_EQ(failureOf(folder.path()), "cannot read '" + folder.path() + "': Is a directory");
  EXPECT_EQ(failureOf("/dev/zero"),
            "cannot read '/dev/zero': it does not end within 1048576 bytes");
}

}  // namespace
