#include <gtest/gtest.h>

#include <cstring>
#include <sstream>
#include <string>

#include "tests/support/TestModels.h"
#include "tools/Failure.h"
#include "tools/files/Npy.h"

namespace {

using namespace std::string_literals;
using mlnn::parseNpy;
using mlnn::test::sameBits;

std::string littleEndian(std::size_t value, int bytes) {
  std::string text;
  for (; bytes > 0; --bytes, value >>= 8) text += static_cast<char>(value & 0xFF);
  return text;
}

// A file of the given version with this header text and these bytes after it.
std::string npy(const std::string& header, const std::string& values, char major = 1,
                char minor = 0) {
  return "\x93NUMPY"s + major + minor + littleEndian(header.size(), major == 1 ? 2 : 4) + header +
         values;
}

template <typename Value>
std::string bytesOf(std::initializer_list<Value> values) {
  std::string bytes;
  for (const Value& value : values) {
    char raw[sizeof value];
    std::memcpy(raw, &value, sizeof value);
    bytes.append(raw, sizeof raw);
  }
  return bytes;
}

const std::string kTwoByThree = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }\n";
const std::string kSixFloats = bytesOf<float>({1, 2, 3, 4, 5, 6});

// Two frames of three values; a column is a frame.
Eigen::MatrixXf twoByThree() {
  Eigen::MatrixXf frames(3, 2);
  frames << 1, 4, 2, 5, 3, 6;
  return frames;
}

std::string refusalOf(const std::string& bytes) {
  try {
    parseNpy(bytes, "F");
  } catch (const mlnn::Failure& failure) {
    return failure.what();
  }
  return "";
}

TEST(NpyTest, readsFramesInEitherMemoryOrder) {
  EXPECT_TRUE(sameBits(parseNpy(npy(kTwoByThree, kSixFloats), "F"), twoByThree()));
  const std::string header = "{'descr': '<f4', 'fortran_order': True, 'shape': (2, 3), }";
  const std::string values = bytesOf<float>({1, 4, 2, 5, 3, 6});
  EXPECT_TRUE(sameBits(parseNpy(npy(header, values), "F"), twoByThree()));
}

TEST(NpyTest, roundsDoublesToFloats) {
  const std::string header = "{'descr': '<f8', 'fortran_order': False, 'shape': (1, 3), }";
  const Eigen::MatrixXf read = parseNpy(npy(header, bytesOf<double>({0.1, 1e300, -1e-300})), "F");
  Eigen::MatrixXf expected(3, 1);
  expected << 0.1f, std::numeric_limits<float>::infinity(), -0.0f;
  EXPECT_TRUE(sameBits(read, expected));
}

TEST(NpyTest, readsAllThreeVersions) {
  for (const char version : {'\1', '\2', '\3'}) {
    EXPECT_TRUE(sameBits(parseNpy(npy(kTwoByThree, kSixFloats, version), "F"), twoByThree()));
  }
}

TEST(NpyTest, readsHeadersInEveryFormThatPythonAllows) {
  for (const std::string header : {
           "{\"shape\":(2,3),\"descr\":\"<f4\",\"fortran_order\":False}",
           "  { 'fortran_order' : False , 'descr' : '<f4' , 'shape' : ( 2 , 3 , ) , }  \n",
           "{'descr': '<f4', 'fortran_order': False, 'shape': (2L, 3L)}",
       }) {
    EXPECT_TRUE(sameBits(parseNpy(npy(header, kSixFloats), "F"), twoByThree())) << header;
  }
}

TEST(NpyTest, takesOneDimensionAsOneFrame) {
  const std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (6,), }";
  const Eigen::MatrixXf read = parseNpy(npy(header, kSixFloats), "F");
  EXPECT_EQ(read.rows(), 6);
  EXPECT_EQ(read.cols(), 1);
}

struct Refusal {
  std::string bytes;
  std::string message;
};

std::string withShape(const std::string& shape) {
  return npy("{'descr': '<f4', 'fortran_order': False, 'shape': " + shape + "}", kSixFloats);
}

class NpyRefusalTest : public ::testing::TestWithParam<Refusal> {};

TEST_P(NpyRefusalTest, saysWhatWasExpectedAndWhatWasFound) {
  EXPECT_EQ(refusalOf(GetParam().bytes), GetParam().message);
}

