// The binary image of a model.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <sstream>

#include "model/MultiLayerNNModel.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/SourceTree.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::VectorXf;
using mlnn::test::batchNormLayer;
using mlnn::test::ByteImage;
using mlnn::test::crc32c;
using mlnn::test::foldedLayer;
using mlnn::test::fullModel;
using mlnn::test::imageModel;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameDescription;
using mlnn::test::sameLayer;
using mlnn::test::sameLayers;
using mlnn::test::sameModel;
using mlnn::test::someValues;
using mlnn::test::sourcePath;
using mlnn::test::stderrOf;

constexpr int kHead = 1004;
constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
constexpr int32_t kMinInt = std::numeric_limits<int32_t>::min();

// Offsets of the head's fields.
constexpr std::size_t kChecksumAt = 4;
constexpr std::size_t kDescriptionSizeAt = 8;
constexpr std::size_t kDescriptionAt = 12;
constexpr std::size_t kMinvalsCountAt = 32;
constexpr std::size_t kMinvalsAt = 36;
constexpr std::size_t kNormvalsCountAt = 516;
constexpr std::size_t kNormvalsAt = 520;
constexpr std::size_t kLayerCountAt = 1000;

const std::string kPrefix = "ERROR: MultiLayerNNModel::deserializeBinary: ";
const std::string kProblem = kPrefix + "problem deserializing model\n";
// The information line about fullModel's description.
const std::string kInfo =
    "info: deserializeBinary: feature desc: "
    "mel_deltas:bands=0,left=5,right=6,deltas=1,line_kernels=1,line_kernel_width=9\n";

std::string shorterThanHead(std::size_t length) {
  return kPrefix + "image of " + std::to_string(length) +
         " bytes is shorter than its head (1004)\n";
}

std::string couldNotRead(int index) {
  return kPrefix + "could not read layer index: " + std::to_string(index) + "\n";
}

std::string invalidCount(int32_t count) {
  return kPrefix + "invalid layer count " + std::to_string(count) + "\n";
}

std::string checksumsDiffer(uint32_t stored, uint32_t computed) {
  return kPrefix + "checksums did not match (" + std::to_string(stored) +
         " != " + std::to_string(computed) + ")\n";
}

// Reads the image into the model and expects this result and these messages.
void expectRead(const ByteImage& image, MultiLayerNNModel& model, int result,
                const std::string& messages) {
  int actual = -2;
  EXPECT_EQ(stderrOf([&] { actual = image.readInto(model); }), messages);
  EXPECT_EQ(actual, result);
}

// A model that an image is read into: every member differs from what the image brings.
MultiLayerNNModel oldModel() {
  MultiLayerNNModel model = modelOf({plainLayer(9, 8, 21), batchNormLayer(8, 7, 22),
                                     foldedLayer(7, 6, 23), plainLayer(6, 5, 24)});
  model.featureDesc.numBands = 77;
  model.loss = {1};
  model.accuracy = {2};
  model.props = {{"old", "prop"}};
  model.notes.lines = {"old note"};
  model.deltasNorm.minvals = someValues(120, 1, 25);
  model.deltasNorm.normvals = someValues(120, 1, 26);
  return model;
}

ByteImage fullImage() { return ByteImage::of(fullModel()); }

// An image without layers.
ByteImage emptyImage() {
  MultiLayerNNModel model = fullModel();
  model.deleteLayers(3);
  return ByteImage::of(model);
}

std::size_t recordLength(const NNLayer& layer) { return ByteImage::of(layer).size(); }

// --- Length, checksum, writer ---

TEST(MultiLayerNNModelImage, lengthIsHeadArraysAndRecords) {
  MultiLayerNNModel model;
  EXPECT_EQ(model.binarySerializedLength(), 44);
  model.deltasNorm.minvals.resize(3);
  EXPECT_EQ(model.binarySerializedLength(), 44 + 4 * 3);
  model.deltasNorm.normvals.resize(5);
  EXPECT_EQ(model.binarySerializedLength(), 44 + 4 * 8);
  model.deltasNorm = fullModel().deltasNorm;
  EXPECT_EQ(model.binarySerializedLength(), kHead);

  std::size_t records = 0;
  const MultiLayerNNModel full = fullModel();
  for (const NNLayer* layer : full.layers) records += recordLength(*layer);
  EXPECT_EQ(full.binarySerializedLength(), kHead + static_cast<int>(records));
}

TEST(MultiLayerNNModelImage, checksumIsLayerCountPlusTheLayersChecksums) {
  EXPECT_EQ(MultiLayerNNModel().checksum(), 0u);
  const MultiLayerNNModel model = fullModel();
  uint32_t expected = 3;
  for (const NNLayer* layer : model.layers) expected += layer->checksum();
  EXPECT_EQ(model.checksum(), expected);
  static_assert(std::is_same_v<decltype(model.checksum()), uint32_t>);
}

