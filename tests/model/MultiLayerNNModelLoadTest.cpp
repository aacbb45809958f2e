// Loading a model of either format from a file or a stream.
#include <gtest/gtest.h>

#include <filesystem>
#include <limits>
#include <sstream>
#include <streambuf>
#include <system_error>

#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TempFolder.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::AllocationWatch;
using mlnn::test::ByteImage;
using mlnn::test::fewValuesLayer;
using mlnn::test::fullModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameLayers;
using mlnn::test::sameModel;
using mlnn::test::stderrOf;
using mlnn::test::TempFolder;

const std::string kNoHeader = "ERROR: MultiLayerNNModel: Could not read header\n";
const std::string kNoTextModel =
    "ERROR: MultiLayerNNModel::deserializeAscii: Invalid neural network model file. Didn't find "
    "expected header on first line.\n";
const std::string kBinary = "ERROR: MultiLayerNNModel::deserializeBinary: ";
const std::string kInfo =
    "info: deserializeBinary: feature desc: "
    "mel_deltas:bands=0,left=5,right=6,deltas=1,line_kernels=1,line_kernel_width=9\n";

std::string fullImage() { return ByteImage::of(fullModel()).bytes(); }

// fullModel as text, with every digit of its values.
std::string fullText() {
  std::ostringstream text;
  text.precision(9);
  fullModel().serializeAscii(text);
  return text.str();
}

// What reading fullText says.
const std::string kTextInfo =
    "info: setting 'alpha' = '1 2'\n"
    "info: setting 'beta' = ''\n";

// Loads the contents from a stream and from a file, and expects this result and these messages.
void expectLoad(const std::string& contents, int result, const std::string& messages) {
  std::istringstream stream(contents);
  MultiLayerNNModel fromStream;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(fromStream.deserialize(stream), result); }), messages);

  const TempFolder folder;
  const std::string path = folder.write("model", contents);
  MultiLayerNNModel fromFile;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(fromFile.deserialize(path.c_str()), result); }), messages);
  EXPECT_TRUE(sameModel(fromFile, fromStream));
}

// --- Format detection ---

TEST(MultiLayerNNModelLoad, imageGivesTheModel) {
  expectLoad(fullImage(), 0, kInfo);
  std::istringstream stream(fullImage());
  MultiLayerNNModel model;
  stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 0); });
  EXPECT_TRUE(sameLayers(model, fullModel()));
}

TEST(MultiLayerNNModelLoad, textGivesTheModel) {
  expectLoad(fullText(), 0, kTextInfo);
  std::istringstream stream(fullText());
  MultiLayerNNModel model;
  stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 0); });
  EXPECT_EQ(model.layers.size(), 3u);
  EXPECT_EQ(model.props, fullModel().props);
  EXPECT_EQ(model.notes.lines, fullModel().notes.lines);
  EXPECT_FALSE(model.useSoftmax);
}

TEST(MultiLayerNNModelLoad, fewerThanFourBytesHaveNoHeader) {
  for (const char* contents : {"", "M", "ML", "MLN", "\n\n\n"}) {
    expectLoad(contents, 1, kNoHeader);
  }
}

TEST(MultiLayerNNModelLoad, shortStreamLeavesTheModel) {
  MultiLayerNNModel model = fullModel();
  std::istringstream stream("MLN");
  stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); });
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelLoad, fourOtherBytesGoToTheTextReader) {
  for (const char* contents : {"abcd", "mlnn", "MLNm", "xMLNN", "\nMLNN", "Mult"}) {
    expectLoad(contents, 1, kNoTextModel);
  }
}

TEST(MultiLayerNNModelLoad, magicAloneIsARefusedImage) {
  // Below eight bytes the reader of images says nothing.
  expectLoad("MLNN", 1, "");
  expectLoad("MLNN123", 1, "");
  expectLoad("MLNN1234", 1, kBinary + "image of 8 bytes is shorter than its head (1004)\n");
}

// --- Refused images ---

TEST(MultiLayerNNModelLoad, bytesBehindTheImageAreRefused) {
  expectLoad(fullImage() + "x", 1, kInfo + kBinary + "problem deserializing model\n");
  expectLoad(fullImage() + std::string(1, '\0'), 1,
             kInfo + kBinary + "problem deserializing model\n");
}