INSTANTIATE_TEST_SUITE_P(
    All, NpyRefusalTest,
    ::testing::Values(
        Refusal{"\x93NUMPY", "F: .npy file ends before its header"},
        Refusal{"\x93NUMPY\1\0\7"s, "F: .npy file ends before its header"},
        Refusal{npy(kTwoByThree, "", 4), "F: expected .npy version 1.0, 2.0 or 3.0, found 4.0"},
        Refusal{npy(kTwoByThree, "", 1, 1), "F: expected .npy version 1.0, 2.0 or 3.0, found 1.1"},
        Refusal{"\x93NUMPY\1\0\xff\xff{}"s,
                "F: .npy file ends in its header: expected 65535 bytes from byte 10, found 2"},
        Refusal{"\x93NUMPY\2\0\xff\xff\xff\xff{}"s,
                "F: .npy file ends in its header: expected 4294967295 bytes from byte 12, found 2"},
        Refusal{npy("", ""), "F: .npy header at byte 10: expected '{', found the end"},
        Refusal{withShape("(1, 2, 3, 4, 5, 6, 7, 8)"),
                "F: expected frames x values, found shape (1, 2, 3, 4, 5, 6, 7, 8)"},
        Refusal{withShape("(1, 2, 3, 4, 5, 6, 7, 8, 9)"),
                "F: expected frames x values, found shape (1, 2, 3, 4, 5, 6, 7, 8, ...) of 9 "
                "dimensions"},
        Refusal{npy("{'descr': '" + std::string(5000, 'x') +
                        "', 'fortran_order': False, 'shape': (2, 3)}",
                    kSixFloats),
                "F: expected values of type <f4 or <f8, found '" + std::string(160, 'x') +
                    "... (5000 bytes)'"},
        Refusal{npy("{}", ""),
                "F: .npy header at byte 12: expected an entry 'descr', found the end"},
        Refusal{npy("{'descr': '<f4'}", ""),
                "F: .npy header at byte 26: expected an entry 'fortran_order', found the end"},
        Refusal{npy("{'descr': '<f4', 'fortran_order': True}", ""),
                "F: .npy header at byte 49: expected an entry 'shape', found the end"},
        Refusal{npy("{'descr': '<f4'} x", ""),
                "F: .npy header at byte 27: expected the end of the header, found 'x'"},
        Refusal{npy("{'descr", ""),
                "F: .npy header at byte 12: expected the end of the string, found 'descr'"},
        Refusal{npy("{7: 1}", ""), "F: .npy header at byte 11: expected a string, found '7: 1}'"},
        Refusal{npy("{'descr' '<f4'}", ""),
                "F: .npy header at byte 19: expected ':', found ''<f4'}'"},
        Refusal{npy("{'descr': '<f4' 'shape'", ""),
                "F: .npy header at byte 26: expected '}', found ''shape''"},
        Refusal{npy("{'title': '<f4'}", ""),
                "F: .npy header at byte 11: expected each of 'descr', 'fortran_order' and 'shape' "
                "once, found ''title': '<f4'}'"},
        Refusal{npy("{'descr': '<f4', 'descr': '<f8'}", ""),
                "F: .npy header at byte 27: expected each of 'descr', 'fortran_order' and 'shape' "
                "once, found ''descr': '<f8'}'"},
        Refusal{npy("{'fortran_order': 0}", ""),
                "F: .npy header at byte 28: expected True or False, found '0}'"},
        Refusal{withShape("6"), "F: .npy header at byte 60: expected '(', found '6}'"},
        Refusal{withShape("(-2, -3)"),
                "F: .npy header at byte 61: expected a count that is not negative and fits 64 "
                "bits, found '-2, -3)}'"},
        Refusal{withShape("(99999999999999999999,)"),
                "F: .npy header at byte 61: expected a count that is not negative and fits 64 "
                "bits, found '99999999999999999999'"},
        Refusal{withShape("(2 3)"), "F: .npy header at byte 63: expected ')', found '3)}'"},
        Refusal{withShape("()"), "F: expected frames x values, found shape ()"},
        Refusal{withShape("(1, 2, 3)"), "F: expected frames x values, found shape (1, 2, 3)"},
        Refusal{withShape("(0, 3)"), "F: holds no values, its shape is (0, 3)"},
        Refusal{withShape("(0,)"), "F: holds no values, its shape is (0,)"},
        Refusal{withShape("(2, 4)"),
                "F: expected shape (2, 4) of 4-byte values, found 24 bytes of values"},
        Refusal{withShape("(1, 5)"),
                "F: expected shape (1, 5) of 4-byte values, found 24 bytes of values"},
        // Products that overflow 64 bits, to 0 and to 24 bytes.
        Refusal{withShape("(4294967296, 4294967296)"),
                "F: expected shape (4294967296, 4294967296) of 4-byte values, found 24 bytes of "
                "values"},
        Refusal{withShape("(4611686018427387910,)"),
                "F: expected shape (4611686018427387910,) of 4-byte values, found 24 bytes of "
                "values"},
        Refusal{npy("{'descr': '>f4', 'fortran_order': False, 'shape': (2, 3)}", kSixFloats),
                "F: expected values of type <f4 or <f8, found '>f4'"},
        Refusal{npy("{'descr': '<i4', 'fortran_order': False, 'shape': (2, 3)}", kSixFloats),
                "F: expected values of type <f4 or <f8, found '<i4'"}));

TEST(NpyTest, everyPrefixIsRefused) {
  const std::string whole = npy(kTwoByThree, kSixFloats);
  for (std::size_t length = 6; length < whole.size(); ++length) {
    EXPECT_NE(refusalOf(whole.substr(0, length)), "") << length;
  }
}

TEST(NpyTest, writesWhatOthersRead) {
  std::ostringstream out;
  mlnn::writeNpy(twoByThree(), out);
  const std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (2, 3), }";
  EXPECT_EQ(out.str(), npy(header + std::string(118 - header.size() - 1, ' ') + "\n", kSixFloats));
  EXPECT_EQ((out.str().size() - kSixFloats.size()) % 64, 0u);
  EXPECT_TRUE(sameBits(parseNpy(out.str(), "F"), twoByThree()));
}

}  // namespace
