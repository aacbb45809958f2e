// The forms of a record that store weights as codes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <random>
#include <set>

#include "layers/CodedWeights.h"
#include "layers/NNLayerRecord.h"
#include "tests/support/AllocationWatch.h"
#include "tests/support/ByteImage.h"
#include "tests/support/CaptureStderr.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::kByteCodes;
using mlnn::kHalfByteCodes;
using mlnn::kPlainFloats;
using mlnn::test::ByteImage;
using mlnn::test::crc32c;
using mlnn::test::fewValuesLayer;
using mlnn::test::modelOf;
using mlnn::test::plainLayer;
using mlnn::test::sameLayer;
using mlnn::test::stderrOf;

// Where things stand in a record.
constexpr std::size_t kForm = 0;
constexpr std::size_t kRows = 4;
constexpr std::size_t kCols = 8;
constexpr std::size_t kTableLength = 40;
constexpr std::size_t kRareCount = 44;
constexpr std::size_t kTable = 48;

// A plain layer of one output with these bit patterns as weights.
NNLayer layerOf(const std::vector<uint32_t>& patterns) {
  NNLayer layer(static_cast<int>(patterns.size()), 1, false);
  std::memcpy(layer.weights.data(), patterns.data(), patterns.size() * sizeof(float));
  return layer;
}

// `count` weights: the values 100, 101 and so on, each as often as stated.
std::vector<uint32_t> occurring(const std::vector<std::size_t>& counts) {
  std::vector<uint32_t> patterns;
  uint32_t value = 100;
  for (const std::size_t count : counts) patterns.insert(patterns.end(), count, value++);
  return patterns;
}

// `count` weights of so many values, each as often as the others or once less.
std::vector<uint32_t> inTurn(std::size_t count, std::size_t distinct) {
  std::vector<uint32_t> patterns(count);
  for (std::size_t i = 0; i < count; ++i) patterns[i] = static_cast<uint32_t>(100 + i % distinct);
  return patterns;
}

mlnn::WeightsPlan planOf(const std::vector<uint32_t>& patterns) {
  return mlnn::planWeights({patterns.data(), 1, patterns.size()});
}

// Expects that the layer comes back from its record, to the bit.
void expectRoundTrip(const NNLayer& layer, const std::string& what) {
  const ByteImage record = ByteImage::of(layer);
  EXPECT_EQ(record.size() % 4, 0u) << what;
  EXPECT_EQ(layer.checksum(), crc32c(record.bytes())) << what;
  NNLayer read;
  EXPECT_EQ(record.readInto(read), layer.binarySerializedLength()) << what;
  EXPECT_TRUE(sameLayer(read, layer)) << what;
  EXPECT_EQ(read.checksum(), layer.checksum()) << what;
}

void expectRefused(const ByteImage& record, const std::string& what) {
  NNLayer layer = plainLayer(3, 2);
  int result = 1;
  EXPECT_EQ(stderrOf([&] { result = record.readInto(layer); }), "") << what;
  EXPECT_LT(result, 1) << what;
  EXPECT_TRUE(sameLayer(layer, plainLayer(3, 2))) << what;
}

// --- The choice of the form ---

