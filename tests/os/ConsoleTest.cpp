#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>

#include "os/Console.h"

namespace {

// The standard output is the file of this descriptor while the object lives.
class StandardOutputTo {
 public:
  explicit StandardOutputTo(int descriptor) : before_(dup(STDOUT_FILENO)) {
    dup2(descriptor, STDOUT_FILENO);
  }
  StandardOutputTo(const StandardOutputTo&) = delete;
  StandardOutputTo& operator=(const StandardOutputTo&) = delete;
  ~StandardOutputTo() {
    dup2(before_, STDOUT_FILENO);
    close(before_);
  }

 private:
  int before_;
};

TEST(Console, hasTheWidthOfTheTerminal) {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY);
  if (terminal < 0) GTEST_SKIP() << "there are no terminals";
  winsize size{};
  size.ws_col = 123;
  ASSERT_EQ(ioctl(terminal, TIOCSWINSZ, &size), 0);
  std::size_t width = 0;
  {
    const StandardOutputTo output(terminal);
    width = mlnn::consoleWidth();
  }
  EXPECT_EQ(width, 123u);
  close(terminal);
}

TEST(Console, hasNoWidthWhereItIsAFile) {
  const int nothing = open("/dev/null", O_WRONLY);
  std::size_t width = 1;
  {
    const StandardOutputTo output(nothing);
    width = mlnn::consoleWidth();
  }
  EXPECT_EQ(width, 0u);
  close(nothing);
}

TEST(Console, takesUtf8ByTheUsersLocale) {
  const char* const before = std::getenv("LC_ALL");
  const std::string kept = before == nullptr ? "" : before;
  setenv("LC_ALL", "C.UTF-8", 1);
  EXPECT_TRUE(mlnn::consoleTakesUtf8());
  setenv("LC_ALL", "C", 1);
  EXPECT_FALSE(mlnn::consoleTakesUtf8());
  setenv("LC_ALL", "xx_XX.no-such-locale", 1);
  EXPECT_FALSE(mlnn::consoleTakesUtf8());
  before == nullptr ? unsetenv("LC_ALL") : setenv("LC_ALL", kept.c_str(), 1);
}

TEST(Console, leavesColoursToTheEnvironment) { EXPECT_FALSE(mlnn::consoleHasColours()); }

}  // namespace