TEST(MultiLayerNNModelImage, checksumWrapsModulo32Bits) {
  // Enough layers that the sum of any checksums near 2^31 passes 2^32.
  MultiLayerNNModel model = modelOf(std::vector<NNLayer>(20, batchNormLayer(3, 2)));
  const uint64_t sum = 20 + 20 * uint64_t{batchNormLayer(3, 2).checksum()};
  ASSERT_GT(sum, uint64_t{1} << 32);
  EXPECT_EQ(model.checksum(), static_cast<uint32_t>(sum));
}

TEST(MultiLayerNNModelImage, checksumCoversTheStackAlone) {
  MultiLayerNNModel model = fullModel();
  const uint32_t checksum = model.checksum();
  model.featureDesc.numBands += 1;
  model.loss.clear();
  model.accuracy.clear();
  model.props.clear();
  model.notes.lines.clear();
  model.deltasNorm = MelDeltasNorm();
  model.useSoftmax = !model.useSoftmax;
  EXPECT_EQ(model.checksum(), checksum);
  model.layers[1]->beta[0] += 1;
  EXPECT_NE(model.checksum(), checksum);
}

TEST(MultiLayerNNModelImage, headStandsAtItsOffsets) {
  const MultiLayerNNModel model = fullModel();
  const ByteImage image = ByteImage::of(model);
  EXPECT_EQ(image.bytes().substr(0, 4), "MLNN");
  EXPECT_EQ(image.uint32At(kChecksumAt), model.checksum());
  EXPECT_EQ(image.int32At(kDescriptionSizeAt), 20);
  EXPECT_EQ(std::memcmp(image.bytes().data() + kDescriptionAt, &model.featureDesc, 20), 0);
  EXPECT_EQ(image.int32At(kMinvalsCountAt), 120);
  EXPECT_EQ(std::memcmp(image.bytes().data() + kMinvalsAt, model.deltasNorm.minvals.data(), 480),
            0);
  EXPECT_EQ(image.int32At(kNormvalsCountAt), 120);
  EXPECT_EQ(std::memcmp(image.bytes().data() + kNormvalsAt, model.deltasNorm.normvals.data(), 480),
            0);
  EXPECT_EQ(image.int32At(kLayerCountAt), 3);
}

TEST(MultiLayerNNModelImage, recordsFollowBackToBackWithoutATrailer) {
  const MultiLayerNNModel model = fullModel();
  std::string records;
  for (const NNLayer* layer : model.layers) records += ByteImage::of(*layer).bytes();
  EXPECT_EQ(ByteImage::of(model).bytes().substr(kHead), records);
}

TEST(MultiLayerNNModelImage, otherNumbersOfNormalisationValuesMoveWhatFollows) {
  MultiLayerNNModel model = fullModel();
  model.deltasNorm.minvals = VectorXf::Constant(1, 1.0f);
  model.deltasNorm.normvals = VectorXf::Constant(2, -2.0f);
  const std::string full = fullImage().bytes();
  EXPECT_EQ(ByteImage::of(model).bytes(),
            full.substr(0, kMinvalsCountAt) +
                ByteImage::fromHex("01 00 00 00  00 00 80 3f\n"
                                   "02 00 00 00  00 00 00 c0 00 00 00 c0")
                    .bytes() +
                full.substr(kLayerCountAt));
  model.deltasNorm = MelDeltasNorm();
  EXPECT_EQ(ByteImage::of(model).bytes(),
            full.substr(0, kMinvalsCountAt) + std::string(8, '\0') + full.substr(kLayerCountAt));
}

// The listing of the example in the description of the format.
std::string listingOfTheExample() {
  std::ifstream in(sourcePath("docs/binary-format.md"));
  const std::string page{std::istreambuf_iterator<char>(in), {}};
  const std::string fence = "```\n";
  const std::size_t begin = page.find(fence, page.find("## Example")) + fence.size();
  return page.substr(begin, page.find(fence, begin) - begin);
}

TEST(MultiLayerNNModelImage, exampleOfTheDocumentationIsExact) {
  MultiLayerNNModel model = modelOf({NNLayer(2, 1, false)});
  model.layers[0]->weights << 2, -3;
  model.layers[0]->bias << 0.5f;
  model.layers[0]->actFn = ActFn::relu;
  model.featureDesc.winSizeRight = 1;
  model.featureDesc.numBands = 1;
  model.deltasNorm.allocIfNeeded();
  const ByteImage example = ByteImage::fromHex(listingOfTheExample());
  EXPECT_EQ(example.size(), 1056u);
  EXPECT_EQ(ByteImage::of(model).bytes(), example.bytes());
}