TEST(WeightsPlan, takesTheFewestBytes) {
  struct Case {
    std::size_t weights, distinct;
    uint32_t form, tableLength, rareCount;
    uint64_t length;
  };
  const Case cases[] = {
      {0, 1, kPlainFloats, 0, 0, 0},
      {4, 1, kPlainFloats, 0, 0, 16},  // with a table: 8 + 4 + 4 bytes, as many
      {5, 1, kHalfByteCodes, 1, 0, 16},
      {1000, 1, kHalfByteCodes, 1, 0, 8 + 4 + 500},
      {1000, 16, kHalfByteCodes, 16, 0, 8 + 64 + 500},
      {1003, 16, kHalfByteCodes, 16, 0, 8 + 64 + 504},
      {1700, 17, kHalfByteCodes, 16, 100, 8 + 64 + 4 + 400 + 852},
      {1000, 18, kByteCodes, 18, 0, 8 + 72 + 1000},
      {1001, 256, kByteCodes, 256, 0, 8 + 1024 + 1004},
      {25700, 257, kByteCodes, 256, 100, 8 + 1024 + 4 + 400 + 25700},
      {25800, 258, kPlainFloats, 0, 0, 4 * 25800},
      {256, 256, kPlainFloats, 0, 0, 1024},
      {300, 256, kPlainFloats, 0, 0, 1200},
      {344, 256, kPlainFloats, 0, 0, 1376},  // with a table: 8 + 1024 + 344 bytes, as many
      {346, 256, kByteCodes, 256, 0, 8 + 1024 + 348},
  };
  for (const Case& c : cases) {
    const std::string what = std::to_string(c.weights) + " of " + std::to_string(c.distinct);
    const mlnn::WeightsPlan plan = planOf(inTurn(c.weights, c.distinct));
    EXPECT_EQ(plan.form, c.form) << what;
    EXPECT_EQ(plan.table.size(), c.tableLength) << what;
    EXPECT_EQ(plan.rareCount, c.rareCount) << what;
    EXPECT_EQ(mlnn::weightsLength(plan, {nullptr, 1, c.weights}), c.length) << what;
  }
}

// 17 values where the rarest is not rare: its positions would take more than bytes for all.
TEST(WeightsPlan, leavesNoValueOutWhereThatTakesMore) {
  EXPECT_EQ(planOf(inTurn(17, 17)).form, kPlainFloats);
  const mlnn::WeightsPlan plan = planOf(inTurn(34, 17));
  EXPECT_EQ(plan.form, kHalfByteCodes);  // 8 + 64 + 4 + 8 + 20 = 104; bytes: 8 + 68 + 36 = 112
  EXPECT_EQ(plan.rareCount, 2u);
  EXPECT_EQ(planOf(inTurn(30, 17)).form, kHalfByteCodes);
}

TEST(WeightsPlan, leavesOutTheRarestValueAndOfEquallyRareOnesTheLargestPattern) {
  std::vector<std::size_t> counts(17, 10);
  counts[5] = 3;
  EXPECT_EQ(planOf(occurring(counts)).rareValue, 105u);
  counts[9] = 3;
  EXPECT_EQ(planOf(occurring(counts)).rareValue, 109u);
  counts[2] = 2;
  const mlnn::WeightsPlan plan = planOf(occurring(counts));
  EXPECT_EQ(plan.rareValue, 102u);
  EXPECT_EQ(plan.rareCount, 2u);
  EXPECT_EQ(plan.table[2], 103u);
}

TEST(WeightsPlan, looksAtFewWeightsWhereThereAreManyValues) {
  std::vector<uint32_t> patterns(258);
  for (uint32_t i = 0; i < 258; ++i) patterns[i] = i;
  const std::string bytes(reinterpret_cast<const char*>(patterns.data()), 4 * patterns.size());
  const mlnn::test::GuardedBytes guarded(bytes);  // nothing can be read behind the 258
  EXPECT_EQ(mlnn::planWeights({guarded.data(), 1, std::size_t{1} << 28}).form, kPlainFloats);
}

// --- The record ---

constexpr char kHalfByteRecord[] = R"(
  02 00 00 00   | form: half-byte codes
  01 00 00 00   | rows
  0b 00 00 00   | cols
  01 00 00 00   | actFn: sigmoid
  00 00 00 00   | isBatchNorm
  01 00 00 00   | length of bias
  4 x 00 00 00 00
  03 00 00 00   | values in the table
  00 00 00 00   | weights with a rare value
  00 00 00 3f   | code 0: 0.5
  00 00 80 3f   | code 1: 1
  00 00 00 80   | code 2: -0
  10 12 00 22 01 01 | 0.5, 1, -0, 1, 0.5, 0.5, -0, -0, 1, 0.5, 1
  00 00
  00 00 40 40   | bias: 3
)";

TEST(CodedRecord, holdsTableAndCodes) {
  NNLayer layer(11, 1, false);
  layer.weights << 0.5f, 1, -0.0f, 1, 0.5f, 0.5f, -0.0f, -0.0f, 1, 0.5f, 1;
  layer.bias << 3;
  layer.actFn = ActFn::sigmoid;
  EXPECT_EQ(ByteImage::of(layer).bytes(), ByteImage::fromHex(kHalfByteRecord).bytes());
  NNLayer read;
  EXPECT_EQ(ByteImage::fromHex(kHalfByteRecord).readInto(read), 72);
  EXPECT_TRUE(sameLayer(read, layer));
}

