#include <gtest/gtest.h>
#include <pty.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iostream>
#include <string>
#include <system_error>
#include <thread>

#include "tests/support/CaptureStderr.h"
#include "tools/reports/Progress.h"

namespace {

using mlnn::Progress;

constexpr auto kLong = std::chrono::milliseconds(800);  // longer than a bar lets wait for it

// While it lives, the standard error stream is a terminal.
class TerminalStderr {
 public:
  TerminalStderr() : saved_(dup(STDERR_FILENO)) {
    int terminal = -1;
    if (openpty(&screen_, &terminal, nullptr, nullptr, nullptr) != 0) {
      throw std::system_error(errno, std::generic_category(), "openpty");
    }
    dup2(terminal, STDERR_FILENO);
    close(terminal);
  }
  ~TerminalStderr() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    close(screen_);
  }
  TerminalStderr(const TerminalStderr&) = delete;
  TerminalStderr& operator=(const TerminalStderr&) = delete;

  // What appeared on it since the last call. The system hands on what is written after a while
  // and in pieces; so a character is written behind it all, and it has arrived when that one has.
  std::string shown() {
    constexpr char kEnd = '\x04';
    if (write(STDERR_FILENO, &kEnd, 1) != 1)
      throw std::system_error(errno, std::generic_category());
    std::string text;
    while (text.empty() || text.back() != kEnd) {
      char bytes[4096];
      const ssize_t count = read(screen_, bytes, sizeof bytes);
      if (count <= 0) throw std::system_error(errno, std::generic_category(), "read");
      text.append(bytes, static_cast<std::size_t>(count));
    }
    text.pop_back();
    return text;
  }

 private:
  int saved_;
  int screen_ = -1;
};

TEST(ProgressTest, showsABarOnATerminalWhenWorkIsLong) {
  TerminalStderr terminal;
  {
    Progress progress("work", 10);
    progress.advance(2);
    EXPECT_EQ(terminal.shown(), "");
    std::this_thread::sleep_for(kLong);
    progress.advance(3);
    EXPECT_EQ(terminal.shown(), "\rwork [###############...............] 50 %\x1b[K");
    progress.advance();  // too soon for another drawing
    EXPECT_EQ(terminal.shown(), "");
  }
  EXPECT_EQ(terminal.shown(), "\r\x1b[K");
}

TEST(ProgressTest, givesWayToOtherLines) {
  TerminalStderr terminal;
  Progress progress("work", 2);
  std::this_thread::sleep_for(kLong);
  progress.advance(7);  // more than there was to do
  EXPECT_EQ(terminal.shown(), "\rwork [##############################] 100 %\x1b[K");
  progress.hide();
  EXPECT_EQ(terminal.shown(), "\r\x1b[K");
  progress.hide();
  EXPECT_EQ(terminal.shown(), "");
}

TEST(ProgressTest, givesWayToMessages) {
  TerminalStderr terminal;
  Progress progress("work", 4);
  std::this_thread::sleep_for(kLong);
  progress.advance();
  EXPECT_EQ(terminal.shown(), "\rwork [#######.......................] 25 %\x1b[K");
  std::cerr << "Warning: " << 1 << '\n';
  EXPECT_EQ(terminal.shown(), "\r\x1b[KWarning: 1\r\n");
}

TEST(ProgressTest, countsTheStepsOfManyParts) {
  TerminalStderr terminal;
  Progress progress(4);
  for (const char* part : {"one", "two"}) {
    progress.beginPart(part, 3);
    progress.advance(3);
  }
  EXPECT_EQ(terminal.shown(), "");
  std::this_thread::sleep_for(kLong);
  progress.beginPart("three", 100);
  progress.advance(50);
  EXPECT_EQ(terminal.shown(), "\rthree [##################............] 62 %\x1b[K");
}

TEST(ProgressTest, tellsHowFastWorkGoesAndHowLongItWillTake) {
  EXPECT_EQ(mlnn::paceText(2, 2400, "frames", 0.5), " 1200 frames/s, 0:02 left");
  EXPECT_EQ(mlnn::paceText(10, 25, "frames", 0.125), " 2.5 frames/s, 1:10 left");
  EXPECT_EQ(mlnn::paceText(36, 3600, "frames", 0.01), " 100 frames/s, 59:24 left");
  EXPECT_EQ(mlnn::paceText(100, 1, "frames", 0.01), " 0.0 frames/s, 2:45:00 left");
  EXPECT_EQ(mlnn::paceText(100, 1, "frames", 1e-9), " 0.0 frames/s, 99:59:59 left");
  EXPECT_EQ(mlnn::paceText(1, 100, "frames", 1), " 100 frames/s, 0:00 left");
  EXPECT_EQ(mlnn::paceText(2, 2400, "frames", 0), " 1200 frames/s");
  EXPECT_EQ(mlnn::paceText(0, 0, "frames", 0), " 0.0 frames/s");
}

// How fast is not known here, so that the digits are left out.
std::string withoutDigits(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(),
                            [](char c) { return (c >= '0' && c <= '9') || c == '.'; }),
             text.end());
  return text;
}

TEST(ProgressTest, showsThePaceBehindTheBarWhereItIsAskedFor) {
  TerminalStderr terminal;
  Progress progress(1);
  progress.tellPace("frames");
  progress.beginPart("word", 4000);
  std::this_thread::sleep_for(kLong);
  progress.advance(4000);
  EXPECT_EQ(withoutDigits(terminal.shown()),
            "\rword [##############################]  %  frames/s, : left\x1b[K");
}

TEST(ProgressTest, showsNoBarOfWorkWhoseEndIsNotKnown) {
  TerminalStderr terminal;
  Progress progress(1);
  progress.tellPace("frames");
  progress.beginPart("-", 0);
  std::this_thread::sleep_for(kLong);
  progress.advance(4000);
  EXPECT_EQ(withoutDigits(terminal.shown()), "\r-  frames/s\x1b[K");
}

TEST(ProgressTest, leavesTheErrorStreamAsItWas) {
  std::streambuf* const before = std::cerr.rdbuf();
  TerminalStderr terminal;
  {
    Progress progress("work", 4);
    EXPECT_NE(std::cerr.rdbuf(), before);
  }
  EXPECT_EQ(std::cerr.rdbuf(), before);
}

TEST(ProgressTest, showsNothingElsewhere) {
  EXPECT_EQ(mlnn::test::stderrOf([] {
              Progress progress("work", 10);
              std::this_thread::sleep_for(kLong);
              progress.advance(5);
            }),
            "");
}

}  // namespace
