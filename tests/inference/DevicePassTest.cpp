#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "features/ContextWindow.h"
#include "inference/DevicePass.h"
#include "inference/ImageFwdPass.h"
#include "inference/IntegerFwdPass.h"
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
using mlnn::DevicePass;
using mlnn::ImageChecksum;
using mlnn::test::AllocationWatch;
using mlnn::test::ByteImage;
using mlnn::test::sameBits;
using mlnn::test::someValues;
using mlnn::test::stderrOf;

enum class Weights { kFloats, kBytes, kHalfBytes };

// Three layers, of which the second is batch norm, for frames of 5 values in a window of 2 + 1 + 1.
MultiLayerNNModel network(Weights weights) {
  MultiLayerNNModel model =
      mlnn::test::modelOf({mlnn::test::plainLayer(20, 33, 1), mlnn::test::batchNormLayer(33, 9, 2),
                           mlnn::test::plainLayer(9, 4, 3)});
  model.setActFn(ActFn::sigmoid);
  model.featureDesc.winSizeLeft = 2;
  model.featureDesc.winSizeRight = 1;
  model.deltasNorm.minvals = someValues(120, 1, 5);
  model.deltasNorm.normvals = someValues(120, 1, 6);
  if (weights != Weights::kFloats) {
    mlnn::RowQuantization options;
    options.bits = weights == Weights::kBytes ? 8 : 4;
    EXPECT_EQ(mlnn::quantizeRows(model, options), 0);
  }
  return model;
}

constexpr uint64_t kBytesForNetwork = mlnn::deviceMemoryBytes(20, 33);

// An image, and memory for the pass, each where it may be.
struct Device {
  explicit Device(const ByteImage& bytes) : image(bytes.size() / 4 + 1), length(bytes.size()) {
    std::memcpy(image.data(), bytes.bytes().data(), length);
  }

  int open(std::size_t memoryLength = kBytesForNetwork,
           ImageChecksum checksum = ImageChecksum::kVerified) {
    return pass.open(image.data(), length, memory, memoryLength, checksum);
  }

  // What it prints where it is refused.
  std::string refusal(std::size_t memoryLength = kBytesForNetwork) {
    return stderrOf([&] { EXPECT_EQ(open(memoryLength), 1); });
  }

  std::vector<uint32_t> image;
  std::size_t length;
  alignas(mlnn::kDeviceAlignment) char memory[4096] = {};
  DevicePass pass;
};

// The results of all frames, by a window and a pass over the image.
MatrixXf expectedResults(const ByteImage& bytes, const MatrixXf& frames, bool softmax) {
  mlnn::ImageFwdPass pass;
  MatrixXf outputs;
  stderrOf([&] { EXPECT_EQ(pass.open(bytes.bytes().data(), bytes.size()), 0); });
  pass.setSoftmax(softmax);
  std::string whyNot;
  const auto window = mlnn::ContextWindow::create(pass.featureDesc(), pass.deltasNorm(),
                                                  static_cast<int>(frames.rows()), whyNot);
  EXPECT_TRUE(window) << whyNot;
  MatrixXf inputs;
  EXPECT_TRUE(window->stack(frames, inputs));
  for (Index t = 0; t < inputs.cols(); ++t) {
    MatrixXf output;
    EXPECT_EQ(pass.evaluate(inputs.col(t), output), 0);
    outputs.conservativeResize(output.rows(), t + 1);
    outputs.col(t) = output;
  }
  return outputs;
}

void append(MatrixXf& results, const float* values, int count) {
  const Index next = results.cols();
  results.conservativeResize(count, next + 1);
  results.col(next) = Eigen::Map<const Eigen::VectorXf>(values, count);
}

MatrixXf resultsOf(DevicePass& pass, const MatrixXf& frames) {
  MatrixXf results(pass.numOutputs(), 0);
  for (Index t = 0; t < frames.cols(); ++t) {
    const float* const values = pass.push(frames.col(t).data());
    EXPECT_EQ(values == nullptr, t < pass.delay());
    if (values != nullptr) append(results, values, pass.numOutputs());
  }
  while (const float* values = pass.finish()) append(results, values, pass.numOutputs());
  return results;
}

// --- Values ---

