#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <thread>

#include "inference/ImageFwdPass.h"
#include "model/ModelFormat.h"
#include "model/MultiLayerNNModel.h"
#include "model/RowQuantization.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using Eigen::Index;
using Eigen::MatrixXf;
using mlnn::ImageChecksum;
using mlnn::ImageFwdPass;
using mlnn::test::batchNormLayer;
using mlnn::test::ByteImage;
using mlnn::test::fewValuesLayer;
using mlnn::test::foldedLayer;
using mlnn::test::fullModel;
using mlnn::test::GuardedBytes;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameDescription;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

const std::string kPrefix = "ERROR: ImageFwdPass::evaluate: ";

// A model that an image can hold, of layers whose weights all have the stated number of values;
// 0 for all different.
MultiLayerNNModel network(const std::vector<int>& widths, int numValues) {
  std::vector<NNLayer> layers;
  for (std::size_t i = 1; i < widths.size(); ++i) {
    const auto seed = static_cast<uint32_t>(i);
    NNLayer layer = i % 3 == 0   ? batchNormLayer(widths[i - 1], widths[i], seed)
                    : i % 3 == 1 ? plainLayer(widths[i - 1], widths[i], seed)
                                 : foldedLayer(widths[i - 1], widths[i], seed);
    if (numValues > 0) layer.weights = fewValuesLayer(widths[i - 1], widths[i], numValues).weights;
    layers.push_back(layer);
  }
  MultiLayerNNModel model = modelOf(layers);
  model.deltasNorm.allocIfNeeded();
  model.setActFn(ActFn::sigmoid);
  return model;
}

// The outputs of the model that is loaded from the image.
MatrixXf byLoading(const ByteImage& image, const MatrixXf& inputs) {
  MultiLayerNNModel model;
  MatrixXf outputs;
  stderrOf([&] {
    EXPECT_EQ(image.readInto(model), static_cast<int>(image.size()));
    const std::unique_ptr<NNFwdPassFromFile> pass(model.createFwdPass());
    EXPECT_EQ(pass->evaluate(inputs, outputs), 0);
  });
  return outputs;
}

// Opens memory that must be accepted.
void openQuietly(ImageFwdPass& pass, const char* image, std::size_t length,
                 ImageChecksum checksum = ImageChecksum::kVerified) {
  stderrOf([&] { EXPECT_EQ(pass.open(image, length, checksum), 0); });
}

MatrixXf evaluated(ImageFwdPass& pass, const MatrixXf& inputs) {
  MatrixXf outputs;
  int result = -1;
  EXPECT_EQ(stderrOf([&] { result = pass.evaluate(inputs, outputs); }), "");
  EXPECT_EQ(result, 0);
  return outputs;
}

// --- Values ---

TEST(ImageFwdPassValues, areTheBitsOfTheLoadedModel) {
  const std::vector<int> shapes[] = {{1, 1},          {4, 3},           {3, 5, 2},
                                     {7, 1, 7, 1},    {17, 33, 9, 40},  {120, 64, 65, 10},
                                     {300, 200, 129}, {700, 97, 3, 130}};
  for (const std::vector<int>& widths : shapes) {
    for (const int numValues : {0, 2, 17, 50, 257}) {
      const MultiLayerNNModel model = network(widths, numValues);
      const ByteImage image = ByteImage::of(model);
      for (const Index frames : {1, 2, 9, 300}) {
        const MatrixXf inputs = someValues(widths.front(), frames, 77);
        const MatrixXf expected = byLoading(image, inputs);
        const GuardedBytes bytes(image.bytes());
        ImageFwdPass pass;
        openQuietly(pass, bytes.data(), image.size());
        EXPECT_TRUE(sameBits(evaluated(pass, inputs), expected))
            << model.debug_description() << ", " << numValues << " values, " << frames << " frames";
      }
    }
  }
}

// Layers that are unpacked in several blocks of rows, of which the last one is small.
TEST(ImageFwdPassValues, doNotDependOnHowCodesAreUnpacked) {
  for (const int rows : {63, 64, 65, 96, 97, 128, 129, 161, 500}) {
    const MultiLayerNNModel model = network({1500, rows}, 30);
    const ByteImage image = ByteImage::of(model);
    for (const Index frames : {1, 5}) {
      const MatrixXf inputs = someValues(1500, frames, 3);
      ImageFwdPass pass;
      openQuietly(pass, image.bytes().data(), image.size());
      EXPECT_TRUE(sameBits(evaluated(pass, inputs), byLoading(image, inputs))) << rows << " rows";
    }
  }
}

