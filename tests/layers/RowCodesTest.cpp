// Weights as whole numbers times a scale for each row: which have that form, and its bytes.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>

#include "layers/RowCodes.h"
#include "tests/support/AllocationWatch.h"

namespace {

using mlnn::findRowScales;
using mlnn::RowCodes;
using mlnn::RowCodesView;

constexpr float kMaxFloat = std::numeric_limits<float>::max();
constexpr float kMinDenormal = std::numeric_limits<float>::denorm_min();
constexpr float kInfinity = std::numeric_limits<float>::infinity();

// The codes of a layer of one output with these weights.
std::optional<RowCodes> rowOf(const std::vector<float>& weights) {
  return RowCodes::find(weights.data(), 1, weights.size());
}

std::vector<int> codesOf(const RowCodes& codes, std::size_t row = 0) {
  std::vector<int> found;
  for (std::size_t col = 0; col < codes.cols; ++col) found.push_back(codes.view().code(row, col));
  return found;
}

uint32_t bitsOf(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  return bits;
}

// --- Which weights have the form ---

struct Row {
  const char* what;
  std::vector<float> weights;
  float scale;
  unsigned bits;
  std::vector<int> codes;
};

TEST(RowCodes, aRowHasTheGreatestScaleOfWhichItsWeightsAreMultiples) {
  const std::vector<Row> rows = {
      {"one weight", {0.1f}, 0.1f, 4, {1}},
      {"a negative one", {-0.1f}, 0.1f, 4, {-1}},
      {"a common divisor", {6, -4, 0, 10}, 2, 4, {3, -2, 0, 5}},
      {"found late", {6, -6, 6, 4}, 2, 4, {3, -3, 3, 2}},
      {"found in steps", {120, 60, 30, 15, 5}, 5, 8, {24, 12, 6, 3, 1}},
      {"zeros first", {0, 0, 0.75f, 0.5f}, 0.25f, 4, {0, 0, 3, 2}},
      {"only zeros", {0, 0, 0}, 0, 4, {0, 0, 0}},
      {"7 is of four bits", {7, -7, 1}, 1, 4, {7, -7, 1}},
      {"8 is of eight", {8, 1}, 1, 8, {8, 1}},
      {"the largest code", {127, -127, 1}, 1, 8, {127, -127, 1}},
      {"denormal", {3 * kMinDenormal, -2 * kMinDenormal}, kMinDenormal, 4, {3, -2}},
      {"denormal and not", {0x1p-126f, 0x1p-126f + 0x1p-128f}, 0x1p-128f, 4, {4, 5}},
      {"the largest floats", {kMaxFloat, -kMaxFloat}, kMaxFloat, 4, {1, -1}},
      {"near the largest floats", {0x1.fcp127f, 0x1p121f}, 0x1p121f, 8, {127, 1}},
      {"24 bits in the scale", {0x1.000002p0f, 0x1.000002p3f}, 0x1.000002p0f, 8, {1, 8}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.what);
    const std::optional<RowCodes> found = rowOf(row.weights);
    ASSERT_TRUE(found);
    EXPECT_EQ(bitsOf(found->scales[0]), bitsOf(row.scale));
    EXPECT_EQ(found->bits, row.bits);
    EXPECT_EQ(codesOf(*found), row.codes);
    EXPECT_TRUE(found->view().isCanonical());
  }
}

TEST(RowCodes, weightsWithoutTheForm) {
  const std::vector<std::vector<float>> rows = {
      {},
      {128, 1},
      {1, 128},
      {127, 0.5f},
      {127, 126.5f},
      {0.1f, 0.2f, 0.3f},
      {1, 1, 1, 1 + 0x1p-23f},
      {1, -0.0f},
      {-0.0f, 1},
      {-0.0f},
      {0, -0.0f},
      {kInfinity},
      {1, kInfinity},
      {0, -kInfinity},
      {std::nanf(""), 1},
      {1, std::nanf("")},
      {0, std::nanf("")},
      {kMaxFloat, 1},
      {kMaxFloat, kMinDenormal},
      {128 * kMinDenormal, kMinDenormal},
      {1, kMinDenormal},
      {kMinDenormal, 1},
  };
  for (const std::vector<float>& weights : rows) {
    EXPECT_FALSE(rowOf(weights)) << ::testing::PrintToString(weights);
  }
}

TEST(RowCodes, oneRowWithoutTheFormIsEnough) {
  std::vector<float> weights(33 * 9, 1.0f);
  ASSERT_TRUE(RowCodes::find(weights.data(), 33, 9));
  for (const std::size_t at : {0u, 32u, 33u, 8u * 33u + 32u}) {
    std::vector<float> other = weights;
    other[at] = 0x1p-8f;
    EXPECT_FALSE(RowCodes::find(other.data(), 33, 9)) << at;
  }
  EXPECT_FALSE(RowCodes::find(weights.data(), 0, 9));
  EXPECT_FALSE(RowCodes::find(weights.data(), 9, 0));
}

// --- Any codes come back ---

// Weights of codes and scales that this test draws: scales of up to 17 bits, and with each row a
// code 1, so that the scale is the canonical one.
struct Drawn {
  std::size_t rows;
  std::size_t cols;
  std::vector<float> scales;
  std::vector<int> codes;  // column-major
  std::vector<float> weights;

