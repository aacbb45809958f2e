#include <gtest/gtest.h>

#include <stdexcept>
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

TEST(MemoryStream, showsAPieceAtATimeToWhoWatches) {
  std::string bytes;
  for (int i = 0; i < 700000; ++i) bytes += static_cast<char>('a' + i % 23);
  std::size_t told = 0;
  mlnn::MemoryStream in(bytes.data(), bytes.size(), [&told](std::size_t steps) { told += steps; });
  EXPECT_EQ(rest(in), bytes);
  EXPECT_EQ(told, std::size_t{2} << 18);  // of three pieces
  in.clear();
  in.seekg(0, std::ios::end);
  EXPECT_EQ(in.tellg(), std::streampos(700000));
  for (const int from : {0, 1, 262143, 262144, 699999, 700000}) {
    in.clear();
    in.seekg(from);
    EXPECT_EQ(rest(in), bytes.substr(static_cast<std::size_t>(from)));
  }
  EXPECT_NO_THROW(in.rethrow());
}

TEST(MemoryStream, endsWhereItsWatchThrows) {
  const std::string bytes(700000, 'x');
  mlnn::MemoryStream in(bytes.data(), bytes.size(),
                        [](std::size_t) { throw std::out_of_range("enough"); });
  EXPECT_EQ(rest(in).size(), std::size_t{1} << 18);
  EXPECT_EQ(in.get(), std::istream::traits_type::eof());
  EXPECT_THROW(in.rethrow(), std::out_of_range);
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
