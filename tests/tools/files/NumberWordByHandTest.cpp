#include <gtest/gtest.h>

#include <charconv>
#include <cstring>
#include <limits>
#include <string>
#include <system_error>

#include "tools/files/NumberWord.h"

namespace {

// What the standard library makes of a word, and what is made of it by hand: the position behind
// it, the error and the bits of the value.
template <typename Float>
void expectTheSame(const std::string& word) {
  const char* const end = word.data() + word.size();
  Float expected = 7, found = 7;
  const std::from_chars_result standard = std::from_chars(word.data(), end, expected);
  const std::from_chars_result byHand = mlnn::parseWord(word.data(), end, found);
  EXPECT_EQ(byHand.ptr - word.data(), standard.ptr - word.data()) << word;
  EXPECT_EQ(byHand.ec, standard.ec) << word;
  EXPECT_EQ(std::memcmp(&found, &expected, sizeof(Float)), 0) << word;
}

}  // namespace

TEST(NumberWordByHand, readsWhatTheStandardLibraryReads) {
  for (const char* const word : {"0",
                                 "-0",
                                 "1.5",
                                 "-2.75e3",
                                 ".5",
                                 "5.",
                                 "1e5",
                                 "1E+5",
                                 "1e-5",
                                 "inf",
                                 "-inf",
                                 "infinity",
                                 "INF",
                                 "1,2",
                                 "3 4",
                                 "2e",
                                 "2e+",
                                 "0x10",
                                 "-0x10",
                                 "1e38",
                                 "16777217",
                                 "0.1",
                                 "3.4028234663852886e38",
                                 "1e-37"}) {
    expectTheSame<float>(word);
    expectTheSame<double>(word);
  }
  for (const char* const word : {"1e39", "-1e39"}) expectTheSame<float>(word);
  for (const char* const word : {"1e309", "-1e309"}) expectTheSame<double>(word);
}

TEST(NumberWordByHand, refusesWhatTheStandardLibraryRefuses) {
  for (const char* const word :
       {"", "-", "+", "+1", " 1", "\t1", "a", ".", "-.", "e5", "in", "--1"}) {
    expectTheSame<float>(word);
    expectTheSame<double>(word);
  }
}