TEST(DevicePass, givesTheBitsOfAWindowAndAPassOverTheImage) {
  const MatrixXf frames = someValues(5, 11, 9);
  for (const Weights weights : {Weights::kFloats, Weights::kBytes, Weights::kHalfBytes}) {
    const ByteImage bytes = ByteImage::of(network(weights));
    for (const bool softmax : {true, false}) {
      Device device(bytes);
      device.pass.setSoftmax(softmax);
      ASSERT_EQ(device.open(), 0);
      const MatrixXf expected = expectedResults(bytes, frames, softmax);
      EXPECT_TRUE(sameBits(resultsOf(device.pass, frames), expected));
      EXPECT_TRUE(sameBits(resultsOf(device.pass, frames), expected)) << "second recording";
    }
  }
}

// Its last layer has so few outputs that an image holds it as floats, whatever they are.
TEST(DevicePass, givesTheBitsOfAPassInIntegers) {
  const MatrixXf inputs = someValues(20, 7, 9);
  for (const Weights weights : {Weights::kFloats, Weights::kBytes, Weights::kHalfBytes}) {
    const ByteImage bytes = ByteImage::of(network(weights));
    for (const auto wide :
         {mlnn::WideInputs::kNone, mlnn::WideInputs::kFirst, mlnn::WideInputs::kAll}) {
      for (const bool softmax : {true, false}) {
        Device device(bytes);
        device.pass.setSoftmax(softmax);
        device.pass.setIntegers(wide);
        stderrOf([&] { ASSERT_EQ(device.open(), 0); });
        mlnn::ImageFwdPass image;
        stderrOf([&] { EXPECT_EQ(image.open(bytes.bytes().data(), bytes.size()), 0); });
        image.setSoftmax(softmax);
        const auto pass = mlnn::IntegerFwdPass::create(image, wide);
        EXPECT_EQ(pass->numIntegerLayers(), weights == Weights::kFloats ? 0u : 3u);
        MatrixXf expected;
        ASSERT_EQ(pass->evaluate(inputs, expected), 0);
        MatrixXf found(4, 0);
        for (Index f = 0; f < inputs.cols(); ++f) {
          append(found, device.pass.evaluate(inputs.col(f).data()), 4);
        }
        EXPECT_TRUE(sameBits(found, expected));
      }
    }
  }
}

TEST(DevicePass, computesFramesThatComeOneByOneInIntegersToo) {
  const ByteImage bytes = ByteImage::of(network(Weights::kBytes));
  const MatrixXf frames = someValues(5, 11, 9);
  Device device(bytes);
  device.pass.setIntegers();
  stderrOf([&] { ASSERT_EQ(device.open(), 0); });
  const MatrixXf found = resultsOf(device.pass, frames);
  std::string whyNot;
  MultiLayerNNModel model = network(Weights::kBytes);
  const auto window = mlnn::ContextWindow::create(model.featureDesc, model.deltasNorm, 5, whyNot);
  ASSERT_TRUE(window) << whyNot;
  MatrixXf inputs;
  ASSERT_TRUE(window->stack(frames, inputs));
  MatrixXf expected;
  ASSERT_EQ(mlnn::IntegerFwdPass::create(model)->evaluate(inputs, expected), 0);
  EXPECT_TRUE(sameBits(found, expected));
}

// Rows whose sums might not fit 32 bits.
TEST(DevicePass, computesRowsThatAreTooLongForIntegersInFloats) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(132105, 17, 1)});
  ASSERT_EQ(mlnn::quantizeRows(model, mlnn::RowQuantization()), 0);
  model.featureDesc.winSizeLeft = model.featureDesc.winSizeRight = 0;
  model.deltasNorm.allocIfNeeded();
  const ByteImage bytes = ByteImage::of(model);
  Device device(bytes);
  std::vector<char> memory(mlnn::deviceMemoryBytes(132105, 17) + mlnn::kDeviceAlignment);
  const auto past = reinterpret_cast<uintptr_t>(memory.data()) % mlnn::kDeviceAlignment;
  char* const from = memory.data() + mlnn::kDeviceAlignment - past;
  device.pass.setIntegers();
  stderrOf([&] {
    ASSERT_EQ(device.pass.open(device.image.data(), device.length, from,
                               mlnn::deviceMemoryBytes(132105, 17)),
              0);
  });
  const MatrixXf inputs = someValues(132105, 1, 9);
  MatrixXf expected;
  ASSERT_EQ(mlnn::IntegerFwdPass::create(model)->evaluate(inputs, expected), 0);
  MatrixXf found(17, 0);
  append(found, device.pass.evaluate(inputs.data()), 17);
  EXPECT_TRUE(sameBits(found, expected));
}