TEST(MultiLayerNNModelLoad, cutImageIsRefused) {
  const std::string image = fullImage();
  expectLoad(image.substr(0, image.size() - 1), 1,
             kInfo + kBinary + "could not read layer index: 2\n");
}

TEST(MultiLayerNNModelLoad, wrongChecksumIsRefused) {
  ByteImage image(fullImage());
  const uint32_t right = image.uint32At(4);
  image.flipBit(8 * 4);
  expectLoad(image.bytes(), 1,
             kInfo + kBinary + "checksums did not match (" + std::to_string(right ^ 1) +
                 " != " + std::to_string(right) + ")\n");
}

TEST(MultiLayerNNModelLoad, imageFollowedByAnotherIsRefused) {
  expectLoad(fullImage() + fullImage(), 1, kInfo + kBinary + "problem deserializing model\n");
}

// --- Refused text ---

TEST(MultiLayerNNModelLoad, refusalOfTheTextReaderIsPassedOn) {
  expectLoad(
      "MultiLayerNNModel_v2\nsoft 1\n", 1,
      "ERROR: MultiLayerNNModel::deserializeAscii: Expected to find 'softmax' in a version 2 "
      "model file\n");
}

// --- Files ---

TEST(MultiLayerNNModelLoad, fileThatCannotBeOpenedIsNamed) {
  const TempFolder folder;
  for (const std::string& name : {folder.path("model.txt"), folder.path("absent/model.txt"),
                                  folder.path("a 'b'\n%s"), std::string("")}) {
    MultiLayerNNModel model = fullModel();
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(name.c_str()), 1); }),
              "ERROR: MultiLayerNNModel: could not read file: " + name + "\n");
    EXPECT_TRUE(sameModel(model, fullModel()));
  }
}

TEST(MultiLayerNNModelLoad, folderIsRefused) {
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize("/"), 1); }), kNoTextModel);
}

std::ptrdiff_t openFiles() {
  const std::filesystem::directory_iterator files("/proc/self/fd");
  return std::distance(begin(files), end(files));
}

TEST(MultiLayerNNModelLoad, fileIsClosedOnEveryPath) {
  const TempFolder folder;
  const std::ptrdiff_t before = openFiles();
  for (const std::string& contents : {fullImage(), fullText(), fullImage() + "x", std::string("x"),
                                      std::string("not a model"), std::string("MLNN")}) {
    const std::string path = folder.write("model", contents);
    MultiLayerNNModel model;
    stderrOf([&] { model.deserialize(path.c_str()); });
    EXPECT_EQ(openFiles(), before);
  }
}

// What is open cannot be removed on Windows.
TEST(MultiLayerNNModelLoad, fileCanBeRemovedAfterEveryPath) {
  const TempFolder folder;
  for (const std::string& contents :
       {fullImage(), fullText(), fullImage() + "x", std::string("x")}) {
    const std::string path = folder.write("model", contents);
    MultiLayerNNModel model;
    stderrOf([&] { model.deserialize(path.c_str()); });
    std::error_code error;
    EXPECT_TRUE(std::filesystem::remove(path, error)) << error.message();
  }
}

// --- Position in the stream ---

TEST(MultiLayerNNModelLoad, readingStartsAtTheFirstByteWhereverTheStreamStands) {
  std::istringstream text(fullText());
  text.seekg(30);
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(text), 0); }), kTextInfo);

  // The four bytes at the stream's position decide about the format, the image is all of it.
  std::istringstream image("xxxxMLNN" + fullImage());
  image.seekg(4);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(image), 1); }),
            kBinary + "could not find header 'MLNN'\n");

  std::istringstream same(fullImage() + "MLNN");
  same.seekg(-4, std::ios::end);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(same), 1); }),
            kInfo + kBinary + "problem deserializing model\n");
}

TEST(MultiLayerNNModelLoad, streamStandsAtItsEndAfterAnImage) {
  std::istringstream stream(fullImage());
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 0); }), kInfo);
  EXPECT_EQ(std::size_t(stream.tellg()), fullImage().size());
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); }), kNoHeader);
}

