// The checksum, by every method that this processor can run.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>

#include "layers/Crc32c.h"
#include "tests/support/ByteImage.h"

namespace {

using mlnn::Crc32c;
using mlnn::Crc32cMethod;
using mlnn::test::crc32c;

std::string randomBytes(std::size_t count) {
  std::mt19937 random(static_cast<uint32_t>(count));
  std::string bytes(count, '\0');
  for (char& byte : bytes) byte = static_cast<char>(random());
  return bytes;
}

uint32_t checksumBy(const Crc32cMethod& method, const char* bytes, std::size_t count) {
  return ~method.update(0xFFFFFFFF, reinterpret_cast<const unsigned char*>(bytes), count);
}

TEST(Crc32cMethods, giveTheValuesOfTheStandard) {
  // RFC 3720, section B.4, and the check value of the usual catalogues.
  struct Case {
    std::string bytes;
    uint32_t checksum;
  };
  std::string ascending(32, '\0');
  for (std::size_t i = 0; i < ascending.size(); ++i) ascending[i] = static_cast<char>(i);
  const std::string descending(ascending.rbegin(), ascending.rend());
  const Case cases[] = {{"", 0x00000000},
                        {"123456789", 0xE3069283},
                        {std::string(32, '\0'), 0x8A9136AA},
                        {std::string(32, '\xFF'), 0x62A8AB43},
                        {ascending, 0x46DD794E},
                        {descending, 0x113FDB5C}};
  for (const Crc32cMethod& method : mlnn::runnableCrc32cMethods()) {
    for (const Case& c : cases) {
      EXPECT_EQ(checksumBy(method, c.bytes.data(), c.bytes.size()), c.checksum) << method.name;
    }
  }
}

TEST(Crc32cMethods, agreeOnEveryShortLengthAndAlignment) {
  const std::string bytes = randomBytes(400);
  for (const Crc32cMethod& method : mlnn::runnableCrc32cMethods()) {
    for (std::size_t start = 0; start < 16; ++start) {
      for (std::size_t length = 0; length <= 300; ++length) {
        ASSERT_EQ(checksumBy(method, bytes.data() + start, length),
                  crc32c(bytes.substr(start, length)))
            << method.name << ", " << length << " bytes from " << start;
      }
    }
  }
}

// Around the lengths at which strands begin, of one, two and several of them.
TEST(Crc32cMethods, agreeOnLongLengths) {
  const std::string bytes = randomBytes(40000);
  for (const std::size_t strands : {768u, 1536u, 2304u, 6144u, 12288u, 13056u}) {
    for (std::size_t length = strands - 9; length <= strands + 9; ++length) {
      const std::size_t start = length % 8;
      const uint32_t expected = crc32c(bytes.substr(start, length));
      for (const Crc32cMethod& method : mlnn::runnableCrc32cMethods()) {
        ASSERT_EQ(checksumBy(method, bytes.data() + start, length), expected)
            << method.name << ", " << length << " bytes";
      }
    }
  }
}

TEST(Crc32cMethods, readNothingBehindTheBytes) {
  for (const std::size_t length : {1u, 7u, 8u, 9u, 300u, 768u, 6144u, 7000u}) {
    const std::string bytes = randomBytes(length);
    const mlnn::test::GuardedBytes guarded(bytes);
    for (const Crc32cMethod& method : mlnn::runnableCrc32cMethods()) {
      EXPECT_EQ(checksumBy(method, guarded.data(), length), crc32c(bytes)) << method.name;
    }
  }
}

TEST(Crc32c, doesNotDependOnHowTheBytesAreCut) {
  const std::string bytes = randomBytes(50000);
  std::mt19937 random(1);
  for (int round = 0; round < 50; ++round) {
    Crc32c crc;
    for (std::size_t at = 0; at < bytes.size();) {
      const std::size_t piece =
          std::min<std::size_t>(random() % (round % 2 == 0 ? 10000 : 100), bytes.size() - at);
      crc.add(bytes.data() + at, piece);
      at += piece;
    }
    ASSERT_EQ(crc.value(), crc32c(bytes));
  }
}

TEST(Crc32c, copiesWhatItTakes) {
  for (const std::size_t length : {0u, 1u, 100u, 16384u, 16385u, 50000u}) {
    const std::string bytes = randomBytes(length);
    std::string copied(length + 1, '\x5A');
    Crc32c crc;
    crc.add("x", 1);
    crc.copy(copied.data(), bytes.data(), length);
    EXPECT_EQ(crc.value(), crc32c("x" + bytes));
    EXPECT_EQ(copied, bytes + '\x5A');
  }
}

TEST(Crc32c, ofNothingIsZero) {
  Crc32c crc;
  crc.add(nullptr, 0);
  crc.copy(nullptr, nullptr, 0);
  EXPECT_EQ(crc.value(), 0u);
}

}  // namespace
