// Every shell session that the documentation shows is run, page by page, and must print what
// the page says.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iterator>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/docs/ConsoleBlocks.h"
#include "tests/support/Extent.h"
#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolBuild.h"
#include "tests/tools/support/ToolProcess.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::ConsoleCommand;
using mlnn::test::consoleCommands;
using mlnn::test::contentOf;
using mlnn::test::matchesShown;
using mlnn::test::runShell;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::triesSample;

constexpr char kExamples[] = "examples";  // what pages refer to, relative to the source tree

// Both streams in one. Pages that use git get neither the repository that the tests may have been
// started for, as from a hook, nor the configuration of whoever runs them.
constexpr char kShellSetup[] =
    "exec 2>&1\n"
    "PATH='" MLNN_EXAMPLES_DIR
    "':$PATH\n"  // the programs of the examples, by their names
    "unset GIT_DIR GIT_WORK_TREE GIT_INDEX_FILE GIT_PREFIX GIT_EXTERNAL_DIFF\n"
    "export GIT_CONFIG_GLOBAL=/dev/null GIT_CONFIG_SYSTEM=/dev/null\n"
    "export GIT_AUTHOR_NAME=tester GIT_AUTHOR_EMAIL=tester@example.org\n"
    "export GIT_COMMITTER_NAME=tester GIT_COMMITTER_EMAIL=tester@example.org\n";

bool isPage(const fs::path& path) { return path.extension() == ".md"; }

// These sweep whole networks and start the tool again and again, for most of the time of all pages
// under sanitizers; the tests of their commands run there.
bool takesLong(const std::string& page) {
  return page == "docs/walkthrough.md" || page == "docs/git-diff.md";
}

// The pages with console blocks, relative to the source tree: those at its root, in docs/ and
// in examples/.
std::vector<std::string> pages() {
  std::vector<fs::path> candidates;
  for (const auto& entry : fs::directory_iterator(sourcePath("."))) candidates.push_back(entry);
  for (const std::string folder : {"docs", kExamples}) {
    for (const auto& entry : fs::recursive_directory_iterator(sourcePath(folder))) {
      candidates.push_back(entry);
    }
  }
  std::vector<std::string> found;
  for (const fs::path& path : candidates) {
    if (!isPage(path) || consoleCommands(contentOf(path.string())).empty()) continue;
    const std::string page = fs::relative(path, sourcePath(".")).string();
    if (!triesSample() || !takesLong(page)) found.push_back(page);
  }
  std::sort(found.begin(), found.end());
  return found;
}

class DocumentationTest : public ::testing::TestWithParam<std::string> {};

// All commands of a page run in one folder, so that later ones find what earlier ones made.
TEST_P(DocumentationTest, commandsPrintWhatThePageShows) {
  const TempFolder folder;
  fs::create_directory_symlink(sourcePath(kExamples), folder.path(kExamples));
  for (const ConsoleCommand& command : consoleCommands(contentOf(sourcePath(GetParam())))) {
    const std::string output = runShell(kShellSetup + command.command, folder.path()).out;
    EXPECT_TRUE(matchesShown(command.output, output))
        << GetParam() << ":" << command.line << ": $ " << command.command << "\nshown:\n"
        << command.output << "printed:\n"
        << output;
  }
}

INSTANTIATE_TEST_SUITE_P(Pages, DocumentationTest, ::testing::ValuesIn(pages()),
                         [](const auto& page) {
                           std::string name = page.param;
                           for (char& c : name) {
                             if (!std::isalnum(static_cast<unsigned char>(c))) c = '_';
                           }
                           return name;
                         });

TEST(DocumentationTest, theReadmeShowsSessions) {
  const std::vector<std::string> found = pages();
  EXPECT_NE(std::find(found.begin(), found.end(), "README.md"), found.end());
}

// What it prints for the model is the posteriors of an input of zeros: ten that sum to 1.
TEST(DocumentationTest, theProgramInTheReadmeWorks) {
  const std::string program = contentOf(sourcePath("examples/library/load_and_run.cpp"));
  EXPECT_NE(contentOf(sourcePath("README.md")).find("```cpp\n" + program + "```\n"),
            std::string::npos);
  const auto result =
      runShell("'" MLNN_EXAMPLE_PATH "' '" + sourcePath("examples/digits/synth.txt") + "'");
  EXPECT_EQ(result.status, 0);
  std::istringstream in(result.out);
  const std::vector<double> posteriors{std::istream_iterator<double>(in), {}};
  ASSERT_EQ(posteriors.size(), 10u);
  EXPECT_NEAR(std::accumulate(posteriors.begin(), posteriors.end(), 0.0), 1.0, 1e-4);
}