MultiLayerNNModel quantizedNetwork(const std::vector<int>& widths, int bits) {
  MultiLayerNNModel model = network(widths, 0);
  mlnn::RowQuantization options;
  options.bits = bits;
  EXPECT_EQ(mlnn::quantizeRows(model, options), 0);
  return model;
}

TEST(ImageFwdPassValues, areThoseOfTheModelWhereWeightsAreStoredByRows) {
  const std::vector<int> shapes[] = {{4, 3}, {17, 33, 9, 40}, {120, 64, 65, 10}, {700, 97, 3, 130}};
  for (const std::vector<int>& widths : shapes) {
    for (const int bits : {4, 8}) {
      const ByteImage image = ByteImage::of(quantizedNetwork(widths, bits));
      for (const Index frames : {1, 2, 9, 257}) {
        const MatrixXf inputs = someValues(widths.front(), frames, 77);
        const MatrixXf expected = byLoading(image, inputs);
        for (const std::size_t offset : {std::size_t{0}, std::size_t{1}}) {
          const GuardedBytes bytes(std::string(offset, ' ') + image.bytes());
          ImageFwdPass pass;
          openQuietly(pass, bytes.data() + offset, image.size());
          EXPECT_TRUE(sameBits(evaluated(pass, inputs), expected))
              << widths.size() << " widths, " << bits << " bits, " << frames << " frames";
        }
      }
    }
  }
}

// What a pass keeps for one frame.
void expectTheWidestLayerThreeTimes(const MultiLayerNNModel& model) {
  const ByteImage image = ByteImage::of(model);
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  const std::vector<int> widths = pass.widths();
  const auto widest = static_cast<std::size_t>(*std::max_element(widths.begin() + 1, widths.end()));
  const MatrixXf inputs = someValues(widths.front(), 1, 5);
  MatrixXf outputs(widths.back(), 1);
  const mlnn::test::AllocationWatch watch;
  EXPECT_EQ(pass.evaluate(inputs, outputs), 0);
  EXPECT_LE(watch.peak(), 3 * sizeof(float) * widest + 64);
}

TEST(ImageFwdPass, oneFrameTakesTheWidestLayerThreeTimes) {
  for (const std::vector<int>& widths :
       {std::vector<int>{600, 64, 48, 10}, {600, 256, 256, 256, 40}, {2048, 1000, 2048, 500}}) {
    for (const int bits : {4, 8}) expectTheWidestLayerThreeTimes(quantizedNetwork(widths, bits));
    for (const int numValues : {17, 100})
      expectTheWidestLayerThreeTimes(network(widths, numValues));
  }
}

// An image with a layer of every form.
ByteImage mixedImage() {
  MultiLayerNNModel model = modelOf({fewValuesLayer(8, 3, 2), fewValuesLayer(3, 30, 17),
                                     fewValuesLayer(30, 3, 18), batchNormLayer(3, 2)});
  model.deltasNorm.allocIfNeeded();
  return ByteImage::of(model);
}

// Layers in all forms of weights: one frame, and several.
TEST(ImageFwdPassPrepare, givesTheSameBits) {
  const ByteImage images[] = {ByteImage::of(quantizedNetwork({700, 97, 3, 130}, 8)),
                              ByteImage::of(quantizedNetwork({700, 97, 3, 130}, 4)),
                              ByteImage::of(network({700, 97, 3, 130}, 17)),
                              ByteImage::of(network({700, 97, 3, 130}, 257)), mixedImage()};
  for (const ByteImage& image : images) {
    for (const std::size_t most : {std::size_t{0}, std::size_t{2000}, ~std::size_t{0}}) {
      ImageFwdPass pass;
      openQuietly(pass, image.bytes().data(), image.size());
      const std::size_t made = pass.prepare(most);
      EXPECT_LE(made, most);
      EXPECT_EQ(pass.prepare(most), made) << "again";
      for (const Index frames : {1, 9}) {
        const MatrixXf inputs = someValues(pass.numInputs(), frames, 77);
        EXPECT_TRUE(sameBits(evaluated(pass, inputs), byLoading(image, inputs))) << most;
      }
    }
  }
}