TEST(CodedRecord, tellsWhereTheRareValueStands) {
  std::vector<uint32_t> patterns = inTurn(16 * 20, 16);
  patterns[7] = 4711;
  patterns[300] = 4711;
  const ByteImage record = ByteImage::of(layerOf(patterns));
  EXPECT_EQ(record.uint32At(kForm), kHalfByteCodes);
  EXPECT_EQ(record.uint32At(kTableLength), 16u);
  EXPECT_EQ(record.uint32At(kRareCount), 2u);
  const std::size_t rare = kTable + 16 * 4;
  EXPECT_EQ(record.uint32At(rare), 4711u);
  EXPECT_EQ(record.uint32At(rare + 4), 7u);
  EXPECT_EQ(record.uint32At(rare + 8), 300u);
  EXPECT_EQ(record.uint32At(rare + 12), 0x06543210u);  // code 0 at position 7
  EXPECT_EQ(record.size(), rare + 12 + 160 + 4);
}

TEST(CodedRecord, comesBackWhateverTheNumberOfValues) {
  for (const std::size_t distinct :
       {1u, 2u, 3u, 15u, 16u, 17u, 18u, 100u, 255u, 256u, 257u, 258u}) {
    for (const std::size_t count : {5u, 6u, 7u, 8u, 9u, 700u, 701u, 5003u, 20001u}) {
      expectRoundTrip(layerOf(inTurn(count, distinct)),
                      std::to_string(count) + " of " + std::to_string(distinct));
    }
  }
}

TEST(CodedRecord, comesBackWithAllItsOtherArrays) {
  NNLayer layer = fewValuesLayer(20, 3, 5);
  for (Eigen::VectorXf* values : {&layer.gamma, &layer.beta, &layer.gamma_inf, &layer.beta_inf}) {
    *values = mlnn::test::someValues(3, 1, 5);
  }
  expectRoundTrip(layer, "folded");
  layer.isBatchNorm = true;
  expectRoundTrip(layer, "batch norm");
  layer.bias.resize(0);
  expectRoundTrip(layer, "batch norm without bias");
}

TEST(CodedRecord, keepsEveryBitPattern) {
  std::vector<uint32_t> patterns = {0x00000000, 0x80000000, 0x00000001, 0x807FFFFF, 0x7F800000,
                                    0xFF800000, 0x7FC00000, 0xFFC12345, 0x7F800001, 0xFFBFFFFF};
  for (int i = 0; i < 5; ++i) {
    const std::vector<uint32_t> once = patterns;
    patterns.insert(patterns.end(), once.begin(), once.end());
  }
  const NNLayer layer = layerOf(patterns);
  ASSERT_EQ(ByteImage::of(layer).uint32At(kForm), kHalfByteCodes);
  expectRoundTrip(layer, "half bytes");
  for (uint32_t i = 0; i < 30; ++i) patterns.push_back(0x7F800000 + i);
  ASSERT_EQ(ByteImage::of(layerOf(patterns)).uint32At(kForm), kByteCodes);
  expectRoundTrip(layerOf(patterns), "bytes");
}

TEST(CodedRecord, needsNoAlignedMemory) {
  const NNLayer layer = fewValuesLayer(13, 5, 17);
  const std::string record = ByteImage::of(layer).bytes();
  for (std::size_t shift = 1; shift < 4; ++shift) {
    std::string buffer(record.size() + shift, '\0');
    layer.serializeBinary(buffer.data() + shift);
    EXPECT_EQ(buffer.substr(shift), record);
    NNLayer read;
    EXPECT_EQ(read.deserializeBinary(buffer.data() + shift, static_cast<int>(record.size())),
              static_cast<int>(record.size()));
    EXPECT_TRUE(sameLayer(read, layer));
  }
}