TEST(MultiLayerNNModelLoad, failedStreamIsRefused) {
  std::istringstream stream(fullImage());
  stream.setstate(std::ios::failbit);
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); }), kNoTextModel);
}

// --- Streams that cannot do everything ---

// Gives out its bytes once, as a pipe does; seeks only as `end` lets it.
class OddBuffer : public std::streambuf {
 public:
  explicit OddBuffer(std::string bytes, std::streamoff end = -1)
      : bytes_(std::move(bytes)), end_(end) {
    setg(bytes_.data(), bytes_.data(), bytes_.data() + bytes_.size());
  }

 private:
  // Claims to end at `end`; -1 means that it cannot seek at all.
  pos_type seekoff(off_type, std::ios_base::seekdir, std::ios_base::openmode) override {
    return end_;
  }
  pos_type seekpos(pos_type position, std::ios_base::openmode) override {
    if (end_ < 0) return pos_type(off_type(-1));
    setg(bytes_.data(), bytes_.data() + std::streamoff(position), egptr());
    return position;
  }

  std::string bytes_;
  std::streamoff end_;
};

TEST(MultiLayerNNModelLoad, imageFromAPipeIsRefused) {
  OddBuffer buffer(fullImage());
  std::istream stream(&buffer);
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); }),
            "ERROR: MultiLayerNNModel: could not tell the length of the stream\n");
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelLoad, textFromAPipeIsRefused) {
  OddBuffer buffer(fullText());
  std::istream stream(&buffer);
  MultiLayerNNModel model;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); }), kNoTextModel);
}

TEST(MultiLayerNNModelLoad, imageLongerThanAnIntIsRefusedUnread) {
  OddBuffer buffer(fullImage(), std::streamoff{std::numeric_limits<int>::max()} + 1);
  std::istream stream(&buffer);
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] {
              const mlnn::test::AllocationWatch watch;
              EXPECT_EQ(model.deserialize(stream), 1);
              EXPECT_LE(watch.largest(), 1000u);
            }),
            "ERROR: MultiLayerNNModel: model is too large for a binary image\n");
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelLoad, streamThatEndsBeforeItsLengthIsRefused) {
  const auto length = static_cast<std::streamoff>(fullImage().size());
  OddBuffer buffer(fullImage(), length + 5);
  std::istream stream(&buffer);
  MultiLayerNNModel model = fullModel();
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); }),
            "ERROR: MultiLayerNNModel: stream ended after " + std::to_string(length) + " of " +
                std::to_string(length + 5) + " bytes\n");
  EXPECT_TRUE(sameModel(model, fullModel()));
}

// A layer whose weights are codes of half a byte and a scale for each row.
NNLayer quantizedLayer(int inputs, int outputs) {
  MultiLayerNNModel model = modelOf({plainLayer(inputs, outputs)});
  EXPECT_EQ(mlnn::quantizeRows(model, {4}), 0);
  return *model.layers[0];
}

// A layer of 17 different weights, of which the one that is rarest has no code of its own.
NNLayer rareValueLayer(int inputs, int outputs) {
  NNLayer layer = fewValuesLayer(inputs, outputs, 16);
  layer.weights(0, 0) = 1234;
  layer.weights(outputs - 1, inputs - 1) = 1234;
  return layer;
}

// An image with weights of every form.
MultiLayerNNModel codedModel() {
  MultiLayerNNModel model =
      modelOf({plainLayer(3, 2), fewValuesLayer(2, 40, 5), fewValuesLayer(40, 1, 5),
               fewValuesLayer(1, 60, 5), fewValuesLayer(60, 50, 5), quantizedLayer(50, 32),
               fewValuesLayer(32, 70, 20)});
  model.deltasNorm.allocIfNeeded();
  return model;
}

constexpr std::size_t kHeadLength = 1004;