TEST(MultiLayerNNModelImage, writerReturnsTheLengthAndTouchesNothingBehindIt) {
  const MultiLayerNNModel model = fullModel();
  const int length = model.binarySerializedLength();
  std::string buffer(static_cast<std::size_t>(length) + 8, '\x5A');
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.serializeBinary(buffer.data()), length); }), "");
  EXPECT_EQ(buffer.substr(static_cast<std::size_t>(length)), std::string(8, '\x5A'));
  EXPECT_TRUE(sameModel(model, fullModel()));
}

TEST(MultiLayerNNModelImage, writerDoesNotNeedAnAlignedBuffer) {
  std::string buffer(fullImage().size() + 1, '\0');
  fullModel().serializeBinary(buffer.data() + 1);
  EXPECT_EQ(buffer.substr(1), fullImage().bytes());
}

TEST(MultiLayerNNModelImage, modelThatIsTooLargeIsRefused) {
  if (sizeof(void*) == 4) GTEST_SKIP() << "no room for such a model";
  const std::string message = "ERROR: MultiLayerNNModel: model is too large for a binary image\n";
  const auto expectRefused = [&](const MultiLayerNNModel& model) {
    char untouched = '\x5A';
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.binarySerializedLength(), -1); }), message);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(model.serializeBinary(&untouched), -1); }), message);
    EXPECT_EQ(untouched, '\x5A');
  };
  // Few of the values are touched, so hardly any memory is behind them.
  const auto resize = [](NNLayer* layer, int rows, int cols) {
    *layer = mlnn::test::untouchedLayer(rows, cols);
  };
  MultiLayerNNModel one = modelOf({NNLayer()});
  resize(one.layers[0], 1 << 15, 1 << 14);
  expectRefused(one);
  MultiLayerNNModel two = modelOf({NNLayer(), NNLayer()});
  for (NNLayer* layer : two.layers) resize(layer, 1 << 14, 1 << 14);
  expectRefused(two);
  // 44 + 40 + 4 n bytes: the largest n that fits, and one more.
  MultiLayerNNModel border = modelOf({NNLayer()});
  resize(border.layers[0], (kMaxInt - 84) / 4, 1);
  EXPECT_EQ(border.binarySerializedLength(), kMaxInt - 3);
  resize(border.layers[0], (kMaxInt - 84) / 4 + 1, 1);
  expectRefused(border);
}

// --- Round trip ---

TEST(MultiLayerNNModelImageReader, restoresDescriptionNormalisationAndLayers) {
  MultiLayerNNModel model;
  const ByteImage image = fullImage();
  expectRead(image, model, static_cast<int>(image.size()), kInfo);
  MultiLayerNNModel expected = imageModel();
  expected.featureDesc = fullModel().featureDesc;
  EXPECT_TRUE(sameModel(model, expected));
  EXPECT_EQ(ByteImage::of(model).bytes(), image.bytes());
}

TEST(MultiLayerNNModelImageReader, keepsAllElseOfTheModel) {
  MultiLayerNNModel model = oldModel();
  model.useSoftmax = false;
  expectRead(fullImage(), model, static_cast<int>(fullImage().size()), kInfo);
  MultiLayerNNModel expected = imageModel();
  expected.featureDesc = fullModel().featureDesc;
  expected.useSoftmax = false;
  expected.loss = {1};
  expected.accuracy = {2};
  expected.props = {{"old", "prop"}};
  expected.notes.lines = {"old note"};
  EXPECT_TRUE(sameModel(model, expected));
}

TEST(MultiLayerNNModelImageReader, modelWithoutLayersTakes1004Bytes) {
  const ByteImage image = emptyImage();
  EXPECT_EQ(image.size(), std::size_t{kHead});
  EXPECT_EQ(image.uint32At(kChecksumAt), 0u);
  EXPECT_EQ(image.int32At(kLayerCountAt), 0);
  MultiLayerNNModel model = oldModel();
  expectRead(image, model, kHead, kInfo);
  EXPECT_TRUE(model.layers.empty());
}

TEST(MultiLayerNNModelImageReader, bitsOfEveryFloatSurvive) {
  const uint32_t patterns[] = {0x80000000, 0x00000001, 0x7F800001, 0xFFC12345, 0x7F800000};
  MultiLayerNNModel written = modelOf({NNLayer(5, 1, false)});
  written.deltasNorm.allocIfNeeded();
  for (float* values : {written.layers[0]->weights.data(), written.deltasNorm.minvals.data(),
                        written.deltasNorm.normvals.data()}) {
    std::memcpy(values, patterns, sizeof patterns);
  }
  MultiLayerNNModel read;
  stderrOf([&] { EXPECT_EQ(ByteImage::of(written).readInto(read), kHead + 40 + 24); });
  EXPECT_TRUE(sameModel(read, written));
}

