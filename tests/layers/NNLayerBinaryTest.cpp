// The binary record of a layer.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>

#include "layers/NNLayer.h"
#include "layers/NNLayerRecord.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::batchNormLayer;
using mlnn::test::ByteImage;
using mlnn::test::crc32c;
using mlnn::test::fewValuesLayer;
using mlnn::test::foldedLayer;
using mlnn::test::plainLayer;
using mlnn::test::sameLayer;
using mlnn::test::stderrOf;
using mlnn::test::untouchedLayer;

constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
constexpr int32_t kMinInt = std::numeric_limits<int32_t>::min();

// Where the words of a record's head stand.
enum HeadOffset : std::size_t {
  kForm = 0,
  kRows = 4,
  kCols = 8,
  kActFn = 12,
  kIsBatchNorm = 16,
  kBiasLength = 20,
  kGammaLength = 24,
  kBetaLength = 28,
  kGammaInfLength = 32,
  kBetaInfLength = 36,
  kHeadEnd = 40
};

NNLayer batchNormLayerWithoutBias(int inputs, int outputs) {
  NNLayer layer = batchNormLayer(inputs, outputs);
  layer.bias.resize(0);
  return layer;
}

std::vector<NNLayer> layersOfAllKinds() {
  NNLayer partlyFolded = foldedLayer(3, 2);
  partlyFolded.beta.resize(0);
  return {NNLayer(),
          plainLayer(3, 2),
          batchNormLayer(3, 2),
          batchNormLayerWithoutBias(3, 2),
          foldedLayer(3, 2),
          partlyFolded,
          NNLayer(0, 4, false),
          NNLayer(4, 0, false),
          NNLayer(0, 4, true),
          NNLayer(4, 0, true),
          NNLayer(kMaxInt, 0, false),
          fewValuesLayer(12, 2, 3),    // half-byte codes
          fewValuesLayer(13, 5, 17),   // the same with a rare value
          fewValuesLayer(13, 7, 30)};  // byte codes
}

// A layer that differs from whatever a record holds, to see it replaced or left alone.
NNLayer oldLayer() { return foldedLayer(7, 6, 9); }

// --- The record ---

constexpr char kWorkedRecord[] = R"(
  00 00 00 00   | form: plain floats
  02 00 00 00   | rows
  03 00 00 00   | cols
  01 00 00 00   | actFn: sigmoid
  00 00 00 00   | isBatchNorm
  02 00 00 00   | length of bias
  00 00 00 00   | length of gamma
  00 00 00 00   | length of beta
  00 00 00 00   | length of gamma_inf
  00 00 00 00   | length of beta_inf
  00 00 80 3f  00 00 80 c0    | weights, column 0: 1, -4
  00 00 00 40  00 00 a0 c0    | column 1: 2, -5
  00 00 40 40  00 00 c0 c0    | column 2: 3, -6
  00 00 00 3f  00 00 00 80    | bias: 0.5, -0
)";

NNLayer workedLayer() {
  NNLayer layer(3, 2, false);
  layer.weights << 1, 2, 3, -4, -5, -6;
  layer.bias << 0.5f, -0.0f;
  layer.actFn = ActFn::sigmoid;
  return layer;
}

TEST(NNLayerRecord, holdsHeadThenArraysInOrder) {
  EXPECT_EQ(ByteImage::of(workedLayer()).bytes(), ByteImage::fromHex(kWorkedRecord).bytes());
  NNLayer read;
  EXPECT_EQ(ByteImage::fromHex(kWorkedRecord).readInto(read), 72);
  EXPECT_TRUE(sameLayer(read, workedLayer()));
}

