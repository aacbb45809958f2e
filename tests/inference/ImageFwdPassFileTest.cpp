// Opening an image by the name of its file.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>

#include "inference/ImageFwdPass.h"
#include "model/MultiLayerNNModel.h"
#include "os/FileMapping.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

namespace fs = std::filesystem;
using Eigen::MatrixXf;
using mlnn::FileMapping;
using mlnn::ImageChecksum;
using mlnn::ImageFwdPass;
using mlnn::test::ByteImage;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

std::string imageOf(int inputs, int outputs) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(inputs, outputs)});
  model.deltasNorm.allocIfNeeded();
  return ByteImage::of(model).bytes();
}

MatrixXf evaluated(ImageFwdPass& pass, const MatrixXf& inputs) {
  MatrixXf outputs;
  EXPECT_EQ(pass.evaluate(inputs, outputs), 0);
  return outputs;
}

std::string refusal(ImageFwdPass& pass, const std::string& path) {
  return stderrOf([&] { EXPECT_EQ(pass.openFile(path.c_str()), 1); });
}

TEST(ImageFwdPassFile, saysAndGivesWhatTheBytesInMemoryDo) {
  const TempFolder folder;
  const std::string image = imageOf(40, 30);
  const std::string path = folder.write("image", image);
  ImageFwdPass fromMemory, fromFile;
  const std::string said =
      stderrOf([&] { EXPECT_EQ(fromMemory.open(image.data(), image.size()), 0); });
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(fromFile.openFile(path.c_str()), 0); }), said);
  EXPECT_EQ(fromFile.widths(), (std::vector<int>{40, 30}));
  const MatrixXf inputs = someValues(40, 3, 5);
  EXPECT_TRUE(sameBits(evaluated(fromFile, inputs), evaluated(fromMemory, inputs)));
}

TEST(ImageFwdPassFile, takesNoMemoryForTheWeights) {
  const TempFolder folder;
  const std::string path = folder.write("image", imageOf(500, 400));
  stderrOf([&] {
    const mlnn::test::AllocationWatch watch;
    ImageFwdPass pass;
    EXPECT_EQ(pass.openFile(path.c_str()), 0);
    EXPECT_LT(watch.total(), 20000u);
  });
}

TEST(ImageFwdPassFile, goesOnWhenTheFileIsReplacedOrRemoved) {
  const TempFolder folder;
  const std::string path = folder.write("image", imageOf(40, 30));
  const MatrixXf inputs = someValues(40, 3, 5);
  stderrOf([&] {
    ImageFwdPass pass;
    ASSERT_EQ(pass.openFile(path.c_str()), 0);
    const MatrixXf before = evaluated(pass, inputs);
    fs::rename(folder.write("new", imageOf(20, 10)), path);
    EXPECT_TRUE(sameBits(evaluated(pass, inputs), before));
    fs::remove(path);
    EXPECT_TRUE(sameBits(evaluated(pass, inputs), before));
  });
}

TEST(ImageFwdPassFile, keepsTheMappingWhereItMoves) {
  const TempFolder folder;
  const std::string path = folder.write("image", imageOf(40, 30));
  const std::string other = folder.write("other", imageOf(40, 20));
  const MatrixXf inputs = someValues(40, 3, 5);
  stderrOf([&] {
    ImageFwdPass first, second;
    ASSERT_EQ(first.openFile(path.c_str()), 0);
    ASSERT_EQ(second.openFile(other.c_str()), 0);
    const MatrixXf before = evaluated(first, inputs);
    second = std::move(first);
    ImageFwdPass third(std::move(second));
    EXPECT_TRUE(sameBits(evaluated(third, inputs), before));
    EXPECT_EQ(third.openFile(other.c_str()), 0);
    EXPECT_EQ(third.numOutputs(), 20);
  });
}

TEST(ImageFwdPassFile, declinesTheChecksumWhereAsked) {
  const TempFolder folder;
  std::string image = imageOf(40, 30);
  image[4] = static_cast<char>(image[4] ^ 1);
  const std::string path = folder.write("image", image);
  ImageFwdPass pass;
  EXPECT_NE(refusal(pass, path).find("checksum"), std::string::npos);
  stderrOf([&] { EXPECT_EQ(pass.openFile(path.c_str(), ImageChecksum::kDeclined), 0); });
}

TEST(ImageFwdPassFile, saysWhyAFileCannotBeMapped) {
  const TempFolder folder;
  const std::string pipe = folder.path("pipe");
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::string prefix = "ERROR: ImageFwdPass: could not map file: ";
  ImageFwdPass pass;
  EXPECT_EQ(refusal(pass, folder.path("none")),
            prefix + folder.path("none") + ": No such file or directory\n");
  EXPECT_EQ(refusal(pass, folder.path()), prefix + folder.path() + ": Is a directory\n");
  EXPECT_EQ(refusal(pass, pipe), prefix + pipe + ": No such device\n");
  EXPECT_EQ(refusal(pass, folder.write("empty", "")),
            prefix + folder.path("empty") + ": Invalid argument\n");
}

TEST(ImageFwdPassFile, afterARefusalThereIsNoImage) {
  const TempFolder folder;
  const std::string good = folder.write("good", imageOf(4, 3));
  const std::string text = "MultiLayerNNModel\nnum_layers 0\n";
  for (const auto& [content, message] : std::vector<std::pair<std::string, std::string>>{
           {"MLNN123", "ERROR: ImageFwdPass: image of 7 bytes is shorter than its head (1004)\n"},
           {text, "ERROR: MultiLayerNNModel::deserializeBinary: could not find header 'MLNN'\n"}}) {
    ImageFwdPass pass;
    stderrOf([&] { ASSERT_EQ(pass.openFile(good.c_str()), 0); });
    EXPECT_EQ(refusal(pass, folder.write("bad", content)), message);
    EXPECT_EQ(pass.numInputs(), 0);
    EXPECT_TRUE(pass.widths().empty());
    stderrOf([&] { ASSERT_EQ(pass.openFile(good.c_str()), 0); });
    refusal(pass, folder.path("none"));
    EXPECT_EQ(pass.numInputs(), 0);
  }
}

// What the header says of a file that another process cuts short: the library leaves the signal to
// the program.
TEST(ImageFwdPassFileDeathTest, aFileThatIsCutEndsTheProcess) {
  const TempFolder folder;
  const std::string path = folder.write("image", imageOf(300, 300));
  const auto runCut = [&] {
    std::signal(SIGBUS, SIG_DFL);
    ImageFwdPass pass;
    pass.openFile(path.c_str());
    fs::resize_file(path, 0);
    MatrixXf outputs;
    pass.evaluate(someValues(300, 1, 5), outputs);
  };
  EXPECT_EXIT(runCut(), testing::KilledBySignal(SIGBUS), "");
}

TEST(FileMapping, isThatOfTheWholeFile) {
  const TempFolder folder;
  const std::string path = folder.write("file", "some text");
  FileMapping mapping(path.c_str());
  ASSERT_EQ(mapping.length(), 9u);
  EXPECT_EQ(std::string(static_cast<const char*>(mapping.data()), 9), "some text");
  FileMapping moved(std::move(mapping));
  EXPECT_EQ(moved.length(), 9u);
  FileMapping none(folder.path("none").c_str());
  EXPECT_EQ(none.data(), nullptr);
  EXPECT_EQ(none.length(), 0u);
}

}  // namespace
