#include <gtest/gtest.h>

#include <cstdint>
#include <string>

#include "tools/page/Png.h"

namespace {

using mlnn::base64;
using mlnn::Colour;
using mlnn::dataUriOf;
using mlnn::IndexedImage;
using mlnn::pngOf;

std::string hexOf(const std::string& bytes) {
  std::string hex;
  for (const char byte : bytes) {
    hex += "0123456789abcdef"[static_cast<unsigned char>(byte) >> 4];
    hex += "0123456789abcdef"[byte & 15];
  }
  return hex;
}

// Checked by hand: the chunks of the format one by one, with CRC-32 and Adler-32.
TEST(PngTest, writesAPictureByteForByte) {
  const IndexedImage image{2, 1, {1, 0}};
  EXPECT_EQ(hexOf(pngOf(image, {Colour{1, 2, 3, 255}, Colour{4, 5, 6, 0}})),
            "89504e470d0a1a0a"
            "0000000d"
            "49484452"
            "00000002"
            "00000001"
            "0803000000"
            "c3fc8fb8"
            "00000006"
            "504c5445"
            "010203040506"
            "95536f48"
            "00000002"
            "74524e53"
            "ff00"
            "e5b7304a"
            "0000000e"
            "49444154"
            "7801"
            "01"
            "0300"
            "fcff"
            "000100"
            "00050002"
            "fcdf1b53"
            "00000000"
            "49454e44"
            "ae426082");
}

std::uint32_t wordAt(const std::string& bytes, std::size_t at) {
  std::uint32_t word = 0;
  for (std::size_t i = 0; i < 4; ++i) word = word << 8 | static_cast<unsigned char>(bytes[at + i]);
  return word;
}

// A block that is not compressed has at most 65,535 bytes.
TEST(PngTest, storesLargePicturesInBlocks) {
  IndexedImage image{300, 300, {}};
  image.pixels.assign(300 * 300, 7);
  const std::string png = pngOf(image, std::vector<Colour>(8, Colour{0, 0, 0, 0}));
  const std::size_t data = png.find("IDAT");
  ASSERT_NE(data, std::string::npos);
  const std::size_t rows = 301 * 300;
  EXPECT_EQ(wordAt(png, data - 4), 2 + 5 + 65535 + 5 + (rows - 65535) + 4);
  EXPECT_EQ(hexOf(png.substr(data + 4, 8)), "780100ffff000000");
  EXPECT_EQ(hexOf(png.substr(data + 4 + 2 + 5 + 65535, 5)), "01bd60429f");
}

TEST(Base64Test, fillsUpTheLastGroup) {
  EXPECT_EQ(base64(""), "");
  EXPECT_EQ(base64("M"), "TQ==");
  EXPECT_EQ(base64("Ma"), "TWE=");
  EXPECT_EQ(base64("Man"), "TWFu");
  EXPECT_EQ(base64(std::string("\xfb\xff\0", 3)), "+/8A");
  EXPECT_EQ(dataUriOf("Man"), "data:image/png;base64,TWFu");
}

}  // namespace