TEST(NNLayerRecord, vectorsFollowTheWeightsInTheOrderOfTheFields) {
  NNLayer layer(0, 1, true);
  layer.bias << 1;
  layer.gamma << 2;
  layer.beta << 3;
  layer.gamma_inf << 4;
  layer.beta_inf << 5;
  const ByteImage record = ByteImage::of(layer);
  ASSERT_EQ(record.size(), kHeadEnd + 5 * sizeof(float));
  for (std::size_t i = 0; i < 5; ++i) {
    float value;
    std::memcpy(&value, record.bytes().data() + kHeadEnd + 4 * i, sizeof value);
    EXPECT_EQ(value, static_cast<float>(i + 1));
  }
}

TEST(NNLayerRecord, lengthIsFortyBytesAndFourForEachValue) {
  EXPECT_EQ(NNLayer().binarySerializedLength(), 40);
  EXPECT_EQ(plainLayer(3, 2).binarySerializedLength(), 40 + 4 * (6 + 2));
  EXPECT_EQ(batchNormLayer(3, 2).binarySerializedLength(), 40 + 4 * (6 + 5 * 2));
  EXPECT_EQ(foldedLayer(3, 2).binarySerializedLength(), 40 + 4 * (6 + 5 * 2));
  EXPECT_EQ(NNLayer(0, 4, false).binarySerializedLength(), 40 + 4 * 4);
  EXPECT_EQ(NNLayer(4, 0, false).binarySerializedLength(), 40);
}

TEST(NNLayerRecord, writerTouchesNothingBehindItsLength) {
  const NNLayer layer = batchNormLayer(3, 2);
  std::string buffer(static_cast<std::size_t>(layer.binarySerializedLength()) + 8, '\x5A');
  EXPECT_EQ(layer.serializeBinary(buffer.data()), layer.binarySerializedLength());
  EXPECT_EQ(buffer.substr(buffer.size() - 8), std::string(8, '\x5A'));
}

TEST(NNLayerRecord, tooLongForAnIntHasNoLength) {
  if (sizeof(void*) == 4) GTEST_SKIP() << "no room for such a layer";
  // 2^31 bytes, of which those of a few hundred different values are touched.
  EXPECT_EQ(untouchedLayer(1 << 15, 1 << 14).binarySerializedLength(), -1);
  // The longest record: 2^31 - 4 bytes, as records are multiples of 4.
  EXPECT_EQ(untouchedLayer((kMaxInt - 40) / 4, 1).binarySerializedLength(), kMaxInt - 3);
  EXPECT_EQ(untouchedLayer((kMaxInt - 40) / 4 + 1, 1).binarySerializedLength(), -1);
}

// --- Round trip ---

TEST(NNLayerRoundTrip, restoresEveryFieldWhateverTheTargetHeld) {
  for (const NNLayer& layer : layersOfAllKinds()) {
    const ByteImage record = ByteImage::of(layer);
    EXPECT_EQ(record.size() % 4, 0u);
    for (NNLayer target : {NNLayer(), oldLayer(), NNLayer(2, 3, true)}) {
      EXPECT_EQ(record.readInto(target), layer.binarySerializedLength());
      EXPECT_TRUE(sameLayer(target, layer));
      EXPECT_EQ(target.checksum(), layer.checksum());
    }
  }
}

TEST(NNLayerRoundTrip, everyActivationComesBack) {
  for (int32_t code = 0; code < ActFn::kCount; ++code) {
    NNLayer layer = plainLayer(2, 1);
    layer.actFn = static_cast<ActFn::ActFn>(code);
    NNLayer read;
    EXPECT_GT(ByteImage::of(layer).readInto(read), 0);
    EXPECT_EQ(read.actFn, code);
  }
}

