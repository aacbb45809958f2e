// What os/ promises, as Windows keeps it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <io.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "os/Console.h"
#include "os/Descriptors.h"
#include "os/EndingSignals.h"
#include "os/FileMapping.h"
#include "os/LackOfBytes.h"
#include "os/Memory.h"
#include "os/Names.h"
#include "os/ProcessorCaches.h"
#include "os/Program.h"
#include "os/Replacing.h"
#include "os/windows/Errors.h"
#include "os/windows/Handle.h"
#include "os/windows/WideText.h"
#include "tests/support/TempFolder.h"

namespace mlnn {
namespace {

using test::contentOf;
using test::TempFolder;

constexpr char kWord[] = "\xE8\xAA\x9E";         // three bytes of UTF-8, one unit of UTF-16
constexpr char kFace[] = "\xF0\x9F\x98\x80";     // four bytes, two units
constexpr char kReplacement[] = "\xEF\xBF\xBD";  // U+FFFD

void writeFile(const std::string& name, const std::string& bytes) {
  std::ofstream out(pathOf(name), std::ios::binary);
  out << bytes;
}

std::string readFile(const std::string& name) {
  std::ifstream in;
  openToRead(in, name.c_str());
  return {std::istreambuf_iterator<char>(in), {}};
}

TEST(WideText, isTheSameTextBothWays) {
  for (const std::string text : {"", "a", kWord, kFace}) EXPECT_EQ(utf8Of(wideOf(text)), text);
  EXPECT_EQ(wideOf(kWord).size(), 1u);
  EXPECT_EQ(wideOf(kFace).size(), 2u);
}

TEST(WideText, marksWhatIsNoText) {
  EXPECT_EQ(utf8Of(wideOf("a\xFFz")), "a" + std::string(kReplacement) + "z");
  EXPECT_EQ(utf8Of(std::wstring(1, wchar_t{0xD800})), kReplacement);
}

TEST(Names, haveSlashesBetweenTheirParts) {
  EXPECT_EQ(nameOf(pathOf("a\\b") / pathOf(kWord)), "a/b/" + std::string(kWord));
  EXPECT_EQ(nameOf(pathOf("a/b").parent_path()), "a");
}

TEST(Names, openFilesOfAnyLetterAsTheyAre) {
  const TempFolder folder;
  for (const std::string letter : {kWord, kFace}) {
    const std::string name = folder.path(letter + ".mlnn");
    writeFile(name,
              "a\r\nb\x1A"
              "c\n");
    EXPECT_EQ(readFile(name),
              "a\r\nb\x1A"
              "c\n");
  }
}

TEST(FileMapping, hasTheBytesOfAFileOfAnyLetter) {
  const TempFolder folder;
  const std::string name = folder.path(kWord);
  writeFile(name, "bytes");
  const FileMapping mapping(name.c_str());
  ASSERT_NE(mapping.data(), nullptr);
  EXPECT_EQ(std::string(static_cast<const char*>(mapping.data()), mapping.length()), "bytes");
}

TEST(FileMapping, tellsWhyNot) {
  const TempFolder folder;
  writeFile(folder.path("empty"), "");
  EXPECT_EQ(FileMapping(folder.path("none").c_str()).data(), nullptr);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(FileMapping(folder.path("empty").c_str()).data(), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(FileMapping(folder.path("").c_str()).data(), nullptr);
  EXPECT_EQ(errno, EISDIR);
}

TEST(FileMapping, goesOnWithItsBytesWhenTheFileIsReplaced) {
  const TempFolder folder;
  writeFile(folder.path("old"), "old");
  const FileMapping mapping(folder.path("old").c_str());
  writeFile(folder.path("new"), "new");
  replaceFile(folder.path("new"), folder.path("old"));  // refused, or done beside the old bytes
  EXPECT_EQ(std::string(static_cast<const char*>(mapping.data()), mapping.length()), "old");
}

TEST(Descriptors, readAndWriteBytesAsTheyAre) {
  const TempFolder folder;
  const std::string name = folder.path(kFace);
  writeFile(name, "1234567");
  const int out = openForWriting(name.c_str());
  ASSERT_GE(out, 0);
  EXPECT_EQ(writeBytes(out,
                       "a\nb\x1A"
                       "c",
                       5),
            5);
  EXPECT_TRUE(closeDescriptor(out));
  const int in = openForReading(name.c_str());
  const int copy = duplicated(in);
  EXPECT_TRUE(closeDescriptor(in));
  char bytes[16];
  EXPECT_EQ(readBytes(copy, bytes, sizeof bytes), 7);
  EXPECT_EQ(std::string(bytes, 7),
            "a\nb\x1A"
            "c67");
  EXPECT_EQ(readBytes(copy, bytes, sizeof bytes), 0);
  EXPECT_FALSE(isTerminal(copy));
  EXPECT_TRUE(closeDescriptor(copy));
}

TEST(Descriptors, knowAFileByAllItsNames) {
  const TempFolder folder;
  writeFile(folder.path("one"), "123");
  ASSERT_NE(CreateHardLinkW(pathOf(folder.path("two")).c_str(), pathOf(folder.path("one")).c_str(),
                            nullptr),
            0);
  writeFile(folder.path("other"), "123");
  FileStatus one;
  FileStatus two;
  FileStatus other;
  ASSERT_TRUE(readStatus(folder.path("one").c_str(), one));
  ASSERT_TRUE(readStatus(folder.path("two").c_str(), two));
  ASSERT_TRUE(readStatus(folder.path("other").c_str(), other));
  EXPECT_EQ(one.kind, FileKind::kRegular);
  EXPECT_EQ(one.length, 3u);
  EXPECT_EQ(one.identity, two.identity);
  EXPECT_NE(one.identity, other.identity);
}

TEST(Descriptors, tellFoldersAndWhatIsNotThere) {
  const TempFolder folder;
  FileStatus status;
  EXPECT_TRUE(readStatus(folder.path("").c_str(), status));
  EXPECT_EQ(status.kind, FileKind::kOther);
  EXPECT_EQ(openForReading(folder.path("").c_str()), -1);
  EXPECT_EQ(errno, EISDIR);
  EXPECT_FALSE(readStatus(folder.path("none").c_str(), status));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(openForReading(folder.path("none/below").c_str()), -1);
  EXPECT_EQ(errno, ENOENT);
}

// The system refuses it where it has no such replacement.
TEST(Descriptors, readOnWhileTheFileIsReplacedOrItStays) {
  const TempFolder folder;
  writeFile(folder.path("old"), "old");
  writeFile(folder.path("new"), "new");
  const int in = openForReading(folder.path("old").c_str());
  const bool isReplaced = replaceFile(folder.path("new"), folder.path("old"));
  const int error = errno;
  EXPECT_EQ(readFile(folder.path("old")), isReplaced ? "new" : "old");
  EXPECT_TRUE(isReplaced || error == EACCES);
  char bytes[4];
  EXPECT_EQ(readBytes(in, bytes, sizeof bytes), 3);
  EXPECT_EQ(std::string(bytes, 3), "old");
  closeDescriptor(in);
}

TEST(Replacing, makesFilesOfNewNames) {
  const TempFolder folder;
  std::string first = folder.path(std::string(kWord) + "-");
  std::string second = first;
  const int one = makeNewFile(first);
  const int two = makeNewFile(second);
  ASSERT_GE(one, 0);
  ASSERT_GE(two, 0);
  EXPECT_NE(first, second);
  EXPECT_EQ(folder.names().size(), 2u);
  EXPECT_TRUE(takeAccess(one, nullptr));
  EXPECT_TRUE(reachesDisk(one));
  removeFile(first.c_str());  // while it is open, as when the process is to end
  closeDescriptor(one);
  closeDescriptor(two);
  EXPECT_EQ(folder.names().size(), 1u);
}

TEST(Replacing, tellsWhyNoFileIsMade) {
  const TempFolder folder;
  std::string name = folder.path("none/file-");
  EXPECT_EQ(makeNewFile(name), -1);
  EXPECT_EQ(errno, ENOENT);
}

TEST(Replacing, givesAFileTheNameOfAnother) {
  const TempFolder folder;
  const std::string target = folder.path(kWord);
  writeFile(target, "old");
  writeFile(folder.path("new"), "new");
  EXPECT_TRUE(replaceFile(folder.path("new"), target));
  EXPECT_EQ(readFile(target), "new");
  EXPECT_EQ(folder.names().size(), 1u);
  EXPECT_FALSE(replaceFile(folder.path("none"), target));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(readFile(target), "new");
}

TEST(Replacing, leavesNamesWithoutLinksAlone) {
  EXPECT_EQ(withoutLinks(pathOf("a/none")), pathOf("a/none"));
  EXPECT_FALSE(descriptorNamed(pathOf("/dev/fd/3")));
  EXPECT_FALSE(reachDiskTogether({"."}));
  EXPECT_GT(mostDescriptors(), 16);
}

// Runs a case that is switched off otherwise in a console of its own, which nobody sees.
// Returns: the status with which it ended.
DWORD statusInConsole(const char* name) {
  std::wstring self(MAX_PATH, L'\0');
  self.resize(GetModuleFileNameW(nullptr, self.data(), MAX_PATH));
  std::wstring line = L"\"" + self +
                      L"\" --gtest_also_run_disabled_tests --gtest_filter=InConsole.DISABLED_" +
                      wideOf(name);
  STARTUPINFOW start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION started{};
  if (CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                     nullptr, &start, &started) == 0) {
    return GetLastError();
  }
  const Handle process(started.hProcess);
  const Handle thread(started.hThread);
  DWORD status = 0;
  WaitForSingleObject(process.get(), INFINITE);
  GetExitCodeProcess(process.get(), &status);
  return status;
}

constexpr int kDone = 42;  // not what a program without a case of that name ends with

TEST(InConsole, DISABLED_hasWidthColoursAndUtf8) {
  const Handle console(CreateFileW(L"CONOUT$", GENERIC_READ | GENERIC_WRITE, kShareAll, nullptr,
                                   OPEN_EXISTING, 0, nullptr));
  ASSERT_TRUE(console.isOpen());
  SetStdHandle(STD_OUTPUT_HANDLE, console.get());
  beginProgram();
  EXPECT_GT(consoleWidth(), 0u);
  EXPECT_TRUE(consoleTakesUtf8());
  EXPECT_TRUE(consoleHasColours());
  std::_Exit(HasFailure() ? 1 : kDone);
}

TEST(Console, hasWidthColoursAndUtf8) {
  EXPECT_EQ(statusInConsole("hasWidthColoursAndUtf8"), DWORD{kDone});
}

const char* fileToRemove = nullptr;

void removeIt() { removeFile(fileToRemove); }

constexpr char kFolderVariable[] = "MLNN_SYSTEM_TEST_FOLDER";

TEST(InConsole, DISABLED_isInterrupted) {
  std::string name = std::getenv(kFolderVariable) + std::string("/unfinished-");
  const int file = makeNewFile(name);
  ASSERT_GE(file, 0);
  fileToRemove = name.c_str();
  {
    const EndingSignalsWait wait;
    callBeforeEnd(removeIt);
  }
  writeBytes(file, "1", 1);
  GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
  Sleep(60000);
  std::_Exit(kDone);
}

// The process ends as by Ctrl-C at the console, by wine with 0, and leaves nothing behind.
TEST(EndingSignals, areAnsweredByRemovingFiles) {
  const TempFolder folder;
  setDefault(kFolderVariable, folder.path().c_str());
  const DWORD status = statusInConsole("isInterrupted");
  EXPECT_TRUE(status == static_cast<DWORD>(STATUS_CONTROL_C_EXIT) || status == 0) << status;
  EXPECT_TRUE(folder.names().empty());
}

TEST(EndingSignalsWait, keepsErrno) {
  {
    const EndingSignalsWait wait;
    errno = EDOM;
  }
  EXPECT_EQ(errno, EDOM);
}

TEST(Errors, haveTheNumbersOfMessages) {
  EXPECT_EQ(errnoOf(ERROR_PATH_NOT_FOUND), ENOENT);
  EXPECT_EQ(errnoOf(ERROR_SHARING_VIOLATION), EACCES);
  EXPECT_EQ(errnoOf(ERROR_DISK_FULL), ENOSPC);
  EXPECT_EQ(errnoOf(ERROR_NO_DATA), EPIPE);
  EXPECT_EQ(errnoOf(ERROR_CRC), EIO);
}

TEST(Handle, ofNothingIsNotOpen) {
  EXPECT_FALSE(Handle(INVALID_HANDLE_VALUE).isOpen());
  EXPECT_FALSE(Handle(nullptr).isOpen());
}

TEST(Program, readsItsCommandLineFromTheSystem) {
  const char* const words[] = {"not", "these"};
  const std::vector<std::string> read = wordsOf(2, words);
  ASSERT_FALSE(read.empty());
  EXPECT_THAT(read.front(), ::testing::HasSubstr("WindowsSystemTest"));
}

TEST(Program, setsVariablesThatAreNotSet) {
  setDefault("MLNN_SYSTEM_TEST", "first");
  setDefault("MLNN_SYSTEM_TEST", "second");
  wchar_t value[16];
  EXPECT_EQ(GetEnvironmentVariableW(L"MLNN_SYSTEM_TEST", value, 16), 5u);
  EXPECT_STREQ(value, L"first");
}

TEST(Program, tellsWhyAnotherCannotRun) { EXPECT_EQ(becomeProgram({"none-such"}), ENOENT); }

TEST(Program, hasTheStatusOfTheOneItBecomes) {
  EXPECT_EXIT(becomeProgram({"cmd", "/c", "exit 7"}), ::testing::ExitedWithCode(7), "");
}

TEST(Machine, hasMemory) {
  EXPECT_GT(memoryOfProcess(), uint64_t{1} << 20);
  EXPECT_EQ(processorCache(9), 0u);
}

// As the system says that bytes of a mapped file cannot be had.
void raiseLackAt(const void* address) {
  const ULONG_PTR facts[] = {0, reinterpret_cast<ULONG_PTR>(address), 0};
  RaiseException(static_cast<DWORD>(EXCEPTION_IN_PAGE_ERROR), 0, 3, facts);
}

TEST(LackOfBytes, endsTheProcessWithItsMessage) {
  static const char bytes[4] = {};
  const auto lack = [] {
    endForLackOf({bytes, sizeof bytes, "gone\n", [] {}, 3});
    raiseLackAt(bytes + 3);
  };
  EXPECT_EXIT(lack(), ::testing::ExitedWithCode(3), "^gone");
}

}  // namespace
}  // namespace mlnn
