#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <utility>

#include "tests/tools/support/ToolProcess.h"
#include "tools/files/FileDescriptor.h"
#include "tools/files/MappedFile.h"
#include "tools/files/OutputFile.h"

namespace {

namespace fs = std::filesystem;
using mlnn::FileDescriptor;
using mlnn::MappedFile;
using mlnn::test::TempFolder;

MappedFile mapFile(const std::string& path, std::size_t length) {
  const FileDescriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  return MappedFile(file.get(), length, path);
}

TEST(MappedFileTest, holdsTheBytesOfTheFile) {
  const TempFolder folder;
  const MappedFile file = mapFile(folder.write("file", "some text"), 9);
  ASSERT_NE(file.data(), nullptr);
  EXPECT_EQ(file.length(), 9u);
  EXPECT_EQ(std::memcmp(file.data(), "some text", 9), 0);
}

TEST(MappedFileTest, hasNothingOfWhatCannotBeMapped) {
  EXPECT_EQ(MappedFile().data(), nullptr);
  EXPECT_EQ(MappedFile(-1, 4096, "none").data(), nullptr);
  const TempFolder folder;
  EXPECT_EQ(mapFile(folder.write("empty", ""), 0).data(), nullptr);
}

TEST(MappedFileTest, movesWithItsBytes) {
  const TempFolder folder;
  MappedFile first = mapFile(folder.write("file", "some text"), 9);
  const void* const data = first.data();
  MappedFile second(std::move(first));
  EXPECT_EQ(second.data(), data);
  MappedFile third;
  third = std::move(second);
  EXPECT_EQ(third.data(), data);
  EXPECT_EQ(third.length(), 9u);
}

// Reads the last byte of a file that has been emptied.
void readLostByte(const TempFolder& folder) {
  constexpr std::size_t kLength = std::size_t{1} << 16;
  const std::string path = folder.write("image\n", std::string(kLength, 'x'));
  const MappedFile file = mapFile(path, kLength);
  mlnn::OutputFile output(folder.path("output"));
  output.stream() << "half";
  output.stream().flush();
  fs::resize_file(path, 0);
  const volatile char* const bytes = static_cast<const char*>(file.data());
  const char lost = bytes[kLength - 1];
  static_cast<void>(lost);
}

TEST(MappedFileDeathTest, endsTheProcessWhenTheFileIsCut) {
  const TempFolder folder;
  EXPECT_EXIT(readLostByte(folder), testing::ExitedWithCode(1),
              "^ERROR: cannot read '.*/image.n': it became shorter\n$");
  EXPECT_EQ(folder.names(), std::vector<std::string>{"image\n"});  // the unfinished output is gone
}

TEST(MappedFileDeathTest, leavesOtherErrorsOfTheBusAlone) {
  const TempFolder folder;
  const MappedFile file = mapFile(folder.write("file", "some text"), 9);
  EXPECT_EXIT(raise(SIGBUS), testing::KilledBySignal(SIGBUS), "");
}

}  // namespace
