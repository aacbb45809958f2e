// The forms of a record that store weights as whole numbers and a scale for each row.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <set>

#include "layers/CodedWeights.h"
#include "layers/NNLayerRecord.h"
#include "model/RowQuantization.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::kByteCodes;
using mlnn::kByteRowCodes;
using mlnn::kHalfByteCodes;
using mlnn::kHalfByteRowCodes;
using mlnn::kPlainFloats;
using mlnn::test::ByteImage;
using mlnn::test::foldedLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameBits;
using mlnn::test::sameLayer;
using mlnn::test::stderrOf;

// Where things stand in a record.
constexpr std::size_t kForm = 0;
constexpr std::size_t kRows = 4;
constexpr std::size_t kCols = 8;
constexpr std::size_t kScales = 40;

NNLayer quantized(NNLayer layer, int bits) {
  MultiLayerNNModel model = modelOf({layer});
  EXPECT_EQ(mlnn::quantizeRows(model, {bits}), 0);
  return *model.layers[0];
}

ByteImage byteRecord() { return ByteImage::of(quantized(plainLayer(9, 18), 8)); }
ByteImage halfByteRecord() { return ByteImage::of(quantized(plainLayer(9, 18), 4)); }

void expectRefused(const ByteImage& record, const std::string& what) {
  NNLayer layer = plainLayer(2, 2);
  const NNLayer before = layer;
  EXPECT_LT(record.readInto(layer), 1) << what;
  EXPECT_TRUE(sameLayer(layer, before)) << what;
}

uint32_t formOf(const NNLayer& layer) { return ByteImage::of(layer).uint32At(kForm); }

// --- The choice ---

TEST(RowCodesRecord, quantisedLayersComeBackToTheBit) {
  for (const int bits : {2, 4, 5, 8}) {
    for (const auto& [inputs, outputs] : {std::pair{4, 16}, {5, 17}, {64, 15}, {100, 33}}) {
      const NNLayer layer = quantized(foldedLayer(inputs, outputs), bits);
      const ByteImage record = ByteImage::of(layer);
      EXPECT_EQ(record.uint32At(kForm), bits <= 4 ? kHalfByteRowCodes : kByteRowCodes);
      EXPECT_EQ(record.size() % 4, 0u);
      NNLayer read;
      EXPECT_EQ(record.readInto(read), static_cast<int>(record.size()));
      EXPECT_TRUE(sameLayer(read, layer));
      EXPECT_EQ(read.checksum(), layer.checksum());
    }
  }
}

TEST(RowCodesRecord, aLengthIsThatOfScalesAndBlocks) {
  const NNLayer bytes = quantized(plainLayer(9, 18), 8);
  EXPECT_EQ(bytes.binarySerializedLength(), 40 + 4 * 18 + 2 * 3 * 64 + 4 * 18);
  const NNLayer halves = quantized(plainLayer(9, 18), 4);
  EXPECT_EQ(halves.binarySerializedLength(), 40 + 4 * 18 + 2 * 3 * 32 + 4 * 18);
}

// Where blocks are filled up so much that they take more, another form wins.
TEST(RowCodesRecord, smallLayersAreStoredOtherwise) {
  EXPECT_EQ(formOf(quantized(plainLayer(30, 3), 8)), kPlainFloats);
  EXPECT_EQ(formOf(quantized(plainLayer(30, 1), 4)), kHalfByteCodes);
  EXPECT_EQ(formOf(quantized(plainLayer(1, 16), 8)), kPlainFloats);
  EXPECT_EQ(formOf(quantized(plainLayer(30, 6), 8)), kByteRowCodes);
}

// 16 rows of 4 columns take 64 + 64 bytes with row scales; as many as 32 floats.
TEST(RowCodesRecord, ofTwoFormsThatTakeAsManyBytesItIsTheFirst) {
  NNLayer layer(2, 16, false);
  for (Eigen::Index i = 0; i < 32; ++i) layer.weights.data()[i] = static_cast<float>(65 + i);
  ASSERT_TRUE(mlnn::findRowScales(layer.weights.data(), 16, 2));
  EXPECT_EQ(mlnn::rowScaledLength(kByteRowCodes, 16, 2), 128u);
  EXPECT_EQ(formOf(layer), kPlainFloats);
  NNLayer more(3, 16, false);
  for (Eigen::Index i = 0; i < 48; ++i) more.weights.data()[i] = static_cast<float>(65 + i);
  EXPECT_EQ(formOf(more), kByteRowCodes);
}

// One scale for all rows, and so few values: a table takes less than a scale for each row.
TEST(RowCodesRecord, aTableWinsWhereItIsShorter) {
  NNLayer layer(100, 80, false);
  for (Eigen::Index i = 0; i < layer.weights.size(); ++i) {
    layer.weights.data()[i] = static_cast<float>(i % 3);
  }
  EXPECT_EQ(formOf(layer), kHalfByteCodes);
  for (Eigen::Index i = 0; i < layer.weights.size(); ++i) {
    layer.weights.data()[i] = static_cast<float>((7 * i + i / 80) % 20);
  }
  EXPECT_EQ(formOf(layer), kByteCodes);
}