TEST(ImageFwdPassPrepare, takesWholeLayersOfCodesThatFit) {
  constexpr std::size_t kFirst = 700 * 97 * sizeof(float);
  constexpr std::size_t kSecond = 97 * 60 * sizeof(float);
  const ByteImage reduced = ByteImage::of(network({700, 97, 60}, 100));
  ImageFwdPass pass;
  EXPECT_EQ(pass.prepare(~std::size_t{0}), 0u) << "without an image";
  openQuietly(pass, reduced.bytes().data(), reduced.size());
  EXPECT_EQ(pass.prepare(kSecond - 1), 0u);
  EXPECT_EQ(pass.prepare(kFirst - 1), kSecond);
  EXPECT_EQ(pass.prepare(kFirst + kSecond - 1), kSecond) << "with what there is already";
  EXPECT_EQ(pass.prepare(kFirst + kSecond), kFirst + kSecond);
  openQuietly(pass, reduced.bytes().data(), reduced.size());
  EXPECT_EQ(pass.prepare(kFirst), kFirst) << "of another image";
}

// In codes by rows, weights that stream through the caches are faster than as floats.
TEST(ImageFwdPassPrepare, leavesFloatsAndLargeLayersByRows) {
  ImageFwdPass pass;
  const ByteImage floats = ByteImage::of(network({90, 70}, 0));
  openQuietly(pass, floats.bytes().data(), floats.size());
  EXPECT_EQ(pass.prepare(~std::size_t{0}), 0u);
  const ByteImage byRows = ByteImage::of(quantizedNetwork({4100, 1024, 64}, 8));
  openQuietly(pass, byRows.bytes().data(), byRows.size());
  EXPECT_EQ(pass.prepare(~std::size_t{0}), 1024 * 64 * sizeof(float));
}

TEST(ImageFwdPassValues, doNotDependOnTheAddress) {
  for (const int numValues : {0, 17}) {
    const ByteImage image = ByteImage::of(network({90, 70, 40, 10}, numValues));
    const MatrixXf inputs = someValues(90, 7, 5);
    const MatrixXf expected = byLoading(image, inputs);
    for (std::size_t shift = 0; shift < 8; ++shift) {
      std::string moved(shift, '\0');
      moved += image.bytes();
      ImageFwdPass pass;
      openQuietly(pass, moved.data() + shift, image.size());
      EXPECT_TRUE(sameBits(evaluated(pass, inputs), expected)) << "shifted by " << shift;
    }
  }
}

TEST(ImageFwdPassValues, layersAreThoseOfTheLoadedModel) {
  for (const int numValues : {0, 30}) {
    const ByteImage image = ByteImage::of(network({90, 70, 40, 10}, numValues));
    MultiLayerNNModel model;
    stderrOf([&] { image.readInto(model); });
    const MatrixXf inputs = someValues(90, 3, 5);
    MatrixXf expectedOutputs;
    MatrixXf outputs;
    std::vector<mlnn::LayerResult> expected;
    std::vector<mlnn::LayerResult> found;
    NNFwdPassFromFile loaded(model);
    ASSERT_EQ(loaded.evaluateLayers(inputs, expectedOutputs, expected), 0);
    ImageFwdPass pass;
    openQuietly(pass, image.bytes().data(), image.size());
    ASSERT_EQ(pass.evaluateLayers(inputs, outputs, found), 0);
    EXPECT_TRUE(sameBits(outputs, expectedOutputs));
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
      EXPECT_TRUE(sameBits(found[i].affine, expected[i].affine));
      EXPECT_TRUE(sameBits(found[i].activated, expected[i].activated));
    }
  }
}

TEST(ImageFwdPassValues, softmaxIsWhatTheCallerSays) {
  MultiLayerNNModel model = network({9, 8, 7}, 0);
  const ByteImage image = ByteImage::of(model);
  const MatrixXf inputs = someValues(9, 2, 5);
  ImageFwdPass pass;
  pass.setSoftmax(false);
  openQuietly(pass, image.bytes().data(), image.size());
  model.useSoftmax = false;
  MatrixXf expected;
  NNFwdPassFromFile(model).evaluate(inputs, expected);
  EXPECT_TRUE(sameBits(evaluated(pass, inputs), expected));
  pass.setSoftmax(true);
  EXPECT_TRUE(sameBits(evaluated(pass, inputs), byLoading(image, inputs)));
}

TEST(ImageFwdPassValues, outputsMayReplaceTheInputs) {
  const ByteImage image = ByteImage::of(network({8, 20, 8}, 3));
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  MatrixXf values = someValues(8, 4, 5);
  const MatrixXf expected = byLoading(image, values);
  EXPECT_EQ(pass.evaluate(values, values), 0);
  EXPECT_TRUE(sameBits(values, expected));
}