TEST(CodedRecord, anyStretchCanBeExpanded) {
  for (const std::size_t distinct : {3u, 17u, 40u, 257u}) {
    const std::vector<uint32_t> patterns = inTurn(5001, distinct);
    const ByteImage record = ByteImage::of(layerOf(patterns));
    mlnn::LayerRecordView view;
    ASSERT_TRUE(mlnn::viewRecord(record.bytes().data(), record.size(), view));
    ASSERT_EQ(view.plainWeights, nullptr);
    std::mt19937 random(1);
    for (int round = 0; round < 200; ++round) {
      const std::size_t first = random() % (patterns.size() + 1);
      const std::size_t count = random() % (patterns.size() - first + 1);
      std::vector<uint32_t> found(count + 1, 0xABCDEF);
      view.codedWeights.expand(first, count, found.data());
      const auto begin = patterns.begin() + static_cast<std::ptrdiff_t>(first);
      ASSERT_TRUE(std::equal(begin, begin + static_cast<std::ptrdiff_t>(count), found.begin()));
      ASSERT_EQ(found.back(), 0xABCDEFu);
    }
  }
}

TEST(CodedRecord, anyBlockCanBeExpanded) {
  for (const std::size_t distinct : {3u, 17u, 40u, 257u}) {
    const std::vector<uint32_t> patterns = inTurn(70 * 90, distinct);
    const ByteImage record = ByteImage::of(layerOf(patterns));
    mlnn::LayerRecordView view;
    ASSERT_TRUE(mlnn::viewRecord(record.bytes().data(), record.size(), view));
    std::vector<uint32_t> found(21 * 90 + 1, 0xABCDEF);
    view.codedWeights.expandBlock(33, 21, 70, 90, found.data());  // rows 33 to 53 of 70
    for (std::size_t column = 0; column < 90; ++column) {
      for (std::size_t row = 0; row < 21; ++row) {
        ASSERT_EQ(found[column * 21 + row], patterns[column * 70 + 33 + row]);
      }
    }
    EXPECT_EQ(found.back(), 0xABCDEFu);
    std::fill(found.begin(), found.end(), 0xABCDEFu);
    view.codedWeights.expandBlock(33, 0, 70, 90, found.data());
    EXPECT_EQ(std::count(found.begin(), found.end(), 0xABCDEFu), found.size()) << "no rows";
  }
}

// --- Refusals ---

// Records with 16 of at most 16 values in turn, with a 17th that is rare, and with bytes.
ByteImage halfByteRecord() { return ByteImage::of(layerOf(inTurn(99, 9))); }
ByteImage rareRecord() {
  std::vector<uint32_t> patterns = inTurn(320, 16);
  patterns[7] = patterns[300] = 4711;
  return ByteImage::of(layerOf(patterns));
}
ByteImage byteRecord() { return ByteImage::of(layerOf(inTurn(99, 20))); }

TEST(CodedRecordRefusal, everyShorterLength) {
  for (const ByteImage& record : {halfByteRecord(), rareRecord(), byteRecord()}) {
    for (std::size_t length = 0; length < record.size(); ++length) {
      ByteImage shorter = record;
      expectRefused(shorter.truncateTo(length), std::to_string(length));
    }
  }
}

struct BadWord {
  const char* what;
  ByteImage record;
  std::size_t offset;
  int32_t value;
};