TEST(MultiLayerNNModelImageReader, keepsLayerObjectsAndFreesOrMakesTheRest) {
  for (const std::size_t count : {0u, 1u, 3u, 5u}) {
    MultiLayerNNModel model = modelOf(std::vector<NNLayer>(count, batchNormLayer(7, 6, 8)));
    const std::vector<NNLayer*> before = model.layers;
    stderrOf([&] { EXPECT_GT(fullImage().readInto(model), 0); });
    EXPECT_TRUE(sameLayers(model, fullModel())) << count;
    for (std::size_t i = 0; i < std::min<std::size_t>(count, 3); ++i) {
      EXPECT_EQ(model.layers[i], before[i]) << count;
    }
  }
}

TEST(MultiLayerNNModelImageReader, surplusLayersAreFreed) {
  MultiLayerNNModel model = oldModel();
  const std::string bytes = emptyImage().bytes();
  const mlnn::test::AllocationWatch watch;
  stderrOf([&] { model.deserializeBinary(bytes.data(), kHead); });
  EXPECT_LE(watch.live(), -4 * 3);  // four layers, each with two arrays at least
}

TEST(MultiLayerNNModelImageReader, imageNeedNotBeAligned) {
  const std::string shifted = "x" + fullImage().bytes();
  MultiLayerNNModel model;
  stderrOf([&] {
    EXPECT_EQ(
        model.deserializeBinary(shifted.data() + 1, static_cast<unsigned int>(shifted.size() - 1)),
        static_cast<int>(shifted.size() - 1));
  });
  EXPECT_TRUE(sameLayers(model, fullModel()));
}

TEST(MultiLayerNNModelImageReader, missingLayersAreMadeAgain) {
  MultiLayerNNModel model;
  std::istringstream text("MultiLayerNNModel_v2\nsoftmax 1\nnum_layers 3\nwrong\n");
  stderrOf([&] { EXPECT_EQ(model.deserializeAscii(text), 1); });
  ASSERT_EQ(model.layers, (std::vector<NNLayer*>{nullptr, nullptr, nullptr}));
  stderrOf([&] { EXPECT_GT(fullImage().readInto(model), 0); });
  EXPECT_TRUE(sameLayers(model, fullModel()));
}

TEST(MultiLayerNNModelImageReader, missingLayersThatNoRecordReachesAreMadeToo) {
  MultiLayerNNModel model;
  model.layers = {nullptr, nullptr};
  ByteImage image = emptyImage();
  image.setInt32At(kLayerCountAt, 2);
  const uint32_t computed = 2 + 2 * NNLayer().checksum();
  expectRead(image, model, -1, kInfo + checksumsDiffer(0, computed));
  EXPECT_TRUE(sameLayers(model, modelOf({NNLayer(), NNLayer()})));
}

TEST(MultiLayerNNModelImageReader, flagBytesAbove1AreTrue) {
  for (unsigned int byte = 2; byte <= 255; ++byte) {
    ByteImage image = emptyImage();
    const auto flag = static_cast<unsigned char>(byte);
    image.setByteAt(kDescriptionAt + 14, flag).setByteAt(kDescriptionAt + 15, flag);
    MultiLayerNNModel model;
    expectRead(image, model, kHead, kInfo);
    EXPECT_TRUE(sameDescription(model.featureDesc, fullModel().featureDesc)) << byte;
  }
}

TEST(MultiLayerNNModelImageReader, otherFeatureTypeIsTakenAndShownByItsNumber) {
  ByteImage image = emptyImage();
  image.setByteAt(kDescriptionAt + 12, 9);
  MultiLayerNNModel model;
  expectRead(image, model, kHead,
             "info: deserializeBinary: feature desc: "
             "type_9:bands=0,left=5,right=6,deltas=1,line_kernels=1,line_kernel_width=9\n");
  EXPECT_EQ(model.featureDesc.featType, 9);
}

// --- Refusals before anything changes ---

TEST(MultiLayerNNModelImageRefusal, below8BytesThereIsNoMessage) {
  for (std::size_t length = 0; length < 8; ++length) {
    for (ByteImage image : {fullImage(), ByteImage("????????")}) {
      MultiLayerNNModel model = oldModel();
      expectRead(image.truncateTo(length), model, -1, "");
      EXPECT_TRUE(sameModel(model, oldModel()));
    }
  }
}

TEST(MultiLayerNNModelImageRefusal, wrongMagic) {
  for (const char* magic : {"mlnn", "MLNm", "xLNN", "NNLM"}) {
    for (const std::size_t length : {std::size_t{8}, std::size_t{kHead}, fullImage().size()}) {
      const ByteImage image(magic + fullImage().bytes().substr(4, length - 4));
      MultiLayerNNModel model = oldModel();
      expectRead(image, model, -1, kPrefix + "could not find header 'MLNN'\n");
      EXPECT_TRUE(sameModel(model, oldModel()));
    }
  }
}