TEST(DevicePass, takesRecordingsShorterThanTheWindow) {
  const ByteImage bytes = ByteImage::of(network(Weights::kBytes));
  Device device(bytes);
  ASSERT_EQ(device.open(), 0);
  for (const Index count : {1, 2, 3}) {
    const MatrixXf frames = someValues(5, count, 9);
    EXPECT_TRUE(sameBits(resultsOf(device.pass, frames), expectedResults(bytes, frames, true)));
  }
  EXPECT_EQ(device.pass.finish(), nullptr);
}

TEST(DevicePass, resetForgetsFrames) {
  const ByteImage bytes = ByteImage::of(network(Weights::kBytes));
  Device device(bytes);
  ASSERT_EQ(device.open(), 0);
  device.pass.push(someValues(5, 1, 1).data());
  device.pass.reset();
  EXPECT_EQ(device.pass.finish(), nullptr);
}

TEST(DevicePass, framesWiderThanTheNormalisationGoWhereThatChangesNothing) {
  MultiLayerNNModel model = mlnn::test::modelOf({mlnn::test::plainLayer(130, 3)});
  model.deltasNorm.allocIfNeeded();
  const ByteImage bytes = ByteImage::of(model);
  const MatrixXf frames = someValues(130, 4, 9);
  Device device(bytes);
  ASSERT_EQ(device.open(mlnn::deviceMemoryBytes(130, 3)), 0);
  EXPECT_TRUE(sameBits(resultsOf(device.pass, frames), expectedResults(bytes, frames, true)));
}

TEST(DevicePass, tellsItsShape) {
  Device device(ByteImage::of(network(Weights::kBytes)));
  EXPECT_EQ(device.pass.numInputs(), 0);
  ASSERT_EQ(device.open(), 0);
  EXPECT_EQ(device.pass.frameLen(), 5);
  EXPECT_EQ(device.pass.delay(), 1);
  EXPECT_EQ(device.pass.numInputs(), 20);
  EXPECT_EQ(device.pass.numOutputs(), 4);
}

// --- Memory ---

TEST(DevicePassMemory, isWhatItSaysToTheByte) {
  EXPECT_EQ(kBytesForNetwork, 2u * 128 + 3u * 192);
  Device device(ByteImage::of(network(Weights::kFloats)));
  EXPECT_EQ(DevicePass::memoryBytes(device.image.data(), device.length), kBytesForNetwork);
  std::memset(device.memory, 0x55, sizeof device.memory);
  ASSERT_EQ(device.open(), 0);
  resultsOf(device.pass, someValues(5, 9, 1));
  for (std::size_t i = kBytesForNetwork; i < sizeof device.memory; ++i) {
    ASSERT_EQ(device.memory[i], 0x55) << i;
  }
  EXPECT_EQ(device.refusal(kBytesForNetwork - 1),
            "ERROR: DevicePass::open: expected 832 bytes of memory but got 831\n");
  EXPECT_EQ(device.pass.numInputs(), 0);
}

TEST(DevicePassMemory, noneComesFromTheHeap) {
  Device device(ByteImage::of(network(Weights::kBytes)));
  const MatrixXf frames = someValues(5, 3, 1);
  const AllocationWatch watch;
  ASSERT_EQ(device.open(), 0);
  for (Index t = 0; t < frames.cols(); ++t) device.pass.push(frames.col(t).data());
  while (device.pass.finish() != nullptr) {
  }
  EXPECT_EQ(watch.allocations(), 0u);
}

TEST(DevicePassMemory, mustBeAligned) {
  Device device(ByteImage::of(network(Weights::kBytes)));
  EXPECT_EQ(stderrOf([&] {
              EXPECT_EQ(device.pass.open(device.image.data(), device.length, device.memory + 4,
                                         sizeof device.memory - 4),
                        1);
            }),
            "ERROR: DevicePass::open: the memory is not aligned\n");
}

