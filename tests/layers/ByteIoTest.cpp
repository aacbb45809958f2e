#include <gtest/gtest.h>

#include <string>

#include "layers/ByteIo.h"

namespace {

TEST(ByteIo, writesLittleEndianValuesOneBehindTheOther) {
  char bytes[17] = {};
  mlnn::ByteWriter writer(bytes + 1);  // at any address
  EXPECT_EQ(writer.length(), 0u);
  writer.int32(-2);
  writer.uint32(0x01020304);
  const float values[] = {1.0f, -0.0f};
  writer.floats(values, 2);
  writer.bytes(nullptr, 0);
  EXPECT_EQ(writer.length(), 16u);
  const unsigned char expected[] = {0, 0xFE, 0xFF, 0xFF, 0xFF, 4, 3, 2,   1,
                                    0, 0,    0x80, 0x3F, 0,    0, 0, 0x80};
  EXPECT_EQ(std::string(bytes, 17), std::string(reinterpret_cast<const char*>(expected), 17));
}

TEST(ByteIo, readsThemBack) {
  const unsigned char bytes[] = {0, 0xFE, 0xFF, 0xFF, 0xFF, 'a', 'b'};
  mlnn::ByteReader reader(reinterpret_cast<const char*>(bytes) + 1, 6);
  EXPECT_EQ(reader.remaining(), 6u);
  EXPECT_EQ(reader.int32(), -2);
  EXPECT_EQ(reader.consumed(), 4u);
  char two[2];
  reader.bytes(two, 2);
  EXPECT_EQ(std::string(two, 2), "ab");
  EXPECT_EQ(reader.remaining(), 0u);
  EXPECT_EQ(reader.consumed(), 6u);
}

}  // namespace