TEST(MultiLayerNNModelImageRefusal, wrongSizeOfTheDescription) {
  for (const int32_t size : {0, 19, 21, 24, -20, kMinInt, kMaxInt, 20 << 8}) {
    for (const std::size_t length : {std::size_t{12}, fullImage().size()}) {
      ByteImage image = fullImage();
      image.setInt32At(kDescriptionSizeAt, size).truncateTo(length);
      MultiLayerNNModel model = oldModel();
      expectRead(image, model, -1,
                 "ERROR: deserializeBinary: sizeof feature description in model (" +
                     std::to_string(size) + ") does not match current size (20)\n");
      EXPECT_TRUE(sameModel(model, oldModel()));
    }
  }
}

// --- Refusals in the normalisation ---

constexpr int32_t kWrongCounts[] = {0, 119, 121, -120, kMinInt, kMaxInt};

std::string wrongArray(const std::string& which, int32_t count) {
  return kInfo + "ERRROR: deserializeBinary: deltas " + which + " length (" +
         std::to_string(count) + ") does not match expected length (120)\n";
}

TEST(MultiLayerNNModelImageRefusal, wrongMinvalsCountLeavesTheDescriptionReplaced) {
  for (const int32_t count : kWrongCounts) {
    for (const std::size_t length : {std::size_t{36}, fullImage().size()}) {
      ByteImage image = fullImage();
      image.setInt32At(kMinvalsCountAt, count).truncateTo(length);
      MultiLayerNNModel model = oldModel();
      expectRead(image, model, -1, wrongArray("min", count));
      MultiLayerNNModel expected = oldModel();
      expected.featureDesc = fullModel().featureDesc;
      EXPECT_TRUE(sameModel(model, expected));
    }
  }
}

TEST(MultiLayerNNModelImageRefusal, wrongMinvalsCountAllocatesNoArrays) {
  MultiLayerNNModel model;
  expectRead(fullImage().setInt32At(kMinvalsCountAt, 0), model, -1, wrongArray("min", 0));
  EXPECT_EQ(model.deltasNorm.minvals.size(), 0);
  EXPECT_EQ(model.deltasNorm.normvals.size(), 0);
}

TEST(MultiLayerNNModelImageRefusal, wrongNormvalsCountLeavesMinvalsReplaced) {
  for (const int32_t count : kWrongCounts) {
    for (const std::size_t length : {std::size_t{520}, fullImage().size()}) {
      ByteImage image = fullImage();
      image.setInt32At(kNormvalsCountAt, count).truncateTo(length);
      MultiLayerNNModel model = oldModel();
      expectRead(image, model, -1, wrongArray("norm", count));
      MultiLayerNNModel expected = oldModel();
      expected.featureDesc = fullModel().featureDesc;
      expected.deltasNorm.minvals = fullModel().deltasNorm.minvals;
      EXPECT_TRUE(sameModel(model, expected));
    }
  }
}

TEST(MultiLayerNNModelImageRefusal, wrongNormvalsCountLeavesFreshNormvalsInANewModel) {
  MultiLayerNNModel model;
  expectRead(fullImage().setInt32At(kNormvalsCountAt, 7), model, -1, wrongArray("norm", 7));
  EXPECT_TRUE(sameBits(model.deltasNorm.minvals, fullModel().deltasNorm.minvals));
  EXPECT_TRUE(sameBits(model.deltasNorm.normvals, Eigen::VectorXf::Ones(120)));
  EXPECT_TRUE(model.layers.empty());
}

// The reader goes by its fixed offsets: a count of 0 does not move the next one.
TEST(MultiLayerNNModelImageRefusal, imageWithoutNormalisationIsRefused) {
  MultiLayerNNModel written = fullModel();
  written.deltasNorm = MelDeltasNorm();
  MultiLayerNNModel model;
  expectRead(ByteImage::of(written), model, -1, wrongArray("min", 0));
  EXPECT_TRUE(model.layers.empty());

  written.deltasNorm.minvals = fullModel().deltasNorm.minvals;
  expectRead(ByteImage::of(written), model, -1, wrongArray("norm", 0));
}

// --- Images that end within the head ---

// What the steps before the missing field have left in the model.
MultiLayerNNModel oldModelAfterHead(std::size_t length) {
  MultiLayerNNModel model = oldModel();
  if (length >= kMinvalsCountAt) model.featureDesc = fullModel().featureDesc;
  if (length >= kNormvalsCountAt) model.deltasNorm.minvals = fullModel().deltasNorm.minvals;
  if (length >= kLayerCountAt) model.deltasNorm.normvals = fullModel().deltasNorm.normvals;
  return model;
}

TEST(MultiLayerNNModelImageRefusal, everyLengthWithinTheHeadTellsSo) {
  for (std::size_t length = 8; length < kHead; ++length) {
    MultiLayerNNModel model = oldModel();
    const std::string info = length >= kMinvalsCountAt ? kInfo : "";
    expectRead(fullImage().truncateTo(length), model, -1, info + shorterThanHead(length));
    EXPECT_TRUE(sameModel(model, oldModelAfterHead(length))) << length;
  }
}

