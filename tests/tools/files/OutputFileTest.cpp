#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/Failure.h"
#include "tools/files/OutputFile.h"

namespace {

namespace fs = std::filesystem;
using mlnn::OutputFile;
using mlnn::test::contentOf;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using Names = std::vector<std::string>;

unsigned modeOf(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0;
}

void writeFile(const std::string& path, const std::string& text) {
  OutputFile file(path);
  file.stream() << text;
  file.finish();
}

std::string refusalOf(const std::string& path) {
  try {
    writeFile(path, "new");
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(OutputFileTest, appearsWhenItIsComplete) {
  const TempFolder folder;
  {
    OutputFile file(folder.path("out"));
    file.stream() << "text";
    EXPECT_FALSE(fs::exists(folder.path("out")));
    EXPECT_EQ(folder.names().size(), 1u);  // what will be it
    file.finish();
  }
  EXPECT_EQ(contentOf(folder.path("out")), "text");
  EXPECT_EQ(folder.names(), Names{"out"});
}

TEST(OutputFileTest, leavesNothingWhenItIsNotFinished) {
  const TempFolder folder;
  folder.write("old", "old");
  {
    OutputFile fresh(folder.path("new"));
    fresh.stream() << "half";
  }
  {
    OutputFile replaced(folder.path("old"));
    replaced.stream() << "half";
  }
  EXPECT_EQ(folder.names(), Names{"old"});
  EXPECT_EQ(contentOf(folder.path("old")), "old");
}

TEST(OutputFileTest, keepsThePermissionsOfAFileThatItReplaces) {
  const TempFolder folder;
  const std::string path = folder.write("out", "old");
  fs::permissions(path, fs::perms(0640));
  writeFile(path, "new");
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(modeOf(path), 0640u);
}

// 32 bits for seconds would end in 2038.
// It is another file; bits that would let it run as somebody are not given to new contents.
TEST(OutputFileTest, leavesOtherNamesAndSetUserIdBehind) {
  const TempFolder folder;
  folder.write("file", "old");
  fs::create_hard_link(folder.path("file"), folder.path("other"));
  ASSERT_EQ(chmod(folder.path("file").c_str(), 06751), 0);
  writeFile(folder.path("file"), "new");
  EXPECT_EQ(contentOf(folder.path("file")), "new");
  EXPECT_EQ(modeOf(folder.path("file")), 0751u);
  EXPECT_EQ(contentOf(folder.path("other")), "old");
}

TEST(OutputFileTest, keepsThePermissionsOfAFileThatIsYoungerThan32BitsTell) {
  const TempFolder folder;
  const std::string path = folder.write("out", "old");
  fs::permissions(path, fs::perms(0640));
  ASSERT_EQ(mlnn::test::runShell("touch -d 2040-01-01 out", folder.path()).status, 0);
  writeFile(path, "new");
  EXPECT_EQ(contentOf(path), "new");
  EXPECT_EQ(modeOf(path), 0640u);
}

TEST(OutputFileTest, givesANewFileTheUsualPermissions) {
  const TempFolder folder;
  const mode_t before = umask(027);
  writeFile(folder.path("out"), "new");
  umask(before);
  EXPECT_EQ(modeOf(folder.path("out")), 0640u);
}

TEST(OutputFileTest, writesThroughSymbolicLinks) {
  const TempFolder folder;
  folder.write("file", "old");
  fs::create_symlink("file", folder.path("link"));
  fs::create_symlink("missing", folder.path("dangling"));
  writeFile(folder.path("link"), "new");
  writeFile(folder.path("dangling"), "new");
  EXPECT_EQ(contentOf(folder.path("file")), "new");
  EXPECT_EQ(contentOf(folder.path("missing")), "new");
  EXPECT_TRUE(fs::is_symlink(folder.path("link")));
  EXPECT_TRUE(fs::is_symlink(folder.path("dangling")));
  EXPECT_EQ(folder.names(), (Names{"dangling", "file", "link", "missing"}));
}

// A shell's `>(command)` and /dev/stdout in a pipe are such names.
TEST(OutputFileTest, writesIntoAPipeThatOnlyItsDescriptorNames) {
  int ends[2];
  ASSERT_EQ(pipe(ends), 0);
  writeFile("/dev/fd/" + std::to_string(ends[1]), "new");
  close(ends[1]);
  char text[8] = {};
  EXPECT_EQ(read(ends[0], text, sizeof text), 3);
  EXPECT_EQ(std::string(text), "new");
  close(ends[0]);
}

// A shell that becomes the tool knows its number.
TEST(OutputFileTest, knowsItsDescriptorsByItsNumber) {
  for (const std::string name : {"/proc/$$/fd/3", "/proc/$$/task/$$/fd/3"}) {
    const TempFolder folder;
    const auto result = mlnn::test::runShell(
        "exec 3> file; echo earlier >&3; ln file link; exec mlnn new 2,1 " + name, folder.path());
    EXPECT_EQ(result.status, 0) << result.err;
    EXPECT_EQ(contentOf(folder.path("file")).substr(0, 8), "earlier\n") << name;
    EXPECT_TRUE(fs::equivalent(folder.path("file"), folder.path("link"))) << name;
  }
}

// What others write to the same descriptor stays: the file is not replaced.
TEST(OutputFileTest, writesWhereItsDescriptorIs) {
  for (const std::string name :
       {"/dev/stdout", "/dev/fd/1", "/proc/self/fd/1", "/proc/thread-self/fd/1", "link", "-"}) {
    const TempFolder folder;
    fs::create_symlink("/dev/stdout", folder.path("link"));
    const std::string convert =
        "mlnn convert '" + sourcePath("tests/golden/version2.txt") + "' " + name + " --to ascii; ";
    const auto result =
        mlnn::test::runShell(convert + "echo head; " + convert + "echo tail", folder.path());
    EXPECT_EQ(result.status, 0) << result.err;
    const std::string text = result.out.substr(0, result.out.find("head\n"));
    EXPECT_GT(text.size(), 100u);
    EXPECT_EQ(result.out, text + "head\n" + text + "tail\n") << name;
    folder.write("log", "earlier\n");
    EXPECT_EQ(mlnn::test::runShell("(" + convert + ") >> log", folder.path()).status, 0);
    EXPECT_EQ(contentOf(folder.path("log")), "earlier\n" + text) << name;
    EXPECT_EQ(folder.names(), (Names{"link", "log"}));
    EXPECT_TRUE(fs::is_symlink(folder.path("link")));
  }
}

TEST(OutputFileTest, writesIntoAFileThatOnlyItsDescriptorNames) {
  const TempFolder folder;
  const int descriptor = open(folder.write("out", "old text").c_str(), O_RDWR);
  ASSERT_GE(descriptor, 0);
  ASSERT_EQ(unlink(folder.path("out").c_str()), 0);
  writeFile("/dev/fd/" + std::to_string(descriptor), "new");
  char text[16] = {};
  EXPECT_EQ(pread(descriptor, text, sizeof text, 0), 8);
  EXPECT_EQ(std::string(text), "new text");
  close(descriptor);
  EXPECT_EQ(folder.names(), Names{});
}

// Only who may give files away can tell.
TEST(OutputFileTest, keepsTheOwnerOfAFileThatItReplaces) {
  if (geteuid() != 0) GTEST_SKIP() << "needs the rights of the superuser";
  const TempFolder folder;
  const std::string path = folder.write("out", "old");
  ASSERT_EQ(chown(path.c_str(), 12345, 23456), 0);
  fs::permissions(path, fs::perms(0640));
  writeFile(path, "new");
  struct stat status;
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, 12345u);
  EXPECT_EQ(status.st_gid, 23456u);
  EXPECT_EQ(modeOf(path), 0640u);
  EXPECT_EQ(contentOf(path), "new");
}

TEST(OutputFileTest, refusesALinkThatLeadsToItself) {
  const TempFolder folder;
  fs::create_symlink("loop", folder.path("loop"));
  EXPECT_EQ(refusalOf(folder.path("loop")),
            "cannot write '" + folder.path("loop") + "': Too many levels of symbolic links");
  EXPECT_TRUE(fs::is_symlink(folder.path("loop")));
  EXPECT_EQ(folder.names(), Names{"loop"});
}

TEST(OutputFileTest, refusesADescriptorThatIsNotOpen) {
  EXPECT_EQ(refusalOf("/dev/fd/999"), "cannot write '/dev/fd/999': Bad file descriptor");
}

TEST(OutputFileTest, refusesWhatCannotBeWritten) {
  const TempFolder folder;
  EXPECT_EQ(refusalOf(folder.path("no/out")),
            "cannot write '" + folder.path("no/out") + "': No such file or directory");
  EXPECT_EQ(refusalOf(folder.path()), "cannot write '" + folder.path() + "': Is a directory");
  EXPECT_EQ(refusalOf("/dev/full"), "cannot write '/dev/full': No space left on device");
  EXPECT_EQ(folder.names(), Names{});
}

// A limit on the length of files stands in for a full disk.
TEST(OutputFileTest, removesWhatDidNotFit) {
  const TempFolder folder;
  folder.write("out", "old");
  const auto result = mlnn::test::runShell(
      "trap '' XFSZ; ulimit -f 8; mlnn convert '" +
          folder.write("model.txt", "MultiLayerNNModel_v2\nsoftmax 1\n# " +
                                        std::string(100000, 'x') + "\nnum_layers 0\n") +
          "' out --to ascii",
      folder.path());
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "ERROR: cannot write 'out': File too large\n");
  EXPECT_EQ(folder.names(), (Names{"model.txt", "out"}));
  EXPECT_EQ(contentOf(folder.path("out")), "old");
}

// The child stops itself in the middle of its work.
TEST(OutputFileTest, isRemovedOnInterrupt) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGXCPU, SIGALRM, SIGUSR1, SIGUSR2,
                           SIGVTALRM, SIGPROF, SIGPOLL, SIGPWR, SIGSTKFLT}) {
    const TempFolder folder;
    const pid_t child = fork();
    if (child == 0) {
      OutputFile file(folder.path("out"));
      file.stream() << "half" << std::flush;
      raise(signal);
      _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal);
    EXPECT_EQ(folder.names(), Names{});
  }
}

TEST(OutputFileTest, leavesAnIgnoredSignalIgnored) {
  const TempFolder folder;
  const auto before = signal(SIGHUP, SIG_IGN);
  {
    OutputFile file(folder.path("out"));
    raise(SIGHUP);  // would end the test
    file.finish();
  }
  EXPECT_EQ(signal(SIGHUP, before), SIG_IGN);
}

}  // namespace