// --- What it takes from the image ---

TEST(ImageFwdPass, givesDescriptionNormalisationAndWidths) {
  const ByteImage image = ByteImage::of(fullModel());
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  EXPECT_EQ(pass.numInputs(), 4);
  EXPECT_EQ(pass.numOutputs(), 2);
  EXPECT_EQ(pass.widths(), (std::vector<int>{4, 3, 5, 2}));
  EXPECT_TRUE(sameDescription(pass.featureDesc(), fullModel().featureDesc));
  EXPECT_TRUE(sameBits(pass.deltasNorm().minvals, fullModel().deltasNorm.minvals));
  EXPECT_TRUE(sameBits(pass.deltasNorm().normvals, fullModel().deltasNorm.normvals));
}

TEST(ImageFwdPass, withoutAnImageHasNoLayers) {
  ImageFwdPass pass;
  EXPECT_EQ(pass.numInputs(), 0);
  EXPECT_EQ(pass.numOutputs(), 0);
  EXPECT_TRUE(pass.widths().empty());
  MatrixXf outputs = someValues(2, 2, 1);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass.evaluate(someValues(4, 1, 1), outputs), 1); }),
            kPrefix + "model has no layers\n");
  EXPECT_TRUE(sameBits(outputs, someValues(2, 2, 1)));
}

TEST(ImageFwdPass, canBeMoved) {
  const ByteImage image = ByteImage::of(network({5, 4}, 0));
  const MatrixXf inputs = someValues(5, 2, 5);
  ImageFwdPass first;
  openQuietly(first, image.bytes().data(), image.size());
  ImageFwdPass second(std::move(first));
  EXPECT_TRUE(sameBits(evaluated(second, inputs), byLoading(image, inputs)));
  first = std::move(second);
  EXPECT_TRUE(sameBits(evaluated(first, inputs), byLoading(image, inputs)));
}

TEST(ImageFwdPass, copiesNoWeights) {
  // Codes are unpacked into some rows of floats; floats are used where they lie.
  const std::pair<int, std::size_t> cases[] = {{0, 32768}, {200, 96 * 2000 * 4 + 256}};
  for (const auto& oneCase : cases) {
    const std::size_t mostAtOnce = oneCase.second;
    const ByteImage image = ByteImage::of(network({2000, 1000, 500}, oneCase.first));
    const MatrixXf inputs = someValues(2000, 1, 5);
    MatrixXf outputs(500, 1);
    ImageFwdPass pass;
    stderrOf([&] {
      const mlnn::test::AllocationWatch watch;
      EXPECT_EQ(pass.open(image.bytes().data(), image.size()), 0);
      EXPECT_LE(watch.largest(), 4096u);
      pass.evaluate(inputs, outputs);
      EXPECT_LE(watch.largest(), mostAtOnce);
    });
    const mlnn::test::AllocationWatch watch;
    EXPECT_EQ(pass.evaluate(inputs, outputs), 0);
    EXPECT_EQ(watch.allocations(), 0u);
  }
}

TEST(ImageFwdPass, severalOverOneImageRunInSeveralThreads) {
  const ByteImage image = ByteImage::of(network({60, 50, 40}, 17));
  const MatrixXf inputs = someValues(60, 30, 5);
  const MatrixXf expected = byLoading(image, inputs);
  std::vector<MatrixXf> results(4);
  std::vector<std::thread> threads;
  stderrOf([&] {
    for (MatrixXf& result : results) {
      threads.emplace_back([&] {
        ImageFwdPass pass;
        pass.open(image.bytes().data(), image.size());
        for (int round = 0; round < 20; ++round) pass.evaluate(inputs, result);
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  for (const MatrixXf& result : results) EXPECT_TRUE(sameBits(result, expected));
}

// --- Refusals by evaluate ---

TEST(ImageFwdPassRefusal, inputsOfAnotherWidth) {
  const ByteImage image = ByteImage::of(network({5, 4}, 0));
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  MatrixXf outputs = someValues(2, 2, 1);
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass.evaluate(someValues(6, 1, 1), outputs), 1); }),
            kPrefix + "expected 5 inputs but got 6\n");
  EXPECT_TRUE(sameBits(outputs, someValues(2, 2, 1)));
}

TEST(ImageFwdPassRefusal, layersThatDoNotFitEachOther) {
  MultiLayerNNModel model = modelOf({plainLayer(4, 3), plainLayer(2, 5)});
  model.deltasNorm.allocIfNeeded();
  const ByteImage image = ByteImage::of(model);
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  MatrixXf outputs = someValues(2, 2, 1);
  std::vector<mlnn::LayerResult> layers(1);
  EXPECT_EQ(
      stderrOf([&] { EXPECT_EQ(pass.evaluateLayers(someValues(4, 1, 1), outputs, layers), 1); }),
      kPrefix + "layer 2 does not fit the model\n");
  EXPECT_TRUE(sameBits(outputs, someValues(2, 2, 1)));
  EXPECT_EQ(layers.size(), 1u);
}

TEST(ImageFwdPassRefusal, imageWithoutLayers) {
  MultiLayerNNModel model;
  model.deltasNorm.allocIfNeeded();
  const ByteImage image = ByteImage::of(model);
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  MatrixXf outputs;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass.evaluate(MatrixXf(0, 1), outputs), 1); }),
            kPrefix + "model has no layers\n");
}

