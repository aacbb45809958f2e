#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "features/DbnFeatureDescription.h"
#include "tests/support/TestModels.h"

namespace {

using mlnn::test::sameDescription;

constexpr int32_t kMin = std::numeric_limits<int32_t>::min();
constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
constexpr char kText[] =
    "mel_deltas:bands=40,left=7,right=6,deltas=1,line_kernels=0,line_kernel_width=5";

DbnFeatureDescription make(int32_t bands, int32_t left, int32_t right, bool deltas) {
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  desc.numBands = bands;
  desc.winSizeLeft = left;
  desc.winSizeRight = right;
  desc.useDeltas = deltas;
  return desc;
}

// A description in which no field is as a new one has it.
DbnFeatureDescription makeOdd() {
  DbnFeatureDescription desc = make(-11, -22, -33, true);
  desc.lineKernelWidth = -44;
  desc.featType = 200;
  desc.reserved = 201;
  desc.useLineKernels = true;
  return desc;
}

std::string textOf(const DbnFeatureDescription& desc) {
  std::string text = "what the target held before";
  desc.serialize(text);
  return text;
}

// --- The value ---

TEST(DbnFeatureDescriptionValue, newOneHasEveryFieldZero) {
  const DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  const char zeros[20] = {};
  EXPECT_EQ(DbnFeatureDescription::MelDeltas, 0);
  EXPECT_EQ(std::memcmp(&desc, zeros, sizeof zeros), 0);
}

TEST(DbnFeatureDescriptionValue, fieldsStandWhereAnImageHasThem) {
  DbnFeatureDescription desc = make(0x14131211, 0x04030201, 0x08070605, true);
  desc.lineKernelWidth = 0x0C0B0A09;
  desc.featType = 0x0D;
  desc.reserved = 0x0E;
  desc.useLineKernels = false;
  const unsigned char bytes[20] = {1,  2,  3,    4,    5, 6, 7,    8,    9,    10,
                                   11, 12, 0x0D, 0x0E, 1, 0, 0x11, 0x12, 0x13, 0x14};
  ASSERT_EQ(sizeof desc, sizeof bytes);
  EXPECT_EQ(std::memcmp(&desc, bytes, sizeof bytes), 0);
}

TEST(DbnFeatureDescriptionValue, aTypeStandsForItsPlainDescription) {
  DbnFeatureDescription desc = DbnFeatureDescription::MelDeltas;
  EXPECT_EQ(desc.featType, 0);
  desc = static_cast<DbnFeatureDescription::FeatType>(3);
  EXPECT_EQ(desc.featType, 3);
}

TEST(DbnFeatureDescriptionValue, copiesEveryField) {
  const DbnFeatureDescription source = makeOdd();
  DbnFeatureDescription copy(DbnFeatureDescription::MelDeltas);
  copy = source;
  EXPECT_TRUE(sameDescription(copy, source));
}

// --- Lengths ---

struct LengthCase {
  int32_t bands, left, right;
  bool deltas;
  int frameLen, featLen;
};

TEST(DbnFeatureDescriptionLength, isFrameTimesWindowOrZero) {
  const LengthCase cases[] = {
      {40, 7, 7, true, 120, 1800},
      {40, 7, 7, false, 40, 600},
      {40, 0, 0, true, 120, 120},
      {1, 2, 0, false, 1, 3},
      {0, 7, 7, true, 0, 0},            // the bands are not stated
      {-40, 7, 7, true, 0, 0},          // a negative product
      {40, -8, 7, true, 120, 0},        // an empty window
      {40, -9, 7, true, 120, 0},        // a negative window
      {40, -1, 0, true, 120, 0},        //
      {-1, -3, 1, false, 0, 1},         // two negative factors make a positive product
      {kMax, 0, 0, false, kMax, kMax},  // the largest length there is
      {kMax, 0, 0, true, 0, 0},         // a frame that is too long
      {kMax, 0, 1, false, kMax, 0},     // a product that is too long
      {715827882, 0, 0, true, 2147483646, 2147483646},
      {715827883, 0, 0, true, 0, 0},     // three times this is one more than an int holds
      {1, kMax, kMax, false, 1, 0},      // the window alone is too long
      {1, kMax, 0, false, 1, 0},         //
      {1, kMax - 1, 0, false, 1, kMax},  //
      {1 << 16, (1 << 16) - 1, 0, false, 1 << 16, 0},  // 2^32: 0 in 32 bits
      {kMin, kMin, kMin, true, 0, 0},                  //
      {kMin, -2, 0, false, 0, 0},                      // 2^31
      {kMin, kMin, 0, true, 0, 0},                     // beyond 63 bits
      {-1, kMin, 0, false, 0, kMax},                   // -1 times -(2^31 - 1)
      {-1, kMin, -1, false, 0, 0},                     // -1 times -2^31
  };
  for (const LengthCase& c : cases) {
    const DbnFeatureDescription desc = make(c.bands, c.left, c.right, c.deltas);
    EXPECT_EQ(desc.frameLen(), c.frameLen) << textOf(desc);
    EXPECT_EQ(desc.featLen(), c.featLen) << textOf(desc);
  }
}

TEST(DbnFeatureDescriptionLength, doesNotDependOnLineKernels) {
  DbnFeatureDescription desc = make(40, 7, 7, true);
  desc.useLineKernels = true;
  desc.lineKernelWidth = 9;
  EXPECT_EQ(desc.frameLen(), 120);
  EXPECT_EQ(desc.featLen(), 1800);
}

// --- Text form ---

TEST(DbnFeatureDescriptionText, isOneWordWithTheKeysInOrder) {
  DbnFeatureDescription desc = make(40, 7, 6, true);
  desc.lineKernelWidth = 5;
  EXPECT_EQ(textOf(desc), kText);
  EXPECT_EQ(textOf(DbnFeatureDescription(DbnFeatureDescription::MelDeltas)),
            "mel_deltas:bands=0,left=0,right=0,deltas=0,line_kernels=0,line_kernel_width=0");
}

TEST(DbnFeatureDescriptionText, otherTypeIsWrittenByItsNumberAndRefused) {
  const std::string text = textOf(makeOdd());
  EXPECT_EQ(text,
            "type_200:bands=-11,left=-22,right=-33,deltas=1,line_kernels=1,line_kernel_width=-44");
  DbnFeatureDescription desc(DbnFeatureDescription::MelDeltas);
  EXPECT_EQ(desc.deserialize(text), 1);
  EXPECT_EQ(desc.deserialize("type_0" + std::string(kText).substr(10)), 1);
}

TEST(DbnFeatureDescriptionText, readsBackWhatItWrites) {
  const int32_t values[] = {kMin, -1, 0, 1, kMax};
  for (const int32_t value : values) {
    for (const bool flag : {false, true}) {
      DbnFeatureDescription written = make(value, value, value, flag);
      written.lineKernelWidth = value;
      written.useLineKernels = !flag;
      DbnFeatureDescription read = makeOdd();
      EXPECT_EQ(read.deserialize(textOf(written)), 0);
      EXPECT_TRUE(sameDescription(read, written));
    }
  }
}

TEST(DbnFeatureDescriptionText, eachKeySetsItsOwnField) {
  DbnFeatureDescription desc = makeOdd();
  ASSERT_EQ(desc.deserialize("mel_deltas:bands=1,left=-2,right=003,deltas=0,line_kernels=1,"
                             "line_kernel_width=4"),
            0);
  EXPECT_EQ(desc.numBands, 1);
  EXPECT_EQ(desc.winSizeLeft, -2);
  EXPECT_EQ(desc.winSizeRight, 3);
  EXPECT_FALSE(desc.useDeltas);
  EXPECT_TRUE(desc.useLineKernels);
  EXPECT_EQ(desc.lineKernelWidth, 4);
  EXPECT_EQ(desc.featType, 0);
  EXPECT_EQ(desc.reserved, 0);
}

// kText with one part of it replaced.
std::string altered(const std::string& part, const std::string& replacement) {
  std::string text = kText;
  const std::size_t at = text.find(part);
  if (at == std::string::npos) throw std::invalid_argument(part);
  return text.replace(at, part.size(), replacement);
}

TEST(DbnFeatureDescriptionText, anythingElseIsRefusedAndLeavesTheValue) {
  const std::vector<std::string> refused = {
      "",
      "mel_deltas",
      "mel_deltas:",
      " " + std::string(kText),
      std::string(kText) + " ",
      std::string(kText) + "\n",
      std::string(kText) + ",",
      std::string(kText) + std::string(1, '\0'),
      std::string(kText) + "x",
      altered("mel_deltas", "mel_delta"),
      altered("mel_deltas", "MEL_DELTAS"),
      altered("mel_deltas:", "mel_deltas,"),
      altered("mel_deltas:", "mel_deltas: "),
      altered(",left", ", left"),
      altered(",left", ":left"),
      altered("bands=40,left=7", "left=7,bands=40"),
      altered("left=7,right=6", "right=6,left=7"),
      altered("deltas=1,line_kernels=0", "line_kernels=0,deltas=1"),
      altered("bands=40,", ""),
      altered("mel_deltas:bands=", ""),
      altered("bands=", ""),
      altered(",left=7", "-7"),
      altered(",line_kernel_width=5", ""),
      altered("bands=40", "bands="),
      altered("bands=40", "bands=-"),
      altered("bands=40", "bands=--4"),
      altered("bands=40", "bands=+40"),
      altered("bands=40", "bands= 40"),
      altered("bands=40", "bands=40 "),
      altered("bands=40", "bands=0x28"),
      altered("bands=40", "bands=40.0"),
      altered("bands=40", "bands=4e1"),
      altered("bands=40", "bands=2147483648"),
      altered("bands=40", "bands=-2147483649"),
      altered("bands=40", "bands=99999999999999999999"),
      altered("bands=40", "Bands=40"),
      altered("deltas=1", "deltas=2"),
      altered("deltas=1", "deltas=01"),
      altered("deltas=1", "deltas=-1"),
      altered("deltas=1", "deltas="),
      altered("deltas=1", "deltas=true"),
      altered("line_kernels=0", "line_kernels=00"),
      altered("line_kernels=0", "line_kernels=10"),
      altered("width=5", "width=5.5"),
      altered("width=5", "width="),
  };
  for (const std::string& text : refused) {
    DbnFeatureDescription desc = makeOdd();
    EXPECT_EQ(desc.deserialize(text), 1) << text;
    EXPECT_TRUE(sameDescription(desc, makeOdd())) << text;
  }
}

TEST(DbnFeatureDescriptionText, everyProperPrefixIsRefused) {
  const std::string text = kText;
  for (std::size_t length = 0; length < text.size(); ++length) {
    DbnFeatureDescription desc = makeOdd();
    EXPECT_EQ(desc.deserialize(text.substr(0, length)), 1) << length;
    EXPECT_TRUE(sameDescription(desc, makeOdd())) << length;
  }
}

// --- Bytes of an image ---

TEST(DbnFeatureDescriptionBytes, everyByteButTheFlagsIsTakenAsItIs) {
  char bytes[21];
  for (std::size_t i = 0; i < sizeof bytes; ++i) bytes[i] = static_cast<char>(0xF0 + i);
  bytes[15] = 1;  // the flags, at offsets 14 and 15 of an address that is not aligned
  bytes[16] = 0;
  const DbnFeatureDescription desc = mlnn::featureDescriptionFromBytes(bytes + 1);
  EXPECT_EQ(std::memcmp(&desc, bytes + 1, 20), 0);
}

TEST(DbnFeatureDescriptionBytes, flagByteThatIsNeitherZeroNorOneIsTrue) {
  for (int byte = 0; byte < 256; ++byte) {
    char bytes[20] = {};
    bytes[14] = static_cast<char>(byte);
    const DbnFeatureDescription deltas = mlnn::featureDescriptionFromBytes(bytes);
    bytes[14] = 0;
    bytes[15] = static_cast<char>(byte);
    const DbnFeatureDescription kernels = mlnn::featureDescriptionFromBytes(bytes);

    DbnFeatureDescription expected(DbnFeatureDescription::MelDeltas);
    expected.useDeltas = byte != 0;
    EXPECT_TRUE(sameDescription(deltas, expected)) << byte;
    expected.useDeltas = false;
    expected.useLineKernels = byte != 0;
    EXPECT_TRUE(sameDescription(kernels, expected)) << byte;
  }
}

}  // namespace