TEST(CodedRecordRefusal, wordsThatNoWriterPuts) {
  const std::size_t rare = kTable + 16 * 4;
  const std::vector<BadWord> cases = {
      {"no table", halfByteRecord(), kTableLength, 0},
      {"table one shorter", halfByteRecord(), kTableLength, 8},
      {"table one longer", halfByteRecord(), kTableLength, 10},
      {"table too long for the codes", halfByteRecord(), kTableLength, 17},
      {"huge table", halfByteRecord(), kTableLength, -1},
      {"rare value beside a small table", halfByteRecord(), kRareCount, 1},
      {"many rare values", halfByteRecord(), kRareCount, -1},
      {"equal values", halfByteRecord(), kTable + 4, 100},
      {"descending values", halfByteRecord(), kTable + 4, 99},
      {"last values equal", halfByteRecord(), kTable + 32, 107},
      {"code behind the table", halfByteRecord(), kTable + 36, 0x76543219},
      {"bytes for half bytes", halfByteRecord(), kForm, kByteCodes},
      {"half bytes for bytes", byteRecord(), kForm, kHalfByteCodes},
      {"code behind the table", byteRecord(), kTable + 80, 0x03020114},
      {"table too long for bytes", byteRecord(), kTableLength, 257},
      {"one rare weight more", rareRecord(), kRareCount, 3},
      {"rare value that has a code", rareRecord(), rare, 105},
      {"positions that do not ascend", rareRecord(), rare + 4, 300},
      {"the same", rareRecord(), rare + 4, 301},
      {"position behind the weights", rareRecord(), rare + 8, 320},
      {"position far behind", rareRecord(), rare + 8, -1},
      {"position whose code is not 0", rareRecord(), rare + 4, 8},
      {"code at the position of a rare value", rareRecord(), rare + 12, 0x16543210},
      {"a value fewer in the table", rareRecord(), kTableLength, 15},
  };
  for (const BadWord& c : cases) {
    // Room behind the record, so that it is the word that is refused and not a lack of bytes.
    ByteImage record = c.record;
    ASSERT_NE(record.int32At(c.offset), c.value) << c.what;
    record.setInt32At(c.offset, c.value).append(std::string(4096, '\0'));
    expectRefused(record, std::string(c.what) + " " + std::to_string(c.value));
  }
}

TEST(CodedRecordRefusal, aValueInTheTableThatNoWeightHas) {
  ByteImage record = halfByteRecord();
  // Every weight with the last value gets the one before.
  for (std::size_t byte = kTable + 36; byte < record.size() - 4; ++byte) {
    auto bits = static_cast<unsigned char>(record.bytes()[byte]);
    if ((bits & 0xF) == 8) bits = static_cast<unsigned char>((bits & 0xF0) | 7);
    if (bits >> 4 == 8) bits = static_cast<unsigned char>((bits & 0xF) | 0x70);
    record.setByteAt(byte, bits);
  }
  expectRefused(record, "unused value");
}

TEST(CodedRecordRefusal, bitsBehindTheLastCode) {
  for (const ByteImage& record : {halfByteRecord(), byteRecord()}) {
    const std::size_t codes = kTable + 4 * record.uint32At(kTableLength);
    const std::size_t codeBits = record.uint32At(kForm) == kByteCodes ? 8 : 4;
    const std::size_t end = 8 * (record.size() - 4);
    ASSERT_GT(end, 8 * codes + 99 * codeBits);
    for (std::size_t bit = 8 * codes + 99 * codeBits; bit < end; ++bit) {
      expectRefused(ByteImage(record).flipBit(bit), "bit " + std::to_string(bit));
    }
  }
}

// A record that stands for the same weights, put together by hand with another table.
std::string headOf(uint32_t form, std::size_t count) {
  const mlnn::LayerRecordHead head{form, 1, static_cast<int32_t>(count), 0, 0, 1, 0, 0, 0, 0};
  return std::string(reinterpret_cast<const char*>(&head), sizeof head);
}

std::string words(const std::vector<uint32_t>& values) {
  return std::string(reinterpret_cast<const char*>(values.data()), 4 * values.size());
}

// A record with the stated rare value: the others get codes in order.
ByteImage recordWithRareValue(const std::vector<uint32_t>& patterns, uint32_t rareValue) {
  std::set<uint32_t> table(patterns.begin(), patterns.end());
  table.erase(rareValue);
  const std::vector<uint32_t> values(table.begin(), table.end());
  std::vector<uint32_t> positions;
  std::vector<uint32_t> codes((patterns.size() + 7) / 8);
  for (uint32_t i = 0; i < patterns.size(); ++i) {
    const auto found = std::lower_bound(values.begin(), values.end(), patterns[i]);
    if (patterns[i] == rareValue) {
      positions.push_back(i);
    } else {
      codes[i / 8] |= static_cast<uint32_t>(found - values.begin()) << 4 * (i % 8);
    }
  }
  return ByteImage(
      headOf(kHalfByteCodes, patterns.size()) +
      words({static_cast<uint32_t>(values.size()), static_cast<uint32_t>(positions.size())}) +
      words(values) + words({rareValue}) + words(positions) + words(codes) + words({0}));
}