// --- Refusals ---

// The image of a model of these layers, whose normalisation changes nothing.
ByteImage imageOf(const std::vector<NNLayer>& layers) {
  MultiLayerNNModel model = mlnn::test::modelOf(layers);
  model.deltasNorm.allocIfNeeded();
  return ByteImage::of(model);
}

TEST(DevicePassRefuses, imagesOfOtherForms) {
  using mlnn::test::plainLayer;
  EXPECT_EQ(Device(imageOf({mlnn::test::fewValuesLayer(40, 30, 5)})).refusal(),
            "ERROR: DevicePass::open: layer 1 has weights as codes of a table\n"
            "ERROR: MultiLayerNNModel::deserializeBinary: could not read layer index: 0\n");
  EXPECT_EQ(Device(imageOf({})).refusal(), "ERROR: DevicePass::open: model has no layers\n");
  EXPECT_EQ(Device(imageOf({plainLayer(4, 3), plainLayer(4, 3)})).refusal(),
            "ERROR: DevicePass::open: the layers do not fit each other\n");
  MultiLayerNNModel window = network(Weights::kBytes);
  window.featureDesc.winSizeRight = 3;
  EXPECT_EQ(Device(ByteImage::of(window)).refusal(),
            "ERROR: DevicePass::open: the inputs are no whole frames of the window\n");
  window.featureDesc.winSizeRight = -1;
  EXPECT_EQ(Device(ByteImage::of(window)).refusal(),
            "ERROR: DevicePass::open: the inputs are no whole frames of the window\n");
  MultiLayerNNModel wide = mlnn::test::modelOf({mlnn::test::plainLayer(121, 3)});
  wide.deltasNorm.allocIfNeeded();
  wide.deltasNorm.minvals[119] = 1;
  EXPECT_EQ(Device(ByteImage::of(wide)).refusal(),
            "ERROR: DevicePass::open: the normalisation has fewer values than a frame\n");
}

TEST(DevicePassRefuses, imagesAtOddAddresses) {
  const ByteImage bytes = ByteImage::of(network(Weights::kBytes));
  Device device(ByteImage(" " + bytes.bytes()));
  const char* const odd = reinterpret_cast<const char*>(device.image.data()) + 1;
  EXPECT_EQ(stderrOf([&] { EXPECT_EQ(DevicePass::memoryBytes(odd, bytes.size()), 0u); }),
            "ERROR: DevicePass::open: the image is not aligned\n");
}

TEST(DevicePassRefuses, imagesThatWereCutShort) {
  const ByteImage bytes = ByteImage::of(network(Weights::kHalfBytes));
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    ByteImage part = bytes;
    Device device(part.truncateTo(length));
    EXPECT_NE(device.refusal(), "") << length;
    EXPECT_EQ(device.pass.numInputs(), 0);
  }
}

TEST(DevicePassRefuses, wrongChecksumsUnlessTheyAreDeclined) {
  ByteImage bytes = ByteImage::of(network(Weights::kBytes));
  Device device(bytes.flipBit(8 * (bytes.size() - 1)));
  EXPECT_NE(device.refusal().find("checksums did not match"), std::string::npos);
  EXPECT_EQ(device.open(kBytesForNetwork, ImageChecksum::kDeclined), 0);
}

// Of whatever images open with a bit changed, nothing outside is read: the sanitizers watch.
TEST(DevicePassRefuses, nothingIsReadOutsideDamagedImages) {
  const ByteImage bytes = ByteImage::of(network(Weights::kHalfBytes));
  const MatrixXf frames = someValues(5, 3, 1);
  int opened = 0;
  for (std::size_t bit = 8 * mlnn::kLayerCountOffset; bit < 8 * bytes.size(); bit += 3) {
    ByteImage damaged = bytes;
    Device device(damaged.flipBit(bit));
    stderrOf([&] {
      if (device.open(kBytesForNetwork, ImageChecksum::kDeclined) != 0) return;
      ++opened;
      if (device.pass.frameLen() <= 5) resultsOf(device.pass, frames);
    });
  }
  EXPECT_GT(opened, 1000);
}

}  // namespace
