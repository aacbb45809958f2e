#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <ostream>
#include <string>

#include "tests/support/TempFolder.h"
#include "tools/files/DescriptorBuffer.h"

namespace {

using mlnn::DescriptorBuffer;
using mlnn::test::contentOf;
using mlnn::test::TempFolder;

TEST(DescriptorBuffer, writesWhatDoesNotFitIntoItAnyMore) {
  const TempFolder folder;
  const std::string name = folder.write("file", "");
  const int descriptor = open(name.c_str(), O_WRONLY);
  const std::string bytes(65536, 'x');
  {
    DescriptorBuffer buffer(descriptor);
    std::ostream out(&buffer);
    out << bytes;
    EXPECT_EQ(contentOf(name), "");
    out << 'y';
    EXPECT_EQ(contentOf(name), bytes);
    out << std::flush;
    EXPECT_TRUE(out.good());
    EXPECT_EQ(buffer.error(), 0);
  }
  EXPECT_EQ(contentOf(name), bytes + "y");
  close(descriptor);
}

TEST(DescriptorBuffer, remembersWhyItCouldNotWrite) {
  const int full = open("/dev/full", O_WRONLY);
  DescriptorBuffer buffer(full);
  std::ostream out(&buffer);
  out << "some" << std::flush;
  EXPECT_TRUE(out.bad());
  EXPECT_EQ(buffer.error(), ENOSPC);
  close(full);
  out.clear();
  out << "more" << std::flush;  // to a descriptor that is gone, which nobody asks any more
  EXPECT_TRUE(out.bad());
  EXPECT_EQ(buffer.error(), ENOSPC);
}

}  // namespace