// Of two values that are equally rare, whether they occur once or more often, only the larger one
// may go without a code.
TEST(CodedRecordRefusal, aRareValueThatIsNotTheRarest) {
  for (const std::size_t occurrences : {1u, 3u}) {
    SCOPED_TRACE(occurrences);
    std::vector<std::size_t> counts(17, 20);
    counts[5] = counts[9] = occurrences;
    const std::vector<uint32_t> patterns = occurring(counts);
    NNLayer read;
    EXPECT_GT(recordWithRareValue(patterns, 109).readInto(read), 0);
    EXPECT_TRUE(sameLayer(read, layerOf(patterns)));
    expectRefused(recordWithRareValue(patterns, 105), "equally rare, but smaller");
    expectRefused(recordWithRareValue(patterns, 100), "common");
  }
}

TEST(CodedRecordRefusal, aSingleRareWeightWhereFloatsTakeNoMore) {
  NNLayer read;
  EXPECT_GT(recordWithRareValue(inTurn(24, 17), 116).readInto(read), 0);
  EXPECT_TRUE(sameLayer(read, layerOf(inTurn(24, 17))));
  expectRefused(recordWithRareValue(inTurn(23, 17), 116), "as long");
  expectRefused(recordWithRareValue(inTurn(22, 17), 116), "longer");
}

TEST(CodedRecordRefusal, aFormThatTheWriterDoesNotChoose) {
  const std::vector<uint32_t> few = inTurn(100, 3);
  expectRefused(ByteImage(headOf(kPlainFloats, 100) + words(few) + words({0})), "plain");
  // As many bytes as floats take: then they are stored as floats.
  const std::string coded = words({1, 0, 100}) + words({0});
  expectRefused(ByteImage(headOf(kHalfByteCodes, 4) + coded + words({0})), "coded");
  NNLayer read;
  EXPECT_GT(ByteImage(headOf(kHalfByteCodes, 5) + coded + words({0})).readInto(read), 0);
  expectRefused(ByteImage(headOf(kByteCodes, 5) + words({1, 0, 100, 0, 0}) + words({0})),
                "bytes where half bytes do");
}