TEST(MultiLayerNNModelImageRefusal, fieldsArriveAtTheirExactLengths) {
  // One byte less than each field's end leaves the step before as the last one.
  const std::size_t ends[] = {12, 32, 36, 516, 520, 1000, 1004};
  for (const std::size_t end : ends) {
    MultiLayerNNModel model = oldModel();
    const std::string info = end - 1 >= kMinvalsCountAt ? kInfo : "";
    expectRead(fullImage().truncateTo(end - 1), model, -1, info + shorterThanHead(end - 1));
  }
}

TEST(MultiLayerNNModelImageRefusal, shortImageMakesNoArraysBeforeTheirValuesAreThere) {
  for (const std::size_t length : {std::size_t{36}, std::size_t{515}}) {
    MultiLayerNNModel model;
    expectRead(fullImage().truncateTo(length), model, -1, kInfo + shorterThanHead(length));
    EXPECT_EQ(model.deltasNorm.minvals.size(), 0);
    EXPECT_EQ(model.deltasNorm.normvals.size(), 0);
  }
}

// --- The layer count ---

TEST(MultiLayerNNModelLayerCount, negativeOrAbsurdIsRefusedBeforeTheStackChanges) {
  for (const int32_t count : {-1, -2, kMinInt, kMaxInt, 1 << 24, 100000, 3000}) {
    for (const ByteImage& original : {fullImage(), emptyImage()}) {
      ByteImage image = original;
      image.setInt32At(kLayerCountAt, count);
      MultiLayerNNModel model = oldModel();
      const std::vector<NNLayer*> before = model.layers;
      expectRead(image, model, -1, kInfo + invalidCount(count));
      EXPECT_EQ(model.layers, before);
      EXPECT_TRUE(sameModel(model, oldModelAfterHead(kHead)));
    }
  }
}

TEST(MultiLayerNNModelLayerCount, refusalTakesNoMemory) {
  const std::string bytes = emptyImage().setInt32At(kLayerCountAt, kMaxInt).bytes();
  MultiLayerNNModel model = oldModel();
  stderrOf([&] {
    const mlnn::test::AllocationWatch watch;
    EXPECT_EQ(model.deserializeBinary(bytes.data(), kHead), -1);
    EXPECT_LE(watch.largest(), 1000u);
  });
}

TEST(MultiLayerNNModelLayerCount, aFewTooManyAreLeftToTheChecksum) {
  for (const int32_t more : {1, 2, 100, 1023}) {
    // Behind the records that are there, the stack is filled with empty layers.
    ByteImage image = fullImage();
    const uint32_t stored = image.uint32At(kChecksumAt);
    image.setInt32At(kLayerCountAt, 3 + more);
    MultiLayerNNModel model;
    const auto added = static_cast<uint32_t>(more);
    expectRead(image, model, -1,
               kInfo + checksumsDiffer(stored, stored + added * (1 + NNLayer().checksum())));
    EXPECT_EQ(model.layers.size(), 3u + added);
    for (std::size_t i = 3; i < model.layers.size(); ++i) {
      EXPECT_TRUE(sameLayer(*model.layers[i], NNLayer()));
    }
  }
}

TEST(MultiLayerNNModelLayerCount, aFewTooManyAreAcceptedWhereTheChecksumCountsThem) {
  ByteImage image = emptyImage();
  const uint32_t checksum = 1023 + 1023 * NNLayer().checksum();
  image.setInt32At(kLayerCountAt, 1023).setInt32At(kChecksumAt, static_cast<int32_t>(checksum));
  MultiLayerNNModel model;
  expectRead(image, model, kHead, kInfo);
  EXPECT_EQ(model.layers.size(), 1023u);
}

// Layers that no record reaches keep what they held.
TEST(MultiLayerNNModelLayerCount, layersBehindTheRecordsKeepTheirContents) {
  ByteImage image = fullImage();
  image.setInt32At(kLayerCountAt, 4);
  const uint32_t stored = image.uint32At(kChecksumAt);
  const uint32_t computed = stored + 1 + oldModel().layers[3]->checksum();
  MultiLayerNNModel model = oldModel();
  expectRead(image, model, -1, kInfo + checksumsDiffer(stored, computed));
  EXPECT_TRUE(sameLayer(*model.layers[3], *oldModel().layers[3]));
  EXPECT_TRUE(sameLayer(*model.layers[2], *fullModel().layers[2]));

  image.setInt32At(kChecksumAt, static_cast<int32_t>(computed));
  model = oldModel();
  expectRead(image, model, static_cast<int>(image.size()), kInfo);
}

TEST(MultiLayerNNModelLayerCount, headAloneWithLayersAnnouncedReadsNone) {
  ByteImage image = fullImage();
  image.truncateTo(kHead);
  MultiLayerNNModel model = oldModel();
  uint32_t computed = 3;
  for (std::size_t i = 0; i < 3; ++i) computed += oldModel().layers[i]->checksum();
  expectRead(image, model, -1, kInfo + checksumsDiffer(image.uint32At(kChecksumAt), computed));
  MultiLayerNNModel expected = oldModelAfterHead(kHead);
  expected.deleteLayers(1);
  EXPECT_TRUE(sameModel(model, expected));
}