// --- What earlier writers wrote ---

std::string headOf(uint32_t form, const NNLayer& layer) {
  const auto rows = static_cast<int32_t>(layer.weights.rows());
  const mlnn::LayerRecordHead head{
      form, rows, static_cast<int32_t>(layer.weights.cols()), layer.actFn, 0, rows, 0, 0, 0, 0};
  return std::string(reinterpret_cast<const char*>(&head), sizeof head);
}

template <typename Dense>
std::string bytesOf(const Dense& values) {
  return std::string(reinterpret_cast<const char*>(values.data()),
                     static_cast<std::size_t>(values.size()) * sizeof(float));
}

TEST(RowCodesRecord, plainFloatsOfAnEarlierWriterAreRead) {
  const NNLayer layer = quantized(plainLayer(40, 20), 8);
  ASSERT_EQ(formOf(layer), kByteRowCodes);
  const ByteImage record(headOf(kPlainFloats, layer) + bytesOf(layer.weights) +
                         bytesOf(layer.bias));
  NNLayer read;
  EXPECT_EQ(record.readInto(read), static_cast<int>(record.size()));
  EXPECT_TRUE(sameLayer(read, layer));
  mlnn::LayerRecordView view;
  EXPECT_TRUE(mlnn::viewRecord(record.bytes().data(), record.size(), view));
}

// 63 values in a table and a byte a weight; row scales make it 4 bits a weight.
TEST(RowCodesRecord, aTableOfAnEarlierWriterIsRead) {
  NNLayer layer(64, 16, false);
  std::set<float> values;
  for (Eigen::Index i = 0; i < layer.weights.size(); ++i) {
    const auto row = i % 16;
    layer.weights.data()[i] = static_cast<float>((i % 7 - 3) * (row % 9 * 2 + 1));
    values.insert(layer.weights.data()[i]);
  }
  ASSERT_EQ(formOf(layer), kHalfByteRowCodes);
  std::vector<uint32_t> table;
  for (const float value : values) {
    uint32_t bits;
    std::memcpy(&bits, &value, sizeof bits);
    table.push_back(bits);
  }
  std::sort(table.begin(), table.end());
  std::string codes;
  for (Eigen::Index i = 0; i < layer.weights.size(); ++i) {
    uint32_t bits;
    std::memcpy(&bits, layer.weights.data() + i, sizeof bits);
    codes += static_cast<char>(std::lower_bound(table.begin(), table.end(), bits) - table.begin());
  }
  const uint32_t prefix[2] = {static_cast<uint32_t>(table.size()), 0};
  const ByteImage record(
      headOf(kByteCodes, layer) + std::string(reinterpret_cast<const char*>(prefix), 8) +
      std::string(reinterpret_cast<const char*>(table.data()), 4 * table.size()) + codes +
      bytesOf(layer.bias));
  NNLayer read;
  EXPECT_EQ(record.readInto(read), static_cast<int>(record.size()));
  EXPECT_TRUE(sameLayer(read, layer));
}

// --- Refusals ---

TEST(RowCodesRecordRefusal, everyShorterLength) {
  for (const ByteImage& record : {byteRecord(), halfByteRecord()}) {
    for (std::size_t length = 0; length < record.size(); ++length) {
      ByteImage shorter = record;
      expectRefused(shorter.truncateTo(length), std::to_string(length));
    }
  }
}

TEST(RowCodesRecordRefusal, wordsThatNoWriterPuts) {
  const int32_t negativeZero = std::numeric_limits<int32_t>::min();
  for (const ByteImage& original : {byteRecord(), halfByteRecord()}) {
    for (const int32_t scale : {0, negativeZero, -1, 0x7F800000, 0x7FC00000, 0x7F7FFFFF}) {
      ByteImage record = original;
      expectRefused(record.setInt32At(kScales + 12, scale).append(std::string(4096, '\0')),
                    "scale " + std::to_string(scale));
    }
    for (const int32_t form : {0, 1, 2, 5, -1}) {
      ByteImage record = original;
      expectRefused(record.setInt32At(kForm, form).append(std::string(4096, '\0')),
                    "form " + std::to_string(form));
    }
  }
  expectRefused(byteRecord().setInt32At(kForm, kHalfByteRowCodes).append(std::string(4096, '\0')),
                "half bytes");
  expectRefused(halfByteRecord().setInt32At(kForm, kByteRowCodes).append(std::string(4096, '\0')),
                "bytes");
}

