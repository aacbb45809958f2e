// The main job on real input: recorded frames through models read from text, from the image
// that `mlnn convert` makes of that, and from the text that it makes of the image.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>
#include <string>

#include "tests/support/DigitsFolder.h"
#include "tests/support/SourceTree.h"
#include "tests/tools/support/ToolProcess.h"
#include "tools/files/Frames.h"

namespace {

namespace fs = std::filesystem;
using mlnn::test::contentOf;
using mlnn::test::digitsFolder;
using mlnn::test::runShell;
using mlnn::test::runTool;
using mlnn::test::sourcePath;
using mlnn::test::TempFolder;
using mlnn::test::ToolResult;

std::string sample() { return sourcePath("examples/digits"); }

struct Network {
  std::string folder;      // with labels.csv and frames/
  std::string model;       // the file
  std::string posteriors;  // the folder of what it must give
  std::string column;      // of labels.csv, with what it must decide
};

std::vector<std::string> split(const std::string& line, char separator) {
  std::vector<std::string> pieces;
  std::istringstream in(line);
  for (std::string piece; std::getline(in, piece, separator);) pieces.push_back(piece);
  return pieces;
}

// The expected decision for each recording, by file name.
std::map<std::string, std::string> decisions(const Network& network) {
  std::istringstream in(contentOf(network.folder + "/labels.csv"));
  std::string line;
  std::getline(in, line);
  const std::vector<std::string> heading = split(line, ',');
  std::size_t column = 0;
  while (heading.at(column) != network.column) ++column;
  std::map<std::string, std::string> expected;
  while (std::getline(in, line)) {
    const std::vector<std::string> fields = split(line, ',');
    expected[fields.at(0)] = fields.at(column);
  }
  return expected;
}

std::vector<std::string> framesOf(const Network& network) {
  std::vector<std::string> files;
  for (const auto& [name, decision] : decisions(network)) {
    files.push_back(network.folder + "/frames/" + name);
  }
  return files;
}

std::vector<std::string> command(std::vector<std::string> words,
                                 const std::vector<std::string>& rest) {
  words.insert(words.end(), rest.begin(), rest.end());
  return words;
}

void expectPosteriors(const Network& network, const std::string& model) {
  const TempFolder results;
  const std::vector<std::string> files = framesOf(network);
  const ToolResult result = runTool(command({"run", model, "--out", results.path()}, files));
  ASSERT_EQ(result.status, 0) << result.err;
  for (const std::string& file : files) {
    const std::string name = fs::path(file).filename().string();
    const Eigen::MatrixXf expected = mlnn::readFrames(network.posteriors + "/" + name);
    const Eigen::MatrixXf found = mlnn::readFrames(results.path(name));
    ASSERT_EQ(found.rows(), expected.rows()) << name;
    ASSERT_EQ(found.cols(), expected.cols()) << name;
    EXPECT_LE((found - expected).array().abs().maxCoeff(), 1e-4f) << name;
  }
}

void expectDecisions(const Network& network, const std::string& model) {
  const ToolResult result = runTool(command({"run", model}, framesOf(network)));
  ASSERT_EQ(result.status, 0) << result.err;
  const std::string marker = "recording: ";
  std::vector<std::string> found;
  for (const std::string& line : split(result.out, '\n')) {
    if (line.compare(0, marker.size(), marker) != 0) continue;
    found.push_back(line.substr(marker.size(), line.find(',') - marker.size()));
  }
  std::vector<std::string> expected;
  for (const auto& [name, decision] : decisions(network)) expected.push_back(decision);
  EXPECT_EQ(found, expected);
}

void expectResults(const Network& network, const std::string& model) {
  SCOPED_TRACE(model);
  expectPosteriors(network, model);
  expectDecisions(network, model);
}

// From the text, from the image of that, and from the text of the image.
void expectResultsInEveryForm(const Network& network) {
  const TempFolder files;
  const std::string image = files.path("model.mlnn");
  const std::string text = files.path("model.txt");
  ASSERT_EQ(runTool({"convert", network.model, image}).status, 0);
  ASSERT_EQ(runTool({"convert", "--strict", image, text}).status, 0);
  expectResults(network, network.model);
  expectResults(network, image);
  expectResults(network, text);
}

TEST(DigitsTest, theSampleGivesItsPosteriors) {
  for (const std::string name : {"synth", "synth-bn"}) {
    expectResultsInEveryForm({sample(), sample() + "/" + name + ".txt",
                              sample() + "/posteriors-" + name, "predicted_" + name});
  }
}

class DigitsFolderTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (digitsFolder().empty()) GTEST_SKIP() << mlnn::test::kNoDigits;
  }

  // The recordings of people and the synthesised words.
  static void expectAll(const std::string& model, const std::string& name) {
    for (const std::string& folder : {digitsFolder(), digitsFolder() + "/espeak"}) {
      expectResultsInEveryForm(
          {folder, model, folder + "/posteriors-" + name, "predicted_" + name});
    }
  }
};

TEST_F(DigitsFolderTest, plainLayers) { expectAll(digitsFolder() + "/digits-small.txt", "small"); }

TEST_F(DigitsFolderTest, versionOne) {
  expectAll(digitsFolder() + "/digits-small-v1.txt", "small");
}

TEST_F(DigitsFolderTest, batchNormLayers) { expectAll(digitsFolder() + "/digits-bn.txt", "bn"); }

TEST_F(DigitsFolderTest, foldedLayers) {
  expectAll(digitsFolder() + "/digits-bn-folded.txt", "bn");
}

TEST_F(DigitsFolderTest, wideLayers) {
  const TempFolder folder;
  const std::string model = folder.path("wide.txt");
  const std::string packed = digitsFolder() + "/digits-wide.txt.gz";
  ASSERT_EQ(runShell("gunzip -c '" + packed + "' > '" + model + "'").status, 0);
  expectAll(model, "wide");
}

// Input vectors instead of single frames.
TEST_F(DigitsFolderTest, stackedInputs) {
  for (const auto& [model, name] :
       std::map<std::string, std::string>{{"digits-small.txt", "small"}, {"digits-bn.txt", "bn"}}) {
    const std::string stacked = digitsFolder() + "/stacked-" + name;
    for (const fs::directory_entry& entry : fs::directory_iterator(stacked)) {
      const TempFolder results;
      const std::string file = entry.path().string();
      const std::string out = results.path("out.npy");
      ASSERT_EQ(runTool({"run", digitsFolder() + "/" + model, file, "-o", out}).status, 0);
      const Eigen::MatrixXf expected = mlnn::readFrames(digitsFolder() + "/posteriors-" + name +
                                                        "/" + entry.path().filename().string());
      EXPECT_LE((mlnn::readFrames(out) - expected).array().abs().maxCoeff(), 1e-4f) << file;
    }
  }
}

}  // namespace