TEST(MultiLayerNNModelLayerCount, fewerThanTheRecordsLeavesTrailingBytes) {
  ByteImage image = fullImage();
  const uint32_t stored = image.uint32At(kChecksumAt);
  image.setInt32At(kLayerCountAt, 2);
  const MultiLayerNNModel full = fullModel();
  MultiLayerNNModel model = oldModel();
  expectRead(image, model, -1,
             kInfo + kProblem + checksumsDiffer(stored, stored - 1 - full.layers[2]->checksum()));
  EXPECT_TRUE(sameLayers(model, modelOf({*full.layers[0], *full.layers[1]})));

  const int consumed =
      kHead + static_cast<int>(recordLength(*full.layers[0]) + recordLength(*full.layers[1]));
  expectRead(image.fixChecksum(), model, consumed, kInfo + kProblem);
}

// --- Records ---

TEST(MultiLayerNNModelRecords, damagedRecordIsNamedAndLaterLayersKeepTheirContents) {
  const MultiLayerNNModel full = fullModel();
  std::size_t offset = kHead;
  for (std::size_t index = 0; index < 3; ++index) {
    ByteImage image = fullImage();
    image.setInt32At(offset, 1);  // a form that no record has
    MultiLayerNNModel model = oldModel();
    expectRead(image, model, -1, kInfo + couldNotRead(static_cast<int>(index)));
    MultiLayerNNModel expected = oldModelAfterHead(kHead);
    expected.deleteLayers(1);
    for (std::size_t i = 0; i < index; ++i) *expected.layers[i] = *full.layers[i];
    EXPECT_TRUE(sameModel(model, expected)) << index;
    offset += recordLength(*full.layers[index]);
  }
}

TEST(MultiLayerNNModelRecords, damagedRecordInANewModelLeavesEmptyLayers) {
  MultiLayerNNModel model;
  expectRead(fullImage().setInt32At(kHead, 1), model, -1, kInfo + couldNotRead(0));
  EXPECT_TRUE(sameLayers(model, modelOf({NNLayer(), NNLayer(), NNLayer()})));
}

TEST(MultiLayerNNModelRecords, everyCutNamesTheRecordOrIsLeftToTheChecksum) {
  const MultiLayerNNModel full = fullModel();
  std::size_t start = kHead;
  uint32_t computed = 3 + 3 * NNLayer().checksum();
  for (std::size_t index = 0; index < 3; ++index) {
    // Exactly between two records: no warning, and the checksum decides.
    ByteImage image = fullImage();
    const uint32_t stored = image.uint32At(kChecksumAt);
    image.truncateTo(start);
    MultiLayerNNModel between;
    expectRead(image, between, -1, kInfo + checksumsDiffer(stored, computed));
    EXPECT_EQ(between.layers.size(), 3u);
    image.setInt32At(kChecksumAt, static_cast<int32_t>(computed));
    expectRead(image, between, static_cast<int>(start), kInfo);

    const std::size_t end = start + recordLength(*full.layers[index]);
    for (std::size_t length = start + 1; length < end; ++length) {
      MultiLayerNNModel within;
      expectRead(fullImage().truncateTo(length), within, -1,
                 kInfo + couldNotRead(static_cast<int>(index)));
    }
    computed += full.layers[index]->checksum() - NNLayer().checksum();
    start = end;
  }
}

TEST(MultiLayerNNModelRecords, trailingBytesAreWarnedOfAndNotCounted) {
  for (const std::size_t more : {1u, 4u, 40u, 1000u}) {
    for (const ByteImage& original : {fullImage(), emptyImage()}) {
      ByteImage image = original;
      image.append(std::string(more, '\0'));
      MultiLayerNNModel model = oldModel();
      expectRead(image, model, static_cast<int>(original.size()), kInfo + kProblem);
    }
  }
}

TEST(MultiLayerNNModelRecords, warningComesBeforeTheChecksum) {
  ByteImage image = emptyImage();
  image.setInt32At(kChecksumAt, -1).append("x");
  MultiLayerNNModel model;
  expectRead(image, model, -1, kInfo + kProblem + checksumsDiffer(4294967295u, 0));
}

TEST(MultiLayerNNModelRecords, inconsistentStackIsRead) {
  MultiLayerNNModel written = imageModel();
  *written.layers[1] = plainLayer(9, 1);
  MultiLayerNNModel model;
  stderrOf([&] { EXPECT_GT(ByteImage::of(written).readInto(model), 0); });
  EXPECT_TRUE(sameLayers(model, written));
}

// --- Checksum test ---