  Drawn(std::size_t rowCount, std::size_t colCount, int largest, uint32_t seed)
      : rows(rowCount), cols(colCount) {
    std::mt19937 random(seed);
    for (std::size_t r = 0; r < rows; ++r) {
      const int mantissa = static_cast<int>(0x10000 + random() % 0x10000);
      scales.push_back(std::ldexp(static_cast<float>(mantissa), -20 - static_cast<int>(r % 90)));
    }
    const auto range = static_cast<uint32_t>(2 * largest + 1);
    for (std::size_t i = 0; i < rows * cols; ++i) {
      codes.push_back(static_cast<int>(random() % range) - largest);
      if (i / rows == i % rows % cols) codes.back() = 1;
      weights.push_back(static_cast<float>(codes.back()) * scales[i % rows]);
    }
    codes[0] = 1;
    if (cols > 1) codes[rows] = largest;
    weights[0] = scales[0];
    if (cols > 1) weights[rows] = static_cast<float>(largest) * scales[0];
  }
};

TEST(RowCodes, theCodesAndScalesOfAnyShapeAreFound) {
  for (const int largest : {1, 7, 8, 127}) {
    for (const std::size_t rows : {1u, 2u, 15u, 16u, 17u, 40u}) {
      for (const std::size_t cols : {2u, 3u, 4u, 5u, 64u, 129u}) {
        SCOPED_TRACE(::testing::Message() << largest << ' ' << rows << 'x' << cols);
        const Drawn drawn(rows, cols, largest, static_cast<uint32_t>(rows * cols));
        const std::optional<RowCodes> found = RowCodes::find(drawn.weights.data(), rows, cols);
        ASSERT_TRUE(found);
        EXPECT_EQ(found->rows, rows);
        EXPECT_EQ(found->cols, cols);
        EXPECT_EQ(found->bits, largest <= 7 ? 4u : 8u);
        EXPECT_EQ(found->scales, drawn.scales);
        EXPECT_EQ(found->codes.size(), mlnn::rowCodesLength(rows, cols, found->bits));
        for (std::size_t i = 0; i < rows * cols; ++i) {
          ASSERT_EQ(found->view().code(i % rows, i / rows), drawn.codes[i]) << i;
        }
        EXPECT_TRUE(found->view().isCanonical());
      }
    }
  }
}

TEST(RowCodes, weightsAreReadAtAnyAddress) {
  const Drawn drawn(18, 7, 127, 3);
  std::vector<char> bytes(drawn.weights.size() * sizeof(float) + 1);
  std::memcpy(bytes.data() + 1, drawn.weights.data(), bytes.size() - 1);
  const std::optional<mlnn::RowScales> scales = findRowScales(bytes.data() + 1, 18, 7);
  ASSERT_TRUE(scales);
  EXPECT_EQ(scales->values, drawn.scales);
  EXPECT_EQ(scales->bits, 8u);
}

// --- The bytes ---

TEST(RowCodes, bytesOfEightBits) {
  // Row r has r + 1 and -8 in its first and fifth column; 17 rows are two panels.
  std::vector<float> weights(17 * 5);
  for (std::size_t r = 0; r < 17; ++r) {
    weights[r] = 1;
    weights[2 * 17 + r] = static_cast<float>(r);
    weights[4 * 17 + r] = -8;
  }
  const std::optional<RowCodes> found = RowCodes::find(weights.data(), 17, 5);
  ASSERT_TRUE(found);
  std::vector<unsigned char> expected(4 * 64, 128);
  for (std::size_t lane = 0; lane < 16; ++lane) {
    expected[lane * 4] = 129;
    expected[lane * 4 + 2] = static_cast<unsigned char>(128 + lane);
    expected[64 + lane * 4] = 120;
  }
  expected[128] = 129;
  expected[130] = 128 + 16;
  expected[192] = 120;
  EXPECT_EQ(found->codes, expected);
}

TEST(RowCodes, bytesOfFourBits) {
  std::vector<float> weights(16 * 4);
  for (std::size_t r = 0; r < 16; ++r) {
    weights[r] = 1;
    weights[16 + r] = static_cast<float>(static_cast<int>(r % 8));
    weights[48 + r] = -7;
  }
  const std::optional<RowCodes> found = RowCodes::find(weights.data(), 16, 4);
  ASSERT_TRUE(found);
  std::vector<unsigned char> expected(32);
  for (std::size_t lane = 0; lane < 8; ++lane) {  // in the lower halves; rows 8 to 15 in the upper
    const auto second = static_cast<unsigned char>(8 + lane);
    expected[lane * 4] = 0x99;
    expected[lane * 4 + 1] = static_cast<unsigned char>(second | second << 4);
    expected[lane * 4 + 2] = 0x88;
    expected[lane * 4 + 3] = 0x11;
  }
  EXPECT_EQ(found->codes, expected);
}

TEST(RowCodes, lengths) {
  EXPECT_EQ(mlnn::rowCodesLength(1, 1, 8), 64u);
  EXPECT_EQ(mlnn::rowCodesLength(16, 4, 8), 64u);
  EXPECT_EQ(mlnn::rowCodesLength(17, 4, 8), 128u);
  EXPECT_EQ(mlnn::rowCodesLength(16, 5, 4), 64u);
  EXPECT_EQ(mlnn::rowCodesLength(0, 5, 4), 0u);
  EXPECT_EQ(mlnn::rowCodesLength(0x7FFFFFFF, 0x7FFFFFFF, 8), uint64_t{1} << 62);
}

// --- Reading ---

TEST(RowCodes, anyBlockIsUnpacked) {
  constexpr float kUntouched = -1234;
  for (const int largest : {7, 127}) {
    const Drawn drawn(37, 11, largest, 5);
    const std::optional<RowCodes> codes = RowCodes::find(drawn.weights.data(), 37, 11);
    ASSERT_TRUE(codes);
    for (std::size_t row = 0; row <= 37; row += 3) {
      for (std::size_t rows = 0; row + rows <= 37; rows += 5) {
        for (std::size_t col = 0; col < 11; ++col) {
          for (std::size_t cols = 0; col + cols <= 11; ++cols) {
            std::vector<float> found(rows * cols + 1, kUntouched);
            codes->view().unpack(row, rows, col, cols, found.data());
            for (std::size_t i = 0; i < rows * cols; ++i) {
              const std::size_t at = (col + i / rows) * 37 + row + i % rows;
              ASSERT_EQ(bitsOf(found[i]), bitsOf(drawn.weights[at]));
            }
            ASSERT_EQ(found.back(), kUntouched);
          }
        }
      }
    }
  }
}

TEST(RowCodes, unpackingAndCheckingAllocateNothing) {
  const Drawn drawn(37, 11, 127, 5);
  const std::optional<RowCodes> codes = RowCodes::find(drawn.weights.data(), 37, 11);
  std::vector<float> found(37 * 11);
  const mlnn::test::AllocationWatch watch;
  codes->view().unpack(0, 37, 0, 11, found.data());
  EXPECT_TRUE(codes->view().isCanonical());
  EXPECT_EQ(watch.allocations(), 0u);
}

// --- What is not canonical ---

// Codes of two rows of five columns: 2, 0, 4, 0, 3 and 9, 0, 0, 0, 1.
RowCodes someCodes() {
  const std::vector<float> weights = {1, 4.5f, 0, 0, 2, 0, 0, 0, 1.5f, 0.5f};
  return *RowCodes::find(weights.data(), 2, 5);
}

TEST(RowCodesCanonical, aScaleThatIsNotTheGreatestDivisor) {
  RowCodes codes = someCodes();
  ASSERT_TRUE(codes.view().isCanonical());
  codes.codes[64] = 128 + 6;  // 2, 0, 4, 0, 6
  EXPECT_FALSE(codes.view().isCanonical());
}

TEST(RowCodesCanonical, scalesThatNoWeightsHave) {
  for (const float scale : {0.0f, -0.0f, -0.5f, kInfinity, -kInfinity, std::nanf("")}) {
    RowCodes codes = someCodes();
    codes.scales[1] = scale;
    EXPECT_FALSE(codes.view().isCanonical()) << scale;
  }
  RowCodes codes = someCodes();
  codes.scales[1] = 0.25f;
  EXPECT_TRUE(codes.view().isCanonical()) << "other weights";
}

TEST(RowCodesCanonical, aRowOfZerosHasTheScaleZero) {
  RowCodes codes = someCodes();
  codes.codes[4] = codes.codes[64 + 4] = 128;
  for (const float scale : {0.5f, -0.0f, kInfinity, std::nanf(""), kMinDenormal}) {
    codes.scales[1] = scale;
    codes.codes[0] = 128 + 8;
    EXPECT_FALSE(codes.view().isCanonical()) << scale;
  }
  codes.scales[1] = 0;
  EXPECT_TRUE(codes.view().isCanonical());
}

TEST(RowCodesCanonical, productsThatAreNoFloats) {
  RowCodes codes = someCodes();
  codes.scales[1] = 0x1p124f;  // times 9
  EXPECT_TRUE(codes.view().isCanonical());
  codes.scales[1] = 0x1p125f;
  EXPECT_FALSE(codes.view().isCanonical()) << "too large";
  codes.scales[1] = 0x1.00002p0f;  // 20 bits, and 4 in the code
  EXPECT_TRUE(codes.view().isCanonical());
  codes.scales[1] = 0x1.00001p0f;
  EXPECT_TRUE(codes.view().isCanonical());
  codes.scales[1] = 0x1.000008p0f;
  EXPECT_FALSE(codes.view().isCanonical()) << "too many bits";
  codes.codes[4] = 128 + 8;  // a power of two takes none
  EXPECT_TRUE(codes.view().isCanonical());
}

TEST(RowCodesCanonical, codesOutOfRange) {
  RowCodes codes = someCodes();
  codes.codes[5] = 0;
  EXPECT_FALSE(codes.view().isCanonical());
  codes.codes[5] = 1;
  EXPECT_TRUE(codes.view().isCanonical());
  const std::vector<float> weights = {1, 2};
  RowCodes half = *RowCodes::find(weights.data(), 1, 2);
  ASSERT_TRUE(half.view().isCanonical());
  half.codes[1] = 0x80;
  EXPECT_FALSE(half.view().isCanonical());
}

TEST(RowCodesCanonical, whatFillsUpTheBlocks) {
  const RowCodes original = someCodes();
  for (std::size_t at = 0; at < original.codes.size(); ++at) {
    const std::size_t row = at % 64 / 4;
    const std::size_t col = at / 64 * 4 + at % 4;
    if (row < 2 && col < 5) continue;
    for (const int value : {0, 127, 129, 255}) {
      RowCodes codes = original;
      codes.codes[at] = static_cast<unsigned char>(value);
      ASSERT_FALSE(codes.view().isCanonical()) << at << ' ' << value;
    }
  }
}

TEST(RowCodesCanonical, eightBitsWhereFourWillDo) {
  RowCodes codes = someCodes();
  codes.codes[4] = 128 + 7;
  EXPECT_FALSE(codes.view().isCanonical());
  codes.codes[4] = 128 - 8;
  EXPECT_TRUE(codes.view().isCanonical());
}

// Whatever is canonical is found again, and nothing else is.
TEST(RowCodesCanonical, isWhatIsFound) {
  std::mt19937 random(9);
  int canonical = 0;
  for (int round = 0; round < 20000; ++round) {
    const std::size_t rows = 1 + random() % 3;
    const std::size_t cols = 1 + random() % 6;
    Drawn drawn(rows, cols, round % 2 == 0 ? 7 : 127, static_cast<uint32_t>(random()));
    RowCodes codes = *RowCodes::find(drawn.weights.data(), rows, cols);
    for (int edits = 0; edits < 2; ++edits) {
      codes.codes[random() % (rows * 4)] = static_cast<unsigned char>(random());
    }
    if (random() % 4 == 0) codes.scales[random() % rows] *= 1 + 0x1p-20f;
    if (random() % 8 == 0) codes.scales[random() % rows] = 0;
    std::vector<float> weights(rows * cols);
    codes.view().unpack(0, rows, 0, cols, weights.data());
    const std::optional<RowCodes> again = RowCodes::find(weights.data(), rows, cols);
    const bool isSame = again && again->bits == codes.bits && again->codes == codes.codes &&
                        again->scales == codes.scales;
    ASSERT_EQ(codes.view().isCanonical(), isSame) << round;
    canonical += isSame;
  }
  EXPECT_GT(canonical, 1000);
}

}  // namespace
