#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "tests/tools/support/ToolProcess.h"
#include "tools/Failure.h"
#include "tools/files/RecordingFiles.h"

namespace {

namespace fs = std::filesystem;
using mlnn::RecordingFile;
using mlnn::recordingFiles;
using mlnn::RecordingOptions;
using mlnn::test::TempFolder;
using Pairs = std::vector<std::pair<std::string, std::string>>;

Pairs pairsOf(const RecordingOptions& options) {
  Pairs pairs;
  for (const RecordingFile& file : recordingFiles(options))
    pairs.emplace_back(file.file, file.name);
  return pairs;
}

template <typename Refusal>
std::string refusalOf(const RecordingOptions& options) {
  try {
    recordingFiles(options);
  } catch (const Refusal& refusal) {
    return refusal.what();
  }
  return "";
}

class RecordingFilesTest : public testing::Test {
 protected:
  RecordingFilesTest() {
    fs::create_directories(folder_.path("words/more"));
    for (const char* name : {"words/b.npy", "words/a.txt", "words/.hidden", "words/more/c.npy"}) {
      folder_.write(name, "1\n");
    }
  }

  RecordingOptions listed(const std::string& text, bool nulSeparated = false) {
    return {{}, folder_.write("list", text), nulSeparated};
  }

  TempFolder folder_;
};

TEST_F(RecordingFilesTest, callsFilesByTheirNames) {
  EXPECT_EQ(pairsOf({{"x/one.npy", "-", "two"}, "", false}),
            (Pairs{{"x/one.npy", "one.npy"}, {"-", ""}, {"two", "two"}}));
}

TEST_F(RecordingFilesTest, takesWhatIsInAFolder) {
  const std::string words = folder_.path("words");
  const Pairs files = {{words + "/a.txt", "words/a.txt"}, {words + "/b.npy", "words/b.npy"}};
  EXPECT_EQ(pairsOf({{words}, "", false}), files);
  EXPECT_EQ(pairsOf({{words + "/"}, "", false}), files);
}

TEST_F(RecordingFilesTest, givesAFolderWithoutANameOfItsOwnNone) {
  const std::string same = folder_.path("words/more/..");
  EXPECT_EQ(pairsOf({{same}, "", false}),
            (Pairs{{same + "/a.txt", "a.txt"}, {same + "/b.npy", "b.npy"}}));
}

TEST_F(RecordingFilesTest, readsNamesFromAFile) {
  const std::string words = folder_.path("words");
  RecordingOptions options = listed("one\n\n two\r\n" + words + "\nlast");
  options.frames = {"first"};
  EXPECT_EQ(pairsOf(options), (Pairs{{"first", "first"},
                                     {"one", "one"},
                                     {" two\r", " two\r"},
                                     {words + "/a.txt", "words/a.txt"},
                                     {words + "/b.npy", "words/b.npy"},
                                     {"last", "last"}}));
  EXPECT_EQ(pairsOf(listed(std::string("a\nb\0x y\0", 8), true)),
            (Pairs{{"a\nb", "a\nb"}, {"x y", "x y"}}));
}

TEST_F(RecordingFilesTest, refusesToFindNone) {
  fs::create_directory(folder_.path("empty"));
  EXPECT_EQ(refusalOf<mlnn::UsageError>({}),
            "FRAMES is required, or --files-from with their names");
  EXPECT_EQ(refusalOf<mlnn::Failure>({{folder_.path("empty")}, "", false}),
            "the folder '" + folder_.path("empty") + "' holds no recordings");
  EXPECT_EQ(refusalOf<mlnn::Failure>(listed("\n\n")),
            "'" + folder_.path("list") + "' names no recordings");
  EXPECT_EQ(refusalOf<mlnn::Failure>({{}, folder_.path("missing"), false}),
            "cannot read '" + folder_.path("missing") + "': No such file or directory");
}

}  // namespace