TEST(CodedRecordRefusal, hugeDimensionsAllocateNothing) {
  constexpr int32_t kMaxInt = std::numeric_limits<int32_t>::max();
  const int32_t sizes[][2] = {{kMaxInt, kMaxInt}, {1 << 16, 1 << 16}, {1 << 30, 4}, {1, 1 << 30},
                              {1 << 15, 1 << 15}, {1 << 30, 1 << 30}, {1, 2000},    {1 << 30, 8}};
  for (const ByteImage& original : {halfByteRecord(), byteRecord(), rareRecord()}) {
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

TEST(CodedRecord, takesAtMostEightTimesItsLengthInMemory) {
  for (const std::size_t distinct : {1u, 16u, 17u, 200u}) {
    const ByteImage record = ByteImage::of(layerOf(inTurn(100000, distinct)));
    NNLayer layer;
    const mlnn::test::AllocationWatch watch;
    ASSERT_GT(layer.deserializeBinary(record.bytes().data(), static_cast<int>(record.size())), 0);
    EXPECT_LE(watch.largest(), 8 * record.size());
  }
}

// --- Damage ---

// The image of a small model with a layer of every form.
ByteImage smallImage() {
  MultiLayerNNModel model = modelOf({fewValuesLayer(8, 3, 2), fewValuesLayer(3, 30, 17),
                                     fewValuesLayer(30, 3, 18), plainLayer(3, 2)});
  model.deltasNorm.allocIfNeeded();
  return ByteImage::of(model);
}

TEST(CodedRecordDamage, everyChangeOfOneByteIsRefused) {
  const ByteImage original = smallImage();
  MultiLayerNNModel model;
  stderrOf([&] {
    ASSERT_EQ(original.readInto(model), static_cast<int>(original.size()));
    std::string bytes = original.bytes();
    for (std::size_t at = 1004; at < bytes.size(); ++at) {
      const char before = bytes[at];
      for (int change = 1; change < 256; ++change) {
        bytes[at] = static_cast<char>(before ^ change);
        MultiLayerNNModel damaged;
        ASSERT_EQ(damaged.deserializeBinary(bytes.data(), static_cast<unsigned>(bytes.size())), -1)
            << "byte " << at << ", bits " << change;
      }
      bytes[at] = before;
    }
  });
  std::set<uint32_t> forms;
  for (const NNLayer* layer : model.layers) forms.insert(ByteImage::of(*layer).uint32At(kForm));
  EXPECT_EQ(forms, (std::set<uint32_t>{kPlainFloats, kByteCodes, kHalfByteCodes}));
}

// Whatever is accepted is what the writer writes.
TEST(CodedRecordDamage, whatIsReadIsWrittenBackToTheByte) {
  std::mt19937 random(3);
  int accepted = 0;
  for (const ByteImage& original : {halfByteRecord(), rareRecord(), byteRecord()}) {
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

// A network of a real size; `spread` gives its weights.
template <typename Spread>
MultiLayerNNModel realSizedModel(Spread spread) {
  int sizes[] = {600, 256, 256, 256, 40};
  MultiLayerNNModel model(sizes, 5);
  std::mt19937 random(1);
  for (NNLayer* layer : model.layers) {
    for (Eigen::Index i = 0; i < layer->weights.size(); ++i)
      layer->weights.data()[i] = spread(random);
    for (float& value : layer->bias) value = spread(random);
  }
  model.deltasNorm.allocIfNeeded();
  return model;
}

double ratioAfterReduction(MultiLayerNNModel model, int bits) {
  const int plain = model.binarySerializedLength();
  stderrOf([&] { model.retainPrecisionBits(bits); });
  return static_cast<double>(model.binarySerializedLength()) / plain;
}

TEST(CodedRecord, reducedModelsHaveSmallImages) {
  const MultiLayerNNModel normal = realSizedModel(std::normal_distribution<float>(0, 0.05f));
  const MultiLayerNNModel even = realSizedModel(std::uniform_real_distribution<float>(-1, 1));
  // Many weights at the very end of the range: the 257th value of the grid is common.
  const MultiLayerNNModel clipped = realSizedModel(
      [normalValue = std::normal_distribution<float>(0, 1)](std::mt19937& random) mutable {
        return std::clamp(normalValue(random), -1.0f, 1.0f);
      });
  for (const MultiLayerNNModel* model : {&normal, &even, &clipped}) {
    EXPECT_LE(ratioAfterReduction(*model, 8), 0.27);
    EXPECT_LE(ratioAfterReduction(*model, 7), 0.27);
    EXPECT_LE(ratioAfterReduction(*model, 3), 0.14);
    EXPECT_LE(ratioAfterReduction(*model, 4), 0.20);
  }
}

// Bytes that somebody else changes, as in a mapped file, make other numbers and nothing worse.
TEST(CodedRecord, changedAfterItWasCheckedWritesWithinItsBlock) {
  constexpr std::size_t kWeights = 320;
  constexpr std::size_t kPosition = kTable + 16 * 4 + 4;
  constexpr std::size_t kBegin = 100;
  constexpr std::size_t kBlock = 50;
  constexpr float kUntouched = -7.0f;
  for (const int32_t first : {0, 99, 149, 150, 319, 320, -1}) {
    for (const int32_t second : {0, 99, 100, 149, 150, -1, std::numeric_limits<int32_t>::min()}) {
      ByteImage record = rareRecord();
      const std::size_t length = record.size() - kTableLength;
      std::string bytes = record.bytes();
      mlnn::CodedWeights weights;
      ASSERT_TRUE(weights.view(kHalfByteCodes, kWeights, bytes.data() + kTableLength, length));
      std::memcpy(&bytes[kPosition], &first, sizeof first);
      std::memcpy(&bytes[kPosition + 4], &second, sizeof second);
      std::vector<float> floats(3 * kBlock, kUntouched);
      weights.expand(kBegin, kBlock, floats.data() + kBlock);
      for (std::size_t i = 0; i < kBlock; ++i) {
        EXPECT_EQ(floats[i], kUntouched) << first << ' ' << second;
        EXPECT_EQ(floats[2 * kBlock + i], kUntouched) << first << ' ' << second;
      }
    }
  }
}

}  // namespace