TEST(NNLayerRoundTrip, everyBitPatternOfAFloatSurvives) {
  const uint32_t patterns[] = {0x00000000, 0x80000000, 0x00000001, 0x807FFFFF, 0x7F800000,
                               0xFF800000, 0x7FC00000, 0xFFC12345, 0x7F800001, 0xFFBFFFFF};
  NNLayer layer(10, 1, true);
  std::memcpy(layer.weights.data(), patterns, sizeof patterns);
  for (Eigen::VectorXf* values :
       {&layer.bias, &layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    std::memcpy(values->data(), &patterns[8], sizeof(float));  // a signalling NaN
  }
  NNLayer read;
  EXPECT_GT(ByteImage::of(layer).readInto(read), 0);
  EXPECT_TRUE(sameLayer(read, layer));
}

TEST(NNLayerRoundTrip, bytesBehindTheRecordAreNotConsumed) {
  const NNLayer layer = batchNormLayer(3, 2);
  ByteImage record = ByteImage::of(layer);
  const auto length = static_cast<int>(record.size());
  record.append(std::string(100, '\xFF'));
  for (const int more : {0, 1, 3, 100}) {
    NNLayer read;
    EXPECT_EQ(record.readInto(read, length + more), length);
    EXPECT_TRUE(sameLayer(read, layer));
  }
}

// --- Refusals ---

// Expects that the record is refused without a word and that the layer stays as it was.
void expectRefused(const ByteImage& record, const std::string& what) {
  NNLayer layer = oldLayer();
  int result = 1;
  EXPECT_EQ(stderrOf([&] { result = record.readInto(layer); }), "") << what;
  EXPECT_LT(result, 1) << what;
  EXPECT_TRUE(sameLayer(layer, oldLayer())) << what;
}

TEST(NNLayerRefusal, everyShorterLengthIsRefused) {
  for (const NNLayer& layer : layersOfAllKinds()) {
    const ByteImage record = ByteImage::of(layer);
    for (std::size_t length = 0; length < record.size(); ++length) {
      expectRefused(ByteImage(record).truncateTo(length), std::to_string(length));
    }
  }
}

TEST(NNLayerRefusal, lengthsBelowZeroAreRefused) {
  const ByteImage record = ByteImage::of(plainLayer(3, 2));
  for (const int available : {-1, -72, kMinInt}) {
    NNLayer layer = oldLayer();
    EXPECT_LT(record.readInto(layer, available), 1);
    EXPECT_TRUE(sameLayer(layer, oldLayer()));
  }
}

struct BadWord {
  const char* what;
  NNLayer layer;
  std::size_t offset;
  int32_t value;
};

TEST(NNLayerRefusal, aHeadThatNoLayerCouldHaveIsRefused) {
  const NNLayer plain = plainLayer(3, 2);
  const NNLayer batchNorm = batchNormLayer(3, 2);
  const NNLayer folded = foldedLayer(3, 2);
  const std::vector<BadWord> cases = {
      {"form", plain, kForm, 3},
      {"form", plain, kForm, -1},
      {"negative rows", plain, kRows, -2},
      {"negative cols", plain, kCols, -3},
      {"lowest rows", plain, kRows, kMinInt},
      {"lowest cols", plain, kCols, kMinInt},
      {"rows that no vector fits", plain, kRows, 1},
      {"negative cols and no rows", NNLayer(4, 0, false), kCols, -1},
      {"activation", plain, kActFn, -1},
      {"activation", plain, kActFn, 8},
      {"activation", plain, kActFn, kMinInt},
      {"activation", plain, kActFn, 256},
      {"flag", batchNorm, kIsBatchNorm, 2},
      {"flag", batchNorm, kIsBatchNorm, -1},
      {"flag", batchNorm, kIsBatchNorm, 255},
      {"flag", batchNorm, kIsBatchNorm, 256},
      {"flag", batchNorm, kIsBatchNorm, kMinInt},
      {"batch norm without its vectors", plain, kIsBatchNorm, 1},
      {"plain without bias", batchNormLayerWithoutBias(3, 2), kIsBatchNorm, 0},
      {"no bias", plain, kBiasLength, 0},
      {"short bias", plain, kBiasLength, 1},
      {"negative bias", plain, kBiasLength, -2},
      {"short bias of batch norm", batchNorm, kBiasLength, 1},
      {"negative bias of batch norm", batchNorm, kBiasLength, -1},
      {"no gamma", batchNorm, kGammaLength, 0},
      {"no beta", batchNorm, kBetaLength, 0},
      {"no gamma_inf", batchNorm, kGammaInfLength, 0},
      {"no beta_inf", batchNorm, kBetaInfLength, 0},
      {"short gamma", batchNorm, kGammaLength, 1},
      {"short gamma of a plain layer", folded, kGammaLength, 1},
      {"short beta of a plain layer", folded, kBetaLength, 1},
      {"short gamma_inf of a plain layer", folded, kGammaInfLength, 1},
      {"short beta_inf of a plain layer", folded, kBetaInfLength, 1},
      {"negative gamma", folded, kGammaLength, -2},
  };
  for (const BadWord& c : cases) {
    // Room behind the record, so that it is the word that is refused and not a lack of bytes.
    ByteImage record = ByteImage::of(c.layer);
    record.setInt32At(c.offset, c.value).append(std::string(4096, '\0'));
    expectRefused(record, std::string(c.what) + " " + std::to_string(c.value));
  }
}

// What a plain layer uses no vectors for may be left out of its record.
TEST(NNLayerRefusal, unusedVectorsMayBeEmptyEachByItself) {
  for (Eigen::VectorXf NNLayer::*vector :
       {&NNLayer::gamma, &NNLayer::beta, &NNLayer::gamma_inf, &NNLayer::beta_inf}) {
    NNLayer layer = foldedLayer(3, 2);
    (layer.*vector).resize(0);
    NNLayer read = oldLayer();
    EXPECT_GT(ByteImage::of(layer).readInto(read), 0);
    EXPECT_TRUE(sameLayer(read, layer));
  }
}

TEST(NNLayerRefusal, hugeDimensionsAllocateNothing) {
  struct Dimensions {
    int32_t rows, cols;
  };
  // Among them products that are 0 or small in 32 and in 64 bits, and byte counts that are.
  const Dimensions cases[] = {{kMaxInt, kMaxInt}, {1 << 16, 1 << 16}, {1 << 30, 4},
                              {1 << 30, 1},       {1, 1 << 30},       {kMaxInt, 0},
                              {1, kMaxInt},       {kMaxInt, 1},       {1 << 15, 1 << 15}};
  for (const Dimensions& c : cases) {
    for (const bool isBatchNorm : {false, true}) {
      ByteImage record(std::string(kHeadEnd + 400, '\0'));
      record.setInt32At(kRows, c.rows).setInt32At(kCols, c.cols);
      record.setInt32At(kBiasLength, c.rows);
      if (isBatchNorm) {
        record.setInt32At(kIsBatchNorm, 1);
        for (const std::size_t at : {kGammaLength, kBetaLength, kGammaInfLength, kBetaInfLength}) {
          record.setInt32At(at, c.rows);
        }
      }
      NNLayer layer;
      const mlnn::test::GuardedBytes bytes(record.bytes());
      const mlnn::test::AllocationWatch watch;
      EXPECT_LT(layer.deserializeBinary(bytes.data(), static_cast<int>(record.size())), 1);
      EXPECT_EQ(watch.allocations(), 0u) << c.rows << "x" << c.cols;
    }
  }
}

TEST(NNLayerRefusal, outOfMemoryLeavesTheLayerAndLeaksNothing) {
  if (!mlnn::test::kCanFailAllocations) GTEST_SKIP() << "the sanitizer owns the heap";
  const ByteImage record = ByteImage::of(batchNormLayer(3, 2));
  const mlnn::test::GuardedBytes bytes(record.bytes());
  NNLayer layer = oldLayer();
  const mlnn::test::AllocationWatch watch;
  std::size_t failures = 0;
  for (bool done = false; !done;) {
    const mlnn::test::FailingAllocation failure(failures);
    try {
      layer.deserializeBinary(bytes.data(), static_cast<int>(record.size()));
      done = true;
    } catch (const std::bad_alloc&) {
      ++failures;
      EXPECT_TRUE(sameLayer(layer, oldLayer()));
    }
    EXPECT_EQ(failure.happened(), !done);
  }
  EXPECT_EQ(failures, 6u);
  EXPECT_EQ(watch.live(), 0);  // six arrays came, six went
  EXPECT_TRUE(sameLayer(layer, batchNormLayer(3, 2)));
}

// --- Checksum ---

TEST(NNLayerChecksum, isTheCrc32cOfTheRecord) {
  ASSERT_EQ(crc32c("123456789"), 0xE3069283u);
  for (const NNLayer& layer : layersOfAllKinds()) {
    EXPECT_EQ(layer.checksum(), crc32c(ByteImage::of(layer).bytes()));
  }
}

TEST(NNLayerChecksum, dependsOnContentsAlone) {
  const NNLayer layer = batchNormLayer(3, 2);
  EXPECT_EQ(layer.checksum(), layer.checksum());
  EXPECT_EQ(NNLayer(layer).checksum(), layer.checksum());
  NNLayer grown = oldLayer();
  grown = layer;
  EXPECT_EQ(grown.checksum(), layer.checksum());
}

TEST(NNLayerChecksum, coversEveryField) {
  const NNLayer original = foldedLayer(3, 2);
  std::vector<NNLayer> changed(9, original);
  changed[0].weights(1, 2) += 1;
  changed[1].bias[1] += 1;
  changed[2].gamma[0] += 1;
  changed[3].beta[0] += 1;
  changed[4].gamma_inf[0] += 1;
  changed[5].beta_inf[1] += 1;
  changed[6].actFn = ActFn::tanh;
  changed[7].isBatchNorm = true;
  changed[8].gamma.swap(changed[8].beta);
  for (std::size_t i = 0; i < changed.size(); ++i) {
    EXPECT_NE(changed[i].checksum(), original.checksum()) << i;
  }
}

// Whether the damage to a record is noticed: the reader refuses it, or what it reads has
// another checksum.
bool isNoticed(const ByteImage& damaged, uint32_t checksum) {
  NNLayer read;
  return damaged.readInto(read) < 1 || read.checksum() != checksum;
}

TEST(NNLayerChecksum, everyFlippedBitIsNoticed) {
  for (const NNLayer& layer : layersOfAllKinds()) {
    const ByteImage record = ByteImage::of(layer);
    for (std::size_t bit = 0; bit < 8 * record.size(); ++bit) {
      EXPECT_TRUE(isNoticed(ByteImage(record).flipBit(bit), layer.checksum())) << "bit " << bit;
    }
  }
}

TEST(NNLayerChecksum, everyRunOfUpTo32BitsIsNoticed) {
  std::mt19937 random(1);
  for (const NNLayer& layer : layersOfAllKinds()) {
    const ByteImage record = ByteImage::of(layer);
    for (int round = 0; round < 1500; ++round) {
      const std::size_t length = 2 + random() % 31;
      const std::size_t start = random() % (8 * record.size() - length + 1);
      ByteImage damaged = record;
      damaged.flipBit(start).flipBit(start + length - 1);
      for (std::size_t bit = start + 1; bit + 1 < start + length; ++bit) {
        if (random() % 2 == 0) damaged.flipBit(bit);
      }
      ASSERT_TRUE(isNoticed(damaged, layer.checksum())) << "bits from " << start;
    }
  }
}

// Runs of ones that swap whole words of the head, which random runs hardly hit.
TEST(NNLayerChecksum, inversionOfAnyWholeWordIsNoticed) {
  for (const NNLayer& layer : layersOfAllKinds()) {
    const ByteImage record = ByteImage::of(layer);
    for (std::size_t at = 0; at + 4 <= record.size(); ++at) {
      ByteImage damaged = record;
      damaged.setInt32At(at, ~record.int32At(at));
      EXPECT_TRUE(isNoticed(damaged, layer.checksum())) << "byte " << at;
    }
  }
}

}  // namespace