// --- Refusals by open: the reader's own ---

struct Verdict {
  int result;
  std::string messages;
};

// What loading a file with these bytes gives: all of the image must be consumed.
Verdict verdictOfTheReader(const ByteImage& image) {
  if (image.size() < 8) {  // which the reader refuses without a word
    return {1, "ERROR: ImageFwdPass: image of " + std::to_string(image.size()) +
                   " bytes is shorter than its head (1004)\n"};
  }
  MultiLayerNNModel model;
  Verdict verdict;
  verdict.messages = stderrOf(
      [&] { verdict.result = image.readInto(model) == static_cast<int>(image.size()) ? 0 : 1; });
  return verdict;
}

Verdict verdictOfThePass(const ByteImage& image, ImageChecksum checksum, ImageFwdPass& pass) {
  const GuardedBytes bytes(image.bytes());
  Verdict verdict;
  verdict.messages =
      stderrOf([&] { verdict.result = pass.open(bytes.data(), image.size(), checksum); });
  return verdict;
}

void expectTheReadersVerdict(const ByteImage& image, const std::string& what) {
  const Verdict expected = verdictOfTheReader(image);
  ImageFwdPass pass;
  const Verdict found = verdictOfThePass(image, ImageChecksum::kVerified, pass);
  ASSERT_EQ(found.result, expected.result) << what;
  ASSERT_EQ(found.messages, expected.messages) << what;
  if (found.result != 0) {
    ASSERT_EQ(pass.numInputs(), 0) << what;
  }
}

TEST(ImageFwdPassOpen, refusesEveryCutAsTheReaderDoes) {
  const ByteImage original = mixedImage();
  for (std::size_t length = 0; length < original.size(); ++length) {
    expectTheReadersVerdict(ByteImage(original).truncateTo(length), std::to_string(length));
  }
  expectTheReadersVerdict(ByteImage(original).append("x"), "a byte more");
}

TEST(ImageFwdPassOpen, refusesEveryFlippedBitAsTheReaderDoes) {
  const ByteImage original = mixedImage();
  for (std::size_t bit = 0; bit < 8 * original.size(); ++bit) {
    if (bit > 8 * 36 && bit < 8 * 512) continue;  // values of the normalisation
    expectTheReadersVerdict(ByteImage(original).flipBit(bit), std::to_string(bit));
  }
}

TEST(ImageFwdPassOpen, refusesMissingLayersAsTheReaderDoes) {
  const ByteImage original = mixedImage();
  for (const int32_t count :
       {0, 1, 3, 5, 100, 1026, 1100, -1, std::numeric_limits<int32_t>::max()}) {
    ByteImage image = original;
    expectTheReadersVerdict(image.setInt32At(1000, count), std::to_string(count) + " layers");
  }
  // The head alone, with layers that are all missing and a checksum that counts them.
  ByteImage empty = ByteImage(original).truncateTo(1004);
  empty.setInt32At(1000, 3).setInt32At(4, static_cast<int32_t>(3 + 3 * NNLayer().checksum()));
  expectTheReadersVerdict(empty, "missing layers");
}

TEST(ImageFwdPassOpen, refusesWhatIsTooLongForAnImage) {
  if (sizeof(void*) == 4) GTEST_SKIP() << "no such lengths";
  ImageFwdPass pass;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(pass.open("MLNN", std::size_t{1} << 31), 1); }),
            "ERROR: MultiLayerNNModel: model is too large for a binary image\n");
}