constexpr char kPrintWords[] = "examples/rom/print-words examples/digits/frames/*.npy | ";

// Its network is quantised, and keeps as many words as the floats get right.
TEST(DocumentationTest, theProgramThatRunsFromRomWorks) {
  const auto fromRom =
      runShell(std::string(kPrintWords) + "'" MLNN_ROM_EXAMPLE_PATH "'", sourcePath(""));
  EXPECT_EQ(fromRom.status, 0);
  EXPECT_EQ(fromRom.out, "28 of 30 words right\n");
  EXPECT_EQ(fromRom.err.rfind("info: deserializeBinary: feature desc: ", 0), 0u);
}

TEST(DocumentationTest, theProgramThatRunsFromRomRefusesWhatIsNoWord) {
  const auto fromRom = runShell("echo word | '" MLNN_ROM_EXAMPLE_PATH "'");
  EXPECT_EQ(fromRom.status, 1);
  EXPECT_EQ(fromRom.out, "");
}

// It says nothing of words that did not come whole.
TEST(DocumentationTest, theProgramThatRunsFromRomRefusesAWordThatEnds) {
  const auto fromRom = runShell(
      std::string(kPrintWords) + "head -c 1000 | '" MLNN_ROM_EXAMPLE_PATH "'", sourcePath(""));
  EXPECT_EQ(fromRom.status, 1);
  EXPECT_EQ(fromRom.out, "");
}

// What starts the standard streams is in the program that loads a model, and not in the one for
// devices.
TEST(DocumentationTest, theProgramThatRunsFromRomHasNoStreams) {
  if (mlnn::test::toolHasSanitizers()) {
    GTEST_SKIP() << "the sanitizer's build keeps what is never called";
  }
#if MLNN_IS_IN_BATCHES
  GTEST_SKIP() << "what is called comes with what was compiled together with it";
#endif
  constexpr char kStart[] = "_ZNSt8ios_base4InitC1Ev";
  const auto loads = runShell("nm -D '" MLNN_EXAMPLE_PATH "'");
  const auto runs = runShell("nm -D '" MLNN_ROM_EXAMPLE_PATH "'");
  EXPECT_NE(loads.out.find(kStart), std::string::npos);
  EXPECT_EQ(runs.out.find(kStart), std::string::npos) << runs.out;
  EXPECT_EQ(runs.status, 0);
}

TEST(ConsoleBlocksTest, findsCommandsAndTheirOutput) {
  const std::vector<ConsoleCommand> commands = consoleCommands(
      "# Page\n```sh\n$ not run\n```\n```console\n$ one\nout 1\nout 2\n$ two \\\n> more\n```\n"
      "text\n```console\n$ three\n```\n");
  ASSERT_EQ(commands.size(), 3u);
  EXPECT_EQ(commands[0].line, 6u);
  EXPECT_EQ(commands[0].command, "one");
  EXPECT_EQ(commands[0].output, "out 1\nout 2\n");
  EXPECT_EQ(commands[1].command, "two \\\nmore");
  EXPECT_EQ(commands[1].output, "");
  EXPECT_EQ(commands[2].command, "three");
}

TEST(ConsoleBlocksTest, refusesBlocksThatWouldNotBeRun) {
  EXPECT_THROW(consoleCommands("```console\noutput\n```\n"), std::runtime_error);
  EXPECT_THROW(consoleCommands("```console\n$ a\n```\n```console\nb\n```\n"), std::runtime_error);
  EXPECT_THROW(consoleCommands("```console\n$ command\n"), std::runtime_error);
}

TEST(ConsoleBlocksTest, dotsStandForAnyLines) {
  EXPECT_TRUE(matchesShown("a\nb\n", "a\nb\n"));
  EXPECT_FALSE(matchesShown("a\nb\n", "a\nb\nc\n"));
  EXPECT_FALSE(matchesShown("a\nb\n", "a\n"));
  EXPECT_TRUE(matchesShown("a\n...\nd\n", "a\nb\nc\nd\n"));
  EXPECT_TRUE(matchesShown("...\n", ""));
  EXPECT_TRUE(matchesShown("a\n...\n", "a\n"));
  EXPECT_FALSE(matchesShown("a\n...\ne\n", "a\nb\n"));
}

}  // namespace
