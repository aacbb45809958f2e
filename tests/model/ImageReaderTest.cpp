#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "model/ImageReader.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::stderrOf;

// Notes what it is handed, and refuses a record where it is told to.
class NotingReader final : public mlnn::ImageReader {
 public:
  NotingReader(const std::string& image, std::size_t lengthOfRecord)
      : ImageReader(image.data(), image.size()), lengthOfRecord_(lengthOfRecord) {}

  std::size_t layers = 0;
  std::vector<std::size_t> positions;
  int windowLeft = -1;
  float minval = -1;

 private:
  void takeFeatureDescription(const DbnFeatureDescription& featureDesc) override {
    windowLeft = featureDesc.winSizeLeft;
  }
  void takeMinvals(const char* values) override { std::memcpy(&minval, values, sizeof minval); }
  void takeNormvals(const char*) override {}
  void prepareLayers(std::size_t count) override { layers = count; }
  mlnn::RecordResult readLayer(std::size_t, std::size_t position, std::size_t available) override {
    positions.push_back(position);
    mlnn::RecordResult result{};
    result.length = available < lengthOfRecord_ ? -1 : static_cast<int>(lengthOfRecord_);
    return result;
  }
  uint32_t checksumOfUnread(std::size_t) override { return 0; }

  std::size_t lengthOfRecord_;
};

std::string imageOf(int layers) {
  std::vector<NNLayer> stack(static_cast<std::size_t>(layers), mlnn::test::plainLayer(2, 2));
  MultiLayerNNModel model = mlnn::test::modelOf(stack);
  model.deltasNorm.allocIfNeeded();
  model.deltasNorm.minvals[0] = 0.25f;
  model.featureDesc.winSizeLeft = 3;
  return mlnn::test::ByteImage::of(model).bytes();
}

TEST(ImageReader, handsOnWhatTheImageBeginsWith) {
  const std::string image = imageOf(2);
  const std::size_t record = (image.size() - 1004) / 2;
  NotingReader reader(image, record);
  reader.checkSum(false);
  stderrOf([&] { EXPECT_EQ(reader.read(), static_cast<int>(image.size())); });
  EXPECT_EQ(reader.windowLeft, 3);
  EXPECT_EQ(reader.minval, 0.25f);
  EXPECT_EQ(reader.layers, 2u);
  EXPECT_EQ(reader.positions, std::vector<std::size_t>({1004, 1004 + record}));
}

TEST(ImageReader, comparesTheChecksumUnlessItIsDeclined) {
  const std::string image = imageOf(1);
  for (const bool isChecked : {false, true}) {
    NotingReader reader(image, image.size() - 1004);
    reader.checkSum(isChecked);
    int consumed = 0;
    const std::string said = stderrOf([&] { consumed = reader.read(); });
    EXPECT_EQ(consumed < 0, isChecked) << said;  // what it was handed has another one
  }
}

TEST(ImageReader, saysNothingOfWhatIsShorterThanEightBytes) {
  for (std::size_t length = 0; length < 8; ++length) {
    const std::string begin = imageOf(1).substr(0, length);
    NotingReader reader(begin, 1);
    EXPECT_EQ(stderrOf([&] { EXPECT_EQ(reader.read(), -1); }), "") << length;
  }
  const std::string head = imageOf(1).substr(0, 8);
  NotingReader longer(head, 1);
  EXPECT_NE(stderrOf([&] { EXPECT_EQ(longer.read(), -1); }), "");
}

}  // namespace