TEST(ImageFwdPassOpen, afterARefusalThereIsNoImage) {
  const ByteImage image = ByteImage::of(fullModel());
  ImageFwdPass pass;
  openQuietly(pass, image.bytes().data(), image.size());
  stderrOf([&] { EXPECT_EQ(pass.open(image.bytes().data(), image.size() - 1), 1); });
  EXPECT_EQ(pass.numInputs(), 0);
  EXPECT_EQ(pass.deltasNorm().minvals.size(), 0);
  EXPECT_EQ(pass.featureDesc().winSizeLeft, 0);
  openQuietly(pass, image.bytes().data(), image.size());
  EXPECT_EQ(pass.numInputs(), 4);
}

TEST(ImageFwdPassOpen, checksumIsNotLookedAtWhereItIsDeclined) {
  ByteImage image = ByteImage::of(network({5, 4}, 0));
  image.flipBit(8 * 4);
  ImageFwdPass pass;
  stderrOf([&] { EXPECT_EQ(pass.open(image.bytes().data(), image.size()), 1); });
  openQuietly(pass, image.bytes().data(), image.size(), ImageChecksum::kDeclined);
  EXPECT_EQ(pass.numInputs(), 5);
}

// Without the checksum more is accepted, but never anything that the records refuse.
TEST(ImageFwdPassOpen, damagedImagesAreRunWithoutHarmWhereTheChecksumIsDeclined) {
  std::mt19937 random(2);
  const ByteImage original = mixedImage();
  constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
  int accepted = 0;
  stderrOf([&] {
    for (int round = 0; round < 5000; ++round) {
      ByteImage image = original;
      for (std::size_t edits = 1 + random() % 3; edits > 0; --edits) {
        const std::size_t word = 4 * (251 + random() % (image.size() / 4 - 251));
        const int32_t values[] = {static_cast<int32_t>(random()), 0, 1, 2, -1, kMaxInt, 17, 300};
        image.setInt32At(word, values[random() % std::size(values)]);
      }
      image.truncateTo(random() % 4 == 0 ? random() % image.size() : image.size());
      const GuardedBytes bytes(image.bytes());
      ImageFwdPass pass;
      const mlnn::test::AllocationWatch watch;
      if (pass.open(bytes.data(), image.size(), ImageChecksum::kDeclined) != 0) continue;
      ++accepted;
      MatrixXf outputs;
      pass.evaluate(MatrixXf::Zero(pass.numInputs(), 1), outputs);
      EXPECT_LE(watch.largest(), 64 * 1024u) << "round " << round;
    }
  });
  EXPECT_GT(accepted, 100);
}

// Nothing is larger, compared with the image, than what is held for layers without weights.
TEST(ImageFwdPassOpen, memoryForEmptyLayersStaysInProportionToTheirRecords) {
  constexpr std::size_t kLayers = (1 << 17) + 1;
  constexpr std::size_t kRecord = 40;  // one of zeros is a layer without inputs and outputs
  ByteImage image = ByteImage::of(network({1, 1}, 0));
  image.setInt32At(mlnn::kLayerCountOffset, static_cast<int32_t>(kLayers));
  const std::string bytes =
      image.bytes().substr(0, mlnn::kHeadLength) + std::string(kLayers * kRecord, '\0');
  ImageFwdPass pass;
  const mlnn::test::AllocationWatch watch;
  openQuietly(pass, bytes.data(), bytes.size(), ImageChecksum::kDeclined);
  EXPECT_LE(watch.peak(), 8 * bytes.size() + (std::size_t{1} << 20));
}

TEST(ImageFwdPassOpen, outOfMemoryLeavesNoImageAndLeaksNothing) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const ByteImage image = mixedImage();
  std::size_t failures = 0;
  for (bool done = false; !done;) {
    const mlnn::test::AllocationWatch watch;
    {
      const mlnn::test::CaptureStderr quiet;
      ImageFwdPass pass;
      const mlnn::test::FailingAllocation failure(failures);
      try {
        pass.open(image.bytes().data(), image.size());
        done = true;
      } catch (const std::bad_alloc&) {
        ++failures;
        EXPECT_EQ(pass.numInputs(), 0);
      }
    }
    EXPECT_EQ(watch.live(), 0) << failures;
  }
  EXPECT_GE(failures, 5u);
}

}  // namespace
