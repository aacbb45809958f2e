#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "os/FileMapping.h"
#include "os/LackOfBytes.h"
#include "tests/support/TempFolder.h"

namespace {

using mlnn::FileMapping;
using mlnn::MappedBytes;
using mlnn::test::TempFolder;

void clean() { static_cast<void>(!write(STDERR_FILENO, "cleaned. ", 9)); }

// A mapped file that another process has cut short.
class LackOfBytes : public testing::Test {
 protected:
  LackOfBytes() : name_(folder_.write("file", std::string(1 << 17, 'x'))), mapping_(name_.c_str()) {
    EXPECT_NE(mapping_.data(), nullptr);
    EXPECT_EQ(truncate(name_.c_str(), 0), 0);
  }

  MappedBytes bytes() const {
    MappedBytes bytes;
    bytes.data = mapping_.data();
    bytes.length = mapping_.length();
    bytes.message = "the file is gone\n";
    bytes.clean = clean;
    bytes.status = 5;
    return bytes;
  }

  void readLast() const {
    const auto* const data = static_cast<const volatile char*>(mapping_.data());
    static_cast<void>(data[mapping_.length() - 1]);
  }

  TempFolder folder_;
  std::string name_;
  FileMapping mapping_;
};

TEST_F(LackOfBytes, endsTheProcessWithAMessage) {
  EXPECT_EXIT(
      {
        mlnn::endForLackOf(bytes());
        readLast();
        _exit(3);
      },
      testing::ExitedWithCode(5), "^cleaned. the file is gone\n$");
}

TEST_F(LackOfBytes, isNotThatOfOtherBytes) {
  EXPECT_EXIT(
      {
        MappedBytes others = bytes();
        others.length -= 1;
        mlnn::endForLackOf(others);
        readLast();
        _exit(3);
      },
      testing::KilledBySignal(SIGBUS), "^$");
}

TEST_F(LackOfBytes, isTheSystemsAffairAgain) {
  EXPECT_EXIT(
      {
        mlnn::endForLackOf(bytes());
        mlnn::letLackBe();
        readLast();
        _exit(3);
      },
      testing::KilledBySignal(SIGBUS), "^$");
}

}  // namespace
