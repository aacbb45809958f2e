#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <utility>

#include "tools/files/FileDescriptor.h"

namespace {

using mlnn::FileDescriptor;

int opened() { return mlnn::openForReading("/dev/null"); }
bool isOpen(int descriptor) { return fcntl(descriptor, F_GETFD) != -1; }

TEST(FileDescriptor, closesWhatItOwns) {
  const int number = opened();
  {
    const FileDescriptor descriptor(number);
    EXPECT_TRUE(descriptor.isOpen());
    EXPECT_EQ(descriptor.get(), number);
    EXPECT_TRUE(isOpen(number));
  }
  EXPECT_FALSE(isOpen(number));
}

TEST(FileDescriptor, movesWhatItOwns) {
  const int first = opened();
  const int second = opened();
  FileDescriptor one(first);
  FileDescriptor moved(std::move(one));
  EXPECT_FALSE(one.isOpen());
  EXPECT_EQ(moved.get(), first);
  {
    FileDescriptor other(second);
    moved = std::move(other);
    EXPECT_EQ(moved.get(), second);
  }
  EXPECT_FALSE(isOpen(first));
  EXPECT_TRUE(isOpen(second));
}

TEST(FileDescriptor, tellsWhetherItCouldBeClosed) {
  FileDescriptor descriptor(opened());
  EXPECT_TRUE(descriptor.close());
  EXPECT_FALSE(descriptor.isOpen());
  EXPECT_TRUE(descriptor.close());  // there is none any more
  FileDescriptor wrong(opened());
  mlnn::closeDescriptor(wrong.get());
  EXPECT_FALSE(wrong.close());
  EXPECT_EQ(errno, EBADF);
}

}  // namespace
