#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <string>

#include "tools/reports/Terminal.h"

namespace {

// Returns the look while the standard output is the file of a descriptor, and the environment has
// these variables.
std::optional<mlnn::TerminalLook> lookOf(int output,
                                         const std::map<std::string, std::string>& variables) {
  for (const char* name : {"NO_COLOR", "TERM"}) unsetenv(name);
  for (const auto& [name, value] : variables) setenv(name.c_str(), value.c_str(), 1);
  const int before = dup(STDOUT_FILENO);
  dup2(output, STDOUT_FILENO);
  const std::optional<mlnn::TerminalLook> look = mlnn::terminalLook();
  dup2(before, STDOUT_FILENO);
  close(before);
  return look;
}

class Terminal : public testing::Test {
 protected:
  Terminal() : terminal_(posix_openpt(O_RDWR | O_NOCTTY)) {
    winsize size{};
    size.ws_col = 99;
    ioctl(terminal_, TIOCSWINSZ, &size);
  }
  ~Terminal() override { close(terminal_); }

  int terminal_;
};

TEST_F(Terminal, hasItsWidthAndTheUsersCharacters) {
  if (terminal_ < 0) GTEST_SKIP() << "there are no terminals";
  const auto unicode = lookOf(terminal_, {{"LC_ALL", "C.UTF-8"}});
  ASSERT_TRUE(unicode);
  EXPECT_EQ(unicode->width, 99u);
  EXPECT_EQ(unicode->set, mlnn::CharacterSet::kUnicode);
  EXPECT_EQ(lookOf(terminal_, {{"LC_ALL", "C"}})->set, mlnn::CharacterSet::kAscii);
}

TEST_F(Terminal, hasColoursUnlessTheEnvironmentSaysOtherwise) {
  if (terminal_ < 0) GTEST_SKIP() << "there are no terminals";
  EXPECT_TRUE(lookOf(terminal_, {{"TERM", "xterm"}})->hasColours);
  EXPECT_TRUE(lookOf(terminal_, {{"TERM", "xterm"}, {"NO_COLOR", ""}})->hasColours);
  EXPECT_FALSE(lookOf(terminal_, {{"TERM", "xterm"}, {"NO_COLOR", "1"}})->hasColours);
  EXPECT_FALSE(lookOf(terminal_, {{"TERM", "dumb"}})->hasColours);
  EXPECT_FALSE(lookOf(terminal_, {})->hasColours);
}

TEST_F(Terminal, isNoFile) {
  const int nothing = open("/dev/null", O_WRONLY);
  EXPECT_FALSE(lookOf(nothing, {{"TERM", "xterm"}}));
  close(nothing);
}

}  // namespace