// Put together by hand where the writer stores floats, or a table.
TEST(RowCodesRecordRefusal, aFormThatTheWriterDoesNotChoose) {
  NNLayer few(100, 80, false);
  for (Eigen::Index i = 0; i < few.weights.size(); ++i) {
    few.weights.data()[i] = static_cast<float>(i % 3);
  }
  for (const NNLayer& layer : {quantized(plainLayer(30, 3), 4), few}) {
    const auto rows = static_cast<std::size_t>(layer.weights.rows());
    const auto cols = static_cast<std::size_t>(layer.weights.cols());
    const auto codes = mlnn::RowCodes::find(layer.weights.data(), rows, cols);
    ASSERT_TRUE(codes);
    ASSERT_EQ(codes->bits, 4u);
    ASSERT_LT(formOf(layer), kByteRowCodes);
    const ByteImage record(headOf(kHalfByteRowCodes, layer) + bytesOf(codes->scales) +
                           std::string(codes->codes.begin(), codes->codes.end()) +
                           bytesOf(layer.bias));
    expectRefused(record, std::to_string(rows));
  }
}

TEST(RowCodesRecordRefusal, layersWithoutWeights) {
  for (const uint32_t form : {kByteRowCodes, kHalfByteRowCodes}) {
    for (const auto& [rows, cols] : {std::pair{0, 0}, {0, 5}, {5, 0}, {5, 0x7FFFFFFF}}) {
      ByteImage record(headOf(form, plainLayer(5, 5)) + std::string(4096, '\0'));
      record.setInt32At(kRows, rows).setInt32At(kCols, cols).setInt32At(20, rows);
      expectRefused(record, std::to_string(rows) + "x" + std::to_string(cols));
    }
  }
}

TEST(RowCodesRecordRefusal, hugeDimensionsAllocateNothing) {
  constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
  const int32_t sizes[][2] = {{kMaxInt, kMaxInt}, {1 << 16, 1 << 16}, {1 << 30, 4}, {1, 1 << 30},
                              {1 << 15, 1 << 15}, {1 << 30, 1 << 30}, {1, 2000},    {1 << 30, 8}};
  for (const ByteImage& original : {byteRecord(), halfByteRecord()}) {
    for (const auto& [rows, cols] : sizes) {
      ByteImage record = original;
      record.setInt32At(kRows, rows).setInt32At(kCols, cols).setInt32At(20, rows);
      const mlnn::test::GuardedBytes bytes(record.bytes());
      NNLayer layer;
      const mlnn::test::AllocationWatch watch;
      EXPECT_LT(layer.deserializeBinary(bytes.data(), static_cast<int>(record.size())), 1);
      EXPECT_EQ(watch.allocations(), 0u) << rows << "x" << cols;
    }
  }
}

TEST(RowCodesRecord, takesAtMostEightTimesItsLengthInMemory) {
  for (const int bits : {4, 8}) {
    const ByteImage record = ByteImage::of(quantized(plainLayer(400, 160), bits));
    NNLayer layer;
    const mlnn::test::AllocationWatch watch;
    ASSERT_GT(layer.deserializeBinary(record.bytes().data(), static_cast<int>(record.size())), 0);
    EXPECT_LE(watch.peak(), 8 * record.size());
  }
}

// Whatever is accepted is what the writer writes.
TEST(RowCodesRecordDamage, whatIsReadIsWrittenBackToTheByte) {
  std::mt19937 random(3);
  int accepted = 0;
  for (const ByteImage& original : {byteRecord(), halfByteRecord()}) {
    for (int round = 0; round < 20000; ++round) {
      ByteImage record = original;
      for (std::size_t edits = 1 + random() % 3; edits > 0; --edits) {
        const std::size_t at = random() % record.size();
        const int value = random() % 2 == 0
                              ? static_cast<int>(random() % 256)
                              : static_cast<int>(record.bytes()[random() % record.size()]);
        record.setByteAt(at, static_cast<unsigned char>(value));
      }
      NNLayer layer;
      const int length = record.readInto(layer);
      if (length < 1) continue;
      ++accepted;
      ASSERT_EQ(ByteImage::of(layer).bytes(),
                record.bytes().substr(0, static_cast<std::size_t>(length)));
    }
  }
  EXPECT_GT(accepted, 1000);
}

// --- What it is for ---

TEST(RowCodesRecord, imagesOfQuantisedNetworksAreSmall) {
  int medium[] = {600, 256, 256, 256, 40};
  int large[] = {1024, 512, 100};
  std::mt19937 random(1);
  std::normal_distribution<float> spread(0, 0.05f);
  for (MultiLayerNNModel model : {MultiLayerNNModel(medium, 5), MultiLayerNNModel(large, 3)}) {
    for (NNLayer* layer : model.layers) {
      for (float& weight : layer->weights.reshaped()) weight = spread(random);
    }
    model.deltasNorm.allocIfNeeded();
    const double plain = model.binarySerializedLength();
    for (const auto& [bits, share] : {std::pair{8, 0.26}, {4, 0.135}}) {
      MultiLayerNNModel copy(model);
      ASSERT_EQ(mlnn::quantizeRows(copy, {bits}), 0);
      EXPECT_LE(copy.binarySerializedLength() / plain, share) << bits;
    }
  }
}

}  // namespace
