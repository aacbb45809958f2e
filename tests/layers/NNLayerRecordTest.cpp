#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "layers/NNLayerRecord.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::LayerRecordView;
using mlnn::RecordResult;
using mlnn::test::batchNormLayer;
using mlnn::test::foldedLayer;
using mlnn::test::plainLayer;

std::string recordOf(const NNLayer& layer) {
  const mlnn::WeightsPlan plan = mlnn::planRecord(layer);
  std::string bytes(static_cast<std::size_t>(mlnn::recordLength(layer, plan)), '\0');
  EXPECT_EQ(mlnn::writeRecord(layer, plan, bytes.data()).length, static_cast<int>(bytes.size()));
  return bytes;
}

class Sink final : public mlnn::ByteSink {
 public:
  void take(const void* bytes, std::size_t count) override {
    all.append(static_cast<const char*>(bytes), count);
  }
  std::string all;
};

TEST(NNLayerRecord, isTheSameFromTheSinkAndInMemory) {
  for (const NNLayer& layer : {plainLayer(3, 2), batchNormLayer(3, 2), foldedLayer(3, 2)}) {
    Sink sink;
    mlnn::writeRecord(layer, mlnn::planRecord(layer), sink);
    EXPECT_EQ(sink.all, recordOf(layer));
  }
}

TEST(NNLayerRecord, isLookedAtWhereItLies) {
  const NNLayer layer = foldedLayer(3, 2);
  const std::string bytes = "x" + recordOf(layer) + "behind";
  LayerRecordView view;
  ASSERT_TRUE(mlnn::viewRecord(bytes.data() + 1, bytes.size() - 1, view));
  EXPECT_EQ(view.head.rows, 2);
  EXPECT_EQ(view.head.cols, 3);
  EXPECT_EQ(view.head.isBatchNorm, 0u);
  EXPECT_EQ(view.head.gammaInfLength, 2);
  EXPECT_EQ(view.length, bytes.size() - 7);
  std::vector<float> weights(3);
  mlnn::unpackWeights(view, 1, 1, weights.data());
  for (Eigen::Index c = 0; c < 3; ++c) {
    EXPECT_EQ(weights[static_cast<std::size_t>(c)], layer.weights(1, c));
  }
}

TEST(NNLayerRecord, isWholeOrRefused) {
  const std::string bytes = recordOf(batchNormLayer(3, 2));
  LayerRecordView view;
  for (std::size_t length = 0; length < bytes.size(); ++length) {
    EXPECT_FALSE(mlnn::viewRecord(bytes.data(), length, view)) << length;
    EXPECT_FALSE(mlnn::viewLayout(bytes.data(), length, view)) << length;
    NNLayer layer = plainLayer(1, 1);
    EXPECT_EQ(mlnn::readRecord(layer, bytes.data(), length).length, -1) << length;
    EXPECT_TRUE(mlnn::test::sameLayer(layer, plainLayer(1, 1)));
  }
  EXPECT_TRUE(mlnn::viewLayout(bytes.data(), bytes.size(), view));
}

TEST(NNLayerRecord, isReadAlikeFromMemoryAndFromAStream) {
  for (const NNLayer& layer : {plainLayer(3, 2), batchNormLayer(3, 2), foldedLayer(3, 2)}) {
    const std::string bytes = recordOf(layer);
    NNLayer fromMemory;
    NNLayer fromStream;
    std::istringstream in(bytes + "behind");
    const RecordResult memory = mlnn::readRecord(fromMemory, bytes.data(), bytes.size());
    const RecordResult stream = mlnn::readRecord(fromStream, in, bytes.size() + 6);
    EXPECT_EQ(memory.length, static_cast<int>(bytes.size()));
    EXPECT_EQ(stream.length, memory.length);
    EXPECT_EQ(stream.checksum, memory.checksum);
    EXPECT_EQ(in.tellg(), std::streampos(static_cast<std::streamoff>(bytes.size())));
    EXPECT_TRUE(mlnn::test::sameLayer(fromMemory, layer));
    EXPECT_TRUE(mlnn::test::sameLayer(fromStream, layer));
  }
}

TEST(NNLayerRecord, hasTheChecksumOfALayerThatIsNotThere) {
  EXPECT_EQ(mlnn::emptyRecordChecksum(), NNLayer().checksum());
}

}  // namespace
