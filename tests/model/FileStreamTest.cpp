#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "model/FileStream.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"

namespace {

using mlnn::FileStream;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

TEST(FileStream, hasTheBytesOfTheFile) {
  const TempFolder folder;
  const std::string bytes = "1.5\r\n\x1A" + std::string(100000, 'x');
  FileStream file;
  ASSERT_TRUE(file.open(folder.write("file", bytes).c_str()));
  EXPECT_EQ(mlnn::lengthOf(file.stream()), static_cast<std::streamoff>(bytes.size()));
  file.stream().seekg(0);
  std::ostringstream read;
  read << file.stream().rdbuf();
  EXPECT_EQ(read.str(), bytes);
  EXPECT_EQ(file.stream().getloc(), std::locale::classic());
}

TEST(FileStream, readsPiecesOfManyCharacters) {
  const TempFolder folder;
  FileStream file;
  ASSERT_TRUE(file.open(folder.write("file", std::string(100000, 'x')).c_str()));
  EXPECT_EQ(file.stream().get(), 'x');
  EXPECT_GE(file.stream().rdbuf()->in_avail(), 60000);
  EXPECT_LT(file.stream().rdbuf()->in_avail(), 99999);
}

TEST(FileStream, saysThatItCouldNotBeOpened) {
  const TempFolder folder;
  const std::string missing = folder.path("missing");
  FileStream file;
  EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(file.open(missing.c_str())); }),
            "ERROR: MultiLayerNNModel: could not read file: " + missing + "\n");
  FileStream none;
  EXPECT_EQ(stderrOf([&] { EXPECT_FALSE(none.open(nullptr)); }),
            "ERROR: MultiLayerNNModel: could not read file: \n");
}

TEST(FileStream, hasNoLengthWhereItHasFailed) {
  std::istringstream in("abc");
  EXPECT_EQ(mlnn::lengthOf(in), 3);
  in.setstate(std::ios::failbit);
  EXPECT_EQ(mlnn::lengthOf(in), -1);
}

}  // namespace
