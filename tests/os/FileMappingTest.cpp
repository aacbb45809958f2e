#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <utility>

#include "os/FileMapping.h"
#include "tests/support/TempFolder.h"

namespace {

using mlnn::FileMapping;
using mlnn::test::TempFolder;

std::string bytesOf(const FileMapping& mapping) {
  return {static_cast<const char*>(mapping.data()), mapping.length()};
}

TEST(FileMapping, holdsTheBytesOfTheFile) {
  const TempFolder folder;
  const std::string name = folder.write("file", "some bytes");
  const FileMapping mapping(name.c_str());
  ASSERT_NE(mapping.data(), nullptr);
  EXPECT_EQ(bytesOf(mapping), "some bytes");
  std::remove(name.c_str());
  EXPECT_EQ(bytesOf(mapping), "some bytes");
}

TEST(FileMapping, tellsWhyThereIsNone) {
  const TempFolder folder;
  const std::string pipe = folder.path() + "/pipe";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::pair<std::string, int> refused[] = {{folder.path() + "/missing", ENOENT},
                                                 {folder.path(), EISDIR},
                                                 {pipe, ENODEV},
                                                 {"/dev/null", ENODEV},
                                                 {folder.write("empty", ""), EINVAL}};
  for (const auto& [name, error] : refused) {
    errno = 0;
    const FileMapping mapping(name.c_str());
    EXPECT_EQ(errno, error) << name;
    EXPECT_EQ(mapping.data(), nullptr) << name;
    EXPECT_EQ(mapping.length(), 0u) << name;
  }
}

TEST(FileMapping, movesWithItsBytes) {
  const TempFolder folder;
  FileMapping first(folder.write("first", "1").c_str());
  FileMapping moved(std::move(first));
  EXPECT_EQ(first.data(), nullptr);
  EXPECT_EQ(first.length(), 0u);
  EXPECT_EQ(bytesOf(moved), "1");
  FileMapping other(folder.write("other", "22").c_str());
  moved = std::move(other);
  EXPECT_EQ(bytesOf(moved), "22");
  const FileMapping none(-1, 1);
  EXPECT_EQ(none.data(), nullptr);
}

}  // namespace