TEST(MultiLayerNNModelLoad, streamMayEndAnywhereBeforeItsLength) {
  const std::string image = ByteImage::of(codedModel()).bytes();
  ASSERT_GT(image.size(), kHeadLength);
  const auto length = static_cast<std::streamoff>(image.size());
  for (std::size_t there = kHeadLength - 1; there < image.size(); ++there) {
    OddBuffer buffer(image.substr(0, there), length);
    std::istream stream(&buffer);
    MultiLayerNNModel model = fullModel();
    ASSERT_EQ(stderrOf([&] { EXPECT_EQ(model.deserialize(stream), 1); }),
              "ERROR: MultiLayerNNModel: stream ended after " + std::to_string(there) + " of " +
                  std::to_string(length) + " bytes\n");
    ASSERT_TRUE(sameModel(model, fullModel())) << there;
  }
}

TEST(MultiLayerNNModelLoad, everyCutImageIsRefusedAsFromMemory) {
  ByteImage image = ByteImage::of(codedModel());
  ASSERT_GT(image.size(), kHeadLength);
  for (std::size_t length = image.size() - 1; length >= kHeadLength - 1; --length) {
    image.truncateTo(length);
    MultiLayerNNModel fromMemory;
    MultiLayerNNModel fromStream;
    const std::string expected = stderrOf([&] { image.readInto(fromMemory); });
    std::istringstream stream(image.bytes());
    ASSERT_EQ(stderrOf([&] { EXPECT_EQ(fromStream.deserialize(stream), 1); }), expected) << length;
    ASSERT_TRUE(sameModel(fromStream, fromMemory)) << length;
  }
}

// Codes of half a byte are read to the end of the weights' memory, and make weights there.
TEST(MultiLayerNNModelLoad, codesOfHalfAByteComeBackToTheBitFromAStream) {
  for (const auto& [inputs, outputs] : {std::pair{1000, 1},
                                        {999, 1},
                                        {33, 77},
                                        {64, 64},
                                        {107, 16},
                                        {109, 15},
                                        {7, 500},
                                        {8, 512},
                                        {2000, 33},
                                        {4000, 16}}) {
    MultiLayerNNModel model =
        modelOf({fewValuesLayer(inputs, outputs, 16), fewValuesLayer(inputs, outputs, 3),
                 rareValueLayer(inputs, outputs), quantizedLayer(inputs, outputs)});
    model.deltasNorm.allocIfNeeded();
    std::istringstream stream(ByteImage::of(model).bytes());
    MultiLayerNNModel read;
    stderrOf([&] { EXPECT_EQ(read.deserialize(stream), 0); });
    EXPECT_TRUE(sameLayers(read, model)) << inputs << " x " << outputs;
  }
}

TEST(MultiLayerNNModelLoad, everyChangedCodeIsRefusedAsFromMemory) {
  MultiLayerNNModel model = modelOf({rareValueLayer(50, 40), quantizedLayer(40, 32)});
  model.deltasNorm.allocIfNeeded();
  ByteImage image = ByteImage::of(model);
  for (std::size_t bit = 8 * kHeadLength; bit < 8 * image.size(); bit += 3) {
    image.flipBit(bit);
    MultiLayerNNModel fromMemory;
    MultiLayerNNModel fromStream;
    const std::string expected = stderrOf([&] { image.readInto(fromMemory); });
    std::istringstream stream(image.bytes());
    ASSERT_EQ(stderrOf([&] { EXPECT_EQ(fromStream.deserialize(stream), 1); }), expected) << bit;
    image.flipBit(bit);
  }
}

// --- Memory ---

struct Shape {
  const char* name;
  int layers;
  NNLayer layer;
  double bytesPerByte = 8;  // that reading may take, besides 1 MiB
};

void PrintTo(const Shape& shape, std::ostream* out) { *out << shape.name; }

// A layer whose every array has one value, which takes an allocation.
NNLayer smallestFoldedLayer() { return mlnn::test::foldedLayer(1, 1); }

class MultiLayerNNModelLoadMemory : public ::testing::TestWithParam<Shape> {};