TEST(MultiLayerNNModelImageChecksum, mismatchLeavesEverythingAsRead) {
  ByteImage image = fullImage();
  const uint32_t right = image.uint32At(kChecksumAt);
  image.setInt32At(kChecksumAt, static_cast<int32_t>(right + 1));
  MultiLayerNNModel model = oldModel();
  expectRead(image, model, -1, kInfo + checksumsDiffer(right + 1, right));
  MultiLayerNNModel expected = oldModelAfterHead(kHead);
  const MultiLayerNNModel layers = imageModel();
  expected.deleteLayers(1);
  for (std::size_t i = 0; i < 3; ++i) *expected.layers[i] = *layers.layers[i];
  EXPECT_TRUE(sameModel(model, expected));
}

TEST(MultiLayerNNModelImageChecksum, doesNotCoverDescriptionAndArrays) {
  for (const std::size_t offset :
       {kDescriptionAt + 16, kMinvalsAt, kMinvalsAt + 479, kNormvalsAt, kNormvalsAt + 479}) {
    ByteImage image = fullImage();
    image.flipBit(8 * offset);
    MultiLayerNNModel model;
    stderrOf([&] { EXPECT_EQ(image.readInto(model), static_cast<int>(image.size())); });
  }
}

TEST(MultiLayerNNModelImageChecksum, everyFlippedBitOfARecordIsRefused) {
  const ByteImage original = fullImage();
  MultiLayerNNModel model;
  stderrOf([&] {
    for (std::size_t bit = 8 * kHead; bit < 8 * original.size(); ++bit) {
      EXPECT_EQ(ByteImage(original).flipBit(bit).readInto(model), -1) << "bit " << bit;
    }
  });
}

TEST(MultiLayerNNModelImageChecksum, runsOfUpTo32BitsInTheRecordsAreRefused) {
  std::mt19937 random(1);
  const ByteImage original = fullImage();
  MultiLayerNNModel model;
  stderrOf([&] {
    for (int round = 0; round < 5000; ++round) {
      const std::size_t length = 2 + random() % 31;
      const std::size_t bits = 8 * (original.size() - kHead) - length + 1;
      const std::size_t start = 8 * std::size_t{kHead} + random() % bits;
      ByteImage damaged = original;
      damaged.flipBit(start).flipBit(start + length - 1);
      for (std::size_t bit = start + 1; bit + 1 < start + length; ++bit) {
        if (random() % 2 == 0) damaged.flipBit(bit);
      }
      ASSERT_EQ(damaged.readInto(model), -1) << "bits from " << start;
    }
  });
}

// --- Hostile images ---

TEST(MultiLayerNNModelHostileImage, anyDamagedImageIsReadWithoutHarm) {
  std::mt19937 random(2);
  const ByteImage original = fullImage();
  stderrOf([&] {
    for (int round = 0; round < 3000; ++round) {
      ByteImage image = original;
      for (std::size_t edits = 1 + random() % 4; edits > 0; --edits) {
        const std::size_t word = 4 * (random() % (image.size() / 4));
        const int32_t values[] = {static_cast<int32_t>(random()), 0, 1, -1, kMaxInt, kMinInt, 1024};
        image.setInt32At(word, values[random() % std::size(values)]);
      }
      image.truncateTo(random() % 4 == 0 ? random() % image.size() : image.size());
      MultiLayerNNModel model = round % 2 == 0 ? MultiLayerNNModel() : oldModel();
      const mlnn::test::GuardedBytes bytes(image.bytes());
      const mlnn::test::AllocationWatch watch;
      const int result =
          model.deserializeBinary(bytes.data(), static_cast<unsigned int>(image.size()));
      EXPECT_GE(result, -1);
      EXPECT_LE(result, static_cast<int>(image.size()));
      EXPECT_LE(watch.largest(), 64 * 1024u) << "round " << round;
      const MultiLayerNNModel copy(model);
    }
  });
}

// --- Out of memory ---

TEST(MultiLayerNNModelImageOutOfMemory, passesThroughAndLeavesAModelThatCanBeLoadedAgain) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const std::string bytes = fullImage().bytes();
  const auto length = static_cast<unsigned int>(bytes.size());
  std::size_t failures = 0;
  for (bool done = false; !done;) {
    const mlnn::test::AllocationWatch watch;
    mlnn::test::CaptureStderr quiet;
    {
      MultiLayerNNModel model;
      try {
        const mlnn::test::FailingAllocation failure(failures);
        model.deserializeBinary(bytes.data(), length);
        done = true;
        EXPECT_FALSE(failure.happened());
      } catch (const std::bad_alloc&) {
        ++failures;
        EXPECT_EQ(model.deserializeBinary(bytes.data(), length), static_cast<int>(length));
        EXPECT_TRUE(sameLayers(model, fullModel()));
      }
    }
    EXPECT_EQ(watch.live(), 0) << failures;
  }
  EXPECT_GE(failures, 20u);
}

}  // namespace
