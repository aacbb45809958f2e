#include <gtest/gtest.h>

#include <string>

#include "model/MemoryStream.h"

namespace {

constexpr char kBytes[] = "one two";
constexpr std::size_t kLength = sizeof kBytes - 1;

std::string rest(std::istream& in) { return {std::istreambuf_iterator<char>(in), {}}; }

TEST(MemoryStream, readsToTheEnd) {
  mlnn::MemoryStream in(kBytes, kLength);
  std::string word;
  in >> word;
  EXPECT_EQ(word, "one");
  EXPECT_EQ(rest(in), " two");
  EXPECT_EQ(rest(in), "");
  mlnn::MemoryStream none(nullptr, 0);
  EXPECT_EQ(none.get(), std::istream::traits_type::eof());
}

TEST(MemoryStream, seeksFromEachPlace) {
  mlnn::MemoryStream in(kBytes, kLength);
  in.seekg(0, std::ios::end);
  EXPECT_EQ(in.tellg(), std::streampos(kLength));
  in.seekg(-3, std::ios::cur);
  EXPECT_EQ(in.tellg(), std::streampos(4));
  EXPECT_EQ(rest(in), "two");
  in.clear();
  in.seekg(1);
  EXPECT_EQ(rest(in), "ne two");
}

TEST(MemoryStream, staysWhereItIsWhereASeekLeadsOut) {
  for (const auto& [offset, from] : {std::pair{-1, std::ios::beg},
                                     {8, std::ios::beg},
                                     {1, std::ios::end},
                                     {-8, std::ios::end},
                                     {6, std::ios::cur}}) {
    mlnn::MemoryStream in(kBytes, kLength);
    in.get();
    in.get();
    in.seekg(offset, from);
    EXPECT_TRUE(in.fail());
    in.clear();
    EXPECT_EQ(in.tellg(), std::streampos(2));
  }
}

}  // namespace
