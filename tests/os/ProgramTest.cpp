#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "os/Program.h"

namespace {

using Words = std::vector<std::string>;

TEST(Program, hasTheWordsOfItsCommandLine) {
  const char* const line[] = {"mlnn", "info", "", "\xE8\xAA\x9E"};
  EXPECT_EQ(mlnn::wordsOf(4, line), Words({"mlnn", "info", "", "\xE8\xAA\x9E"}));
  EXPECT_EQ(mlnn::wordsOf(0, line), Words());
}

TEST(Program, endsAtOnce) {
  EXPECT_EXIT(mlnn::endAtOnce("no memory\n", 9), testing::ExitedWithCode(9), "^no memory\n$");
}

TEST(Program, setsVariablesThatAreNotSet) {
  unsetenv("MLNN_TEST_VARIABLE");
  mlnn::setDefault("MLNN_TEST_VARIABLE", "first");
  EXPECT_STREQ(std::getenv("MLNN_TEST_VARIABLE"), "first");
  mlnn::setDefault("MLNN_TEST_VARIABLE", "second");
  EXPECT_STREQ(std::getenv("MLNN_TEST_VARIABLE"), "first");
  unsetenv("MLNN_TEST_VARIABLE");
}

TEST(Program, becomesAnother) {
  EXPECT_EXIT(mlnn::becomeProgram({"sh", "-c", "echo $0 $1 >&2; exit 6", "a b", "c"}),
              testing::ExitedWithCode(6), "^a b c\n$");
  EXPECT_EQ(mlnn::becomeProgram({"/no/such/program"}), ENOENT);
}

// What is opened then must not be taken for a standard stream.
TEST(Program, putsSomethingInThePlaceOfClosedStreams) {
  EXPECT_EXIT(
      {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        mlnn::beginProgram();
        const bool isRefused = write(STDOUT_FILENO, "x", 1) == -1 && errno == EBADF;
        const int next = open("/dev/null", O_RDONLY);
        _exit(isRefused && next > STDERR_FILENO ? 0 : 3);
      },
      testing::ExitedWithCode(0), "^$");
}

TEST(Program, seesAClosedPipeAsAnError) {
  EXPECT_EXIT(
      {
        mlnn::beginProgram();
        int ends[2];
        if (pipe(ends) != 0) _exit(4);
        close(ends[0]);
        _exit(write(ends[1], "x", 1) == -1 && errno == EPIPE ? 0 : 3);
      },
      testing::ExitedWithCode(0), "^$");
}

}  // namespace