TEST_P(MultiLayerNNModelLoadMemory, isInProportionToTheImage) {
  const Shape& shape = GetParam();
  MultiLayerNNModel written =
      modelOf(std::vector<NNLayer>(static_cast<std::size_t>(shape.layers), shape.layer));
  written.deltasNorm.allocIfNeeded();
  const std::string image = ByteImage::of(written).bytes();
  constexpr double kMiB = 1 << 20;
  ASSERT_GT(image.size(), kMiB);
  const double allowed = shape.bytesPerByte * double(image.size()) + kMiB;
  std::istringstream stream(image);
  MultiLayerNNModel fromStream;
  MultiLayerNNModel fromMemory;
  stderrOf([&] {
    const AllocationWatch watch;
    EXPECT_EQ(fromStream.deserialize(stream), 0);
    EXPECT_LE(double(watch.peak()), allowed) << double(watch.peak()) / double(image.size());
  });
  stderrOf([&] {
    const AllocationWatch watch;
    EXPECT_EQ(fromMemory.deserializeBinary(image.data(), unsigned(image.size())),
              int(image.size()));
    EXPECT_LE(double(watch.peak()), allowed) << double(watch.peak()) / double(image.size());
  });
  EXPECT_TRUE(sameLayers(fromStream, written));
}

INSTANTIATE_TEST_SUITE_P(
    Image, MultiLayerNNModelLoadMemory,
    testing::Values(Shape{"empty", 100000, NNLayer()}, Shape{"floats", 1, plainLayer(700, 1000)},
                    Shape{"row_codes", 1, fewValuesLayer(3000, 1000, 200)},
                    Shape{"half_byte_codes", 1, fewValuesLayer(5000, 1000, 16)},
                    Shape{"half_byte_codes_and_a_rare_value", 1, rareValueLayer(3000, 1000)},
                    Shape{"half_byte_codes_by_rows", 1, quantizedLayer(4000, 1000)},
                    Shape{"half_byte_codes_of_few_rows", 1, quantizedLayer(200000, 16)},
                    Shape{"half_byte_codes_of_few_columns", 1, quantizedLayer(8, 200000)},
                    Shape{"one_value_an_array", 40000, smallestFoldedLayer(), 12}),
    [](const auto& instance) { return instance.param.name; });

// --- After a failure ---

TEST(MultiLayerNNModelLoad, modelCanBeLoadedAgainAfterAnyFailure) {
  const std::string broken[] = {
      fullImage().substr(0, fullImage().size() - 1), fullImage() + "x",
      fullText().substr(0, fullText().size() - 9),
      "MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 4\nlayer 1 size 2 2\nact_fn none\n"};
  for (const std::string& first : broken) {
    for (const std::string& second : {fullImage(), fullText()}) {
      MultiLayerNNModel model;
      std::istringstream failing(first);
      std::istringstream whole(second);
      stderrOf([&] {
        EXPECT_EQ(model.deserialize(failing), 1);
        EXPECT_EQ(model.deserialize(whole), 0);
      });
      EXPECT_EQ(model.layers.size(), 3u);
      EXPECT_EQ(model.numInputs(), 4);
      EXPECT_EQ(model.numOutputs(), 2);
    }
  }
}

TEST(MultiLayerNNModelLoad, bufferIsFreedOnEveryPath) {
  for (const std::string& contents :
       {fullImage(), fullImage() + "x", fullImage().substr(0, 700), std::string("MLNN")}) {
    std::istringstream stream(contents);
    const mlnn::test::AllocationWatch watch;
    {
      const mlnn::test::CaptureStderr quiet;
      MultiLayerNNModel model;
      model.deserialize(stream);
    }
    EXPECT_EQ(watch.live(), 0);
  }
}

TEST(MultiLayerNNModelLoad, outOfMemoryPassesThroughWithoutALeak) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  std::size_t failures = 0;
  for (bool done = false; !done;) {
    std::istringstream stream(fullImage());
    const mlnn::test::AllocationWatch watch;
    {
      const mlnn::test::CaptureStderr quiet;
      MultiLayerNNModel model;
      const mlnn::test::FailingAllocation failure(failures);
      try {
        EXPECT_EQ(model.deserialize(stream), 0);
        done = true;
      } catch (const std::bad_alloc&) {
        ++failures;
      }
      EXPECT_EQ(failure.happened(), !done);
    }
    EXPECT_EQ(watch.live(), 0) << failures;
  }
  EXPECT_GE(failures, 20u);
}

}  // namespace
